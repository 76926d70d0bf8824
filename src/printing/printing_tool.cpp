#include "printing/printing_tool.h"

#include <unistd.h>

#include <chrono>
#include <new>
#include <optional>

#include "cups/queue_listing.h"
#include "cups/queue_operations.h"
#include "hostlink/request_device.h"
#include "log/log_record.h"
#include "printing/tool_lock.h"
#include "printing/workers.h"
#include "protocol/state_machine.h"

namespace qnt {
namespace {

using Clock = std::chrono::steady_clock;

// Waits on while the service runs, and for the grace after a stop request.
class UntilStopped {
public:
    explicit UntilStopped(const std::atomic<bool>& running) : m_running(running) {}

    bool operator()() {
        if (m_running)
            return true;
        const Clock::time_point now = Clock::now();
        if (!m_stopSeen)
            m_stopSeen = now;
        return now - *m_stopSeen < std::chrono::milliseconds(kStopGraceMilliseconds);
    }

private:
    const std::atomic<bool>& m_running;
    std::optional<Clock::time_point> m_stopSeen;
};

bool startWorker(pthread_t& thread, void* (*entry)(void*), CPrintingTool& tool, const char* name) {
    if (pthread_create(&thread, nullptr, entry, &tool) == 0)
        return true;
    thread = 0;
    logRecord("", kServiceTag, 0, "Failed to start thread '%s'", name);
    return false;
}

void endWorker(pthread_t& thread) {
    if (thread == 0)
        return;
    pthread_cancel(thread);
    pthread_join(thread, nullptr);
    thread = 0;
}

}  // namespace

std::int32_t CPrintingTool::run() {
    m_running = true;
    m_defaultPrinterPending = false;
    m_defaultPrinterId.clear();
    m_listSequence = 0;
    CCommandManager commands(m_knownQueues);
    getHostPrinterQueues(m_knownQueues, kListHostQueues);
    if (!m_bufferCmd.resize(kPrintingCmdHeaderSize)) {
        logRecord("", kServiceTag, 0, "Not enough memory to init m_bufferCmd");
        return 1;
    }
    pthread_mutex_init(&m_mutex, nullptr);
    if (!startWorkers())
        return 1;
    fillPrintingCmdRequest(m_bufferCmd, m_listSequence, m_requestSize);
    return converse(commands);
}

std::int32_t CPrintingTool::stop() {
    m_running = false;
    endWorker(m_deletedPrintersThread);
    endWorker(m_defaultPrinterThread);
    return 0;
}

bool CPrintingTool::sendUserDeletedPrinters(const QueueBindingList& deleted) {
    if (deleted.empty())
        return true;
    ByteArray buffer;
    if (!fillUserDeletedPrintersRequest(buffer, deleted))
        return false;
    DeviceRequest request{};
    const auto length = static_cast<std::uint32_t>(buffer.size());
    return SendRequest(request, buffer.data(), length, length);
}

bool CPrintingTool::startWorkers() {
    return startWorker(m_deletedPrintersThread, deletedPrintersEntry, *this, "DeletedPrinrters") &&
           startWorker(m_defaultPrinterThread, defaultPrinterEntry, *this, "SetDefaultPrinter");
}

// The pace is the host's: there is no pause after an exchange that succeeded.
std::int32_t CPrintingTool::converse(ICommandManager& commands) {
    while (m_running) {
        if (!exchange())
            return 0;
        const AnswerResult answer = processAnswerFromHost(m_bufferCmd);
        const ToolLock lock(m_mutex, UntilStopped(m_running));
        if (!lock.held())
            return 0;
        const bool runningBefore = m_running;
        if (!takeStep(answer, commands)) {
            if (runningBefore && !m_running)
                return 0;  // the stop has cancelled the step's report of deleted queues
            logRecord("", kServiceTag, 0, "Error in state machine execution");
            return 1;
        }
        applyPendingDefault();
    }
    return 0;
}

// Submits the request until the host has answered it; false when the service is to end instead.
bool CPrintingTool::exchange() {
    while (!SendRequest(m_request, m_bufferCmd.data(), m_requestSize,
                        static_cast<std::uint32_t>(m_bufferCmd.size()))) {
        sleep(kRetryDelaySeconds);
        if (!m_running)
            return false;
    }
    return true;
}

bool CPrintingTool::takeStep(AnswerResult answer, ICommandManager& commands) {
    try {
        return executeStateMachine(*this, answer, commands);
    } catch (const std::bad_alloc&) {
        logRecord("", kServiceTag, 0, "Not enough memory for executeStateMachine");
        return false;
    }
}

// When memory runs out the default stays pending and is tried again after the next step.
void CPrintingTool::applyPendingDefault() {
    if (!m_defaultPrinterPending)
        return;
    try {
        QueueBindingList queues;
        listPrinterQueues(queues, m_defaultPrinterId);
        if (queues.empty())
            return;
        setDefaultPrinter(m_defaultPrinterId);
        m_defaultPrinterPending = false;
    } catch (const std::bad_alloc&) {
        logRecord("", kServiceTag, 0, "Not enough memory for setDefaultPrinter");
    }
}

}  // namespace qnt
