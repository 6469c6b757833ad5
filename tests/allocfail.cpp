//===- allocfail.cpp - Failing allocator for the sweep (see allocfail.h) --===//
#include "allocfail.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

namespace {

// Until this executable's own constructors run, the allocator behind us may not be ready
// (ASan initialises in its own constructor, and dlsym allocates while it does): requests are
// served from this buffer, each with its size in front, and never given back.
alignas(16) char bootBuffer[1 << 20];
size_t bootUsed;
bool ready;

// Thread-local, trivially initialised: static TLS of the executable, reached without
// allocating. tDepth > 0 means "inside an allocation already counted".
__thread long tFailAt;  // 0: disarmed
__thread long tCount;   // allocations since arming
__thread bool tFromNthOn;
__thread int tDepth;
__thread bool tInjected;

std::atomic<long long> gLiveBytes{0};

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

size_t bootSize(const void* p) { return *reinterpret_cast<const size_t*>(static_cast<const char*>(p) - 16); }

bool isBoot(const void* p) { return p >= bootBuffer && p < bootBuffer + sizeof bootBuffer; }

struct Nested {
    Nested() { ++tDepth; }
    ~Nested() { --tDepth; }
    Nested(const Nested&) = delete;
    Nested& operator=(const Nested&) = delete;
};

// Counts one allocation request of the arming thread; true when it is to fail.
bool shouldFail()
{
    if (tFailAt <= 0 || tDepth > 0)
        return false;
    const long c = ++tCount;
    if (tFromNthOn ? c < tFailAt : c != tFailAt)
        return false;
    tInjected = true;
    errno = ENOMEM;  // as a failing malloc does; glibc's thread start asserts it
    return true;
}

// The next definition of a function (glibc's, libstdc++'s or the sanitizer's), looked up once.
template <class Fn> void lookUp(Fn& next, const char* name)
{
    if (next == nullptr && (next = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name))) == nullptr)
        abort();
}

// Calls the next definition, as an allocation already counted.
template <class R, class... P, class... A> R forward(R (*&next)(P...), const char* name, A... args)
{
    Nested nested;
    lookUp(next, name);
    return next(args...);
}

size_t (*nextUsableSize)(void*);
void* (*nextMalloc)(size_t);
void* (*nextCalloc)(size_t, size_t);
void* (*nextRealloc)(void*, size_t);
void (*nextFree)(void*);
void* (*nextAlignedAlloc)(size_t, size_t);
void* (*nextMemalign)(size_t, size_t);
int (*nextPosixMemalign)(void**, size_t, size_t);

long long usableSize(void* p) { return static_cast<long long>(forward(nextUsableSize, "malloc_usable_size", p)); }

void* added(void* p)
{
    if (p != nullptr && !isBoot(p))
        gLiveBytes.fetch_add(usableSize(p), std::memory_order_relaxed);
    return p;
}

// Runs after the constructors of every shared object, the allocator's included. What dlsym
// allocates meanwhile comes from the buffer; later lookups are served by these.
__attribute__((constructor)) void becomeReady()
{
    lookUp(nextUsableSize, "malloc_usable_size");
    lookUp(nextMalloc, "malloc");
    lookUp(nextCalloc, "calloc");
    lookUp(nextRealloc, "realloc");
    lookUp(nextFree, "free");
    ready = true;
}

template <class Fn, class... A> void* allocate(Fn& next, const char* name, A... args)
{
    return shouldFail() ? nullptr : added(forward(next, name, args...));
}

}  // namespace

extern "C" {

void* malloc(size_t n) { return ready ? allocate(nextMalloc, "malloc", n) : bootAlloc(n); }

void* calloc(size_t n, size_t m)
{
    return ready ? allocate(nextCalloc, "calloc", n, m) : bootAlloc(n * m);  // zero, never reused
}

void* realloc(void* old, size_t n)
{
    if (!ready || isBoot(old)) {
        // Early, or a block from the early days: copied, the old one never given back.
        void* p = ready ? malloc(n) : bootAlloc(n);
        if (p != nullptr && old != nullptr)
            std::memcpy(p, old, std::min(n, bootSize(old)));
        return p;
    }
    if ((old == nullptr || n != 0) && shouldFail())
        return nullptr;  // the old block stays as it was
    const long long before = old != nullptr ? usableSize(old) : 0;
    void* p = forward(nextRealloc, "realloc", old, n);
    if (p != nullptr || n == 0)  // realloc(old, 0) frees old
        gLiveBytes.fetch_sub(before, std::memory_order_relaxed);
    return added(p);
}

void free(void* p)
{
    if (p == nullptr || isBoot(p))
        return;
    gLiveBytes.fetch_sub(usableSize(p), std::memory_order_relaxed);
    forward(nextFree, "free", p);
}

// Over-aligned operator new comes here: counted and failed like malloc, released by free().
void* aligned_alloc(size_t align, size_t n) { return allocate(nextAlignedAlloc, "aligned_alloc", align, n); }

void* memalign(size_t align, size_t n) { return allocate(nextMemalign, "memalign", align, n); }

int posix_memalign(void** out, size_t align, size_t n)
{
    if (shouldFail())
        return ENOMEM;
    const int r = forward(nextPosixMemalign, "posix_memalign", out, align, n);
    if (r == 0)
        added(*out);
    return r;
}

// ASan answers these itself, without passing through malloc: here they do, so they are
// counted and can fail in every build.
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

char* strdup(const char* s) { return strndup(s, SIZE_MAX); }

}  // extern "C"

// operator new in all its forms forwards to the next one of the same form: libstdc++'s, which
// calls malloc (so its blocks are accounted there), or ASan's, which does not. The throwing
// forms fail with std::bad_alloc, the nothrow forms with null.
namespace {

using NewFn = void* (*)(size_t);
using NewNothrowFn = void* (*)(size_t, const std::nothrow_t&);
using NewAlignedFn = void* (*)(size_t, std::align_val_t);
using NewAlignedNothrowFn = void* (*)(size_t, std::align_val_t, const std::nothrow_t&);
NewFn nextNew, nextNewArray;
NewNothrowFn nextNewNothrow, nextNewArrayNothrow;
NewAlignedFn nextNewAligned, nextNewArrayAligned;
NewAlignedNothrowFn nextNewAlignedNothrow, nextNewArrayAlignedNothrow;

template <bool Throws, class Fn, class... A> void* newForm(Fn& next, const char* name, A... args)
{
    if (!shouldFail())
        return forward(next, name, args...);
    if (Throws) {
        Nested nested;  // the exception object is allocated before unwinding leaves this frame
        throw std::bad_alloc();
    }
    return nullptr;
}

}  // namespace

// The mangled names of the next forms; size_t is 'j' on 32-bit targets.
#if __SIZEOF_SIZE_T__ == 8
#define LT_SZ "m"
#else
#define LT_SZ "j"
#endif
#define LT_NOTHROW "RKSt9nothrow_t"
#define LT_ALIGN "St11align_val_t"

void* operator new(size_t n) { return newForm<true>(nextNew, "_Znw" LT_SZ, n); }
void* operator new[](size_t n) { return newForm<true>(nextNewArray, "_Zna" LT_SZ, n); }
void* operator new(size_t n, const std::nothrow_t& t) noexcept
{
    return newForm<false>(nextNewNothrow, "_Znw" LT_SZ LT_NOTHROW, n, t);
}
void* operator new[](size_t n, const std::nothrow_t& t) noexcept
{
    return newForm<false>(nextNewArrayNothrow, "_Zna" LT_SZ LT_NOTHROW, n, t);
}
void* operator new(size_t n, std::align_val_t a) { return newForm<true>(nextNewAligned, "_Znw" LT_SZ LT_ALIGN, n, a); }
void* operator new[](size_t n, std::align_val_t a)
{
    return newForm<true>(nextNewArrayAligned, "_Zna" LT_SZ LT_ALIGN, n, a);
}
void* operator new(size_t n, std::align_val_t a, const std::nothrow_t& t) noexcept
{
    return newForm<false>(nextNewAlignedNothrow, "_Znw" LT_SZ LT_ALIGN LT_NOTHROW, n, a, t);
}
void* operator new[](size_t n, std::align_val_t a, const std::nothrow_t& t) noexcept
{
    return newForm<false>(nextNewArrayAlignedNothrow, "_Zna" LT_SZ LT_ALIGN LT_NOTHROW, n, a, t);
}

namespace allocfail {

long long liveBytes() { return gLiveBytes.load(std::memory_order_relaxed); }

void Attempt::run(const std::function<void()>& op)
{
    struct Disarm {
        Attempt& a;
        ~Disarm()
        {
            tFailAt = 0;
            a.failed_ = a.failed_ || tInjected;
        }
    } guard{*this};
    tCount = 0;
    tFromNthOn = mode_ == Mode::FromNthOn;
    tInjected = false;
    tFailAt = n_;
    op();
}

bool Attempt::runThrowing(const std::function<void()>& op)
{
    bool threw = false;
    run([&] {
        try {
            op();
        } catch (const std::bad_alloc&) {
            threw = true;
        }
    });
    return threw;
}

long sweep(const char* name, const std::function<void(Attempt&)>& body, bool exactBytes)
{
    constexpr long kMaxPoints = 100000;  // an operation allocating more is a fault of its own
    long points = -1;
    {
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
            Attempt attempt(n, mode);
            const long long before = liveBytes();
            body(attempt);
            if (exactBytes) {
                EXPECT_EQ(before, liveBytes()) << "bytes leaked or freed twice";
            }
            if (::testing::Test::HasFailure())
                return 0;
            if (!attempt.failed()) {
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
    std::printf("allocation-failure sweep of %s: %ld injection points\n", name, points);
    return points;
}

}  // namespace allocfail
