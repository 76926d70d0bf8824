#define FUSE_USE_VERSION 314

#include "sim/device_file.h"

#include <fcntl.h>
#include <fuse_lowlevel.h>
#include <linux/fuse.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include "sim/guest_namespace.h"
#include "sim/process.h"

namespace sim {
namespace {

constexpr char kFileName[] = "qnt_kl";
constexpr fuse_ino_t kFileInode = 2;
constexpr double kForever = 1e9;  // seconds that the kernel may cache an attribute
// The kernel lets writes run in parallel only if they don't extend the file.
constexpr off_t kReportedSize = off_t{1} << 60;
constexpr std::size_t kMaxBuffers = 16;
constexpr std::size_t kMaxBufferSize = 64u << 20;  // larger buffers are not read

struct stat attributesOf(fuse_ino_t inode) {
    struct stat attributes {};
    attributes.st_ino = inode;
    attributes.st_nlink = 1;
    attributes.st_mode = inode == FUSE_ROOT_ID ? S_IFDIR | 0755 : S_IFREG | 0666;
    attributes.st_size = inode == FUSE_ROOT_ID ? 0 : kReportedSize;
    return attributes;
}

void lookUp(fuse_req_t request, fuse_ino_t parent, const char* name) {
    if (parent != FUSE_ROOT_ID || std::string_view(name) != kFileName) {
        fuse_reply_err(request, ENOENT);
        return;
    }
    fuse_entry_param entry{};
    entry.ino = kFileInode;
    entry.attr = attributesOf(kFileInode);
    entry.attr_timeout = kForever;
    entry.entry_timeout = kForever;
    fuse_reply_entry(request, &entry);
}

void getAttributes(fuse_req_t request, fuse_ino_t inode, fuse_file_info*) {
    const struct stat attributes = attributesOf(inode);
    fuse_reply_attr(request, &attributes, kForever);
}

// Written out, as libfuse's reply to an open supports only some of the flags. All three are needed:
// otherwise the kernel makes a file's second write wait for the answer to the first.
void openFile(fuse_req_t request, fuse_ino_t, fuse_file_info*) {
    fuse_open_out reply{};
    reply.open_flags = FOPEN_DIRECT_IO | FOPEN_STREAM | FOPEN_PARALLEL_DIRECT_WRITES;
    fuse_reply_buf(request, reinterpret_cast<const char*>(&reply), sizeof reply);
}

}  // namespace

Submission::Submission(fuse_req* write, std::uint64_t address)
    : m_thread(fuse_req_ctx(write)->pid), m_address(address), m_write(write) {
    const auto read = [&](std::uint64_t start, void* bytes, std::size_t size) {
        if (size != 0 && !readMemory(m_thread, start, bytes, size))
            throw std::system_error(EFAULT, std::generic_category());
    };
    read(address, &m_header, sizeof m_header);
    if (m_header.inlineSize % 8 != 0 || m_header.bufferCount > kMaxBuffers)
        throw std::system_error(EINVAL, std::generic_category());
    m_buffers.resize(m_header.bufferCount);
    read(address + sizeof m_header + m_header.inlineSize, m_buffers.data(),
         m_buffers.size() * sizeof(qnt::BufferDescriptor));
}

std::optional<Bytes> Submission::readBuffer(std::size_t index) const {
    if (index >= m_buffers.size() || m_buffers[index].size > kMaxBufferSize)
        return std::nullopt;
    Bytes bytes(m_buffers[index].size);
    if (!bytes.empty() &&
        !readMemory(m_thread, m_buffers[index].address, bytes.data(), bytes.size()))
        return std::nullopt;
    return bytes;
}

bool Submission::writeBuffer(std::size_t index, const Bytes& bytes) {
    const std::lock_guard lock(m_mutex);
    if (m_write == nullptr || index >= m_buffers.size())
        return false;
    const std::size_t size = std::min<std::size_t>(bytes.size(), m_buffers[index].size);
    return size == 0 || writeMemory(m_thread, m_buffers[index].address, bytes.data(), size);
}

void Submission::complete(std::uint32_t status) {
    const std::lock_guard lock(m_mutex);
    const std::uint64_t place = m_address + offsetof(qnt::DeviceRequestHeader, status);
    if (m_write != nullptr)
        answerLocked(writeMemory(m_thread, place, &status, sizeof status) ? 0 : EFAULT);
}

void Submission::refuse(int error) {
    const std::lock_guard lock(m_mutex);
    if (m_write != nullptr)
        answerLocked(error);
}

void Submission::answerLocked(int error) {
    if (error == 0)
        fuse_reply_write(m_write, sizeof m_address);
    else
        fuse_reply_err(m_write, error);
    m_write = nullptr;
}

bool Submission::isAnswerTo(const fuse_req* write) const {
    const std::lock_guard lock(m_mutex);
    return m_write == write;
}

DeviceFile::DeviceFile(Handlers handlers)
    : m_handlers(std::move(handlers)), m_end(eventfd(0, EFD_CLOEXEC)) {
    if (geteuid() != 0)
        throw std::runtime_error("Mounting the request device needs root.");
    if (access("/dev/fuse", R_OK | W_OK) != 0)
        throw std::runtime_error("/dev/fuse can't be opened; the request device needs it.");
    mountDevice();
    m_loop = std::thread([this] { serve(); });
}

DeviceFile::~DeviceFile() {
    eventfd_write(m_end.get(), 1);
    m_loop.join();
    for (const std::weak_ptr<Submission>& submission : m_submissions) {
        if (const SubmissionPtr open = submission.lock())
            open->refuse(ENODEV);
    }
    fuse_session_unmount(m_session);
    fuse_session_destroy(m_session);
}

void DeviceFile::mountDevice() {
    char program[] = "qnthost";
    char options[] = "-oallow_other,fsname=qnt_kl";
    char* words[] = {program, options, nullptr};
    fuse_args arguments = FUSE_ARGS_INIT(2, words);
    fuse_lowlevel_ops operations{};
    operations.lookup = lookUp;
    operations.getattr = getAttributes;
    operations.open = openFile;
    operations.write = takeWrite;
    m_session = fuse_session_new(&arguments, &operations, sizeof operations, this);
    fuse_opt_free_args(&arguments);
    if (m_session == nullptr || fuse_session_mount(m_session, kDriverFolder) != 0) {
        if (m_session != nullptr)
            fuse_session_destroy(m_session);
        throw std::runtime_error("The request device could not be mounted over /proc/driver.");
    }
    fcntl(fuse_session_fd(m_session), F_SETFL, O_RDWR | O_NONBLOCK);
}

// Ends with the object, or if the device has been unmounted from outside.
void DeviceFile::serve() {
    sigset_t signals;
    sigfillset(&signals);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    fuse_buf buffer{};
    for (int size = -EAGAIN; (size > 0 || size == -EAGAIN) && awaitRequest();) {
        size = fuse_session_receive_buf(m_session, &buffer);
        if (size > 0)
            fuse_session_process_buf(m_session, &buffer);
        for (const SubmissionPtr& submission : std::exchange(m_interrupted, {}))
            m_handlers.interrupted(submission);
    }
    std::free(buffer.mem);
}

// False if the loop is to end.
bool DeviceFile::awaitRequest() const {
    pollfd sources[] = {{fuse_session_fd(m_session), POLLIN, 0}, {m_end.get(), POLLIN, 0}};
    return poll(sources, std::size(sources), -1) > 0 && sources[1].revents == 0;
}

void DeviceFile::takeWrite(fuse_req* write, std::uint64_t, const char* bytes, std::size_t size,
                           off_t, fuse_file_info*) {
    auto* self = static_cast<DeviceFile*>(fuse_req_userdata(write));
    std::uint64_t address = 0;
    if (size != sizeof address) {
        fuse_reply_err(write, EINVAL);
        return;
    }
    std::memcpy(&address, bytes, size);
    try {
        const auto submission = std::make_shared<Submission>(write, address);
        std::erase_if(self->m_submissions, [](const auto& old) { return old.expired(); });
        self->m_submissions.push_back(submission);
        fuse_req_interrupt_func(write, noteInterrupt, self);
        self->m_handlers.submitted(submission);
    } catch (const std::system_error& error) {
        fuse_reply_err(write, error.code().value());
    }
}

// libfuse holds the request's lock here, so the handler is called after this has returned.
void DeviceFile::noteInterrupt(fuse_req* write, void* device) {
    auto* self = static_cast<DeviceFile*>(device);
    for (const std::weak_ptr<Submission>& submission : self->m_submissions) {
        const SubmissionPtr open = submission.lock();
        if (open != nullptr && open->isAnswerTo(write))
            self->m_interrupted.push_back(open);
    }
}

}  // namespace sim
