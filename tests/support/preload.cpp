// Preloaded into the service; these variables of the environment choose what it does:
//
//   QNT_SECOND     the milliseconds that a second of sleep() lasts
//   QNT_NO_MEMORY  while this file exists, malloc() fails in each worker, and once in the run loop
//
// In a service with the address sanitizer, the sanitizer's own malloc() and waitid() are called
// instead.

#include <dlfcn.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

namespace {

constexpr long kSlice = 1000;  // microseconds

template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// The thread sanitizer loses track of a thread that is cancelled inside a waiting call, so the
// cancellation comes between two of them.
void waitSlices(long slices) {
    for (; slices > 0; --slices) {
        int state = PTHREAD_CANCEL_DISABLE;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
        next<decltype(usleep)>("usleep")(kSlice);
        pthread_setcancelstate(state, nullptr);
        pthread_testcancel();
    }
}

}  // namespace

extern "C" {

unsigned sleep(unsigned seconds) {
    const char* second = std::getenv("QNT_SECOND");
    waitSlices(seconds * (second != nullptr ? std::atol(second) : 1000L));
    return 0;
}

int waitid(idtype_t kind, id_t id, siginfo_t* info, int options) {
    static const auto call = next<decltype(waitid)>("waitid");
    info->si_pid = 0;
    int result = 0;
    while ((result = call(kind, id, info, options | WNOHANG)) == 0 && info->si_pid == 0)
        waitSlices(1);
    return result;
}

#if !QNT_SANITIZED  // there it is the sanitizer's
void* __libc_malloc(std::size_t size);

void* malloc(std::size_t size) {
    static bool failedInMain = false;
    const char* const file = std::getenv("QNT_NO_MEMORY");
    const bool isService = std::strcmp(program_invocation_short_name, "qntspooler") == 0;
    const bool isMain = gettid() == getpid();
    if (!isService || (isMain && failedInMain) || file == nullptr || access(file, F_OK) != 0)
        return __libc_malloc(size);
    failedInMain |= isMain;
    return nullptr;
}
#endif
}
