// The rule of the default printer: the queue of the host's default printer is the guest's default,
// as soon as that queue exists.
//
// m_defaultPrinterId is the host's default, and m_defaultPrinterPending is true while that printer
// has no queue; one try of lpadmin ends it, even if it fails. The 'SetDefaultPrinter' worker
// applies each id that the host sends; the run loop applies what is pending after each of its
// steps.

#pragma once

#include <string>

#include "printing/printing_tool.h"

namespace qnt {

// Stores the id as the host's default and makes its queue the CUPS default. If there is no such
// queue yet, leaves that to the run loop. False if the queues could not be listed: the caller must
// repeat the call. Takes the mutex. May throw std::bad_alloc.
[[nodiscard]] bool applyDefaultPrinter(CPrintingTool& tool, const std::string& receivedId);

}  // namespace qnt
