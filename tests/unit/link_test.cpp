// The link to the host over the request device and over the backdoor, and the messages on it.

#include <gmock/gmock.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <filesystem>
#include <numeric>

#include "hostlink/kavelink_backdoor.h"
#include "hostlink/rdpmc.h"
#include "hostlink/request_device.h"
#include "sim/guest_namespace.h"
#include "sim/simulated_host.h"
#include "tests/support/bytes.h"

// Sleeps pass in simulated time.
using namespace std::chrono_literals;
static std::chrono::nanoseconds g_slept{0};

extern "C" int nanosleep(const timespec* time, timespec*) {
    g_slept += std::chrono::seconds(time->tv_sec) + std::chrono::nanoseconds(time->tv_nsec);
    return 0;
}

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
    if (clock != CLOCK_MONOTONIC)
        return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    now->tv_sec = g_slept / 1s;
    now->tv_nsec = g_slept % 1s / 1ns;
    return 0;
}

namespace qnt {

constexpr std::uint64_t kGarbage = 0xDEADBEEF00000000;  // in the upper halves that come back

// What the host does in one transfer.
struct Transfer {
    std::uint32_t written = 0;  // bytes, which count up from 0; never more than there is room for
    std::int32_t status = kHostStatusComplete;
    std::uint32_t answerSize = 0;
};

struct Hypervisor {
    std::vector<Transfer> transfers;  // the last one is repeated
    RdpmcRegisters probeAnswer = {0x0B36AF47, 2, 300, 0, 0, 0};
    std::vector<std::uint64_t> sent = {};  // bytes of each transfer
    Bytes input = {};                      // of all transfers
    std::uint32_t written = 0;
    bool isCancelled = false;
};
static Hypervisor g_hypervisor;

// Replaces the library's rdpmc() at link time.
void rdpmc(RdpmcRegisters& registers) {
    Hypervisor& host = g_hypervisor;
    host.isCancelled = registers.rax == kBackdoorCancel;
    if (registers.rax == kBackdoorProbe)
        registers = host.probeAnswer;
    if (registers.rax != kBackdoorBegin && registers.rax != kBackdoorContinue)
        return;
    const Transfer transfer = host.transfers.front();
    if (host.transfers.size() > 1)
        host.transfers.erase(host.transfers.begin());
    auto* area = reinterpret_cast<std::uint8_t*>(registers.rdi);
    host.sent.push_back(registers.rsi);
    host.input.insert(host.input.end(), area, area + registers.rsi);
    std::iota(area, area + std::min<std::uint64_t>(transfer.written, registers.rdx),
              static_cast<std::uint8_t>(host.written));
    host.written += transfer.written;
    if (registers.rax == kBackdoorBegin)
        registers.rbx = kGarbage | 0xFFFFFFFE;
    registers.rdx = kGarbage | transfer.written;
    registers.rsi = kGarbage | transfer.answerSize;
    registers.rdi = kGarbage | static_cast<std::uint32_t>(transfer.status);
}

namespace {

constexpr auto kMore = kHostStatusMore;
constexpr auto kDone = kHostStatusComplete;
// A request and its repetitions until the limit.
constexpr std::size_t kEndless =
    1 + HostLoopLimit::kRepeatsAtOnce + HostLoopLimit::kTimeLimit / HostLoopLimit::kPause;

// A call over the backdoor: its sizes, what the host does, and the bytes in each transfer.
struct Call {
    std::uint32_t input, output, maxTransfer;
    std::vector<Transfer> transfers;
    std::int32_t result;
    std::vector<std::uint64_t> sent;
    bool isCancelled = false;
};

const Call kCalls[] = {
    {250, 0, 100, {{0, 1}, {0, kMore}, {0, kDone}}, kLinkOk, {100, 50, 100}},
    {10, 250, 100, {{100, kMore}, {100, kMore}, {50, kDone}}, kLinkOk, {10, 0, 0}},
    // Answer bytes that arrive beside the input move down, from 5 to 4 in the second transfer.
    {15, 15, 10, {{4, kMore}, {10, kMore}, {1, kDone}}, kLinkOk, {5, 10, 0}},
    {15, 15, 10, {{4, kMore}, {1, kMore}, {10, kDone}}, kLinkOk, {5, 10, 0}},
    // The announced answer is larger than the room.
    {10, 0, 100, {{0, kDone, 1}}, kLinkAnswerTooLarge, {10}},
    {10, 0, 100, {{0, kMore, 1}}, kLinkAnswerTooLarge, {10}, true},
    {10, 20, 100, {{20, kMore, 20}, {0, kMore, 21}}, kLinkAnswerTooLarge, {10, 0}, true},
    // The host fails, or claims to have written more than the area holds.
    {10, 0, 100, {{0, kMore}, {0, -5}}, kLinkHostFailed, {10, 0}},
    {10, 20, 100, {{21, kMore}}, kLinkHostFailed, {10}},
    {10, 20, 100, {{20, kMore}, {1, kMore}}, kLinkHostFailed, {10, 0}},
    // Nothing moves.
    {0, 10, 100, {{0, kMore}}, kLinkHostFailed, std::vector<std::uint64_t>(kEndless), true},
    // Each transfer fits, all together do not.
    {20, 10, 10, {{10, kMore}, {10, kDone}}, kLinkOk, {10, 10}},
    {15, 16, 10, {{10, kMore}, {10, kMore}, {0, -1}}, kLinkHostFailed, {5, 10, 0}},
};

TEST(Backdoor, MovesACallWithinItsBufferOrFailsIt) {
    for (const Call& row : kCalls) {
        SCOPED_TRACE(&row - kCalls);
        g_hypervisor = {row.transfers};
        Bytes buffer(std::max(row.input, row.output));
        std::iota(buffer.begin(), buffer.end(), std::uint8_t{100});
        const Bytes input(buffer.begin(), buffer.begin() + row.input);
        KavelinkLink link{0, LinkKindBackdoor, row.maxTransfer};
        std::uint32_t length = 99;
        EXPECT_EQ(kavelinkCall(&link, buffer.data(), row.input, row.output, &length), row.result);
        const bool succeeds = row.result == kLinkOk;
        EXPECT_EQ(link.state, succeeds ? kLinkStateOpen : row.transfers.back().status);
        EXPECT_EQ(length, succeeds ? std::min(g_hypervisor.written, row.output) : 0);
        EXPECT_TRUE(!succeeds || g_hypervisor.input == input);
        for (std::uint32_t i = 0; i < length; ++i)
            EXPECT_EQ(buffer.at(i), i);
        EXPECT_EQ(g_hypervisor.sent, row.sent);
        EXPECT_EQ(g_hypervisor.isCancelled, row.isCancelled);
    }
}

TEST(Backdoor, OpensWithItsOwnAnswerOnly) {
    using R = RdpmcRegisters;
    const std::tuple<std::uint64_t R::*, std::uint64_t, std::int32_t> differences[] = {
        {&R::rcx, 0, kLinkOk},           {&R::rax, 0x5F9E652, kLinkNotAvailable},
        {&R::rbx, 3, kLinkRefused},      {&R::rdx, 1, kLinkNotAvailable},
        {&R::rsi, 1, kLinkNotAvailable}, {&R::rdi, 1, kLinkNotAvailable}};
    for (const auto& [field, value, result] : differences) {
        g_hypervisor = {};
        g_hypervisor.probeAnswer.*field = value;
        for (const auto each : {&R::rax, &R::rbx, &R::rcx, &R::rdx, &R::rsi, &R::rdi})
            g_hypervisor.probeAnswer.*each |= kGarbage;
        KavelinkLink link;
        EXPECT_EQ(kavelinkOpen(&link, kLinkBackdoorOnly), result);
        EXPECT_EQ(link.state, result == kLinkOk ? kLinkStateOpen : kLinkStateClosed);
        EXPECT_EQ(link.handle, 0U);
    }
}

using sim::Reply;

TEST(LinkDevice, IsProbedAndLeftForTheBackdoorWhereItRefuses) {
    const struct {
        std::vector<Reply> answers;
        std::int32_t mode, result;
        std::uint32_t kind;
        std::size_t probes;
    } rows[] = {
        {{{.status = 0xF0000025}}, kLinkDeviceThenBackdoor, kLinkOk, LinkKindDevice, 2},
        {std::vector(9999, Reply{.status = kRequestAgain}), kLinkDeviceOnly, kLinkRefused, 0,
         kEndless},
        {{{.status = 5}}, kLinkDeviceOnly, kLinkRefused, 0, 1},
        {{{.status = 5}}, kLinkDeviceThenBackdoor, kLinkOk, LinkKindBackdoor, 1},
        {{{.error = EINTR}}, kLinkDeviceThenBackdoor, kLinkOk, LinkKindBackdoor, 1},
        {{{.error = EIO}}, kLinkDeviceThenBackdoor, kLinkNotAvailable, 0, 1},
    };
    const auto openFiles = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    for (const auto& [answers, mode, result, kind, probes] : rows) {
        SCOPED_TRACE(probes);
        g_hypervisor = {};
        sim::SimulatedHost host;
        for (const Reply& answer : answers)
            host.answerNext(sim::kLinkCall, answer);
        const auto before = openFiles();
        KavelinkLink link;
        EXPECT_EQ(kavelinkOpen(&link, mode), result);
        EXPECT_EQ(link.state, result == kLinkOk ? kLinkStateOpen : kLinkStateClosed);
        EXPECT_TRUE(result != kLinkOk || link.kind == kind);
        EXPECT_EQ(host.exchanges().size(), probes);
        kavelinkClose(&link);
        EXPECT_EQ(openFiles(), before);
    }
}

TEST(LinkDevice, CarriesACallInOneRequest) {
    // The last words of the header: bytes written, bytes announced, status of the host.
    const std::tuple<Reply, std::int32_t, std::int32_t, std::uint32_t> rows[] = {
        {{.answer = words({32, 0, 5, 3, 4, 1})}, kLinkOk, 1, 3},
        {{.answer = words({32, 0, 5, 9, 5, 0})}, kLinkOk, 0, 5},
        {{.answer = words({32, 0, 5, 3, 6, 1})}, kLinkAnswerTooLarge, 1, 0},
        {{.answer = words({32, 0, 5, 3, 0, 0xFFFFFFFD})}, kLinkHostFailed, -3, 0},
        {{.status = kRequestAgain}, kLinkRefused, kLinkNotOpen, 0},
        {{.error = EINTR}, kLinkWriteInterrupted, kLinkNotOpen, 0},
        {{.error = EIO}, kLinkWriteFailed, kLinkNotOpen, 0},
    };
    for (const auto& [reply, result, state, answerLength] : rows) {
        sim::SimulatedHost host;
        host.answerNext(sim::kLinkCall, Reply{});  // the probe
        host.answerNext(sim::kLinkCall, reply);
        KavelinkLink link;
        EXPECT_EQ(kavelinkOpen(&link, kLinkDeviceOnly), kLinkOk);
        Bytes buffer{1, 2, 3, 4, 5};
        std::uint32_t length = 99;
        EXPECT_EQ(kavelinkCall(&link, buffer.data(), 4, 5, &length), result);
        EXPECT_EQ(link.state, state);
        EXPECT_EQ(length, answerLength);
        EXPECT_EQ(host.exchanges().back().request, Bytes({1, 2, 3, 4}));
        EXPECT_EQ(host.exchanges().back().outSize, 5U);
        kavelinkClose(&link);
    }
}

struct GuestNamespace : testing::Environment {
    void SetUp() override { sim::enterGuestNamespace("/var/log"); }
};
const auto* const g_guestNamespace = testing::AddGlobalTestEnvironment(new GuestNamespace);

}  // namespace
}  // namespace qnt
