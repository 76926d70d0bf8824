// Owners of open files. Closing is a cancellation point of libc and happens in destructors here,
// so it is never the place where a thread is cancelled.

#pragma once

#include <unistd.h>

#include <cstdio>
#include <memory>
#include <utility>

#include "posix/guards.h"

namespace qnt {

// Owns a file descriptor; -1 means none.
class UniqueFd {
public:
    explicit UniqueFd(int number = -1) : m_number(number) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd&& other) noexcept : m_number(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        reset(other.release());
        return *this;
    }

    int get() const { return m_number; }
    bool isOpen() const { return m_number >= 0; }
    int release() { return std::exchange(m_number, -1); }
    void reset(int number = -1) {
        const CancelGuard cancelGuard;
        if (isOpen())
            close(m_number);
        m_number = number;
    }

private:
    int m_number;
};

struct FileCloser {
    void operator()(std::FILE* file) const {
        const CancelGuard cancelGuard;
        std::fclose(file);
    }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

}  // namespace qnt
