// The log file: its place, and its reopening after it has been removed, moved or replaced.
//
// Writers take no lock, so one may use a descriptor number while another thread reopens the file.
// The log therefore keeps one number for the life of the process: reopening is an atomic dup3(2)
// onto it, and closing puts an O_PATH descriptor there, on which every write fails. A write through
// the number reaches the log file, old or new, or fails; the number never belongs to another file.
//
// Opening and placement are serialised by a mutex that the common path never takes: a thread that
// finds it held continues with the open file, and waits only when there is none. Signal handlers
// never take it (see SignalLogScope): they open a moved file for one record.
//
// The service itself only calls logFileWrite, through the sink of log_record.h.

#pragma once

#include <cstddef>
#include <cstdint>

namespace qnt {

inline constexpr std::size_t kLogPathSize = 1024;  // bytes, with the NUL terminator
inline constexpr char kDefaultLogDirectory[] = "/var/log";
inline constexpr char kLogFileName[] = "quintaris.log";
inline constexpr unsigned kLogFileMode = 0666;  // fixed: any user of the guest can write to it
inline constexpr unsigned kUserLogDirMode = 0755;

// Appends a record to the log file with one write call; a short write is not completed. Returns
// the result of the write, or -1 when no file could be opened. Any thread.
int logFileWrite(const char* record, std::int32_t length);

// Returns the open descriptor, after opening, reopening or falling back to the user directory as
// needed; -1 when no file can be opened. Compares the file with its path at most once a second.
// The log owns the descriptor: callers must not close it. Any thread.
int logFileDescriptor();

// Closes the log file and sets where the next record opens it; each text is truncated to 1023
// bytes. Permits one fallback to the user directory again. Any thread.
void logFileSetPlacement(const char* directory, const char* fileName);

// Returns the log file's path, by default quintaris.log in /var/log. The log owns the text. A
// fallback to the user directory or a new placement overwrites it, so no other thread may write
// records or set the placement while the text is used.
const char* logFilePath();

// Opens a file for appending and sets its mode to 0666, not limited by the umask or an earlier
// mode. Returns a descriptor that the caller owns, or -1.
[[nodiscard]] int logFileOpen(const char* path);

// Returns the directory .quintaris in the effective user's home directory, created if missing;
// empty on failure. The log owns the text, which does not change once it is not empty. Any thread.
const char* logUserDir();

}  // namespace qnt
