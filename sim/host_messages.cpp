#include "sim/host_messages.h"

#include <cstdio>
#include <ctime>
#include <string_view>

#include "hostlink/device_request.h"
#include "hostlink/status_messages.h"
#include "protocol/item_stream.h"
#include "protocol/little_endian.h"

namespace sim {
namespace {

using qnt::ItemStream;

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

// The text in quotes; control characters, quotes and backslashes are escaped.
std::string quotedText(std::string_view text) {
    std::string result = "'";
    for (const char byte : text) {
        const auto value = static_cast<unsigned char>(byte);
        char escape[5] = {byte, 0};
        if (value < 0x20 || value == 0x7F || byte == '\'' || byte == '\\')
            std::snprintf(escape, sizeof escape, "\\x%02x", value);
        result += escape;
    }
    return result + '\'';
}

std::string number(const char* format, std::uint32_t value) {
    char text[32];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

struct Name {
    std::uint32_t value;
    const char* name;
};
constexpr Name kRequestNames[] = {{qnt::GetDefaultPrinter, "GetDefaultPrinter"},
                                  {qnt::GetPrintingCmd, "GetPrintingCmd"},
                                  {qnt::PrintingCmdAnswer, "PrintingCmdAnswer"},
                                  {qnt::PrintingCmdPending, "PrintingCmdPending"},
                                  {qnt::UserDeletedPrinters, "UserDeletedPrinters"}};
constexpr Name kCommandNames[] = {{qnt::CmdAddPrinter, "CmdAddPrinter"},
                                  {qnt::CmdDeletePrinter, "CmdDeletePrinter"},
                                  {qnt::CmdDeleteOfflinePrinters, "CmdDeleteOfflinePrinters"},
                                  {qnt::CmdPrinterList, "CmdPrinterList"},
                                  {qnt::CmdWaitAllOffline, "CmdWaitAllOffline"}};

template <std::size_t size>
std::string nameOf(const Name (&names)[size], std::uint32_t value, const char* kind) {
    for (const Name& entry : names) {
        if (entry.value == value)
            return entry.name;
    }
    return kind + (" " + std::to_string(value));
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
            return number(" item 0x%x", item.type);
    }
}

std::string describeItems(const Bytes& message) {
    std::string text;
    for (const Item& item : itemsOf(message, qnt::kPrintingCmdHeaderSize))
        text += describeItem(item);
    return text;
}

std::string describeLinkCall(const Exchange& exchange) {
    const bool backdoor = exchange.transfers != 0;
    const std::string transport = backdoor ? "backdoor" : "link";
    if (exchange.request.empty())
        return transport + " probe";
    return transport + " message of " + std::to_string(exchange.request.size()) + " bytes, state " +
           quotedText(statusState(exchange.request)) +
           (backdoor ? " transfers=" + std::to_string(exchange.transfers) : "");
}

std::string timeOfDay(std::chrono::system_clock::time_point time) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    const auto part = std::chrono::duration_cast<std::chrono::milliseconds>(
                          time - std::chrono::system_clock::from_time_t(seconds))
                          .count();
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[32];
    std::snprintf(text, sizeof text, "%02d:%02d:%02d.%03d", local.tm_hour, local.tm_min,
                  local.tm_sec, static_cast<int>(part));
    return text;
}

std::string describeOutcome(const Exchange& exchange) {
    if (exchange.error != 0)
        return "write fails with errno " + std::to_string(exchange.error);
    if (!exchange.status)
        return "held";
    if (*exchange.status == qnt::kRequestCanceled)
        return "cancelled";
    if (*exchange.status != qnt::kRequestDone)
        return number("status 0x%x", *exchange.status);
    return exchange.code == qnt::QntKlReqPrinting ? describeAnswer(exchange.answer) : "done";
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

Bytes emptyAnswer(std::uint32_t sequence) {
    Bytes answer(qnt::kPrintingCmdHeaderSize);
    qnt::writeU32(answer.data() + qnt::PrintingCmdHeader::kVersionOffset, qnt::kPrintingVersion);
    qnt::writeU32(answer.data() + qnt::PrintingCmdHeader::kSequenceOffset, sequence);
    return answer;
}

Reply askFor(std::uint32_t requiredSize) {
    Bytes answer = emptyAnswer(0);
    qnt::writeU32(answer.data() + qnt::PrintingCmdHeader::kRequiredSizeOffset, requiredSize);
    return raw(std::move(answer));
}

// A stream with one item that is longer than the stream.
Reply malformed() {
    Bytes answer = encodeAnswer(addPrinter("TAG"), 0);
    qnt::writeU32(answer.data() + qnt::kPrintingCmdHeaderSize + qnt::kStreamHeaderSize, 0xFFFFFFF0);
    return raw(std::move(answer));
}

Bytes encodeAnswer(const HostCommand& command, std::uint32_t sequence) {
    const bool namesPrinter =
        command.code == qnt::CmdAddPrinter || command.code == qnt::CmdDeletePrinter;
    return answerWith(stream([&](ItemStream& items) {
                          Bytes code(qnt::kCmdCodeSize);
                          qnt::writeU32(code.data(), command.code);
                          appendBytes(items, qnt::CmdCode, code);
                          if (namesPrinter)
                              (void)items.appendText(qnt::PrinterId, command.printerId);
                          if (command.code == qnt::CmdPrinterList)
                              appendBytes(items, qnt::PrinterList, encodeList(command.printers));
                      }),
                      sequence);
}

Bytes encodeDefaultPrinter(const std::string& id, std::uint32_t sequence) {
    return answerWith(
        stream([&](ItemStream& items) { (void)items.appendText(qnt::PrinterId, id); }), sequence);
}

std::string describeRequest(const Exchange& exchange) {
    const std::uint32_t code = exchange.code;
    const Bytes& request = exchange.request;
    if (code == qnt::QntKlReqLinkCall)
        return describeLinkCall(exchange);
    if (code != qnt::QntKlReqPrinting)
        return number("request code 0x%x", code);
    if (request.size() < qnt::kPrintingCmdHeaderSize)
        return "printing request of " + std::to_string(request.size()) + " bytes";
    const auto field = [&](std::uint32_t offset) { return qnt::readU32(request.data() + offset); };
    return nameOf(kRequestNames, field(qnt::PrintingCmdHeader::kRequestTypeOffset),
                  "request type") +
           " seq=" + std::to_string(field(qnt::PrintingCmdHeader::kSequenceOffset)) +
           describeItems(request);
}

std::string describeAnswer(const Bytes& answer) {
    if (answer.size() < qnt::kPrintingCmdHeaderSize)
        return "answer of " + std::to_string(answer.size()) + " bytes";
    const auto field = [&](std::uint32_t offset) { return qnt::readU32(answer.data() + offset); };
    if (const std::uint32_t size = field(qnt::PrintingCmdHeader::kRequiredSizeOffset); size != 0)
        return "needs " + std::to_string(size) + " bytes";
    if (field(qnt::PrintingCmdHeader::kPayloadLengthOffset) == 0)
        return "done";
    const std::string items = describeItems(answer);
    return items.empty()
               ? "malformed"
               : items.substr(1) +
                     " seq=" + std::to_string(field(qnt::PrintingCmdHeader::kSequenceOffset));
}

std::string describeExchange(const Exchange& exchange) {
    const auto end = exchange.answered.value_or(std::chrono::system_clock::now());
    const auto held = std::chrono::duration_cast<std::chrono::milliseconds>(end - exchange.when);
    return timeOfDay(end) + " " + describeRequest(exchange) + " (" +
           std::to_string(exchange.inSize) + "/" + std::to_string(exchange.outSize) + ") -> " +
           describeOutcome(exchange) + ", " + std::to_string(held.count()) + " ms";
}

std::string statusState(const Bytes& message) {
    std::string state;
    for (const Item& item : itemsOf(message, qnt::kStatusPrefixSize)) {
        if (item.type == qnt::StatusItemState)
            state = item.text();
    }
    return state;
}

}  // namespace sim
