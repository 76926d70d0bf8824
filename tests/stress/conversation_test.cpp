// A host that has lost its mind: the unmodified service meets mutated answers, lengths, statuses
// and sizes asked for, in any state, while queues are deleted under it. It may end its run with the
// record of a failed step; it may not crash, hang, leak or touch another's queue.
//
// QNT_EXCHANGES tells how many at least, QNT_MINUTES how long at least, QNT_START which ones.

#include <random>

#include "cups/printer_names.h"
#include "protocol/little_endian.h"
#include "protocol/printing_messages.h"
#include "tests/support/fixture.h"

namespace qnt {
namespace {

using sim::Bytes;
using sim::Fault;

unsigned long number(const char* variable, unsigned long otherwise) {
    const char* text = std::getenv(variable);
    return text != nullptr ? std::stoul(text) : otherwise;
}

class ConversationFuzz : public GuestTest {
protected:
    std::uint32_t below(std::uint32_t limit) {
        return static_cast<std::uint32_t>(random() % limit);
    }

    std::string text() {
        const char* const known[] = {"TAG1",         "TAG2",       "TAG3", "OWN1",
                                     "Office Laser", "Front Desk", ""};
        if (below(8) != 0)
            return known[below(std::size(known))];
        std::string bytes(below(50), ' ');
        for (char& byte : bytes)
            byte = static_cast<char>(below(256));
        return bytes;
    }

    Bytes command() {
        sim::HostCommand command{1 + below(6), text(), {}};
        for (std::uint32_t entries = below(4); entries > 0; --entries)
            command.printers.push_back({text(), text()});
        return sim::encodeAnswer(command, below(100));
    }

    void mutate(Bytes& bytes) {
        const std::size_t at = below(static_cast<std::uint32_t>(bytes.size()));
        const std::uint32_t edges[] = {0, 1, 12, 79, 80, 0x7FFFFFFF, 0x80000000, 0xFFFFFFF0, ~0U};
        switch (below(5)) {
            case 0:
                bytes[at] ^= static_cast<std::uint8_t>(1 << below(8));
                break;
            case 1:
                if (const std::size_t field = at / 4 * 4; field + 4 <= bytes.size())
                    writeU32(&bytes[field], edges[below(std::size(edges))] + below(3));
                break;
            case 2:
                bytes.resize(at + 1);
                break;
            case 3:
                bytes.resize(bytes.size() + below(300), static_cast<std::uint8_t>(below(256)));
                break;
            default:
                bytes.insert(bytes.end(), bytes.begin() + static_cast<std::ptrdiff_t>(at / 2),
                             bytes.begin() + static_cast<std::ptrdiff_t>(at));
        }
    }

    // An add waits for its printer, so most printers are there.
    void plugWhatIsAdded(const Bytes& answer) {
        PrintingCmd command;
        if (answer.size() > 80 &&
            parsePrintingCmd(command, &answer[80],
                             static_cast<std::uint32_t>(answer.size() - 80)) &&
            command.code == CmdAddPrinter && isValidPrinterId(command.printerId) &&
            below(30) != 0) {
            sim::unplugUsbPrinter(command.printerId);
            sim::plugUsbPrinter(command.printerId, text());
        }
    }

    // What a request meets: its answer, of which so many of a hundred are mutated, or something
    // else instead.
    Fault fault(Bytes answer, std::uint32_t mutated) {
        const std::uint32_t sizes[] = {1, 19, 79, 80, 108, 500, 5000, 1 << 20, 1 << 27, ~0U};
        const int errors[] = {EINTR, EIO, ENODEV, EFAULT};
        const std::uint32_t kind = below(100);
        if (kind < 3)
            return {Fault::Kind::kCancel, 0, {}};
        if (kind < 6)
            return {Fault::Kind::kStatus, below(4) != 0 ? below(9) : below(~0U), {}};
        if (kind < 9)
            return {Fault::Kind::kWriteError, static_cast<std::uint32_t>(errors[below(4)]), {}};
        if (kind < 30)
            return {Fault::Kind::kAskFor, sizes[below(kind < 12 ? 10 : 9)], {}};
        for (std::uint32_t changes = kind < 30 + mutated ? 1 + below(4) : 0; changes > 0; --changes)
            mutate(answer);
        plugWhatIsAdded(answer);
        return {Fault::Kind::kRaw, 0, std::move(answer)};
    }

    static void deleteQueues() {
        sim::commandOutput(
            "lpstat -e | grep -av ^Foreign | xargs -r -d '\\n' -n 1 lpadmin -x 2>&-");
    }

    // One life of the service; the number of its exchanges.
    std::size_t live() {
        sim::SimulatedHost host;
        host.fault(sim::kRunLoopRequest, {Fault::Kind::kAskFor, 1000, {}});
        for (int i = 0; i < 60; ++i)
            host.fault(sim::kRunLoopRequest, fault(command(), 10));
        for (int i = 0; i < 40; ++i)
            host.fault(GetDefaultPrinter, fault(sim::encodeDefaultPrinter(text(), below(9)), 50));
        if (below(3) == 0)
            host.fault(UserDeletedPrinters, fault(command(), 50));
        std::ofstream(kLog, std::ios::trunc).flush();
        startService({"-v"}, {{"LD_PRELOAD", preloadable(QNT_HURRIED_SERVICE)},
                              {"ASAN_OPTIONS", std::getenv("ASAN_OPTIONS") + kSanitizer}});
        if (below(3) == 0)
            deleteQueues();
        EXPECT_TRUE(eventually(
            [&] {
                return serviceEnds(0ms) >= 0 ||
                       (host.isIdle() && host.waiting(GetDefaultPrinter) != 0);
            },
            60s));
        const bool failed = serviceEnds(0ms) >= 0;
        failures += failed;
        EXPECT_EQ(failed ? serviceEnds(0ms) : stopService(20s), failed ? 1 : 0)
            << contents(folder / "output");
        const std::string log = contents(kLog);
        EXPECT_TRUE(log.ends_with(failed ? "closed, rc = 1\n" : "closed, rc = 0\n"));
        EXPECT_EQ(log.find("Error in state machine execution\n") != std::string::npos, failed);
        return host.exchanges().size() - host.exchanges(sim::kLinkCall).size();
    }

    const std::string kSanitizer =
        ":exitcode=99:allocator_may_return_null=1:max_allocation_size_mb=200";
    std::mt19937 random{number("QNT_START", 1)};
    int failures = 0;
};

TEST_F(ConversationFuzz, TheServiceOutlivesItOrEndsInOrder) {
    sim::commandOutput("lpadmin -p Foreign_usb -v 'usb://Other/Laser?serial=OWN1'");
    sim::commandOutput("lpadmin -p Foreign_net -v ipp://127.0.0.1:9/print");
    const std::string foreign = sim::commandOutput("lpstat -v | grep ^device.for.Foreign");
    ASSERT_EQ(std::count(foreign.begin(), foreign.end(), '\n'), 2);
    std::size_t exchanges = 0;
    int lives = 0;
    const std::size_t wanted = number("QNT_EXCHANGES", 300);
    const auto end = std::chrono::steady_clock::now() + number("QNT_MINUTES", 0) * 1min;
    for (; (exchanges < wanted || std::chrono::steady_clock::now() < end) && !HasFailure();
         ++lives) {
        exchanges += live();
        EXPECT_EQ(sim::commandOutput("lpstat -v | grep -a ^device.for.Foreign"), foreign);
        deleteQueues();
    }
    std::printf("%zu exchanges in %d lives, %d of them ended by a failed step\n", exchanges, lives,
                failures);
}

}  // namespace
}  // namespace qnt
