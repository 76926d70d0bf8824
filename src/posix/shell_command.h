// Running one command line through the shell, as system(3) and popen(3) do it, for a service with
// threads that must stop at once:
//
// - A cancelled thread leaves nothing behind: the command's processes form a session of their own,
//   whose group is killed and reaped as the thread unwinds. (glibc's pclose waits for a hung tool.)
//   Without a terminal, a tool that would ask for a password fails instead of waiting.
// - SIGINT keeps its handler. (system(3) ignores it in the whole process while a command runs, so
//   a stop request of that moment would be lost.)
// - The command starts with no signal blocked, although the workers block the stop signals, and
//   inherits standard input, output and error alone.
//
// Waiting for a command is a cancellation point. Any thread.

#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "posix/unique_fd.h"

namespace qnt {

inline constexpr int kOutputPieceSize = 1024;  // bytes of a read, its ending zero included

// A shell that has been started and is to be waited for.
class ShellChild {
public:
    ShellChild() = default;
    ~ShellChild();
    ShellChild(const ShellChild&) = delete;
    ShellChild& operator=(const ShellChild&) = delete;

    // Starts "sh -c command", its standard output going to a descriptor of the caller's, or where
    // the service's own goes for -1. False when no process could be started.
    bool start(const std::string& command, int output);
    // Waits for the end of the shell. Returns its wait status, or -1 when there is no such child.
    int wait();

private:
    pid_t m_pid = -1;
};

// Runs a command and returns its wait status: 0 for success, 256 for the exit code 1, the status
// of exit code 127 when no process could be started.
int runCommand(const std::string& command);

// A command whose output is read.
class CommandOutput {
public:
    // False when no pipe or process could be had.
    bool open(const std::string& command);
    // The next line with its newline, or a piece of 1023 bytes of a longer one. False at the end
    // of the output and on a read error; an interrupted read is repeated.
    bool readLine(char (&piece)[kOutputPieceSize]);
    // Closes the pipe and waits for the command's end.
    void close();

private:
    ShellChild m_child;
    FilePtr m_output;
};

// One word of the shell whose value is the text: between single quotes, with each single quote of
// the text as '\''. None when the text holds a zero byte, which no argument can carry.
std::optional<std::string> shellQuote(std::string_view text);

// A basic regular expression, for a sed program with "/" as delimiter, that matches the text and
// nothing else. None when the text holds a zero byte or a line end.
std::optional<std::string> sedPattern(std::string_view text);

}  // namespace qnt
