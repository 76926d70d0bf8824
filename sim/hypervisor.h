// The simulated hypervisor: executes the backdoor's instruction for one thread and takes the
// messages that the thread sends over it.

#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <thread>

#include "hostlink/rdpmc.h"
#include "sim/device_file.h"

namespace sim {

class Hypervisor {
public:
    // Gets each complete message and the number of its transfers, on the hypervisor's thread. The
    // message of a probe is empty.
    using Receive = std::function<void(Bytes message, int transfers)>;

    // Traces the main thread of a child process from the return of the constructor on. Throws
    // std::runtime_error.
    Hypervisor(pid_t process, Receive receive);
    // Waits until the process has ended.
    ~Hypervisor();
    Hypervisor(const Hypervisor&) = delete;
    Hypervisor& operator=(const Hypervisor&) = delete;

private:
    void serve();
    bool executeInstruction();
    bool executeCommand(qnt::RdpmcRegisters& registers);
    std::int32_t transfer(const qnt::RdpmcRegisters& registers);

    const pid_t m_process;
    const Receive m_receive;

    // The exchange under way; the hypervisor's thread only.
    std::uint32_t m_totalInput = 0;
    Bytes m_input;
    int m_transfers = 0;

    std::thread m_thread;
};

}  // namespace sim
