// Memory that runs out: the first allocation of a run fails, then the second, and so on for all
// that it makes, those of libc included. The shell is the real one; host and CUPS are played.

#include <gmock/gmock.h>
#include <sys/wait.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <set>

#include "hostlink/request_device.h"
#include "log/log_record.h"
#include "printing/workers.h"
#include "protocol/little_endian.h"
#include "sim/host_messages.h"
#include "tests/support/failing_memory.h"

namespace qnt {
namespace {

using testing::AnyOf;

const std::string kNoMemory = "Not enough memory for ";
const std::string kStep = "Error in state machine execution;";
const std::string kId = "TAG" + std::string(100, '1');

std::string g_log;  // what is said of failures, each record ended by a ";"
std::function<bool(std::uint8_t* buffer, std::uint32_t outSize)> g_host;

int keepRecord(const char* record, std::int32_t length) {
    const Outside outside;
    const std::string text(record, static_cast<std::size_t>(length) - 1);
    for (const char* start : {"Not enough", "Error in", "Failed to start"})
        if (const std::size_t at = text.find(start); at != std::string::npos)
            g_log += text.substr(at) + ';';
    return 0;
}

int g_failing = -1;

void runOut() {
    t_untilFailure = g_failing;
}

// The rest of the run has all the memory it needs.
void relent() {
    g_failing = std::exchange(t_untilFailure, -1);
}

bool give(sim::Bytes answer, std::uint8_t* buffer, std::uint32_t outSize) {
    if (answer.size() > outSize)
        answer = sim::roomRequest(static_cast<std::uint32_t>(answer.size()));
    std::copy(answer.begin(), answer.end(), buffer);
    return true;
}

// CUPS has one queue, of kId; lpadmin's arguments are kept.
struct Memory : testing::Test {
    Memory() {
        logSetSink(keepRecord);
        setenv("PATH", (folder + ":/usr/bin:/bin").c_str(), 1);
        standIn("lpstat", "echo 'device for Office: usb://HP/Laser?serial=" + kId + "'");
        standIn("lpadmin", "echo \"$1 $2\" >> " + folder + "/changes");
        standIn("lpinfo", "echo driver HP");
    }
    ~Memory() override {
        g_endsAtPause = nullptr;
        std::filesystem::remove_all(folder);
    }

    void standIn(const std::string& tool, const std::string& script) const {
        std::ofstream(folder + "/" + tool) << "#!/bin/sh\n" << script << '\n';
        std::filesystem::permissions(folder + "/" + tool, std::filesystem::perms::all);
    }

    // Runs with each allocation behind runOut() failing in turn, at first with none. All that a run
    // makes is gone at its end, but for what the first and the first exception leave for all.
    static void failEach(const std::function<void(CPrintingTool&)>& run) {
        for (int failing = -1; failing < 0 || g_failing < 0; ++failing) {
            SCOPED_TRACE("allocation " + std::to_string(failing));
            g_log.clear();
            g_blocks = 0;
            t_thrown = false;
            {
                CPrintingTool tool;
                tool.m_running = true;
                g_failing = failing;
                run(tool);
            }
            EXPECT_TRUE(failing < 1 || g_blocks == 0) << g_blocks << " blocks are lost";
            EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
        }
    }

    std::string name = "/tmp/qnt-memory-XXXXXX";
    const std::string folder = mkdtemp(name.data());
};

TEST_F(Memory, TheWorkerOfDeletedPrintersGoesOn) {
    std::string reported;
    g_host = [&](std::uint8_t* request, std::uint32_t size) {
        sim::forEachItem({request, request + size}, 80, [&](std::uint32_t, const sim::Bytes& id) {
            reported += sim::asText(id) + " ";
        });
        return true;
    };
    failEach([&](CPrintingTool& tool) {
        tool.m_knownQueues = {{"TAG9", "Gone"}, {kId, "Office"}};
        g_endsAtPause = &tool.m_running;
        runOut();
        deletedPrintersLoop(tool);
        relent();
        tool.m_running = true;
        deletedPrintersLoop(tool);
        EXPECT_EQ(tool.m_mutex.try_lock(), true);
        EXPECT_EQ(tool.m_knownQueues.size(), 1U);
        const Outside outside;
        if (reported == "TAG9 ")
            EXPECT_THAT(g_log, AnyOf(t_thrown ? "-" : "", kNoMemory + "deletedPrintersLoop;"));
        else if (reported.empty())  // a report that can't be built is lost
            EXPECT_THAT(g_log, AnyOf("", kNoMemory + "fillUserDeletedPrintersRequest;"));
        else  // a listing that can't be started shows no queue
            EXPECT_TRUE(g_log.empty() && !t_thrown) << reported;
        reported.clear();
    });
}

TEST_F(Memory, TheWorkerOfTheDefaultPrinterGoesOn) {
    failEach([&](CPrintingTool& tool) {
        g_host = [&](std::uint8_t* buffer, std::uint32_t outSize) {
            tool.m_running = readU32(buffer + PrintingCmdHeader::kSequence) == 0;
            return tool.m_running && give(sim::encodeDefaultPrinter(kId, 1), buffer, outSize);
        };
        runOut();
        defaultPrinterLoop(tool);
        relent();
        EXPECT_EQ(tool.m_mutex.try_lock(), true);
        const Outside outside;
        EXPECT_EQ(tool.m_defaultPrinterId, kId);
        EXPECT_THAT(g_log, AnyOf(t_thrown ? "-" : "", kNoMemory + "defaultPrinterLoop;"));
        // What was cut short is left to the run loop.
        EXPECT_TRUE(!t_thrown || tool.m_defaultPrinterPending ||
                    std::filesystem::remove(folder + "/changes"));
    });
}

TEST_F(Memory, TheRunLoopEndsWithItsRecordAndCanRunAgain) {
    // More than a page, so that the run loop has to make room for it.
    const std::string longName(5000, 'x');
    const sim::Bytes list =
        sim::encodeAnswer({CmdPrinterList, "", {{kId, "Desk"}, {"TAG2", longName}}}, 1);
    bool carriedOut = false;
    std::set<std::string> logs;
    failEach([&](CPrintingTool& tool) {
        g_host = [&](std::uint8_t* buffer, std::uint32_t outSize) {
            switch (readU32(buffer + PrintingCmdHeader::kRequestType)) {
                case GetDefaultPrinter:
                    return false;
                case GetPrintingCmd:
                    return give(list, buffer, outSize);
                case PrintingCmdAnswer:
                    carriedOut = true;
                    tool.m_running = false;
                    return give(sim::roomRequest(80), buffer, outSize);
                default:
                    return true;
            }
        };
        runOut();
        std::int32_t result = 1;
        try {
            result = tool.run();
        } catch (const std::bad_alloc&) {  // the entry point reports it
        }
        relent();
        for (const pthread_t worker : {tool.m_deletedPrintersThread, tool.m_defaultPrinterThread})
            EXPECT_TRUE(!tool.m_running || worker == 0 ||
                        pthread_tryjoin_np(worker, nullptr) == EBUSY);
        tool.stop();
        {
            const Outside outside;
            EXPECT_EQ(result, t_thrown || !g_log.empty() ? 1 : 0);
            logs.insert(g_log);
        }
        carriedOut = false;
        EXPECT_EQ(tool.run(), 0);
        tool.stop();
        EXPECT_TRUE(carriedOut);
    });
    EXPECT_EQ(logs, (std::set<std::string>{"", kStep, "Not enough memory to init m_bufferCmd;",
                                           kNoMemory + "executeStateMachine;" + kStep,
                                           kNoMemory + "processAnswerFromHost;" + kStep}));
}

}  // namespace

bool SendRequest(DeviceRequest&, void* buffer, std::uint32_t, std::uint32_t outSize) {
    const Outside outside;
    return g_host(static_cast<std::uint8_t*>(buffer), outSize);
}

}  // namespace qnt
