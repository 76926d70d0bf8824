#include "sim/process_memory.h"

#include <sys/uio.h>

namespace sim {

bool readMemory(pid_t thread, std::uint64_t address, void* bytes, std::size_t size) {
    const iovec local{bytes, size};
    const iovec remote{reinterpret_cast<void*>(address), size};
    return process_vm_readv(thread, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(size);
}

bool writeMemory(pid_t thread, std::uint64_t address, const void* bytes, std::size_t size) {
    const iovec local{const_cast<void*>(bytes), size};
    const iovec remote{reinterpret_cast<void*>(address), size};
    return process_vm_writev(thread, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(size);
}

}  // namespace sim
