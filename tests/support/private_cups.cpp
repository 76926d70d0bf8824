#include "tests/support/private_cups.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "posix/unique_fd.h"

namespace sim {
namespace {

constexpr std::chrono::seconds kCupsStartTime(20);
constexpr std::chrono::seconds kCupsStopTime(10);
constexpr std::chrono::milliseconds kCupsPollInterval(20);

sockaddr_un socketAddress(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        throw std::runtime_error("The path of a socket is too long: " + path);
    std::memcpy(address.sun_path, path.c_str(), path.size());
    return address;
}

bool answersAt(const std::string& path) {
    const sockaddr_un address = socketAddress(path);
    const qnt::UniqueFd client(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

}  // namespace

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
    const auto deadline = std::chrono::steady_clock::now() + kCupsStartTime;
    while (!answersAt(socketPath())) {
        if (m_daemon->wait(kCupsPollInterval) || std::chrono::steady_clock::now() > deadline)
            throw std::runtime_error("cupsd does not start; see " + m_folder + "/cupsd.out");
    }
}

void PrivateCups::stop() {
    m_daemon->signal(SIGTERM);
    if (!m_daemon->wait(kCupsStopTime))
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
