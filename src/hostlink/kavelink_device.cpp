#include "hostlink/kavelink_device.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>

#include "hostlink/request_device.h"
#include "posix/unique_fd.h"

namespace qnt {
namespace {

LinkResult probe(int fd) {
    DeviceRequestHeader request{QntKlReqLinkCall, 0, 0, 0, 0};
    HostLoopLimit limit;
    do {
        if (submitRequestTo(fd, request) < 0)
            return errno == EINTR ? kLinkRefused : kLinkNotAvailable;
    } while (request.status == kRequestAgain && limit.mayRepeat());
    return request.status == kRequestDone ? kLinkOk : kLinkRefused;
}

}  // namespace

LinkResult linkDeviceOpen(std::uint64_t& handle) {
    handle = 0;
    UniqueFd device(open(kRequestDevicePath, O_WRONLY | O_CLOEXEC));
    if (!device.isOpen())
        return kLinkNotAvailable;
    const LinkResult result = probe(device.get());
    if (result == kLinkOk)
        handle = static_cast<std::uint64_t>(device.release());
    return result;
}

void linkDeviceClose(std::uint64_t& handle) {
    const UniqueFd closed(handle != 0 ? static_cast<int>(handle) : -1);
    handle = 0;
}

LinkResult linkDeviceCall(KavelinkLink& link, void* buffer, std::uint32_t inputSize,
                          std::uint32_t outputSize, std::uint32_t* answerLength) {
    KavelinkCallHeader header;
    header.inputSize = inputSize;
    header.outputSize = outputSize;
    DeviceRequest request{};
    request.header.code = QntKlReqLinkCall;
    request.header.bufferCount = 2;
    request.buffers[0] = describeBuffer(&header, sizeof header, kBufferWritable);
    request.buffers[1] = describeBuffer(buffer, std::max(inputSize, outputSize), kBufferWritable);
    if (answerLength != nullptr)
        *answerLength = 0;
    link.state = kLinkNotOpen;
    if (link.handle == 0)
        return kLinkNotOpen;
    if (submitRequestTo(static_cast<int>(link.handle), request.header) < 0)
        return errno == EINTR ? kLinkWriteInterrupted : kLinkWriteFailed;
    if (request.header.status != kRequestDone)
        return kLinkRefused;
    link.state = header.hostStatus;
    if (header.hostStatus < 0)
        return kLinkHostFailed;
    if (header.answerSize > outputSize)
        return kLinkAnswerTooLarge;
    if (answerLength != nullptr)
        *answerLength = std::min(header.outputSize, outputSize);
    return kLinkOk;
}

}  // namespace qnt
