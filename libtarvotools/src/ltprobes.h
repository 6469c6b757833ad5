//===- ltprobes.h - Static tracing probes on the event road (internal) ----===//
//
// USDT probes in SystemTap's <sys/sdt.h> format, provider "tarvotools": bpftrace, perf,
// SystemTap and gdb attach to them in a running process without a rebuild. A probe is one nop
// in the code and a note in the .note.stapsdt section naming its arguments; with nothing
// attached it costs the nop and whatever it takes to have the arguments in registers, so the
// arguments are what the code has at hand: scalars and pointers, never more than 12, no
// formatting, no allocation. Tools show a double underscore in a name as a dash
// (event__posted is tarvotools:event-posted). docs/debugging.md lists every probe.
//
//   LT_PROBE(loop__io, this, e.id, e.fd);
//
// A source on the path of every event (or one whose probes need more than what is at hand)
// defines LT_PROBE_SEMAPHORES before including this header, and the semaphore of each of its
// probes once with LT_PROBE_SEMAPHORE(name). The tools raise a probe's semaphore while they
// are attached, and there LT_PROBE fires, and evaluates its arguments, only then: with nothing
// attached it costs a load and a branch, whatever its arguments cost, and the code around it
// is compiled as if it were not there. LT_PROBE_ENABLED(name)
// tells whether a tool is attached.
//
// Without <sys/sdt.h> (Debian's systemtap-sdt-dev), or with LT_NO_PROBES defined, the probes
// compile to nothing and LT_PROBE_ENABLED is false: the build never depends on the header.
//
//===----------------------------------------------------------------------===//
#ifndef LTPROBES_H
#define LTPROBES_H

#if !defined(LT_NO_PROBES) && defined(__has_include)
#if __has_include(<sys/sdt.h>)
#define LT_HAVE_PROBES 1
#endif
#endif

#if defined(LT_HAVE_PROBES)

#if defined(LT_PROBE_SEMAPHORES)
#define _SDT_HAS_SEMAPHORES 1
#endif
#define SDT_USE_VARIADIC 1
#include <sys/sdt.h>

#if defined(LT_PROBE_SEMAPHORES)
// The probe goes into a function of its own, out of line, which gets the arguments by value:
// the compiler counts the probe's long assembler text against inlining the function that holds
// it, and must not keep the arguments in memory for it.
#define LT_PROBE(name, ...)                                                                   \
    do {                                                                                      \
        if (LT_PROBE_ENABLED(name))                                                           \
            LT_PROBE_CAT_(LT_PROBE_COLD_, LT_PROBE_NARG_(__VA_ARGS__))(name, __VA_ARGS__);    \
    } while (0)
#define LT_PROBE_CAT_(a, b) LT_PROBE_CAT2_(a, b)
#define LT_PROBE_CAT2_(a, b) a##b
#define LT_PROBE_NARG_(...) LT_PROBE_NARG2_(__VA_ARGS__, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0)
#define LT_PROBE_NARG2_(_1, _2, _3, _4, _5, _6, _7, _8, _9, _10, _11, _12, n, ...) n
#define LT_PROBE_COLD_1(name, x1) \
    [](auto a1) __attribute__((noinline, cold)) { STAP_PROBE1(tarvotools, name, a1); }(x1)
#define LT_PROBE_COLD_2(name, x1, x2) \
    [](auto a1, auto a2) __attribute__((noinline, cold)) { STAP_PROBE2(tarvotools, name, a1, a2); }(x1, x2)
#define LT_PROBE_COLD_3(name, x1, x2, x3) \
    [](auto a1, auto a2, auto a3) __attribute__((noinline, cold)) { STAP_PROBE3(tarvotools, name, a1, a2, a3); }(x1, x2, x3)
#define LT_PROBE_COLD_4(name, x1, x2, x3, x4) \
    [](auto a1, auto a2, auto a3, auto a4) __attribute__((noinline, cold)) { STAP_PROBE4(tarvotools, name, a1, a2, a3, a4); }(x1, x2, x3, x4)
#define LT_PROBE_COLD_5(name, x1, x2, x3, x4, x5) \
    [](auto a1, auto a2, auto a3, auto a4, auto a5) __attribute__((noinline, cold)) { STAP_PROBE5(tarvotools, name, a1, a2, a3, a4, a5); }(x1, x2, x3, x4, x5)
#define LT_PROBE_COLD_6(name, x1, x2, x3, x4, x5, x6) \
    [](auto a1, auto a2, auto a3, auto a4, auto a5, auto a6) __attribute__((noinline, cold)) { STAP_PROBE6(tarvotools, name, a1, a2, a3, a4, a5, a6); }(x1, x2, x3, x4, x5, x6)
#define LT_PROBE_COLD_7(name, x1, x2, x3, x4, x5, x6, x7) \
    [](auto a1, auto a2, auto a3, auto a4, auto a5, auto a6, auto a7) __attribute__((noinline, cold)) { STAP_PROBE7(tarvotools, name, a1, a2, a3, a4, a5, a6, a7); }(x1, x2, x3, x4, x5, x6, x7)
#define LT_PROBE_COLD_8(name, x1, x2, x3, x4, x5, x6, x7, x8) \
    [](auto a1, auto a2, auto a3, auto a4, auto a5, auto a6, auto a7, auto a8) __attribute__((noinline, cold)) { STAP_PROBE8(tarvotools, name, a1, a2, a3, a4, a5, a6, a7, a8); }(x1, x2, x3, x4, x5, x6, x7, x8)
#define LT_PROBE_COLD_9(name, x1, x2, x3, x4, x5, x6, x7, x8, x9) \
    [](auto a1, auto a2, auto a3, auto a4, auto a5, auto a6, auto a7, auto a8, auto a9) __attribute__((noinline, cold)) { STAP_PROBE9(tarvotools, name, a1, a2, a3, a4, a5, a6, a7, a8, a9); }(x1, x2, x3, x4, x5, x6, x7, x8, x9)
#define LT_PROBE_COLD_10(name, x1, x2, x3, x4, x5, x6, x7, x8, x9, x10) \
    [](auto a1, auto a2, auto a3, auto a4, auto a5, auto a6, auto a7, auto a8, auto a9, auto a10) __attribute__((noinline, cold)) { STAP_PROBE10(tarvotools, name, a1, a2, a3, a4, a5, a6, a7, a8, a9, a10); }(x1, x2, x3, x4, x5, x6, x7, x8, x9, x10)
#define LT_PROBE_COLD_11(name, x1, x2, x3, x4, x5, x6, x7, x8, x9, x10, x11) \
    [](auto a1, auto a2, auto a3, auto a4, auto a5, auto a6, auto a7, auto a8, auto a9, auto a10, auto a11) __attribute__((noinline, cold)) { STAP_PROBE11(tarvotools, name, a1, a2, a3, a4, a5, a6, a7, a8, a9, a10, a11); }(x1, x2, x3, x4, x5, x6, x7, x8, x9, x10, x11)
#define LT_PROBE_COLD_12(name, x1, x2, x3, x4, x5, x6, x7, x8, x9, x10, x11, x12) \
    [](auto a1, auto a2, auto a3, auto a4, auto a5, auto a6, auto a7, auto a8, auto a9, auto a10, auto a11, auto a12) __attribute__((noinline, cold)) { STAP_PROBE12(tarvotools, name, a1, a2, a3, a4, a5, a6, a7, a8, a9, a10, a11, a12); }(x1, x2, x3, x4, x5, x6, x7, x8, x9, x10, x11, x12)
// Local to the source: each probe site's note carries the address of its own source's copy.
// The notes name it unmangled, hence the assembler label. The .probes section is where the
// tools look for semaphores.
#define LT_PROBE_SEMAPHORE(name)                                                                    \
    __attribute__((used, section(".probes"))) static volatile unsigned short tarvotools_##name##_semaphore \
        __asm__("tarvotools_" #name "_semaphore")
#define LT_PROBE_ENABLED(name) __builtin_expect(tarvotools_##name##_semaphore != 0, 0)
#else
#define LT_PROBE(name, ...) STAP_PROBEV(tarvotools, name, ##__VA_ARGS__)
#endif

#else  // no probes

namespace lt_internal {
template <typename... Args>
inline void probeArgsUnused(const Args&...)
{
}
}  // namespace lt_internal

// The arguments are named, not evaluated: a local kept for a probe draws no warning.
#define LT_PROBE(name, ...)                                  \
    do {                                                     \
        if (false)                                           \
            ::lt_internal::probeArgsUnused(__VA_ARGS__);     \
    } while (0)
#define LT_PROBE_SEMAPHORE(name) static_assert(true, "")
#define LT_PROBE_ENABLED(name) false

#endif

#endif // LTPROBES_H
