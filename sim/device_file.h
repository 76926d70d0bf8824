// The request device, simulated in user space: a FUSE file system over /proc/driver with one file
// that takes the addresses of requests, as the guest's kernel driver does.

#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "hostlink/device_request.h"

struct fuse_file_info;
struct fuse_req;
struct fuse_session;

namespace sim {

using Bytes = std::vector<std::uint8_t>;

// One write to the device that has not returned yet: its sender's thread waits for finish(). Any
// thread, but one at a time.
class Submission {
public:
    // Reads the request record at the address in the sender's memory. What can't be read is 0.
    Submission(fuse_req* write, std::uint64_t address);
    // A write that has not returned fails with ENODEV.
    ~Submission();
    Submission(const Submission&) = delete;
    Submission& operator=(const Submission&) = delete;

    const qnt::DeviceRequestHeader& header() const { return m_header; }
    const std::vector<qnt::BufferDescriptor>& buffers() const { return m_buffers; }
    // The current bytes of a buffer in the sender's memory; none if they can't be read.
    std::optional<Bytes> readBuffer(std::size_t index) const;
    // Writes into a buffer in the sender's memory, never beyond its size.
    bool writeBuffer(std::size_t index, const Bytes& bytes);

    // Stores the status, after which the write returns 8; or the write fails with the errno, if
    // that is not 0. To be called once.
    void finish(std::uint32_t status, int error);
    bool isMadeBy(const fuse_req* write) const { return m_write == write; }

private:
    const pid_t m_thread;  // the sender's kernel thread id
    const std::uint64_t m_address;
    qnt::DeviceRequestHeader m_header{};
    std::vector<qnt::BufferDescriptor> m_buffers;
    fuse_req* m_write;  // null once it has returned
};
using SubmissionPtr = std::unique_ptr<Submission>;

// Mounts the device for the lifetime of the object. The handlers are called on the device's thread
// and must not block: `submitted` for each request; `interrupted` when the sender that waits in
// this write has got a signal (a stop signal, or its cancellation), as it can't continue before the
// submission is finished; `ended` after the last request: all submissions must be deleted then.
class DeviceFile {
public:
    struct Handlers {
        std::function<void(SubmissionPtr)> submitted;
        std::function<void(const fuse_req*)> interrupted;
        std::function<void()> ended;
    };

    // Throws std::runtime_error with a sentence that names what is missing.
    explicit DeviceFile(Handlers handlers);
    ~DeviceFile();
    DeviceFile(const DeviceFile&) = delete;
    DeviceFile& operator=(const DeviceFile&) = delete;

private:
    void mountDevice();
    static void lookUp(fuse_req* request, std::uint64_t parent, const char* name);
    static void takeWrite(fuse_req* write, std::uint64_t inode, const char* bytes, std::size_t size,
                          off_t offset, fuse_file_info* file);
    static void noteInterrupt(fuse_req* write, void* device);

    const Handlers m_handlers;
    fuse_session* m_session = nullptr;
    std::thread m_loop;
};

}  // namespace sim
