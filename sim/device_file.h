// The request device, simulated in user space: a FUSE file system over /proc/driver with one file
// that takes the addresses of requests, as the guest's kernel driver does.

#pragma once

#include <sys/types.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "hostlink/device_request.h"
#include "posix/unique_fd.h"

struct fuse_file_info;
struct fuse_req;
struct fuse_session;

namespace sim {

using Bytes = std::vector<std::uint8_t>;

// One write to the device that has not returned yet. The sender's thread waits for complete() or
// refuse(); only the first call has an effect. Any thread may use it.
class Submission {
public:
    // Reads the request record at the address in the sender's memory. Throws std::system_error with
    // the errno for an invalid one.
    Submission(fuse_req* write, std::uint64_t address);
    ~Submission() { refuse(EIO); }  // an unanswered write must still return
    Submission(const Submission&) = delete;
    Submission& operator=(const Submission&) = delete;

    pid_t thread() const { return m_thread; }  // the sender's kernel thread id
    const qnt::DeviceRequestHeader& header() const { return m_header; }
    const std::vector<qnt::BufferDescriptor>& buffers() const { return m_buffers; }
    // The current bytes of a buffer in the sender's memory; none if they can't be read.
    std::optional<Bytes> readBuffer(std::size_t index) const;
    // Writes into a buffer in the sender's memory, never beyond its size.
    bool writeBuffer(std::size_t index, const Bytes& bytes);

    void complete(std::uint32_t status);  // stores the status; the write returns 8
    void refuse(int error);               // the write fails with this errno
    bool isAnswerTo(const fuse_req* write) const;

private:
    void answerLocked(int error);

    const pid_t m_thread;
    const std::uint64_t m_address;
    qnt::DeviceRequestHeader m_header{};
    std::vector<qnt::BufferDescriptor> m_buffers;

    mutable std::mutex m_mutex;
    fuse_req* m_write;  // guarded by the mutex; null once answered
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
    void mountDevice();
    void serve();
    bool awaitRequest() const;
    static void takeWrite(fuse_req* write, std::uint64_t inode, const char* bytes, std::size_t size,
                          off_t offset, fuse_file_info* file);
    static void noteInterrupt(fuse_req* write, void* device);

    const Handlers m_handlers;
    fuse_session* m_session = nullptr;
    const qnt::UniqueFd m_end;  // eventfd, readable when the loop is to end
    std::thread m_loop;

    // Used by the loop's thread, and by the destructor after it has ended.
    std::vector<std::weak_ptr<Submission>> m_submissions;
    std::vector<SubmissionPtr> m_interrupted;
};

}  // namespace sim
