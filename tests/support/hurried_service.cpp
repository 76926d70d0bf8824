// Preloaded into the service:
//
// - sleep()'s seconds last a fiftieth.
// - The workers' calls that are cancellation points are counted. At the one that QNT_STOP_AT names,
//   e.g. "3 fgets" for the third fgets(), the process gets SIGTERM, and the worker stands there
//   until it is cancelled. (In a service with the address sanitizer, the sanitizer's own calls come
//   before these.)
// - A child that is left when the process exits goes to the file QNT_CHILD_LEFT names.

#include <dlfcn.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace {

constexpr unsigned kSlice = 1000;  // microseconds
constexpr unsigned kSlicesOfASecond = 20;

template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

bool isCancellable() {
    int state = PTHREAD_CANCEL_DISABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    pthread_setcancelstate(state, nullptr);
    return state == PTHREAD_CANCEL_ENABLE;
}

std::atomic<int> calls = 0;

// The thread sanitizer hears no more of a thread that is cancelled inside a call that waits, its
// unlocking included; so cancellation comes between two of them.
void waitOneSlice() {
    int state = PTHREAD_CANCEL_DISABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    usleep(kSlice);
    pthread_setcancelstate(state, nullptr);
    pthread_testcancel();
}

void cancellationPoint(const char* name) {
    static const char* const stopAt = std::getenv("QNT_STOP_AT");
    if (stopAt == nullptr || gettid() == getpid() || !isCancellable())
        return;
    char* wanted = nullptr;
    const long number = std::strtol(stopAt, &wanted, 10);
    if (std::strcmp(wanted + 1, name) != 0 || ++calls != number)
        return;
    kill(getpid(), SIGTERM);
    for (;;)
        waitOneSlice();
}

struct AtExit {
    ~AtExit() {
        const char* file = std::getenv("QNT_CHILD_LEFT");
        if (file != nullptr && std::strcmp(program_invocation_short_name, "qntspooler") == 0 &&
            waitpid(-1, nullptr, WNOHANG) != -1)
            std::ofstream(file) << "a child is left\n";
    }
} atExit;

}  // namespace

extern "C" {

unsigned sleep(unsigned seconds) {
    cancellationPoint("sleep");
    for (unsigned slices = seconds * kSlicesOfASecond; slices > 0; --slices)
        waitOneSlice();
    return 0;
}

ssize_t write(int descriptor, const void* bytes, size_t size) {
    static const auto call = next<decltype(write)>("write");
    cancellationPoint("write");
    return call(descriptor, bytes, size);
}

// The wait for the tool's mutex.
int nanosleep(const timespec* time, timespec*) {
    cancellationPoint("nanosleep");
    for (long slices = time->tv_sec * 1000 + time->tv_nsec / 1'000'000; slices > 0; --slices)
        waitOneSlice();
    return 0;
}

char* fgets(char* line, int size, FILE* stream) {
    static const auto call = next<decltype(fgets)>("fgets");
    cancellationPoint("fgets");
    return call(line, size, stream);
}

int waitid(idtype_t kind, id_t id, siginfo_t* info, int options) {
    static const auto call = next<decltype(waitid)>("waitid");
    cancellationPoint("waitid");
    info->si_pid = 0;
    int result = 0;
    while ((result = call(kind, id, info, options | WNOHANG)) == 0 && info->si_pid == 0)
        waitOneSlice();
    return result;
}
}
