#include "sim/private_cups.h"

#include <chrono>
#include <csignal>
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

void PrivateCups::start() {
    const std::string output = m_folder + "/cupsd.out";
    m_daemon.emplace(std::vector<std::string>{QNT_PRIVATE_CUPS, m_folder},
                     std::map<std::string, std::string>{}, output);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (commandOutput("lpstat -r 2>&1") != "scheduler is running\n") {
        if (std::chrono::steady_clock::now() > end || m_daemon->wait(std::chrono::milliseconds(20)))
            throw std::runtime_error("cupsd does not start; see " + output);
    }
}

void PrivateCups::stop() {
    m_daemon->signal(SIGTERM);
    if (!m_daemon->wait(std::chrono::seconds(60)))
        throw std::runtime_error("cupsd does not stop");
}

}  // namespace sim
