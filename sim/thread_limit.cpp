// pthread_create() that fails from the second thread on, to be preloaded into the service.

#include <dlfcn.h>
#include <pthread.h>

#include <cerrno>

namespace {

using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

int threads = 0;

}  // namespace

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*entry)(void*), void* argument) noexcept {
    static const auto real = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
    return ++threads > 1 ? EAGAIN : real(thread, attributes, entry, argument);
}
