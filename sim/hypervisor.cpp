#include "sim/hypervisor.h"

#include <sys/ptrace.h>
#include <sys/user.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <future>
#include <stdexcept>

#include "hostlink/kavelink_backdoor.h"
#include "sim/process.h"

namespace sim {
namespace {

constexpr std::uint8_t kInstruction[] = {0x0F, 0x33};  // RDPMC
constexpr std::uint32_t kMaxTransfer = 128;  // small, so that a message needs several transfers
constexpr std::uint32_t kExchangeId = 1;
constexpr std::int32_t kHostStatusFailed = -1;

std::uint64_t zeroExtended(std::int32_t value) {
    return static_cast<std::uint32_t>(value);
}

// Waits until the traced thread has stopped, and returns the signal; 0 if its process has ended.
// An ended process is left to its owner to wait for.
int awaitStop(pid_t process) {
    siginfo_t info{};
    const auto id = static_cast<id_t>(process);
    if (waitid(P_PID, id, &info, WSTOPPED | WEXITED | WNOWAIT | __WALL) != 0 ||
        info.si_code != CLD_TRAPPED)
        return 0;
    return waitid(P_PID, id, &info, WSTOPPED | __WALL) == 0 ? info.si_status : 0;
}

}  // namespace

// All calls of ptrace must come from the thread that has attached.
Hypervisor::Hypervisor(pid_t process, SimulatedHost& host) : m_process(process), m_host(host) {
    std::promise<bool> attached;
    m_thread = std::thread([this, &attached] {
        sigset_t signals;
        sigfillset(&signals);
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
        const bool traces = ptrace(PTRACE_SEIZE, m_process, nullptr, nullptr) == 0;
        attached.set_value(traces);
        if (traces)
            serve();
    });
    if (!attached.get_future().get()) {
        m_thread.join();
        throw std::runtime_error("Could not trace the program, which the backdoor needs.");
    }
}

Hypervisor::~Hypervisor() {
    m_thread.join();
}

void Hypervisor::serve() {
    while (const int signal = awaitStop(m_process)) {
        const bool faulted = signal == SIGSEGV || signal == SIGILL;
        const bool handled = faulted && executeInstruction();
        const bool deliver = !handled && signal < NSIG;  // larger: an event of the tracing itself
        ptrace(PTRACE_CONT, m_process, nullptr, deliver ? signal : 0);
    }
}

// False if the thread has not stopped at the instruction, which is then left to fault.
bool Hypervisor::executeInstruction() {
    user_regs_struct state{};
    std::uint8_t bytes[sizeof kInstruction]{};
    ptrace(PTRACE_GETREGS, m_process, nullptr, &state);
    if (!readMemory(m_process, state.rip, bytes, sizeof bytes) ||
        !std::ranges::equal(bytes, kInstruction))
        return false;
    qnt::RdpmcRegisters registers{state.rax, state.rbx, state.rcx, state.rdx, state.rsi, state.rdi};
    if (!executeCommand(registers))
        return false;
    state.rax = registers.rax;
    state.rbx = registers.rbx;
    state.rcx = registers.rcx;
    state.rdx = registers.rdx;
    state.rsi = registers.rsi;
    state.rdi = registers.rdi;
    state.rip += sizeof kInstruction;
    return ptrace(PTRACE_SETREGS, m_process, nullptr, &state) == 0;
}

bool Hypervisor::executeCommand(qnt::RdpmcRegisters& registers) {
    switch (registers.rax) {
        case qnt::kBackdoorProbe:
            registers = {qnt::kBackdoorSignature, qnt::kBackdoorVersion, kMaxTransfer, 0, 0, 0};
            m_host.receiveFromBackdoor({}, 1);
            return true;
        case qnt::kBackdoorBegin:
            m_totalInput = static_cast<std::uint32_t>(registers.rbx);
            m_input.clear();
            m_transfers = 0;
            registers.rbx = kExchangeId;
            [[fallthrough]];
        case qnt::kBackdoorContinue:
            registers.rdi = zeroExtended(transfer(registers));
            registers.rdx = 0;  // the host has no answer
            registers.rsi = 0;
            return true;
        case qnt::kBackdoorCancel:
            registers.rdi = qnt::kHostStatusComplete;
            return true;
        default:
            return false;
    }
}

// Takes the chunk at RDI, whose length ESI has. Returns the host's status.
std::int32_t Hypervisor::transfer(const qnt::RdpmcRegisters& registers) {
    Bytes chunk(std::min<std::uint64_t>(registers.rsi, kMaxTransfer));
    if (registers.rbx != kExchangeId || registers.rsi > kMaxTransfer ||
        !readMemory(m_process, registers.rdi, chunk.data(), chunk.size()))
        return kHostStatusFailed;
    ++m_transfers;
    m_input.insert(m_input.end(), chunk.begin(), chunk.end());
    if (m_input.size() < m_totalInput)
        return qnt::kHostStatusMore;
    m_host.receiveFromBackdoor(m_input, m_transfers);
    return qnt::kHostStatusComplete;
}

}  // namespace sim
