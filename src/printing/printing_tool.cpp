#include "printing/printing_tool.h"

#include <unistd.h>

#include <new>
#include <optional>

#include "cups/trusted_queues.h"
#include "hostlink/request_device.h"
#include "log/log_record.h"
#include "printing/workers.h"
#include "protocol/reconciliation.h"
#include "protocol/state_machine.h"

namespace qnt {
namespace {

bool startWorker(pthread_t& thread, void* (*entry)(void*), CPrintingTool& tool, const char* name) {
    if (pthread_create(&thread, nullptr, entry, &tool) == 0)
        return true;
    thread = 0;
    QNT_LOG(kLogAlways, "Failed to start thread '%s'", name);
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
    (void)listTrustedQueues(m_knownQueues, {});  // without an answer, no queue is known yet
    if (!m_bufferCmd.resize(kPrintingCmdHeaderSize)) {
        QNT_LOG(kLogAlways, "Not enough memory to init m_bufferCmd");
        return 1;
    }
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
    const bool sent = SendRequest(request, buffer.data(), length, length);
    m_reportCanceledByStop = !sent && request.header.status == kRequestCanceled && !m_running;
    return sent;
}

void CPrintingTool::reportDeletedQueues() {
    const std::lock_guard lock(m_mutex);
    try {
        (void)sendUserDeletedPrinters(getUserDeletedPrinters(m_knownQueues));
    } catch (const std::bad_alloc&) {
        logNoMemory("deletedPrintersLoop");
    }
}

bool CPrintingTool::startWorkers() {
    return startWorker(m_deletedPrintersThread, deletedPrintersEntry, *this, "DeletedPrinrters") &&
           startWorker(m_defaultPrinterThread, defaultPrinterEntry, *this, "SetDefaultPrinter");
}

void CPrintingTool::cancelWorkers() const {
    pthread_cancel(m_deletedPrintersThread);
    pthread_cancel(m_defaultPrinterThread);
}

// Has no interval: the host holds each request until it has an answer. Pauses only after a failed
// exchange, for lack of memory, and while a worker waits for the mutex or holds it.
std::int32_t CPrintingTool::converse(ICommandManager& commands) {
    while (m_running) {
        if (!exchangeUnlessStopped())
            return 0;
        const AnswerResult answer = processAnswerFromHost(m_bufferCmd);
        std::unique_lock lock = lockForStep();
        switch (takeStep(answer, commands)) {
            case Step::kNext:
                break;
            case Step::kStopped:
                return 0;
            case Step::kFailed:
                QNT_LOG(kLogAlways, "Error in state machine execution");
                return 1;
        }
        while (!applyPendingDefault() && m_running) {
            lock.unlock();
            sleep(kRetryDelaySeconds);
            lock = lockForStep();
        }
    }
    return 0;
}

// Submits the request until the host has answered it. False if the service is to end instead.
bool CPrintingTool::exchangeUnlessStopped() {
    while (!SendRequest(m_request, m_bufferCmd.data(), m_requestSize,
                        static_cast<std::uint32_t>(m_bufferCmd.size()))) {
        sleep(kRetryDelaySeconds);
        if (!m_running)
            return false;
    }
    return true;
}

// A worker that holds the mutex may be stuck in a tool or a report. After a stop request, waits for
// kWorkerGrace, then cancels both workers: the holder unlocks the mutex while its stack unwinds.
std::unique_lock<ToolMutex> CPrintingTool::lockForStep() {
    using Clock = std::chrono::steady_clock;
    std::optional<Clock::time_point> graceEnd;
    while (!m_mutex.tryLockAfterOthers(kStopPollInterval)) {
        if (!m_running && !graceEnd)
            graceEnd = Clock::now() + kWorkerGrace;
        else if (graceEnd && Clock::now() >= *graceEnd)
            cancelWorkers();
    }
    return {m_mutex, std::adopt_lock};
}

CPrintingTool::Step CPrintingTool::takeStep(AnswerResult answer, ICommandManager& commands) {
    try {
        m_addedPrinterId.clear();
        m_reportCanceledByStop = false;
        const bool goOn = executeStateMachine(*this, answer, commands);
        noteAddedPrinter();
        if (goOn)
            return Step::kNext;
        return m_reportCanceledByStop ? Step::kStopped : Step::kFailed;
    } catch (const std::bad_alloc&) {
        logNoMemory("executeStateMachine");
        return Step::kFailed;
    }
}

}  // namespace qnt
