#include "sim/host_replies.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "hostlink/kavelink_device.h"
#include "protocol/little_endian.h"
#include "protocol/printing_format.h"

namespace sim {
namespace {

// Indexes of the buffers in a request.
constexpr std::size_t kLinkHeaderBuffer = 0;
constexpr std::size_t kLinkMessageBuffer = 1;
constexpr std::size_t kPrintingRequestBuffer = 0;
constexpr std::size_t kPrintingAnswerBuffer = 1;

// These return false if the request is malformed or can't be read.

bool readPrinting(const Submission& submission, Exchange& exchange) {
    const auto& buffers = submission.buffers();
    const std::optional<Bytes> request = submission.readBuffer(kPrintingRequestBuffer);
    if (buffers.size() != 2 || buffers[kPrintingRequestBuffer].flags != 0 ||
        buffers[kPrintingAnswerBuffer].flags != qnt::kBufferWritable || !request ||
        request->size() < qnt::kPrintingCmdHeaderSize)
        return false;
    exchange.requestType = qnt::readU32(&(*request)[qnt::PrintingCmdHeader::kRequestTypeOffset]);
    exchange.outSize = buffers[kPrintingAnswerBuffer].size;
    exchange.request = *request;
    return true;
}

bool readLinkCall(const Submission& submission, Exchange& exchange) {
    exchange.requestType = kLinkCall;
    if (submission.buffers().empty())
        return true;
    const std::optional<Bytes> head = submission.readBuffer(kLinkHeaderBuffer);
    std::optional<Bytes> message = submission.readBuffer(kLinkMessageBuffer);
    qnt::KavelinkCallHeader header;
    if (!head || head->size() != sizeof header || !message)
        return false;
    std::memcpy(&header, head->data(), sizeof header);
    const std::size_t room = std::max(header.inputSize, header.outputSize);
    const auto isWritable = [](const qnt::BufferDescriptor& buffer) {
        return buffer.flags == qnt::kBufferWritable;
    };
    if (header.headerSize != sizeof header || header.reserved != 0 || header.reservedEnd != 0 ||
        message->size() != room || !std::ranges::all_of(submission.buffers(), isWritable))
        return false;
    exchange.outSize = header.outputSize;
    message->resize(header.inputSize);
    exchange.request = std::move(*message);
    return true;
}

}  // namespace

Exchange readRequest(const Submission& submission) {
    Exchange exchange{.when = std::chrono::system_clock::now()};
    const std::uint32_t code = submission.header().code;
    const bool isWellFormed =
        code == qnt::QntKlReqPrinting
            ? readPrinting(submission, exchange)
            : code == qnt::QntKlReqLinkCall && readLinkCall(submission, exchange);
    if (!isWellFormed)
        exchange.reply = Reply{.status = kRequestRefused};
    return exchange;
}

Reply linkReply(const Exchange& exchange) {
    if (exchange.request.empty())
        return {};  // a probe has no header
    qnt::KavelinkCallHeader header;
    header.inputSize = static_cast<std::uint32_t>(exchange.request.size());
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&header);
    return {.answer = {bytes, bytes + sizeof header}};
}

void deliver(Submission& submission, Exchange& exchange) {
    Reply& reply = *exchange.reply;
    const std::size_t buffer =
        exchange.requestType == kLinkCall ? kLinkHeaderBuffer : kPrintingAnswerBuffer;
    if (!reply.answer.empty() && !submission.writeBuffer(buffer, reply.answer))
        reply.error = EFAULT;
}

}  // namespace sim
