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
constexpr int kFirstClosedDescriptor = 3;

class SpawnActions {
public:
    SpawnActions() { posix_spawn_file_actions_init(&m_actions); }
    ~SpawnActions() { posix_spawn_file_actions_destroy(&m_actions); }
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;

    bool sendOutputTo(int descriptor) {
        return descriptor == -1 ||
               posix_spawn_file_actions_adddup2(&m_actions, descriptor, STDOUT_FILENO) == 0;
    }
    bool closeTheRest() {
        return posix_spawn_file_actions_addclosefrom_np(&m_actions, kFirstClosedDescriptor) == 0;
    }
    const posix_spawn_file_actions_t* get() const { return &m_actions; }

private:
    posix_spawn_file_actions_t m_actions;
};

// A session of its own, no signal blocked, and those at their default that the service, or
// who started it, may have set to be ignored.
class SpawnAttributes {
public:
    SpawnAttributes() {
        posix_spawnattr_init(&m_attributes);
        posix_spawnattr_setflags(
            &m_attributes, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
        sigset_t signals;
        sigemptyset(&signals);
        posix_spawnattr_setsigmask(&m_attributes, &signals);
        for (const int signal : {SIGINT, SIGQUIT, SIGTERM, SIGPIPE, SIGCHLD})
            sigaddset(&signals, signal);
        posix_spawnattr_setsigdefault(&m_attributes, &signals);
    }
    ~SpawnAttributes() { posix_spawnattr_destroy(&m_attributes); }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;

    const posix_spawnattr_t* get() const { return &m_attributes; }

private:
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

constexpr std::string_view kSedSpecials = R"(\[.*^$/)";

bool holds(std::string_view text, char byte) {
    return text.find(byte) != std::string_view::npos;
}

}  // namespace

// Reached with a running child only when the thread is cancelled or memory has run out.
ShellChild::~ShellChild() {
    if (m_pid == -1)
        return;
    const CancelGuard cancelGuard;
    kill(-m_pid, SIGKILL);
    reap(m_pid);
}

bool ShellChild::start(const std::string& command, int output) {
    SpawnActions actions;
    const SpawnAttributes attributes;
    if (!actions.sendOutputTo(output) || !actions.closeTheRest())
        return false;
    char shell[] = "sh";
    char option[] = "-c";
    char* const arguments[] = {shell, option, const_cast<char*>(command.c_str()), nullptr};
    pid_t pid = -1;
    if (posix_spawn(&pid, "/bin/sh", actions.get(), attributes.get(), arguments, environ) != 0)
        return false;
    m_pid = pid;
    return true;
}

// Two steps, so that a cancellation can't come between the reaping and its being known: the first
// may be cancelled and leaves the child as it is, the second can't and does not wait.
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

bool CommandOutput::readLine(char (&piece)[kOutputPieceSize]) {
    while (std::fgets(piece, kOutputPieceSize, m_output.get()) == nullptr) {
        if (std::feof(m_output.get()) != 0 || errno != EINTR)
            return false;
        std::clearerr(m_output.get());
    }
    return true;
}

void CommandOutput::close() {
    m_output.reset();
    m_child.wait();
}

std::optional<std::string> shellQuote(std::string_view text) {
    if (holds(text, '\0'))
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
    if (holds(text, '\0') || holds(text, '\n'))
        return std::nullopt;
    std::string pattern;
    for (const char byte : text) {
        if (holds(kSedSpecials, byte))
            pattern += '\\';
        pattern += byte;
    }
    return pattern;
}

}  // namespace qnt
