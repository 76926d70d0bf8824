#include "cups/printer_names.h"

#include <algorithm>

#include "log/log_record.h"
#include "posix/shell_command.h"

namespace qnt {
namespace {

constexpr std::string_view kNeverInIds("\0\t\n\v\f\r =", 8);

}  // namespace

bool isValidPrinterId(std::string_view id) {
    return (id.empty() || id.starts_with(kHostIdStart)) && id.size() <= kLongestId &&
           id.find_first_of(kNeverInIds) == std::string_view::npos;
}

bool rejectInvalidId(const std::string& id) {
    if (isValidPrinterId(id))
        return false;
    logRecord("", kServiceTag, 0, "Refused printer id '%s': no queue can be bound to it",
              id.c_str());
    return true;
}

std::optional<std::string> quotedQueueName(const std::string& queueName) {
    auto word = shellQuote(queueName);
    if (!word)
        logRecord("", kServiceTag, 0, "Refused queue name '%s': it holds a zero byte",
                  queueName.c_str());
    return word;
}

std::string queueNameFor(std::string name) {
    std::replace(name.begin(), name.end(), ' ', '_');
    return name;
}

}  // namespace qnt
