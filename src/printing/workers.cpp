#include "printing/workers.h"

#include <unistd.h>

#include <new>
#include <string>

#include "hostlink/request_device.h"
#include "log/log_record.h"
#include "log/log_time.h"
#include "posix/stop_signals.h"
#include "printing/default_printer.h"
#include "protocol/printing_format.h"
#include "protocol/printing_messages.h"

namespace qnt {
namespace {

// The name is what top(1) and a debugger show; the system allows 15 bytes.
void startAs(const char* threadName) {
    blockStopSignals();
    pthread_setname_np(pthread_self(), threadName);
}

// The default-printer exchange. A query overwrites three header fields and leaves the rest of the
// previous answer in place, as the protocol requires.
class DefaultPrinterQuery {
public:
    explicit DefaultPrinterQuery(CPrintingTool& tool) : m_tool(tool) {}

    // Sends a query and handles its answer. False if a pause is needed before the next call: after
    // a failed exchange, or when there was not enough memory or no process for a listing.
    bool ask() {
        if (!m_hasAnswer && !exchange())
            return false;
        const std::uint32_t requiredSize = answerRequiredSize(m_buffer);
        return requiredSize != 0 ? makeRoom(requiredSize) : handleAnswer();
    }

private:
    bool exchange() {
        // The array's storage always holds a full header, also after its length has shrunk.
        if (m_buffer.storage() == 0 && !resize(kPrintingCmdHeaderSize))
            return false;
        fillDefaultPrinterRequest(m_buffer, m_sequence);
        return SendRequest(m_request, m_buffer.data(), kPrintingCmdHeaderSize,
                           static_cast<std::uint32_t>(m_buffer.size()));
    }

    bool resize(std::size_t size) {
        if (m_buffer.resize(size))
            return true;
        logNoMemory("defaultPrinterLoop");
        return false;
    }

    bool makeRoom(std::uint32_t requiredSize) {
        QNT_LOG(kLogDetail, "Buffer too small reqSize = %d", static_cast<int>(requiredSize));
        return resize(requiredSize);
    }

    // An answer that could not be handled stays in the buffer for the next call, as a host that has
    // nothing new may hold the next query for ever.
    bool handleAnswer() {
        m_hasAnswer = true;
        try {
            parseDefaultPrinterAnswer(m_receivedId, answerPayload(m_buffer),
                                      answerPayloadLength(m_buffer));
            if (m_receivedId != m_tool.defaultPrinterId()) {
                QNT_LOG(kLogAlways, "Set default printer: '%s'", m_receivedId.c_str());
                m_mustApply = true;
            }
            if (m_mustApply && !applyDefaultPrinter(m_tool, m_receivedId))
                return false;
        } catch (const std::bad_alloc&) {
            logNoMemory("defaultPrinterLoop");
            return false;
        }
        m_hasAnswer = m_mustApply = false;
        m_sequence = answerSequence(m_buffer);
        return true;
    }

    CPrintingTool& m_tool;
    ByteArray m_buffer;
    std::string m_receivedId;
    bool m_hasAnswer = false;  // the buffer holds an answer that has not been handled yet
    bool m_mustApply = false;  // the queues of the received id have not been listed yet
    std::uint32_t m_sequence = 0;
    DeviceRequest m_request{};
};

}  // namespace

void* deletedPrintersEntry(void* tool) {
    startAs("DeletedPrinters");
    deletedPrintersLoop(*static_cast<CPrintingTool*>(tool));
    return nullptr;
}

void deletedPrintersLoop(CPrintingTool& tool) {
    while (tool.isRunning()) {
        tool.reportDeletedQueues();
        refreshUtcOffset();  // here, as only this loop runs once a second
        sleep(kDeletedCheckPauseSeconds);
    }
}

void* defaultPrinterEntry(void* tool) {
    startAs("DefaultPrinter");
    defaultPrinterLoop(*static_cast<CPrintingTool*>(tool));
    return nullptr;
}

void defaultPrinterLoop(CPrintingTool& tool) {
    DefaultPrinterQuery query(tool);
    while (tool.isRunning()) {
        if (!query.ask())
            sleep(kRetryDelaySeconds);
    }
}

}  // namespace qnt
