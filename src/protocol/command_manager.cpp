#include "protocol/command_manager.h"

#include <ctime>

#include "cups/queue_creation.h"
#include "cups/queue_operations.h"
#include "log/log_record.h"
#include "protocol/reconciliation.h"

namespace qnt {
namespace {

constexpr std::uint32_t kNothingPending = 0xFFFFFFFF;
constexpr std::uint32_t kPendingAddSeconds = 120;

std::uint32_t wallClockSecond() {
    return static_cast<std::uint32_t>(std::time(nullptr));
}

}  // namespace

std::uint32_t CCommandManager::pendingTimeLeft() {
    if (m_pendingCmd != CmdAddPrinter)
        return kNothingPending;
    const std::uint32_t elapsed = wallClockSecond() - m_pendingSince;
    return elapsed >= kPendingAddSeconds ? 0 : kPendingAddSeconds - elapsed;
}

void CCommandManager::startPendingTimer() {
    m_pendingSince = wallClockSecond();
}

PrintingCmdResult ICommandManager::processPrintingCmd(const PrintingCmd& command) {
    switch (command.code) {
        case CmdAddPrinter:
            return add(command.printerId);
        case CmdDeletePrinter:
            return remove(command.printerId);
        case CmdDeleteOfflinePrinters:
            deleteOfflinePrinters();
            return CmdDone;
        case CmdPrinterList:
            return replaceHostPrinters(command.printers);
        case CmdWaitAllOffline:
            return waitAllOffline();
        default:
            QNT_LOG_AS(kProtocolLogPrefix, kServiceTag, kLogWarning, "Unknown command %d",
                       static_cast<int>(command.code));
            return CmdUnknown;
    }
}

PrintingCmdResult ICommandManager::add(const std::string& printerId) {
    onPrintersChanged();
    std::string name;
    addPrinter(name, printerId);
    // For the empty id, isPrinterOnline takes any printer; hasQueueForId takes none.
    if (isPrinterOnline(printerId) && hasQueueForId(printerId)) {
        syncPrinterNames(m_hostPrinters);
        return CmdDone;
    }
    m_pendingCmd = CmdAddPrinter;
    startPendingTimer();
    m_pendingPrinterId = printerId;
    return CmdPending;
}

PrintingCmdResult ICommandManager::remove(const std::string& printerId) {
    deletePrinterById(printerId);
    forgetPrinter(m_knownQueues, printerId);
    onPrintersChanged();
    return CmdDone;
}

PrintingCmdResult ICommandManager::replaceHostPrinters(const QueueBindingList& printers) {
    m_hostPrinters = printers;
    syncPrinterNames(m_hostPrinters);
    return CmdDone;
}

PrintingCmdResult ICommandManager::waitAllOffline() {
    if (areAllPrintersOffline())
        return CmdDone;
    m_pendingCmd = CmdWaitAllOffline;
    return CmdPending;
}

}  // namespace qnt
