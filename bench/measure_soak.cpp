// Growth of the service in a long, busy conversation.

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <stdexcept>

#include "bench/counted_process.h"
#include "bench/measure.h"
#include "sim/private_cups.h"

namespace bench {
namespace {

using sim::Fault;

constexpr std::chrono::seconds kShortest(10);
constexpr double kMostGrowthKiB = 128;

struct Sample {
    double exchanges, kilobytes, descriptors, threads, zombies, logBytes;
};

// What is open or has ended only for a moment, while a worker lists the queues, does not count.
double least(const std::string& count) {
    double number = 1000;
    for (int sample = 0; sample < 20; ++sample)
        number = std::min(number, std::stod(sim::commandOutput(count)));
    return number;
}

Sample sampleOf(const sim::Process& service, double exchanges) {
    const std::string pid = std::to_string(service.pid());
    const auto field = [&](const std::string& name) {
        return numberAfter("/proc/" + pid + "/status", name);
    };
    const Sample now{exchanges,
                     field("RssAnon:"),
                     least("ls /proc/" + pid + "/fd | wc -l"),
                     field("Threads:"),
                     least("ps -o stat= --ppid " + pid + " | grep -c ^Z"),
                     static_cast<double>(std::filesystem::file_size("/var/log/quintaris.log"))};
    printValue("soak/exchanges", now.exchanges);
    printValue("soak/KiB", now.kilobytes);
    printValue("soak/descriptors", now.descriptors);
    printValue("soak/threads", now.threads);
    printValue("soak/zombies", now.zombies);
    printValue("soak/log bytes", now.logBytes);
    return now;
}

// One round of everything: room that grows, a command and a list that change nothing, an add, a
// default, a rename, a deletion by the user or the host.
void converse(sim::SimulatedHost& host, int round) {
    for (std::uint32_t room = 80; room < 980; room += 10)
        host.fault(sim::kRunLoopRequest, {Fault::Kind::kAskFor, room, {}});
    host.fault(qnt::GetDefaultPrinter,
               {Fault::Kind::kAskFor, 80 + static_cast<unsigned>(round % 9), {}});
    host.send({9, "", {}});
    host.send(sim::printerList({{"TAG7", "Office"}, {"TAG8", "Front Desk"}}));
    const std::string id = "TAG" + std::to_string(round % 4);
    host.plug(id, "Office " + std::to_string(round % 3));
    host.send(sim::addPrinter(id));
    host.setDefault(id);
    waitForIdle(host);
    host.rename(id, "Desk " + std::to_string(round % 3));
    host.sendPrinterList();
    waitForIdle(host);
    if (round % 2 == 0)
        sim::commandOutput("lpstat -e | tail -n 1 | xargs lpadmin -x");
    host.send(sim::deletePrinter(id));
    host.unplug(id);
    host.send(sim::deleteOffline());
    waitForIdle(host);
}

}  // namespace

// A fifth of the time for warming up, then two halves, whose growth is compared.
void measureSoak(int minutes) {
    std::atomic<int> exchanges = 0;
    sim::SimulatedHost host{[&](const std::string&) { ++exchanges; }};
    const sim::Process service = startQuietly({QNT_SERVICE});
    const auto time = std::max<std::chrono::seconds>(std::chrono::minutes(minutes), kShortest);
    std::vector<Sample> samples;
    for (int round = 0; const int fifths : {1, 2, 2}) {
        for (const auto end = Clock::now() + time * fifths / 5; Clock::now() < end; ++round)
            converse(host, round);
        samples.push_back(sampleOf(service, exchanges));
    }
    const Sample &start = samples[0], &middle = samples[1], &end = samples[2];
    const auto logPerExchange = [](const Sample& from, const Sample& to) {
        return (to.logBytes - from.logBytes) / (to.exchanges - from.exchanges);
    };
    if (end.kilobytes - middle.kilobytes > kMostGrowthKiB || end.descriptors != start.descriptors ||
        end.threads != start.threads || end.zombies != 0 ||
        logPerExchange(middle, end) > 2 * logPerExchange(start, middle))
        throw std::runtime_error("The service grows.");
}

}  // namespace bench
