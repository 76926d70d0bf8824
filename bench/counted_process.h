// What a process and its children use.

#pragma once

#include <filesystem>
#include <string>

#include "bench/measure.h"

namespace bench {

struct Usage {
    Clock::time_point when;
    double all;  // CPU seconds, children included
    double own;
    double cups;  // of the private CUPS
};

// Mounts the control groups of version 2, for this process and its children.
void mountGroups();

// A process in a control group, which counts the CPU time of its children as well.
class CountedProcess {
public:
    // The name is unique on the machine, the command a shell's.
    CountedProcess(const std::string& name, const std::string& command);
    ~CountedProcess();

    pid_t pid() const { return m_process.pid(); }
    // The usage at the end of the next burst of work. Between two of these lies a whole number of
    // bursts.
    Usage usageAtRest() const;
    // Freezes the process and its children, or lets them go on.
    void freeze(bool frozen) const;

private:
    Usage usage() const;

    const std::filesystem::path m_group;
    sim::Process m_process;
};

// Returns the number after a word in a file of /proc or of a control group; throws
// std::runtime_error if there is none.
double numberAfter(const std::filesystem::path& path, const std::string& field);
// KiB, as resident/NAME and proportional/NAME.
void printMemory(const std::string& name, pid_t process);
// Makes queues of host printers, without a driver. Those that exist stay.
void makeQueues(int count);
// The one line that the service runs every second.
std::string recordListing(const sim::SimulatedHost& host);

}  // namespace bench
