#include "log/log_record.h"

#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <iterator>

#include "log/log_file.h"
#include "log/log_time.h"
#include "log/thread_guards.h"

namespace qnt {
namespace {

constexpr std::int32_t kInitialLevel = 1;
constexpr const char* kLevelMarks[] = {"F ", "W ", "I ", "D "};

std::int32_t g_level = kInitialLevel;
LogSink g_sink = logFileWrite;

const char* levelMark(std::int32_t level) {
    return kLevelMarks[std::clamp<std::int32_t>(level, 0, std::size(kLevelMarks) - 1)];
}

// A record under composition. What does not fit is cut off; the text stays zero-terminated.
class RecordBuffer {
public:
    void appendTime() { m_length = logFormatTime(m_text); }

    void appendFormatted(const char* format, va_list arguments) {
        const int wanted =
            std::vsnprintf(m_text + m_length, sizeof m_text - m_length, format, arguments);
        advance(wanted);
    }

    void append(const char* format, ...) __attribute__((format(printf, 2, 3))) {
        va_list arguments;
        va_start(arguments, format);
        appendFormatted(format, arguments);
        va_end(arguments);
    }

    void deliver(LogSink sink) {
        m_length = std::min(m_length, kRecordMaxText);
        m_text[m_length++] = '\n';
        sink(m_text, static_cast<std::int32_t>(m_length));
    }

private:
    void advance(int wanted) {
        if (wanted > 0)
            m_length = std::min(m_length + static_cast<std::size_t>(wanted), sizeof m_text - 1);
    }

    char m_text[kRecordBufferSize];
    std::size_t m_length = 0;
};

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
    const int length = std::snprintf(buffer, kTimeBufferSize, "%s.%03d ", second,
                                     static_cast<int>(now.tv_usec / 1000));
    return static_cast<std::size_t>(length);
}

void logRecord(const char* prefix, const char* tag, std::int32_t level, const char* format, ...) {
    const ErrnoKept errnoKept;
    const CancellationOff cancellationOff;
    RecordBuffer record;
    record.appendTime();
    record.append("%s", levelMark(level));
    record.append("/%s:%lld:%x/ ", tag, static_cast<long long>(getpid()),
                  static_cast<unsigned>(syscall(SYS_gettid)));
    if (prefix[0] != '\0')
        record.append(prefix[0] == '[' ? "%s " : "[%s] ", prefix);
    va_list arguments;
    va_start(arguments, format);
    record.appendFormatted(format, arguments);
    va_end(arguments);
    record.deliver(g_sink);
}

}  // namespace qnt
