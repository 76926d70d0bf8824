#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <sstream>
#include <thread>

#include "app/service.h"
#include "log/log_file.h"
#include "log/log_record.h"
#include "log/log_time.h"
#include "sim/private_cups.h"

namespace {
// Replaces time() and gettimeofday() at link time: seconds that pass at each call, or when a test
// changes them.
std::atomic<std::time_t> g_now{1};
std::atomic<std::time_t> g_secondsPerCall{0};
const int g_zoneSet = setenv("TZ", "XST-5:45", 1);
}  // namespace

extern "C" {
std::time_t __wrap_time(std::time_t*) {
    return g_now += g_secondsPerCall;
}
int __wrap_gettimeofday(timeval* now, void*) {
    *now = {__wrap_time(nullptr), 403999};
    return 0;
}
}

namespace qnt {
namespace {

namespace fs = std::filesystem;
using Texts = std::vector<std::string>;

Texts lines(const fs::path& file, const std::string& from = "") {
    Texts all;
    std::ifstream stream(file);
    for (std::string line; std::getline(stream, line);)
        all.push_back(line.substr(from.empty() ? 0 : line.find(from) + from.size()));
    return all;
}

Texts messages(const fs::path& file) {
    return lines(file, "/ ");
}

void log(const std::string& message) {
    logRecord("", kServiceTag, 0, "%s", message.c_str());
}

void logInHandler(const std::string& message) {
    const SignalLogScope signalLogScope;
    log(message);
}

void inThreads(int number, const std::function<void(int)>& work) {
    std::vector<std::jthread> threads;
    for (int i = 0; i < number; ++i)
        threads.emplace_back(work, i);
}

struct Log : testing::Test {
    Log() {
        logFileSetPlacement(folder.c_str(), kLogFileName);
        logSetSink(logFileWrite);
    }

    // Runs a process that has the folder for its root, with a user 4242 whose home is in it, and
    // where no place has been chosen for the log.
    void asUser(uid_t user, const std::string& prepare, const std::function<void()>& work) const {
        const std::string system =
            "rm -rf * && mkdir -p var/log etc home && chmod 755 . && chown 4242 home &&"
            "echo user:x:4242:4242::/home: >etc/passwd &&";
        ASSERT_EQ(std::system(("cd " + folder.string() + " && " + system + prepare).c_str()), 0);
        const pid_t child = fork();
        if (child == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            EXPECT_EQ(chroot(folder.c_str()) + setgid(user) + setuid(user), 0);
            logFileSetPlacement("", "");
            work();
            _exit(HasFailure());
        }
        int status = -1;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
    }

    const sim::TemporaryFolder temporary;
    const fs::path folder = temporary.path;
    const fs::path file = folder / kLogFileName;
};

TEST_F(Log, WritesTheFieldsOfARecordInTheirOrder) {
    const char* const prefixes[][2] = {{"", ""}, {"P", "[P] "}, {"[P", "[P "}};
    g_now = 320 * 86400 - 5 * 3600 - 45 * 60 + 11;
    Texts expected;
    inThreads(1, [&](int) {
        std::ostringstream writer;
        writer << " /tag:" << getpid() << ':' << std::hex << gettid() << "/ ";
        for (const int level : {0, 1, 2, 3})
            for (const auto& [prefix, written] : prefixes) {
                logRecord(prefix, "tag", level, "level %d", level);
                expected.push_back(std::string("11-17 00:00:11.403 ") + "FWID"[level] +
                                   writer.str() + written + "level " + std::to_string(level));
            }
        ++g_now;
        logRecord("", "tag", 0, "later");
        expected.push_back("11-17 00:00:12.403 F" + writer.str() + "later");
        setenv("TZ", "XST-7", 1);
        refreshUtcOffset();
        const SignalLogScope signalLogScope;
        logRecord("", "tag", 0, "in another zone");
        expected.push_back("11-17 01:15:12.403 F" + writer.str() + "in another zone");
        setenv("TZ", "XST-5:45", 1);
    });
    EXPECT_EQ(lines(file), expected);
    logSetLevel(-1);
    EXPECT_EQ(logGetLevel(), 1);
}

TEST_F(Log, TruncatesALongRecord) {
    const std::string endless(10000, 'x');
    log("");
    const std::size_t room = 4094 - (fs::file_size(file) - 1);
    for (const std::size_t length : {room - 1, room, room + 1, endless.size()})
        log(endless.substr(0, length));
    logRecord(endless.c_str(), "tag", 0, "message");
    logRecord("prefix", endless.c_str(), 0, "message");
    std::vector<std::size_t> sizes;
    for (const std::string& record : lines(file))
        sizes.push_back(record.size());
    EXPECT_EQ(sizes, (std::vector<std::size_t>{4094 - room, 4093, 4094, 4094, 4094, 4094, 4094}));
}

// Moves, removes or replaces the log file, whose contents stay reachable as `kept`.
void takeAway(const fs::path& file, const fs::path& kept, int way) {
    if (way % 3 == 0)
        return fs::rename(file, kept);
    fs::create_hard_link(file, kept);
    if (way % 3 == 1)
        return static_cast<void>(fs::remove(file));
    std::ofstream(file.string() + "~").flush();
    fs::rename(file.string() + "~", file);
}

TEST_F(Log, FollowsItsPathWithinASecond) {
    const fs::path old = folder / "old";
    for (const int way : {0, 1, 2}) {
        ++g_now;
        log("opened");
        log("looked at");
        takeAway(file, old, way);
        log("in the same second");
        logInHandler("stop");
        ++g_now;
        logInHandler("stop a second later");
        log("a second later");
        logInHandler("and on");
        EXPECT_EQ(messages(old), (Texts{"opened", "looked at", "in the same second", "stop"}));
        EXPECT_EQ(messages(file), (Texts{"stop a second later", "a second later", "and on"}));
        fs::remove(old);
        fs::remove(file);
    }
}

TEST_F(Log, IsWrittenToVarLogElseToHomeElseToRoot) {
    const std::tuple<uid_t, const char*, const char*, int> cases[] = {
        {0, ":", "var/log", 0755},
        {0, "umask 077; touch var/log/quintaris.log", "var/log", 0755},
        {4242, ":", "home/.quintaris", 0755},
        {4242, "mkdir -m 700 home/.quintaris; chown 4242 home/.quintaris", "home/.quintaris", 0700},
        {4242, "touch home/.quintaris", "nowhere", 0},
        {4242, "chown 0 home", "nowhere", 0},
        {4242, "chown 0 home; chmod 777 .", ".", 0777},
        {4243, ":", "nowhere", 0},
        {4243, "chmod 777 .", ".", 0777},
    };
    for (const auto& [user, prepare, place, mode] : cases) {
        asUser(user, prepare, [] {
            umask(022);
            for (const char* message : {"first", "second"}) {
                errno = EXDEV;
                log(message);
                EXPECT_EQ(errno, EXDEV);
            }
        });
        std::string found = "nowhere";
        for (const auto& entry : fs::recursive_directory_iterator(folder))
            if (entry.path().filename() == kLogFileName)
                found = entry.path().parent_path().lexically_relative(folder);
        EXPECT_EQ(found, place) << user << ' ' << prepare;
        if (found == "nowhere")
            continue;
        const fs::path log = folder / place / kLogFileName;
        EXPECT_EQ(fs::status(folder / place).permissions(), fs::perms(mode)) << prepare;
        EXPECT_EQ(fs::status(log).permissions(), fs::perms(0666)) << prepare;
        EXPECT_EQ(messages(log), (Texts{"first", "second"}));
    }
}

TEST_F(Log, LosesNoRecordWhileItsFileIsMoved) {
    constexpr int kWriters = 4, kRecordsEach = QNT_SANITIZED ? 25000 : 250000;
    constexpr int kMoves = QNT_SANITIZED ? 30 : 300;  // at least
    std::atomic<bool> ended = false;
    std::atomic<int> moves = 0;
    std::mutex mutex;
    Texts found, expected;
    g_secondsPerCall = 1;
    std::thread mover([&] {
        for (; !ended; usleep(500))
            if (fs::exists(file)) {
                takeAway(file, file.string() + std::to_string(moves), moves);
                ++moves;
            }
    });
    inThreads(kWriters, [&](int writer) {
        Texts written;
        while (std::ssize(written) < kRecordsEach || moves < kMoves) {
            written.push_back(std::to_string(writer) + ' ' + std::to_string(written.size()) +
                              std::string(written.size() % 97, '.'));
            log(written.back());
        }
        const std::lock_guard lock(mutex);
        std::ranges::copy(written, std::back_inserter(expected));
    });
    ended = true;
    mover.join();
    g_secondsPerCall = 0;
    for (const auto& entry : fs::directory_iterator(folder))
        std::ranges::copy(messages(entry), std::back_inserter(found));
    std::ranges::sort(found);
    std::ranges::sort(expected);
    EXPECT_TRUE(found == expected);
}

std::atomic<int> g_stops;

// Sends a stop signal in a moment that nothing else depends on.
void stopSoon() {
    const itimerval soon{{0, 0}, {0, 37}};
    setitimer(ITIMER_REAL, &soon, nullptr);
}

TEST_F(Log, TakesStopSignalsAtAnyInstruction) {
    constexpr int kStops = 20000;
    g_now = 0;
    asUser(0, ":", [] {
        logSetLevel(2);
        std::signal(SIGALRM, [](int signal) {
            stopSignalHandler(signal);
            if (++g_stops < kStops)
                stopSoon();
        });
        const std::time_t now = 0;
        std::tm local{};
        g_secondsPerCall = 1;
        stopSoon();
        for (int i = 0; g_stops < kStops; ++i) {
            localtime_r(&now, &local);
            log("message");
            if (i % 100 == 0)
                logFileSetPlacement("", "");
        }
    });
    int stops = 0;
    for (const std::string& line : lines(folder / "var/log/quintaris.log")) {
        stops += line.ends_with("/ Closing . . .");
        EXPECT_LE("01-01 05:45:01.403 ", line);
    }
    EXPECT_GT(stops, kStops / 10);  // it is lost where no file is open
}

}  // namespace
}  // namespace qnt
