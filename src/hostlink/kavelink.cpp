#include "hostlink/kavelink.h"

#include <thread>

#include "hostlink/kavelink_backdoor.h"
#include "hostlink/kavelink_device.h"

namespace qnt {
namespace {

LinkResult openOverDevice(KavelinkLink& link) {
    link.kind = LinkKindDevice;
    const LinkResult result = linkDeviceOpen(link.handle);
    if (result == kLinkOk)
        link.state = kLinkStateOpen;
    return result;
}

LinkResult openOverBackdoor(KavelinkLink& link) {
    link.kind = LinkKindBackdoor;
    BackdoorInfo info;
    const LinkResult result = guardedBackdoorProbe(&info);
    if (result == kLinkOk) {
        link.handle = info.maxTransfer;
        link.state = kLinkStateOpen;
    }
    return result;
}

}  // namespace

LinkResult kavelinkOpen(KavelinkLink* link, std::int32_t mode) {
    if (link == nullptr)
        return kLinkBadArgument;
    link->state = kLinkStateClosed;
    switch (mode) {
        case kLinkDeviceOnly:
            return openOverDevice(*link);
        case kLinkDeviceThenBackdoor: {
            const LinkResult result = openOverDevice(*link);
            if (result == kLinkOk || result == kLinkNotAvailable)
                return result;
            return openOverBackdoor(*link);
        }
        case kLinkBackdoorOnly:
            return openOverBackdoor(*link);
        default:
            return kLinkBadArgument;
    }
}

LinkResult kavelinkClose(KavelinkLink* link) {
    if (link == nullptr)
        return kLinkBadArgument;
    if (link->kind == LinkKindDevice)
        linkDeviceClose(link->handle);
    link->state = kLinkStateClosed;
    return kLinkOk;
}

LinkResult kavelinkCall(KavelinkLink* link, void* buffer, std::uint32_t inputSize,
                        std::uint32_t outputSize, std::uint32_t* answerLength) {
    if (link == nullptr || buffer == nullptr || (inputSize == 0 && outputSize == 0))
        return kLinkBadArgument;
    switch (link->kind) {
        case LinkKindDevice:
            return linkDeviceCall(*link, buffer, inputSize, outputSize, answerLength);
        case LinkKindBackdoor:
            return backdoorCall(*link, buffer, inputSize, outputSize, answerLength);
        default:
            return kLinkUnknownKind;
    }
}

bool HostLoopLimit::mayRepeat() {
    if (std::chrono::steady_clock::now() >= m_end)
        return false;
    if (++m_repeats > kRepeatsAtOnce)
        std::this_thread::sleep_for(kPause);
    return true;
}

}  // namespace qnt
