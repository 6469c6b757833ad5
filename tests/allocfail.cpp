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

// Until this executable's constructors run, the allocator behind may not be ready (dlsym
// allocates while ASan sets up): requests come from here, size in front, never given back.
alignas(16) char bootBuffer[1 << 20];
size_t bootUsed;
bool ready;

// Static TLS of the executable, reached without allocating; tDepth > 0: inside a counted request.
__thread long tFailAt, tCount;  // tFailAt 0: disarmed
__thread bool tFromNthOn, tInjected;
__thread int tDepth;
std::atomic<long long> gLiveBytes{0};

void* bootAlloc(size_t n)
{
    const size_t rounded = ((n + 15) & ~size_t{15}) + 16;
    if (bootUsed + rounded > sizeof bootBuffer)
        abort();
    char* p = bootBuffer + bootUsed;
    bootUsed += rounded;
    *reinterpret_cast<size_t*>(p) = n;
    return p + 16;
}

size_t bootSize(const void* p) { return *reinterpret_cast<const size_t*>(static_cast<const char*>(p) - 16); }
bool isBoot(const void* p) { return p >= bootBuffer && p < bootBuffer + sizeof bootBuffer; }

struct Nested {
    Nested() { ++tDepth; }
    ~Nested() { --tDepth; }
};

// Counts one request of the arming thread; true when it is to fail.
bool shouldFail()
{
    if (tFailAt <= 0 || tDepth > 0 || (tFromNthOn ? ++tCount < tFailAt : ++tCount != tFailAt))
        return false;
    errno = ENOMEM;  // glibc's thread start asserts it
    return tInjected = true;
}

template <class Fn> void lookUp(Fn& next, const char* name)
{
    if (next == nullptr && (next = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name))) == nullptr)
        abort();
}

// Calls the next definition (glibc's, libstdc++'s or the sanitizer's) as a nested request.
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
void *(*nextAlignedAlloc)(size_t, size_t), *(*nextMemalign)(size_t, size_t);

long long usableSize(void* p) { return static_cast<long long>(forward(nextUsableSize, "malloc_usable_size", p)); }

void* added(void* p)
{
    if (p != nullptr && !isBoot(p))
        gLiveBytes += usableSize(p);
    return p;
}

// Runs after every shared object's constructors, the allocator's included.
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

// To the next operator new of the form: libstdc++'s calls malloc (accounted there), ASan's not.
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

extern "C" {

void* malloc(size_t n) { return ready ? allocate(nextMalloc, "malloc", n) : bootAlloc(n); }
void* calloc(size_t n, size_t m) { return ready ? allocate(nextCalloc, "calloc", n, m) : bootAlloc(n * m); }

void* realloc(void* old, size_t n)
{
    if (!ready || isBoot(old)) {  // copied, the old block never given back
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
        gLiveBytes -= before;
    return added(p);
}

void free(void* p)
{
    if (p == nullptr || isBoot(p))
        return;
    gLiveBytes -= usableSize(p);
    forward(nextFree, "free", p);
}

// Over-aligned operator new comes here.
void* aligned_alloc(size_t align, size_t n) { return allocate(nextAlignedAlloc, "aligned_alloc", align, n); }
void* memalign(size_t align, size_t n) { return allocate(nextMemalign, "memalign", align, n); }

int posix_memalign(void** out, size_t align, size_t n)
{
    static int (*next)(void**, size_t, size_t);
    if (shouldFail())
        return ENOMEM;
    const int r = forward(next, "posix_memalign", out, align, n);
    if (r == 0)
        added(*out);
    return r;
}

// ASan answers these without malloc: here they go through it.
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

#if __SIZEOF_SIZE_T__ == 8
#define LT_SZ "m"
#else
#define LT_SZ "j"
#endif
#define LT_NEW(Throws, Form, Mangled, Params, ...)                               \
    void* Form Params noexcept(!(Throws))                                          \
    {                                                                              \
        static void* (*next) Params;                                               \
        return newForm<Throws>(next, Mangled, __VA_ARGS__);                        \
    }
LT_NEW(true, operator new, "_Znw" LT_SZ, (size_t n), n)
LT_NEW(true, operator new[], "_Zna" LT_SZ, (size_t n), n)
LT_NEW(false, operator new, "_Znw" LT_SZ "RKSt9nothrow_t", (size_t n, const std::nothrow_t& t), n, t)
LT_NEW(false, operator new[], "_Zna" LT_SZ "RKSt9nothrow_t", (size_t n, const std::nothrow_t& t), n, t)
LT_NEW(true, operator new, "_Znw" LT_SZ "St11align_val_t", (size_t n, std::align_val_t a), n, a)
LT_NEW(true, operator new[], "_Zna" LT_SZ "St11align_val_t", (size_t n, std::align_val_t a), n, a)
LT_NEW(false, operator new, "_Znw" LT_SZ "St11align_val_tRKSt9nothrow_t",
       (size_t n, std::align_val_t a, const std::nothrow_t& t), n, a, t)
LT_NEW(false, operator new[], "_Zna" LT_SZ "St11align_val_tRKSt9nothrow_t",
       (size_t n, std::align_val_t a, const std::nothrow_t& t), n, a, t)

namespace allocfail {

void Attempt::run(const std::function<void()>& op)
{
    struct Disarm {
        Attempt& a;
        ~Disarm() { tFailAt = 0, a.failed_ = a.failed_ || tInjected; }
    } guard{*this};
    tCount = 0;
    tFromNthOn = fromNthOn_;
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
    long points = -1;
    Attempt warm(0, false);
    body(warm);
    if (::testing::Test::HasFailure())
        return 0;
    for (bool fromNthOn : {false, true}) {
        for (long n = 1;; ++n) {
            SCOPED_TRACE(std::string(name) + ": allocation " + std::to_string(n) + " fails" +
                         (fromNthOn ? ", and every later one" : ""));
            Attempt attempt(n, fromNthOn);
            const long long before = gLiveBytes.load();
            body(attempt);
            if (exactBytes) {
                EXPECT_EQ(before, gLiveBytes.load()) << "bytes leaked or freed twice";
            }
            EXPECT_LT(n, 100000) << "still allocating";  // a fault of its own
            if (::testing::Test::HasFailure())
                return 0;
            if (!attempt.failed()) {
                points = points < 0 ? n - 1 : points;
                break;
            }
        }
    }
    std::printf("allocation-failure sweep of %s: %ld injection points\n", name, points);
    return points;
}

}  // namespace allocfail
