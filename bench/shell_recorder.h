// The command lines that the service gives the shell, taken down as it gives them, so that a script
// can be made of exactly those.

#pragma once

#include <functional>
#include <string>
#include <vector>

namespace bench {

// While one of these lives, /bin/sh is a program that writes its command line down and goes on as
// the shell. The process is in a mount namespace of its own, as root.
class ShellRecorder {
public:
    // Keeps its files in a folder of the caller's, which outlives it.
    explicit ShellRecorder(const std::string& folder);
    ~ShellRecorder();
    ShellRecorder(const ShellRecorder&) = delete;
    ShellRecorder& operator=(const ShellRecorder&) = delete;

    // The lines so far, in the order of their starts.
    std::vector<std::string> lines() const;

private:
    const std::string m_shell;
    const std::string m_record;
};

// The lines that the service runs during a rehearsal. It is repeated, each time after `prepare`,
// until two of them agree: the service's look at the queues, once a second, may come between.
std::vector<std::string> recordLines(const ShellRecorder& recorder,
                                     const std::function<void()>& prepare,
                                     const std::function<void()>& rehearse);

// Writes a script of the lines and returns the command that runs it.
std::vector<std::string> scriptOf(const std::string& path, const std::vector<std::string>& lines);

}  // namespace bench
