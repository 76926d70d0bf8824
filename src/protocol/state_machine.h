// The step after every completed exchange of the command channel.

#pragma once

#include "protocol/command_manager.h"
#include "protocol/printing_messages.h"
#include "protocol/tool_interface.h"

namespace qnt {

// Handles the answer in the tool's buffer and writes the next request there:
//
//   pending  answer         effect                                next request
//   any      AnswerFailed   none                                  none: returns false
//   no       AnswerNone     none                                  GetPrintingCmd
//   yes      AnswerNone     none                                  PrintingCmdPending
//   yes      AnswerCommand  the pending command ends, the         GetPrintingCmd
//                           answer is ignored
//   no       AnswerCommand  deleted queues are reported, the      PrintingCmdAnswer with the
//                           command is parsed and carried out     result, or PrintingCmdPending
//
// Returns false, which ends the run, on a failed answer, report or parse, and if there is not
// enough memory for the next request. Runs on the run loop's thread with the tool's mutex held. May
// throw std::bad_alloc.
[[nodiscard]] bool executeStateMachine(IPrintingTool& tool, AnswerResult answer,
                                       ICommandManager& commands);

}  // namespace qnt
