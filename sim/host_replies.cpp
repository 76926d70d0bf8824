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

const Reply kRefusal{.status = kRequestRefused};
const Reply kUnreadable{.error = EFAULT};

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

Reply linkReplyWith(const Exchange& exchange, std::uint32_t answerSize, std::int32_t hostStatus) {
    if (exchange.request.empty())
        return {};  // a probe has no header
    qnt::KavelinkCallHeader header;
    header.inputSize = exchange.inSize;
    header.answerSize = answerSize;
    header.hostStatus = hostStatus;
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&header);
    return {.answer = {bytes, bytes + sizeof header}};
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

Reply faultReply(const Exchange& exchange, const Fault& fault) {
    const bool printing = exchange.code == qnt::QntKlReqPrinting;
    switch (fault.kind) {
        case Fault::Kind::kStatus:
            return {.status = fault.value};
        case Fault::Kind::kWriteError:
            return {.error = static_cast<int>(fault.value)};
        case Fault::Kind::kRaw:
            return {.answer = fault.answer};
        case Fault::Kind::kAskFor:
            return printing ? Reply{.answer = roomRequest(fault.value)}
                            : linkReplyWith(exchange, fault.value, 0);
        case Fault::Kind::kMalformed:
            return printing ? Reply{.answer = malformedAnswer()} : linkReplyWith(exchange, 0, -1);
        default:
            return {.status = qnt::kRequestCanceled};
    }
}

Reply fittedReply(const Exchange& exchange, const Bytes& answer) {
    const bool fits = answer.size() <= exchange.outSize;
    return {.answer = fits ? answer : roomRequest(static_cast<std::uint32_t>(answer.size()))};
}

Reply linkReply(const Exchange& exchange) {
    return linkReplyWith(exchange, 0, 0);
}

void deliver(Submission& submission, Exchange& exchange, const Reply& reply) {
    const std::size_t buffer =
        exchange.code == qnt::QntKlReqPrinting ? kPrintingAnswerBuffer : kLinkHeaderBuffer;
    exchange.answered = std::chrono::system_clock::now();
    exchange.error = reply.error;
    if (reply.error == 0 && !reply.answer.empty()) {
        if (submission.writeBuffer(buffer, reply.answer))
            exchange.answer = reply.answer;
        else
            exchange.error = EFAULT;
    }
    if (exchange.error != 0)
        return;
    exchange.status = reply.status;
    if (!exchange.answer.empty())
        exchange.answer.resize(
            std::min<std::size_t>(reply.answer.size(), submission.buffers()[buffer].size));
}

void finish(Submission& submission, const Exchange& exchange) {
    if (exchange.error != 0)
        submission.refuse(exchange.error);
    else
        submission.complete(*exchange.status);
}

}  // namespace sim
