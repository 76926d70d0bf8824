#include "log/log_time.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>

namespace qnt {
namespace {

// Read by a handler, so it must not be allocated lazily: in a program it lies in static TLS.
thread_local volatile bool t_inSignalHandler = false;

struct LocalSecond {
    bool known = false;
    std::time_t second = 0;
    char text[kLocalSecondSize] = "";
};

thread_local LocalSecond t_last;

// Seconds east of UTC, as libc last told.
std::atomic<long> g_zoneOffset{0};
static_assert(std::atomic<long>::is_always_lock_free, "a signal handler reads it");

void formatWithoutLibc(std::time_t second, char (&text)[kLocalSecondSize]) {
    using std::chrono::days;
    const std::chrono::sys_seconds local{std::chrono::seconds{second + g_zoneOffset.load()}};
    const auto midnight = std::chrono::floor<days>(local);
    const std::chrono::year_month_day date{midnight};
    const std::chrono::hh_mm_ss time{local - midnight};
    std::snprintf(text, sizeof text, "%02u-%02u %02u:%02u:%02u", unsigned{date.month()} % 100,
                  unsigned{date.day()} % 100, static_cast<unsigned>(time.hours().count()) % 100,
                  static_cast<unsigned>(time.minutes().count()) % 100,
                  static_cast<unsigned>(time.seconds().count()) % 100);
}

void formatWithLibc(std::time_t second, char (&text)[kLocalSecondSize]) {
    std::tm local{};
    localtime_r(&second, &local);
    g_zoneOffset.store(local.tm_gmtoff);
    std::strftime(text, sizeof text, "%m-%d %H:%M:%S", &local);
}

}  // namespace

void formatLocalSecond(std::time_t second, char (&text)[kLocalSecondSize]) {
    if (SignalLogScope::active()) {
        formatWithoutLibc(second, text);
        return;
    }
    if (!t_last.known || t_last.second != second) {
        formatWithLibc(second, t_last.text);
        t_last.second = second;
        t_last.known = true;
    }
    std::memcpy(text, t_last.text, sizeof text);
}

SignalLogScope::SignalLogScope() : m_outer(t_inSignalHandler) {
    t_inSignalHandler = true;
}

SignalLogScope::~SignalLogScope() {
    t_inSignalHandler = m_outer;
}

bool SignalLogScope::active() {
    return t_inSignalHandler;
}

}  // namespace qnt
