// Makes the n-th allocation fail, for walking the allocation-failure paths of
// the library. The library has no hook for this: the test binary itself
// interposes the allocator.
//
// A normal build defines malloc, calloc, realloc, free and strdup here and
// forwards them to glibc's own allocator (__libc_malloc ...), so every C
// allocation of the process is counted while armed, also those made inside
// libc (fopen, popen, posix_spawn) and jansson. C++ operator new goes straight
// to glibc and is never counted: the containers inside the provider report
// exhaustion by std::bad_alloc, which is not what these walks are about.
//
// Sanitizer builds own malloc; there the link wraps only the calls that the
// statically linked library and the test make (-Wl,--wrap=..., set by
// tests/CMakeLists.txt together with VYR_ALLOC_FAULT_WRAP), which still covers
// every allocation the framework and the provider make themselves.
//
// Include this header in exactly one source file of a test executable.
#pragma once

#include <link.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <new>
#include <vector>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VYR_ALLOC_FAULT_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define VYR_ALLOC_FAULT_SANITIZER 1
#endif
#endif

#if defined(VYR_ALLOC_FAULT_SANITIZER) && !defined(VYR_ALLOC_FAULT_WRAP)
#define VYR_ALLOC_FAULT_AVAILABLE 0
#else
#define VYR_ALLOC_FAULT_AVAILABLE 1
#endif

namespace vyrtest {
namespace alloc {

namespace detail {

// Blocks allocated while tracking: an open-addressing set of addresses with
// tombstones, in static storage so that bookkeeping never allocates.
constexpr size_t kSlots = size_t(1) << 18;
constexpr uintptr_t kTomb = 1;

struct State {
    std::atomic<long> target{0};  // 0: nothing fails
    std::atomic<long> calls{0};
    std::atomic<bool> fired{false};
    std::atomic<bool> counting{false};
    std::atomic<bool> tracking{false};
    std::atomic<bool> overflow{false};
    pthread_t thread{};
    std::atomic_flag lock = ATOMIC_FLAG_INIT;
    uintptr_t crypto_begin = 0, crypto_end = 0;  // libcrypto's mapped code
    uintptr_t slots[kSlots] = {};
    size_t live = 0;
};

inline State &state() {
    static State s;  // constant-initialised: usable before main
    return s;
}

struct Lock {
    Lock() {
        while (state().lock.test_and_set(std::memory_order_acquire)) {
        }
    }
    ~Lock() { state().lock.clear(std::memory_order_release); }
};

inline size_t slot_of(uintptr_t p) {
    return (size_t)((p >> 4) * 0x9E3779B97F4A7C15ull) & (kSlots - 1);
}

inline void track(void *ptr) {
    State &s = state();
    if (!ptr || !s.tracking.load(std::memory_order_relaxed)) return;
    Lock lock;
    uintptr_t p = (uintptr_t)ptr;
    size_t i = slot_of(p);
    for (size_t n = 0; n < kSlots; ++n, i = (i + 1) & (kSlots - 1)) {
        if (s.slots[i] == 0 || s.slots[i] == kTomb) {
            s.slots[i] = p;
            ++s.live;
            return;
        }
    }
    s.overflow = true;
}

// True when the block was tracked (and is no longer).
inline bool untrack(void *ptr) {
    State &s = state();
    if (!ptr) return false;
    Lock lock;
    if (s.live == 0) return false;
    uintptr_t p = (uintptr_t)ptr;
    size_t i = slot_of(p);
    for (size_t n = 0; n < kSlots && s.slots[i] != 0; ++n, i = (i + 1) & (kSlots - 1)) {
        if (s.slots[i] == p) {
            s.slots[i] = kTomb;
            --s.live;
            return true;
        }
    }
    return false;
}

}  // namespace detail
}  // namespace alloc
}  // namespace vyrtest

// Called when the armed allocation fails: a breakpoint here shows who made it.
extern "C" __attribute__((noinline)) void vyr_alloc_fault_fired(long n) {
    asm volatile("" ::"r"(n));
}

namespace vyrtest {
namespace alloc {
namespace detail {

// OpenSSL's method store keeps what a fetch half-built when one of its own
// allocations fails; that is the library's cache, not ours, so calls made from
// inside libcrypto are neither counted nor failed.
inline int find_crypto(struct dl_phdr_info *info, size_t, void *) {
    if (!info->dlpi_name || !strstr(info->dlpi_name, "libcrypto.so")) return 0;
    State &s = state();
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr) &ph = info->dlpi_phdr[i];
        if (ph.p_type != PT_LOAD) continue;
        uintptr_t begin = info->dlpi_addr + ph.p_vaddr, end = begin + ph.p_memsz;
        if (!s.crypto_begin || begin < s.crypto_begin) s.crypto_begin = begin;
        if (end > s.crypto_end) s.crypto_end = end;
    }
    return 1;
}

// Counts one allocation call of the armed thread; true when it is to fail.
inline bool should_fail(void *caller) {
    State &s = state();
    if (!s.counting.load(std::memory_order_relaxed)) return false;
    if (!pthread_equal(pthread_self(), s.thread)) return false;
    uintptr_t at = (uintptr_t)caller;
    if (at >= s.crypto_begin && at < s.crypto_end) return false;
    long n = ++s.calls;
    if (n == s.target.load()) {
        s.fired = true;
        vyr_alloc_fault_fired(n);
        return true;
    }
    return false;
}

}  // namespace detail

// Whether this build can inject failures (sanitizer builds need the link-time wrap).
inline bool available() {
    return VYR_ALLOC_FAULT_AVAILABLE != 0;
}

// From now on, the calling thread's allocations are counted and the n-th one
// fails (n = 0: none fails).
inline void arm(long n) {
    detail::State &s = detail::state();
    if (!s.crypto_end) dl_iterate_phdr(detail::find_crypto, nullptr);
    s.thread = pthread_self();
    s.calls = 0;
    s.fired = false;
    s.target = n;
    s.counting = true;
}
inline void disarm() {
    detail::state().counting = false;
}
inline bool fired() {
    return detail::state().fired;
}
inline long calls() {
    return detail::state().calls;
}

// Records every block allocated from now on (any thread) until it is freed.
inline void track_begin() {
    detail::State &s = detail::state();
    detail::Lock lock;
    memset(s.slots, 0, sizeof s.slots);
    s.live = 0;
    s.overflow = false;
    s.tracking = true;
}
inline void track_end() {
    detail::state().tracking = false;
}
// Tracked blocks not freed yet; SIZE_MAX when the table overflowed.
inline size_t live() {
    detail::State &s = detail::state();
    detail::Lock lock;
    return s.overflow ? SIZE_MAX : s.live;
}
inline std::vector<void *> live_blocks() {
    detail::State &s = detail::state();
    std::vector<void *> blocks;
    blocks.reserve(64);
    detail::Lock lock;
    for (size_t i = 0; i < detail::kSlots; ++i)
        if (s.slots[i] > detail::kTomb) blocks.push_back((void *)s.slots[i]);
    return blocks;
}

}  // namespace alloc
}  // namespace vyrtest

#if VYR_ALLOC_FAULT_AVAILABLE
#ifdef VYR_ALLOC_FAULT_WRAP
// Sanitizer build: the linker sends the library's and the test's calls here.
#define VYR_AF_ENTRY(name) __wrap_##name
#define VYR_AF_NEXT(name) __real_##name
extern "C" {
void *__real_malloc(size_t);
void *__real_calloc(size_t, size_t);
void *__real_realloc(void *, size_t);
void __real_free(void *);
char *__real_strdup(const char *);
}
#define VYR_AF_NOEXCEPT
#else
// Normal build: these definitions replace the C library's for the whole process.
#define VYR_AF_ENTRY(name) name
#define VYR_AF_NEXT(name) __libc_##name
extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void __libc_free(void *);
}
#define VYR_AF_NOEXCEPT noexcept
#endif

extern "C" {

void *VYR_AF_ENTRY(malloc)(size_t size) VYR_AF_NOEXCEPT {
    if (vyrtest::alloc::detail::should_fail(__builtin_return_address(0))) {
        errno = ENOMEM;
        return nullptr;
    }
    void *p = VYR_AF_NEXT(malloc)(size);
    vyrtest::alloc::detail::track(p);
    return p;
}

void *VYR_AF_ENTRY(calloc)(size_t count, size_t size) VYR_AF_NOEXCEPT {
    if (vyrtest::alloc::detail::should_fail(__builtin_return_address(0))) {
        errno = ENOMEM;
        return nullptr;
    }
    void *p = VYR_AF_NEXT(calloc)(count, size);
    vyrtest::alloc::detail::track(p);
    return p;
}

void *VYR_AF_ENTRY(realloc)(void *old, size_t size) VYR_AF_NOEXCEPT {
    if (old && size == 0) {  // a free in disguise
        vyrtest::alloc::detail::untrack(old);
        return VYR_AF_NEXT(realloc)(old, size);
    }
    if (vyrtest::alloc::detail::should_fail(__builtin_return_address(0))) {
        errno = ENOMEM;
        return nullptr;
    }
    // Only a block that was tracked (or a fresh one) stays tracked: growing a
    // block made before tracking began belongs to an older owner.
    bool was_tracked = vyrtest::alloc::detail::untrack(old);
    void *p = VYR_AF_NEXT(realloc)(old, size);
    if (!p) {
        if (was_tracked) vyrtest::alloc::detail::track(old);
        return nullptr;
    }
    if (!old || was_tracked) vyrtest::alloc::detail::track(p);
    return p;
}

void VYR_AF_ENTRY(free)(void *p) VYR_AF_NOEXCEPT {
    vyrtest::alloc::detail::untrack(p);
    VYR_AF_NEXT(free)(p);
}

char *VYR_AF_ENTRY(strdup)(const char *text) VYR_AF_NOEXCEPT {
    if (vyrtest::alloc::detail::should_fail(__builtin_return_address(0))) {
        errno = ENOMEM;
        return nullptr;
    }
#ifdef VYR_ALLOC_FAULT_WRAP
    char *copy = __real_strdup(text);
#else
    size_t n = strlen(text) + 1;
    char *copy = (char *)__libc_malloc(n);
    if (copy) memcpy(copy, text, n);
#endif
    vyrtest::alloc::detail::track(copy);
    return copy;
}

}  // extern "C"

#ifndef VYR_ALLOC_FAULT_WRAP
// C++ allocations bypass the counting (see above).
void *operator new(size_t size) {
    void *p = __libc_malloc(size ? size : 1);
    if (!p) throw std::bad_alloc();
    return p;
}
void *operator new[](size_t size) {
    return operator new(size);
}
void *operator new(size_t size, const std::nothrow_t &) noexcept {
    return __libc_malloc(size ? size : 1);
}
void *operator new[](size_t size, const std::nothrow_t &) noexcept {
    return __libc_malloc(size ? size : 1);
}
void operator delete(void *p) noexcept {
    __libc_free(p);
}
void operator delete[](void *p) noexcept {
    __libc_free(p);
}
void operator delete(void *p, size_t) noexcept {
    __libc_free(p);
}
void operator delete[](void *p, size_t) noexcept {
    __libc_free(p);
}
void operator delete(void *p, const std::nothrow_t &) noexcept {
    __libc_free(p);
}
void operator delete[](void *p, const std::nothrow_t &) noexcept {
    __libc_free(p);
}
#endif

#undef VYR_AF_ENTRY
#undef VYR_AF_NEXT
#undef VYR_AF_NOEXCEPT
#endif  // VYR_ALLOC_FAULT_AVAILABLE
