// Keeps the records of this process: the level's mark and the message of each.

#pragma once

#include <mutex>
#include <string>

#include "log/log_record.h"

namespace qnt {

struct CapturedLog {
    explicit CapturedLog(std::int32_t level = 3) {
        clear();
        logSetLevel(level);
        logSetSink(keep);
    }
    static int keep(const char* record, std::int32_t length) {
        const std::string line(record, static_cast<std::size_t>(length));
        const std::lock_guard lock(mutex);
        text += line.substr(19, 2) + line.substr(line.find("/ ") + 2);
        return length;
    }
    static void clear() {
        const std::lock_guard lock(mutex);
        text.clear();
    }

    static inline std::mutex mutex;
    static inline std::string text;
};

}  // namespace qnt
