#include "log/log_file.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <mutex>

#include "log/log_time.h"
#include "posix/unique_fd.h"

namespace qnt {
namespace {

constexpr int kLowestLogFd = 3;  // 0 to 2 are the standard streams, which the tools inherit

using Path = char[kLogPathSize];

// Any thread.
std::atomic<int> g_openFd{-1};  // g_logFd while a file is open there, else -1
std::atomic<std::time_t> g_lastCheck{0};
// The log's path: one of g_paths. The text of the one before it stays until the next placement, so
// that a signal handler can use it while the placement changes.
std::atomic<const char*> g_path{""};

std::mutex g_placementMutex;

// Guarded by g_placementMutex.
int g_logFd = -1;  // the log's descriptor number, chosen when a file is first opened
bool g_fallbackTaken = false;
Path g_directory = "";  // empty: the next record starts again with the default placement
Path g_paths[2] = {"", ""};
Path g_userDir = "";

// Truncates what does not fit.
__attribute__((format(printf, 2, 3))) void formatPath(Path& path, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(path, sizeof path, format, arguments);
    va_end(arguments);
}

bool installAsLogFd(const UniqueFd& file) {
    if (!file.isOpen())
        return false;
    const int fd = g_logFd == -1 ? fcntl(file.get(), F_DUPFD_CLOEXEC, kLowestLogFd)
                                 : dup3(file.get(), g_logFd, O_CLOEXEC);
    if (fd == -1)
        return false;
    g_logFd = fd;
    return true;
}

// If no O_PATH descriptor can be opened, the old file stays open at the log's number until the next
// opening, but no record is sent there.
void closeFile() {
    if (g_openFd.exchange(-1) != -1)
        installAsLogFd(UniqueFd(open("/", O_PATH | O_CLOEXEC)));
}

void setPlacement(const char* directory, const char* fileName) {
    Path& next = g_path == g_paths[0] ? g_paths[1] : g_paths[0];
    formatPath(g_directory, "%s", directory);
    formatPath(next, "%s/%s", directory, fileName);
    g_path = next;
    g_fallbackTaken = false;
    closeFile();
}

const char* ensurePath() {
    if (g_directory[0] == '\0')
        setPlacement(kDefaultLogDirectory, kLogFileName);
    return g_path;
}

const char* ensureUserDir() {
    if (g_userDir[0] != '\0')
        return g_userDir;
    const passwd* user = getpwuid(geteuid());
    if (user == nullptr || user->pw_dir == nullptr || user->pw_dir[0] == '\0')
        return g_userDir;
    formatPath(g_userDir, "%s/.quintaris", user->pw_dir);
    if (mkdir(g_userDir, kUserLogDirMode) != 0 && errno != EEXIST)
        g_userDir[0] = '\0';
    return g_userDir;
}

bool isOpenAt(int fd, const char* path) {
    struct stat named {};
    struct stat opened {};
    return stat(path, &named) == 0 && fstat(fd, &opened) == 0 && named.st_dev == opened.st_dev &&
           named.st_ino == opened.st_ino;
}

bool openAndInstall(const char* path) {
    if (!installAsLogFd(UniqueFd(logFileOpen(path))))
        return false;
    g_openFd = g_logFd;
    return true;
}

// Opens the path, or switches to the user directory, once per placement. Without a user directory
// the path is quintaris.log under the root directory, and as long as that can't be opened, each
// record tries the default placement again. Returns the log's descriptor, or -1.
int openOrFallBack() {
    if (openAndInstall(ensurePath()))
        return g_logFd;
    if (g_fallbackTaken)
        return -1;
    setPlacement(ensureUserDir(), kLogFileName);
    g_fallbackTaken = true;
    return openAndInstall(g_path) ? g_logFd : -1;
}

int openFirst() {
    const std::lock_guard lock(g_placementMutex);
    const int fd = g_openFd;
    return fd != -1 ? fd : openOrFallBack();
}

int reopenIfMoved(int fd) {
    const std::unique_lock lock(g_placementMutex, std::try_to_lock);
    if (!lock.owns_lock() || isOpenAt(fd, g_path))
        return fd;
    return openOrFallBack();
}

// Takes no lock and installs nothing. If the file has been moved, the record goes to a new file at
// its path, which the next other record opens. As for other records, the file is not compared with
// its path again in the same second.
ssize_t writeInSignalHandler(const char* record, std::size_t length) {
    const int fd = g_openFd;
    if (fd != -1 && (g_lastCheck == std::time(nullptr) || isOpenAt(fd, g_path)))
        return write(fd, record, length);
    const UniqueFd file(logFileOpen(g_path));
    return write(file.isOpen() ? file.get() : fd, record, length);
}

}  // namespace

int logFileOpen(const char* path) {
    const int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, kLogFileMode);
    if (fd != -1)
        fchmod(fd, kLogFileMode);
    return fd;
}

void logFileSetPlacement(const char* directory, const char* fileName) {
    const std::lock_guard lock(g_placementMutex);
    setPlacement(directory, fileName);
}

const char* logFilePath() {
    const std::lock_guard lock(g_placementMutex);
    return ensurePath();
}

const char* logUserDir() {
    const std::lock_guard lock(g_placementMutex);
    return ensureUserDir();
}

int logFileDescriptor() {
    const int fd = g_openFd;
    if (fd == -1)
        return openFirst();
    const std::time_t now = std::time(nullptr);
    if (g_lastCheck == now || g_lastCheck.exchange(now) == now)
        return fd;
    return reopenIfMoved(fd);
}

int logFileWrite(const char* record, std::int32_t length) {
    const auto size = static_cast<std::size_t>(length);
    if (SignalLogScope::active())
        return static_cast<int>(writeInSignalHandler(record, size));
    const int fd = logFileDescriptor();
    return fd == -1 ? -1 : static_cast<int>(write(fd, record, size));
}

}  // namespace qnt
