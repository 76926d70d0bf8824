#include "app/service.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <new>

#include "app/options.h"
#include "hostlink/kavelink.h"
#include "hostlink/request_device.h"
#include "hostlink/status_messages.h"
#include "log/log_record.h"
#include "log/log_time.h"
#include "posix/shell_command.h"
#include "posix/stop_signals.h"
#include "printing/printing_tool.h"
#include "printing/workers.h"

namespace qnt {
namespace {

constexpr char kApplicationId[] = "quintaris.PrintingTool.guest.lin";
constexpr char kApplicationName[] = "Quintaris Shared Printers Tool";

constexpr int kCupsTries = 7;
constexpr unsigned kCupsPauseSeconds = 10;  // between two tries

// Set once, before the tool runs; the tool lives to the process's end.
std::atomic<CPrintingTool*> g_printingTool{nullptr};
static_assert(std::atomic<CPrintingTool*>::is_always_lock_free, "the stop handler reads it");

// The main thread's.
KavelinkLink g_link;
bool g_linkOpen = false;

// So that no channel gets a number from 0 to 2, and the tools have files there.
void openStandardFiles() {
    int descriptor = 0;
    while (descriptor >= 0 && descriptor <= STDERR_FILENO)
        descriptor = open("/dev/null", O_RDWR);
    close(descriptor);
}

// Whatever the service was started with. The tools' wording is parsed and outside text is passed to
// them as bytes, so they get the C locale; and with SIGCHLD ignored the kernel would keep their
// exit status to itself.
void takeKnownState() {
    openStandardFiles();
    unblockStopSignals();
    std::signal(SIGCHLD, SIG_DFL);
    setenv("LC_ALL", "C", 1);
}

bool doesCupsRespond() {
    for (int tries = 1; runCommand("lpstat >/dev/null 2>&1") != 0; ++tries) {
        if (tries == kCupsTries)
            return false;
        sleep(kCupsPauseSeconds);
    }
    return true;
}

bool isCupsAvailable() {
    if (runCommand("type lpadmin >/dev/null 2>&1") != 0) {
        logRecord("", kServiceTag, 0, "lpadmin not found in system");
        return false;
    }
    if (!doesCupsRespond()) {
        logRecord("", kServiceTag, 0, "cups is not responding");
        return false;
    }
    return true;
}

void installStopHandler() {
    std::signal(SIGTERM, stopSignalHandler);
    std::signal(SIGINT, stopSignalHandler);
}

bool openLink() {
    const std::int32_t result = kavelinkOpen(&g_link, kLinkDeviceThenBackdoor);
    if (result != kLinkOk) {
        logRecord("", kServiceTag, 0, "Could not open link to Open Kavelink: %d", result);
        return false;
    }
    if (logGetLevel() >= 2)
        logRecord("", kServiceTag, 2, "Open Kavelink link was opened.");
    g_linkOpen = true;
    return true;
}

void sendInitialized() {
    ToolVersionRecord version;
    fillVersionRecord(version, 0, 0);
    sendToolStatus(&g_link, {.applicationId = kApplicationId,
                             .applicationName = kApplicationName,
                             .version = &version,
                             .state = "initialized"});
}

bool openDevice() {
    openRequestDevice();
    if (isRequestDeviceOpen())
        return true;
    logRecord("", kServiceTag, 0, "Failed to open Kavelink");
    return false;
}

int runTool() {
    auto* tool = new CPrintingTool;
    g_printingTool = tool;
    const int returnCode = tool->run();
    tool->stop();
    return returnCode;
}

int work() {
    if (!isCupsAvailable()) {
        logRecord("", kServiceTag, 0, "CUPS not available. Will exit.");
        return 0;
    }
    installStopHandler();
    if (!openLink())
        return 1;
    sendInitialized();
    return openDevice() ? runTool() : 1;
}

int workWithinMemory() {
    try {
        return work();
    } catch (const std::bad_alloc&) {
        logRecord("", kServiceTag, 0, "Not enough memory for run");
        return 1;
    }
}

void closeLink() {
    if (!g_linkOpen)
        return;
    sendToolStatus(&g_link, {.applicationId = kApplicationId, .state = "stopped"});
    g_linkOpen = false;
    kavelinkClose(&g_link);
    if (logGetLevel() >= 2)
        logRecord("", kServiceTag, 2, "Open Kavelink link was closed.");
}

}  // namespace

void stopSignalHandler(int) {
    const SignalLogScope signalLogScope;
    if (logGetLevel() >= 2)
        logRecord("", kServiceTag, 2, "Closing . . .");
    if (CPrintingTool* tool = g_printingTool; tool != nullptr)
        tool->m_running = false;
}

int runService(int argc, char** argv) {
    if (readOptions(argc, argv) == OptionsResult::kUsagePrinted)
        return 0;
    takeKnownState();
    logRecord("", kServiceTag, 0, "starting . . .");
    const int returnCode = workWithinMemory();
    closeLink();
    blockStopSignals();  // so that this record is the last
    logRecord("", kServiceTag, 0, "closed, rc = %d", returnCode);
    return returnCode;
}

}  // namespace qnt
