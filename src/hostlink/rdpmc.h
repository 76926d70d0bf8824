// The one instruction that a hypervisor of this kind intercepts.

#pragma once

#include <cstdint>

namespace qnt {

// What goes into the general registers and what came back in them.
struct RdpmcRegisters {
    std::uint64_t rax = 0;
    std::uint64_t rbx = 0;
    std::uint64_t rcx = 0;
    std::uint64_t rdx = 0;
    std::uint64_t rsi = 0;
    std::uint64_t rdi = 0;
};

// Executes RDPMC with these registers and stores what they hold afterwards. The hypervisor may
// read and write memory that a register points to. Without one, the instruction faults in user
// mode: the thread gets SIGSEGV or SIGILL here.
void rdpmc(RdpmcRegisters& registers);

}  // namespace qnt
