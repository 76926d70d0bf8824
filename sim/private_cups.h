// A real CUPS for the simulated guest, and what its tools print.

#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "sim/process.h"

namespace sim {

// A real cupsd in a folder of its own, reached by CUPS_SERVER, which is set in this process's
// environment. It answers when the constructor returns; otherwise the constructor throws
// std::runtime_error. The folder's path must be shorter than 90 bytes, as it holds a socket.
class PrivateCups {
public:
    explicit PrivateCups(const std::string& folder);
    ~PrivateCups();

    pid_t pid() const;
    void stop();   // SIGTERM and wait
    void start();  // once more, with the queues it had
    void kill();   // SIGKILL and wait

    std::string socketPath() const;  // the value of CUPS_SERVER

private:
    std::string m_folder;
    std::optional<Process> m_daemon;
};

// Returns what a command prints on standard output. Stores its exit code in `status` unless that is
// null.
std::string commandOutput(const std::string& command, int* status = nullptr);

}  // namespace sim
