// Log records: one line of text each, composed on the caller's stack and passed to the sink in one
// piece. Composing a record takes no lock except libc's and allocates nothing.
//
// A record reads
//   11-16 18:12:11.042 I /qntspooler:812:32c/ [PRINTING_TOOL] Unsupported data skipped, ...
// that is: local time, level mark, tag, process id, kernel thread id in hexadecimal, prefix in
// brackets if there is one, message, newline.
//
// Outside of log/, the service uses logNoMemory, the level and the macros below; the rest of the
// fixed interface is for the tests and other sinks.

#pragma once

#include <cstddef>
#include <cstdint>

namespace qnt {

inline constexpr std::size_t kRecordBufferSize = 4096;  // bytes, with the NUL terminator
inline constexpr std::size_t kRecordMaxText = 4094;     // bytes before the record's newline
inline constexpr std::size_t kTimeBufferSize = 128;     // bytes that logFormatTime requires

inline constexpr char kServiceTag[] = "qntspooler";  // the request device has another one

// How important a record is. A record is written if the current level includes it.
enum LogLevel : std::int32_t {
    kLogAlways = 0,  // errors, start, stop, changes of queues and of the default
    kLogWarning = 1,
    kLogInfo = 2,
    kLogDetail = 3,  // CUPS command lines, names and sizes
};

// Receives a finished record and its length in bytes, newline included. Runs on the thread that
// logs. The result is ignored.
using LogSink = int (*)(const char* record, std::int32_t length);

// Writes one record to the sink; it is QNT_LOG that compares the levels. Takes a printf format. The
// service passes only a LogLevel; any other number gets the mark of the nearest. Any thread;
// preserves errno; not cancelled meanwhile. A record that can't be written is lost silently. A
// record that is too long is truncated and still ends in a newline.
void logRecord(const char* prefix, const char* tag, std::int32_t level, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// The current level, a LogLevel. Setting -1 sets kLogWarning, the level before any call. To be set
// before other threads start; they only read it.
void logSetLevel(std::int32_t level);
std::int32_t logGetLevel();

// Replaces the sink, which is logFileWrite at first. To be called before other threads start.
void logSetSink(LogSink sink);

// Writes the wall clock's local time, "11-16 18:12:11.042 " with its trailing blank and a NUL
// terminator, into a buffer of at least kTimeBufferSize bytes. Returns the number of characters.
std::size_t logFormatTime(char* buffer);

// Writes "Not enough memory for OPERATION" at kLogAlways.
void logNoMemory(const char* operation, const char* prefix = "");

}  // namespace qnt

// Writes a record of this LogLevel if the current level includes it: QNT_LOG with the service's
// tag, QNT_LOG_AS with a prefix and tag as for logRecord. Arguments are evaluated only for a record
// that is written.
#define QNT_LOG_AS(prefix, tag, level, ...) \
    (::qnt::logGetLevel() >= (level) ? ::qnt::logRecord(prefix, tag, level, __VA_ARGS__) : void())
#define QNT_LOG(level, ...) QNT_LOG_AS("", ::qnt::kServiceTag, level, __VA_ARGS__)
