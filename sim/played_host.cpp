#include "sim/played_host.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "hostlink/link_device.h"
#include "protocol/little_endian.h"
#include "sim/host_namespace.h"
#include "sim/message_items.h"

namespace sim {
namespace {

using Clock = std::chrono::system_clock;

// How long waitUntil() goes without looking: its condition may depend on more than the exchanges.
constexpr std::chrono::milliseconds kLookPause(50);

constexpr std::size_t kLinkHeaderBuffer = 0;
constexpr std::size_t kLinkMessageBuffer = 1;
constexpr std::size_t kPrintingRequestBuffer = 0;
constexpr std::size_t kPrintingAnswerBuffer = 1;

bool isRunLoopType(std::uint32_t requestType) {
    return requestType == qnt::GetPrintingCmd || requestType == qnt::PrintingCmdAnswer ||
           requestType == qnt::PrintingCmdPending;
}

bool isPrinting(const Exchange& exchange) {
    return exchange.code == qnt::QntKlReqPrinting;
}

std::uint32_t sequenceOf(const Exchange& exchange) {
    return qnt::readU32(exchange.request.data() + qnt::PrintingCmdHeader::kSequence);
}

// What is done to a request that gets its answer now.
struct Reply {
    std::uint32_t status = qnt::kStatusDone;
    int error = 0;  // instead of all else, the errno of the write
    Bytes answer;
    bool takesCommand = false;  // the command that waited longest has reached the service
};

Reply statusReply(std::uint32_t status) {
    Reply reply;
    reply.status = status;
    return reply;
}

Reply errorReply(int error) {
    Reply reply;
    reply.error = error;
    return reply;
}

Reply answerReply(Bytes answer) {
    Reply reply;
    reply.answer = std::move(answer);
    return reply;
}

Bytes linkHeader(const qnt::KavelinkCallHeader& header) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&header);
    return {bytes, bytes + sizeof header};
}

Bytes faultyAnswer(const Exchange& exchange, const Fault& fault) {
    if (fault.kind == Fault::Kind::kRaw)
        return fault.answer;
    const bool asks = fault.kind == Fault::Kind::kAskFor;
    if (isPrinting(exchange))
        return asks ? roomRequest(fault.value) : malformedAnswer();
    qnt::KavelinkCallHeader header;
    header.inputSize = exchange.inSize;
    header.answerSize = asks ? fault.value : 0;
    header.hostStatus = asks ? 0 : -1;
    return linkHeader(header);
}

Reply faultReply(const Exchange& exchange, const Fault& fault) {
    switch (fault.kind) {
        case Fault::Kind::kCancel:
            return statusReply(qnt::kStatusCanceled);
        case Fault::Kind::kStatus:
            return statusReply(fault.value);
        case Fault::Kind::kWriteError:
            return errorReply(static_cast<int>(fault.value));
        default:
            return answerReply(faultyAnswer(exchange, fault));
    }
}

// Takes the request out of the sender's memory. The reply is set when it can't be understood.
std::optional<Reply> readPrinting(const Submission& submission, Exchange& exchange) {
    const auto& buffers = submission.buffers();
    if (buffers.size() != 2 || (buffers[kPrintingAnswerBuffer].flags & qnt::kBufferWritable) == 0)
        return statusReply(kStatusRefused);
    exchange.inSize = buffers[kPrintingRequestBuffer].size;
    exchange.outSize = buffers[kPrintingAnswerBuffer].size;
    std::optional<Bytes> request = submission.readBuffer(kPrintingRequestBuffer);
    if (!request)
        return errorReply(EFAULT);
    exchange.request = std::move(*request);
    if (exchange.request.size() < qnt::kPrintingCmdHeaderSize)
        return statusReply(kStatusRefused);
    exchange.requestType =
        qnt::readU32(exchange.request.data() + qnt::PrintingCmdHeader::kRequestType);
    return std::nullopt;
}

std::optional<Reply> readLinkCall(const Submission& submission, Exchange& exchange) {
    if (submission.buffers().empty())
        return std::nullopt;
    const std::optional<Bytes> head = submission.readBuffer(kLinkHeaderBuffer);
    std::optional<Bytes> message = submission.readBuffer(kLinkMessageBuffer);
    if (!head || !message)
        return errorReply(EFAULT);
    qnt::KavelinkCallHeader header;
    if (head->size() != sizeof header)
        return statusReply(kStatusRefused);
    std::memcpy(&header, head->data(), sizeof header);
    exchange.inSize = header.inputSize;
    exchange.outSize = header.outputSize;
    if (header.inputSize > message->size())
        return statusReply(kStatusRefused);
    message->resize(header.inputSize);
    exchange.request = std::move(*message);
    return std::nullopt;
}

std::optional<Reply> readRequest(const Submission& submission, Exchange& exchange) {
    exchange.when = Clock::now();
    exchange.thread = submission.thread();
    exchange.code = submission.header().code;
    switch (exchange.code) {
        case qnt::QntKlReqPrinting:
            return readPrinting(submission, exchange);
        case qnt::QntKlReqLinkCall:
            return readLinkCall(submission, exchange);
        default:
            return statusReply(kStatusRefused);
    }
}

}  // namespace

class PlayedHost::State {
public:
    explicit State(std::function<void(const std::string&)> report)
        : m_report(std::move(report)),
          m_device({[this](SubmissionPtr submission) { arrive(std::move(submission)); },
                    [this](SubmissionPtr submission) { cancel(submission); }}) {}

    // Makes a change under the mutex, then answers whatever can be answered now.
    template <typename Change>
    void change(Change apply) {
        {
            const std::lock_guard lock(m_mutex);
            apply(*this);
            settle();
            ++m_version;
        }
        m_changed.notify_all();
    }

    template <typename Look>
    auto look(Look read) const {
        const std::lock_guard lock(m_mutex);
        return read(*this);
    }

    // The condition asks the host for its records, so it is called without the mutex.
    bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds time) const {
        const auto deadline = std::chrono::steady_clock::now() + time;
        while (true) {
            const std::uint64_t seen = look([](const State& state) { return state.m_version; });
            if (condition())
                return true;
            const auto now = std::chrono::steady_clock::now();
            if (now >= deadline)
                return false;
            std::unique_lock lock(m_mutex);
            m_changed.wait_until(lock, std::min(deadline, now + kLookPause),
                                 [&] { return m_version != seen; });
        }
    }

    HostPrinter* findPrinter(const std::string& id) {
        const auto found = std::ranges::find(printers, id, &HostPrinter::id);
        return found == printers.end() ? nullptr : &*found;
    }

    void setDefault(const std::string& id) {
        if (defaultId == id)
            return;
        defaultId = id;
        ++m_defaultSequence;
    }

    void queue(HostCommand command) {
        if (command.code == qnt::CmdPrinterList)
            ++m_listSequence;
        m_commands.push_back({std::move(command), m_listSequence});
    }

    std::size_t waiting(std::uint32_t requestType) const {
        return static_cast<std::size_t>(std::ranges::count_if(m_held, [&](const Held& held) {
            return m_exchanges[held.exchange].requestType == requestType;
        }));
    }

    bool isIdle() const {
        return m_commands.empty() && std::ranges::any_of(m_held, [&](const Held& held) {
                   return isRunLoopType(m_exchanges[held.exchange].requestType);
               });
    }

    const std::vector<Exchange>& exchanges() const { return m_exchanges; }

    // The data of the items of this type, of all the requests of this type.
    std::vector<Bytes> requestItems(std::uint32_t requestType, std::uint32_t itemType) const {
        std::vector<Bytes> found;
        for (const Exchange& exchange : m_exchanges) {
            if (exchange.requestType != requestType)
                continue;
            forEachItem(exchange.request, qnt::kPrintingCmdHeaderSize,
                        [&](std::uint32_t type, const Bytes& data) {
                            if (type == itemType)
                                found.push_back(data);
                        });
        }
        return found;
    }

    // Under the mutex, by way of change() and look().
    std::vector<HostPrinter> printers;
    std::optional<std::string> defaultId;
    std::map<std::uint32_t, std::deque<Fault>> faults;
    std::map<std::uint32_t, bool> holds;
    LinkMode linkMode = LinkMode::kAccept;
    int linkModeTimes = 0;  // of kAskAgain

private:
    struct Held {
        SubmissionPtr submission;
        std::size_t exchange = 0;    // in m_exchanges
        std::optional<Reply> reply;  // known from the start
        bool silenced = false;
    };
    struct WaitingCommand {
        HostCommand command;
        std::uint32_t sequence;
    };

    void arrive(SubmissionPtr submission) {
        Exchange exchange;
        std::optional<Reply> reply = readRequest(*submission, exchange);
        change([&](State&) {
            m_exchanges.push_back(std::move(exchange));
            m_held.push_back({std::move(submission), m_exchanges.size() - 1, std::move(reply)});
        });
    }

    void cancel(const SubmissionPtr& submission) {
        change([&](State&) {
            const auto held = std::ranges::find(m_held, submission, &Held::submission);
            if (held != m_held.end()) {
                held->silenced = false;
                held->reply = statusReply(qnt::kStatusCanceled);
            }
        });
    }

    // Answers the requests whose time has come, in the order of their arrival.
    void settle() {
        std::erase_if(m_held, [&](Held& held) {
            const std::optional<Reply> reply = replyTo(held);
            if (reply)
                carryOut(held, *reply);
            return reply.has_value();
        });
    }

    std::optional<Reply> replyTo(Held& held) {
        if (held.reply || held.silenced)
            return held.reply;
        const Exchange& exchange = m_exchanges[held.exchange];
        if (holds[exchange.requestType])
            return std::nullopt;
        if (const std::optional<Fault> fault = takeFault(exchange.requestType)) {
            held.silenced = fault->kind == Fault::Kind::kSilence;
            return held.silenced ? std::nullopt : std::optional(faultReply(exchange, *fault));
        }
        return isPrinting(exchange) ? printingReply(exchange) : linkReply(exchange);
    }

    std::optional<Fault> takeFault(std::uint32_t requestType) {
        std::deque<Fault>* waitingFaults = &faults[requestType];
        if (waitingFaults->empty() && isRunLoopType(requestType))
            waitingFaults = &faults[kRunLoopRequest];
        if (waitingFaults->empty())
            return std::nullopt;
        Fault fault = std::move(waitingFaults->front());
        waitingFaults->pop_front();
        return fault;
    }

    std::optional<Reply> printingReply(const Exchange& exchange) const {
        switch (exchange.requestType) {
            case qnt::GetDefaultPrinter:
                return defaultPrinterReply(exchange);
            case qnt::GetPrintingCmd:
            case qnt::PrintingCmdAnswer:
            case qnt::PrintingCmdPending:
                return commandReply(exchange);
            case qnt::UserDeletedPrinters:
                return answerReply(emptyAnswer(0));
            default:
                return statusReply(kStatusRefused);
        }
    }

    std::optional<Reply> defaultPrinterReply(const Exchange& exchange) const {
        if (!defaultId || sequenceOf(exchange) == m_defaultSequence)
            return std::nullopt;
        return fitted(encodeDefaultPrinter(*defaultId, m_defaultSequence), exchange);
    }

    // The answer to PrintingCmdPending only ends the pending command: the service drops it and
    // asks for the same command again.
    std::optional<Reply> commandReply(const Exchange& exchange) const {
        if (m_commands.empty())
            return std::nullopt;
        const WaitingCommand& next = m_commands.front();
        const Bytes answer = encodeAnswer(next.command, next.sequence);
        Reply reply = fitted(answer, exchange);
        reply.takesCommand =
            answer.size() <= exchange.outSize && exchange.requestType != qnt::PrintingCmdPending;
        return reply;
    }

    static Reply fitted(const Bytes& answer, const Exchange& exchange) {
        if (answer.size() <= exchange.outSize)
            return answerReply(answer);
        return answerReply(roomRequest(static_cast<std::uint32_t>(answer.size())));
    }

    Reply linkReply(const Exchange& exchange) {
        const bool probe = exchange.request.empty();
        if (linkMode == LinkMode::kRefuse)
            return statusReply(kStatusRefused);
        if (probe && linkMode == LinkMode::kAskAgain && linkModeTimes > 0) {
            --linkModeTimes;
            return statusReply(qnt::kStatusAgain);
        }
        qnt::KavelinkCallHeader header;
        header.inputSize = exchange.inSize;
        return answerReply(probe ? Bytes() : linkHeader(header));
    }

    // The sender goes on only when the exchange has been recorded and reported.
    void carryOut(Held& held, const Reply& reply) {
        Exchange& exchange = m_exchanges[held.exchange];
        exchange.answered = Clock::now();
        exchange.error = writeAnswer(*held.submission, exchange, reply);
        if (exchange.error == 0)
            exchange.status = reply.status;
        if (m_report)
            m_report(describeExchange(exchange));
        if (exchange.error != 0) {
            held.submission->refuse(exchange.error);
            return;
        }
        if (reply.takesCommand)
            m_commands.pop_front();
        held.submission->complete(reply.status);
    }

    // 0, or the errno of the write.
    static int writeAnswer(Submission& submission, Exchange& exchange, const Reply& reply) {
        if (reply.error != 0 || reply.answer.empty())
            return reply.error;
        const std::size_t buffer = isPrinting(exchange) ? kPrintingAnswerBuffer : kLinkHeaderBuffer;
        if (!submission.writeBuffer(buffer, reply.answer))
            return EFAULT;
        exchange.answer = reply.answer;
        if (exchange.answer.size() > submission.buffers()[buffer].size)
            exchange.answer.resize(submission.buffers()[buffer].size);
        return 0;
    }

    const std::function<void(const std::string&)> m_report;

    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;

    // Under the mutex.
    std::uint64_t m_version = 0;  // grows with each change
    std::vector<Exchange> m_exchanges;
    std::vector<Held> m_held;
    std::deque<WaitingCommand> m_commands;
    std::uint32_t m_defaultSequence = 0;
    std::uint32_t m_listSequence = 0;

    DeviceFile m_device;  // last: its thread uses all of the above
};

PlayedHost::PlayedHost(std::function<void(const std::string&)> report)
    : m_state(std::make_unique<State>(std::move(report))) {}

PlayedHost::~PlayedHost() = default;

void PlayedHost::plug(const std::string& id, const std::string& name) {
    m_state->change([&](State& state) {
        if (HostPrinter* printer = state.findPrinter(id); printer != nullptr)
            printer->name = name;
        else
            state.printers.push_back({id, name});
        unplugUsbPrinter(id);
        plugUsbPrinter(id, name);
    });
}

void PlayedHost::unplug(const std::string& id) {
    m_state->change([&](State&) { unplugUsbPrinter(id); });
}

void PlayedHost::forget(const std::string& id) {
    m_state->change([&](State& state) {
        std::erase_if(state.printers, [&](const HostPrinter& printer) { return printer.id == id; });
    });
}

void PlayedHost::rename(const std::string& id, const std::string& name) {
    m_state->change([&](State& state) {
        if (HostPrinter* printer = state.findPrinter(id); printer != nullptr)
            printer->name = name;
    });
}

void PlayedHost::setDefault(const std::string& id) {
    m_state->change([&](State& state) { state.setDefault(id); });
}

std::vector<HostPrinter> PlayedHost::printers() const {
    return m_state->look([](const State& state) { return state.printers; });
}

std::string PlayedHost::defaultPrinter() const {
    return m_state->look([](const State& state) { return state.defaultId.value_or(""); });
}

void PlayedHost::send(HostCommand command) {
    m_state->change([&](State& state) { state.queue(std::move(command)); });
}

void PlayedHost::fault(std::uint32_t requestType, Fault fault) {
    m_state->change([&](State& state) { state.faults[requestType].push_back(std::move(fault)); });
}

void PlayedHost::hold(std::uint32_t requestType) {
    m_state->change([&](State& state) { state.holds[requestType] = true; });
}

void PlayedHost::release(std::uint32_t requestType) {
    m_state->change([&](State& state) { state.holds[requestType] = false; });
}

void PlayedHost::setLinkMode(LinkMode mode, int times) {
    m_state->change([&](State& state) {
        state.linkMode = mode;
        state.linkModeTimes = times;
    });
}

std::vector<Exchange> PlayedHost::exchanges() const {
    return m_state->look([](const State& state) { return state.exchanges(); });
}

std::vector<Exchange> PlayedHost::exchanges(std::uint32_t requestType) const {
    std::vector<Exchange> found = exchanges();
    std::erase_if(found,
                  [&](const Exchange& exchange) { return exchange.requestType != requestType; });
    return found;
}

std::vector<Bytes> PlayedHost::statusMessages() const {
    std::vector<Bytes> messages;
    for (const Exchange& exchange : exchanges(kLinkCall)) {
        if (exchange.code == qnt::QntKlReqLinkCall && !exchange.request.empty() &&
            exchange.status == qnt::kStatusDone)
            messages.push_back(exchange.request);
    }
    return messages;
}

std::vector<std::string> PlayedHost::deletedPrinters() const {
    std::vector<std::string> ids;
    std::ranges::transform(m_state->look([](const State& state) {
        return state.requestItems(qnt::UserDeletedPrinters, qnt::PrinterId);
    }),
                           std::back_inserter(ids), asText);
    return ids;
}

std::vector<std::uint32_t> PlayedHost::results() const {
    std::vector<std::uint32_t> values;
    std::ranges::transform(m_state->look([](const State& state) {
        return state.requestItems(qnt::PrintingCmdAnswer, qnt::CmdResult);
    }),
                           std::back_inserter(values), asU32);
    return values;
}

std::size_t PlayedHost::waiting(std::uint32_t requestType) const {
    return m_state->look([&](const State& state) { return state.waiting(requestType); });
}

bool PlayedHost::isIdle() const {
    return m_state->look([](const State& state) { return state.isIdle(); });
}

bool PlayedHost::waitUntil(const std::function<bool()>& condition,
                           std::chrono::milliseconds time) const {
    return m_state->waitUntil(condition, time);
}

HostCommand addPrinter(const std::string& id) {
    return {qnt::CmdAddPrinter, id, {}};
}

HostCommand deletePrinter(const std::string& id) {
    return {qnt::CmdDeletePrinter, id, {}};
}

HostCommand deleteOffline() {
    return {qnt::CmdDeleteOfflinePrinters, {}, {}};
}

HostCommand printerList(const std::vector<HostPrinter>& printers) {
    return {qnt::CmdPrinterList, {}, printers};
}

HostCommand waitOffline() {
    return {qnt::CmdWaitAllOffline, {}, {}};
}

}  // namespace sim
