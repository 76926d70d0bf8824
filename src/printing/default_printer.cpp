#include "printing/default_printer.h"

#include <mutex>
#include <new>

#include "cups/printer_names.h"
#include "cups/queue_operations.h"
#include "cups/trusted_queues.h"
#include "log/log_record.h"

namespace qnt {
namespace {

// False if the queues could not be listed.
bool applyIfQueueExists(CPrintingTool& tool) {
    QueueBindingList queues;
    const bool listed = listTrustedQueues(queues, tool.m_defaultPrinterId);
    // Set before lpadmin runs, so that the run loop does not run lpadmin again if a worker is
    // cancelled while it waits for it.
    tool.m_defaultPrinterPending = queues.empty();
    if (!queues.empty())
        setDefaultPrinter(tool.m_defaultPrinterId);
    return listed;
}

}  // namespace

bool applyDefaultPrinter(CPrintingTool& tool, const std::string& receivedId) {
    const std::lock_guard lock(tool.m_mutex);
    tool.m_defaultPrinterId = receivedId;
    const bool rejected = rejectInvalidId(receivedId);
    return applyIfQueueExists(tool) || rejected;
}

void noteAddedPrinter(CPrintingTool& tool, const std::string& id) {
    if (!id.empty() && id == tool.m_defaultPrinterId)
        tool.m_defaultPrinterPending = !isAppliedDefault(id);
}

bool applyPendingDefault(CPrintingTool& tool) {
    if (!tool.m_defaultPrinterPending)
        return true;
    try {
        applyIfQueueExists(tool);
        return true;
    } catch (const std::bad_alloc&) {
        tool.m_defaultPrinterPending = true;
        logNoMemory("setDefaultPrinter");
        return false;
    }
}

}  // namespace qnt
