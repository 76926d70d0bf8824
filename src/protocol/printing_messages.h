// Building the service's requests and reading the host's answers.
//
// A buffer carries a request to the host and its answer back: the answer overwrites the request in
// place. None of these operations keeps state, takes a lock or throws, but for std::bad_alloc where
// the parse operations copy a text. Records carry the prefix "PRINTING_TOOL".

#pragma once

#include <cstdint>
#include <string>

#include "cups/queue_listing.h"
#include "protocol/byte_array.h"

namespace qnt {

inline constexpr char kCommandManagerPrefix[] = "PRINTING_TOOL";

// A command of the host. `code` counts only after a successful parse; `printers` is the host's
// list with its names in `queueName`.
struct PrintingCmd {
    std::uint32_t code = 0;
    std::string printerId;
    QueueBindingList printers;
};

enum AnswerResult : std::uint32_t {
    AnswerNone = 0,     // nothing to carry out; the buffer is now large enough, send the next
    AnswerFailed = 1,   // the answer can't be used
    AnswerCommand = 2,  // a complete answer lies in the buffer
};

// GetPrintingCmd and PrintingCmdPending: 80 bytes at the start of a buffer of at least 80.
void fillPrintingCmdRequest(ByteArray& bufferCmd, std::uint32_t sequence,
                            std::uint32_t& requestSize);
void fillPrintingCmdPendingRequest(ByteArray& bufferCmd, std::uint32_t& requestSize);

// PrintingCmdAnswer with a result: 108 bytes. Grows the buffer when it is shorter. False when
// memory runs out; the buffer then still holds the host's answer.
bool fillPrintingCmdAnsRequest(ByteArray& bufferCmd, std::uint32_t result, std::uint32_t sequence,
                               std::uint32_t& requestSize);

// UserDeletedPrinters with the ids of the queues, which are at least one. The request fills the
// destination exactly. False when memory runs out.
bool fillUserDeletedPrintersRequest(ByteArray& destination, const QueueBindingList& deleted);

// Looks whether a completed answer is whole, and grows the buffer to what the host asks for.
AnswerResult processAnswerFromHost(ByteArray& bufferCmd);

// The fields of an answer's header. The payload's length is the announced one, but never more than
// the buffer holds behind its header.
std::uint32_t answerSequence(const ByteArray& buffer);
std::uint32_t answerRequiredSize(const ByteArray& buffer);
std::uint32_t answerPayloadLength(const ByteArray& buffer);
const std::uint8_t* answerPayload(const ByteArray& buffer);

// Reads a command answer into a fresh PrintingCmd. False when the answer is no usable command:
// its stream does not open, it has no code, or lacks the id or the whole list that its code needs.
bool parsePrintingCmd(PrintingCmd& command, const std::uint8_t* payload,
                      std::uint32_t payloadLength);

// Reads the id of the host's default printer. False, with the id unchanged, when the first item is
// no PrinterId.
bool parseDefaultPrinterAnswer(std::string& printerId, const std::uint8_t* payload,
                               std::uint32_t payloadLength);

}  // namespace qnt
