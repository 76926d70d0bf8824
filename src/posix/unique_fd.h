// Owners (RAII) of open files. close(2) is a cancellation point; the owners close with cancellation
// disabled, as a destructor must not be left by the unwinding of a cancelled thread.

#pragma once

#include <unistd.h>

#include <cstdio>
#include <memory>
#include <utility>

#include "posix/cancel_guard.h"

namespace qnt {

// Owns a file descriptor; -1 means none.
class UniqueFd {
public:
    explicit UniqueFd(int fd) : m_fd(fd) {}
    ~UniqueFd() {
        const CancelGuard cancelGuard;
        if (isOpen())
            close(m_fd);
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int get() const { return m_fd; }
    bool isOpen() const { return m_fd >= 0; }
    int release() { return std::exchange(m_fd, -1); }

private:
    int m_fd;
};

struct FileCloser {
    void operator()(std::FILE* file) const {
        const CancelGuard cancelGuard;
        std::fclose(file);
    }
};
using UniqueFile = std::unique_ptr<std::FILE, FileCloser>;

}  // namespace qnt
