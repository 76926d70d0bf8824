// One step at a time: the tool and its command manager in this process, against a private CUPS.

#include "protocol/state_machine.h"

#include <gmock/gmock.h>

#include "cups/queue_creation.h"
#include "log/log_record.h"
#include "printing/printing_tool.h"
#include "protocol/reconciliation.h"
#include "tests/support/fixture.h"

namespace qnt {
namespace {

using sim::encodeAnswer;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;

class StateMachineTest : public GuestTest {
protected:
    StateMachineTest() {
        replaceTool("lpinfo", "echo raw");  // a queue without a driver, which is quicker
        selectPpdModel();
        logSetLevel(3);
        (void)tool.m_bufferCmd.resize(80);
    }

    // Executes one step with this answer, as far as it fits into the buffer, and describes the next
    // request.
    std::string requestAfter(const Bytes& answer) {
        ByteArray& buffer = tool.m_bufferCmd;
        std::copy_n(answer.data(), std::min(answer.size(), buffer.size()), buffer.data());
        EXPECT_TRUE(executeStateMachine(tool, processAnswerFromHost(buffer), commands));
        sim::Exchange next;
        next.requestType = readU32(buffer.data() + PrintingCmdHeader::kRequestTypeOffset);
        next.request.assign(buffer.data(), buffer.data() + tool.m_requestSize);
        return sim::describeRequest(next);
    }
    QueueBindingList vanished() { return getUserDeletedPrinters(tool.m_knownQueues); }

    CPrintingTool tool;
    CCommandManager commands{tool.m_knownQueues};
};

TEST_F(StateMachineTest, EachAnswerIsFollowedByItsRequest) {
    const Bytes list = encodeAnswer(sim::printerList({{"TAG1001", "Front Desk"}}), 17);
    const Bytes add = encodeAnswer(sim::addPrinter("TAG1001"), 3);
    const auto code = [](std::uint32_t value) { return encodeAnswer({value, "", {}}, 99); };
    const struct {
        Bytes answer;
        std::string request;
        std::size_t bufferSize;
        bool queueExists;
    } rows[] = {
        {sim::askFor(300).answer, "GetPrintingCmd seq=0", 300, false},
        {sim::askFor(100).answer, "GetPrintingCmd seq=0", 300, false},
        {encodeAnswer(sim::addPrinter("TAG2"), 3), "PrintingCmdPending seq=0", 300, false},
        {add, "GetPrintingCmd seq=0", 300, false},  // dropped
        {list, "PrintingCmdAnswer seq=17 result=1", 300, false},
        {add, "PrintingCmdAnswer seq=17 result=1", 300, true},
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
    sim::plugUsbPrinter("TAG1001", "Office Laser");
    g_sleeps.clear();
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        EXPECT_EQ(requestAfter(row.answer), row.request);
        EXPECT_EQ(tool.m_bufferCmd.size(), row.bufferSize);
        EXPECT_EQ(hasQueue("Front_Desk", "TAG1001"), row.queueExists);
    }
    EXPECT_EQ(g_sleeps, std::vector(120, 1U));  // for the device of TAG2
    EXPECT_THAT(records(), Contains("Cannot get name for printer with id=TAG2"));
    EXPECT_THAT(records(), Contains(HasSubstr("deletePrinter:")).Times(2));
    EXPECT_THAT(records(), Contains("[PRINTING_TOOL] Unknown command 9"));
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
