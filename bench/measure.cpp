#include "bench/measure.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <stdexcept>

#include "bench/submit_loop.h"
#include "sim/guest_namespace.h"

namespace bench {
namespace {

std::optional<sim::PrivateCups> g_cups;

// The guest around a measurement, gone with its files at the end.
class Guest {
public:
    Guest() {
        sim::enterGuestNamespace(m_folder / "log");
        std::filesystem::current_path(m_folder);
        g_cups.emplace(m_folder / "cups");
    }
    ~Guest() {
        g_cups.reset();
        std::filesystem::current_path("/");
        std::filesystem::remove_all(m_folder);
    }
    Guest(const Guest&) = delete;
    Guest& operator=(const Guest&) = delete;

private:
    static std::filesystem::path makeFolder() {
        std::string name = std::filesystem::temp_directory_path() / "qnt-bench-XXXXXX";
        return mkdtemp(name.data());
    }

    const std::filesystem::path m_folder = makeFolder();
};

}  // namespace

pid_t cupsProcess() {
    return g_cups->pid();
}

void printValue(const std::string& figure, const std::string& scale, const std::string& side,
                double value) {
    std::printf("%s\t%s\t%s\t%.9g\n", figure.c_str(), scale.c_str(), side.c_str(), value);
    std::fflush(stdout);
}

sim::Process startService() {
    return sim::Process({QNT_SERVICE}, {}, "/dev/null");
}

void addRawQueue(int number) {
    const std::string text = std::to_string(number);
    int status = 0;
    sim::commandOutput("lpadmin -p Queue_" + text + " -E -v 'usb://HP/Color%20LaserJet%208500" +
                           "?serial=TAG" + text + "' 2>&1",
                       &status);
    if (status != 0)
        throw std::runtime_error("lpadmin can't make a queue.");
}

void deleteAllQueues() {
    sim::commandOutput("for queue in $(lpstat -e 2>&1); do lpadmin -x $queue; done 2>&1");
}

double secondsBetween(std::chrono::system_clock::time_point from,
                      std::chrono::system_clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

double secondsOf(const std::vector<std::string>& command) {
    constexpr std::chrono::minutes kLongest(5);
    const auto start = std::chrono::system_clock::now();
    sim::Process process(command, {}, "/dev/null");
    if (!process.wait(kLongest))
        throw std::runtime_error(command.front() + " does not end.");
    return secondsBetween(start, std::chrono::system_clock::now());
}

namespace {

const std::map<std::string, std::function<void(int)>> kMeasurements = {
    {"add", measureAdd},   {"rename", measureRename},       {"idle", measureIdle},
    {"life", measureLife}, {"exchanges", measureExchanges},
};

int run(const std::vector<std::string>& arguments) {
    if (arguments == std::vector<std::string>{kSubmitLoop})
        return submitLoop();
    if (arguments.size() != 2 || !kMeasurements.contains(arguments[0])) {
        std::fprintf(stderr, "usage: measure add|rename|idle|life|exchanges ROUNDS\n");
        return 64;
    }
    const Guest guest;
    kMeasurements.at(arguments[0])(std::atoi(arguments[1].c_str()));
    return 0;
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
    try {
        return bench::run({argv + 1, argv + argc});
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "measure: %s\n", failure.what());
        return 1;
    }
}
