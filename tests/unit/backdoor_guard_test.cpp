#include <gtest/gtest.h>
#include <ucontext.h>

#include <array>
#include <bit>
#include <csignal>

#include "hostlink/kavelink.h"
#include "hostlink/rdpmc.h"

namespace qnt {
namespace {

using Registers = std::array<std::uint64_t, 6>;

void someHandler(int) {}

// No hypervisor of this kind runs under the tests, so the real instruction faults.
TEST(BackdoorGuard, SurvivesTheFaultAndRestoresDispositionsAndMask) {
    for (void (*const handler)(int) : {SIG_DFL, SIG_IGN, someHandler}) {
        std::signal(SIGILL, handler);
        std::signal(SIGSEGV, handler);
        for (const bool blocked : {false, true}) {
            sigset_t faults, before, after;
            sigemptyset(&faults);
            sigaddset(&faults, SIGILL);
            sigaddset(&faults, SIGSEGV);
            pthread_sigmask(blocked ? SIG_BLOCK : SIG_UNBLOCK, &faults, nullptr);
            pthread_sigmask(SIG_BLOCK, nullptr, &before);
            if (blocked)
                raise(SIGSEGV);  // pending when the probe unblocks it
            KavelinkLink link;
            EXPECT_EQ(kavelinkOpen(&link, kLinkBackdoorOnly), kLinkNotAvailable);
            EXPECT_EQ(link.state, kLinkStateClosed);
            pthread_sigmask(SIG_BLOCK, nullptr, &after);
            for (const int signal : {SIGILL, SIGSEGV})
                EXPECT_EQ(sigismember(&after, signal), sigismember(&before, signal));
            pthread_sigmask(SIG_UNBLOCK, &faults, nullptr);
        }
        EXPECT_EQ(std::signal(SIGILL, SIG_DFL), handler);
        EXPECT_EQ(std::signal(SIGSEGV, SIG_DFL), handler);
    }
}

}  // namespace
}  // namespace qnt
