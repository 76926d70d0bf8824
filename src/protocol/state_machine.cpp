#include "protocol/state_machine.h"

#include "protocol/reconciliation.h"

namespace qnt {
namespace {

void fillCommandRequest(IPrintingTool& tool) {
    fillPrintingCmdRequest(tool.m_bufferCmd, tool.m_listSequence, tool.m_requestSize);
}

void fillPendingRequest(IPrintingTool& tool) {
    fillPrintingCmdPendingRequest(tool.m_bufferCmd, tool.m_requestSize);
}

bool carryOutCommand(IPrintingTool& tool, ICommandManager& commands) {
    // The user's deletions are reported to the host before its next command is carried out.
    if (!tool.sendUserDeletedPrinters(getUserDeletedPrinters(tool.m_knownQueues)))
        return false;
    PrintingCmd command;
    if (!parsePrintingCmd(command, answerPayload(tool.m_bufferCmd),
                          answerPayloadLength(tool.m_bufferCmd)))
        return false;
    if (command.code == CmdPrinterList)
        tool.m_listSequence = answerSequence(tool.m_bufferCmd);
    if (command.code == CmdAddPrinter)
        tool.m_addedPrinterId = command.printerId;
    const PrintingCmdResult result = commands.processPrintingCmd(command);
    if (result == CmdPending) {
        fillPendingRequest(tool);
        return true;
    }
    return fillPrintingCmdAnsRequest(tool.m_bufferCmd, result, tool.m_listSequence,
                                     tool.m_requestSize);
}

}  // namespace

bool executeStateMachine(IPrintingTool& tool, AnswerResult answer, ICommandManager& commands) {
    const bool pending = commands.m_pendingCmd != 0;
    if (answer == AnswerFailed)
        return false;
    if (answer == AnswerCommand && !pending)
        return carryOutCommand(tool, commands);
    if (answer == AnswerNone && pending) {
        fillPendingRequest(tool);
        return true;
    }
    commands.m_pendingCmd = 0;  // ends the pending command, if there is one
    fillCommandRequest(tool);
    return true;
}

}  // namespace qnt
