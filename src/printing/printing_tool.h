// The run loop, its two workers and the state that they share.
//
// Three threads use the tool: the run loop's, which is the main thread, and the workers
// 'DeletedPrinrters' and 'SetDefaultPrinter'. Once the workers run, m_mutex is held around every
// step of the state machine, every comparison and report of the known queues and every change of
// the default printer, so only one thread at a time changes CUPS. Exchanges with the host are made
// without it, except the report of deleted queues.

#pragma once

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

#include "hostlink/device_request.h"
#include "printing/tool_mutex.h"
#include "protocol/command_manager.h"
#include "protocol/tool_interface.h"

namespace qnt {

// How long a thread pauses after a failed exchange, a listing that could not be started, or a lack
// of memory.
inline constexpr unsigned kRetryDelaySeconds = 1;
// How long the run loop waits for a worker that holds the mutex or waits for it, from its first
// failed attempt to lock it after a stop request. Then the loop cancels both workers, as it does
// not know which of them holds the mutex.
inline constexpr std::chrono::seconds kWorkerGrace{1};
// How often the run loop looks for a stop request while a worker holds the mutex.
inline constexpr std::chrono::milliseconds kStopPollInterval{50};

class CPrintingTool : public IPrintingTool {
public:
    // Exchanges requests and answers with the host until a stop request (0) or a failure (1).
    // Starts the workers, which stop() ends. Main thread; the request device is open. Throws
    // std::bad_alloc only before it starts the workers, from the first listing.
    std::int32_t run() override;
    // Cancels the workers and waits for them to end. Main thread, after run().
    std::int32_t stop() override;
    bool sendUserDeletedPrinters(const QueueBindingList& deleted) override;

    DeviceRequest m_request{};              // run loop's thread
    std::atomic<bool> m_running{false};     // any thread and the stop handler
    pthread_t m_deletedPrintersThread = 0;  // run loop's thread; 0 when not started
    pthread_t m_defaultPrinterThread = 0;   // run loop's thread; 0 when not started
    ToolMutex m_mutex;
    // Cleared by run(), then written by the 'SetDefaultPrinter' worker under the mutex; the worker
    // itself reads it without the mutex.
    std::string m_defaultPrinterId;
    bool m_defaultPrinterPending = false;  // under the mutex: the default has not been applied yet

private:
    bool startWorkers();
    void cancelWorkers() const;
    std::int32_t converse(ICommandManager& commands);
    bool exchangeUnlessStopped();
    std::unique_lock<ToolMutex> lockForStep();
    bool takeStep(AnswerResult answer, ICommandManager& commands);

    // Under the mutex: the last report was cancelled, after a stop request.
    bool m_reportCanceledByStop = false;
};

static_assert(std::atomic<bool>::is_always_lock_free, "the stop handler clears m_running");

}  // namespace qnt
