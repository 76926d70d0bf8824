// Parses arbitrary bytes as answers of the host. The input is a sequence of answers, each a 16-bit
// length (little-endian) and that many bytes, all received into one buffer as in the run loop.

#undef NDEBUG
#include <algorithm>
#include <cassert>
#include <vector>

#include "log/log_record.h"
#include "protocol/little_endian.h"
#include "protocol/printing_format.h"
#include "protocol/printing_messages.h"

using namespace qnt;

namespace {

void parse(const ByteArray& buffer) {
    const std::uint32_t length = answerPayloadLength(buffer);
    assert(length <= buffer.size() - kPrintingCmdHeaderSize);
    const std::vector<std::uint8_t> payload(answerPayload(buffer), answerPayload(buffer) + length);
    PrintingCmd command;
    (void)parsePrintingCmd(command, payload.data(), length);
    std::string id = "unchanged";
    if (!parseDefaultPrinterAnswer(id, payload.data(), length))
        assert(id == "unchanged");
}

// Copies an answer into the buffer. A size asked for beyond 4 KiB becomes smaller, so that a run
// stays short, but keeps its low bits.
void deliver(ByteArray& buffer, const std::uint8_t* answer, std::size_t size) {
    std::copy_n(answer, std::min(size, buffer.size()), buffer.data());
    if (const std::uint32_t asked = answerRequiredSize(buffer); asked > 4096)
        writeU32(buffer.data() + PrintingCmdHeader::kRequiredSizeOffset, 4096 + asked % 4096);
}

void handle(ByteArray& buffer) {
    const std::size_t before = buffer.size();
    const std::uint32_t asked = answerRequiredSize(buffer);
    const AnswerResult result = processAnswerFromHost(buffer);
    assert(result == (asked == 0 ? AnswerCommand : AnswerNone));
    assert(buffer.size() == std::max<std::size_t>(before, asked));
    std::uint32_t requestSize = 0;
    if (result == AnswerCommand) {
        parse(buffer);
        assert(fillPrintingCmdAnsRequest(buffer, CmdDone, 1, requestSize));
    } else {
        fillPrintingCmdRequest(buffer, answerSequence(buffer), requestSize);
    }
    assert(requestSize <= buffer.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    logSetLevel(3);
    logSetSink([](const char*, std::int32_t) { return 0; });
    ByteArray buffer;
    assert(buffer.resize(kPrintingCmdHeaderSize));
    while (size >= 2) {
        const std::size_t length = std::min<std::size_t>(data[0] + 256 * data[1], size - 2);
        deliver(buffer, data + 2, length);
        handle(buffer);
        data += 2 + length;
        size -= 2 + length;
    }
    return 0;
}
