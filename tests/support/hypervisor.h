// A simulated hypervisor: takes the backdoor's commands in registers, records and answers them.

#pragma once

#include <sys/types.h>

#include <atomic>
#include <map>
#include <string>
#include <vector>

#include "hostlink/kavelink_backdoor.h"
#include "hostlink/rdpmc.h"
#include "sim/device_file.h"

namespace sim {

// What the host does in one transfer.
struct Transfer {
    std::uint32_t written = 0;  // bytes, which count up from 0; never more than there is room for
    std::int32_t status = qnt::kHostStatusComplete;
    std::uint32_t answerSize = 0;
};

struct Hypervisor {
    std::vector<Transfer> transfers = {{}};  // the last one is repeated
    qnt::RdpmcRegisters probeAnswer{qnt::kBackdoorSignature, qnt::kBackdoorVersion, 300, 0, 0, 0};

    std::vector<qnt::RdpmcRegisters> commands = {};  // as they came
    Bytes input = {};                                // of all transfers
    std::uint32_t written = 0;

    // Carries out the command in a thread's registers, of which the upper halves become garbage.
    void execute(pid_t thread, qnt::RdpmcRegisters& registers);
};

// Runs a program whose main thread's RDPMC instructions go to the hypervisor; the process's id
// while it runs. Returns the exit code, or 128 plus the signal that ended it.
int runUnder(Hypervisor& hypervisor, const std::vector<std::string>& command,
             const std::map<std::string, std::string>& variables, std::atomic<pid_t>& process);

}  // namespace sim
