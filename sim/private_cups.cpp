#include "sim/private_cups.h"

#include <sys/wait.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace sim {

PrivateCups::PrivateCups(const std::string& folder)
    : m_folder(std::filesystem::absolute(folder).string()) {
    std::filesystem::create_directories(m_folder);
    setenv("CUPS_SERVER", socketPath().c_str(), 1);
    start();
}

PrivateCups::~PrivateCups() = default;

pid_t PrivateCups::pid() const {
    return m_daemon ? m_daemon->pid() : -1;
}

std::string PrivateCups::socketPath() const {
    return m_folder + "/cups.sock";
}

void PrivateCups::start() {
    m_daemon.emplace(std::vector<std::string>{QNT_PRIVATE_CUPS, m_folder},
                     std::map<std::string, std::string>{}, m_folder + "/cupsd.out");
    for (int tries = 0; commandOutput("lpstat -r 2>&1") != "scheduler is running\n"; ++tries) {
        if (tries == 200 || m_daemon->wait(std::chrono::milliseconds(50)))
            throw std::runtime_error("cupsd does not start; see " + m_folder + "/cupsd.out");
    }
}

void PrivateCups::stop() {
    m_daemon->signal(SIGTERM);
    if (!m_daemon->wait(std::chrono::seconds(10)))
        throw std::runtime_error("cupsd does not stop");
}

void PrivateCups::kill() {
    m_daemon.reset();
}

std::string commandOutput(const std::string& command, int* status) {
    std::string output;
    std::FILE* const pipe = popen(command.c_str(), "re");
    if (pipe == nullptr)
        throw std::runtime_error("Could not run " + command);
    std::array<char, 4096> piece;
    for (std::size_t got = 0; (got = std::fread(piece.data(), 1, piece.size(), pipe)) > 0;)
        output.append(piece.data(), got);
    const int result = pclose(pipe);
    if (status != nullptr)
        *status = WIFEXITED(result) ? WEXITSTATUS(result) : 128 + WTERMSIG(result);
    return output;
}

}  // namespace sim
