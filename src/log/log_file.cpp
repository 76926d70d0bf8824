#include "log/log_file.h"

#include <fcntl.h>
#include <pwd.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <ctime>

#include "log/log_time.h"
#include "posix/unique_fd.h"

namespace qnt {
namespace {

constexpr int kFirstOwnNumber = 3;  // standard input, output and error reach the shell commands

// Any thread.
std::atomic<int> g_descriptor{-1};
std::atomic<std::time_t> g_lastCheck{0};
std::atomic_flag g_placing = ATOMIC_FLAG_INIT;

// The holder of g_placing.
int g_ownNumber = -1;
bool g_fallbackTaken = false;
char g_directory[kLogPathSize] = "";
char g_path[kLogPathSize] = "";
char g_userDir[kLogPathSize] = "";

// The right to open the file and to change its place.
class Placing {
public:
    enum class IfTaken { kWait, kGiveUp };

    explicit Placing(IfTaken ifTaken) {
        while (g_placing.test_and_set(std::memory_order_acquire)) {
            if (ifTaken == IfTaken::kGiveUp)
                return;
            sched_yield();
        }
        m_held = true;
    }
    ~Placing() {
        if (m_held)
            g_placing.clear(std::memory_order_release);
    }
    Placing(const Placing&) = delete;
    Placing& operator=(const Placing&) = delete;

    bool held() const { return m_held; }

private:
    bool m_held = false;
};

// Puts an open file behind the log's own number. The first time, the number is chosen.
bool putBehindOwnNumber(const UniqueFd& fresh) {
    if (!fresh.isOpen())
        return false;
    const int number = g_ownNumber == -1 ? fcntl(fresh.get(), F_DUPFD_CLOEXEC, kFirstOwnNumber)
                                         : dup3(fresh.get(), g_ownNumber, O_CLOEXEC);
    if (number == -1)
        return false;
    g_ownNumber = number;
    return true;
}

// An O_PATH descriptor refuses every write. When none is to be had, the old file stays behind the
// number until the next opening; records are no longer sent there.
void closeFile() {
    if (g_descriptor.exchange(-1) != -1)
        putBehindOwnNumber(UniqueFd(open("/", O_PATH | O_CLOEXEC)));
}

void setPlacement(const char* directory, const char* fileName) {
    std::snprintf(g_directory, sizeof g_directory, "%s", directory);
    char path[kLogPathSize + kLogPathSize];
    std::snprintf(path, sizeof path, "%s/%s", directory, fileName);
    std::snprintf(g_path, sizeof g_path, "%.*s", static_cast<int>(sizeof g_path - 1), path);
    g_fallbackTaken = false;
    closeFile();
}

const char* chosenPath() {
    if (g_directory[0] == '\0')
        setPlacement(kDefaultLogDirectory, kLogFileName);
    return g_path;
}

const char* userDir() {
    if (g_userDir[0] != '\0')
        return g_userDir;
    const passwd* user = getpwuid(geteuid());
    if (user == nullptr || user->pw_dir == nullptr || user->pw_dir[0] == '\0')
        return g_userDir;
    std::snprintf(g_userDir, sizeof g_userDir, "%s/.quintaris", user->pw_dir);
    if (mkdir(g_userDir, kUserLogDirMode) != 0 && errno != EEXIST)
        g_userDir[0] = '\0';
    return g_userDir;
}

bool isOpenOn(int descriptor, const char* path) {
    struct stat named {};
    struct stat opened {};
    return stat(path, &named) == 0 && fstat(descriptor, &opened) == 0 &&
           named.st_dev == opened.st_dev && named.st_ino == opened.st_ino;
}

bool openAndInstall(const char* path) {
    if (!putBehindOwnNumber(UniqueFd(logFileOpen(path))))
        return false;
    g_descriptor.store(g_ownNumber);
    return true;
}

int openOrFallBack(const char* path) {
    if (openAndInstall(path))
        return g_descriptor.load();
    if (g_fallbackTaken)
        return -1;
    setPlacement(userDir(), kLogFileName);
    g_fallbackTaken = true;
    return openAndInstall(g_path) ? g_descriptor.load() : -1;
}

int firstDescriptor() {
    const Placing placing(Placing::IfTaken::kWait);
    const int descriptor = g_descriptor.load();
    return descriptor != -1 ? descriptor : openOrFallBack(chosenPath());
}

int checkedDescriptor(int descriptor) {
    const Placing placing(Placing::IfTaken::kGiveUp);
    if (!placing.held() || isOpenOn(descriptor, g_path))
        return descriptor;
    return openOrFallBack(g_path);
}

}  // namespace

int logFileOpen(const char* path) {
    const int descriptor = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, kLogFileMode);
    if (descriptor != -1)
        fchmod(descriptor, kLogFileMode);
    return descriptor;
}

void logFileSetPlacement(const char* directory, const char* fileName) {
    const Placing placing(Placing::IfTaken::kWait);
    setPlacement(directory, fileName);
}

const char* logFilePath() {
    const Placing placing(Placing::IfTaken::kWait);
    return chosenPath();
}

const char* logUserDir() {
    const Placing placing(Placing::IfTaken::kWait);
    return userDir();
}

int logFileDescriptor() {
    const int descriptor = g_descriptor.load();
    if (SignalLogScope::active())
        return descriptor;
    if (descriptor == -1)
        return firstDescriptor();
    const std::time_t now = std::time(nullptr);
    if (g_lastCheck.load() == now || g_lastCheck.exchange(now) == now)
        return descriptor;
    return checkedDescriptor(descriptor);
}

int logFileWrite(const char* record, std::int32_t length) {
    const int descriptor = logFileDescriptor();
    if (descriptor == -1)
        return -1;
    return static_cast<int>(write(descriptor, record, static_cast<std::size_t>(length)));
}

}  // namespace qnt
