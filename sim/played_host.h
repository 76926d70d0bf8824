// The host's side of the printing protocol and of the link.
//
// A played host answers each request as soon as it has something to say and holds it until then:
// GetPrintingCmd until a command is waiting, GetDefaultPrinter until the default differs from the
// one that the service has seen, PrintingCmdPending until a command is waiting (which the service
// drops and asks for again, so it stays waiting). Answers that do not fit the offered buffer ask
// for room. A held request whose sender gets a signal is cancelled.

#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "protocol/printing_format.h"
#include "sim/device_file.h"

namespace sim {

struct HostPrinter {
    std::string id;
    std::string name;
};

// A command of the host, and a builder for each kind. `printers` goes out with CmdPrinterList.
struct HostCommand {
    std::uint32_t code = 0;
    std::string printerId;
    std::vector<HostPrinter> printers;
};
HostCommand addPrinter(const std::string& id);
HostCommand deletePrinter(const std::string& id);
HostCommand deleteOffline();
HostCommand printerList(const std::vector<HostPrinter>& printers);
HostCommand waitOffline();

// What happens to a request instead of its answer. For a link call, kAskFor announces an answer of
// that size, kMalformed reports a failure in the call header, and kRaw replaces that header.
struct Fault {
    enum class Kind { kCancel, kStatus, kAskFor, kMalformed, kRaw, kSilence, kWriteError };
    Kind kind = Kind::kCancel;
    std::uint32_t value = 0;  // kStatus: the status; kAskFor: bytes; kWriteError: the errno
    Bytes answer;             // kRaw: the answer's bytes as they are
};

// One exchange as it came and as it was answered.
struct Exchange {
    std::chrono::system_clock::time_point when;
    pid_t thread = 0;
    std::uint32_t code = 0;         // of the device request
    std::uint32_t requestType = 0;  // of the printing header, 0 for link calls
    std::uint32_t inSize = 0;
    std::uint32_t outSize = 0;
    Bytes request;                        // the inSize bytes
    std::optional<std::uint32_t> status;  // none while it is held, and for a write that failed
    Bytes answer;                         // what was written into the answer buffer
    int error = 0;                        // the errno of a write that failed
    std::optional<std::chrono::system_clock::time_point> answered;
};

enum class LinkMode { kAccept, kRefuse, kAskAgain };  // kAskAgain: the probe's next time only

// The type of link calls, and one that stands for whatever the run loop sends next.
inline constexpr std::uint32_t kLinkCall = 0;
inline constexpr std::uint32_t kRunLoopRequest = 0xFFFFFFFF;

inline constexpr std::uint32_t kStatusRefused = 0xF0000001;

class PlayedHost {
public:
    // Mounts the device; the process is in its host namespace. `report` receives a decoded line
    // for each exchange before its sender goes on, from any thread; it must not call the host, and
    // may be empty. Throws std::runtime_error like DeviceFile.
    explicit PlayedHost(std::function<void(const std::string&)> report = {});
    ~PlayedHost();

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
    class State;
    std::unique_ptr<State> m_state;
};

// The answer bytes of a command: header and item stream, with requiredSize 0.
Bytes encodeAnswer(const HostCommand& command, std::uint32_t sequence);
// The answer bytes of the default printer's query.
Bytes encodeDefaultPrinter(const std::string& id, std::uint32_t sequence);
// A request in words, e.g. "PrintingCmdAnswer seq=17 result=1".
std::string describeRequest(std::uint32_t code, const Bytes& request);
// The answer to a request of the printing protocol in words, e.g. "CmdAddPrinter id=TAG1".
std::string describeAnswer(const Bytes& answer);
// An exchange as one line: time of day, request, sizes, outcome, and how long it was held.
std::string describeExchange(const Exchange& exchange);
// The state word of a status message; empty when it has none.
std::string statusState(const Bytes& message);

}  // namespace sim
