//===- allocfail.h - Make the Nth allocation fail -------------------------===//
//
// allocfail.cpp, linked into the sweep executable, defines malloc and its kin, strdup, strndup
// and every operator new: the library, libstdc++, Boost, OpenSSL and glibc reach these first.
// One request is one injection point whichever allocator serves it (nested ones are not
// counted); a failed one gives null and ENOMEM, or std::bad_alloc from a throwing new. Only
// the arming thread is affected.
//
//===----------------------------------------------------------------------===//
#ifndef ALLOCFAIL_H
#define ALLOCFAIL_H

#include <functional>

namespace allocfail {

// One attempt of a sweep: the Nth allocation of each run fails, or the Nth and every later one.
class Attempt {
public:
    Attempt(long n, bool fromNthOn) : n_(n), fromNthOn_(fromNthOn) {}
    // Runs op with this thread armed, its allocations counted from 1 (n = 0: none fails).
    void run(const std::function<void()>& op);
    // As run(), for an operation reporting failure as std::bad_alloc: whether op threw it.
    bool runThrowing(const std::function<void()>& op);
    // Whether some run met an injected failure.
    bool failed() const { return failed_; }

private:
    long n_;
    bool fromNthOn_, failed_ = false;
};

// Calls body once with nothing failing (what is made once per process is then made), then
// with N = 1, 2, ... in both modes until an attempt meets no failure; each attempt must leave
// the bytes held by malloc and its kin as it found them unless exactBytes is false (glibc
// caches a started thread's memory). Returns and prints the number of injection points.
long sweep(const char* name, const std::function<void(Attempt&)>& body, bool exactBytes = true);

}  // namespace allocfail

#endif  // ALLOCFAIL_H
