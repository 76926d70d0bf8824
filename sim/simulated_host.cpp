#include "sim/simulated_host.h"

#include <algorithm>
#include <iterator>

#include "protocol/little_endian.h"
#include "sim/guest_namespace.h"

namespace sim {
namespace {

// waitUntil() also polls: its condition may depend on more than the exchanges.
constexpr std::chrono::milliseconds kPollInterval(50);

bool isRunLoopType(std::uint32_t requestType) {
    return requestType == qnt::GetPrintingCmd || requestType == qnt::PrintingCmdAnswer ||
           requestType == qnt::PrintingCmdPending;
}

std::uint32_t sequenceOf(const Exchange& exchange) {
    return qnt::readU32(exchange.request.data() + qnt::PrintingCmdHeader::kSequenceOffset);
}

}  // namespace

SimulatedHost::SimulatedHost(std::function<void(const std::string&)> report)
    : m_report(std::move(report)),
      m_device({[this](SubmissionPtr submission) { arrive(std::move(submission)); },
                [this](const SubmissionPtr& submission) { cancel(submission); }}) {}

void SimulatedHost::plug(const std::string& id, const std::string& name) {
    change([&] {
        if (HostPrinter* printer = findPrinter(id); printer != nullptr)
            printer->name = name;
        else
            m_printers.push_back({id, name});
        unplugUsbPrinter(id);
        plugUsbPrinter(id, name);
    });
}

void SimulatedHost::unplug(const std::string& id) {
    change([&] { unplugUsbPrinter(id); });
}

void SimulatedHost::forget(const std::string& id) {
    change([&] {
        std::erase_if(m_printers, [&](const HostPrinter& printer) { return printer.id == id; });
    });
}

void SimulatedHost::rename(const std::string& id, const std::string& name) {
    change([&] {
        if (HostPrinter* printer = findPrinter(id); printer != nullptr)
            printer->name = name;
    });
}

void SimulatedHost::setDefault(const std::string& id) {
    change([&] {
        if (m_default != id)
            ++m_defaultSequence;
        m_default = id;
    });
}

std::vector<HostPrinter> SimulatedHost::printers() const {
    const std::lock_guard lock(m_mutex);
    return m_printers;
}

std::string SimulatedHost::defaultPrinter() const {
    const std::lock_guard lock(m_mutex);
    return m_default.value_or("");
}

void SimulatedHost::send(HostCommand command) {
    change([&] {
        if (command.code == qnt::CmdPrinterList)
            ++m_listSequence;
        m_commands.push_back({std::move(command), m_listSequence});
    });
}

void SimulatedHost::fault(std::uint32_t requestType, Fault fault) {
    change([&] { m_faults[requestType].push_back(std::move(fault)); });
}

void SimulatedHost::hold(std::uint32_t requestType) {
    change([&] { m_holds.insert(requestType); });
}

void SimulatedHost::release(std::uint32_t requestType) {
    change([&] { m_holds.erase(requestType); });
}

void SimulatedHost::setLinkMode(LinkMode mode, int times) {
    change([&] {
        m_linkMode = mode;
        m_linkModeTimes = times;
    });
}

void SimulatedHost::receiveFromBackdoor(Bytes message, int transfers) {
    Exchange exchange;
    exchange.when = std::chrono::system_clock::now();
    exchange.answered = exchange.when;
    exchange.code = qnt::QntKlReqLinkCall;
    exchange.inSize = static_cast<std::uint32_t>(message.size());
    exchange.transfers = transfers;
    exchange.request = std::move(message);
    exchange.status = qnt::kRequestDone;
    if (m_report)
        m_report(describeExchange(exchange));
    change([&] { m_exchanges.push_back(std::move(exchange)); });
}

std::vector<Exchange> SimulatedHost::exchanges() const {
    const std::lock_guard lock(m_mutex);
    return m_exchanges;
}

std::vector<Exchange> SimulatedHost::exchanges(std::uint32_t requestType) const {
    std::vector<Exchange> found = exchanges();
    std::erase_if(found,
                  [&](const Exchange& exchange) { return exchange.requestType != requestType; });
    return found;
}

std::vector<Bytes> SimulatedHost::statusMessages() const {
    std::vector<Bytes> messages;
    for (const Exchange& exchange : exchanges(kLinkCall)) {
        if (exchange.code == qnt::QntKlReqLinkCall && !exchange.request.empty() &&
            exchange.status == qnt::kRequestDone)
            messages.push_back(exchange.request);
    }
    return messages;
}

std::vector<std::string> SimulatedHost::deletedPrinters() const {
    std::vector<std::string> ids;
    std::ranges::transform(requestItems(qnt::UserDeletedPrinters, qnt::PrinterId),
                           std::back_inserter(ids), asText);
    return ids;
}

std::vector<std::uint32_t> SimulatedHost::results() const {
    std::vector<std::uint32_t> values;
    std::ranges::transform(requestItems(qnt::PrintingCmdAnswer, qnt::CmdResult),
                           std::back_inserter(values), asU32);
    return values;
}

std::size_t SimulatedHost::waiting(std::uint32_t requestType) const {
    const std::lock_guard lock(m_mutex);
    return static_cast<std::size_t>(std::ranges::count_if(m_held, [&](const Held& held) {
        return m_exchanges[held.exchange].requestType == requestType;
    }));
}

bool SimulatedHost::isIdle() const {
    const std::lock_guard lock(m_mutex);
    return isIdleLocked();
}

std::optional<HostCommand> SimulatedHost::currentCommand() const {
    const std::lock_guard lock(m_mutex);
    return m_currentCommand;
}

bool SimulatedHost::waitUntilIdle(std::chrono::milliseconds time) const {
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, time, [this] { return isIdleLocked(); });
}

// The condition may call the host, so it is called without the mutex.
bool SimulatedHost::waitUntil(const std::function<bool()>& condition,
                              std::chrono::milliseconds time) const {
    const auto deadline = std::chrono::steady_clock::now() + time;
    std::unique_lock lock(m_mutex);
    while (true) {
        const std::uint64_t seen = m_version;
        lock.unlock();
        if (condition())
            return true;
        const auto now = std::chrono::steady_clock::now();
        if (now >= deadline)
            return false;
        lock.lock();
        m_changed.wait_until(lock, std::min(deadline, now + kPollInterval),
                             [&] { return m_version != seen; });
    }
}

// Makes a change under the mutex, then answers every held request that can be answered now.
template <typename Change>
void SimulatedHost::change(Change apply) {
    {
        const std::lock_guard lock(m_mutex);
        apply();
        answerHeld();
        ++m_version;
    }
    m_changed.notify_all();
}

void SimulatedHost::arrive(SubmissionPtr submission) {
    Exchange exchange;
    std::optional<Reply> reply = readRequest(*submission, exchange);
    change([&] {
        if (isRunLoopType(exchange.requestType))
            m_currentCommand.reset();
        m_exchanges.push_back(std::move(exchange));
        m_held.push_back({std::move(submission), m_exchanges.size() - 1, std::move(reply)});
    });
}

void SimulatedHost::cancel(const SubmissionPtr& submission) {
    change([&] {
        const auto held = std::ranges::find(m_held, submission, &Held::submission);
        if (held != m_held.end())
            held->reply = Reply{.status = qnt::kRequestCanceled};
    });
}

void SimulatedHost::answerHeld() {
    std::erase_if(m_held, [&](Held& held) {
        const std::optional<Reply> reply = replyTo(held);
        if (reply)
            carryOut(held, *reply);
        return reply.has_value();
    });
}

std::optional<Reply> SimulatedHost::replyTo(Held& held) {
    const Exchange& exchange = m_exchanges[held.exchange];
    if (held.reply || held.silenced || m_holds.contains(exchange.requestType))
        return held.reply;
    if (const std::optional<Fault> fault = takeFault(exchange.requestType)) {
        held.silenced = fault->kind == Fault::Kind::kSilence;
        return held.silenced ? std::nullopt : std::optional(faultReply(exchange, *fault));
    }
    return exchange.code == qnt::QntKlReqPrinting ? printingReply(exchange)
                                                  : linkModeReply(exchange);
}

bool SimulatedHost::isIdleLocked() const {
    return m_commands.empty() && std::ranges::any_of(m_held, [&](const Held& held) {
               return isRunLoopType(m_exchanges[held.exchange].requestType);
           });
}

std::optional<Fault> SimulatedHost::takeFault(std::uint32_t requestType) {
    std::deque<Fault>* faults = &m_faults[requestType];
    if (faults->empty() && isRunLoopType(requestType))
        faults = &m_faults[kRunLoopRequest];
    if (faults->empty())
        return std::nullopt;
    Fault fault = std::move(faults->front());
    faults->pop_front();
    return fault;
}

std::optional<Reply> SimulatedHost::printingReply(const Exchange& exchange) const {
    switch (exchange.requestType) {
        case qnt::GetDefaultPrinter:
            return defaultPrinterReply(exchange);
        case qnt::GetPrintingCmd:
        case qnt::PrintingCmdAnswer:
        case qnt::PrintingCmdPending:
            return commandReply(exchange);
        case qnt::UserDeletedPrinters:
            return Reply{.answer = emptyAnswer(0)};
        default:
            return Reply{.status = kRequestRefused};
    }
}

std::optional<Reply> SimulatedHost::defaultPrinterReply(const Exchange& exchange) const {
    if (!m_default || sequenceOf(exchange) == m_defaultSequence)
        return std::nullopt;
    return fittedReply(exchange, encodeDefaultPrinter(*m_default, m_defaultSequence));
}

// The service only drops a pending command at the answer to PrintingCmdPending and then asks for
// the same command again.
std::optional<Reply> SimulatedHost::commandReply(const Exchange& exchange) const {
    if (m_commands.empty())
        return std::nullopt;
    const Bytes answer = encodeAnswer(m_commands.front().command, m_commands.front().sequence);
    Reply reply = fittedReply(exchange, answer);
    reply.takesCommand =
        answer.size() <= exchange.outSize && exchange.requestType != qnt::PrintingCmdPending;
    return reply;
}

Reply SimulatedHost::linkModeReply(const Exchange& exchange) {
    if (m_linkMode == LinkMode::kRefuse)
        return {.status = kRequestRefused};
    const bool probe = exchange.request.empty();
    if (probe && m_linkMode == LinkMode::kAskAgain && m_linkModeTimes > 0) {
        --m_linkModeTimes;
        return {.status = qnt::kRequestAgain};
    }
    return linkReply(exchange);
}

// Records and reports the exchange before the sender continues.
void SimulatedHost::carryOut(Held& held, const Reply& reply) {
    Exchange& exchange = m_exchanges[held.exchange];
    deliver(*held.submission, exchange, reply);
    if (reply.takesCommand && exchange.error == 0) {
        m_currentCommand = std::move(m_commands.front().command);
        m_commands.pop_front();
    }
    if (exchange.requestType == qnt::UserDeletedPrinters && exchange.status == qnt::kRequestDone)
        forgetReported(exchange.request);
    if (m_report)
        m_report(describeExchange(exchange));
    finish(*held.submission, exchange);
}

void SimulatedHost::forgetReported(const Bytes& request) {
    forEachItem(request, qnt::kPrintingCmdHeaderSize, [&](std::uint32_t, const Bytes& id) {
        std::erase_if(m_printers,
                      [&](const HostPrinter& printer) { return printer.id == asText(id); });
    });
}

HostPrinter* SimulatedHost::findPrinter(const std::string& id) {
    const auto found = std::ranges::find(m_printers, id, &HostPrinter::id);
    return found == m_printers.end() ? nullptr : &*found;
}

// The data of all items of one type in all requests of one type.
std::vector<Bytes> SimulatedHost::requestItems(std::uint32_t requestType,
                                               std::uint32_t itemType) const {
    std::vector<Bytes> found;
    for (const Exchange& exchange : exchanges(requestType)) {
        forEachItem(exchange.request, qnt::kPrintingCmdHeaderSize,
                    [&](std::uint32_t type, const Bytes& data) {
                        if (type == itemType)
                            found.push_back(data);
                    });
    }
    return found;
}

}  // namespace sim
