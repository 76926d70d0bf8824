// The service's start and its stop.

#include <csignal>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "bench/measure.h"
#include "bench/neighbours.h"
#include "bench/shell_recorder.h"

namespace bench {
namespace {

constexpr std::size_t kStartUpChecks = 2;
constexpr std::chrono::milliseconds kSettling(300);
constexpr std::chrono::seconds kLongest(10);

// Seconds from the stop signal to the exit.
double stop(sim::Process& process) {
    const auto start = std::chrono::system_clock::now();
    process.signal(SIGTERM);
    if (!process.wait(kLongest))
        throw std::runtime_error("A daemon does not stop.");
    return secondsBetween(start, std::chrono::system_clock::now());
}

void waitForRequests(const sim::SimulatedHost& host) {
    const auto bothAsk = [&] {
        return host.waiting(qnt::GetPrintingCmd) == 1 && host.waiting(qnt::GetDefaultPrinter) == 1;
    };
    if (!host.waitUntil(bothAsk))
        throw std::runtime_error("The service does not start.");
}

// The script of the checks that the service starts with.
std::vector<std::string> checksScript(const sim::SimulatedHost& host) {
    const ShellRecorder recorder(std::filesystem::current_path());
    const sim::Process service = startService();
    waitForRequests(host);
    std::vector<std::string> lines = recorder.lines();
    lines.resize(kStartUpChecks);
    return scriptOf("checks.sh", lines);
}

void measureServiceOnce(const sim::SimulatedHost& host) {
    const std::size_t before = host.exchanges().size();
    const std::size_t questionsBefore = host.exchanges(qnt::GetPrintingCmd).size();
    const auto start = std::chrono::system_clock::now();
    sim::Process service = startService();
    waitForRequests(host);
    const auto firstRequest = host.exchanges().at(before).when;
    const auto firstQuestion = host.exchanges(qnt::GetPrintingCmd).at(questionsBefore).when;
    printValue("start", "request of any kind", kOurs, secondsBetween(start, firstRequest));
    printValue("start", "request for a command", kOurs, secondsBetween(start, firstQuestion));
    std::this_thread::sleep_for(kSettling);
    printValue("stop", "", kOurs, stop(service));
}

void measureNeighbourOnce(const Neighbour& neighbour) {
    sim::Process process(neighbour.command, {}, "/dev/null");
    std::this_thread::sleep_for(kSettling);
    printValue("stop", "", neighbour.name, stop(process));
}

}  // namespace

void measureLife(int rounds) {
    const sim::SimulatedHost host;
    const std::vector<std::string> checks = checksScript(host);
    const std::vector<Neighbour> neighbours = installedNeighbours();
    for (int round = 0; round < rounds; ++round) {
        measureServiceOnce(host);
        printValue("start", "", kScript, secondsOf(checks));
        for (const Neighbour& neighbour : neighbours)
            measureNeighbourOnce(neighbour);
    }
}

}  // namespace bench
