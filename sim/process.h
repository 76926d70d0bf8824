// A child process that ends with its owner.

#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace sim {

// A process of ours, ended at the latest with its owner and with the thread that made it. What it
// leaves behind in its process group ends with it.
class Process {
public:
    // Starts a program found on PATH, with variables set on top of the environment and no input.
    // Standard output and error go to the end of `outputFile`, or where ours go when it is empty.
    // One that can't be started ends with exit code 127.
    Process(const std::vector<std::string>& command,
            const std::map<std::string, std::string>& variables = {},
            const std::string& outputFile = {});
    ~Process();  // SIGKILL
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t pid() const { return m_pid; }
    void signal(int number) const;
    // The exit code, or 128 plus the signal that ended it; none when it still runs after the time.
    std::optional<int> wait(std::chrono::milliseconds time);

private:
    int collect() const;

    pid_t m_pid = -1;
    std::optional<int> m_result;
};

}  // namespace sim
