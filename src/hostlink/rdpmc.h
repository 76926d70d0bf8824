// The RDPMC instruction, which the hypervisor intercepts. Its .cpp is separate because tests
// replace it.

#pragma once

#include <cstdint>

namespace qnt {

// The general registers before and after the instruction.
struct RdpmcRegisters {
    std::uint64_t rax = 0;
    std::uint64_t rbx = 0;
    std::uint64_t rcx = 0;
    std::uint64_t rdx = 0;
    std::uint64_t rsi = 0;
    std::uint64_t rdi = 0;
};

// Loads the registers, executes RDPMC and stores the registers. The hypervisor may read and write
// memory that a register points to. Without a hypervisor that intercepts it, the instruction faults
// in user mode: the thread gets SIGSEGV or SIGILL.
void rdpmc(RdpmcRegisters& registers);

}  // namespace qnt
