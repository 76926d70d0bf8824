// The two threads beside the run loop.
//
// Both block the stop signals, so that those reach the main thread, and end when the tool stops
// running or by cancellation: at their sleep, in a submission to the host, while they read a CUPS
// tool's output or wait for its end, or while they wait for the tool's mutex. A mutex, a tool or a
// buffer that a cancelled worker holds is given back as it unwinds. Neither ends for lack of
// memory.

#pragma once

#include <string>

#include "printing/printing_tool.h"

namespace qnt {

inline constexpr unsigned kDeletedCheckPauseSeconds = 1;

// 'DeletedPrinrters': once a second, reports to the host the queues that vanished from CUPS. The
// entry operations take the CPrintingTool and return null.
void* deletedPrintersEntry(void* tool);
void deletedPrintersLoop(CPrintingTool& tool);

// 'SetDefaultPrinter': asks the host for its default printer, again as soon as it has answered,
// and makes that printer's queue the guest's default.
void* defaultPrinterEntry(void* tool);
void defaultPrinterLoop(CPrintingTool& tool);

// Stores the id as the host's default and makes its queue the CUPS default; where there is none
// yet, leaves that to the run loop. Takes the mutex.
void applyDefaultPrinter(CPrintingTool& tool, const std::string& receivedId);

}  // namespace qnt
