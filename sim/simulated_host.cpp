#include "sim/simulated_host.h"

#include <algorithm>
#include <iterator>

#include "protocol/little_endian.h"
#include "sim/guest_namespace.h"

namespace sim {
namespace {

bool isRunLoopType(std::uint32_t requestType) {
    return requestType == qnt::GetPrintingCmd || requestType == qnt::PrintingCmdAnswer ||
           requestType == qnt::PrintingCmdPending;
}

std::uint32_t sequenceOf(const Exchange& exchange) {
    return qnt::readU32(exchange.request.data() + qnt::PrintingCmdHeader::kSequenceOffset);
}

// The answer, or the buffer size that it needs if it does not fit.
Reply fittedReply(const Exchange& exchange, Bytes answer) {
    const auto size = static_cast<std::uint32_t>(answer.size());
    return size <= exchange.outSize ? raw(std::move(answer)) : askFor(size);
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

void SimulatedHost::answerNext(std::uint32_t requestType, Reply reply) {
    change([&] { m_queuedReplies[requestType].push_back(std::move(reply)); });
}

void SimulatedHost::hold(std::uint32_t requestType) {
    change([&] { m_holds.insert(requestType); });
}

void SimulatedHost::release(std::uint32_t requestType) {
    change([&] { m_holds.erase(requestType); });
}

void SimulatedHost::refuseLink() {
    change([&] { m_refusesLink = true; });
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
    for (const Item& id : receivedItems(qnt::UserDeletedPrinters, qnt::PrinterId))
        ids.push_back(id.text());
    return ids;
}

std::vector<std::uint32_t> SimulatedHost::results() const {
    std::vector<std::uint32_t> values;
    for (const Item& result : receivedItems(qnt::PrintingCmdAnswer, qnt::CmdResult))
        values.push_back(result.number());
    return values;
}

std::size_t SimulatedHost::waiting(std::uint32_t requestType) const {
    const std::lock_guard lock(m_mutex);
    return static_cast<std::size_t>(std::ranges::count_if(m_held, [&](const Held& held) {
        const std::uint32_t type = m_exchanges[held.exchange].requestType;
        return type == requestType || (requestType == kRunLoopRequest && isRunLoopType(type));
    }));
}

bool SimulatedHost::isIdle() const {
    const std::lock_guard lock(m_mutex);
    return m_commands.empty() && std::ranges::any_of(m_held, [&](const Held& held) {
               return isRunLoopType(m_exchanges[held.exchange].requestType);
           });
}

// Makes a change under the mutex, then answers every held request that can be answered now.
template <typename Change>
void SimulatedHost::change(Change apply) {
    const std::lock_guard lock(m_mutex);
    apply();
    answerHeld();
}

void SimulatedHost::arrive(SubmissionPtr submission) {
    Exchange exchange;
    std::optional<Reply> reply = readRequest(*submission, exchange);
    change([&] {
        m_exchanges.push_back(std::move(exchange));
        m_held.push_back({std::move(submission), m_exchanges.size() - 1, std::move(reply)});
    });
}

void SimulatedHost::cancel(const SubmissionPtr& submission) {
    change([&] {
        const auto held = std::ranges::find(m_held, submission, &Held::submission);
        if (held != m_held.end())
            held->reply = sim::cancel();
    });
}

void SimulatedHost::answerHeld() {
    std::erase_if(m_held, [&](Held& held) {
        const Exchange& exchange = m_exchanges[held.exchange];
        if (!held.reply && !m_holds.contains(exchange.requestType)) {
            held.reply = queuedReply(exchange.requestType);
            if (!held.reply)
                held.reply = ownReply(exchange);
        }
        if (!held.reply || held.reply->isSilence)
            return false;
        carryOut(held);
        return true;
    });
}

std::optional<Reply> SimulatedHost::queuedReply(std::uint32_t requestType) {
    std::deque<Reply>* replies = &m_queuedReplies[requestType];
    if (replies->empty() && isRunLoopType(requestType))
        replies = &m_queuedReplies[kRunLoopRequest];
    if (replies->empty())
        return std::nullopt;
    Reply reply = std::move(replies->front());
    replies->pop_front();
    return reply;
}

std::optional<Reply> SimulatedHost::ownReply(const Exchange& exchange) {
    const Reply refusal = status(kRequestRefused);
    if (exchange.code != qnt::QntKlReqPrinting)
        return m_refusesLink ? refusal : linkReply(exchange);
    switch (exchange.requestType) {
        case qnt::GetDefaultPrinter:
            return defaultPrinterReply(exchange);
        case qnt::GetPrintingCmd:
        case qnt::PrintingCmdAnswer:
        case qnt::PrintingCmdPending:
            return commandReply(exchange);
        case qnt::UserDeletedPrinters:
            return raw(emptyAnswer(0));
        default:
            return refusal;
    }
}

std::optional<Reply> SimulatedHost::defaultPrinterReply(const Exchange& exchange) const {
    if (!m_default || sequenceOf(exchange) == m_defaultSequence)
        return std::nullopt;
    return fittedReply(exchange, encodeDefaultPrinter(*m_default, m_defaultSequence));
}

// The service only drops a pending command at the answer to PrintingCmdPending and then asks for
// the same command again.
std::optional<Reply> SimulatedHost::commandReply(const Exchange& exchange) {
    if (m_commands.empty())
        return std::nullopt;
    const auto& [command, sequence] = m_commands.front();
    Bytes answer = encodeAnswer(command, sequence);
    const bool fits = answer.size() <= exchange.outSize;
    Reply reply = fittedReply(exchange, std::move(answer));
    if (fits && exchange.requestType != qnt::PrintingCmdPending)
        m_commands.pop_front();
    return reply;
}

// Records and reports the exchange before the sender continues.
void SimulatedHost::carryOut(const Held& held) {
    Exchange& exchange = m_exchanges[held.exchange];
    deliver(*held.submission, exchange, *held.reply);
    if (exchange.requestType == qnt::UserDeletedPrinters && exchange.status == qnt::kRequestDone)
        for (const Item& id : itemsOf(exchange.request, qnt::kPrintingCmdHeaderSize))
            std::erase_if(m_printers,
                          [&](const HostPrinter& printer) { return printer.id == id.text(); });
    if (m_report)
        m_report(describeExchange(exchange));
    finish(*held.submission, exchange);
}

HostPrinter* SimulatedHost::findPrinter(const std::string& id) {
    const auto found = std::ranges::find(m_printers, id, &HostPrinter::id);
    return found == m_printers.end() ? nullptr : &*found;
}

// All items of one type in all requests of one type.
std::vector<Item> SimulatedHost::receivedItems(std::uint32_t requestType,
                                               std::uint32_t itemType) const {
    std::vector<Item> found;
    for (const Exchange& exchange : exchanges(requestType)) {
        for (const Item& item : itemsOf(exchange.request, qnt::kPrintingCmdHeaderSize)) {
            if (item.type == itemType)
                found.push_back(item);
        }
    }
    return found;
}

}  // namespace sim
