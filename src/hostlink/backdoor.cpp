#include "hostlink/backdoor.h"

#include <csetjmp>
#include <csignal>

#include "hostlink/backdoor_instruction.h"

namespace qnt {
namespace {

sigjmp_buf g_faultJump;

void jumpOutOfFault(int signal) {
    siglongjmp(g_faultJump, signal != 0 ? signal : -1);
}

// Takes a signal over and gives it back at the end of the scope.
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

std::uint32_t low32(std::uint64_t value) {
    return static_cast<std::uint32_t>(value);
}

std::int32_t signedLow32(std::uint64_t value) {
    return static_cast<std::int32_t>(low32(value));
}

std::uint64_t signExtended(std::int32_t value) {
    return static_cast<std::uint64_t>(std::int64_t{value});
}

std::int32_t transfer(BackdoorExchange& exchange, const TransferArea& area,
                      BackdoorRegisters& registers, std::uint32_t& got) {
    registers.rcx = area.receiveLimit != 0 ? 1 : 0;
    registers.rdx = area.length();
    registers.rsi = area.chunk;
    registers.rdi = reinterpret_cast<std::uintptr_t>(area.start);
    backdoorInstruction(registers);
    exchange.answerSize = low32(registers.rsi);
    exchange.hostStatus = signedLow32(registers.rdi);
    if (exchange.hostStatus < 0 || low32(registers.rdx) > area.length())
        return kLinkHostFailed;
    got = low32(registers.rdx);
    return kLinkOk;
}

}  // namespace

std::int32_t backdoorProbe(BackdoorVersion* version) {
    BackdoorRegisters registers;
    registers.rax = kBackdoorProbe;
    registers.rbx = kBackdoorProbe;
    backdoorInstruction(registers);
    if (low32(registers.rax) != kBackdoorSignature || low32(registers.rdx) != 0 ||
        low32(registers.rsi) != 0 || low32(registers.rdi) != 0)
        return kLinkNotAvailable;
    if (low32(registers.rbx) != kBackdoorVersion)
        return kLinkRefused;
    if (version != nullptr)
        *version = {low32(registers.rbx), low32(registers.rcx)};
    return kLinkOk;
}

std::int32_t backdoorBegin(BackdoorExchange& exchange, const TransferArea& area,
                           std::uint32_t& got) {
    BackdoorRegisters registers;
    registers.rax = kBackdoorBegin;
    registers.rbx = exchange.totalInput;
    const std::int32_t result = transfer(exchange, area, registers, got);
    exchange.exchangeId = signedLow32(registers.rbx);
    return result;
}

std::int32_t backdoorContinue(BackdoorExchange& exchange, const TransferArea& area,
                              std::uint32_t& got) {
    BackdoorRegisters registers;
    registers.rax = kBackdoorContinue;
    registers.rbx = signExtended(exchange.exchangeId);
    return transfer(exchange, area, registers, got);
}

std::int32_t backdoorCancel(BackdoorExchange& exchange) {
    BackdoorRegisters registers;
    registers.rax = kBackdoorCancel;
    registers.rbx = signExtended(exchange.exchangeId);
    backdoorInstruction(registers);
    exchange.hostStatus = signedLow32(registers.rdi);
    return exchange.hostStatus;
}

std::int32_t guardedBackdoorProbe(BackdoorVersion* version) {
    volatile std::int32_t result = kLinkNotAvailable;  // kept in memory across the jump
    const FaultHandler illegalInstruction(SIGILL);
    const FaultHandler segmentationFault(SIGSEGV);
    if (sigsetjmp(g_faultJump, 1) == 0)
        result = backdoorProbe(version);
    return result;
}

}  // namespace qnt
