#include "hostlink/link_backdoor.h"

#include <algorithm>
#include <cstring>

#include "hostlink/backdoor.h"

namespace qnt {
namespace {

// The way of one call's bytes through the caller's buffer.
struct Progress {
    std::uint8_t* buffer;
    std::uint32_t inputSize;
    std::uint32_t outputSize;
    std::uint32_t maxTransfer;
    std::uint32_t sent = 0;
    std::uint32_t received = 0;

    // The last transfer of an input that is larger than one is a full one.
    std::uint32_t nextChunk() const {
        const std::uint32_t remaining = inputSize - sent;
        return remaining <= maxTransfer ? remaining
                                        : std::min(remaining - maxTransfer, maxTransfer);
    }

    TransferArea nextArea() const {
        const std::uint32_t chunk = nextChunk();
        if (chunk == 0)
            return {buffer + answerLength(), 0, cut(room(received))};
        return {buffer + sent, chunk, cut(inputSize >= outputSize ? chunk : room(sent))};
    }

    // Collects the answer at the buffer's start.
    void advance(const TransferArea& area, std::uint32_t got) {
        if (area.chunk != 0 && got != 0 && sent > received)
            std::memmove(buffer + received, buffer + sent, got);
        sent += area.chunk;
        received += got;
    }

    // A host may claim more than it was given room for.
    std::uint32_t answerLength() const { return std::min(received, outputSize); }

private:
    std::uint32_t room(std::uint32_t used) const {
        return used < outputSize ? outputSize - used : 0;
    }
    std::uint32_t cut(std::uint32_t limit) const { return std::min(limit, maxTransfer); }
};

std::int32_t transferOnce(BackdoorExchange& exchange, const TransferArea& area,
                          std::uint32_t& got) {
    return exchange.exchangeId == kNoExchangeId ? backdoorBegin(exchange, area, got)
                                                : backdoorContinue(exchange, area, got);
}

}  // namespace

std::int32_t backdoorCall(KavelinkLink& link, void* buffer, std::uint32_t inputSize,
                          std::uint32_t outputSize, std::uint32_t* answerLength) {
    if (answerLength != nullptr)
        *answerLength = 0;
    link.state = kLinkNotOpen;
    const auto maxTransfer = static_cast<std::uint32_t>(link.handle);
    if (maxTransfer == 0)
        return kLinkBadArgument;
    link.state = kNoHostStatus;
    BackdoorExchange exchange;
    exchange.totalInput = inputSize;
    Progress progress{static_cast<std::uint8_t*>(buffer), inputSize, outputSize, maxTransfer};
    int idleTransfers = 0;
    do {
        const TransferArea area = progress.nextArea();
        std::uint32_t got = 0;
        const std::int32_t result = transferOnce(exchange, area, got);
        link.state = exchange.hostStatus;
        if (result != kLinkOk)
            return result;
        if (exchange.answerSize > outputSize) {
            if (exchange.hostStatus == kHostStatusMore)
                backdoorCancel(exchange);
            return kLinkAnswerTooLarge;
        }
        progress.advance(area, got);
        idleTransfers = area.chunk == 0 && got == 0 ? idleTransfers + 1 : 0;
        if (idleTransfers > kMaxIdleTransfers) {
            backdoorCancel(exchange);
            return kLinkHostFailed;
        }
    } while (exchange.hostStatus != kHostStatusComplete);
    if (answerLength != nullptr)
        *answerLength = progress.answerLength();
    link.state = kLinkOpen;
    return kLinkOk;
}

}  // namespace qnt
