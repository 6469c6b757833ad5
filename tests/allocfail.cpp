//===- allocfail.cpp - Failing allocator for the sweep (see allocfail.h) --===//
#include "allocfail.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

namespace {

using MallocFn = void* (*)(size_t);
using CallocFn = void* (*)(size_t, size_t);
using ReallocFn = void* (*)(void*, size_t);
using FreeFn = void (*)(void*);
using SizeFn = size_t (*)(void*);
using NewFn = void* (*)(size_t);
using NewNothrowFn = void* (*)(size_t, const std::nothrow_t&);
using NewAlignedFn = void* (*)(size_t, std::align_val_t);
using NewAlignedNothrowFn = void* (*)(size_t, std::align_val_t, const std::nothrow_t&);

MallocFn nextMalloc;
CallocFn nextCalloc;
ReallocFn nextRealloc;
FreeFn nextFree;
SizeFn nextUsableSize;

// Until this executable's own constructors run, the allocator behind us may not be ready
// (ASan initialises in its own constructor, and dlsym allocates while it does): requests are
// served from this buffer, each with its size in front, and never given back.
alignas(16) char bootBuffer[1 << 20];
size_t bootUsed;
bool ready;

// Thread-local, trivially initialised: static TLS of the executable, reached without
// allocating. depth > 0 means "inside an allocation already counted".
__thread long tFailAt;   // 0: disarmed
__thread long tCount;    // allocations since arm()
__thread int tMode;      // allocfail::Mode
__thread int tDepth;
__thread bool tInjected;

std::atomic<long long> gLiveBytes{0};
long gOperations;
long gPoints;

void* bootAlloc(size_t n)
{
    const size_t rounded = ((n + 15) & ~size_t{15}) + 16;
    if (bootUsed + rounded > sizeof bootBuffer)
        abort();
    char* p = bootBuffer + bootUsed;
    bootUsed += rounded;
    *reinterpret_cast<size_t*>(p) = n;  // no library call: it may not be ready either
    return p + 16;
}

size_t bootSize(const void* p)
{
    return *reinterpret_cast<const size_t*>(static_cast<const char*>(p) - 16);
}

bool isBoot(const void* p)
{
    return p >= bootBuffer && p < bootBuffer + sizeof bootBuffer;
}

void resolve()
{
    nextMalloc = reinterpret_cast<MallocFn>(dlsym(RTLD_NEXT, "malloc"));
    nextCalloc = reinterpret_cast<CallocFn>(dlsym(RTLD_NEXT, "calloc"));
    nextRealloc = reinterpret_cast<ReallocFn>(dlsym(RTLD_NEXT, "realloc"));
    nextUsableSize = reinterpret_cast<SizeFn>(dlsym(RTLD_NEXT, "malloc_usable_size"));
    nextFree = reinterpret_cast<FreeFn>(dlsym(RTLD_NEXT, "free"));
    if (nextMalloc == nullptr || nextCalloc == nullptr || nextRealloc == nullptr ||
        nextFree == nullptr || nextUsableSize == nullptr)
        abort();
    ready = true;
}

// Runs after the constructors of every shared object, the allocator's included.
__attribute__((constructor)) void becomeReady()
{
    resolve();
}

// Counts one allocation request of the arming thread; true when it is to fail.
bool shouldFail()
{
    if (tFailAt <= 0 || tDepth > 0)
        return false;
    const long c = ++tCount;
    const bool fail = tMode == static_cast<int>(allocfail::Mode::Once) ? c == tFailAt : c >= tFailAt;
    if (fail) {
        tInjected = true;
        errno = ENOMEM;  // as a failing malloc does; glibc's thread start asserts it
    }
    return fail;
}

void account(void* p, bool add)
{
    if (p == nullptr || isBoot(p))
        return;
    const long long n = static_cast<long long>(nextUsableSize(p));
    gLiveBytes.fetch_add(add ? n : -n, std::memory_order_relaxed);
}

struct Nested {
    Nested() { ++tDepth; }
    ~Nested() { --tDepth; }
    Nested(const Nested&) = delete;
    Nested& operator=(const Nested&) = delete;
};

template <class Fn> Fn nextOf(Fn& cached, const char* name)
{
    if (cached == nullptr) {
        Nested n;
        cached = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
        if (cached == nullptr)
            abort();
    }
    return cached;
}

[[noreturn]] void throwBadAlloc()
{
    Nested n;  // the exception object is allocated before unwinding leaves this frame
    throw std::bad_alloc();
}

// The mangled names of the next operator new forms; size_t is 'j' on 32-bit targets.
#if __SIZEOF_SIZE_T__ == 8
#define LT_SZ "m"
#else
#define LT_SZ "j"
#endif

NewFn nextNew, nextNewArray;
NewNothrowFn nextNewNothrow, nextNewArrayNothrow;
NewAlignedFn nextNewAligned, nextNewArrayAligned;
NewAlignedNothrowFn nextNewAlignedNothrow, nextNewArrayAlignedNothrow;

template <class Fn, class... A> void* forward(Fn& cached, const char* name, A... args)
{
    Fn fn = nextOf(cached, name);
    Nested n;
    return fn(args...);
}

using AlignedAllocFn = void* (*)(size_t, size_t);
using PosixMemalignFn = int (*)(void**, size_t, size_t);
AlignedAllocFn nextAlignedAlloc, nextMemalign;
PosixMemalignFn nextPosixMemalign;

}  // namespace

extern "C" {

void* malloc(size_t n)
{
    if (!ready)
        return bootAlloc(n);
    if (shouldFail())
        return nullptr;
    Nested nested;
    void* p = nextMalloc(n);
    account(p, true);
    return p;
}

void* calloc(size_t n, size_t m)
{
    if (!ready)
        return bootAlloc(n * m);  // the buffer is zero and never reused
    if (shouldFail())
        return nullptr;
    Nested nested;
    void* p = nextCalloc(n, m);
    account(p, true);
    return p;
}

void* realloc(void* old, size_t n)
{
    if (!ready || (old != nullptr && isBoot(old))) {
        // Early, or a block from the early days: copied, the old one never given back.
        void* p = ready ? malloc(n) : bootAlloc(n);
        if (p != nullptr && old != nullptr)
            std::memcpy(p, old, std::min(n, bootSize(old)));
        return p;
    }
    if (old != nullptr && n == 0) {
        account(old, false);
        Nested nested;
        return nextRealloc(old, 0);
    }
    if (shouldFail())
        return nullptr;  // the old block stays as it was
    Nested nested;
    const long long before = old != nullptr ? static_cast<long long>(nextUsableSize(old)) : 0;
    void* p = nextRealloc(old, n);
    if (p != nullptr) {
        gLiveBytes.fetch_sub(before, std::memory_order_relaxed);
        account(p, true);
    }
    return p;
}

void free(void* p)
{
    if (p == nullptr || isBoot(p))
        return;
    account(p, false);
    Nested nested;
    nextFree(p);
}

// Aligned blocks (operator new of an over-aligned type comes here): counted and failed like
// malloc's, so that their release through free() is matched.
void* aligned_alloc(size_t align, size_t n)
{
    if (shouldFail())
        return nullptr;
    void* p = forward(nextAlignedAlloc, "aligned_alloc", align, n);
    account(p, true);
    return p;
}

void* memalign(size_t align, size_t n)
{
    if (shouldFail())
        return nullptr;
    void* p = forward(nextMemalign, "memalign", align, n);
    account(p, true);
    return p;
}

int posix_memalign(void** out, size_t align, size_t n)
{
    if (shouldFail())
        return ENOMEM;
    PosixMemalignFn fn = nextOf(nextPosixMemalign, "posix_memalign");
    Nested nested;
    const int r = fn(out, align, n);
    if (r == 0)
        account(*out, true);
    return r;
}

// ASan answers these itself, without passing through malloc: here they do, so they are
// counted and can fail in both builds.
char* strdup(const char* s)
{
    const size_t n = std::strlen(s) + 1;
    auto* p = static_cast<char*>(malloc(n));
    if (p != nullptr)
        std::memcpy(p, s, n);
    return p;
}

char* strndup(const char* s, size_t max)
{
    const size_t n = strnlen(s, max);
    auto* p = static_cast<char*>(malloc(n + 1));
    if (p != nullptr) {
        std::memcpy(p, s, n);
        p[n] = '\0';
    }
    return p;
}

}  // extern "C"

// The throwing forms of operator new fail with std::bad_alloc, the nothrow forms with null.
template <class Fn, class... A> void* newOrThrow(Fn& cached, const char* name, A... args)
{
    if (shouldFail())
        throwBadAlloc();
    return forward(cached, name, args...);
}

template <class Fn, class... A> void* newOrNull(Fn& cached, const char* name, A... args)
{
    return shouldFail() ? nullptr : forward(cached, name, args...);
}

void* operator new(size_t n) { return newOrThrow(nextNew, "_Znw" LT_SZ, n); }
void* operator new[](size_t n) { return newOrThrow(nextNewArray, "_Zna" LT_SZ, n); }
void* operator new(size_t n, const std::nothrow_t& t) noexcept
{
    return newOrNull(nextNewNothrow, "_Znw" LT_SZ "RKSt9nothrow_t", n, t);
}
void* operator new[](size_t n, const std::nothrow_t& t) noexcept
{
    return newOrNull(nextNewArrayNothrow, "_Zna" LT_SZ "RKSt9nothrow_t", n, t);
}
void* operator new(size_t n, std::align_val_t a)
{
    return newOrThrow(nextNewAligned, "_Znw" LT_SZ "St11align_val_t", n, a);
}
void* operator new[](size_t n, std::align_val_t a)
{
    return newOrThrow(nextNewArrayAligned, "_Zna" LT_SZ "St11align_val_t", n, a);
}
void* operator new(size_t n, std::align_val_t a, const std::nothrow_t& t) noexcept
{
    return newOrNull(nextNewAlignedNothrow, "_Znw" LT_SZ "St11align_val_tRKSt9nothrow_t", n, a, t);
}
void* operator new[](size_t n, std::align_val_t a, const std::nothrow_t& t) noexcept
{
    return newOrNull(nextNewArrayAlignedNothrow, "_Zna" LT_SZ "St11align_val_tRKSt9nothrow_t", n, a, t);
}

namespace allocfail {

void arm(long n, Mode mode)
{
    tCount = 0;
    tMode = static_cast<int>(mode);
    tInjected = false;
    tFailAt = n;
}

long disarm()
{
    tFailAt = 0;
    return tCount;
}

bool injected() { return tInjected; }

long long liveBytes() { return gLiveBytes.load(std::memory_order_relaxed); }

bool Attempt::run(const std::function<void()>& op)
{
    struct Disarm {
        Attempt& r;
        ~Disarm()
        {
            disarm();
            r.failed_ = r.failed_ || tInjected;
        }
    } guard{*this};
    arm(n_, mode_);
    op();
    return tInjected;
}

long sweep(const char* name, const std::function<void(Attempt&)>& body, bool exactBytes)
{
    constexpr long kMaxPoints = 100000;  // an operation allocating more is a fault of its own
    long points = -1;
    {
        // One run without failures first: what the body makes once per process (a lazily
        // built table, a first error buffer) is not counted against the first attempt.
        SCOPED_TRACE(std::string(name) + ": no allocation fails");
        Attempt warm(0, Mode::Once);
        body(warm);
        if (::testing::Test::HasFailure())
            return 0;
    }
    for (Mode mode : {Mode::Once, Mode::FromNthOn}) {
        for (long n = 1;; ++n) {
            SCOPED_TRACE(std::string(name) + ": allocation " + std::to_string(n) + " fails" +
                         (mode == Mode::Once ? "" : ", and every later one"));
            Attempt r(n, mode);
            const long long before = liveBytes();
            body(r);
            if (exactBytes) {
                EXPECT_EQ(before, liveBytes()) << "bytes leaked or freed twice";
            }
            if (::testing::Test::HasFailure())
                return 0;
            if (!r.failed()) {
                if (points < 0)
                    points = n - 1;
                break;
            }
            if (n >= kMaxPoints) {
                ADD_FAILURE() << "still allocating after " << kMaxPoints << " allocations";
                return 0;
            }
        }
    }
    gOperations += 1;
    gPoints += points;
    return points;
}

long operationsSwept() { return gOperations; }
long injectionPoints() { return gPoints; }

}  // namespace allocfail
