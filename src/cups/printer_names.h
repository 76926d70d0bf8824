// The way of outside text (names, ids, models) into a shell command line. Nothing else puts such
// text there.

#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace qnt {

// CUPS cuts a device URI at 1023 bytes, and the listing reads lines of as many: a queue name of 127
// bytes, a blank, the id and a newline.
inline constexpr std::size_t kLongestId = 894;

// What the ids of host printers begin with, which tells their queues from the guest's own.
inline constexpr std::string_view kHostIdStart = "TAG";

// Whether a printer id can be told from all others once it stands in a queue's device URI. One that
// does not begin as a host printer's does could be that of a USB printer of the guest's own. And
// the listing cuts the id out of a line at white space and behind the last "="; one that holds
// these, or is too long, would be taken for another printer's. The empty id stands for all.
bool isValidPrinterId(std::string_view id);

// Not isValidPrinterId, with a record.
bool rejectInvalidId(const std::string& id);

// The shell word of a queue name; none, with a record, when it can't be one.
std::optional<std::string> quotedQueueName(const std::string& queueName);

// Queue names are printer names with each blank, the byte 0x20 alone, replaced.
std::string queueNameFor(std::string name);

}  // namespace qnt
