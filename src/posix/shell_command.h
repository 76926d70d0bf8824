// system(3) and popen(3) for a service whose threads can be cancelled at any time:
//
// - A cancelled thread leaves no process running. Each command runs in a new session, whose
//   process group is killed while the thread unwinds; the shell is reaped, and init reaps the rest.
//   (glibc's pclose would wait for a command that hangs.) A tool that would ask for a password
//   fails, as it has no terminal.
// - SIGINT keeps its handler. (system(3) ignores SIGINT in the whole process while a command runs,
//   so a stop request would be lost.)
// - The command starts with an empty signal mask, although the workers block the stop signals. It
//   inherits the descriptors 0 to 2; those that the service opens are close-on-exec.
//
// Waiting for a command is a cancellation point. Any thread.

#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "posix/unique_fd.h"

namespace qnt {

inline constexpr int kLineBufferSize = 1024;  // bytes, with the NUL terminator
// execve(2) refuses an argument of more bytes than this, NUL terminator included (MAX_ARG_STRLEN).
// A whole command line is one argument of the shell.
inline constexpr std::size_t kArgumentLimit = 131'072;

// A running shell. The destructor kills and reaps it if nobody has waited for it.
class ShellChild {
public:
    ShellChild() = default;
    ~ShellChild();
    ShellChild(const ShellChild&) = delete;
    ShellChild& operator=(const ShellChild&) = delete;

    // Starts "sh -c command" with `output` as its standard output; -1: inherited. False when no
    // process could be started.
    [[nodiscard]] bool start(const std::string& command, int output);
    // Waits for the shell to end. Returns its wait status, or -1 when there is no such child.
    int wait();

private:
    pid_t m_pid = -1;
};

// Runs a command and returns its wait status: 0 for success, 256 for exit code 1. When no process
// could be started, returns the wait status of exit code 127, as system(3) does.
[[nodiscard]] int runCommand(const std::string& command);

// A command whose output is read.
class CommandOutput {
public:
    // False when no pipe or process could be created.
    [[nodiscard]] bool open(const std::string& command);
    // Reads the next line with its newline; a longer line comes in pieces of kLineBufferSize - 1
    // bytes. False at the end of the output and on a read error; an interrupted read is repeated.
    [[nodiscard]] bool readLine(char (&line)[kLineBufferSize]);
    // Closes the pipe and waits for the command to end. Returns its wait status, as
    // ShellChild::wait does.
    int close();

private:
    ShellChild m_child;
    UniqueFile m_output;
};

// Quotes the text as one shell word: between single quotes, with each single quote in it as '\''.
// Nothing if the text contains a zero byte, which no argument can contain.
std::optional<std::string> shellQuote(std::string_view text);

// Returns a basic regular expression, for a sed program with "/" as delimiter, that matches exactly
// the text. Nothing if the text contains a zero byte or a newline.
std::optional<std::string> sedPattern(std::string_view text);

}  // namespace qnt
