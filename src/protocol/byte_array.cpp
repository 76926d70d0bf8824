#include "protocol/byte_array.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstring>

namespace qnt {
namespace {

constexpr std::size_t kPageSize = 4096;  // of x86-64

std::size_t wholePages(std::size_t size) {
    return std::max(kPageSize, (size + kPageSize - 1) / kPageSize * kPageSize);
}

}  // namespace

ByteArray::~ByteArray() {
    if (m_bytes != nullptr)
        munmap(m_bytes, m_storage);
}

bool ByteArray::resize(std::size_t size) {
    if (const std::size_t storage = wholePages(size);
        storage != m_storage && !resizeStorage(storage))
        return false;
    // Only the last page of the old array may hold bytes from before an earlier shrinking: the
    // system clears the pages that it adds.
    if (size > m_size)
        std::memset(m_bytes + m_size, 0, std::min(size, wholePages(m_size)) - m_size);
    m_size = size;
    return true;
}

bool ByteArray::resizeStorage(std::size_t storage) {
    void* const resized = m_bytes == nullptr ? mmap(nullptr, storage, PROT_READ | PROT_WRITE,
                                                    MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)
                                             : mremap(m_bytes, m_storage, storage, MREMAP_MAYMOVE);
    if (resized == MAP_FAILED)
        return false;
    m_bytes = static_cast<std::uint8_t*>(resized);
    m_storage = storage;
    return true;
}

}  // namespace qnt
