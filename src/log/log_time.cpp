#include "log/log_time.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>

namespace qnt {
namespace {

// Read by a signal handler, so it must not be allocated lazily: an executable's TLS is static.
thread_local volatile std::sig_atomic_t t_inSignalLogScope = 0;

struct LocalSecond {
    bool known = false;
    std::time_t second = 0;
    char text[kLocalSecondSize] = "";
};

thread_local LocalSecond t_last;

// Seconds east of UTC, as last returned by libc.
std::atomic<long> g_utcOffset{0};
static_assert(std::atomic<long>::is_always_lock_free, "a signal handler reads it");

std::tm localTime(std::time_t second) {
    std::tm local{};
    localtime_r(&second, &local);
    g_utcOffset = local.tm_gmtoff;
    return local;
}

void formatFromUtcOffset(std::time_t second, char (&text)[kLocalSecondSize]) {
    using std::chrono::days;
    const std::chrono::sys_seconds local{std::chrono::seconds{second + g_utcOffset}};
    const auto midnight = std::chrono::floor<days>(local);
    const std::chrono::year_month_day date{midnight};
    const std::chrono::hh_mm_ss time{local - midnight};
    const unsigned fields[] = {unsigned{date.month()}, unsigned{date.day()},
                               static_cast<unsigned>(time.hours().count()),
                               static_cast<unsigned>(time.minutes().count()),
                               static_cast<unsigned>(time.seconds().count())};
    std::memcpy(text, "00-00 00:00:00", sizeof text);
    char* digits = text;
    for (const unsigned field : fields) {
        digits[0] = static_cast<char>('0' + field / 10);
        digits[1] = static_cast<char>('0' + field % 10);
        digits += 3;
    }
}

}  // namespace

void formatLocalSecond(std::time_t second, char (&text)[kLocalSecondSize]) {
    if (SignalLogScope::active()) {
        formatFromUtcOffset(second, text);
        return;
    }
    if (!t_last.known || t_last.second != second) {
        const std::tm local = localTime(second);
        std::strftime(t_last.text, sizeof t_last.text, "%m-%d %H:%M:%S", &local);
        t_last.second = second;
        t_last.known = true;
    }
    std::memcpy(text, t_last.text, sizeof text);
}

void refreshUtcOffset() {
    tzset();  // localtime_r(3) reads /etc/localtime only once
    localTime(std::time(nullptr));
}

SignalLogScope::SignalLogScope() : m_outer(t_inSignalLogScope) {
    t_inSignalLogScope = 1;
}

SignalLogScope::~SignalLogScope() {
    t_inSignalLogScope = m_outer;
}

bool SignalLogScope::active() {
    return t_inSignalLogScope != 0;
}

}  // namespace qnt
