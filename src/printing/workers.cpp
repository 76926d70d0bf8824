#include "printing/workers.h"

#include <unistd.h>

#include <new>

#include "cups/printer_names.h"
#include "cups/queue_listing.h"
#include "cups/queue_operations.h"
#include "hostlink/request_device.h"
#include "log/log_record.h"
#include "posix/stop_signals.h"
#include "printing/tool_lock.h"
#include "protocol/little_endian.h"
#include "protocol/printing_format.h"
#include "protocol/printing_messages.h"
#include "protocol/reconciliation.h"

namespace qnt {
namespace {

bool unlessCancelled() {
    pthread_testcancel();
    return true;
}

void logNoMemory(const char* operation) {
    logRecord("", kServiceTag, 0, "Not enough memory for %s", operation);
}

void reportDeleted(IPrintingTool& tool, QueueBindingList& deleted) {
    try {
        deleted = getUserDeletedPrinters(tool.m_knownQueues);
        if (!deleted.empty())
            tool.sendUserDeletedPrinters(deleted);
    } catch (const std::bad_alloc&) {
        logNoMemory("deletedPrintersLoop");
    }
}

// One conversation about the default printer. Of the buffer's bytes, a query writes three fields;
// the others stay as the previous answer left them.
class DefaultPrinterQuery {
public:
    explicit DefaultPrinterQuery(CPrintingTool& tool) : m_tool(tool) {}

    // One query and what follows from its answer. False asks for a pause before the next.
    bool ask() {
        // The storage never falls below what a query sends: cutting the length keeps it.
        if (m_buffer.storage() < kPrintingCmdHeaderSize && !resize(kPrintingCmdHeaderSize))
            return false;
        writeU32(m_buffer.data() + PrintingCmdHeader::kVersion, kPrintingVersion);
        writeU32(m_buffer.data() + PrintingCmdHeader::kRequestType, GetDefaultPrinter);
        writeU32(m_buffer.data() + PrintingCmdHeader::kSequence, m_sequence);
        if (!SendRequest(m_request, m_buffer.data(), kPrintingCmdHeaderSize,
                         static_cast<std::uint32_t>(m_buffer.size())))
            return false;
        const std::uint32_t requiredSize = answerRequiredSize(m_buffer);
        return requiredSize != 0 ? makeRoom(requiredSize) : follow();
    }

private:
    bool resize(std::size_t size) {
        if (m_buffer.resize(size))
            return true;
        logNoMemory("defaultPrinterLoop");
        return false;
    }

    bool makeRoom(std::uint32_t requiredSize) {
        if (logGetLevel() >= 3)
            logRecord("", kServiceTag, 3, "Buffer too small reqSize = %d",
                      static_cast<int>(requiredSize));
        return resize(requiredSize);
    }

    // Without memory the sequence stays, so the host tells its default once more.
    bool follow() {
        try {
            parseDefaultPrinterAnswer(m_receivedId, answerPayload(m_buffer),
                                      answerPayloadLength(m_buffer));
            // Only this thread writes the tool's id, so it may read it without the mutex.
            if (m_receivedId != m_tool.m_defaultPrinterId) {
                logRecord("", kServiceTag, 0, "Set default printer: '%s'", m_receivedId.c_str());
                applyDefaultPrinter(m_tool, m_receivedId);
            }
        } catch (const std::bad_alloc&) {
            logNoMemory("defaultPrinterLoop");
            return false;
        }
        m_sequence = answerSequence(m_buffer);
        return true;
    }

    CPrintingTool& m_tool;
    ByteArray m_buffer;
    std::string m_receivedId;
    std::uint32_t m_sequence = 0;
    DeviceRequest m_request{};
};

}  // namespace

void* deletedPrintersEntry(void* tool) {
    blockStopSignals();
    deletedPrintersLoop(*static_cast<CPrintingTool*>(tool));
    return nullptr;
}

void deletedPrintersLoop(CPrintingTool& tool) {
    while (tool.m_running) {
        QueueBindingList deleted;
        {
            const ToolLock lock(tool.m_mutex, unlessCancelled);
            reportDeleted(tool, deleted);
        }
        sleep(kDeletedCheckPauseSeconds);
    }
}

void* defaultPrinterEntry(void* tool) {
    blockStopSignals();
    defaultPrinterLoop(*static_cast<CPrintingTool*>(tool));
    return nullptr;
}

void defaultPrinterLoop(CPrintingTool& tool) {
    DefaultPrinterQuery query(tool);
    while (tool.m_running) {
        if (!query.ask())
            sleep(kRetryDelaySeconds);
    }
}

void applyDefaultPrinter(CPrintingTool& tool, const std::string& receivedId) {
    const ToolLock lock(tool.m_mutex, unlessCancelled);
    tool.m_defaultPrinterId = receivedId;
    tool.m_defaultPrinterPending = true;
    if (rejectInvalidId(receivedId))
        return;
    QueueBindingList queues;
    listPrinterQueues(queues, receivedId);
    if (queues.empty())
        return;
    setDefaultPrinter(receivedId);
    tool.m_defaultPrinterPending = false;
}

}  // namespace qnt
