#include "sim/process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>

#include "posix/unique_fd.h"

namespace sim {
namespace {

constexpr int kNotStarted = 127;

// A null-terminated array of pointers to the texts, for exec.
std::vector<char*> pointersTo(const std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (const std::string& text : texts)
        pointers.push_back(const_cast<char*>(text.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

std::vector<std::string> environmentWith(const std::map<std::string, std::string>& variables) {
    std::vector<std::string> lines;
    for (char** line = environ; *line != nullptr; ++line) {
        const std::string text = *line;
        if (!variables.contains(text.substr(0, text.find('='))))
            lines.push_back(text);
    }
    for (const auto& [name, value] : variables)
        lines.push_back(std::string(name).append("=").append(value));
    return lines;
}

int openOutput(const std::string& path) {
    return path.empty() ? -1 : open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
}

// Runs in the child: makes a new process group, unblocks all signals, redirects input and output.
[[noreturn]] void runChild(char* const* command, char* const* environment, int input, int output) {
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
    execvpe(command[0], command, environment);
    _exit(kNotStarted);
}

int exitCodeOf(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

Process::Process(const std::vector<std::string>& command,
                 const std::map<std::string, std::string>& variables,
                 const std::string& outputFile) {
    const std::vector<std::string> environment = environmentWith(variables);
    const std::vector<char*> words = pointersTo(command);
    const std::vector<char*> lines = pointersTo(environment);
    const qnt::UniqueFd input(open("/dev/null", O_RDONLY | O_CLOEXEC));
    const qnt::UniqueFd output(openOutput(outputFile));
    m_pid = fork();
    if (m_pid == -1)
        throw std::runtime_error("Could not start " + command.front());
    if (m_pid == 0)
        runChild(words.data(), lines.data(), input.get(), output.get());
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

}  // namespace sim
