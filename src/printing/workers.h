// The run loop's two worker threads.
//
// Both block the stop signals, so that those reach the main thread. They end when the tool stops
// running, or by cancellation: in a sleep, in a submission to the host, while they read a CUPS
// tool's output or wait for it to end, or while they wait for the tool's mutex. Cancellation
// unwinds the stack and releases everything. Lack of memory does not end a worker.

#pragma once

#include "printing/printing_tool.h"

namespace qnt {

inline constexpr unsigned kDeletedCheckPauseSeconds = 1;

// 'DeletedPrinrters' (sic: the record of a failed start spells it so): once a second, reports to
// the host the queues that vanished from CUPS. The thread functions take the CPrintingTool and
// return null.
void* deletedPrintersEntry(void* tool);
void deletedPrintersLoop(CPrintingTool& tool);

// 'SetDefaultPrinter': asks the host for its default printer, again as soon as it has answered,
// and makes that printer's queue the guest's default.
void* defaultPrinterEntry(void* tool);
void defaultPrinterLoop(CPrintingTool& tool);

}  // namespace qnt
