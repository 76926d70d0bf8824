#include "printing/default_printer.h"

#include <mutex>
#include <new>

#include "cups/printer_names.h"
#include "cups/queue_operations.h"
#include "cups/trusted_queues.h"
#include "log/log_record.h"

namespace qnt {

bool applyDefaultPrinter(CPrintingTool& tool, const std::string& receivedId) {
    const std::lock_guard lock(tool.m_mutex);
    tool.m_defaultPrinterId = receivedId;
    const bool valid = checkPrinterId(receivedId);
    return tool.applyIfQueueExists() || !valid;  // repeating would not make it valid
}

void CPrintingTool::noteAddedPrinter() {
    if (!m_addedPrinterId.empty() && m_addedPrinterId == m_defaultPrinterId)
        m_defaultPrinterPending = !isAppliedDefault(m_addedPrinterId);
}

bool CPrintingTool::applyPendingDefault() {
    if (!m_defaultPrinterPending)
        return true;
    try {
        applyIfQueueExists();
        return true;
    } catch (const std::bad_alloc&) {
        m_defaultPrinterPending = true;
        logNoMemory("setDefaultPrinter");
        return false;
    }
}

bool CPrintingTool::applyIfQueueExists() {
    QueueBindingList queues;
    const bool listed = listTrustedQueues(queues, m_defaultPrinterId);
    // Set before lpadmin runs, so that the run loop does not run lpadmin again if a worker is
    // cancelled while it waits for it.
    m_defaultPrinterPending = queues.empty();
    if (!queues.empty())
        setDefaultPrinter(m_defaultPrinterId);
    return listed;
}

}  // namespace qnt
