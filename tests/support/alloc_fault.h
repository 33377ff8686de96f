// Makes the k-th allocation fail, for walking the allocation-failure paths of
// the library, which has no hook for it: the test binary interposes the allocator.
//
// A normal build defines malloc, calloc, realloc, free and strdup here and
// forwards them to glibc's own (__libc_malloc ...), so every C allocation of
// the process is seen, also those inside libc (fopen, posix_spawn) and
// jansson. C++ operator new bypasses the counting: the provider's containers
// report exhaustion by std::bad_alloc, which these walks are not about.
// Sanitizer builds own malloc; there the link wraps the calls of the
// statically linked library and the test (-Wl,--wrap=..., set by
// tests/CMakeLists.txt with VYR_ALLOC_FAULT_WRAP).
//
// Include this header in exactly one source file of a test executable.
#pragma once

#include <gtest/gtest.h>
#include <jansson.h>
#include <link.h>
#include <pthread.h>
#include <string.h>

#include <atomic>
#include <functional>
#include <vector>

#if (defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)) && \
    !defined(VYR_ALLOC_FAULT_WRAP)
#define VYR_ALLOC_FAULT_AVAILABLE 0
#else
#define VYR_ALLOC_FAULT_AVAILABLE 1
#endif

namespace vyrtest {
namespace alloc {
namespace detail {

// Blocks allocated while tracking: an open-addressing set of addresses with
// tombstones, in static storage so that bookkeeping never allocates. Members
// are defined in the class to keep the short ones on one line.
constexpr size_t kSlots = size_t(1) << 18;
constexpr uintptr_t kTomb = 1;

struct State {
    std::atomic<long> target{0}, calls{0};
    std::atomic<bool> fired{false}, counting{false}, tracking{false};
    pthread_t thread{};
    std::atomic_flag lock = ATOMIC_FLAG_INIT;
    uintptr_t crypto_begin = 0, crypto_end = 0;  // libcrypto's mapped code
    uintptr_t slots[kSlots] = {};

    static State &get() {
        static State s;  // constant-initialised: usable before main
        return s;
    }
    static size_t next(size_t i) { return (i + 1) & (kSlots - 1); }
    static size_t slot_of(void *p) {
        return (size_t)(((uintptr_t)p >> 4) * 0x9E3779B97F4A7C15ull) & (kSlots - 1);
    }
    void acquire() {
        while (lock.test_and_set(std::memory_order_acquire)) {
        }
    }
    void release() { lock.clear(std::memory_order_release); }
    void track(void *p) {
        if (!p || !tracking.load(std::memory_order_relaxed)) return;
        acquire();
        size_t i = slot_of(p);
        for (size_t n = 0; n < kSlots && slots[i] > kTomb; ++n) i = next(i);
        if (slots[i] <= kTomb) slots[i] = (uintptr_t)p;
        release();
    }
    // True when the block was tracked (and is no longer).
    bool untrack(void *p) {
        if (!p) return false;
        acquire();
        size_t i = slot_of(p);
        for (size_t n = 0; n < kSlots && slots[i] != 0 && slots[i] != (uintptr_t)p; ++n)
            i = next(i);
        bool found = slots[i] == (uintptr_t)p;
        if (found) slots[i] = kTomb;
        release();
        return found;
    }
    // Counts one allocation of the armed thread; true when it is to fail.
    bool should_fail(void *caller) {
        if (!counting.load(std::memory_order_relaxed) || !pthread_equal(pthread_self(), thread))
            return false;
        if ((uintptr_t)caller >= crypto_begin && (uintptr_t)caller < crypto_end) return false;
        if (++calls != target.load()) return false;
        return fired = true;
    }
};

// OpenSSL's method store keeps what a fetch half-built when one of its own
// allocations fails: that is its cache, not ours, so its calls are left alone.
inline int find_crypto(struct dl_phdr_info *info, size_t, void *) {
    if (!info->dlpi_name || !strstr(info->dlpi_name, "libcrypto.so")) return 0;
    State &s = State::get();
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr) &ph = info->dlpi_phdr[i];
        if (ph.p_type != PT_LOAD) continue;
        uintptr_t begin = info->dlpi_addr + ph.p_vaddr, end = begin + ph.p_memsz;
        if (!s.crypto_begin || begin < s.crypto_begin) s.crypto_begin = begin;
        if (end > s.crypto_end) s.crypto_end = end;
    }
    return 1;
}

}  // namespace detail

inline bool available() {
    return VYR_ALLOC_FAULT_AVAILABLE != 0;
}
inline bool fired() {
    return detail::State::get().fired;
}
// Tracked blocks not freed yet.
inline std::vector<void *> live_blocks() {
    std::vector<void *> blocks;
    detail::State &s = detail::State::get();
    s.acquire();
    for (uintptr_t p : s.slots)
        if (p > detail::kTomb) blocks.push_back((void *)p);
    s.release();
    return blocks;
}

// `call` with its k-th allocation (of this thread) failing.
template <typename F>
auto failing(long k, F call) {
    detail::State &s = detail::State::get();
    if (!s.crypto_end) dl_iterate_phdr(detail::find_crypto, nullptr);
    s.thread = pthread_self();
    s.calls = 0;
    s.fired = false;
    s.target = k;
    s.counting = true;
    auto result = call();
    s.counting = false;
    return result;
}

// The walk: body(k) for k = 1, 2, ..., every block it allocates tracked, until
// a run in which the armed allocation was not reached. Each run must leave
// nothing allocated (a body frees what the code under test keeps on purpose).
// Returns the allocations of the run that succeeded.
inline long walk(const std::function<void(long k)> &body) {
    detail::State &s = detail::State::get();
    // jansson's allocations go through the counted calls too, also where the
    // link wraps only the calls of the library and the test.
    struct JsonAlloc {
        json_malloc_t m;
        json_free_t f;
        JsonAlloc() {
            json_get_alloc_funcs(&m, &f);
            json_set_alloc_funcs([](size_t n) { return malloc(n); }, [](void *p) { free(p); });
        }
        ~JsonAlloc() { json_set_alloc_funcs(m, f); }
    } json_alloc;
    for (long k = 1; k < 100000; ++k) {
        SCOPED_TRACE("allocation " + std::to_string(k) + " fails");
        memset(s.slots, 0, sizeof s.slots);
        s.tracking = true;
        body(k);
        EXPECT_EQ(live_blocks().size(), 0u) << "blocks leaked";
        s.tracking = false;
        if (::testing::Test::HasFatalFailure()) return -1;
        if (!s.fired) return s.calls;
    }
    ADD_FAILURE() << "the walk did not end";
    return -1;
}

}  // namespace alloc
}  // namespace vyrtest

#if VYR_ALLOC_FAULT_AVAILABLE
#ifdef VYR_ALLOC_FAULT_WRAP
// Sanitizer build: the linker sends the library's and the test's calls here.
#define VYR_AF(name) __wrap_##name
#define VYR_AF_NEXT(name) __real_##name
#define VYR_AF_NOEXCEPT
extern "C" char *__real_strdup(const char *);
#else
// Normal build: these definitions replace the C library's for the whole process.
#define VYR_AF(name) name
#define VYR_AF_NEXT(name) __libc_##name
#define VYR_AF_NOEXCEPT noexcept
#endif

extern "C" {
void *VYR_AF_NEXT(malloc)(size_t);
void *VYR_AF_NEXT(calloc)(size_t, size_t);
void *VYR_AF_NEXT(realloc)(void *, size_t);
void VYR_AF_NEXT(free)(void *);

#define VYR_AF_STATE vyrtest::alloc::detail::State::get()
#define VYR_AF_FAIL_HERE                                         \
    if (VYR_AF_STATE.should_fail(__builtin_return_address(0))) { \
        errno = ENOMEM;                                          \
        return nullptr;                                          \
    }

void *VYR_AF(malloc)(size_t size) VYR_AF_NOEXCEPT {
    VYR_AF_FAIL_HERE
    void *p = VYR_AF_NEXT(malloc)(size);
    VYR_AF_STATE.track(p);
    return p;
}
void *VYR_AF(calloc)(size_t count, size_t size) VYR_AF_NOEXCEPT {
    VYR_AF_FAIL_HERE
    void *p = VYR_AF_NEXT(calloc)(count, size);
    VYR_AF_STATE.track(p);
    return p;
}
void *VYR_AF(realloc)(void *old, size_t size) VYR_AF_NOEXCEPT {
    if (old && size == 0) {  // a free in disguise
        VYR_AF_STATE.untrack(old);
        return VYR_AF_NEXT(realloc)(old, size);
    }
    VYR_AF_FAIL_HERE
    // Only a tracked (or fresh) block stays tracked: growing an older block
    // belongs to its older owner.
    bool was_tracked = VYR_AF_STATE.untrack(old);
    void *p = VYR_AF_NEXT(realloc)(old, size);
    if (!p && was_tracked) VYR_AF_STATE.track(old);
    if (p && (!old || was_tracked)) VYR_AF_STATE.track(p);
    return p;
}
void VYR_AF(free)(void *p) VYR_AF_NOEXCEPT {
    VYR_AF_STATE.untrack(p);
    VYR_AF_NEXT(free)(p);
}
#ifdef VYR_ALLOC_FAULT_WRAP
// A normal build needs none: the C library's strdup calls the malloc above.
char *VYR_AF(strdup)(const char *text) VYR_AF_NOEXCEPT {
    VYR_AF_FAIL_HERE
    char *copy = __real_strdup(text);
    VYR_AF_STATE.track(copy);
    return copy;
}
#endif
}  // extern "C"

#ifndef VYR_ALLOC_FAULT_WRAP
// C++ allocations bypass the counting (see above); libstdc++'s array, nothrow
// and sized forms forward to these.
void *operator new(size_t size) {
    if (void *p = __libc_malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void *p) noexcept {
    __libc_free(p);
}
void operator delete(void *p, size_t) noexcept {
    __libc_free(p);
}
#endif
#undef VYR_AF_FAIL_HERE
#undef VYR_AF_STATE
#endif  // VYR_ALLOC_FAULT_AVAILABLE
