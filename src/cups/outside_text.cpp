#include "cups/outside_text.h"

#include <algorithm>

#include "log/log_record.h"

namespace qnt {
namespace {

constexpr std::string_view kNeverInIds("\0\t\n\v\f\r =", 8);
constexpr std::string_view kSedSpecials = R"(\[.*^$/)";

bool holds(std::string_view text, char byte) {
    return text.find(byte) != std::string_view::npos;
}

}  // namespace

std::optional<std::string> shellWord(std::string_view text) {
    if (holds(text, '\0'))
        return std::nullopt;
    std::string word = "'";
    for (const char byte : text) {
        if (byte == '\'')
            word += R"('\'')";
        else
            word += byte;
    }
    return word += '\'';
}

std::optional<std::string> sedPattern(std::string_view text) {
    if (holds(text, '\0') || holds(text, '\n'))
        return std::nullopt;
    std::string pattern;
    for (const char byte : text) {
        if (holds(kSedSpecials, byte))
            pattern += '\\';
        pattern += byte;
    }
    return pattern;
}

bool isCarriableId(std::string_view id) {
    return (id.empty() || id.starts_with(kHostIdStart)) && id.size() <= kLongestId &&
           id.find_first_of(kNeverInIds) == std::string_view::npos;
}

bool refusesId(const std::string& id) {
    if (isCarriableId(id))
        return false;
    logRecord("", kServiceTag, 0, "Refused printer id '%s': no queue can be bound to it",
              id.c_str());
    return true;
}

std::optional<std::string> queueWord(const std::string& queueName) {
    auto word = shellWord(queueName);
    if (!word)
        logRecord("", kServiceTag, 0, "Refused queue name '%s': it holds a zero byte",
                  queueName.c_str());
    return word;
}

std::string withoutBlanks(std::string name) {
    std::replace(name.begin(), name.end(), ' ', '_');
    return name;
}

}  // namespace qnt
