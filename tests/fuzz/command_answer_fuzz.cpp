// Any bytes as the answers that the run loop gets, one after the other in its one buffer.

#include <optional>

#include "protocol/printing_messages.h"
#include "tests/fuzz/fuzz_input.h"

namespace {

// Whether each entry of a list is whole; `printers` gets those before the first that is not.
bool readPrinters(const fuzz::Item& list, qnt::QueueBindingList& printers) {
    printers.clear();
    for (const fuzz::Item& entry : fuzz::readItems(list.data).items) {
        std::optional<std::string> id;
        std::optional<std::string> name;
        for (const fuzz::Item& field : fuzz::readItems(entry.data).items)
            if (field.type == qnt::PrinterId || field.type == qnt::PrinterName)
                (field.type == qnt::PrinterId ? id : name) = field.text();
        if (entry.type != qnt::PrinterEntry || !id || !name)
            return false;
        printers.push_back({*id, *name});
    }
    return true;
}

// What a payload says, and whether that is a usable command.
bool readCommand(const fuzz::Bytes& payload, qnt::PrintingCmd& command) {
    bool codeSeen = false;
    bool idSeen = false;
    bool listSeen = false;
    for (const fuzz::Item& item : fuzz::readItems(payload).items) {
        if (item.type == qnt::CmdCode && item.data.size() >= 4)
            codeSeen = true, command.code = qnt::readU32(item.data.data());
        if (item.type == qnt::PrinterId)
            idSeen = true, command.printerId = item.text();
        if (item.type == qnt::PrinterList)
            listSeen |= readPrinters(item, command.printers);
    }
    const bool needsId = command.code == 1 || command.code == 2;
    return codeSeen && (idSeen || !needsId) && (listSeen || command.code != 4);
}

void checkCommand(const qnt::ByteArray& buffer) {
    const std::uint32_t length = qnt::answerPayloadLength(buffer);
    assert(length == std::min<std::size_t>(qnt::readU32(buffer.data() + 12), buffer.size() - 80));
    const fuzz::Bytes payload(qnt::answerPayload(buffer), qnt::answerPayload(buffer) + length);
    qnt::PrintingCmd expected;
    qnt::PrintingCmd command;
    const bool usable = readCommand(payload, expected);
    assert(qnt::parsePrintingCmd(command, payload.data(), length) == usable);
    assert(command.code == expected.code && command.printerId == expected.printerId);
    assert(std::equal(command.printers.begin(), command.printers.end(), expected.printers.begin(),
                      expected.printers.end(), [](const auto& left, const auto& right) {
                          return left.id == right.id && left.queueName == right.queueName;
                      }));
}

void checkAnswer(qnt::ByteArray& buffer) {
    const std::uint32_t asked = qnt::answerRequiredSize(buffer);
    const std::size_t before = buffer.size();
    const qnt::AnswerResult result = qnt::processAnswerFromHost(buffer);
    assert(result == (asked == 0 ? qnt::AnswerCommand : qnt::AnswerNone));
    assert(buffer.size() == std::max<std::size_t>(before, asked));
    assert(std::all_of(buffer.data() + before, buffer.data() + buffer.size(),
                       [](std::uint8_t byte) { return byte == 0; }));
    std::uint32_t size = 0;
    if (result == qnt::AnswerNone)
        return qnt::fillPrintingCmdRequest(buffer, qnt::answerSequence(buffer), size);
    checkCommand(buffer);
    assert(qnt::fillPrintingCmdAnsRequest(buffer, qnt::CmdDone, 1, size));
    assert(size == 108 && buffer.size() == std::max<std::size_t>(before, 108));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    qnt::ByteArray buffer;
    assert(buffer.resize(qnt::kPrintingCmdHeaderSize));
    fuzz::Answers answers{{data, data + size}};
    while (answers.deliver(buffer.data(), buffer.size()))
        checkAnswer(buffer);
    return 0;
}
