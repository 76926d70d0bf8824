// The simulated hypervisor: executes the backdoor's instruction for one thread and gives the
// messages that the thread sends over it to the simulated host.

#pragma once

#include <sys/types.h>

#include <cstdint>
#include <thread>

#include "sim/simulated_host.h"

struct user_regs_struct;

namespace sim {

class Hypervisor {
public:
    // Traces the main thread of a child process from the return of the constructor on, and lets the
    // host refuse the link calls on the device, which it must hold until then. Throws
    // std::runtime_error.
    Hypervisor(pid_t process, SimulatedHost& host);
    // Waits until the process has ended.
    ~Hypervisor();
    Hypervisor(const Hypervisor&) = delete;
    Hypervisor& operator=(const Hypervisor&) = delete;

private:
    void serve();
    bool executeInstruction();
    bool executeCommand(user_regs_struct& state);
    bool takeChunk(std::uint64_t address, std::uint64_t length);

    const pid_t m_process;
    SimulatedHost& m_host;

    // The exchange under way; the hypervisor's thread only.
    std::uint32_t m_totalInput = 0;
    Bytes m_input;

    std::thread m_thread;
};

}  // namespace sim
