// Reading the host's printer list and comparing the queues, each beside the least that such work
// could cost. The argument is the number of printers.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/item_stream.h"
#include "protocol/little_endian.h"
#include "protocol/printing_messages.h"
#include "protocol/reconciliation.h"
#include "sim/simulated_host.h"

namespace {

using qnt::QueueBindingList;

constexpr std::uint32_t kSequence = 17;

std::string idOf(std::size_t number) {
    return "TAG" + std::to_string(1000 + number);
}

// The payload of a CmdPrinterList answer.
std::vector<std::uint8_t> listPayload(std::size_t count) {
    std::vector<sim::HostPrinter> printers;
    for (std::size_t i = 0; i < count; ++i)
        printers.push_back({idOf(i), "Laser printer " + std::to_string(i) + " on floor 4"});
    auto answer = sim::encodeAnswer(sim::printerList(printers), kSequence);
    answer.erase(answer.begin(), answer.begin() + qnt::kPrintingCmdHeaderSize);
    return answer;
}

void parseList(benchmark::State& state) {
    const auto payload = listPayload(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        qnt::PrintingCmd command;
        const bool usable = qnt::parsePrintingCmd(command, payload.data(),
                                                  static_cast<std::uint32_t>(payload.size()));
        if (!usable || command.printers.size() != static_cast<std::size_t>(state.range(0)))
            state.SkipWithError("the list was not read");
        benchmark::DoNotOptimize(command);
    }
}

// Steps through items by their lengths, believing them; reads every word of the headers and copies
// the texts to where a list of printers keeps them. No check, no type is looked at but an id's.
class BareWalk {
public:
    std::uint32_t sum() const { return m_sum; }

    template <typename Visit>
    void items(const std::uint8_t* stream, Visit visit) {
        const std::uint8_t* item = stream + qnt::kStreamHeaderSize;
        const std::uint8_t* const end = item + touch(stream);
        while (item != end) {
            const std::uint32_t length = touch(item);
            const std::uint8_t* const data = item + qnt::kItemHeaderSize;
            visit(qnt::readU32(item + qnt::kItemTypeOffset), data, length);
            item = data + length;
        }
    }

    void printer(qnt::QueueBinding& printer, const std::uint8_t* stream) {
        items(stream, [&](std::uint32_t type, const std::uint8_t* data, std::uint32_t length) {
            const std::string_view text(reinterpret_cast<const char*>(data), length);
            (type == qnt::PrinterId ? printer.id : printer.queueName) = text;
        });
    }

private:
    // Both kinds of header are three words, the length first.
    std::uint32_t touch(const std::uint8_t* header) {
        m_sum += qnt::readU32(header + 4) ^ qnt::readU32(header + 8);
        return qnt::readU32(header);
    }

    std::uint32_t m_sum = 0;
};

void walkList(benchmark::State& state) {
    const auto payload = listPayload(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        qnt::PrintingCmd command;
        BareWalk walk;
        walk.items(
            payload.data(), [&](std::uint32_t type, const std::uint8_t* data, std::uint32_t) {
                if (type == qnt::CmdCode)
                    command.code = qnt::readU32(data);
                else
                    walk.items(data, [&](std::uint32_t, const std::uint8_t* entry, std::uint32_t) {
                        walk.printer(command.printers.emplace_back(), entry);
                    });
            });
        benchmark::DoNotOptimize(walk.sum());
        benchmark::DoNotOptimize(command);
    }
}

// The same walk when the texts only go one behind the other.
void walkFlat(benchmark::State& state) {
    const auto payload = listPayload(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        std::vector<std::uint8_t> texts;
        texts.reserve(payload.size());
        const auto copyText = [&](std::uint32_t, const std::uint8_t* data, std::uint32_t length) {
            texts.insert(texts.end(), data, data + length);
        };
        BareWalk walk;
        walk.items(payload.data(),
                   [&](std::uint32_t type, const std::uint8_t* data, std::uint32_t) {
                       if (type == qnt::PrinterList)
                           walk.items(data, [&](std::uint32_t, const std::uint8_t* entry,
                                                std::uint32_t) { walk.items(entry, copyText); });
                   });
        benchmark::DoNotOptimize(walk.sum());
        benchmark::DoNotOptimize(texts.data());
    }
}

// The order in which CUPS lists queues is that of their names, so the ids come in any.
QueueBindingList shuffledQueues(std::size_t count, unsigned order) {
    std::vector<std::size_t> numbers(count);
    std::iota(numbers.begin(), numbers.end(), std::size_t{0});
    std::shuffle(numbers.begin(), numbers.end(), std::mt19937(order));
    QueueBindingList queues;
    for (const std::size_t number : numbers)
        queues.push_back({idOf(number), "Laser_" + std::to_string(number)});
    return queues;
}

// The lists change places at every comparison, so nothing has to be copied between two of them.
void compare(benchmark::State& state, QueueBindingList known, QueueBindingList listing) {
    for (auto _ : state)
        benchmark::DoNotOptimize(qnt::takeVanishedQueues(known, listing));
}

void compareSame(benchmark::State& state) {
    const auto queues = shuffledQueues(static_cast<std::size_t>(state.range(0)), 1);
    compare(state, queues, queues);
}

// One queue has gone from the middle; at every second comparison it is back.
void compareOneGone(benchmark::State& state) {
    const auto known = shuffledQueues(static_cast<std::size_t>(state.range(0)), 1);
    auto listing = known;
    listing.erase(std::next(listing.begin(), state.range(0) / 2));
    compare(state, known, listing);
}

// No queue stands where it stood.
void compareReordered(benchmark::State& state) {
    const auto count = static_cast<std::size_t>(state.range(0));
    compare(state, shuffledQueues(count, 1), shuffledQueues(count, 2));
}

void sortIds(benchmark::State& state) {
    const auto queues = shuffledQueues(static_cast<std::size_t>(state.range(0)), 1);
    std::vector<std::string_view> ids;
    for (auto _ : state) {
        ids.clear();
        for (const qnt::QueueBinding& queue : queues)
            ids.push_back(queue.id);
        std::sort(ids.begin(), ids.end());
        benchmark::DoNotOptimize(ids.data());
    }
}

void counts(benchmark::internal::Benchmark* benchmark) {
    benchmark->RangeMultiplier(10)->Range(10, 10'000);
}

}  // namespace

BENCHMARK(parseList)->Apply(counts);
BENCHMARK(walkList)->Apply(counts);
BENCHMARK(walkFlat)->Apply(counts);
BENCHMARK(compareSame)->Apply(counts);
BENCHMARK(sortIds)->Apply(counts);
BENCHMARK(compareOneGone)->Apply(counts);
BENCHMARK(compareReordered)->Apply(counts);
BENCHMARK_MAIN();
