// The host's side of the printing protocol and of the link.
//
// A played host answers each request as soon as it has something to say and holds it until then:
// GetPrintingCmd until a command is waiting, GetDefaultPrinter until the default differs from the
// one that the service has seen, PrintingCmdPending until a command is waiting (which the service
// drops and asks for again, so it stays waiting). Answers that do not fit the offered buffer ask
// for room. A held request whose sender gets a signal is cancelled. A printer whose queue is
// reported as deleted leaves the host's list.

#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "protocol/printing_format.h"
#include "sim/device_file.h"
#include "sim/host_messages.h"
#include "sim/host_replies.h"

namespace sim {

enum class LinkMode { kAccept, kRefuse, kAskAgain };  // kAskAgain: the probe's next time only

// The type of link calls, and one that stands for whatever the run loop sends next.
inline constexpr std::uint32_t kLinkCall = 0;
inline constexpr std::uint32_t kRunLoopRequest = 0xFFFFFFFF;

class SimulatedHost {
public:
    // Mounts the device; the process is in its host namespace. `report` receives a decoded line
    // for each exchange before its sender goes on, from any thread; it must not call the host, and
    // may be empty. Throws std::runtime_error like DeviceFile.
    explicit SimulatedHost(std::function<void(const std::string&)> report = {});
    ~SimulatedHost() = default;
    SimulatedHost(const SimulatedHost&) = delete;
    SimulatedHost& operator=(const SimulatedHost&) = delete;

    // Any thread.

    // The host's world. plug() adds to the host's list and plugs the USB device in; these send no
    // command.
    void plug(const std::string& id, const std::string& name);
    void unplug(const std::string& id);  // the USB device alone
    void forget(const std::string& id);  // out of the host's list
    void rename(const std::string& id, const std::string& name);
    void setDefault(const std::string& id);
    std::vector<HostPrinter> printers() const;
    std::string defaultPrinter() const;

    // Lets a command wait for the service.
    void send(HostCommand command);
    void sendPrinterList() { send(printerList(printers())); }
    // The next requests of this type meet these faults, in order; answers follow again after them.
    // A request that is waiting for its answer counts as the next one.
    void fault(std::uint32_t requestType, Fault fault);
    // Requests of this type are held until release(); their number that may wait is not limited.
    void hold(std::uint32_t requestType);
    void release(std::uint32_t requestType);
    // From now on; `times` tells how often kAskAgain is said before the link accepts again.
    void setLinkMode(LinkMode mode, int times = 1);

    // What was recorded, in the order of arrival.
    std::vector<Exchange> exchanges() const;
    std::vector<Exchange> exchanges(std::uint32_t requestType) const;
    std::vector<Bytes> statusMessages() const;         // complete status messages of the link
    std::vector<std::string> deletedPrinters() const;  // ids reported, in order
    std::vector<std::uint32_t> results() const;        // CmdResult values received, in order
    // How many requests of this type are waiting for their answer now.
    std::size_t waiting(std::uint32_t requestType) const;
    // Whether no command is waiting and the run loop is asking for the next one.
    bool isIdle() const;
    // Waits until the condition holds, looking after every exchange; false after the time.
    bool waitUntil(const std::function<bool()>& condition,
                   std::chrono::milliseconds time = std::chrono::seconds(20)) const;

private:
    struct Held {
        SubmissionPtr submission;
        std::size_t exchange = 0;    // in m_exchanges
        std::optional<Reply> reply;  // once it is known
        bool silenced = false;
    };
    struct WaitingCommand {
        HostCommand command;
        std::uint32_t sequence;
    };

    template <typename Change>
    void change(Change apply);
    void arrive(SubmissionPtr submission);
    void cancel(const SubmissionPtr& submission);
    void settle();
    std::optional<Reply> replyTo(Held& held);
    std::optional<Fault> takeFault(std::uint32_t requestType);
    std::optional<Reply> printingReply(const Exchange& exchange) const;
    std::optional<Reply> defaultPrinterReply(const Exchange& exchange) const;
    std::optional<Reply> commandReply(const Exchange& exchange) const;
    Reply linkModeReply(const Exchange& exchange);
    void carryOut(Held& held, const Reply& reply);
    void forgetReported(const Bytes& request);
    HostPrinter* findPrinter(const std::string& id);
    std::vector<Bytes> requestItems(std::uint32_t requestType, std::uint32_t itemType) const;

    const std::function<void(const std::string&)> m_report;
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;

    // Under the mutex.
    std::uint64_t m_version = 0;  // grows with each change
    std::vector<Exchange> m_exchanges;
    std::vector<Held> m_held;  // without an answer, in the order of their arrival
    std::deque<WaitingCommand> m_commands;
    std::vector<HostPrinter> m_printers;
    std::uint32_t m_listSequence = 0;
    std::optional<std::string> m_default;
    std::uint32_t m_defaultSequence = 0;
    std::map<std::uint32_t, std::deque<Fault>> m_faults;  // by request type
    std::set<std::uint32_t> m_holds;                      // request types
    LinkMode m_linkMode = LinkMode::kAccept;
    int m_linkModeTimes = 0;  // of kAskAgain

    DeviceFile m_device;  // last: its thread uses all of the above
};

}  // namespace sim
