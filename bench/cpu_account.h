// The processor time of processes.

#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>

namespace bench {

// Counts what a process and everything that it starts use, those that have ended included, to the
// microsecond: a control group of the kernel's (version 2). As root, in a mount namespace.
class CpuAccount {
public:
    // Makes a group of this name, by a mount in the working directory.
    explicit CpuAccount(const std::string& name);
    // The processes have ended or are about to.
    ~CpuAccount();
    CpuAccount(const CpuAccount&) = delete;
    CpuAccount& operator=(const CpuAccount&) = delete;

    // From now on this process is counted, and what it starts from now on.
    void add(pid_t process) const;
    double seconds() const;

private:
    const std::filesystem::path m_mount;
    const std::filesystem::path m_group;
};

// What a process alone has used since its start, its children apart.
double ownCpuSeconds(pid_t process);

}  // namespace bench
