// The step that follows every completed exchange of the command channel.

#pragma once

#include "protocol/command_manager.h"
#include "protocol/printing_messages.h"
#include "protocol/tool_interface.h"

namespace qnt {

// Carries out what the answer in the tool's buffer asks for and leaves the next request there:
//
//   pending  answer         what happens                          next request
//   any      AnswerFailed   nothing                               none: false
//   none     AnswerNone     nothing                               GetPrintingCmd
//   some     AnswerNone     nothing                               PrintingCmdPending
//   some     AnswerCommand  the pending command ends, the         GetPrintingCmd
//                           answer is dropped
//   none     AnswerCommand  deleted queues are reported, the      PrintingCmdAnswer with the
//                           command is parsed and carried out     result, or PrintingCmdPending
//
// False ends the run: a failed answer, report or parse, or no memory for the next request. Called
// on the run loop's thread with the tool's mutex held.
bool executeStateMachine(IPrintingTool& tool, AnswerResult answer, ICommandManager& commands);

}  // namespace qnt
