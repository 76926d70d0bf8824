// Log records: one line of text each, composed on the caller's stack and handed to the sink in
// one piece. Nothing here takes a lock or allocates.
//
// A record reads
//   11-16 18:12:11.042 I /qntspooler:812:32c/ [PRINTING_TOOL] Unsupported data skipped, ...
// that is: local time, level mark, tag, process id, kernel thread id in hexadecimal, prefix in
// brackets when there is one, message, newline.

#pragma once

#include <cstddef>
#include <cstdint>

namespace qnt {

inline constexpr std::size_t kRecordBufferSize = 4096;  // bytes, the ending zero included
inline constexpr std::size_t kRecordMaxText = 4094;     // bytes before the record's newline
inline constexpr std::size_t kTimeBufferSize = 128;     // bytes, what logFormatTime asks for

// The tag of every record but those of the request device.
inline constexpr char kServiceTag[] = "qntspooler";

// Receives a finished record: its bytes, newline included, and their number. Called on the thread
// that logs. Nobody reads the result.
using LogSink = int (*)(const char* record, std::int32_t length);

// Writes one record to the sink, whatever the level in force: a call site that writes a record of
// level 1 to 3 tests logGetLevel() first. Takes a printf format. May be called from any thread;
// errno is kept, and the calling thread is not cancelled meanwhile. A record that can't be written
// is lost silently. Too long a record is cut at its end and still ends in its newline.
void logRecord(const char* prefix, const char* tag, std::int32_t level, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// The level in force: 0 errors and the lines of start and stop, 1 warnings, 2 information,
// 3 detail. -1 stores 1, the level of a program that sets none. To be set before other threads
// start; they only read it.
void logSetLevel(std::int32_t level);
std::int32_t logGetLevel();

// Replaces the sink, which is logFileWrite at first. To be called before other threads start.
void logSetSink(LogSink sink);

// Writes the wall clock's local time, "11-16 18:12:11.042 " with its blank, into a buffer of at
// least kTimeBufferSize bytes, ended by a zero. Returns the number of characters.
std::size_t logFormatTime(char* buffer);

}  // namespace qnt
