// The request device, played in user space: a FUSE file system over /proc/driver whose one file
// takes the addresses of requests, as the guest's kernel driver does.

#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "hostlink/device_request.h"

namespace sim {

using Bytes = std::vector<std::uint8_t>;

// One write to the device that has not returned yet. The sender's thread waits until one of the
// three answers is given; only the first counts. Any thread; shared.
class Submission {
public:
    virtual ~Submission() = default;

    virtual pid_t thread() const = 0;              // the sender's kernel thread id
    virtual std::uint64_t deviceFile() const = 0;  // tells the sender's open files apart
    virtual const qnt::DeviceRequestHeader& header() const = 0;
    virtual const std::vector<qnt::BufferDescriptor>& buffers() const = 0;
    // The bytes of a buffer as the sender shows them now; none when they can't be read.
    virtual std::optional<Bytes> readBuffer(std::size_t index) const = 0;
    // Writes into a buffer of the sender's, never beyond its size.
    virtual bool writeBuffer(std::size_t index, const Bytes& bytes) = 0;

    virtual void complete(std::uint32_t status) = 0;  // stores the status; the write returns 8
    virtual void refuse(int error) = 0;               // the write fails with this errno
};
using SubmissionPtr = std::shared_ptr<Submission>;

// Mounts the device while it lives. `submitted` is called on the device's own thread for each
// request and must not block; `interrupted` when the sender has got a signal while it waits (a
// stop signal, or its cancellation) and can't go on before the submission is answered.
class DeviceFile {
public:
    struct Handlers {
        std::function<void(SubmissionPtr)> submitted;
        std::function<void(SubmissionPtr)> interrupted;
    };

    // Throws std::runtime_error with a sentence that says what is missing.
    explicit DeviceFile(Handlers handlers);
    // Refuses what is still open with ENODEV and unmounts.
    ~DeviceFile();
    DeviceFile(const DeviceFile&) = delete;
    DeviceFile& operator=(const DeviceFile&) = delete;

private:
    class Session;
    std::unique_ptr<Session> m_session;
};

}  // namespace sim
