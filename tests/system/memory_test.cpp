// Memory that runs out: in each of the three threads the first call that needs memory fails, then
// the second one, and so on. The shell is real; host and CUPS are simulated.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>
#include <set>

#include "hostlink/request_device.h"
#include "printing/workers.h"
#include "protocol/little_endian.h"
#include "sim/host_messages.h"
#include "tests/support/captured_log.h"

static thread_local int t_callsLeft = -1;              // before the one that fails; -1: none does
static thread_local bool t_needsRecord = false;        // something failed that must be logged
static std::atomic<bool>* g_runsUntilPause = nullptr;  // cleared by the next sleep()

// Nothing fails in this scope.
struct Unlimited {
    const int callsLeft = std::exchange(t_callsLeft, -1);
    ~Unlimited() { t_callsLeft = callsLeft; }
};

static bool fails() {
    return t_callsLeft >= 0 && t_callsLeft-- == 0;
}

extern "C" {
// A cancelled thread's stack keeps marks of frames that are gone, which clearing the signal stack
// would report.
const char* __asan_default_options() {
    return "use_sigaltstack=0";
}

// The calls of the service and of operator new; the linker's --wrap leads here.
#define QNT_MAY_FAIL(type, name, failure, parameters, arguments) \
    type __real_##name parameters;                               \
    type __wrap_##name parameters {                              \
        return fails() ? failure : __real_##name arguments;      \
    }
QNT_MAY_FAIL(void*, malloc, nullptr, (std::size_t size), (size))
QNT_MAY_FAIL(void*, realloc, nullptr, (void* old, std::size_t size), (old, size))
QNT_MAY_FAIL(void*, mmap, (t_needsRecord = true, MAP_FAILED),
             (void* at, std::size_t size, int p, int flags, int fd, off_t o),
             (at, size, p, flags, fd, o))
QNT_MAY_FAIL(void*, mremap, (t_needsRecord = true, MAP_FAILED),
             (void* old, std::size_t from, std::size_t to, int flags), (old, from, to, flags))
unsigned sleep(unsigned) {
    if (g_runsUntilPause == nullptr)
        return static_cast<unsigned>(usleep(20'000));
    *g_runsUntilPause = false;
    return 0;
}
}

[[gnu::noinline]] void* operator new(std::size_t size) {
    void* block = std::malloc(size);
    t_needsRecord |= block == nullptr;
    return block != nullptr ? block : throw std::bad_alloc();
}
// Paired with our operator delete, as newer sanitizers check.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return std::malloc(size);
}
[[gnu::noinline]] void operator delete(void* block) noexcept {
    std::free(block);
}
void operator delete(void* block, std::size_t) noexcept {
    operator delete(block);
}

namespace qnt {
namespace {

namespace fs = std::filesystem;

const std::string kNoMemory = "F Not enough memory for ";
const std::string kNoRoom = "F [PRINTING_TOOL] Not enough memory for ";
const std::string kStep = "F Error in state machine execution\n";
const std::string kId = "TAG" + std::string(100, '1');

std::function<bool(std::uint8_t* buffer, std::uint32_t outSize)> g_host;

bool answer(sim::Bytes bytes, std::uint8_t* buffer, std::uint32_t outSize) {
    if (bytes.size() > outSize)
        bytes = sim::roomRequest(static_cast<std::uint32_t>(bytes.size()));
    std::copy(bytes.begin(), bytes.end(), buffer);
    return true;
}

void standIn(const fs::path& tool, const std::string& script) {
    std::ofstream(tool) << "#!/bin/sh\n" << script << '\n';
    fs::permissions(tool, fs::perms::all);
}

// One of the three threads' loops: what happens before memory runs out, what in it, and after it.
struct Role {
    std::function<void(CPrintingTool&)> prepare, run, check;
    std::set<std::string> logs;
};

// Runs without a failure, then with each call failing in turn. The leak sanitizer looks for lost
// memory at the end.
void failEach(const Role& role) {
    const auto openFiles = [] {
        return std::distance(fs::directory_iterator("/proc/self/fd"), {});
    };
    std::set<std::string> logs;
    bool failed = true;
    for (int failing = -1; failed; ++failing) {
        SCOPED_TRACE(failing);
        const CapturedLog log(0);
        logSetSink([](const char* record, std::int32_t length) {
            const Unlimited unlimited;
            const bool ofFailure = strstr(record, "Not enough") || strstr(record, "Error in");
            return ofFailure ? CapturedLog::keep(record, length) : length;
        });
        const auto filesBefore = openFiles();
        CPrintingTool tool;
        tool.m_running = true;
        role.prepare(tool);
        t_needsRecord = false;
        t_callsLeft = failing;
        role.run(tool);
        failed = t_callsLeft == -1;
        t_callsLeft = -1;
        EXPECT_TRUE(!t_needsRecord || !log.text.empty());
        role.check(tool);
        EXPECT_TRUE(tool.m_mutex.tryLockAfterOthers({}));
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
        EXPECT_EQ(openFiles(), filesBefore);
        logs.insert(log.text);
    }
    EXPECT_EQ(logs, role.logs);
}

TEST(Memory, AFailureInAnyThreadIsLoggedAndLosesNothing) {
    std::string name = "/tmp/qnt-memory-XXXXXX";
    const fs::path folder = mkdtemp(name.data()), changes = folder / "changes";
    setenv("PATH", (folder.string() + ":/usr/bin:/bin").c_str(), 1);
    standIn(folder / "lpstat", "echo 'device for Office: usb://HP/Laser?serial=" + kId + "'");
    standIn(folder / "lpadmin", "echo \"$1 $2\" >>" + changes.string());
    standIn(folder / "lpinfo", "echo driver HP");
    // More than a page, so that the run loop has to make room for it.
    const sim::Bytes list = sim::encodeAnswer(
        {CmdPrinterList, "", {{kId, "Desk"}, {"TAG2", std::string(5000, 'x')}}}, 1);
    static std::atomic<bool> retries;
    std::int32_t result = 0;

    failEach(
        {[](CPrintingTool& tool) {
             g_host = [](std::uint8_t*, std::uint32_t) { return true; };
             tool.m_knownQueues = {{"TAG9", "Gone"}, {kId, "Office"}};
             g_runsUntilPause = &tool.m_running;
         },
         deletedPrintersLoop,
         [](CPrintingTool&) {},
         {"", kNoMemory + "deletedPrintersLoop\n", kNoRoom + "fillUserDeletedPrintersRequest\n"}});
    failEach({[](CPrintingTool& tool) {
                  g_runsUntilPause = &retries;
                  // An idle host: it answers once, and holds the query that follows.
                  g_host = [&, answered = false](std::uint8_t* buffer,
                                                 std::uint32_t outSize) mutable {
                      tool.m_running = !answered;
                      const sim::Bytes named = sim::encodeDefaultPrinter(kId, 1);
                      answered = answered || named.size() <= outSize;
                      return tool.m_running && answer(named, buffer, outSize);
                  };
              },
              defaultPrinterLoop,
              [&](CPrintingTool& tool) {
                  EXPECT_EQ(tool.m_defaultPrinterId, kId);
                  EXPECT_TRUE(fs::remove(changes)) << "the default has not been applied";
              },
              {"", kNoMemory + "defaultPrinterLoop\n"}});
    failEach(
        {[&](CPrintingTool& tool) {
             g_runsUntilPause = nullptr;
             g_host = [&](std::uint8_t* buffer, std::uint32_t outSize) {
                 const std::uint32_t type = readU32(buffer + PrintingCmdHeader::kRequestTypeOffset);
                 if (type == GetPrintingCmd) {
                     EXPECT_FALSE(tool.m_defaultPrinterPending) << "not applied in its step";
                     tool.m_defaultPrinterId = kId;
                     tool.m_defaultPrinterPending = true;
                     return answer(list, buffer, outSize);
                 }
                 if (type != PrintingCmdAnswer)
                     return false;
                 tool.m_running = false;
                 return answer(sim::roomRequest(80), buffer, outSize);
             };
         },
         [&](CPrintingTool& tool) {
             try {
                 result = tool.run();
             } catch (const std::bad_alloc&) {  // the entry point reports it
                 result = 1;
                 t_needsRecord = false;
             }
         },
         [&](CPrintingTool& tool) {
             const std::string& log = CapturedLog::text;
             EXPECT_TRUE(result == 1 || log.empty() || log == kNoMemory + "setDefaultPrinter\n");
             EXPECT_TRUE(result == 0 || log != kNoMemory + "setDefaultPrinter\n");
             tool.stop();
         },
         {"", kStep, "F Not enough memory to init m_bufferCmd\n", kNoMemory + "setDefaultPrinter\n",
          kNoMemory + "executeStateMachine\n" + kStep,
          kNoRoom + "processAnswerFromHost\n" + kStep}});
    fs::remove_all(folder);
}

}  // namespace

bool SendRequest(DeviceRequest&, void* buffer, std::uint32_t, std::uint32_t outSize) {
    const Unlimited unlimited;
    return g_host(static_cast<std::uint8_t*>(buffer), outSize);
}

}  // namespace qnt
