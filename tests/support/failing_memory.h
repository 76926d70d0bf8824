// Memory that runs out at a chosen allocation. Included by a test's one file, it takes the place of
// the process's allocators, those of libc's own calls included.

#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <new>
#include <utility>

#ifdef __clang__
#if __has_feature(address_sanitizer)
#define REAL(name) __interceptor_##name
#endif
#endif
#ifndef REAL
#define REAL(name) __libc_##name
#endif

namespace {

std::atomic<long> g_blocks = 0;        // allocated and not released, but for what is played
thread_local bool t_outside = false;   // in what is played
thread_local int t_untilFailure = -1;  // allocations before the one that fails; -1: none does
thread_local bool t_thrown = false;    // the failure has become an exception

void* allocated(bool isNew, auto allocate) {
    if (!t_outside && t_untilFailure >= 0 && t_untilFailure-- == 0)
        return nullptr;
    void* block = allocate();
    g_blocks += !t_outside && isNew && block != nullptr;
    return block;
}

struct Outside {
    const bool before = std::exchange(t_outside, true);
    ~Outside() { t_outside = before; }
};

std::atomic<bool>* g_endsAtPause = nullptr;  // a loop under test, which is not to wait

}  // namespace

extern "C" {
// The loader's memory would count as lost; what is lost of ours is counted here. And a cancelled
// thread's stack keeps marks of frames that are gone, over which clearing the signal stack trips.
int __lsan_is_turned_off() {
    return 1;
}
const char* __asan_default_options() {
    return "use_sigaltstack=0";
}

void* REAL(malloc)(std::size_t size);
void* REAL(calloc)(std::size_t count, std::size_t size);
void* REAL(realloc)(void* old, std::size_t size);
void REAL(free)(void* block);

void* malloc(std::size_t size) {
    return allocated(true, [=] { return REAL(malloc)(size); });
}
void* calloc(std::size_t count, std::size_t size) {
    return allocated(true, [=] { return REAL(calloc)(count, size); });
}
void* realloc(void* old, std::size_t size) {
    return allocated(old == nullptr, [=] { return REAL(realloc)(old, size); });
}
void free(void* block) {
    g_blocks -= !t_outside && block != nullptr;
    REAL(free)(block);
}
// Linked with --wrap, as the sanitizers replace the functions themselves.
void* __real_mmap(void* at, std::size_t size, int protection, int flags, int fd, off_t offset);
void* __real_mremap(void* old, std::size_t oldSize, std::size_t size, int flags);
int __real_munmap(void* pages, std::size_t size);

void* __wrap_mmap(void* at, std::size_t size, int protection, int flags, int fd, off_t offset) {
    void* pages =
        allocated(true, [=] { return __real_mmap(at, size, protection, flags, fd, offset); });
    return pages != nullptr ? pages : MAP_FAILED;
}
void* __wrap_mremap(void* old, std::size_t oldSize, std::size_t size, int flags) {
    void* pages = allocated(false, [=] { return __real_mremap(old, oldSize, size, flags); });
    return pages != nullptr ? pages : MAP_FAILED;
}
int __wrap_munmap(void* pages, std::size_t size) {
    g_blocks -= !t_outside;
    return __real_munmap(pages, size);
}

unsigned sleep(unsigned) {
    if (g_endsAtPause == nullptr)
        return static_cast<unsigned>(usleep(20'000));
    *g_endsAtPause = false;
    return 0;
}
}

void* operator new(std::size_t size) {
    void* block = malloc(size);
    t_thrown |= block == nullptr;
    return block != nullptr ? block : throw std::bad_alloc();
}
void operator delete(void* block) noexcept {
    free(block);
}
void operator delete(void* block, std::size_t) noexcept {
    free(block);
}
