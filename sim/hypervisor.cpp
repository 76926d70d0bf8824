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
        const bool traces = ptrace(PTRACE_SEIZE, m_process, nullptr, nullptr) == 0;
        attached.set_value(traces);
        if (traces)
            serve();
    });
    if (!attached.get_future().get()) {
        m_thread.join();
        throw std::runtime_error("Could not trace the program, which the backdoor needs.");
    }
    m_host.refuseLink();
    m_host.release(kLinkCall);
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
    if (!executeCommand(state))
        return false;
    state.rip += sizeof kInstruction;
    return ptrace(PTRACE_SETREGS, m_process, nullptr, &state) == 0;
}

bool Hypervisor::executeCommand(user_regs_struct& state) {
    switch (state.rax) {
        case qnt::kBackdoorProbe:
            state.rax = qnt::kBackdoorSignature;
            state.rbx = qnt::kBackdoorVersion;
            state.rcx = kMaxTransfer;
            state.rdx = state.rsi = state.rdi = 0;
            m_host.receiveFromBackdoor({});
            return true;
        case qnt::kBackdoorBegin:
            m_totalInput = static_cast<std::uint32_t>(state.rbx);
            m_input.clear();
            state.rbx = kExchangeId;
            [[fallthrough]];
        case qnt::kBackdoorContinue:
            if (state.rbx != kExchangeId || !takeChunk(state.rdi, state.rsi))
                return false;
            state.rdi = static_cast<std::uint32_t>(
                m_input.size() < m_totalInput ? qnt::kHostStatusMore : qnt::kHostStatusComplete);
            state.rdx = state.rsi = 0;  // the host has no answer
            return true;
        default:
            return false;
    }
}

bool Hypervisor::takeChunk(std::uint64_t address, std::uint64_t length) {
    Bytes chunk(std::min<std::uint64_t>(length, kMaxTransfer));
    if (length > kMaxTransfer || !readMemory(m_process, address, chunk.data(), chunk.size()))
        return false;
    m_input.insert(m_input.end(), chunk.begin(), chunk.end());
    if (m_input.size() >= m_totalInput)
        m_host.receiveFromBackdoor(m_input);
    return true;
}

}  // namespace sim
