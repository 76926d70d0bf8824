// One exchange and one step at a time: the tool and its command manager in this process, against
// the simulated host and a private CUPS.

#include "protocol/state_machine.h"

#include <gmock/gmock.h>

#include "cups/queue_creation.h"
#include "hostlink/request_device.h"
#include "log/log_record.h"
#include "printing/printing_tool.h"
#include "protocol/reconciliation.h"
#include "tests/support/fixture.h"

namespace qnt {
namespace {

using sim::encodeAnswer;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class StateMachineTest : public ServiceTest {
protected:
    StateMachineTest() {
        replaceTool("lpinfo", "echo raw");  // a queue without a driver, which is quicker
        selectPpdModel();
        logSetLevel(3);
        openRequestDevice();
        (void)tool.m_bufferCmd.resize(1000);
        fillPrintingCmdRequest(tool.m_bufferCmd, 0, tool.m_requestSize);
    }
    ~StateMachineTest() override { closeRequestDevice(); }

    bool exchange() {
        DeviceRequest request;
        return SendRequest(request, tool.m_bufferCmd.data(), tool.m_requestSize,
                           static_cast<std::uint32_t>(tool.m_bufferCmd.size()));
    }
    // Delivers this answer and executes one step. False if it ends the run.
    bool stepAfter(const Bytes& answer) {
        host.answerNext(sim::kRunLoopRequest, {.answer = answer});
        EXPECT_TRUE(exchange());
        return executeStateMachine(tool, processAnswerFromHost(tool.m_bufferCmd), commands);
    }
    bool stepAfter(const sim::HostCommand& command, std::uint32_t sequence = 5) {
        return stepAfter(encodeAnswer(command, sequence));
    }
    QueueBindingList vanished() { return getUserDeletedPrinters(tool.m_knownQueues); }

    CPrintingTool tool;
    CCommandManager commands{tool.m_knownQueues};
};

TEST_F(StateMachineTest, EachAnswerIsFollowedByItsRequest) {
    const Bytes list = encodeAnswer(sim::printerList({{"TAG1001", "Front Desk"}}), 17);
    const auto code = [](std::uint32_t value) { return encodeAnswer({value, "", {}}, 99); };
    const struct {
        Bytes answer;
        std::string request;
        std::uint32_t bufferSize;
        bool queueExists;
    } rows[] = {
        {sim::askFor(300).answer, "GetPrintingCmd seq=0", 300, false},
        {sim::askFor(100).answer, "GetPrintingCmd seq=0", 300, false},
        {list, "PrintingCmdAnswer seq=17 result=1", 300, false},
        {encodeAnswer(sim::addPrinter("TAG1001"), 3), "PrintingCmdAnswer seq=17 result=1", 300,
         true},
        {list, "PrintingCmdAnswer seq=17 result=1", 300, true},  // blanks make no other name
        {code(9), "PrintingCmdAnswer seq=17 result=2", 300, true},
        {code(5), "PrintingCmdPending seq=0", 300, true},  // a printer is online
        {sim::askFor(400).answer, "PrintingCmdPending seq=0", 400, true},
        {encodeAnswer(sim::printerList({}), 50), "GetPrintingCmd seq=17", 400, true},  // dropped
        {encodeAnswer(sim::deletePrinter("TAG1001"), 3), "PrintingCmdAnswer seq=17 result=1", 400,
         false},
        {code(5), "PrintingCmdAnswer seq=17 result=1", 400, false},
        {code(3), "PrintingCmdAnswer seq=17 result=1", 400, false},
        {encodeAnswer(sim::printerList({}), 18), "PrintingCmdAnswer seq=18 result=1", 400, false},
        {code(0), "PrintingCmdAnswer seq=18 result=2", 400, false},
    };
    host.plug("TAG1001", "Office Laser");
    (void)tool.m_bufferCmd.resize(80);
    std::vector<std::pair<std::string, std::uint32_t>> expected = {{"GetPrintingCmd seq=0", 80}},
                                                       sent;
    for (const auto& row : rows) {
        ASSERT_TRUE(stepAfter(row.answer)) << expected.size();
        EXPECT_EQ(hasQueue("Front_Desk", "TAG1001"), row.queueExists) << expected.size();
        expected.emplace_back(row.request, row.bufferSize);
    }
    host.answerNext(sim::kRunLoopRequest, {.status = kRequestCanceled});
    EXPECT_FALSE(exchange());
    for (const sim::Exchange& each : host.exchanges())
        sent.emplace_back(sim::describeRequest(each), each.outSize);
    EXPECT_EQ(sent, expected);
    EXPECT_THAT(records(), Contains(HasSubstr("deletePrinter:")).Times(2));
    EXPECT_THAT(records(), Contains("[PRINTING_TOOL] Unknown command 9"));
}

TEST_F(StateMachineTest, AnAddStaysPendingUntilTheNextCommandWhichIsDropped) {
    g_sleeps.clear();
    ASSERT_TRUE(stepAfter(sim::addPrinter("TAG1002")));
    EXPECT_EQ(g_sleeps, std::vector(120, 1U));
    EXPECT_THAT(records(), Contains("Cannot get name for printer with id=TAG1002"));
    host.plug("TAG1002", "Late");
    for (const auto& command : {sim::addPrinter("TAG1002"), sim::deleteOffline()})
        ASSERT_TRUE(stepAfter(command));
    EXPECT_FALSE(hasQueue("Late", "TAG1002"));
    std::vector<std::string> sent;
    for (const sim::Exchange& each : host.exchanges())
        sent.push_back(sim::describeRequest(each));
    EXPECT_THAT(sent, ElementsAre("GetPrintingCmd seq=0", "PrintingCmdPending seq=0",
                                  "GetPrintingCmd seq=0"));
}

TEST_F(StateMachineTest, QueuesCountAsDeletedOnceIfCupsAnswers) {
    addQueue("One", "TAG1001");
    addQueue("Two", "TAG1002");
    vanished();
    for (const char* lpstat : {"exit 0", "exit 1", "kill -9 $$", "CUPS_SERVER=/none $real \"$@\"",
                               "[ $# = 0 ] || ! echo 'lpstat: Scheduler is not running.' >&2"}) {
        replaceTool("lpstat", lpstat);
        EXPECT_THAT(vanished(), IsEmpty()) << lpstat;
    }
    // A new queue about which lpstat does not answer, or neither lpoptions nor the check, or only
    // lpoptions. It is known in the last case.
    replaceTool("lpoptions", "exit 1");
    for (const std::string lpstat : {"[ $# -lt 2 ] || exit 0", "[ $# != 0 ] || exit 1", ":"}) {
        replaceTool("lpstat", lpstat + "; exec $real \"$@\"");
        addQueue("Three", "TAG1003");
        EXPECT_THAT(vanished(), IsEmpty());
        deleteQueue("Three");
        fs::remove(folder / "bin/lpstat");
        EXPECT_EQ(vanished().size(), lpstat == ":") << lpstat;
        EXPECT_THAT(vanished(), IsEmpty());
    }
    // A line for a queue that does not exist holds nothing back.
    replaceTool("lpstat",
                "[ \"$*\" != -v ] || echo 'device for None: usb:=TAG9'\n"
                "PATH=${real%/*}; exec lpstat \"$@\"");  // which prints its name as it was called
    EXPECT_THAT(vanished(), IsEmpty());
    deleteQueue("One");
    EXPECT_EQ(vanished().size(), 1U);
}

}  // namespace
}  // namespace qnt
