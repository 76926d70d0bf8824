#include "sim/private_cups.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "sim/guest_namespace.h"

namespace sim {
namespace {

std::filesystem::path makeFolder() {
    std::string name = "/tmp/qnt-guest-XXXXXX";
    if (mkdtemp(name.data()) == nullptr)
        throw std::runtime_error("Could not make a folder in /tmp.");
    return name;
}

// Returns the folder of CUPS.
std::filesystem::path enterNamespace(const std::filesystem::path& folder) {
    enterGuestNamespace(folder / "log");
    return folder / "cups";
}

}  // namespace

PrivateCups::PrivateCups(const std::string& folder)
    : m_folder(std::filesystem::absolute(folder).string()) {
    std::filesystem::create_directories(m_folder);
    setenv("CUPS_SERVER", socketPath().c_str(), 1);
    start();
}

void PrivateCups::start() {
    const std::string output = m_folder + "/cupsd.out";
    m_daemon.emplace(std::vector<std::string>{QNT_PRIVATE_CUPS, m_folder}, output);
    const auto answers = [] {
        return commandOutput("LC_ALL=C lpstat -r 2>&1") == "scheduler is running\n";
    };
    waitUntil([&] { return answers() || m_daemon->wait({}); });
    if (!answers())
        throw std::runtime_error("cupsd does not start; see " + output);
}

void PrivateCups::stop() {
    m_daemon->signal(SIGTERM);
    if (!m_daemon->wait(kPatience))
        throw std::runtime_error("cupsd does not stop");
}

TemporaryFolder::TemporaryFolder() : path(makeFolder()) {}

Guest::Guest() : cups(enterNamespace(folder.path)) {}

}  // namespace sim
