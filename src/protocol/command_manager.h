// Carries out the host's commands on the guest's queues.

#pragma once

#include <cstdint>
#include <string>

#include "cups/queue_listing.h"
#include "protocol/printing_format.h"
#include "protocol/printing_messages.h"

namespace qnt {

// Carries out one host command at a time. A command is pending if it has been accepted but could
// not be finished: an add whose printer is not online yet, or a wait while a printer is online. The
// service does not retry it. By the protocol, the host's next command ends it and is itself
// ignored; the service then asks for a command again.
//
// Runs on the run loop's thread only, with the tool's mutex held.
class ICommandManager {
public:
    // Keeps a reference to the tool's known queues, which must outlive this object.
    explicit ICommandManager(QueueBindingList& knownQueues) : m_knownQueues(knownQueues) {}
    virtual ~ICommandManager() = default;
    ICommandManager(const ICommandManager&) = delete;
    ICommandManager& operator=(const ICommandManager&) = delete;

    // Seconds left of two minutes for a pending add; 0xFFFFFFFF if none is pending. Part of the
    // fixed interface; the service does not call it, as only the host's next command ends the add.
    virtual std::uint32_t pendingTimeLeft() = 0;
    virtual void startPendingTimer() = 0;
    // Does nothing here; called before an add and after a deletion.
    virtual void onPrintersChanged() = 0;

    // Carries out one command; to be called only while none is pending. Runs CUPS tools; an add may
    // wait two minutes for its USB device. Failures of the tools are logged by the functions on
    // queues; an add is done if its queue then exists and is online.
    PrintingCmdResult processPrintingCmd(const PrintingCmd& command);

    std::uint32_t m_pendingCmd = 0;  // 0, CmdAddPrinter or CmdWaitAllOffline

protected:
    std::string m_pendingPrinterId;    // of the last pending add; not read here
    QueueBindingList& m_knownQueues;   // the tool's
    QueueBindingList m_hostPrinters;   // the host's list of the last CmdPrinterList
    std::uint32_t m_pendingSince = 0;  // wall-clock second in which the pending add started

private:
    PrintingCmdResult add(const std::string& printerId);
    PrintingCmdResult remove(const std::string& printerId);
    PrintingCmdResult replaceHostPrinters(const QueueBindingList& printers);
    PrintingCmdResult waitAllOffline();
};

class CCommandManager : public ICommandManager {
public:
    using ICommandManager::ICommandManager;

    std::uint32_t pendingTimeLeft() override;
    void startPendingTimer() override;
    void onPrintersChanged() override {}
};

}  // namespace qnt
