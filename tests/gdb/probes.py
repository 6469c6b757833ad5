# probes.py: gdb -batch -x probes.py --args gdb_target
#
# Breaks on every tarvotools probe of the target program (target.cpp) up to
# lt_gdb_checkpoint(), records the arguments, and checks the record against what the program
# did: the probes of its main thread hit for hit in order, the executor's on its worker thread.
# Every probe the library carries must have fired. gdb raises the probes' semaphores itself,
# so the arguments computed only for an attached tool are checked as well.
import errno
import re

import gdb

hits = []  # (probe name, thread number, arguments)


class Probe(gdb.Breakpoint):
    def __init__(self, name):
        super().__init__("-probe-stap tarvotools:" + name, internal=True)
        self.probe = name

    def stop(self):
        count = int(gdb.parse_and_eval("$_probe_argc"))
        args = [int(gdb.parse_and_eval("$_probe_arg%d" % i)) for i in range(count)]
        if self.probe == "handler__invoke":  # the handler's type name: read it while it is there
            args[4] = gdb.parse_and_eval("(const char *) %d" % args[4]).string()
        hits.append((self.probe, gdb.selected_thread().num, args))
        return False


class Sym:
    """An address that must be the function named so."""

    def __init__(self, name):
        self.name = name

    def matches(self, value):
        where = gdb.execute("info symbol %d" % value, to_string=True).split(" in section")[0]
        return re.sub(r"\([^()]*\)$", "", where).endswith(self.name)  # without its parameters

    def __repr__(self):
        return "&" + self.name


ANY = None
T = "22ltCallbackEventHandler"  # the type name of the target's handlers

# The main thread's probes, in order. A string names a value: one of lt_gdb_target's fields,
# or else bound at its first use (and then the same everywhere).
ROAD = [
    # two handlers, on key1 0x10 and (lethal time in 1 ms) on 0x30; event P posted, refused
    # when posted again; event X posted with a TTL of 1 ms
    ("event__posted", "queue", "P", 0x10, 0, 0, 0, 0, 0, 1),
    ("event__refused", "queue", "P", errno.EBUSY),
    ("event__posted", "queue", "X", 0x20, 0, 0, 0, 0, 1, 2),
    # first pass: the lethal time, the TTL, the dispatch, both descriptors
    ("loop__pass", "loop", ANY, ANY),
    ("loop__timer", "loop", ANY, ANY, ANY, Sym("ltEventQueue::cbEventHandlerTimeOut"), "H"),
    ("handler__lethal", "queue", "H", ANY, ANY),
    ("handler__invoke", "queue", 0, "H", 1, T, Sym("passOn")),
    ("handler__return", "queue", 0, "H", 1, 1),
    ("loop__timer", "loop", ANY, ANY, ANY, Sym("ltEventQueue::cbEventTimeOut"), "X"),
    ("event__expired", "queue", "X"),
    ("event__deleted", "queue", "X"),
    ("handler__invoke", "queue", "P", "G", 0, T, Sym("passOn")),
    ("handler__return", "queue", "P", "G", 0, 1),
    ("event__deleted", "queue", "P"),
    ("loop__select", "loop", 3, 0),  # the wake-up pipe, readable and writable
    ("loop__io", "loop", "readHandle", "readFd", 0, Sym("onReadable"), 0),
    ("loop__io", "loop", "writeHandle", "writeFd", 1, Sym("onWritable"), 0),
    # second pass: descriptors watched only after the table changed
    ("loop__pass", "loop", ANY, ANY),
    ("loop__select", "loop", 1, 0),
    # the executor's job on its own thread (below); a one-shot timer-queue timer
    ("timerqueue__expired", "TQ", "TT", ANY, ANY, 0),
    # the known state: 'held' kept by a and put back
    ("event__posted", "queue", "held", 7, 0, 0, 0, 1, 0, 1),
    ("loop__pass", "loop", ANY, ANY),
    ("handler__invoke", "queue", "held", "a", 0, T, Sym("keep")),
    ("handler__return", "queue", "held", "a", 0, 0),
    ("loop__select", "loop", 1, 0),
    # e1, e2, e3 posted behind it, e1 dispatched to b, which posts e4 and stops
    ("event__posted", "queue", "e1", 0x100, 1, 0, 0, 3, 0, 2),
    ("event__posted", "queue", "e2", 0x200, 2, 0, 0, 9, 0, 3),
    ("event__posted", "queue", "e3", 0x300, 3, 0, 0, 0, 5000, 4),
    ("handler__invoke", "queue", "e1", "b", 0, T, Sym("stopHere")),
    ("event__posted", "queue", "e4", 0x400, 4, 0, 0, 0, 0, 4),  # e2 and e3 claimed: still counted
]
WORKER = [("job__begin", "EX", 0), ("job__end", "EX")]

failures = []


def check(expected, got, names):
    if len(got) != len(expected):
        failures.append("%d probe hits, expected %d" % (len(got), len(expected)))
    for i, (want, (probe, _, args)) in enumerate(zip(expected, got)):
        if probe != want[0] or len(args) != len(want) - 1:
            failures.append("hit %d: %s%s, expected %s" % (i, probe, args, want))
            return  # out of step: what follows says nothing more
        for j, (w, a) in enumerate(zip(want[1:], args)):
            if w is ANY:
                continue
            if isinstance(w, Sym):
                ok = w.matches(a)
            elif isinstance(w, str) and w != T:
                ok = names.setdefault(w, a) == a
            else:
                ok = w == a
            if not ok:
                failures.append("hit %d %s argument %d: %r, expected %r (%s)"
                                % (i, probe, j, a, names.get(w, w), want))


gdb.execute("start", to_string=True)  # the library is loaded: its probes can be found
listed = gdb.execute("info probes stap tarvotools", to_string=True).split("\n")[1:]
probes = sorted({line.split()[2] for line in listed if line.strip()})
for name in probes:
    Probe(name)
gdb.Breakpoint("lt_gdb_checkpoint", internal=True)
gdb.execute("continue", to_string=True)

target = gdb.parse_and_eval("lt_gdb_target")
names = {f: int(target[f]) for f in ("loop", "queue", "readHandle", "writeHandle", "readFd", "writeFd",
                                     "held", "e1", "e2", "e3", "e4", "a", "b", "c")}
main = [h for h in hits if h[1] == 1]
check(ROAD, main, names)
check(WORKER, [h for h in hits if h[1] != 1], names)
missing = set(probes) - {h[0] for h in hits}
if missing:
    failures.append("never fired: " + ", ".join(sorted(missing)))

for f in failures:
    print("FAIL: probes: " + f)
if failures:
    for probe, thread, args in hits:
        print("  thread %d %s %s" % (thread, probe, args))
print("probes: %d hits of %d probes checked" % (len(hits), len(probes)))
gdb.execute("kill", to_string=True)
gdb.execute("quit %d" % (1 if failures else 0))
