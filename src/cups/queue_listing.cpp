#include "cups/queue_listing.h"

#include <algorithm>
#include <optional>
#include <string_view>

#include "cups/printer_names.h"
#include "posix/shell_command.h"

namespace qnt {
namespace {

constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";

// lpstat prints "device for QUEUE: URI"; sed keeps "QUEUE ID".
std::optional<std::string> listCommand(const std::string& id) {
    const auto pattern = id.empty() ? std::string(kHostIdStart) + ".*" : sedPattern(id);
    if (!pattern || !isValidPrinterId(id))
        return std::nullopt;
    const auto program =
        shellQuote(R"(s/device for \(.*\): usb:.*=\()" + *pattern + R"(\)$/\1 \2/p)");
    return "LANG=C lpstat -v | sed -n " + *program;
}

std::string_view takeWord(std::string_view& line) {
    line.remove_prefix(std::min(line.find_first_not_of(kWhiteSpace), line.size()));
    const std::string_view word = line.substr(0, line.find_first_of(kWhiteSpace));
    line.remove_prefix(word.size());
    return word;
}

void appendBinding(QueueBindingList& queues, std::string_view line) {
    const std::string_view queueName = takeWord(line);
    const std::string_view id = takeWord(line);
    // lpstat lists a queue's instances as well, as QUEUE/INSTANCE.
    const bool isQueue = queueName.find('/') == std::string_view::npos;
    if (!id.empty() && isQueue)
        queues.push_back({std::string(id), std::string(queueName)});
}

}  // namespace

bool listPrinterQueues(QueueBindingList& queues, const std::string& id) {
    const auto command = listCommand(id);
    CommandOutput output;
    if (!command || !output.open(*command))
        return false;
    char piece[kOutputPieceSize];
    while (output.readLine(piece))
        appendBinding(queues, piece);
    output.close();
    return true;
}

bool getHostPrinterQueues(QueueBindingList& queues, std::int32_t flags) {
    if ((flags & kListHostQueues) == 0)
        return true;
    return listPrinterQueues(queues, std::string());
}

}  // namespace qnt
