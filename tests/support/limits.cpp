// A guest whose kernel gives no more, to be preloaded into the service: pthread_create() fails from
// the second thread on when QNT_ONE_THREAD is set, and posix_spawn() while the file exists that
// QNT_NO_PROCESS names. (The address sanitizer's posix_spawn() comes before this one.)

#include <dlfcn.h>
#include <pthread.h>
#include <spawn.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace {

template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

int threads = 0;

}  // namespace

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*entry)(void*), void* argument) noexcept {
    static const auto real = next<decltype(pthread_create)>("pthread_create");
    return ++threads > 1 && std::getenv("QNT_ONE_THREAD") != nullptr
               ? EAGAIN
               : real(thread, attributes, entry, argument);
}

extern "C" int posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                           const posix_spawnattr_t* attributes, char* const* arguments,
                           char* const* environment) {
    static const auto real = next<decltype(posix_spawn)>("posix_spawn");
    const char* none = std::getenv("QNT_NO_PROCESS");
    return none != nullptr && access(none, F_OK) == 0
               ? EAGAIN
               : real(pid, path, actions, attributes, arguments, environment);
}
