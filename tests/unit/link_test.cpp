#include <gmock/gmock.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <numeric>

#include "hostlink/kavelink_backdoor.h"
#include "hostlink/rdpmc.h"
#include "hostlink/status_messages.h"
#include "sim/device_file.h"
#include "sim/guest_namespace.h"
#include "tests/support/stream_bytes.h"
#include "version.h"

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
namespace {

using Registers = std::array<std::uint64_t, 6>;  // rax, rbx, rcx, rdx, rsi, rdi

constexpr std::uint64_t kHigh = 0xDEADBEEF00000000;  // only the low halves that come back count
constexpr char kId[] = "quintaris.PrintingTool.guest.lin";
constexpr char kName[] = "Quintaris Shared Printers Tool";

struct Step {
    std::uint32_t got;
    std::int32_t status;
    std::uint32_t answerSize = 0;
};
using Steps = std::vector<Step>;

// Answers each transfer with its next step, the last one again and again; its bytes count up.
struct Hypervisor {
    Steps steps;
    Registers probe = {0x0B36AF47, 2, 300, 0, 0, 0};
    std::vector<Registers> seen = {};
    Bytes input = {};
    std::uint8_t next = 0;

    void execute(RdpmcRegisters& r) {
        seen.push_back(std::bit_cast<Registers>(r));
        if (r.rax == kBackdoorProbe)
            r = std::bit_cast<RdpmcRegisters>(probe);
        if (r.rax != kBackdoorBegin && r.rax != kBackdoorContinue)
            return;
        const Step step = steps.front();
        if (steps.size() > 1)
            steps.erase(steps.begin());
        auto* area = reinterpret_cast<std::uint8_t*>(r.rdi);
        input.insert(input.end(), area, area + r.rsi);
        std::iota(area, area + std::min<std::uint64_t>(step.got, r.rdx), next);
        next = static_cast<std::uint8_t>(next + step.got);
        if (r.rax == kBackdoorBegin)
            r.rbx = kHigh | 0xFFFFFFFE;
        r.rdx = kHigh | step.got;
        r.rsi = kHigh | step.answerSize;
        r.rdi = kHigh | static_cast<std::uint32_t>(step.status);
    }
};
Hypervisor g_hypervisor;

// The call's result, the link's state, the answer's length, and the chunks that went out.
std::string call(std::uint32_t in, std::uint32_t out, std::uint32_t maxTransfer, Steps steps) {
    g_hypervisor = {std::move(steps)};
    Bytes buffer(std::max(in, out));  // exactly, so a byte behind it is a fault
    std::iota(buffer.begin(), buffer.end(), std::uint8_t{100});
    const Bytes input(buffer.begin(), buffer.begin() + in);
    KavelinkLink link{0, LinkKindBackdoor, maxTransfer};
    std::uint32_t length = 99;
    const std::int32_t result = kavelinkCall(&link, buffer.data(), in, out, &length);
    EXPECT_TRUE(result != 0 || g_hypervisor.input == input);
    for (std::uint32_t i = 0; i < length; ++i)
        EXPECT_EQ(buffer.at(i), i);
    std::string text = testing::PrintToString(std::tuple(result, link.state, length));
    for (const Registers& registers : g_hypervisor.seen)
        text += registers[0] == kBackdoorCancel ? " cancel" : " " + std::to_string(registers[4]);
    return text;
}

TEST(Backdoor, MovesACallOfAnySizeWithinItsBuffer) {
    EXPECT_EQ(call(250, 0, 100, {{0, 1}, {0, 2}, {0, 0}}), "(0, 0, 0) 100 50 100");
    EXPECT_EQ(call(100, 0, 100, {{0, 0}}), "(0, 0, 0) 100");
    EXPECT_EQ(call(10, 250, 100, {{100, 2}, {100, 2}, {50, 0}}), "(0, 0, 250) 10 0 0");
    // An answer that comes in beside the input moves down, 50 bytes from 100 to 60 among others.
    EXPECT_EQ(call(250, 250, 100, {{60, 2}, {50, 2}, {100, 2}, {40, 0}}),
              "(0, 0, 250) 100 50 100 0");
}

TEST(Backdoor, EndsACallThatTheHostFailsOrLiesAbout) {
    EXPECT_EQ(call(10, 0, 100, {{0, 0, 1}}), "(-7, 0, 0) 10");
    EXPECT_EQ(call(10, 0, 100, {{0, 2, 1}}), "(-7, 2, 0) 10 cancel");
    EXPECT_EQ(call(10, 20, 100, {{20, 2, 20}, {0, 2, 21}}), "(-7, 2, 0) 10 0 cancel");
    EXPECT_EQ(call(10, 0, 100, {{0, 2}, {0, -5}}), "(-8, -5, 0) 10 0");
    EXPECT_EQ(call(10, 20, 100, {{21, 2}}), "(-8, 2, 0) 10");
    EXPECT_EQ(call(10, 20, 100, {{20, 2}, {1, 2}}), "(-8, 2, 0) 10 0");
    // Each piece fits, all together do not.
    EXPECT_EQ(call(209, 100, 100, {{100, 2}, {9, 2}, {100, 0}}), "(0, 0, 100) 100 9 100");
    EXPECT_EQ(call(201, 202, 100, {{100, 2}, {100, 2}, {100, 2}, {0, -1}}),
              "(-8, -1, 0) 100 1 100 0");
    EXPECT_EQ(call(10, 20, 0, {{0, 0}}), "(-1, -10, 0)");
    g_slept = 0s;
    EXPECT_THAT(call(10, 20, 100, {{1, 2}, {0, 2}}), testing::StartsWith("(-8, 2, 0) 10 0 0 "));
    EXPECT_EQ(g_slept, HostLoopLimit::kTime);
}

TEST(Backdoor, LoadsTheRegistersOfEachCommand) {
    g_hypervisor = {{{300, 2}, {100, 2}, {0, 2, 401}}};
    Bytes buffer(400);
    const auto address = reinterpret_cast<std::uintptr_t>(buffer.data());
    constexpr std::uint64_t id = 0xFFFFFFFFFFFFFFFE;
    KavelinkLink link;
    EXPECT_EQ(kavelinkOpen(&link, kLinkBackdoorOnly), 0);
    EXPECT_EQ(link.handle, 300u);
    EXPECT_EQ(kavelinkCall(&link, buffer.data(), 5, 400, nullptr), -7);
    EXPECT_THAT(g_hypervisor.seen,
                testing::ElementsAre(Registers{0x5F9E652, 0x5F9E652, 0, 0, 0, 0},
                                     Registers{0x5F9E653, 5, 1, 300, 5, address},
                                     Registers{0x5F9E654, id, 1, 100, 0, address + 300},
                                     Registers{0x5F9E654, id, 0, 0, 0, address + 400},
                                     Registers{0x5F9E655, id, 0, 0, 0, 0}));
}

TEST(Backdoor, OpensOnlyWithItsOwnAnswer) {
    const std::vector<std::tuple<std::size_t, std::uint64_t, std::int32_t>> differences = {
        {2, kHigh, 0}, {1, 3, -6}, {0, 0x5F9E652, -5}, {3, 1, -5}, {4, 1, -5}, {5, 1, -5}};
    for (const auto& [index, value, result] : differences) {
        g_hypervisor = {};
        for (std::uint64_t& field : g_hypervisor.probe)
            field |= kHigh;
        g_hypervisor.probe[index] = value;
        KavelinkLink link;
        EXPECT_EQ(kavelinkOpen(&link, kLinkBackdoorOnly), result);
        EXPECT_EQ(link.state, result == 0 ? 0 : -11);
        EXPECT_EQ(link.handle, 0u);
    }
}

TEST(Link, RefusesWhatItCannotServe) {
    g_hypervisor = {};
    KavelinkLink link;
    char byte = 0;
    EXPECT_EQ(kavelinkOpen(nullptr, 0), -1);
    EXPECT_EQ(kavelinkOpen(&link, 3), -1);
    EXPECT_EQ(kavelinkClose(nullptr), -1);
    EXPECT_EQ(kavelinkOpen(&link, 0), -5);  // there is no device, and that is final
    EXPECT_EQ(kavelinkCall(&link, &byte, 1, 0, nullptr), -10);
    EXPECT_EQ(kavelinkCall(nullptr, &byte, 1, 0, nullptr), -1);
    EXPECT_EQ(kavelinkCall(&link, nullptr, 1, 0, nullptr), -1);
    EXPECT_EQ(kavelinkCall(&link, &byte, 0, 0, nullptr), -1);
    link.kind = 1;
    EXPECT_EQ(kavelinkCall(&link, &byte, 1, 0, nullptr), -9);
    EXPECT_TRUE(g_hypervisor.seen.empty());
}

struct Reply {
    std::uint32_t status;
    int error = 0;          // instead of a status
    Bytes callHeader = {};  // written over the call's
};

// A device whose host gives these replies, the last one again and again.
struct Device {
    void take(const sim::SubmissionPtr& submission) {
        EXPECT_EQ(submission->header().code, 0x8050u);
        EXPECT_EQ(submission->header().status, statusLeft);
        const Reply& reply = replies[std::min(taken++, replies.size() - 1)];
        if (!submission->buffers().empty()) {
            callHeader = submission->readBuffer(0).value();
            submission->writeBuffer(0, reply.callHeader);
            submission->writeBuffer(1, Bytes(submission->buffers().at(1).size, '!'));
        }
        statusLeft = reply.status;
        reply.error != 0 ? submission->refuse(reply.error) : submission->complete(reply.status);
    }

    const std::vector<Reply> replies;
    std::size_t taken = 0;
    std::uint32_t statusLeft = 0;
    Bytes callHeader = {};
    sim::DeviceFile file{
        {[this](const auto& submission) { take(submission); }, [](const auto&) {}}};
};

auto openDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// The result, whether the link then goes over the backdoor, and the number of submissions.
std::string open(std::vector<Reply> replies, std::int32_t mode) {
    g_hypervisor = {};
    Device device{std::move(replies)};
    const auto before = openDescriptors();
    KavelinkLink link;
    const std::int32_t result = kavelinkOpen(&link, mode);
    EXPECT_EQ(link.state, result == 0 ? 0 : -11);
    kavelinkClose(&link);
    EXPECT_EQ(openDescriptors(), before);
    return testing::PrintToString(std::tuple(result, link.kind == 0x3F2E8A04, device.taken));
}

TEST(LinkDevice, IsProbedAndLeftForTheBackdoorWhereItRefuses) {
    EXPECT_EQ(open({{0}}, 0), "(0, false, 1)");
    EXPECT_EQ(open({{0xF0000025}, {0xF0000025}, {0}}, 2), "(0, false, 3)");
    const int repeats =
        HostLoopLimit::kRepeatsAtOnce + HostLoopLimit::kTime / HostLoopLimit::kPause;
    EXPECT_EQ(open({{0xF0000025}}, 2), "(-6, false, " + std::to_string(1 + repeats) + ")");
    EXPECT_EQ(open({{5}}, 2), "(-6, false, 1)");
    EXPECT_EQ(open({{5}}, 0), "(0, true, 1)");
    EXPECT_EQ(open({{0, EINTR}}, 0), "(0, true, 1)");
    EXPECT_EQ(open({{0, EIO}}, 0), "(-5, false, 1)");
}

// The call's result, the link's state and the answer's length.
std::string callOverDevice(const Reply& reply) {
    Device device{{{0}, reply}};
    KavelinkLink link;
    EXPECT_EQ(kavelinkOpen(&link, kLinkDeviceOnly), 0);
    Bytes buffer(5);
    std::uint32_t length = 99;
    const std::int32_t result = kavelinkCall(&link, buffer.data(), 5, 4, &length);
    EXPECT_EQ(device.callHeader, words({32, 0, 5, 4, 0, 0, 0, 0}));
    EXPECT_EQ(buffer, Bytes(5, '!'));
    const std::int32_t state = link.state;
    kavelinkClose(&link);
    return testing::PrintToString(std::tuple(result, state, length));
}

TEST(LinkDevice, CarriesACallInOneRequest) {
    EXPECT_EQ(callOverDevice({0, 0, words({32, 0, 5, 3, 4, 1})}), "(0, 1, 3)");
    EXPECT_EQ(callOverDevice({0, 0, words({32, 0, 5, 9, 4, 0})}), "(0, 0, 4)");
    EXPECT_EQ(callOverDevice({0, 0, words({32, 0, 5, 3, 5, 1})}), "(-7, 1, 0)");
    EXPECT_EQ(callOverDevice({0, 0, words({32, 0, 5, 3, 0, 0xFFFFFFFD})}), "(-8, -3, 0)");
    EXPECT_EQ(callOverDevice({0xF0000025}), "(-6, -10, 0)");
    EXPECT_EQ(callOverDevice({0, EINTR}), "(-2147023901, -10, 0)");  // 0x800703E3
    EXPECT_EQ(callOverDevice({0, EIO}), "(-2147467259, -10, 0)");    // 0x80004005
}

std::int32_t send(const ToolStatus& status, Steps steps = {{0, 0}}) {
    g_hypervisor = {std::move(steps)};
    KavelinkLink link{0, LinkKindBackdoor, 300};
    return sendToolStatus(&link, status);
}

TEST(StatusMessage, IsLaidOutByteForByte) {
    const Bytes start = words({0x1000, 0, 8, 0x2001, 0, 1, 3});
    EXPECT_EQ(send({.applicationId = kId, .state = "stopped"}), 0);
    EXPECT_EQ(g_hypervisor.input, words({14, 0, 1, 0, 83}) + start + words({7, 0x20CC, 1}) +
                                      "stopped" + words({32, 0x2191, 2}) + kId);
    ToolVersionRecord version;
    fillVersionRecord(version, 5, 6);
    EXPECT_EQ(send({kId, kName, &version, "initialized"}), 0);
    EXPECT_EQ(g_hypervisor.input,
              words({14, 0, 1, 0, 181}) + start + words({30, 0x20CA, 1}) + kName +
                  words({40, 0x20CB, 2, kProductMajorVersion, 0, kProductBuildNumber, 0x80000000, 5,
                         6, (kProductMajorVersion << 26) + kProductBuildNumber, 9, 0, 0}) +
                  words({11, 0x20CC, 3}) + "initialized" + words({32, 0x2191, 4}) + kId);
    EXPECT_EQ(send({.applicationId = "", .applicationName = "", .extra = "xy", .extraSize = 2}), 0);
    EXPECT_EQ(g_hypervisor.input, words({14, 0, 1, 0, 58}) + start + words({0, 0x20CA, 1}) +
                                      words({2, 0x20CD, 2}) + "xy" + words({0, 0x2191, 3}));
}

TEST(StatusMessage, TellsWhyItWasNotSent) {
    EXPECT_EQ(sendToolStatus(nullptr, {.applicationId = kId}), -1);
    EXPECT_EQ(send({.applicationName = kName}), -1);
    EXPECT_EQ(send({.applicationId = kId, .extraSize = 5}), -1);
    EXPECT_TRUE(g_hypervisor.seen.empty());
    EXPECT_EQ(send({.applicationId = kId}, {{0, -8}}), -4);
}

struct HostNamespace : testing::Environment {
    void SetUp() override { sim::enterGuestNamespace("/var/log"); }
};
const auto* const g_hostNamespace = testing::AddGlobalTestEnvironment(new HostNamespace);

}  // namespace

// Linked in the place of the library's.
void rdpmc(RdpmcRegisters& registers) {
    g_hypervisor.execute(registers);
}

}  // namespace qnt
