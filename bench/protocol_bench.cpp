// Reading the host's printer list, and comparing the known queues with a listing. The argument is
// the number of printers or queues.

#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "protocol/printing_messages.h"
#include "protocol/reconciliation.h"
#include "sim/simulated_host.h"

namespace {

using qnt::QueueBindingList;

std::string idOf(std::size_t number) {
    return "TAG" + std::to_string(1000 + number);
}

std::size_t countOf(const benchmark::State& state) {
    return static_cast<std::size_t>(state.range(0));
}

// The payload of a CmdPrinterList answer.
std::vector<std::uint8_t> listPayload(std::size_t count) {
    std::vector<sim::HostPrinter> printers;
    for (std::size_t i = 0; i < count; ++i)
        printers.push_back({idOf(i), "Laser printer " + std::to_string(i) + " on floor 4"});
    auto answer = sim::encodeAnswer(sim::printerList(printers), 1);
    answer.erase(answer.begin(), answer.begin() + qnt::kPrintingCmdHeaderSize);
    return answer;
}

void parseList(benchmark::State& state) {
    const auto payload = listPayload(countOf(state));
    for (auto _ : state) {
        qnt::PrintingCmd command;
        const bool usable = qnt::parsePrintingCmd(command, payload.data(),
                                                  static_cast<std::uint32_t>(payload.size()));
        if (!usable || command.printers.size() != countOf(state))
            state.SkipWithError("the list was not read");
        benchmark::DoNotOptimize(command);
    }
}

// lpstat prints queues by name, so their ids come in any order.
QueueBindingList shuffledQueues(std::size_t count, unsigned seed) {
    std::vector<qnt::QueueBinding> queues;
    for (std::size_t i = 0; i < count; ++i)
        queues.push_back({idOf(i), "Laser_" + std::to_string(i)});
    std::shuffle(queues.begin(), queues.end(), std::mt19937(seed));
    return {queues.begin(), queues.end()};
}

// Replaces the lpstat on PATH by one that prints these queues.
void fakeLpstat(const QueueBindingList& queues) {
    std::filesystem::create_directory("bin");
    std::ofstream("bin/lpstat") << "#!/bin/sh\n[ $# = 1 ] && exec cat bin/listing\n"
                                   "exec grep -m1 \"^device for $2: \" bin/listing\n";
    std::filesystem::permissions("bin/lpstat", std::filesystem::perms::owner_all);
    setenv("PATH", "bin:/usr/bin:/bin", 1);
    std::ofstream listing("bin/listing");
    for (const auto& [id, name] : queues)
        listing << "device for " << name << ": usb://HP/Laser?serial=" << id << '\n';
}

// Lists the queues and compares them with those that were known, in another order, as the service
// does once a second. The CPU time of the tools does not count.
void compareQueues(benchmark::State& state) {
    fakeLpstat(shuffledQueues(countOf(state), 1));
    QueueBindingList before = shuffledQueues(countOf(state), 2);
    qnt::getUserDeletedPrinters(before);  // asks about each queue once
    before = shuffledQueues(countOf(state), 2);
    for (auto _ : state) {
        state.PauseTiming();
        QueueBindingList known = before;
        state.ResumeTiming();
        if (!qnt::getUserDeletedPrinters(known).empty())
            state.SkipWithError("the comparison is wrong");
    }
}

}  // namespace

BENCHMARK(parseList)->Arg(10)->Arg(10'000);
BENCHMARK(compareQueues)->Arg(100)->Arg(1'000);
