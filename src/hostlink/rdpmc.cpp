#include "hostlink/rdpmc.h"

namespace qnt {

void rdpmc(RdpmcRegisters& registers) {
    asm volatile("rdpmc"
                 : "+a"(registers.rax), "+b"(registers.rbx), "+c"(registers.rcx),
                   "+d"(registers.rdx), "+S"(registers.rsi), "+D"(registers.rdi)
                 :
                 : "memory", "cc");
}

}  // namespace qnt
