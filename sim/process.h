// Child processes, the memory of processes, and waiting.

#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace sim {

inline constexpr std::chrono::seconds kPatience(60);  // for what normally takes a moment

// Polls the condition until it holds; false if it does not after the time.
bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds time = kPatience);

// A child process in its own process group. The whole group is killed when the process has ended,
// at the latest by the destructor; the process is also killed when the thread that started it ends.
class Process {
public:
    // Starts a program found on PATH, with the environment plus `variables` and with standard input
    // from /dev/null. Standard output and error are appended to `outputFile`, or inherited if it is
    // empty. The exit code is 127 if the program can't be started.
    Process(std::vector<std::string> command, const std::string& outputFile = {},
            const std::map<std::string, std::string>& variables = {});
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

// Returns what a shell command prints on standard output. Stores its exit code, or 128 plus the
// signal that ended it, in `status` unless that is null.
std::string commandOutput(const std::string& command, int* status = nullptr);

// Copy bytes from and to the process of the thread, which must not have ended. False if some of
// them are not accessible.
bool readMemory(pid_t thread, std::uint64_t address, void* bytes, std::size_t size);
bool writeMemory(pid_t thread, std::uint64_t address, const void* bytes, std::size_t size);

}  // namespace sim
