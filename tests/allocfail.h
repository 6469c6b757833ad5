//===- allocfail.h - Make the Nth allocation fail -------------------------===//
//
// The allocation-failure sweep: an operation is run with its 1st, 2nd, 3rd ... allocation
// failing, until it runs without meeting the failure, and after every run the test checks
// the operation's result, that nothing leaked and that the object still works.
//
// How failures are injected: allocfail.cpp, linked into the sweep executable, defines malloc,
// calloc, realloc, free, aligned_alloc, memalign, posix_memalign, strdup, strndup and the eight
// forms of operator new. The dynamic linker searches the executable first, so these are what
// the library, libstdc++, Boost, OpenSSL and glibc itself (fopen, dlopen, thread start) reach.
// Each forwards to the next definition (dlsym(RTLD_NEXT)): glibc's and libstdc++'s, or the
// sanitizer's, which so keeps its own heap and still reports leaks and mismatched releases
// (operator delete is left alone). allocfail.cpp is not instrumented, and until this
// executable's constructors run (after the sanitizer runtime's) it serves requests from a
// static buffer, since dlsym allocates while the runtime sets up. strdup and strndup are here
// because ASan answers them without malloc; the library uses none of the other calls it
// intercepts whole (getline, asprintf, realpath).
//
// One request is one injection point whichever allocator stands behind it: a thread-local
// depth counter keeps an allocation made inside another (libstdc++'s new calling malloc,
// dlsym, the sanitizer's bookkeeping) from being counted or failed. A failed request returns
// null with errno ENOMEM (glibc's thread start expects it), ENOMEM from posix_memalign,
// std::bad_alloc from a throwing operator new. Only the arming thread is affected (its state
// is static TLS of the executable, reached without allocating): gtest, an executor's worker
// or a loop thread allocate normally.
//
//===----------------------------------------------------------------------===//
#ifndef ALLOCFAIL_H
#define ALLOCFAIL_H

#include <functional>

namespace allocfail {

enum class Mode {
    Once,      // only the Nth allocation fails (a transient shortage)
    FromNthOn  // the Nth and every later one fail (memory stays exhausted)
};

// Bytes held in blocks from malloc and its kin (and, in a plain build, from operator new,
// which allocates through malloc), all threads. Exact between two points at which no other
// thread allocates.
long long liveBytes();

// One attempt at a swept operation, handed to the sweep's body.
class Attempt {
public:
    Attempt(long n, Mode mode) : n_(n), mode_(mode) {}
    // Runs op with the calling thread armed: its allocations are counted from 1 and the Nth
    // fails (or the Nth and every later one, by mode). n = 0: nothing fails.
    void run(const std::function<void()>& op);
    // As run(), for an operation that reports its allocation failures as std::bad_alloc:
    // returns whether op threw it.
    bool runThrowing(const std::function<void()>& op);
    // Whether some run of this attempt met an injected failure; false for the clean attempt.
    bool failed() const { return failed_; }

private:
    long n_;
    Mode mode_;
    bool failed_ = false;
};

// Sweeps one operation. body(attempt) builds its objects, runs the operation through the
// attempt (once or more) and checks the result and the state after it. body is called once
// with nothing failing (what is made once per process, a lazily built table or a first error
// buffer, is then not charged to the first attempt), then with N = 1, 2, ... in both modes
// until a whole attempt meets no injected failure. Every attempt must leave liveBytes()
// where it found it, unless exactBytes is false (operations that start threads: glibc keeps
// their memory for the next thread; LeakSanitizer still looks). Returns the number of
// injection points (the allocations of the clean attempt) and prints it.
long sweep(const char* name, const std::function<void(Attempt&)>& body, bool exactBytes = true);

}  // namespace allocfail

#endif // ALLOCFAIL_H
