// Memory that runs out in the unmodified service: for a size that the host asks for, and for one
// allocation of each thread.

#include <gmock/gmock.h>
#include <sys/resource.h>

#include "protocol/printing_messages.h"
#include "tests/support/captured_log.h"
#include "tests/support/fixture.h"

namespace qnt {
namespace {

using Fault = sim::Fault;
using testing::Contains;

class MemoryTest : public ServiceTest {
protected:
    void SetUp() override {
        if (QNT_SANITIZED)
            GTEST_SKIP() << "allocations are the sanitizer's";
        startPreloaded({{"QNT_NO_MEMORY", none}});
        ASSERT_TRUE(host.waitUntilIdle());
    }
    void expectFailedStep(const std::string& record) {
        EXPECT_EQ(exitCode(), 1) << contents(folder / "output");
        EXPECT_THAT(records(), Contains(record));
        EXPECT_THAT(records(), Contains("Error in state machine execution"));
        EXPECT_EQ(sim::statusState(host.statusMessages().back()), "stopped");
    }

    const std::string id = "TAG" + std::string(100, '1');
    const fs::path none = folder / "none";  // lets the next allocation of each thread fail
};

TEST_F(MemoryTest, AWorkerGoesOnAndAppliesTheDefaultLater) {
    addQueue("Office", id);
    std::ofstream(none).flush();
    host.setDefault(id);
    EXPECT_TRUE(waitForRecord("Not enough memory for defaultPrinterLoop\n"));
    EXPECT_TRUE(waitForRecord("Not enough memory for deletedPrintersLoop\n"));
    fs::remove(none);
    expectDefault("Office");
    EXPECT_EQ(stopService(), 0);
}

TEST_F(MemoryTest, TheRunLoopAppliesTheDefaultLater) {
    host.setDefault(id);
    ASSERT_TRUE(host.waitUntil([&] { return host.exchanges(GetDefaultPrinter).size() == 3; }));
    addQueue("Office", id);
    std::ofstream(none).flush();
    host.fault(sim::kRunLoopRequest, {Fault::Kind::kAskFor, 100, {}});
    EXPECT_TRUE(waitForRecord("Not enough memory for setDefaultPrinter\n"));
    expectDefault("Office");
    EXPECT_EQ(stopService(), 0);
}

TEST_F(MemoryTest, TheRunLoopEndsAtAStepWithoutMemory) {
    std::ofstream(none).flush();
    host.send(sim::deletePrinter(id));
    expectFailedStep("Not enough memory for executeStateMachine");
}

TEST_F(MemoryTest, ASizeThatTheHostAsksForMayBeTooLarge) {
    constexpr std::uint32_t kLarge = 3U << 30;
    addQueue("Office", id);
    const std::string limit = "prlimit -p " + std::to_string(service->pid()) + " --as=";
    sim::commandOutput(limit + "1000000000:");
    host.fault(GetDefaultPrinter, {Fault::Kind::kAskFor, kLarge, {}});
    EXPECT_TRUE(waitForRecord("Not enough memory for defaultPrinterLoop\n"));
    host.fault(sim::kRunLoopRequest, {Fault::Kind::kAskFor, kLarge, {}});
    expectFailedStep("[PRINTING_TOOL] Not enough memory for processAnswerFromHost");
}

TEST(Requests, FailWithARecordWithoutMemory) {
    if (QNT_SANITIZED)
        GTEST_SKIP() << "the sanitizer needs memory";
    const CapturedLog log;
    ByteArray buffer;
    std::uint32_t size = 0;
    rlimit before{};
    getrlimit(RLIMIT_AS, &before);
    const rlimit none{0, before.rlim_max};
    setrlimit(RLIMIT_AS, &none);
    EXPECT_FALSE(fillPrintingCmdAnsRequest(buffer, CmdDone, 17, size));
    EXPECT_FALSE(fillUserDeletedPrintersRequest(buffer, {{"TAG1", ""}}));
    setrlimit(RLIMIT_AS, &before);
    EXPECT_EQ(log.text,
              "F [PRINTING_TOOL] Not enough memory for fillPrintingCmdAnsRequest\n"
              "F [PRINTING_TOOL] Not enough memory for fillUserDeletedPrintersRequest\n");
}

}  // namespace
}  // namespace qnt
