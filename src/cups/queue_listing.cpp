#include "cups/queue_listing.h"

#include <algorithm>
#include <string_view>

#include "cups/printer_names.h"
#include "posix/shell_command.h"

namespace qnt {
namespace {

constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";

// lpstat prints "device for QUEUE: URI"; sed prints "QUEUE ID". A valid id always has a pattern and
// a quoted form.
std::string listCommand(const std::string& id) {
    const std::string pattern =
        id.empty() ? std::string(kHostIdStart) + ".*" : sedPattern(id).value();
    const std::string program = R"(s/device for \(.*\): usb:.*=\()" + pattern + R"(\)$/\1 \2/p)";
    return "LANG=C lpstat -v | sed -n " + shellQuote(program).value();
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

}  // namespace

bool listPrinterQueues(QueueBindingList& queues, const std::string& id) {
    CommandOutput output;
    if (!isValidPrinterId(id) || !output.open(listCommand(id)))
        return false;
    char line[kLineBufferSize];
    while (output.readLine(line))
        appendBinding(queues, line);
    output.close();
    return true;
}

bool getHostPrinterQueues(QueueBindingList& queues, std::int32_t flags) {
    if ((flags & kListHostQueues) == 0)
        return true;
    return listPrinterQueues(queues, std::string());
}

}  // namespace qnt
