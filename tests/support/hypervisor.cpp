#include "tests/support/hypervisor.h"

#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <numeric>

#include "sim/process_memory.h"

namespace sim {
namespace {

constexpr std::uint64_t kGarbage = 0xDEADBEEF00000000;
constexpr std::uint64_t kExchangeId = 0xFFFFFFFE;
constexpr std::uint8_t kInstruction[] = {0x0F, 0x33};

[[noreturn]] void becomeTraced(const std::vector<std::string>& command,
                               const std::map<std::string, std::string>& variables) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (const auto& [name, value] : variables)
        setenv(name.c_str(), value.c_str(), 1);
    std::vector<char*> arguments;
    for (const std::string& word : command)
        arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    execv(arguments[0], arguments.data());
    _exit(127);
}

// Whether the thread stands at an RDPMC, which is then carried out and skipped.
bool carriesOut(Hypervisor& hypervisor, pid_t thread) {
    user_regs_struct state{};
    std::uint8_t bytes[sizeof kInstruction]{};
    ptrace(PTRACE_GETREGS, thread, nullptr, &state);
    if (!readMemory(thread, state.rip, bytes, sizeof bytes) ||
        !std::ranges::equal(bytes, kInstruction))
        return false;
    qnt::RdpmcRegisters registers{state.rax, state.rbx, state.rcx, state.rdx, state.rsi, state.rdi};
    hypervisor.execute(thread, registers);
    state.rax = registers.rax;
    state.rbx = registers.rbx;
    state.rcx = registers.rcx;
    state.rdx = registers.rdx;
    state.rsi = registers.rsi;
    state.rdi = registers.rdi;
    state.rip += sizeof kInstruction;
    return ptrace(PTRACE_SETREGS, thread, nullptr, &state) == 0;
}

}  // namespace

void Hypervisor::execute(pid_t thread, qnt::RdpmcRegisters& registers) {
    commands.push_back(registers);
    if (registers.rax == qnt::kBackdoorProbe)
        registers = probeAnswer;
    if (registers.rax != qnt::kBackdoorBegin && registers.rax != qnt::kBackdoorContinue)
        return;
    const Transfer transfer = transfers.front();
    if (transfers.size() > 1)
        transfers.erase(transfers.begin());
    Bytes sent(registers.rsi);
    readMemory(thread, registers.rdi, sent.data(), sent.size());
    input.insert(input.end(), sent.begin(), sent.end());
    Bytes answer(std::min<std::uint64_t>(transfer.written, registers.rdx));
    std::iota(answer.begin(), answer.end(), static_cast<std::uint8_t>(written));
    writeMemory(thread, registers.rdi, answer.data(), answer.size());
    written += transfer.written;
    if (registers.rax == qnt::kBackdoorBegin)
        registers.rbx = kGarbage | kExchangeId;
    registers.rdx = kGarbage | transfer.written;
    registers.rsi = kGarbage | transfer.answerSize;
    registers.rdi = kGarbage | static_cast<std::uint32_t>(transfer.status);
}

int runUnder(Hypervisor& hypervisor, const std::vector<std::string>& command,
             const std::map<std::string, std::string>& variables, std::atomic<pid_t>& process) {
    const pid_t child = fork();
    if (child == 0)
        becomeTraced(command, variables);
    process = child;
    int status = 0;
    while (waitpid(child, &status, 0) == child && WIFSTOPPED(status)) {
        const int signal = WSTOPSIG(status);
        const bool faulted = signal == SIGSEGV || signal == SIGILL;
        const bool ends = signal == SIGTRAP || (faulted && carriesOut(hypervisor, child));
        ptrace(PTRACE_CONT, child, nullptr, ends ? 0 : signal);
    }
    process = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace sim
