#include <gtest/gtest.h>

#include <csignal>

#include "hostlink/kavelink.h"

namespace qnt {
namespace {

void someHandler(int) {}

// No hypervisor of this kind runs under the tests, so the real instruction faults.
TEST(BackdoorGuard, SurvivesTheFaultAndLeavesTheDispositionsAsTheyWere) {
    for (void (*const handler)(int) : {SIG_DFL, SIG_IGN, someHandler}) {
        std::signal(SIGILL, handler);
        std::signal(SIGSEGV, handler);
        for (int times = 0; times < 2; ++times) {  // the mask is back as well
            KavelinkLink link;
            EXPECT_EQ(kavelinkOpen(&link, kLinkBackdoorOnly), kLinkNotAvailable);
            EXPECT_EQ(link.state, kLinkClosed);
        }
        EXPECT_EQ(std::signal(SIGILL, SIG_DFL), handler);
        EXPECT_EQ(std::signal(SIGSEGV, SIG_DFL), handler);
    }
}

}  // namespace
}  // namespace qnt
