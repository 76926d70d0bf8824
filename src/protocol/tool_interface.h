// The printing tool as the state machine sees it. The classes, the order of their virtual functions
// and the order of their fields are fixed.

#pragma once

#include <cstdint>
#include <string>

#include "cups/queue_listing.h"
#include "protocol/byte_array.h"

namespace qnt {

// A tool that the service runs for its whole life.
class IServiceTool {
public:
    IServiceTool() = default;
    virtual ~IServiceTool() = default;
    IServiceTool(const IServiceTool&) = delete;
    IServiceTool& operator=(const IServiceTool&) = delete;

    // Runs until the service ends: 0 after an orderly stop, 1 after a failure.
    virtual std::int32_t run() = 0;
    // Ends the threads that run() has started. Returns 0.
    virtual std::int32_t stop() = 0;
};

// The state that the state machine reads and changes, on the run loop's thread. Fields marked with
// the mutex are guarded by it once the workers run.
class IPrintingTool : public IServiceTool {
public:
    // Reports the ids of queues that the guest's user deleted. True if the list is empty or the
    // host took the report. Waits for the host; the caller holds the tool's mutex.
    [[nodiscard]] virtual bool sendUserDeletedPrinters(const QueueBindingList& deleted) = 0;

    QueueBindingList m_knownQueues;    // under the mutex: host-bound queues as last listed
    std::uint32_t m_listSequence = 0;  // run loop: sequence of the last CmdPrinterList answer
    ByteArray m_bufferCmd;             // run loop: request and answer of the command channel
    std::uint32_t m_requestSize = 0;   // run loop: bytes of the request in m_bufferCmd
    std::string m_addedPrinterId;      // run loop: set by a step that carries out CmdAddPrinter
};

}  // namespace qnt
