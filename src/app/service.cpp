#include "app/service.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <new>

#include "app/options.h"
#include "cups/cups_check.h"
#include "hostlink/kavelink.h"
#include "hostlink/request_device.h"
#include "hostlink/status_messages.h"
#include "log/log_record.h"
#include "log/log_time.h"
#include "posix/stop_signals.h"
#include "printing/printing_tool.h"

namespace qnt {
namespace {

constexpr char kApplicationId[] = "quintaris.PrintingTool.guest.lin";
constexpr char kApplicationName[] = "Quintaris Shared Printers Tool";

// How often a stop request is repeated to the run loop until the process ends. For alarm(2), as is
// the next.
constexpr unsigned kStopRepeatSeconds = 1;
// How long the host may take to accept the status "stopped" after a stop request.
constexpr unsigned kStoppedGraceSeconds = 5;

// Set once, before the tool runs; the tool is never destroyed.
std::atomic<CPrintingTool*> g_printingTool{nullptr};
static_assert(std::atomic<CPrintingTool*>::is_always_lock_free, "the stop handler reads it");

// Main thread only.
KavelinkLink g_link;
bool g_linkOpen = false;  // g_link.state changes with each call

// Opens descriptors 0 to 2 if they are closed, so that the link, the device and the log get none
// of them and the tools always have standard streams.
void openStandardStreams() {
    int fd = 0;
    while (fd >= 0 && fd <= STDERR_FILENO)
        fd = open("/dev/null", O_RDWR);
    close(fd);
}

// Resets what the service may have inherited from its parent. The tools' output is parsed and names
// are passed to them as bytes, so they run in the C locale. If SIGCHLD stayed ignored, the tools'
// exit status would be lost.
void resetInheritedState() {
    openStandardStreams();
    alarm(0);  // execve(2) keeps a pending one
    for (const int signal : {SIGTERM, SIGINT, SIGCHLD})
        std::signal(signal, SIG_DFL);
    unblockStopSignals();
    setenv("LC_ALL", "C", 1);  // fails only if there is not enough memory
}

void requestStop() {
    if (CPrintingTool* tool = g_printingTool; tool != nullptr)
        tool->requestStop();
}

// The request is lost if it comes before the tool exists or runs, and it does not interrupt a write
// to the device that begins after it. So it is repeated, without a record. alarm(2) is
// async-signal-safe, and the tools do not inherit it.
void repeatStop(int) {
    requestStop();
    alarm(kStopRepeatSeconds);
}

void installStopHandler() {
    std::signal(SIGTERM, stopSignalHandler);
    std::signal(SIGINT, stopSignalHandler);
    std::signal(SIGALRM, repeatStop);
}

// A signal that comes while the host accepts "stopped" would cancel that message.
void delayStopRepeat() {
    if (alarm(0) != 0)
        alarm(kStoppedGraceSeconds);
}

bool openLink() {
    const LinkResult result = kavelinkOpen(&g_link, kLinkDeviceThenBackdoor);
    if (result != kLinkOk) {
        QNT_LOG(kLogAlways, "Could not open link to Open Kavelink: %d", result);
        return false;
    }
    QNT_LOG(kLogInfo, "Open Kavelink link was opened.");
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
    QNT_LOG(kLogAlways, "Failed to open Kavelink");  // the record is fixed; it means the device
    return false;
}

int runTool() {
    auto* tool = new CPrintingTool;
    g_printingTool = tool;
    const int returnCode = tool->run();
    tool->stop();
    return returnCode;
}

int startAndRun() {
    if (!checkCups()) {
        QNT_LOG(kLogAlways, "CUPS not available. Will exit.");
        return 0;
    }
    installStopHandler();
    if (!openLink())
        return 1;
    sendInitialized();
    return openDevice() ? runTool() : 1;
}

void closeLink() {
    if (!g_linkOpen)
        return;
    delayStopRepeat();
    sendToolStatus(&g_link, {.applicationId = kApplicationId, .state = "stopped"});
    g_linkOpen = false;
    kavelinkClose(&g_link);
    QNT_LOG(kLogInfo, "Open Kavelink link was closed.");
}

}  // namespace

void stopSignalHandler(int) {
    const SignalLogScope signalLogScope;
    QNT_LOG(kLogInfo, "Closing . . .");
    repeatStop(0);
}

int runService(int argc, char** argv) {
    if (readOptions(argc, argv) == OptionsResult::kUsagePrinted)
        return 0;
    resetInheritedState();
    QNT_LOG(kLogAlways, "starting . . .");
    int returnCode = 1;
    try {
        returnCode = startAndRun();
    } catch (const std::bad_alloc&) {
        logNoMemory("runService");
    }
    closeLink();
    blockStopSignals();  // "Closing . . ." never follows the last record
    QNT_LOG(kLogAlways, "closed, rc = %d", returnCode);
    return returnCode;
}

}  // namespace qnt
