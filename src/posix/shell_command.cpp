#include "posix/shell_command.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <utility>

extern char** environ;

namespace qnt {
namespace {

constexpr int kNotStarted = 127 << 8;  // the wait status of exit code 127
constexpr std::string_view kSedSpecials = R"(\[.*^$/)";

// Starts the shell in a new session, with an empty signal mask and the default disposition for
// signals that the service handles or may have inherited as ignored. The initialisations and
// settings can't fail in glibc.
class SpawnSetup {
public:
    SpawnSetup() {
        posix_spawn_file_actions_init(&m_actions);
        posix_spawnattr_init(&m_attributes);
        posix_spawnattr_setflags(
            &m_attributes, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
        sigset_t signals;
        sigemptyset(&signals);
        posix_spawnattr_setsigmask(&m_attributes, &signals);
        for (const int signal : {SIGINT, SIGQUIT, SIGTERM, SIGPIPE, SIGCHLD, SIGALRM})
            sigaddset(&signals, signal);
        posix_spawnattr_setsigdefault(&m_attributes, &signals);
    }
    ~SpawnSetup() {
        posix_spawn_file_actions_destroy(&m_actions);
        posix_spawnattr_destroy(&m_attributes);
    }
    SpawnSetup(const SpawnSetup&) = delete;
    SpawnSetup& operator=(const SpawnSetup&) = delete;

    bool setStandardOutput(int fd) {
        return posix_spawn_file_actions_adddup2(&m_actions, fd, STDOUT_FILENO) == 0;
    }
    bool spawn(pid_t& pid, const std::string& command) const {
        char shell[] = "sh";
        char option[] = "-c";
        char* const arguments[] = {shell, option, const_cast<char*>(command.c_str()), nullptr};
        return posix_spawn(&pid, "/bin/sh", &m_actions, &m_attributes, arguments, environ) == 0;
    }

private:
    posix_spawn_file_actions_t m_actions;
    posix_spawnattr_t m_attributes;
};

int reap(pid_t pid) {
    int status = -1;
    while (waitpid(pid, &status, 0) == -1) {
        if (errno != EINTR)
            return -1;
    }
    return status;
}

bool contains(std::string_view text, char byte) {
    return text.find(byte) != std::string_view::npos;
}

}  // namespace

// The child has not been reaped only if the thread is cancelled or an exception passes.
ShellChild::~ShellChild() {
    if (m_pid == -1)
        return;
    const CancelGuard cancelGuard;
    kill(-m_pid, SIGKILL);
    reap(m_pid);
}

bool ShellChild::start(const std::string& command, int output) {
    SpawnSetup setup;
    if (output != -1 && !setup.setStandardOutput(output))
        return false;
    pid_t pid = -1;
    if (!setup.spawn(pid, command))
        return false;
    m_pid = pid;
    return true;
}

// Waits with WNOWAIT, which can be cancelled and does not reap the child, then reaps it with
// cancellation disabled: m_pid never names a process that has been reaped.
int ShellChild::wait() {
    siginfo_t ended{};
    while (waitid(P_PID, static_cast<id_t>(m_pid), &ended, WEXITED | WNOWAIT) == -1 &&
           errno == EINTR) {
    }
    const CancelGuard cancelGuard;
    return reap(std::exchange(m_pid, -1));
}

int runCommand(const std::string& command) {
    ShellChild child;
    return child.start(command, -1) ? child.wait() : kNotStarted;
}

bool CommandOutput::open(const std::string& command) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return false;
    UniqueFd readEnd(ends[0]);
    const UniqueFd writeEnd(ends[1]);
    m_output.reset(fdopen(readEnd.get(), "r"));
    if (m_output == nullptr)
        return false;
    readEnd.release();
    return m_child.start(command, writeEnd.get());
}

bool CommandOutput::readLine(char (&line)[kLineBufferSize]) {
    while (std::fgets(line, kLineBufferSize, m_output.get()) == nullptr) {
        if (std::feof(m_output.get()) != 0 || errno != EINTR)
            return false;
        std::clearerr(m_output.get());
    }
    return true;
}

int CommandOutput::close() {
    m_output.reset();
    return m_child.wait();
}

std::optional<std::string> shellQuote(std::string_view text) {
    if (contains(text, '\0'))
        return std::nullopt;
    std::string word = "'";
    for (const char byte : text) {
        if (byte == '\'')
            word += R"('\'')";
        else
            word += byte;
    }
    return word += '\'';
}

std::optional<std::string> sedPattern(std::string_view text) {
    if (contains(text, '\0') || contains(text, '\n'))
        return std::nullopt;
    std::string pattern;
    for (const char byte : text) {
        if (contains(kSedSpecials, byte))
            pattern += '\\';
        pattern += byte;
    }
    return pattern;
}

}  // namespace qnt
