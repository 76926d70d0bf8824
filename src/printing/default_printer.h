// The rule of the default printer: the queue of the host's default printer is the guest's default,
// as soon as that queue exists.
//
// m_defaultPrinterId is the host's default, and m_defaultPrinterPending is true until its queue has
// been made the guest's default. The 'SetDefaultPrinter' worker applies what the host tells it; the
// run loop applies what is pending after each of its steps.

#pragma once

#include <string>

#include "printing/printing_tool.h"

namespace qnt {

// Stores the id as the host's default and makes its queue the CUPS default. If there is no such
// queue yet, leaves that to the run loop. False if the queues could not be listed: the caller must
// repeat the call. Takes the mutex. May throw std::bad_alloc.
bool applyDefaultPrinter(CPrintingTool& tool, const std::string& receivedId);

// After an add of this printer: if it is the host's default, its new queue has to be made the
// guest's default, unless a rename in the same step has done that. The caller holds the mutex.
void noteAddedPrinter(CPrintingTool& tool, const std::string& id);

// Makes the queue of a pending default the guest's default if it exists. False if there was not
// enough memory: the host may have nothing to send after this step, so the caller must repeat the
// call. The caller holds the mutex.
bool applyPendingDefault(CPrintingTool& tool);

}  // namespace qnt
