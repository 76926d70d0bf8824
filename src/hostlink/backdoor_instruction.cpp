#include "hostlink/backdoor_instruction.h"

namespace qnt {

void backdoorInstruction(BackdoorRegisters& registers) {
    asm volatile("rdpmc"
                 : "+a"(registers.rax), "+b"(registers.rbx), "+c"(registers.rcx),
                   "+d"(registers.rdx), "+S"(registers.rsi), "+D"(registers.rdi)
                 :
                 : "memory", "cc");
}

}  // namespace qnt
