// Commands of the host, compared with a script of the same command lines.

#include <stdexcept>

#include "bench/measure.h"
#include "sim/private_cups.h"

namespace bench {
namespace {

constexpr int kRenamed = 20;
constexpr int kRenamedInTrial = 2;

struct CommandedService {
    sim::SimulatedHost host;
    sim::Process process = startQuietly({QNT_SERVICE});

    double execute(const sim::HostCommand& command) { return bench::execute(host, command); }
};

std::size_t countQueues(const std::string& name) {
    return std::stoul(sim::commandOutput("lpstat -e | grep -c '^" + name + "_'"));
}

// Gives the printers, and with them their queues, another name.
double rename(CommandedService& service, std::vector<sim::HostPrinter>& printers,
              const std::string& name) {
    for (std::size_t i = 0; i < printers.size(); ++i)
        printers[i].name = name + " " + std::to_string(i);
    const std::size_t before = countQueues(name);
    const double seconds = service.execute(sim::printerList(printers));
    if (before != 0 || countQueues(name) != printers.size())
        throw std::runtime_error("The queues were not all renamed.");
    return seconds;
}

}  // namespace

void measureAdd(int rounds) {
    CommandedService service;
    service.host.plug("TAG1001", "Office Laser");
    const auto add = [&] { return service.execute(sim::addPrinter("TAG1001")); };
    const auto remove = [&] { service.execute(sim::deletePrinter("TAG1001")); };
    add();  // looks the driver up, once in the service's life
    const Command script = scriptOf("add.sh", recordLines(remove, add));
    for (int round = 0; round < rounds; ++round) {
        remove();
        printValue("add", add());
        remove();
        printValue("add/sh", secondsOf(script));
    }
}

void measureRename(int rounds) {
    CommandedService service;
    std::vector<sim::HostPrinter> printers;
    for (int i = 0; i < (rounds == 1 ? kRenamedInTrial : kRenamed); ++i) {
        const std::string number = std::to_string(i);
        printers.push_back({"TAG" + number, "Office " + number});
        service.host.plug(printers.back().id, printers.back().name);
        service.execute(sim::addPrinter(printers.back().id));
    }
    const auto there = [&] { return rename(service, printers, "Floor"); };
    const auto back = [&] { return rename(service, printers, "Office"); };
    const Command script = scriptOf("back.sh", recordLines(there, back));
    for (int round = 0; round < rounds; ++round) {
        printValue("rename", there());
        printValue("rename/sh", secondsOf(script));
    }
}

}  // namespace bench
