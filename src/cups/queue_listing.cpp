#include "cups/queue_listing.h"

#include <algorithm>
#include <optional>
#include <string_view>

#include "cups/printer_names.h"
#include "posix/shell_command.h"

namespace qnt {
namespace {

constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";

// lpstat prints "device for QUEUE: URI"; sed prints "QUEUE ID". A valid id always has a pattern and
// a quoted form.
std::string filterCommand(const std::string& id) {
    const std::string pattern =
        id.empty() ? std::string(kHostIdStart) + ".*" : sedPattern(id).value();
    const std::string program = R"(s/device for \(.*\): usb:.*=\()" + pattern + R"(\)$/\1 \2/p)";
    return " | sed -n " + shellQuote(program).value();
}

// lpstat exits with 0 if CUPS has answered with at least one queue, otherwise with 1. For a CUPS
// without queues, it prints the text with which cupsd itself has answered.
std::string answeredListCommand() {
    return "list=$(LANG=C lpstat -v 2>&1); "
           "case $?$list in 0*'device for '*|'1lpstat: No destinations added.') ;; "
           "*) exit 1 ;; esac; "
           "printf '%s\\n' \"$list\"" +
           filterCommand({});
}

std::string_view nextField(std::string_view& line) {
    line.remove_prefix(std::min(line.find_first_not_of(kWhiteSpace), line.size()));
    const std::string_view field = line.substr(0, line.find_first_of(kWhiteSpace));
    line.remove_prefix(field.size());
    return field;
}

void appendBinding(QueueBindingList& queues, std::string_view line) {
    const std::string_view queueName = nextField(line);
    const std::string_view id = nextField(line);
    // lpstat also lists the instances of a queue, as QUEUE/INSTANCE.
    const bool isQueue = queueName.find('/') == std::string_view::npos;
    if (!id.empty() && isQueue)
        queues.push_back({std::string(id), std::string(queueName)});
}

// The command's exit status, or nothing if it could not be started.
std::optional<int> appendListed(QueueBindingList& queues, const std::string& command) {
    CommandOutput output;
    if (!output.open(command))
        return std::nullopt;
    char line[kLineBufferSize];
    while (output.readLine(line))
        appendBinding(queues, line);
    return output.close();
}

}  // namespace

bool listPrinterQueues(QueueBindingList& queues, const std::string& id) {
    return isValidPrinterId(id) &&
           appendListed(queues, "LANG=C lpstat -v" + filterCommand(id)).has_value();
}

bool listQueuesIfAnswered(QueueBindingList& queues) {
    return appendListed(queues, answeredListCommand()) == 0;
}

bool getHostPrinterQueues(QueueBindingList& queues, std::int32_t flags) {
    if ((flags & kListHostQueues) == 0)
        return true;
    return listPrinterQueues(queues, std::string());
}

}  // namespace qnt
