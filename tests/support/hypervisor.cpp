#include "tests/support/hypervisor.h"

#include <sys/ptrace.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <future>
#include <stdexcept>

#include "sim/process.h"
#include "sim/process_memory.h"

namespace sim {
namespace {

constexpr std::array<std::uint8_t, 2> kInstruction{0x0F, 0x33};
constexpr std::int32_t kTransferRefused = -1;

std::uint32_t low32(std::uint64_t value) {
    return static_cast<std::uint32_t>(value);
}

// A shell that waits to be traced before it becomes the command.
std::vector<std::string> stoppedAtFirst(const std::vector<std::string>& command) {
    std::vector<std::string> words{"sh", "-c", "kill -STOP $$; exec \"$@\"", "sh"};
    words.insert(words.end(), command.begin(), command.end());
    return words;
}

void seize(pid_t process) {
    waitpid(process, nullptr, WUNTRACED);
    if (ptrace(PTRACE_SEIZE, process, nullptr, PTRACE_O_TRACECLONE | PTRACE_O_EXITKILL) != 0)
        throw std::runtime_error("The command can't be traced.");
    kill(process, SIGCONT);
}

bool isAtInstruction(pid_t thread, std::uint64_t address) {
    std::array<std::uint8_t, kInstruction.size()> bytes{};
    return readMemory(thread, address, bytes.data(), bytes.size()) && bytes == kInstruction;
}

bool isStopSignal(int signal) {
    return signal == SIGSTOP || signal == SIGTSTP || signal == SIGTTIN || signal == SIGTTOU;
}

}  // namespace

// The tracer is a thread of its own, so that what it waits for are its own tracees alone.
std::optional<int> Hypervisor::run(const std::vector<std::string>& command,
                                   const std::map<std::string, std::string>& variables,
                                   std::chrono::milliseconds time, const std::string& outputFile) {
    std::future<std::optional<int>> result =
        std::async(std::launch::async, [&] { return trace(command, variables, outputFile); });
    if (result.wait_for(time) == std::future_status::ready)
        return result.get();
    signal(SIGKILL);
    result.get();
    return std::nullopt;
}

void Hypervisor::signal(int number) const {
    const std::lock_guard lock(m_mutex);
    if (m_running != 0)
        kill(m_running, number);
}

std::optional<int> Hypervisor::trace(const std::vector<std::string>& command,
                                     const std::map<std::string, std::string>& variables,
                                     const std::string& outputFile) {
    Process process(stoppedAtFirst(command), variables, outputFile);
    seize(process.pid());
    const auto setRunning = [&](pid_t pid) {
        const std::lock_guard lock(m_mutex);
        m_running = pid;
    };
    setRunning(process.pid());
    followUntilExit(process.pid());
    setRunning(0);
    return process.wait(std::chrono::seconds(1));
}

// Leaves the end of the process itself for its owner to collect.
void Hypervisor::followUntilExit(pid_t main) {
    while (true) {
        siginfo_t change{};
        if (waitid(P_ALL, 0, &change, WEXITED | WSTOPPED | WNOWAIT | __WALL | __WNOTHREAD) != 0)
            return;
        const bool stopped = change.si_code == CLD_TRAPPED || change.si_code == CLD_STOPPED;
        if (change.si_pid == main && !stopped)
            return;
        int status = 0;
        if (waitpid(change.si_pid, &status, __WALL | __WNOTHREAD) == change.si_pid &&
            WIFSTOPPED(status))
            handleStop(change.si_pid, status);
    }
}

void Hypervisor::handleStop(pid_t thread, int status) {
    const int signal = WSTOPSIG(status);
    const int event = status >> 16;
    const bool faulted = event == 0 && (signal == SIGSEGV || signal == SIGILL);
    if (event == PTRACE_EVENT_STOP && isStopSignal(signal))
        ptrace(PTRACE_LISTEN, thread, nullptr, nullptr);
    else if (event != 0 || (faulted && carryOut(thread)))
        ptrace(PTRACE_CONT, thread, nullptr, nullptr);
    else
        ptrace(PTRACE_CONT, thread, nullptr, signal);
}

// False when the thread did not fault at a command of the backdoor.
bool Hypervisor::carryOut(pid_t thread) {
    user_regs_struct state{};
    if (ptrace(PTRACE_GETREGS, thread, nullptr, &state) != 0 || !isAtInstruction(thread, state.rip))
        return false;
    qnt::RdpmcRegisters registers{state.rax, state.rbx, state.rcx, state.rdx, state.rsi, state.rdi};
    if (!carryOut(thread, registers))
        return false;
    state.rax = registers.rax;
    state.rbx = registers.rbx;
    state.rcx = registers.rcx;
    state.rdx = registers.rdx;
    state.rsi = registers.rsi;
    state.rdi = registers.rdi;
    state.rip += kInstruction.size();
    return ptrace(PTRACE_SETREGS, thread, nullptr, &state) == 0;
}

bool Hypervisor::carryOut(pid_t thread, qnt::RdpmcRegisters& registers) {
    m_calls.push_back({thread, registers});
    const std::uint32_t id = low32(registers.rbx);
    switch (low32(registers.rax)) {
        case qnt::kBackdoorProbe:
            probe(registers);
            return true;
        case qnt::kBackdoorBegin:
            registers.rbx = ++m_lastId;
            m_exchanges[m_lastId].totalInput = id;
            transfer(thread, m_lastId, registers);
            return true;
        case qnt::kBackdoorContinue:
            transfer(thread, id, registers);
            return true;
        case qnt::kBackdoorCancel:
            m_exchanges.erase(id);
            registers.rdi = 0;
            return true;
        default:
            return false;
    }
}

void Hypervisor::probe(qnt::RdpmcRegisters& registers) const {
    registers = {};
    registers.rax = m_settings.signature;
    registers.rbx = m_settings.version;
    registers.rcx = m_settings.maxTransfer;
}

void Hypervisor::transfer(pid_t thread, std::uint32_t id, qnt::RdpmcRegisters& registers) {
    Exchange& exchange = m_exchanges[id];
    std::uint32_t given = 0;
    std::int32_t status = kTransferRefused;
    if (takeInput(thread, exchange, registers)) {
        given = giveAnswer(thread, exchange, registers);
        status = nextStatus(exchange);
    }
    registers.rsi =
        m_settings.announcedSize.value_or(static_cast<std::uint32_t>(m_settings.answer.size()));
    registers.rdi = static_cast<std::uint32_t>(status);
    registers.rdx = given;
    if (status != qnt::kHostStatusMore)
        m_exchanges.erase(id);
}

// False for a transfer that is too long, sends more than it announced, or shows memory that isn't
// there.
bool Hypervisor::takeInput(pid_t thread, Exchange& exchange, const qnt::RdpmcRegisters& registers) {
    const std::uint32_t chunk = low32(registers.rsi);
    const std::size_t before = exchange.input.size();
    if (low32(registers.rdx) > m_settings.maxTransfer || chunk > low32(registers.rdx) ||
        before + chunk > exchange.totalInput)
        return false;
    exchange.input.resize(before + chunk);
    if (chunk != 0 && !readMemory(thread, registers.rdi, &exchange.input[before], chunk))
        return false;
    if (chunk != 0 && exchange.input.size() == exchange.totalInput)
        m_messages.push_back(exchange.input);
    return true;
}

std::uint32_t Hypervisor::giveAnswer(pid_t thread, Exchange& exchange,
                                     const qnt::RdpmcRegisters& registers) const {
    if (low32(registers.rcx) == 0 || exchange.input.size() < exchange.totalInput)
        return 0;
    const std::size_t size =
        std::min<std::size_t>(low32(registers.rdx), m_settings.answer.size() - exchange.answered);
    if (size == 0 ||
        !writeMemory(thread, registers.rdi, m_settings.answer.data() + exchange.answered, size))
        return 0;
    exchange.answered += size;
    return static_cast<std::uint32_t>(size);
}

std::int32_t Hypervisor::nextStatus(const Exchange& exchange) {
    const std::size_t transfer = m_transfers++;
    if (transfer < m_settings.hostStatuses.size())
        return m_settings.hostStatuses[transfer];
    const bool done = exchange.input.size() == exchange.totalInput &&
                      exchange.answered == m_settings.answer.size();
    return done ? qnt::kHostStatusComplete : qnt::kHostStatusMore;
}

}  // namespace sim
