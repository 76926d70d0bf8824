// Access to the memory of another process, as the driver and the hypervisor have it.

#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace sim {

// Copy bytes from and to the process of the thread, which must not have ended. False if some of
// them are not accessible.
bool readMemory(pid_t thread, std::uint64_t address, void* bytes, std::size_t size);
bool writeMemory(pid_t thread, std::uint64_t address, const void* bytes, std::size_t size);

}  // namespace sim
