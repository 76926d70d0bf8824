// The host's side of the printing protocol and of the link.
//
// A simulated host holds each request until it has an answer for it: GetPrintingCmd and
// PrintingCmdAnswer until a command is waiting, PrintingCmdPending likewise (the service drops that
// command and asks for it again, so it stays waiting), GetDefaultPrinter until the default differs
// from the one that the service has last received. If an answer does not fit into the buffer, the
// host asks for a larger one. A held request is cancelled when its sender gets a signal. A printer
// whose queue is reported as deleted is removed from the host's list.

#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "protocol/printing_format.h"
#include "sim/device_file.h"
#include "sim/host_messages.h"
#include "sim/host_replies.h"
#include "sim/process.h"

namespace sim {

class SimulatedHost {
public:
    // Mounts the device in the guest namespace, which the process has entered. `report`, if not
    // empty, gets one line of text for each exchange before its sender continues, on any thread; it
    // must not call the host. Throws std::runtime_error like DeviceFile.
    explicit SimulatedHost(std::function<void(const std::string&)> report = {});
    ~SimulatedHost() = default;
    SimulatedHost(const SimulatedHost&) = delete;
    SimulatedHost& operator=(const SimulatedHost&) = delete;

    // Any thread.

    // Change the host's printers without sending a command. plug() adds the printer to the host's
    // list and plugs in its USB device, which unplugUsbPrinter() removes.
    void plug(const std::string& id, const std::string& name);
    void forget(const std::string& id);  // removes it from the host's list
    void rename(const std::string& id, const std::string& name);
    void setDefault(const std::string& id);
    std::vector<HostPrinter> printers() const;
    std::string defaultPrinter() const;

    // Queues a command for the service.
    void send(const HostCommand& command);
    void sendPrinterList() { send(printerList(printers())); }
    // Queues a reply, which the next request of this type gets in place of the host's own. A
    // request that is held already counts as the next one.
    void answerNext(std::uint32_t requestType, Reply reply);
    // Holds all requests of this type until release().
    void hold(std::uint32_t requestType);
    void release(std::uint32_t requestType);
    // Refuses all link calls on the device from now on.
    void refuseLink();
    // Takes a message that the hypervisor has received. An empty message stands for a probe.
    void receiveFromBackdoor(Bytes message);

    // The record of what was received, in the order of arrival.
    std::vector<Exchange> exchanges() const;
    std::vector<Exchange> exchanges(std::uint32_t requestType) const;
    std::vector<Bytes> statusMessages() const;         // complete status messages of the link
    std::vector<std::string> deletedPrinters() const;  // ids reported, in order
    std::vector<std::uint32_t> results() const;        // CmdResult values received, in order
    // The number of requests of this type that are held now.
    std::size_t waiting(std::uint32_t requestType) const;
    // True if no command is waiting and the run loop asks for one.
    bool isIdle() const;
    bool waitUntilIdle(std::chrono::milliseconds time = kPatience) const {
        return waitUntil([this] { return isIdle(); }, time);
    }

private:
    struct Held {
        SubmissionPtr submission;
        std::size_t exchange;  // in m_exchanges
    };

    template <typename Change>
    void change(Change apply);
    void arrive(SubmissionPtr submission);
    void cancel(const fuse_req* write);
    void answerHeld();
    std::optional<Reply> queuedReply(const Exchange& exchange);
    std::optional<Reply> ownReply(const Exchange& exchange);
    std::optional<Reply> defaultPrinterReply(const Exchange& exchange) const;
    std::optional<Reply> commandReply(const Exchange& exchange);
    void carryOut(Submission& submission, Exchange& exchange);
    void removePrinter(const std::string& id);
    HostPrinter* findPrinter(const std::string& id);
    std::vector<Item> receivedItems(std::uint32_t requestType) const;

    const std::function<void(const std::string&)> m_report;
    mutable std::mutex m_mutex;

    // Guarded by the mutex.
    std::vector<Exchange> m_exchanges;
    std::vector<Held> m_held;      // not yet answered, in the order of arrival
    std::deque<Bytes> m_commands;  // encoded
    std::vector<HostPrinter> m_printers;
    std::uint32_t m_listSequence = 0;
    std::string m_default;
    std::uint32_t m_defaultSequence = 0;
    std::vector<std::pair<std::uint32_t, Reply>> m_queuedReplies;  // with their request types
    std::set<std::uint32_t> m_holds;                               // request types
    bool m_refusesLink = false;

    DeviceFile m_device;  // last: its thread uses all of the above
};

}  // namespace sim
