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

// The fault's handler is the hypervisor: it adds 10, 20, ... to the registers.
TEST(Rdpmc, LoadsAndStoresAllSixRegisters) {
    struct sigaction action {};
    action.sa_flags = SA_SIGINFO;
    action.sa_sigaction = [](int, siginfo_t*, void* context) {
        auto& registers = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
        int added = 0;
        for (const int name : {REG_RAX, REG_RBX, REG_RCX, REG_RDX, REG_RSI, REG_RDI})
            registers[name] += added += 10;
        registers[REG_RIP] += 2;
    };
    sigaction(SIGSEGV, &action, nullptr);
    RdpmcRegisters registers{1, 2, 3, 4, 5, 6};
    rdpmc(registers);
    EXPECT_EQ(std::bit_cast<Registers>(registers), (Registers{11, 22, 33, 44, 55, 66}));
    std::signal(SIGSEGV, SIG_DFL);
}

}  // namespace
}  // namespace qnt
