#include "hostlink/kavelink_backdoor.h"

#include <algorithm>
#include <csetjmp>
#include <csignal>
#include <cstring>
#include <optional>

#include "hostlink/rdpmc.h"

namespace qnt {
namespace {

sigjmp_buf g_faultJump;

void jumpOutOfFault(int signal) {
    siglongjmp(g_faultJump, signal != 0 ? signal : -1);
}

// Handles one signal for a scope, then restores the previous disposition.
class FaultHandler {
public:
    explicit FaultHandler(int signal) : m_signal(signal) {
        struct sigaction action {};
        action.sa_handler = jumpOutOfFault;
        sigemptyset(&action.sa_mask);
        m_installed = sigaction(signal, &action, &m_previous) == 0;
    }
    ~FaultHandler() {
        if (m_installed)
            sigaction(m_signal, &m_previous, nullptr);
    }
    FaultHandler(const FaultHandler&) = delete;
    FaultHandler& operator=(const FaultHandler&) = delete;

private:
    const int m_signal;
    bool m_installed = false;
    struct sigaction m_previous {};
};

// A synchronous signal that is blocked kills the process and does not reach its handler.
void unblockFaults() {
    sigset_t faults;
    sigemptyset(&faults);
    sigaddset(&faults, SIGILL);
    sigaddset(&faults, SIGSEGV);
    pthread_sigmask(SIG_UNBLOCK, &faults, nullptr);
}

std::uint32_t low32(std::uint64_t value) {
    return static_cast<std::uint32_t>(value);
}

std::int32_t signedLow32(std::uint64_t value) {
    return static_cast<std::int32_t>(low32(value));
}

std::uint64_t signExtended(std::int32_t value) {
    return static_cast<std::uint64_t>(std::int64_t{value});
}

LinkResult transfer(BackdoorExchange& exchange, const TransferArea& area, RdpmcRegisters& registers,
                    std::uint32_t& got) {
    registers.rcx = area.receiveLimit != 0 ? 1 : 0;
    registers.rdx = area.length();
    registers.rsi = area.chunk;
    registers.rdi = reinterpret_cast<std::uintptr_t>(area.start);
    rdpmc(registers);
    exchange.answerSize = low32(registers.rsi);
    exchange.hostStatus = signedLow32(registers.rdi);
    if (exchange.hostStatus < 0 || low32(registers.rdx) > area.length())
        return kLinkHostFailed;
    got = low32(registers.rdx);
    return kLinkOk;
}

// Progress of one call through the caller's buffer.
struct Progress {
    std::uint8_t* buffer;
    std::uint32_t inputSize;
    std::uint32_t outputSize;
    std::uint32_t maxTransfer;
    std::uint32_t sent = 0;
    std::uint32_t received = 0;

    // By the protocol, the last of several transfers is full-sized: 250 bytes with a maxTransfer of
    // 100 go as 100, 50 and 100.
    std::uint32_t nextChunk() const {
        const std::uint32_t remaining = inputSize - sent;
        return remaining <= maxTransfer ? remaining
                                        : std::min(remaining - maxTransfer, maxTransfer);
    }

    // One area serves both directions. So, while input is left, the host may write into the chunk
    // that it reads, even if no output was requested. If the output is longer than the input, it
    // may write into everything from the chunk on.
    TransferArea nextArea() const {
        const std::uint32_t chunk = nextChunk();
        if (chunk == 0)
            return {buffer + answerLength(), 0, limited(room(received))};
        return {buffer + sent, chunk, limited(inputSize >= outputSize ? chunk : room(sent))};
    }

    // Moves the received bytes to the end of the answer, which grows from the buffer's start.
    void advance(const TransferArea& area, std::uint32_t got) {
        if (area.chunk != 0 && got != 0 && sent > received)
            std::memmove(buffer + received, buffer + sent, got);
        sent += area.chunk;
        received += got;
    }

    // Each transfer stays within its area, but all together may return more than the output's room.
    std::uint32_t answerLength() const { return std::min(received, outputSize); }

private:
    std::uint32_t room(std::uint32_t used) const {
        return used < outputSize ? outputSize - used : 0;
    }
    std::uint32_t limited(std::uint32_t limit) const { return std::min(limit, maxTransfer); }
};

LinkResult transferOnce(BackdoorExchange& exchange, const TransferArea& area, std::uint32_t& got) {
    return exchange.exchangeId == kNoExchangeId ? backdoorBegin(exchange, area, got)
                                                : backdoorContinue(exchange, area, got);
}

}  // namespace

LinkResult backdoorProbe(BackdoorInfo* info) {
    RdpmcRegisters registers;
    registers.rax = kBackdoorProbe;
    registers.rbx = kBackdoorProbe;
    rdpmc(registers);
    if (low32(registers.rax) != kBackdoorSignature || low32(registers.rdx) != 0 ||
        low32(registers.rsi) != 0 || low32(registers.rdi) != 0)
        return kLinkNotAvailable;
    if (low32(registers.rbx) != kBackdoorVersion)
        return kLinkRefused;
    if (info != nullptr)
        *info = {low32(registers.rbx), low32(registers.rcx)};
    return kLinkOk;
}

LinkResult guardedBackdoorProbe(BackdoorInfo* info) {
    volatile LinkResult result = kLinkNotAvailable;  // volatile: kept across the jump
    const FaultHandler illegalInstruction(SIGILL);
    const FaultHandler segmentationFault(SIGSEGV);
    sigset_t previousMask;
    pthread_sigmask(SIG_BLOCK, nullptr, &previousMask);
    if (sigsetjmp(g_faultJump, 1) == 0) {
        unblockFaults();
        result = backdoorProbe(info);
    }
    pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
    return result;
}

LinkResult backdoorBegin(BackdoorExchange& exchange, const TransferArea& area, std::uint32_t& got) {
    RdpmcRegisters registers;
    registers.rax = kBackdoorBegin;
    registers.rbx = exchange.totalInput;
    const LinkResult result = transfer(exchange, area, registers, got);
    exchange.exchangeId = signedLow32(registers.rbx);
    return result;
}

LinkResult backdoorContinue(BackdoorExchange& exchange, const TransferArea& area,
                            std::uint32_t& got) {
    RdpmcRegisters registers;
    registers.rax = kBackdoorContinue;
    registers.rbx = signExtended(exchange.exchangeId);
    return transfer(exchange, area, registers, got);
}

std::int32_t backdoorCancel(BackdoorExchange& exchange) {
    RdpmcRegisters registers;
    registers.rax = kBackdoorCancel;
    registers.rbx = signExtended(exchange.exchangeId);
    rdpmc(registers);
    exchange.hostStatus = signedLow32(registers.rdi);
    return exchange.hostStatus;
}

LinkResult backdoorCall(KavelinkLink& link, void* buffer, std::uint32_t inputSize,
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
    std::optional<HostLoopLimit> idleLimit;  // while transfers move nothing
    while (exchange.hostStatus != kHostStatusComplete) {
        if (idleLimit && !idleLimit->mayRepeat()) {
            backdoorCancel(exchange);
            return kLinkHostFailed;
        }
        const TransferArea area = progress.nextArea();
        std::uint32_t got = 0;
        const LinkResult result = transferOnce(exchange, area, got);
        link.state = exchange.hostStatus;
        if (result != kLinkOk)
            return result;
        if (exchange.answerSize > outputSize) {
            if (exchange.hostStatus == kHostStatusMore)
                backdoorCancel(exchange);
            return kLinkAnswerTooLarge;
        }
        progress.advance(area, got);
        if (area.chunk != 0 || got != 0)
            idleLimit.reset();
        else if (!idleLimit)
            idleLimit.emplace();
    }
    if (answerLength != nullptr)
        *answerLength = progress.answerLength();
    link.state = kLinkStateOpen;
    return kLinkOk;
}

}  // namespace qnt
