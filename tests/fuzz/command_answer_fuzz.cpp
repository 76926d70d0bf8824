// Any bytes as the answers that the run loop gets, one after the other in its one buffer.

#include "fuzz_input.h"
#include "protocol/printing_messages.h"

using fuzz::Item;
using fuzz::require;

namespace {

// Whether each entry of a list is whole; `printers` gets those before the first that is not.
bool readPrinters(const Item& list, qnt::QueueBindingList& printers) {
    printers.clear();
    for (const Item& entry : fuzz::readItems(list.data).items) {
        std::optional<std::string> id;
        std::optional<std::string> name;
        for (const Item& field : fuzz::readItems(entry.data).items) {
            if (field.type == qnt::PrinterId)
                id = field.text();
            if (field.type == qnt::PrinterName)
                name = field.text();
        }
        if (entry.type != qnt::PrinterEntry || !id || !name)
            return false;
        printers.push_back({*id, *name});
    }
    return true;
}

// What a payload says, and whether that is a usable command.
bool readCommand(const fuzz::Bytes& payload, qnt::PrintingCmd& command) {
    std::optional<std::uint32_t> code;
    bool idSeen = false;
    bool listSeen = false;
    for (const Item& item : fuzz::readItems(payload).items) {
        if (item.type == qnt::CmdCode && item.data.size() >= 4)
            code = qnt::readU32(item.data.data());
        if (item.type == qnt::PrinterId)
            idSeen = true, command.printerId = item.text();
        if (item.type == qnt::PrinterList)
            listSeen |= readPrinters(item, command.printers);
    }
    command.code = code.value_or(0);
    return code && (idSeen || *code == 0 || *code > 2) && (listSeen || *code != 4);
}

void checkCommand(const qnt::ByteArray& buffer) {
    const std::uint32_t length = qnt::answerPayloadLength(buffer);
    require(length == std::min<std::size_t>(qnt::readU32(buffer.data() + 12), buffer.size() - 80),
            "the payload ends where it says, or with the buffer");
    const fuzz::Bytes payload(qnt::answerPayload(buffer), qnt::answerPayload(buffer) + length);
    qnt::PrintingCmd expected;
    const bool usable = readCommand(payload, expected);
    qnt::PrintingCmd command;
    require(qnt::parsePrintingCmd(command, payload.data(), length) == usable, "it is usable");
    require(!usable || command.code == expected.code, "the code");
    require(command.printerId == expected.printerId, "the id");
    require(std::equal(command.printers.begin(), command.printers.end(), expected.printers.begin(),
                       expected.printers.end(),
                       [](const qnt::QueueBinding& left, const qnt::QueueBinding& right) {
                           return left.id == right.id && left.queueName == right.queueName;
                       }),
            "the printers");
}

void checkAnswer(qnt::ByteArray& buffer) {
    const std::uint32_t asked = qnt::answerRequiredSize(buffer);
    const std::size_t before = buffer.size();
    const qnt::AnswerResult result = qnt::processAnswerFromHost(buffer);
    require(result == (asked == 0 ? qnt::AnswerCommand : qnt::AnswerNone), "what the answer is");
    require(buffer.size() == std::max<std::size_t>(before, asked), "the buffer's new size");
    require(std::count(buffer.data() + before, buffer.data() + buffer.size(), 0) ==
                static_cast<std::ptrdiff_t>(buffer.size() - before),
            "new bytes are zero");
    std::uint32_t size = 0;
    if (result == qnt::AnswerNone)
        return qnt::fillPrintingCmdRequest(buffer, qnt::answerSequence(buffer), size);
    checkCommand(buffer);
    require(qnt::fillPrintingCmdAnsRequest(buffer, qnt::CmdDone, 1, size), "a result is written");
    require(size == 108 && buffer.size() == std::max<std::size_t>(before, 108), "in its size");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    qnt::ByteArray buffer;
    require(buffer.resize(qnt::kPrintingCmdHeaderSize), "the first buffer");
    fuzz::Answers answers{{data, data + size}};
    while (answers.deliver(buffer.data(), buffer.size()))
        checkAnswer(buffer);
    return 0;
}
