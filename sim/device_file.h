// The request device, simulated in user space: a FUSE file system over /proc/driver with one file
// that takes the addresses of requests, as the guest's kernel driver does.

#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "hostlink/device_request.h"

namespace sim {

using Bytes = std::vector<std::uint8_t>;

// One write to the device that has not returned yet. The sender's thread waits for complete() or
// refuse(); only the first call has an effect. Any thread may use it.
class Submission {
public:
    virtual ~Submission() = default;

    virtual pid_t thread() const = 0;  // the sender's kernel thread id
    virtual const qnt::DeviceRequestHeader& header() const = 0;
    virtual const std::vector<qnt::BufferDescriptor>& buffers() const = 0;
    // The current bytes of a buffer in the sender's memory; none if they can't be read.
    virtual std::optional<Bytes> readBuffer(std::size_t index) const = 0;
    // Writes into a buffer in the sender's memory, never beyond its size.
    virtual bool writeBuffer(std::size_t index, const Bytes& bytes) = 0;

    virtual void complete(std::uint32_t status) = 0;  // stores the status; the write returns 8
    virtual void refuse(int error) = 0;               // the write fails with this errno
};
using SubmissionPtr = std::shared_ptr<Submission>;

// Mounts the device for the lifetime of the object. The handlers are called on the device's thread
// and must not block: `submitted` for each request, `interrupted` when the waiting sender has got a
// signal (a stop signal, or its cancellation); it can't continue before the submission is answered.
class DeviceFile {
public:
    struct Handlers {
        std::function<void(SubmissionPtr)> submitted;
        std::function<void(SubmissionPtr)> interrupted;
    };

    // Throws std::runtime_error with a sentence that names what is missing.
    explicit DeviceFile(Handlers handlers);
    // Refuses unanswered submissions with ENODEV, then unmounts.
    ~DeviceFile();
    DeviceFile(const DeviceFile&) = delete;
    DeviceFile& operator=(const DeviceFile&) = delete;

private:
    class Session;
    std::unique_ptr<Session> m_session;
};

}  // namespace sim
