// Reading the host's printer list, compared with a walk that checks nothing, and comparing the
// known queues with a listing. The argument is the number of printers or queues.

#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "cups/queue_listing.h"
#include "protocol/item_stream.h"
#include "protocol/little_endian.h"
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

// Stream and item headers are three words, the length first. Reads all of them.
std::uint32_t readHeader(const std::uint8_t* header) {
    benchmark::DoNotOptimize(qnt::readU32(header + 4) ^ qnt::readU32(header + 8));
    return qnt::readU32(header);
}

// Calls visit(type, data, length) for each item of a stream. Trusts all lengths.
template <typename Visit>
void walk(const std::uint8_t* stream, Visit visit) {
    const std::uint8_t* item = stream + qnt::kStreamHeaderSize;
    const std::uint8_t* const end = item + readHeader(stream);
    while (item != end) {
        const std::uint32_t length = readHeader(item);
        const std::uint8_t* const data = item + qnt::kItemHeaderSize;
        visit(qnt::readU32(item + qnt::kItemTypeOffset), data, length);
        item = data + length;
    }
}

// The same for each text of a printer list, after addPrinter() for its printer.
template <typename AddPrinter, typename Visit>
void walkPrinters(const std::vector<std::uint8_t>& payload, AddPrinter addPrinter, Visit visit) {
    walk(payload.data(), [&](auto type, auto* data, auto) {
        if (type != qnt::PrinterList)
            return;
        walk(data, [&](auto, auto* printer, auto) {
            addPrinter();
            walk(printer, visit);
        });
    });
}

// Copies the texts to where parseList puts them.
void walkList(benchmark::State& state) {
    const auto payload = listPayload(countOf(state));
    for (auto _ : state) {
        QueueBindingList printers;
        walkPrinters(
            payload, [&] { printers.emplace_back(); },
            [&](auto type, auto* text, auto length) {
                qnt::QueueBinding& printer = printers.back();
                (type == qnt::PrinterId ? printer.id : printer.queueName)
                    .assign(reinterpret_cast<const char*>(text), length);
            });
        benchmark::DoNotOptimize(printers);
    }
}

// Copies the texts one after the other into one buffer.
void walkFlat(benchmark::State& state) {
    const auto payload = listPayload(countOf(state));
    for (auto _ : state) {
        std::vector<std::uint8_t> texts;
        texts.reserve(payload.size());
        walkPrinters(
            payload, [] {},
            [&](auto, auto* text, auto length) { texts.insert(texts.end(), text, text + length); });
        benchmark::DoNotOptimize(texts.data());
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
    std::ofstream("bin/lpstat") << "#!/bin/sh\nexec cat bin/listing\n";
    std::filesystem::permissions("bin/lpstat", std::filesystem::perms::owner_all);
    setenv("PATH", "bin:/usr/bin:/bin", 1);
    std::ofstream listing("bin/listing");
    for (const auto& [id, name] : queues)
        listing << "device for " << name << ": usb://HP/Laser?serial=" << id << '\n';
}

// What compare() does besides the comparison. The CPU time of the tools does not count.
void listQueues(benchmark::State& state) {
    fakeLpstat(shuffledQueues(countOf(state), 1));
    for (auto _ : state) {
        QueueBindingList listing;
        qnt::getHostPrinterQueues(listing, qnt::kListHostQueues);
        if (listing.size() != countOf(state))
            state.SkipWithError("the queues were not listed");
    }
}

void compare(benchmark::State& state, unsigned seed, bool withVanished) {
    fakeLpstat(shuffledQueues(countOf(state), 1));
    QueueBindingList before = shuffledQueues(countOf(state), seed);
    if (withVanished)
        before.insert(std::next(before.begin(), state.range(0) / 2), {"TAG1", "Vanished"});
    QueueBindingList known;
    for (auto _ : state) {
        state.PauseTiming();
        known = before;
        state.ResumeTiming();
        if (qnt::getUserDeletedPrinters(known).size() != (withVanished ? 1 : 0))
            state.SkipWithError("the comparison is wrong");
    }
}

}  // namespace

BENCHMARK(parseList)->RangeMultiplier(10)->Range(10, 10'000);
BENCHMARK(walkList)->RangeMultiplier(10)->Range(10, 10'000);
BENCHMARK(walkFlat)->RangeMultiplier(10)->Range(10, 10'000);
BENCHMARK(listQueues)->RangeMultiplier(10)->Range(1'000, 10'000);
BENCHMARK_CAPTURE(compare, same, 1, false)->RangeMultiplier(10)->Range(1'000, 10'000);
BENCHMARK_CAPTURE(compare, oneGone, 1, true)->RangeMultiplier(10)->Range(1'000, 10'000);
BENCHMARK_CAPTURE(compare, reordered, 2, false)->RangeMultiplier(10)->Range(1'000, 10'000);
BENCHMARK_MAIN();
