// An idle service: the CPU time of its listing of the queues, once a second, compared with a shell
// loop, and its memory, compared with other daemons.

#include <unistd.h>

#include <thread>

#include "bench/counted_process.h"

namespace bench {
namespace {

constexpr int kFewestQueues = 5;
constexpr int kMostQueues = 160;
constexpr std::chrono::seconds kSettling(3);
constexpr std::chrono::seconds kTrialWindow(2);
constexpr std::chrono::seconds kWindow(20);

void printUsage(const std::string& scale, const Usage& from, const Usage& to) {
    const double seconds = secondsSince(from.when, to.when);
    printValue("idle/" + scale, (to.all - from.all) / seconds);
    printValue("idle own/" + scale, (to.own - from.own) / seconds);
    printValue("idle cupsd/" + scale, (to.cups - from.cups) / seconds / 2);  // used by both sides
}

}  // namespace

void measureIdle(int rounds) {
    const bool isTrial = rounds == 1;
    const auto window = isTrial ? kTrialWindow : kWindow;
    const int mostQueues = isTrial ? kFewestQueues : kMostQueues;
    mountGroups();
    const sim::SimulatedHost host;
    scriptOf("loop.sh", {"while :; do", recordListing(host), "sleep 1", "done"});
    const CountedProcess service("service" + std::to_string(getpid()), QNT_SERVICE);
    const CountedProcess loop("loop" + std::to_string(getpid()), "sh loop.sh");
    for (int count = kFewestQueues; count <= mostQueues; count *= 2) {
        makeQueues(count);
        std::this_thread::sleep_for(kSettling);
        const bool isEnd = count == kFewestQueues || count == mostQueues;
        for (int round = 0; round < (isEnd ? rounds : 1); ++round) {
            const Usage serviceBefore = service.usageAtRest();
            const Usage loopBefore = loop.usageAtRest();
            std::this_thread::sleep_for(window);
            printUsage(std::to_string(count), serviceBefore, service.usageAtRest());
            printUsage(std::to_string(count) + "/sh", loopBefore, loop.usageAtRest());
        }
        printMemory("qntspooler", service.pid());
        for (const auto& [name, command] : otherDaemons()) {
            const sim::Process daemon = startQuietly(command);
            std::this_thread::sleep_for(kSettling);
            printMemory(name, daemon.pid());
        }
    }
}

}  // namespace bench
