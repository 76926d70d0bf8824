#include "sim/simulated_host.h"

#include <algorithm>
#include <iterator>

#include "sim/guest_namespace.h"

namespace sim {
namespace {

bool isOfType(const Exchange& exchange, std::uint32_t requestType) {
    const std::uint32_t type = exchange.requestType;
    return type == requestType || (requestType == kRunLoopRequest &&
                                   (type == qnt::GetPrintingCmd || type == qnt::PrintingCmdAnswer ||
                                    type == qnt::PrintingCmdPending));
}

// The answer, or the buffer size that it needs if it does not fit.
Reply fittedReply(const Exchange& exchange, const Bytes& answer) {
    const auto size = static_cast<std::uint32_t>(answer.size());
    return size <= exchange.outSize ? Reply{.answer = answer} : askFor(size);
}

}  // namespace

SimulatedHost::SimulatedHost(std::function<void(const std::string&)> report)
    : m_report(std::move(report)),
      m_device({.submitted = [this](SubmissionPtr submission) { arrive(std::move(submission)); },
                .interrupted = [this](const fuse_req* write) { cancel(write); },
                .ended = [this] { change([this] { m_held.clear(); }); }}) {}

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

void SimulatedHost::forget(const std::string& id) {
    change([&] { removePrinter(id); });
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
    return m_default;
}

void SimulatedHost::send(const HostCommand& command) {
    change([&] {
        if (command.code == qnt::CmdPrinterList)
            ++m_listSequence;
        m_commands.push_back(encodeAnswer(command, m_listSequence));
    });
}

void SimulatedHost::answerNext(std::uint32_t requestType, Reply reply) {
    change([&] { m_queuedReplies.emplace_back(requestType, std::move(reply)); });
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

void SimulatedHost::receiveFromBackdoor(Bytes message) {
    Exchange exchange{.when = std::chrono::system_clock::now(),
                      .requestType = kLinkCall,
                      .isOverBackdoor = true,
                      .request = std::move(message),
                      .reply = Reply{}};
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
                  [&](const Exchange& exchange) { return !isOfType(exchange, requestType); });
    return found;
}

std::vector<Bytes> SimulatedHost::statusMessages() const {
    std::vector<Bytes> messages;
    for (const Exchange& exchange : exchanges(kLinkCall)) {
        const std::optional<Reply>& reply = exchange.reply;
        if (!exchange.request.empty() && reply && reply->status == qnt::kRequestDone &&
            reply->error == 0)
            messages.push_back(exchange.request);
    }
    return messages;
}

std::vector<std::string> SimulatedHost::deletedPrinters() const {
    std::vector<std::string> ids;
    for (const Item& id : receivedItems(qnt::UserDeletedPrinters))
        ids.push_back(id.text());
    return ids;
}

std::vector<std::uint32_t> SimulatedHost::results() const {
    std::vector<std::uint32_t> values;
    for (const Item& result : receivedItems(qnt::PrintingCmdAnswer))
        values.push_back(result.number());
    return values;
}

std::size_t SimulatedHost::waiting(std::uint32_t requestType) const {
    const std::lock_guard lock(m_mutex);
    return static_cast<std::size_t>(std::ranges::count_if(m_held, [&](const Held& held) {
        return isOfType(m_exchanges[held.exchange], requestType);
    }));
}

bool SimulatedHost::isIdle() const {
    const std::lock_guard lock(m_mutex);
    return m_commands.empty() && std::ranges::any_of(m_held, [&](const Held& held) {
               return isOfType(m_exchanges[held.exchange], kRunLoopRequest);
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
    Exchange exchange = readRequest(*submission);
    change([&] {
        m_exchanges.push_back(std::move(exchange));
        m_held.push_back({std::move(submission), m_exchanges.size() - 1});
    });
}

void SimulatedHost::cancel(const fuse_req* write) {
    change([&] {
        for (const Held& held : m_held) {
            if (held.submission->isMadeBy(write))
                m_exchanges[held.exchange].reply = Reply{.status = qnt::kRequestCanceled};
        }
    });
}

void SimulatedHost::answerHeld() {
    std::erase_if(m_held, [&](const Held& held) {
        Exchange& exchange = m_exchanges[held.exchange];
        if (!exchange.reply && !m_holds.contains(exchange.requestType)) {
            exchange.reply = queuedReply(exchange);
            if (!exchange.reply)
                exchange.reply = ownReply(exchange);
        }
        if (!exchange.reply)
            return false;
        carryOut(*held.submission, exchange);
        return true;
    });
}

std::optional<Reply> SimulatedHost::queuedReply(const Exchange& exchange) {
    const auto queued = std::ranges::find_if(
        m_queuedReplies, [&](const auto& each) { return isOfType(exchange, each.first); });
    if (queued == m_queuedReplies.end())
        return std::nullopt;
    Reply reply = std::move(queued->second);
    m_queuedReplies.erase(queued);
    return reply;
}

std::optional<Reply> SimulatedHost::ownReply(const Exchange& exchange) {
    const Reply refusal{.status = kRequestRefused};
    switch (exchange.requestType) {
        case kLinkCall:
            return m_refusesLink ? refusal : linkReply(exchange);
        case qnt::GetDefaultPrinter:
            return defaultPrinterReply(exchange);
        case qnt::GetPrintingCmd:
        case qnt::PrintingCmdAnswer:
        case qnt::PrintingCmdPending:
            return commandReply(exchange);
        case qnt::UserDeletedPrinters:
            for (const Item& id : itemsOf(exchange.request, qnt::kPrintingCmdHeaderSize))
                removePrinter(id.text());
            return Reply{.answer = emptyAnswer(0)};
        default:
            return refusal;
    }
}

std::optional<Reply> SimulatedHost::defaultPrinterReply(const Exchange& exchange) const {
    const std::uint32_t received =
        headerField(exchange.request, qnt::PrintingCmdHeader::kSequenceOffset);
    if (received == m_defaultSequence)
        return std::nullopt;
    return fittedReply(exchange, encodeDefaultPrinter(m_default, m_defaultSequence));
}

// The service only drops a pending command at the answer to PrintingCmdPending and then asks for
// the same command again.
std::optional<Reply> SimulatedHost::commandReply(const Exchange& exchange) {
    if (m_commands.empty())
        return std::nullopt;
    const bool fits = m_commands.front().size() <= exchange.outSize;
    Reply reply = fittedReply(exchange, m_commands.front());
    if (fits && exchange.requestType != qnt::PrintingCmdPending)
        m_commands.pop_front();
    return reply;
}

// Records and reports the exchange before the sender continues.
void SimulatedHost::carryOut(Submission& submission, Exchange& exchange) {
    deliver(submission, exchange);
    if (m_report)
        m_report(describeExchange(exchange));
    submission.finish(exchange.reply->status, exchange.reply->error);
}

void SimulatedHost::removePrinter(const std::string& id) {
    std::erase_if(m_printers, [&](const HostPrinter& printer) { return printer.id == id; });
}

HostPrinter* SimulatedHost::findPrinter(const std::string& id) {
    const auto found = std::ranges::find(m_printers, id, &HostPrinter::id);
    return found == m_printers.end() ? nullptr : &*found;
}

// All items in all requests of one type.
std::vector<Item> SimulatedHost::receivedItems(std::uint32_t requestType) const {
    std::vector<Item> found;
    for (const Exchange& exchange : exchanges(requestType))
        std::ranges::move(itemsOf(exchange.request, qnt::kPrintingCmdHeaderSize),
                          std::back_inserter(found));
    return found;
}

}  // namespace sim
