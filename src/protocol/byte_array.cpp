#include "protocol/byte_array.h"

#include <cstdlib>
#include <cstring>

namespace qnt {

ByteArray::~ByteArray() {
    std::free(m_bytes);
}

bool ByteArray::resize(std::size_t size) {
    if (size > m_storage) {
        auto* grown = static_cast<std::uint8_t*>(std::calloc(size, 1));
        if (grown == nullptr)
            return false;
        if (m_size != 0)
            std::memcpy(grown, m_bytes, m_size);
        std::free(m_bytes);
        m_bytes = grown;
        m_storage = size;
    } else if (size > m_size) {
        std::memset(m_bytes + m_size, 0, size - m_size);
    }
    m_size = size;
    return true;
}

}  // namespace qnt
