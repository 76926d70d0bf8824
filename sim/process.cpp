#include "sim/process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <stdexcept>
#include <thread>

#include "posix/unique_fd.h"

namespace sim {
namespace {

constexpr int kNotStarted = 127;
constexpr std::chrono::milliseconds kPollInterval(5);

// Runs in the child: makes a new process group, unblocks all signals, redirects input and output.
[[noreturn]] void runChild(char* const* command, int input, int output) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    setpgid(0, 0);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    dup2(input, STDIN_FILENO);
    if (output != -1) {
        dup2(output, STDOUT_FILENO);
        dup2(output, STDERR_FILENO);
    }
    execvp(command[0], command);
    _exit(kNotStarted);
}

int exitCodeOf(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end)
            return false;
        std::this_thread::sleep_for(kPollInterval);
    }
    return true;
}

Process::Process(std::vector<std::string> command, const std::string& outputFile,
                 const std::map<std::string, std::string>& variables) {
    for (const auto& [name, value] : variables)
        command.insert(command.begin(), std::string(name).append("=").append(value));
    if (!variables.empty())
        command.insert(command.begin(), "env");
    std::vector<char*> words;
    words.reserve(command.size() + 1);
    for (std::string& word : command)
        words.push_back(word.data());
    words.push_back(nullptr);
    const qnt::UniqueFd input(open("/dev/null", O_RDONLY | O_CLOEXEC));
    const qnt::UniqueFd output(
        outputFile.empty()
            ? -1
            : open(outputFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666));
    m_pid = fork();
    if (m_pid == -1)
        throw std::runtime_error("Could not start " + command.front());
    if (m_pid == 0)
        runChild(words.data(), input.get(), output.get());
    setpgid(m_pid, m_pid);
}

Process::~Process() {
    if (!m_result)
        collect();
}

// The group is killed first: its id can't be reused before the process is reaped.
int Process::collect() const {
    kill(-m_pid, SIGKILL);
    int status = 0;
    waitpid(m_pid, &status, 0);
    return exitCodeOf(status);
}

void Process::signal(int number) const {
    if (!m_result)
        kill(m_pid, number);
}

std::optional<int> Process::wait(std::chrono::milliseconds time) {
    if (m_result)
        return m_result;
    const qnt::UniqueFd process(static_cast<int>(syscall(SYS_pidfd_open, m_pid, 0)));
    pollfd ended{process.get(), POLLIN, 0};
    if (poll(&ended, 1, static_cast<int>(time.count())) <= 0)
        return std::nullopt;
    m_result = collect();
    return m_result;
}

std::string commandOutput(const std::string& command, int* status) {
    std::FILE* const pipe = popen(command.c_str(), "re");
    if (pipe == nullptr)
        throw std::runtime_error("Could not run " + command);
    std::string output;
    for (int byte = 0; (byte = std::fgetc(pipe)) != EOF;)
        output.push_back(static_cast<char>(byte));
    const int result = pclose(pipe);
    if (status != nullptr)
        *status = exitCodeOf(result);
    return output;
}

bool readMemory(pid_t thread, std::uint64_t address, void* bytes, std::size_t size) {
    const iovec local{bytes, size};
    const iovec remote{reinterpret_cast<void*>(address), size};
    return process_vm_readv(thread, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(size);
}

bool writeMemory(pid_t thread, std::uint64_t address, const void* bytes, std::size_t size) {
    const iovec local{const_cast<void*>(bytes), size};
    const iovec remote{reinterpret_cast<void*>(address), size};
    return process_vm_writev(thread, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(size);
}

}  // namespace sim
