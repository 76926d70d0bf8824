// Rules for printer ids and queue names, which come from outside the service.

#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "posix/shell_command.h"

namespace qnt {

// Ids of host printers begin with this.
inline constexpr std::string_view kHostIdStart = "TAG";

// An id must fit into one line of the listing, together with a queue name, a blank and the newline:
// kLineBufferSize - 1 bytes. (CUPS truncates a device URI to this length as well.)
inline constexpr std::size_t kLongestQueueName = 127;  // bytes
inline constexpr std::size_t kLongestId = kLineBufferSize - 1 - kLongestQueueName - 2;

// True if an id passes unchanged through a device URI and the listing of the queues: it begins with
// kHostIdStart (otherwise it could be a local USB printer's), contains no white space, "=" or zero
// byte, and has at most kLongestId bytes. Also true for the empty id, which stands for all
// printers.
bool isValidPrinterId(std::string_view id);

// Returns isValidPrinterId; logs an id that is not valid.
[[nodiscard]] bool checkPrinterId(const std::string& id);

// True if the name, as a queue name or a description, fits into a command line; otherwise logs why
// not: it contains a zero byte or is too long.
[[nodiscard]] bool checkPrinterName(const std::string& name);

// The queue name of a printer: its name with each blank (0x20) replaced by "_".
std::string queueNameFor(std::string name);

// The form of a queue name that CUPS accepts: each byte that it refuses is replaced by "_", and a
// name longer than kLongestQueueName is truncated at the end of a UTF-8 character.
std::string acceptedQueueName(std::string queueName);

// True if CUPS takes both names for the same queue: it ignores the case of ASCII letters.
bool areSameQueue(std::string_view one, std::string_view other);

// The form of a description that CUPS can store: each carriage return and newline, which would
// begin another line of printers.conf, is replaced by a blank, and a description longer than an
// attribute of IPP, 32,767 bytes (RFC 8010, value-length), is truncated at the end of a UTF-8
// character.
std::string acceptedDescription(std::string description);

// False for a name that lpstat does not take as the name of one queue: with commas it is a list,
// "all" is every queue, and a leading "-" makes it an option. The name is not empty.
bool isOneQueueToLpstat(const std::string& queueName);

// The queue name as one shell word. Logs and returns nothing if it contains a zero byte.
std::optional<std::string> quotedQueueName(const std::string& queueName);

}  // namespace qnt
