#include "sim/host_replies.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "hostlink/kavelink_device.h"
#include "protocol/little_endian.h"
#include "protocol/printing_format.h"
#include "sim/host_messages.h"

namespace sim {
namespace {

// Indexes of the buffers in a request.
constexpr std::size_t kLinkHeaderBuffer = 0;
constexpr std::size_t kLinkMessageBuffer = 1;
constexpr std::size_t kPrintingRequestBuffer = 0;
constexpr std::size_t kPrintingAnswerBuffer = 1;

const Reply kRefusal = status(kRequestRefused);
const Reply kUnreadable = writeError(EFAULT);

std::optional<Reply> readPrinting(const Submission& submission, Exchange& exchange) {
    const auto& buffers = submission.buffers();
    if (buffers.size() != 2 || buffers[kPrintingRequestBuffer].flags != 0 ||
        buffers[kPrintingAnswerBuffer].flags != qnt::kBufferWritable)
        return kRefusal;
    exchange.inSize = buffers[kPrintingRequestBuffer].size;
    exchange.outSize = buffers[kPrintingAnswerBuffer].size;
    std::optional<Bytes> request = submission.readBuffer(kPrintingRequestBuffer);
    if (!request)
        return kUnreadable;
    exchange.request = std::move(*request);
    if (exchange.request.size() < qnt::kPrintingCmdHeaderSize)
        return kRefusal;
    exchange.requestType =
        qnt::readU32(exchange.request.data() + qnt::PrintingCmdHeader::kRequestTypeOffset);
    return std::nullopt;
}

std::optional<Reply> readLinkCall(const Submission& submission, Exchange& exchange) {
    if (submission.buffers().empty())
        return std::nullopt;
    const std::optional<Bytes> head = submission.readBuffer(kLinkHeaderBuffer);
    std::optional<Bytes> message = submission.readBuffer(kLinkMessageBuffer);
    if (!head || !message)
        return kUnreadable;
    qnt::KavelinkCallHeader header;
    if (head->size() != sizeof header)
        return kRefusal;
    std::memcpy(&header, head->data(), sizeof header);
    exchange.inSize = header.inputSize;
    exchange.outSize = header.outputSize;
    const std::size_t room = std::max(header.inputSize, header.outputSize);
    const auto isWritable = [](const qnt::BufferDescriptor& buffer) {
        return buffer.flags == qnt::kBufferWritable;
    };
    if (header.headerSize != sizeof header || header.reserved != 0 || header.reservedEnd != 0 ||
        message->size() != room || !std::ranges::all_of(submission.buffers(), isWritable))
        return kRefusal;
    message->resize(header.inputSize);
    exchange.request = std::move(*message);
    return std::nullopt;
}

}  // namespace

std::optional<Reply> readRequest(const Submission& submission, Exchange& exchange) {
    exchange.when = std::chrono::system_clock::now();
    exchange.thread = submission.thread();
    exchange.code = submission.header().code;
    switch (exchange.code) {
        case qnt::QntKlReqPrinting:
            return readPrinting(submission, exchange);
        case qnt::QntKlReqLinkCall:
            return readLinkCall(submission, exchange);
        default:
            return kRefusal;
    }
}

Reply linkReply(const Exchange& exchange) {
    if (exchange.request.empty())
        return {};  // a probe has no header
    qnt::KavelinkCallHeader header;
    header.inputSize = exchange.inSize;
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&header);
    return raw({bytes, bytes + sizeof header});
}

void deliver(Submission& submission, Exchange& exchange, const Reply& reply) {
    exchange.answered = std::chrono::system_clock::now();
    const Bytes& answer = reply.answer;
    const std::size_t buffer =
        exchange.code == qnt::QntKlReqPrinting ? kPrintingAnswerBuffer : kLinkHeaderBuffer;
    exchange.error = reply.error;
    if (!answer.empty() && !submission.writeBuffer(buffer, answer))
        exchange.error = EFAULT;
    if (exchange.error != 0)
        return;
    exchange.status = reply.status;
    if (!answer.empty()) {
        exchange.answer = answer;
        exchange.answer.resize(
            std::min<std::size_t>(answer.size(), submission.buffers()[buffer].size));
    }
}

void finish(Submission& submission, const Exchange& exchange) {
    if (exchange.error != 0)
        submission.refuse(exchange.error);
    else
        submission.complete(*exchange.status);
}

}  // namespace sim
