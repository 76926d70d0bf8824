// A real CUPS for the simulated guest, and a guest for the process.

#pragma once

#include <sys/types.h>

#include <filesystem>
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

    pid_t pid() const { return m_daemon ? m_daemon->pid() : -1; }
    void stop();                       // SIGTERM and wait
    void start();                      // once more, with the queues it had
    void kill() { m_daemon.reset(); }  // SIGKILL and wait

    std::string socketPath() const { return m_folder + "/cups.sock"; }  // the value of CUPS_SERVER

private:
    std::string m_folder;
    std::optional<Process> m_daemon;
};

// A new folder in /tmp, which is deleted with all that is in it.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder() { std::filesystem::remove_all(path); }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::filesystem::path path;
};

// Puts the process into a guest's namespace for good, with a private CUPS.
struct Guest {
    Guest();

    const TemporaryFolder folder;
    PrivateCups cups;
};

}  // namespace sim
