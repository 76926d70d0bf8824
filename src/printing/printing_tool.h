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
// of memory. Pauses are numbers for sleep(3), which a stop signal ends early;
// std::this_thread::sleep_for would sleep on.
inline constexpr unsigned kRetryDelaySeconds = 1;
// How long the run loop tries to lock the mutex after a stop request before it cancels both workers
// (it does not know which of them holds the mutex).
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
    [[nodiscard]] bool sendUserDeletedPrinters(const QueueBindingList& deleted) override;

    // False before run() and after a stop request. Any thread.
    bool isRunning() const { return m_running; }
    // Asks the run loop and the workers to end. Any thread and signal handlers.
    void requestStop() { m_running = false; }
    // Compares the known queues with CUPS and reports those that vanished; a report that fails is
    // not repeated. Takes the mutex. 'DeletedPrinrters' worker only.
    void reportDeletedQueues();
    // The host's default printer, empty at first. 'SetDefaultPrinter' worker only: no other thread
    // changes the id while the workers run, so it may read it without the mutex.
    const std::string& defaultPrinterId() const { return m_defaultPrinterId; }

private:
    enum class Step { kNext, kStopped, kFailed };

    friend bool applyDefaultPrinter(CPrintingTool& tool, const std::string& receivedId);

    bool startWorkers();
    void cancelWorkers() const;
    std::int32_t converse(ICommandManager& commands);
    bool exchangeUnlessStopped();
    std::unique_lock<ToolMutex> lockForStep();
    Step takeStep(AnswerResult answer, ICommandManager& commands);

    // The rule of the default printer, in default_printer.cpp. The caller holds the mutex.
    //
    // If the last step has added the host's default printer, its new queue has to be made the
    // guest's default, unless a rename in the same step has done that.
    void noteAddedPrinter();
    // Makes the queue of a pending default the guest's default if it exists. False if there was not
    // enough memory: the host may have nothing to send after this step, so the caller must repeat
    // the call.
    [[nodiscard]] bool applyPendingDefault();
    // The same whether pending or not. False if the queues could not be listed. May throw
    // std::bad_alloc.
    bool applyIfQueueExists();

    DeviceRequest m_request{};              // run loop's thread
    std::atomic<bool> m_running{false};     // any thread and the stop handler
    pthread_t m_deletedPrintersThread = 0;  // run loop's thread; 0 when not started
    pthread_t m_defaultPrinterThread = 0;   // run loop's thread; 0 when not started
    ToolMutex m_mutex;
    // Cleared by run(), then written by the 'SetDefaultPrinter' worker under the mutex.
    std::string m_defaultPrinterId;
    bool m_defaultPrinterPending = false;  // under the mutex: the default waits for its queue
    // Under the mutex: the last report was cancelled, after a stop request. takeStep() makes it a
    // result; executeStateMachine, between the two, can only return false.
    bool m_reportCanceledByStop = false;
};

static_assert(std::atomic<bool>::is_always_lock_free, "the stop handler clears m_running");

}  // namespace qnt
