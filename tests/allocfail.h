//===- allocfail.h - Make the Nth allocation fail -------------------------===//
//
// The allocation-failure sweep: an operation is run with its 1st, 2nd, 3rd ... allocation
// failing, until it runs without meeting the failure, and after every run the test checks
// the operation's result, that nothing leaked and that the object still works.
//
// How the failures are injected. allocfail.cpp is linked into the sweep executable and
// defines malloc, calloc, realloc and free there. The dynamic linker searches the executable
// before every shared object, so these definitions are the ones the library, libstdc++,
// Boost, OpenSSL (its CRYPTO_malloc calls malloc) and glibc itself (fopen, dlopen, thread
// start-up) reach. Each forwards to the next definition, found with dlsym(RTLD_NEXT): glibc's
// allocator in a plain build, AddressSanitizer's in the `make test-asan` build. So ASan keeps
// every block in its own heap with its redzones, and LeakSanitizer still sees every block and
// reports leaks at exit. Two things make this work under ASan: allocfail.cpp is compiled
// without instrumentation (its malloc runs before the ASan runtime is ready), and until this
// executable's constructors run (after every shared object's, ASan's included) requests are
// served from a static buffer that is never given back, since dlsym allocates while ASan sets
// up its interceptors. A failed request sets errno to ENOMEM, as glibc's thread start
// expects.
//
// operator new in all its forms (plain, array, nothrow, aligned) is defined here as well
// and forwards to the next operator new of the same form: libstdc++'s, which calls malloc,
// or ASan's, which does not (ASan keeps new and malloc apart to find mismatched releases,
// and still does, since operator delete is left alone). A thread-local depth counter is the
// re-entrancy guard: an allocation made inside another (libstdc++'s new calling malloc,
// dlsym, ASan's bookkeeping) is neither counted nor failed, so one request is one
// injection point whichever allocator stands behind it. The failing operator new throws
// std::bad_alloc, the nothrow forms return null.
//
// Only the arming thread is affected: the armed state is thread-local (static TLS in the
// executable, which costs no allocation to reach), so gtest, the serial executor's worker
// or a loop thread allocate normally. Arm around the operation under test only.
//
// strdup and strndup are defined here too (ASan would answer them without malloc). Not
// covered: other calls ASan intercepts whole (getline, asprintf, realpath), which the library
// does not use. aligned_alloc, memalign and posix_memalign are: over-aligned objects come
// from them and go back through free().
//
// Each sweep first runs its body once without failures, so that what is made once per
// process (a lazily built table, OpenSSL's error queue, dlerror's buffer) does not count as
// a leak of the first attempt. liveBytes() also counts operator new in a plain build only
// (under ASan, new does not pass through malloc); LeakSanitizer covers the rest.
//
//===----------------------------------------------------------------------===//
#ifndef ALLOCFAIL_H
#define ALLOCFAIL_H

#include <cstddef>
#include <cstdio>
#include <functional>

namespace allocfail {

enum class Mode {
    Once,      // only the Nth allocation fails (a transient shortage)
    FromNthOn  // the Nth and every later one fail (memory stays exhausted)
};

// Arms the calling thread: its allocations are counted from 1 and the Nth fails (or the Nth
// and later ones, by mode).
void arm(long n, Mode mode);
// Disarms the calling thread; returns how many allocations it made while armed.
long disarm();
// Whether an allocation was failed on this thread since the last arm().
bool injected();

// Bytes held in blocks from malloc/calloc/realloc (and, in a plain build, from operator
// new, which allocates through malloc), all threads. Exact between two points at which no
// other thread allocates.
long long liveBytes();

// One attempt at a swept operation: run() arms around the operation and returns whether an
// allocation failed inside it; n is the allocation that fails.
class Attempt {
public:
    Attempt(long n, Mode mode) : n_(n), mode_(mode) {}
    bool run(const std::function<void()>& op);
    // True when some run() of this attempt met an injected failure.
    bool failed() const { return failed_; }
    long n() const { return n_; }
    Mode mode() const { return mode_; }

private:
    long n_;
    Mode mode_;
    bool failed_ = false;
};

// Sweeps one operation: body(run) builds its objects, calls run.run() around the operation
// (once or more) and checks the result and the state after it. The body is called with
// N = 1, 2, ... in both modes until a whole attempt meets no injected failure. Every attempt
// must leave liveBytes() where it found it, unless exactBytes is false (operations that start
// threads: glibc keeps their memory for the next thread; LeakSanitizer still looks). Returns the number of injection points (the
// allocations of the clean attempt); adds the operation to the totals printed at exit.
long sweep(const char* name, const std::function<void(Attempt&)>& body, bool exactBytes = true);

// Totals of this process: swept operations and injection points.
long operationsSwept();
long injectionPoints();

}  // namespace allocfail

#endif // ALLOCFAIL_H
