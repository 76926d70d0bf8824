#define FUSE_USE_VERSION 314

#include "sim/device_file.h"

#include <fuse_lowlevel.h>
#include <linux/fuse.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "sim/guest_namespace.h"
#include "sim/process.h"

namespace sim {
namespace {

constexpr char kFileName[] = "qnt_kl";
constexpr char kEndName[] = "end";  // libfuse's loop ends only after a request, which looks this up
constexpr fuse_ino_t kFileInode = 2;
constexpr double kForever = 1e9;  // seconds that the kernel may cache an attribute
// The kernel lets writes run in parallel only if they don't extend the file.
constexpr off_t kReportedSize = off_t{1} << 60;

struct stat attributesOf(fuse_ino_t inode) {
    struct stat attributes {};
    attributes.st_ino = inode;
    attributes.st_nlink = 1;
    attributes.st_mode = inode == FUSE_ROOT_ID ? S_IFDIR | 0755 : S_IFREG | 0666;
    attributes.st_size = inode == FUSE_ROOT_ID ? 0 : kReportedSize;
    return attributes;
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
    readMemory(m_thread, address, &m_header, sizeof m_header);
    m_buffers.resize(m_header.bufferCount);
    readMemory(m_thread, address + sizeof m_header + m_header.inlineSize, m_buffers.data(),
               m_buffers.size() * sizeof(qnt::BufferDescriptor));
}

Submission::~Submission() {
    if (m_write != nullptr)
        fuse_reply_err(m_write, ENODEV);
}

std::optional<Bytes> Submission::readBuffer(std::size_t index) const {
    if (index >= m_buffers.size())
        return std::nullopt;
    Bytes bytes(m_buffers[index].size);
    if (!readMemory(m_thread, m_buffers[index].address, bytes.data(), bytes.size()))
        return std::nullopt;
    return bytes;
}

bool Submission::writeBuffer(std::size_t index, const Bytes& bytes) {
    if (index >= m_buffers.size())
        return false;
    const std::size_t size = std::min<std::size_t>(bytes.size(), m_buffers[index].size);
    return writeMemory(m_thread, m_buffers[index].address, bytes.data(), size);
}

void Submission::finish(std::uint32_t status, int error) {
    const std::uint64_t place = m_address + offsetof(qnt::DeviceRequestHeader, status);
    if (error == 0 && !writeMemory(m_thread, place, &status, sizeof status))
        error = EFAULT;
    if (error == 0)
        fuse_reply_write(m_write, sizeof m_address);
    else
        fuse_reply_err(m_write, error);
    m_write = nullptr;
}

DeviceFile::DeviceFile(Handlers handlers) : m_handlers(std::move(handlers)) {
    mountDevice();
    m_loop = std::thread([this] {
        fuse_session_loop(m_session);
        m_handlers.ended();
    });
}

DeviceFile::~DeviceFile() {
    (void)access((std::string(kDriverFolder) + '/' + kEndName).c_str(), F_OK);
    m_loop.join();
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
        throw std::runtime_error(
            "The request device could not be mounted over /proc/driver; it needs /dev/fuse.");
    }
}

void DeviceFile::lookUp(fuse_req* request, std::uint64_t parent, const char* name) {
    if (name == std::string_view(kEndName))
        fuse_session_exit(static_cast<DeviceFile*>(fuse_req_userdata(request))->m_session);
    if (parent != FUSE_ROOT_ID || name != std::string_view(kFileName)) {
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

void DeviceFile::takeWrite(fuse_req* write, std::uint64_t, const char* bytes, std::size_t size,
                           off_t, fuse_file_info*) {
    auto* self = static_cast<DeviceFile*>(fuse_req_userdata(write));
    std::uint64_t address = 0;
    if (size != sizeof address) {
        fuse_reply_err(write, EINVAL);
        return;
    }
    std::memcpy(&address, bytes, size);
    fuse_req_interrupt_func(write, noteInterrupt, self);
    self->m_handlers.submitted(std::make_unique<Submission>(write, address));
}

// libfuse keeps the write until this returns, although it may be answered meanwhile.
void DeviceFile::noteInterrupt(fuse_req* write, void* device) {
    static_cast<DeviceFile*>(device)->m_handlers.interrupted(write);
}

}  // namespace sim
