// The log file behind the records: where it lies, and its reopening when it has been removed,
// moved away or replaced.
//
// Records are written without a lock, so a thread may still hold the descriptor that it has
// fetched while another one reopens the file. No record can go astray for it: the log owns one
// descriptor number from its first successful opening to the end of the process. Reopening puts
// another open file behind that number with dup3, which the kernel does in one step, and closing
// puts a descriptor behind it that can't be written. At every instant a write through the number
// therefore reaches the log file, old or new, or fails; the number never belongs to anything else.
//
// Opening and changing the place happen one thread at a time, by a flag that the common path does
// not look at: a thread that finds it taken goes on with the open file, and waits only where there
// is none. Signal handlers never take it (see SignalLogScope).

#pragma once

#include <cstddef>
#include <cstdint>

namespace qnt {

inline constexpr std::size_t kLogPathSize = 1024;  // bytes, the ending zero included
inline constexpr char kDefaultLogDirectory[] = "/var/log";
inline constexpr char kLogFileName[] = "quintaris.log";
inline constexpr unsigned kLogFileMode = 0666;
inline constexpr unsigned kUserLogDirMode = 0755;

// Appends a record to the log file with one write call; a short write is not completed. Returns
// the result of the write, or -1 when no file could be had. Any thread.
int logFileWrite(const char* record, std::int32_t length);

// The open descriptor, opening, reopening or falling back to the user directory as needed; -1
// when no file can be opened. Compares the file with its path at most once a second. The number
// stays the log's: nobody else closes it. Any thread.
int logFileDescriptor();

// Closes the log file and sets where the next record opens it, each text cut to 1023 bytes. The
// fallback to the user directory is possible again. Any thread.
void logFileSetPlacement(const char* directory, const char* fileName);

// The log file's path, by default quintaris.log in /var/log. The text is the log's own and
// changes when the place does.
const char* logFilePath();

// Opens a file for appending and forces its mode to 0666, whatever the umask or an earlier mode.
// Returns a descriptor that the caller owns, or -1.
int logFileOpen(const char* path);

// The directory .quintaris under the effective user's home directory, created if missing; empty
// when it can't be had. The text is the log's own.
const char* logUserDir();

}  // namespace qnt
