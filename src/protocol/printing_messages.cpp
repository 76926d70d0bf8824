#include "protocol/printing_messages.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include "log/log_record.h"
#include "protocol/item_stream.h"
#include "protocol/little_endian.h"
#include "protocol/printing_format.h"

namespace qnt {
namespace {

void writeCommonFields(std::uint8_t* buffer, std::uint32_t requestType, std::uint32_t sequence) {
    writeU32(buffer + PrintingCmdHeader::kVersionOffset, kPrintingVersion);
    writeU32(buffer + PrintingCmdHeader::kRequestTypeOffset, requestType);
    writeU32(buffer + PrintingCmdHeader::kSequenceOffset, sequence);
}

void writeHeader(std::uint8_t* buffer, std::uint32_t requestType, std::uint32_t sequence) {
    std::memset(buffer, 0, kPrintingCmdHeaderSize);
    writeCommonFields(buffer, requestType, sequence);
}

void logSkipped(const ItemStream& stream) {
    QNT_LOG_AS(kProtocolLogPrefix, kServiceTag, kLogInfo,
               "Unsupported data skipped, type = %u, size = %u", stream.itemType(),
               stream.itemLength());
}

// Calls `read` for each item of an opened stream until the stream ends, an item is malformed, or
// `read` returns false. Returns false only in the last case.
template <typename Read>
bool forEachItem(ItemStream& stream, Read read) {
    do {
        if (!read(stream))
            return false;
    } while (stream.next() == kStreamOk);
    return true;
}

StreamResult openNested(ItemStream& nested, const ItemStream& outer) {
    return nested.open(outer.itemData(), outer.itemLength(), 0);
}

// False if the entry lacks its id or its name.
bool readEntry(QueueBindingList& printers, const ItemStream& item) {
    ItemStream entry;
    if (item.itemType() != PrinterEntry || openNested(entry, item) != kStreamOk)
        return false;
    std::optional<std::string_view> id;
    std::optional<std::string_view> name;
    forEachItem(entry, [&](const ItemStream& field) {
        if (field.itemType() == PrinterId)
            id = field.itemText();
        else if (field.itemType() == PrinterName)
            name = field.itemText();
        else
            logSkipped(field);
        return true;
    });
    if (!id || !name)
        return false;
    QueueBinding& printer = printers.emplace_back();
    printer.id = *id;
    printer.queueName = *name;
    return true;
}

// False if an entry can't be used; the list then ends with the entry before it. A nested stream
// that does not open counts as an empty list.
bool readList(QueueBindingList& printers, const ItemStream& item) {
    printers.clear();
    ItemStream list;
    if (openNested(list, item) != kStreamOk)
        return true;
    return forEachItem(list, [&](const ItemStream& entry) { return readEntry(printers, entry); });
}

struct SeenItems {
    bool code = false;
    bool id = false;
    bool list = false;

    // What is missing for the command, or null.
    const char* missingFor(std::uint32_t commandCode) const {
        if (!code)
            return "command code";
        switch (commandCode) {
            case CmdAddPrinter:
            case CmdDeletePrinter:
                return id ? nullptr : "printer id";
            case CmdPrinterList:
                return list ? nullptr : "complete printer list";
            default:
                return nullptr;
        }
    }
};

void readTopLevelItem(PrintingCmd& command, SeenItems& seen, const ItemStream& item) {
    switch (item.itemType()) {
        case CmdCode:
            if (item.itemLength() >= kCmdCodeSize) {
                command.code = readU32(item.itemData());
                seen.code = true;
            }
            break;
        case PrinterId:
            command.printerId = item.itemText();
            seen.id = true;
            break;
        case PrinterList:
            if (readList(command.printers, item))
                seen.list = true;
            break;
        default:
            logSkipped(item);
    }
}

}  // namespace

void fillPrintingCmdRequest(ByteArray& bufferCmd, std::uint32_t sequence,
                            std::uint32_t& requestSize) {
    writeHeader(bufferCmd.data(), GetPrintingCmd, sequence);
    requestSize = kPrintingCmdHeaderSize;
}

void fillPrintingCmdPendingRequest(ByteArray& bufferCmd, std::uint32_t& requestSize) {
    writeHeader(bufferCmd.data(), PrintingCmdPending, 0);
    requestSize = kPrintingCmdHeaderSize;
}

void fillDefaultPrinterRequest(ByteArray& buffer, std::uint32_t sequence) {
    writeCommonFields(buffer.data(), GetDefaultPrinter, sequence);
}

bool fillPrintingCmdAnsRequest(ByteArray& bufferCmd, std::uint32_t result, std::uint32_t sequence,
                               std::uint32_t& requestSize) {
    std::uint8_t resultBytes[sizeof result];
    writeU32(resultBytes, result);
    ItemStream stream;
    if (stream.create(kPrintingCmdHeaderSize) != kStreamOk ||
        stream.appendItem(CmdResult, resultBytes, sizeof resultBytes) != kStreamOk)
        return false;
    writeHeader(stream.data(), PrintingCmdAnswer, sequence);
    const std::uint32_t length = stream.streamEnd();
    if (bufferCmd.size() < length && !bufferCmd.resize(length)) {
        logNoMemory("fillPrintingCmdAnsRequest", kProtocolLogPrefix);
        return false;
    }
    std::memcpy(bufferCmd.data(), stream.data(), length);
    requestSize = length;
    return true;
}

bool fillUserDeletedPrintersRequest(ByteArray& destination, const QueueBindingList& deleted) {
    ItemStream stream;
    if (stream.create(kPrintingCmdHeaderSize) != kStreamOk)
        return false;
    for (const QueueBinding& queue : deleted) {
        if (stream.appendText(PrinterId, queue.id) != kStreamOk)
            return false;
    }
    writeHeader(stream.data(), UserDeletedPrinters, 0);
    const std::uint32_t length = stream.streamEnd();
    if (!destination.resize(length)) {
        logNoMemory("fillUserDeletedPrintersRequest", kProtocolLogPrefix);
        return false;
    }
    std::memcpy(destination.data(), stream.data(), length);
    return true;
}

AnswerResult processAnswerFromHost(ByteArray& bufferCmd) {
    const std::uint32_t requiredSize = answerRequiredSize(bufferCmd);
    if (requiredSize == 0)
        return AnswerCommand;
    if (requiredSize <= bufferCmd.size() || bufferCmd.resize(requiredSize))
        return AnswerNone;
    logNoMemory("processAnswerFromHost", kProtocolLogPrefix);
    return AnswerFailed;
}

std::uint32_t answerSequence(const ByteArray& buffer) {
    return readU32(buffer.data() + PrintingCmdHeader::kSequenceOffset);
}

std::uint32_t answerRequiredSize(const ByteArray& buffer) {
    return readU32(buffer.data() + PrintingCmdHeader::kRequiredSizeOffset);
}

std::uint32_t answerPayloadLength(const ByteArray& buffer) {
    if (buffer.size() <= kPrintingCmdHeaderSize)
        return 0;
    const std::uint32_t announced =
        readU32(buffer.data() + PrintingCmdHeader::kPayloadLengthOffset);
    return static_cast<std::uint32_t>(
        std::min<std::size_t>(announced, buffer.size() - kPrintingCmdHeaderSize));
}

const std::uint8_t* answerPayload(const ByteArray& buffer) {
    return buffer.data() + kPrintingCmdHeaderSize;
}

bool parsePrintingCmd(PrintingCmd& command, const std::uint8_t* payload,
                      std::uint32_t payloadLength) {
    ItemStream stream;
    if (const StreamResult result = stream.open(payload, payloadLength, 0); result != kStreamOk) {
        QNT_LOG_AS(kProtocolLogPrefix, kServiceTag, kLogWarning,
                   "Unusable command: no item stream (%d), payload size = %u", result,
                   payloadLength);
        return false;
    }
    SeenItems seen;
    forEachItem(stream, [&](const ItemStream& item) {
        readTopLevelItem(command, seen, item);
        return true;
    });
    const char* const missing = seen.missingFor(command.code);
    if (missing == nullptr)
        return true;
    QNT_LOG_AS(kProtocolLogPrefix, kServiceTag, kLogWarning,
               "Unusable command: no %s, code = %u, stream size = %u, payload size = %u", missing,
               command.code, stream.streamEnd(), payloadLength);
    return false;
}

bool parseDefaultPrinterAnswer(std::string& printerId, const std::uint8_t* payload,
                               std::uint32_t payloadLength) {
    ItemStream stream;
    if (stream.open(payload, payloadLength, 0) != kStreamOk || stream.itemType() != PrinterId) {
        QNT_LOG_AS(kProtocolLogPrefix, kServiceTag, kLogInfo,
                   "Unusable default printer answer, payload size = %u", payloadLength);
        return false;
    }
    printerId = stream.itemText();
    return true;
}

}  // namespace qnt
