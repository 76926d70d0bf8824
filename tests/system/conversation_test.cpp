// Random, often malformed answers to the unmodified service.

#include <gmock/gmock.h>

#include <random>

#include "tests/support/fixture.h"

namespace qnt {
namespace {

using sim::Fault;

// The same seed gives the same answers.
class RandomHost : public sim::SimulatedHost {
public:
    RandomHost(unsigned seed, unsigned answers) : m_random(seed) {
        fault(sim::kRunLoopRequest, {Fault::Kind::kAskFor, 1000, {}});
        for (; answers > 0; --answers) {
            const sim::HostCommand command{1 + below(6), text(), {{text(), text()}, {text(), ""}}};
            fault(sim::kRunLoopRequest, reply(sim::encodeAnswer(command, below(100)), 10));
            fault(GetDefaultPrinter, reply(sim::encodeDefaultPrinter(text(), below(9)), 50));
        }
    }

private:
    unsigned below(unsigned limit) { return static_cast<unsigned>(m_random() % limit); }

    template <typename Value, std::size_t size>
    Value oneOf(const Value (&values)[size]) {
        return values[below(size)];
    }

    // A name or an id.
    std::string text() {
        std::string bytes(below(50), ' ');
        std::ranges::generate(bytes, [&] { return static_cast<char>(below(256)); });
        return oneOf<std::string>({"TAG1", "TAG2", "Office Laser", "Front Desk", "", bytes});
    }

    // One bit is flipped, the end is cut off or extended, or one field gets an extreme value.
    Bytes mutated(Bytes bytes) {
        const std::size_t at = below(static_cast<unsigned>(bytes.size()));
        const unsigned kind = below(3);
        if (kind == 0)
            bytes[at] ^= static_cast<std::uint8_t>(1 << below(8));
        else if (kind == 1)
            bytes.resize(1 + at + std::size_t{below(2)} * below(300),
                         static_cast<std::uint8_t>(below(256)));
        else if (const std::size_t field = at / 4 * 4; field + 4 <= bytes.size())
            writeU32(&bytes[field],
                     below(3) + oneOf({0U, 12U, 80U, 0x7FFFFFFFU, 0x80000000U, ~15U, ~0U}));
        return bytes;
    }

    Fault reply(const Bytes& answer, unsigned percentMutated) {
        if (below(5) == 0)
            return {Fault::Kind::kAskFor,
                    oneOf({1U, 19U, 79U, 80U, 108U, 500U, 5000U, 1U << 20, 1U << 27, ~0U}),
                    {}};
        return {Fault::Kind::kRaw, 0, below(100) < percentMutated ? mutated(answer) : answer};
    }

    std::mt19937 m_random;
};

// Lasts QNT_MINUTES; QNT_START is the first seed.
TEST_F(GuestTest, RandomAnswersEndTheServiceCleanlyAtAFailedStepOrNotAtAll) {
    const char* const minutes = std::getenv("QNT_MINUTES");
    const char* const start = std::getenv("QNT_START");
    unsigned seed = start == nullptr ? 1 : static_cast<unsigned>(std::atoi(start));
    const auto end = std::chrono::steady_clock::now() +
                     std::chrono::minutes(minutes == nullptr ? 0 : std::atoi(minutes));
    const std::string sanitizer =
        std::getenv("ASAN_OPTIONS") + std::string(
                                          ":allocator_may_return_null=1"
                                          ":max_allocation_size_mb=200:exitcode=99");
    std::size_t runs = 0, exchanges = 0, failed = 0;
    for (; runs < 3 || std::chrono::steady_clock::now() < end; ++runs, ++seed) {
        SCOPED_TRACE("QNT_START=" + std::to_string(seed));
        std::ofstream(kLog, std::ios::trunc).flush();
        RandomHost host(seed, 60);
        startPreloaded({{"QNT_SECOND", "20"}, {"ASAN_OPTIONS", sanitizer}}, {"-v"});
        host.plug("TAG1", "Office Laser");
        host.sendPrinterList();
        host.send(sim::addPrinter("TAG1"));
        ASSERT_TRUE(host.waitUntil([&] { return host.isIdle() || service->wait(0s); }));
        const int code = stopService();
        const auto steps = std::ranges::count(records(), "Error in state machine execution");
        ASSERT_TRUE(steps == code && code <= 1) << code << ' ' << contents(folder / "output");
        ASSERT_EQ(records().back(), "closed, rc = " + std::to_string(code));
        exchanges += host.exchanges().size();
        failed += static_cast<std::size_t>(code);
    }
    std::cout << exchanges << " exchanges in " << runs << " runs, " << failed
              << " of them ended by a failed step\n";
}

}  // namespace
}  // namespace qnt
