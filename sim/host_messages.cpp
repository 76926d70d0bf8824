#include "sim/host_messages.h"

#include <cstdio>
#include <iomanip>
#include <map>
#include <sstream>

#include "hostlink/status_messages.h"
#include "log/log_time.h"
#include "protocol/item_stream.h"
#include "protocol/little_endian.h"

namespace sim {
namespace {

using qnt::ItemStream;

constexpr std::size_t kDateSize = 6;  // before the time of day in qnt::formatLocalSecond

std::uint32_t sizeOf(const Bytes& bytes) {
    return static_cast<std::uint32_t>(bytes.size());
}

template <typename Append>
Bytes stream(Append append) {
    ItemStream items;
    (void)items.create(0);
    append(items);
    return {items.data(), items.data() + items.streamEnd()};
}

void appendBytes(ItemStream& items, std::uint32_t type, const Bytes& bytes) {
    (void)items.appendItem(type, bytes.data(), sizeOf(bytes));
}

Bytes encodeList(const std::vector<HostPrinter>& printers) {
    return stream([&](ItemStream& list) {
        for (const HostPrinter& printer : printers) {
            appendBytes(list, qnt::PrinterEntry, stream([&](ItemStream& entry) {
                            (void)entry.appendText(qnt::PrinterId, printer.id);
                            (void)entry.appendText(qnt::PrinterName, printer.name);
                        }));
        }
    });
}

Bytes answerWith(const Bytes& payload, std::uint32_t sequence) {
    Bytes answer = emptyAnswer(sequence);
    qnt::writeU32(answer.data() + qnt::PrintingCmdHeader::kPayloadLengthOffset, sizeOf(payload));
    answer.insert(answer.end(), payload.begin(), payload.end());
    return answer;
}

std::string quotedText(const std::string& text) {
    std::ostringstream quoted;
    quoted << std::quoted(text, '\'');
    return quoted.str();
}

using Names = std::map<std::uint32_t, const char*>;
const Names kRequestNames = {{qnt::GetDefaultPrinter, "GetDefaultPrinter"},
                             {qnt::GetPrintingCmd, "GetPrintingCmd"},
                             {qnt::PrintingCmdAnswer, "PrintingCmdAnswer"},
                             {qnt::PrintingCmdPending, "PrintingCmdPending"},
                             {qnt::UserDeletedPrinters, "UserDeletedPrinters"}};
const Names kCommandNames = {{qnt::CmdAddPrinter, "CmdAddPrinter"},
                             {qnt::CmdDeletePrinter, "CmdDeletePrinter"},
                             {qnt::CmdDeleteOfflinePrinters, "CmdDeleteOfflinePrinters"},
                             {qnt::CmdPrinterList, "CmdPrinterList"},
                             {qnt::CmdWaitAllOffline, "CmdWaitAllOffline"}};

std::string nameOf(const Names& names, std::uint32_t value, const char* kind) {
    const auto found = names.find(value);
    return found != names.end() ? found->second : kind + (" " + std::to_string(value));
}

std::string describeList(const Bytes& list) {
    std::string text = " [";
    for (const Item& entry : itemsOf(list, 0)) {
        text += text.size() > 2 ? ", " : "";
        for (const Item& item : itemsOf(entry.data, 0))
            text += item.type == qnt::PrinterName ? " " + quotedText(item.text()) : item.text();
    }
    return text + "]";
}

std::string describeItem(const Item& item) {
    switch (item.type) {
        case qnt::PrinterId:
            return " id=" + quotedText(item.text());
        case qnt::CmdResult:
            return " result=" + std::to_string(item.number());
        case qnt::CmdCode:
            return " " + nameOf(kCommandNames, item.number(), "command");
        case qnt::PrinterList:
            return describeList(item.data);
        default:
            return " item " + std::to_string(item.type);
    }
}

std::string describeItems(const Bytes& message) {
    std::string text;
    for (const Item& item : itemsOf(message, qnt::kPrintingCmdHeaderSize))
        text += describeItem(item);
    return text;
}

std::string describeSequence(const Bytes& message) {
    return " seq=" + std::to_string(headerField(message, qnt::PrintingCmdHeader::kSequenceOffset));
}

std::string describeAnswer(const Bytes& answer) {
    if (answer.size() < qnt::kPrintingCmdHeaderSize)
        return "answer of " + std::to_string(answer.size()) + " bytes";
    const std::uint32_t size = headerField(answer, qnt::PrintingCmdHeader::kRequiredSizeOffset);
    if (size != 0)
        return "needs " + std::to_string(size) + " bytes";
    if (headerField(answer, qnt::PrintingCmdHeader::kPayloadLengthOffset) == 0)
        return "done";
    const std::string items = describeItems(answer);
    return items.empty() ? "malformed" : items.substr(1) + describeSequence(answer);
}

std::string describeLinkCall(const Exchange& exchange) {
    const std::string transport = exchange.isOverBackdoor ? "backdoor" : "link";
    if (exchange.request.empty())
        return transport + " probe";
    return transport + " message of " + std::to_string(exchange.request.size()) + " bytes, state " +
           quotedText(statusState(exchange.request));
}

std::string describeReply(const Exchange& exchange, const Reply& reply) {
    if (reply.error != 0)
        return "write fails with errno " + std::to_string(reply.error);
    if (reply.status == qnt::kRequestCanceled)
        return "cancelled";
    if (reply.status != qnt::kRequestDone)
        return "refused";
    return exchange.requestType == kLinkCall ? "done" : describeAnswer(reply.answer);
}

std::string timeOfDay(std::chrono::system_clock::time_point time) {
    char second[qnt::kLocalSecondSize];
    qnt::formatLocalSecond(std::chrono::system_clock::to_time_t(time), second);
    const auto part = time.time_since_epoch() % std::chrono::seconds(1);
    char text[32];
    std::snprintf(text, sizeof text, "%s.%03d", second + kDateSize,
                  static_cast<int>(part / std::chrono::milliseconds(1)));
    return text;
}

}  // namespace

std::uint32_t Item::number() const {
    return data.size() < sizeof(std::uint32_t) ? 0 : qnt::readU32(data.data());
}

std::vector<Item> itemsOf(const Bytes& message, std::uint32_t base) {
    std::vector<Item> items;
    ItemStream stream;
    for (std::int32_t result = stream.open(message.data(), sizeOf(message), base);
         result == qnt::kStreamOk; result = stream.next())
        items.push_back(
            {stream.itemType(), {stream.itemData(), stream.itemData() + stream.itemLength()}});
    return items;
}

std::uint32_t headerField(const Bytes& message, std::uint32_t offset) {
    return qnt::readU32(message.data() + offset);
}

Bytes emptyAnswer(std::uint32_t sequence) {
    Bytes answer(qnt::kPrintingCmdHeaderSize);
    qnt::writeU32(answer.data() + qnt::PrintingCmdHeader::kVersionOffset, qnt::kPrintingVersion);
    qnt::writeU32(answer.data() + qnt::PrintingCmdHeader::kSequenceOffset, sequence);
    return answer;
}

Reply askFor(std::uint32_t requiredSize) {
    Bytes answer = emptyAnswer(0);
    qnt::writeU32(answer.data() + qnt::PrintingCmdHeader::kRequiredSizeOffset, requiredSize);
    return {.answer = std::move(answer)};
}

// A stream with one item that is longer than the stream.
Reply malformed() {
    Bytes answer = encodeAnswer(addPrinter("TAG"), 0);
    qnt::writeU32(answer.data() + qnt::kPrintingCmdHeaderSize + qnt::kStreamHeaderSize, 0xFFFFFFF0);
    return {.answer = std::move(answer)};
}

Bytes encodeAnswer(const HostCommand& command, std::uint32_t sequence) {
    return answerWith(stream([&](ItemStream& items) {
                          Bytes code(qnt::kCmdCodeSize);
                          qnt::writeU32(code.data(), command.code);
                          appendBytes(items, qnt::CmdCode, code);
                          if (!command.printerId.empty())
                              (void)items.appendText(qnt::PrinterId, command.printerId);
                          if (command.printers)
                              appendBytes(items, qnt::PrinterList, encodeList(*command.printers));
                      }),
                      sequence);
}

Bytes encodeDefaultPrinter(const std::string& id, std::uint32_t sequence) {
    return answerWith(
        stream([&](ItemStream& items) { (void)items.appendText(qnt::PrinterId, id); }), sequence);
}

std::string describeRequest(const Exchange& exchange) {
    if (exchange.requestType == kLinkCall)
        return describeLinkCall(exchange);
    if (exchange.request.empty())
        return "malformed request";
    return nameOf(kRequestNames, exchange.requestType, "request type") +
           describeSequence(exchange.request) + describeItems(exchange.request);
}

std::string describeExchange(const Exchange& exchange) {
    const auto now = std::chrono::system_clock::now();
    const auto held = std::chrono::duration_cast<std::chrono::milliseconds>(now - exchange.when);
    return timeOfDay(now) + " " + describeRequest(exchange) + " (" +
           std::to_string(exchange.request.size()) + "/" + std::to_string(exchange.outSize) +
           ") -> " + describeReply(exchange, *exchange.reply) + ", " +
           std::to_string(held.count()) + " ms";
}

std::string statusState(const Bytes& message) {
    for (const Item& item : itemsOf(message, qnt::kStatusPrefixSize)) {
        if (item.type == qnt::StatusItemState)
            return item.text();
    }
    return {};
}

}  // namespace sim
