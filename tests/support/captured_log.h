// Keeps the records of this process: the level's mark and the message of each.

#pragma once

#include <string>

#include "log/log_record.h"

namespace qnt {

inline std::string g_logged;

// Forgets earlier records. For one thread.
inline void captureLog() {
    g_logged.clear();
    logSetLevel(kLogDetail);
    logSetSink([](const char* record, std::int32_t length) {
        const std::string line(record, static_cast<std::size_t>(length));
        g_logged += line.substr(19, 2) + line.substr(line.find("/ ") + 2);
        return length;
    });
}

}  // namespace qnt
