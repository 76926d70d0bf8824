// Memory of another thread's process, as the driver and the hypervisor see it.

#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace sim {

// False when not all of the bytes can be reached. The thread must not have ended.
bool readMemory(pid_t thread, std::uint64_t address, void* bytes, std::size_t size);
bool writeMemory(pid_t thread, std::uint64_t address, const void* bytes, std::size_t size);

}  // namespace sim
