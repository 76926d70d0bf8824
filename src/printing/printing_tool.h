// The service's one working object.
//
// Three threads use it: the run loop's, which is the main thread, and the workers
// 'DeletedPrinrters' and 'SetDefaultPrinter'. m_mutex is the only lock. It is held around every
// step of the state machine, every comparison and report of the known queues and every application
// of a default printer, so CUPS is changed by one thread at a time. Exchanges with the host are
// made without it, except the report of deleted queues.

#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "hostlink/device_request.h"
#include "protocol/command_manager.h"
#include "protocol/tool_interface.h"

namespace qnt {

inline constexpr unsigned kRetryDelaySeconds = 1;  // after an exchange that failed
// How long a stop request waits for a thread that sits in a CUPS tool, before the run loop leaves
// the last answer unprocessed.
inline constexpr int kStopGraceMilliseconds = 1000;

class CPrintingTool : public IPrintingTool {
public:
    // Keeps the conversation with the host going until a stop request or a failure: 0 or 1. Starts
    // the workers, which stop() ends. Main thread; the request device is open.
    std::int32_t run() override;
    // Cancels the workers and waits for their end. Main thread, after run().
    std::int32_t stop() override;
    bool sendUserDeletedPrinters(const QueueBindingList& deleted) override;

    DeviceRequest m_request{};              // run loop's thread
    std::atomic<bool> m_running{false};     // any thread and the stop handler
    pthread_t m_deletedPrintersThread = 0;  // run loop's thread; 0 when not started
    pthread_t m_defaultPrinterThread = 0;   // run loop's thread; 0 when not started
    pthread_mutex_t m_mutex{};              // initialised by run(), never destroyed
    std::string m_defaultPrinterId;         // under the mutex; its writer reads it without
    bool m_defaultPrinterPending = false;   // under the mutex: the default has no queue yet

private:
    bool startWorkers();
    std::int32_t converse(ICommandManager& commands);
    bool exchange();
    bool takeStep(AnswerResult answer, ICommandManager& commands);
    void applyPendingDefault();
};

static_assert(std::atomic<bool>::is_always_lock_free, "the stop handler clears m_running");

}  // namespace qnt
