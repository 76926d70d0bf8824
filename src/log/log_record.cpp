#include "log/log_record.h"

#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string_view>

#include "log/log_file.h"
#include "log/log_time.h"
#include "posix/cancel_guard.h"

namespace qnt {
namespace {

constexpr std::int32_t kInitialLevel = kLogWarning;
constexpr const char* kLevelMarks[kLogDetail + 1] = {"F ", "W ", "I ", "D "};

std::int32_t g_level = kInitialLevel;
LogSink g_sink = logFileWrite;

const char* levelMark(std::int32_t level) {
    return kLevelMarks[std::clamp<std::int32_t>(level, kLogAlways, kLogDetail)];
}

// Cached per thread: two system calls would cost as much as the rest of a record.
struct ThreadIds {
    pid_t process = 0;
    pid_t thread = 0;
};

thread_local ThreadIds t_ids;

const ThreadIds& threadIds() {
    if (t_ids.process == 0)
        t_ids = {getpid(), gettid()};
    return t_ids;
}

// Restores errno at the end of the scope, also when an exception passes.
class ErrnoGuard {
public:
    ErrnoGuard() : m_saved(errno) {}
    ~ErrnoGuard() { errno = m_saved; }
    ErrnoGuard(const ErrnoGuard&) = delete;
    ErrnoGuard& operator=(const ErrnoGuard&) = delete;

private:
    const int m_saved;
};

// A record under composition. What does not fit is truncated.
class RecordBuffer {
public:
    void appendTime() { m_length = logFormatTime(m_text); }

    void append(std::string_view text) {
        const std::size_t length = std::min(text.size(), sizeof m_text - 1 - m_length);
        std::memcpy(m_text + m_length, text.data(), length);
        m_length += length;
    }

    void appendNumber(pid_t value, int base) {
        char digits[16];
        const auto written = std::to_chars(digits, digits + sizeof digits, value, base);
        append({digits, written.ptr});
    }

    void appendFormatted(const char* format, va_list arguments) {
        const int wanted =
            std::vsnprintf(m_text + m_length, sizeof m_text - m_length, format, arguments);
        if (wanted > 0)
            m_length = std::min(m_length + static_cast<std::size_t>(wanted), sizeof m_text - 1);
    }

    void deliver(LogSink sink) {
        m_length = std::min(m_length, kRecordMaxText);
        m_text[m_length++] = '\n';
        sink(m_text, static_cast<std::int32_t>(m_length));
    }

private:
    char m_text[kRecordBufferSize];
    std::size_t m_length = 0;
};

void appendWriter(RecordBuffer& record, const char* tag) {
    const ThreadIds& ids = threadIds();
    record.append("/");
    record.append(tag);
    record.append(":");
    record.appendNumber(ids.process, 10);
    record.append(":");
    record.appendNumber(ids.thread, 16);
    record.append("/ ");
}

void appendPrefix(RecordBuffer& record, const char* prefix) {
    if (prefix[0] == '\0')
        return;
    const bool bracketed = prefix[0] == '[';
    record.append(bracketed ? "" : "[");
    record.append(prefix);
    record.append(bracketed ? " " : "] ");
}

}  // namespace

void logSetLevel(std::int32_t level) {
    g_level = level == -1 ? kInitialLevel : level;
}

std::int32_t logGetLevel() {
    return g_level;
}

void logSetSink(LogSink sink) {
    g_sink = sink;
}

std::size_t logFormatTime(char* buffer) {
    timeval now{};
    gettimeofday(&now, nullptr);
    char second[kLocalSecondSize];
    formatLocalSecond(now.tv_sec, second);
    const auto milliseconds = static_cast<int>(now.tv_usec / 1000);
    char* end = stpcpy(buffer, second);
    *end++ = '.';
    *end++ = static_cast<char>('0' + milliseconds / 100);
    *end++ = static_cast<char>('0' + milliseconds / 10 % 10);
    *end++ = static_cast<char>('0' + milliseconds % 10);
    *end++ = ' ';
    *end = '\0';
    return static_cast<std::size_t>(end - buffer);
}

void logRecord(const char* prefix, const char* tag, std::int32_t level, const char* format, ...) {
    const ErrnoGuard errnoGuard;
    const CancelGuard cancelGuard;
    RecordBuffer record;
    record.appendTime();
    record.append(levelMark(level));
    appendWriter(record, tag);
    appendPrefix(record, prefix);
    va_list arguments;
    va_start(arguments, format);
    record.appendFormatted(format, arguments);
    va_end(arguments);
    record.deliver(g_sink);
}

void logNoMemory(const char* operation, const char* prefix) {
    logRecord(prefix, kServiceTag, kLogAlways, "Not enough memory for %s", operation);
}

}  // namespace qnt
