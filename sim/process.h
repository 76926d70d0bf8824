// A child process that ends with its owner.

#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace sim {

// A child process in its own process group. The whole group is killed when the process has ended,
// at the latest by the destructor; the process is also killed when the thread that started it ends.
class Process {
public:
    // Starts a program found on PATH, with the environment plus `variables` and with standard input
    // from /dev/null. Standard output and error are appended to `outputFile`, or inherited if it is
    // empty. The exit code is 127 if the program can't be started.
    Process(const std::vector<std::string>& command,
            const std::map<std::string, std::string>& variables = {},
            const std::string& outputFile = {});
    ~Process();  // SIGKILL
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t pid() const { return m_pid; }
    void signal(int number) const;
    // The exit code, or 128 plus the signal that ended it; none if it still runs after the time.
    std::optional<int> wait(std::chrono::milliseconds time);

private:
    int collect() const;

    pid_t m_pid = -1;
    std::optional<int> m_result;
};

}  // namespace sim
