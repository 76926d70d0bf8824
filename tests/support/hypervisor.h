// The hypervisor, played by a tracer: it catches the fault of the backdoor's instruction in an
// unmodified program, carries the command out on the registers, and lets the program go on behind
// the instruction.

#pragma once

#include <sys/types.h>
#include <sys/user.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "hostlink/kavelink_backdoor.h"
#include "hostlink/rdpmc.h"
#include "sim/device_file.h"

namespace sim {

class Hypervisor {
public:
    struct Settings {
        std::uint32_t signature = qnt::kBackdoorSignature;
        std::uint32_t version = qnt::kBackdoorVersion;
        std::uint32_t maxTransfer = 4096;  // bytes; a longer transfer fails
        Bytes answer;                      // goes back once an exchange's input is complete
        // Instead of the answer's size.
        std::optional<std::uint32_t> announcedSize;
        // Of the transfers in their order; behind the last, 2 while something is to be moved and 0
        // when all is done.
        std::vector<std::int32_t> hostStatuses;
    };
    // One command as it came: the thread, and its registers.
    struct Call {
        pid_t thread = 0;
        qnt::RdpmcRegisters in;
    };

    Hypervisor() : Hypervisor(Settings()) {}
    explicit Hypervisor(Settings settings) : m_settings(std::move(settings)) {}

    // Runs a command to its end, with variables set on top of the environment and its output at the
    // end of a file, if one is named. The exit code, or 128 plus the signal that ended it; none
    // when it still ran after the time and was killed. Not from two threads at a time. Throws
    // std::runtime_error when the command can't be traced.
    std::optional<int> run(const std::vector<std::string>& command,
                           const std::map<std::string, std::string>& variables = {},
                           std::chrono::milliseconds time = std::chrono::seconds(60),
                           const std::string& outputFile = {});
    // Sends a signal to the command while it runs. Any thread.
    void signal(int number) const;

    // After run() has returned: the complete inputs of exchanges, and all commands.
    const std::vector<Bytes>& messages() const { return m_messages; }
    const std::vector<Call>& calls() const { return m_calls; }

private:
    struct Exchange {
        std::uint32_t totalInput = 0;
        Bytes input;
        std::size_t answered = 0;  // bytes of the answer that went back
    };

    std::optional<int> trace(const std::vector<std::string>& command,
                             const std::map<std::string, std::string>& variables,
                             const std::string& outputFile);
    void followUntilExit(pid_t main);
    void handleStop(pid_t thread, int status);
    bool carryOut(pid_t thread);
    bool carryOut(pid_t thread, qnt::RdpmcRegisters& registers);
    void probe(qnt::RdpmcRegisters& registers) const;
    void transfer(pid_t thread, std::uint32_t id, qnt::RdpmcRegisters& registers);
    bool takeInput(pid_t thread, Exchange& exchange, const qnt::RdpmcRegisters& registers);
    std::uint32_t giveAnswer(pid_t thread, Exchange& exchange,
                             const qnt::RdpmcRegisters& registers) const;
    std::int32_t nextStatus(const Exchange& exchange);

    const Settings m_settings;

    mutable std::mutex m_mutex;
    pid_t m_running = 0;  // under the mutex; 0 when there is nothing to signal

    // The tracer's while it runs.
    std::vector<Bytes> m_messages;
    std::vector<Call> m_calls;
    std::map<std::uint32_t, Exchange> m_exchanges;  // by exchange id
    std::uint32_t m_lastId = 0;
    std::size_t m_transfers = 0;
};

}  // namespace sim
