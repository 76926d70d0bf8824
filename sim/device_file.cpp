#define FUSE_USE_VERSION 314

#include "sim/device_file.h"

#include <fcntl.h>
#include <fuse_lowlevel.h>
#include <linux/fuse.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <utility>

#include "sim/guest_namespace.h"
#include "sim/process_memory.h"

namespace sim {
namespace {

constexpr char kFileName[] = "qnt_kl";
constexpr fuse_ino_t kFileInode = 2;
constexpr double kForever = 1e9;  // seconds that the kernel may cache an attribute
// The kernel lets writes run in parallel only if they don't extend the file.
constexpr off_t kReportedSize = off_t{1} << 60;
constexpr std::size_t kMaxBuffers = 16;
constexpr std::size_t kMaxBufferSize = 64u << 20;  // larger buffers are not read

// A request record in the sender's memory.
struct Record {
    pid_t thread = 0;
    std::uint64_t address = 0;
    qnt::DeviceRequestHeader header{};
    std::vector<qnt::BufferDescriptor> buffers;

    // Returns 0, or the errno for an invalid record.
    int read() {
        if (!readMemory(thread, address, &header, sizeof header))
            return EFAULT;
        if (header.inlineSize % 8 != 0 || header.bufferCount > kMaxBuffers)
            return EINVAL;
        buffers.resize(header.bufferCount);
        const std::size_t size = buffers.size() * sizeof(qnt::BufferDescriptor);
        const std::uint64_t start = address + sizeof header + header.inlineSize;
        return size == 0 || readMemory(thread, start, buffers.data(), size) ? 0 : EFAULT;
    }

    bool writeStatus(std::uint32_t status) const {
        return writeMemory(thread, address + offsetof(qnt::DeviceRequestHeader, status), &status,
                           sizeof status);
    }
};

class Write : public Submission {
public:
    Write(fuse_req_t request, Record record) : m_record(std::move(record)), m_request(request) {}
    // An unanswered write must still return.
    ~Write() override { answer(EIO); }

    pid_t thread() const override { return m_record.thread; }
    const qnt::DeviceRequestHeader& header() const override { return m_record.header; }
    const std::vector<qnt::BufferDescriptor>& buffers() const override { return m_record.buffers; }

    std::optional<Bytes> readBuffer(std::size_t index) const override {
        if (index >= buffers().size() || buffers()[index].size > kMaxBufferSize)
            return std::nullopt;
        Bytes bytes(buffers()[index].size);
        if (!bytes.empty() &&
            !readMemory(thread(), buffers()[index].address, bytes.data(), bytes.size()))
            return std::nullopt;
        return bytes;
    }

    bool writeBuffer(std::size_t index, const Bytes& bytes) override {
        const std::lock_guard lock(m_mutex);
        if (m_request == nullptr || index >= buffers().size())
            return false;
        const std::size_t size = std::min<std::size_t>(bytes.size(), buffers()[index].size);
        return size == 0 || writeMemory(thread(), buffers()[index].address, bytes.data(), size);
    }

    void complete(std::uint32_t status) override {
        const std::lock_guard lock(m_mutex);
        if (m_request != nullptr)
            answerLocked(m_record.writeStatus(status) ? 0 : EFAULT);
    }

    void refuse(int error) override { answer(error); }

    bool isWriteOf(fuse_req_t request) const {
        const std::lock_guard lock(m_mutex);
        return m_request == request;
    }

private:
    void answer(int error) {
        const std::lock_guard lock(m_mutex);
        if (m_request != nullptr)
            answerLocked(error);
    }

    void answerLocked(int error) {
        if (error == 0)
            fuse_reply_write(m_request, sizeof(std::uint64_t));
        else
            fuse_reply_err(m_request, error);
        m_request = nullptr;
    }

    const Record m_record;
    mutable std::mutex m_mutex;
    fuse_req_t m_request;  // guarded by the mutex; null once answered
};

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

class DeviceFile::Session {
public:
    explicit Session(Handlers handlers) : m_handlers(std::move(handlers)) {
        if (geteuid() != 0)
            throw std::runtime_error("Mounting the request device needs root.");
        if (access("/dev/fuse", R_OK | W_OK) != 0)
            throw std::runtime_error("/dev/fuse can't be opened; the request device needs it.");
        mountDevice();
        m_loop = std::thread([this] { serve(); });
    }

    ~Session() {
        eventfd_write(m_end, 1);
        m_loop.join();
        for (const std::weak_ptr<Write>& write : m_writes) {
            if (const std::shared_ptr<Write> open = write.lock())
                open->refuse(ENODEV);
        }
        fuse_session_unmount(m_fuse);
        fuse_session_destroy(m_fuse);
        close(m_end);
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

private:
    void mountDevice() {
        char program[] = "qnthost";
        char options[] = "-oallow_other,fsname=qnt_kl";
        char* words[] = {program, options, nullptr};
        fuse_args arguments = FUSE_ARGS_INIT(2, words);
        fuse_lowlevel_ops operations{};
        operations.lookup = lookUp;
        operations.getattr = getAttributes;
        operations.open = openFile;
        operations.write = takeWrite;
        m_fuse = fuse_session_new(&arguments, &operations, sizeof operations, this);
        fuse_opt_free_args(&arguments);
        if (m_fuse == nullptr || fuse_session_mount(m_fuse, kDriverFolder) != 0) {
            if (m_fuse != nullptr)
                fuse_session_destroy(m_fuse);
            throw std::runtime_error("The request device could not be mounted over /proc/driver.");
        }
        m_end = eventfd(0, EFD_CLOEXEC);
        fcntl(fuse_session_fd(m_fuse), F_SETFL, O_RDWR | O_NONBLOCK);
    }

    void serve() {
        sigset_t signals;
        sigfillset(&signals);
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
        fuse_buf buffer{};
        while (awaitRequest() && takeRequest(buffer)) {
            for (const std::shared_ptr<Write>& write : std::exchange(m_interrupted, {}))
                m_handlers.interrupted(write);
        }
        std::free(buffer.mem);
    }

    // False if the session is to end.
    bool awaitRequest() const {
        pollfd sources[] = {{fuse_session_fd(m_fuse), POLLIN, 0}, {m_end, POLLIN, 0}};
        return poll(sources, std::size(sources), -1) > 0 && sources[1].revents == 0;
    }

    // False if the device has been unmounted from outside.
    bool takeRequest(fuse_buf& buffer) {
        const int size = fuse_session_receive_buf(m_fuse, &buffer);
        if (size > 0)
            fuse_session_process_buf(m_fuse, &buffer);
        return size > 0 || size == -EAGAIN || size == -EINTR;
    }

    static void takeWrite(fuse_req_t request, fuse_ino_t, const char* bytes, std::size_t size,
                          off_t, fuse_file_info*) {
        Record record;
        if (size != sizeof record.address) {
            fuse_reply_err(request, EINVAL);
            return;
        }
        std::memcpy(&record.address, bytes, size);
        record.thread = fuse_req_ctx(request)->pid;
        if (const int error = record.read(); error != 0) {
            fuse_reply_err(request, error);
            return;
        }
        static_cast<Session*>(fuse_req_userdata(request))->submit(request, std::move(record));
    }

    void submit(fuse_req_t request, Record record) {
        const auto write = std::make_shared<Write>(request, std::move(record));
        std::erase_if(m_writes, [](const std::weak_ptr<Write>& old) { return old.expired(); });
        m_writes.push_back(write);
        fuse_req_interrupt_func(request, noteInterrupt, this);
        m_handlers.submitted(write);
    }

    // libfuse holds the request's lock here, so the handler is called after this has returned.
    static void noteInterrupt(fuse_req_t request, void* session) {
        auto* self = static_cast<Session*>(session);
        for (const std::weak_ptr<Write>& write : self->m_writes) {
            const std::shared_ptr<Write> open = write.lock();
            if (open != nullptr && open->isWriteOf(request))
                self->m_interrupted.push_back(open);
        }
    }

    const Handlers m_handlers;
    fuse_session* m_fuse = nullptr;
    int m_end = -1;  // eventfd, readable when the loop is to end
    std::thread m_loop;

    // Used by the loop's thread, and by the destructor after it has ended.
    std::vector<std::weak_ptr<Write>> m_writes;
    std::vector<std::shared_ptr<Write>> m_interrupted;
};

DeviceFile::DeviceFile(Handlers handlers)
    : m_session(std::make_unique<Session>(std::move(handlers))) {}

DeviceFile::~DeviceFile() = default;

}  // namespace sim
