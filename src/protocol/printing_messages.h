// Building the service's requests and reading the host's answers.
//
// The answer overwrites the request in the same buffer. The functions keep no state and take no
// lock. Only the parsers throw: std::bad_alloc. Records have the prefix "PRINTING_TOOL".
// A failure to grow a buffer is logged; a failure to grow an item stream is only returned.

#pragma once

#include <cstdint>
#include <string>

#include "cups/queue_listing.h"
#include "protocol/byte_array.h"

namespace qnt {

inline constexpr char kProtocolLogPrefix[] = "PRINTING_TOOL";

// A command from the host. `code` is valid only after a successful parse; `printers` is the host's
// list, with the host's names in `queueName`.
struct PrintingCmd {
    std::uint32_t code = 0;
    std::string printerId;
    QueueBindingList printers;
};

enum AnswerResult : std::uint32_t {
    AnswerNone = 0,     // the answer needs more room, which the buffer now has
    AnswerFailed = 1,   // the answer can't be used
    AnswerCommand = 2,  // the buffer holds a complete answer
};

// Write a GetPrintingCmd or PrintingCmdPending request to the first 80 bytes of a buffer, which
// must have at least 80.
void fillPrintingCmdRequest(ByteArray& bufferCmd, std::uint32_t sequence,
                            std::uint32_t& requestSize);
void fillPrintingCmdPendingRequest(ByteArray& bufferCmd, std::uint32_t& requestSize);

// Writes a GetDefaultPrinter request: overwrites the version, type and sequence in a buffer with
// storage for at least a header; all other bytes stay as they are.
void fillDefaultPrinterRequest(ByteArray& buffer, std::uint32_t sequence);

// Writes a PrintingCmdAnswer request with the result, 108 bytes. Grows a shorter buffer. False if
// there is not enough memory; the buffer then still holds the host's answer.
[[nodiscard]] bool fillPrintingCmdAnsRequest(ByteArray& bufferCmd, std::uint32_t result,
                                             std::uint32_t sequence, std::uint32_t& requestSize);

// Writes a UserDeletedPrinters request with the ids of the queues (at least one). Makes the
// destination exactly as long as the request. False if there is not enough memory.
[[nodiscard]] bool fillUserDeletedPrintersRequest(ByteArray& destination,
                                                  const QueueBindingList& deleted);

// Checks whether the answer is complete; if not, grows the buffer to the size that the host needs.
[[nodiscard]] AnswerResult processAnswerFromHost(ByteArray& bufferCmd);

// The fields of an answer's header. The payload's length is limited to what the buffer holds after
// its header.
std::uint32_t answerSequence(const ByteArray& buffer);
std::uint32_t answerRequiredSize(const ByteArray& buffer);
std::uint32_t answerPayloadLength(const ByteArray& buffer);
const std::uint8_t* answerPayload(const ByteArray& buffer);

// Parses a command answer into a default-constructed PrintingCmd. False, with a record, if the
// stream does not open, there is no code, or the id or the complete list that the code needs is
// missing.
[[nodiscard]] bool parsePrintingCmd(PrintingCmd& command, const std::uint8_t* payload,
                                    std::uint32_t payloadLength);

// Parses the id of the host's default printer. False, with a record and the id unchanged, if the
// first item is no PrinterId.
bool parseDefaultPrinterAnswer(std::string& printerId, const std::uint8_t* payload,
                               std::uint32_t payloadLength);

}  // namespace qnt
