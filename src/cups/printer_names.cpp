#include "cups/printer_names.h"

#include <algorithm>
#include <utility>

#include "log/log_record.h"
#include "posix/shell_command.h"

namespace qnt {
namespace {

constexpr std::size_t kLongestDescription = 32767;
constexpr std::string_view kNeverInIds("\0\t\n\v\f\r =", 8);
// Leaves 4 KiB for the rest of a command line with one such name. The command that creates a queue
// has the name twice, as queue name and as description. Where both do not fit, the shell does not
// start (rc=32512): the creation fails as for a name that CUPS refuses, and is repeated with the
// accepted forms, which fit.
constexpr std::size_t kLongestQuotedName = kArgumentLimit - 4096;

// What validate_name() of lpadmin refuses in CUPS 2.4. (CUPS allows some of these bytes after an
// "@"; they are replaced there too.)
bool isRefusedByCups(char byte) {
    constexpr std::string_view kRefused = "/\\?'\"#\x7f";
    return (byte >= 0 && byte <= ' ') || kRefused.find(byte) != std::string_view::npos;
}

char lowerCase(char byte) {
    return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte;
}

bool continuesUtf8Character(char byte) {
    return (byte & 0xC0) == 0x80;
}

// Truncates the text before the character that crosses the limit; to exactly the limit where the
// text is no UTF-8, whose characters have at most 4 bytes (RFC 3629).
std::string truncated(std::string text, std::size_t limit) {
    if (text.size() <= limit)
        return text;
    std::size_t length = limit;
    while (limit - length < 3 && continuesUtf8Character(text[length]))
        --length;
    text.resize(continuesUtf8Character(text[length]) ? limit : length);
    return text;
}

}  // namespace

bool isValidPrinterId(std::string_view id) {
    return (id.empty() || id.starts_with(kHostIdStart)) && id.size() <= kLongestId &&
           id.find_first_of(kNeverInIds) == std::string_view::npos;
}

bool checkPrinterId(const std::string& id) {
    if (isValidPrinterId(id))
        return true;
    QNT_LOG(kLogAlways, "Refused printer id '%s': no queue can be bound to it", id.c_str());
    return false;
}

bool checkPrinterName(const std::string& name) {
    const auto quoted = quotedQueueName(name);
    if (!quoted)
        return false;
    if (quoted->size() <= kLongestQuotedName)
        return true;
    QNT_LOG(kLogAlways, "Refused printer name of %zu bytes: too long for a command", name.size());
    return false;
}

std::string queueNameFor(std::string name) {
    std::ranges::replace(name, ' ', '_');
    return name;
}

std::string acceptedQueueName(std::string queueName) {
    std::ranges::replace_if(queueName, isRefusedByCups, '_');
    return truncated(std::move(queueName), kLongestQueueName);
}

bool areSameQueue(std::string_view one, std::string_view other) {
    return std::ranges::equal(one, other, {}, lowerCase, lowerCase);
}

std::string acceptedDescription(std::string description) {
    std::ranges::replace_if(
        description, [](char byte) { return byte == '\n' || byte == '\r'; }, ' ');
    return truncated(std::move(description), kLongestDescription);
}

bool isOneQueueToLpstat(const std::string& queueName) {
    return queueName.front() != '-' && queueName.find(',') == std::string::npos &&
           queueName != "all";
}

std::optional<std::string> quotedQueueName(const std::string& queueName) {
    auto quoted = shellQuote(queueName);
    if (!quoted)
        QNT_LOG(kLogAlways, "Refused queue name '%s': it holds a zero byte", queueName.c_str());
    return quoted;
}

}  // namespace qnt
