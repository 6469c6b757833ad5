# check.py - runs inside gdb on the target program (target.cpp), stopped in
# lt_gdb_checkpoint(): compares what lt-loop, lt-queue and the pretty-printers print with the
# state the program recorded in lt_gdb_target. Started on the program, it runs it to the
# checkpoint, checks, and writes a core file to $LT_GDB_CORE; started on that core file, it
# checks the same there. Exits gdb with status 1 on the first failing command.
import os
import re

import gdb

failures = []


def value(expr):
    return gdb.parse_and_eval(expr)


def address(expr):
    return "0x%x" % int(value(expr))


def seconds(sec, usec):
    total = sec * 1000000 + usec
    return "%d\\.%06d" % (total // 1000000, total % 1000000)


def expect(command, patterns):
    """Each pattern must match a line of the output, the lines in the patterns' order."""
    try:
        text = gdb.execute(command, to_string=True)
    except gdb.error as e:
        failures.append("%s: %s" % (command, e))
        return
    lines = text.splitlines()
    at = 0
    for pattern in patterns:
        while at < len(lines) and not re.search(pattern, lines[at]):
            at += 1
        if at == len(lines):
            failures.append("%s: no line matches %r after the ones before it; output:\n%s" % (command, pattern, text))
            return
        at += 1


def check():
    s = "lt_gdb_target"
    known = value("%s.queue->knownTime_" % s)
    now = seconds(int(known["sec"]), int(known["usec"]))
    ttl = seconds(int(known["sec"]) + 5, int(known["usec"]))
    lethal = seconds(int(known["sec"]) + 60, int(known["usec"]))
    ttl_timer = int(value("%s.e3->ttlTimerId" % s))
    fd = lambda name: int(value("%s.%s" % (s, name)))

    expect("lt-loop", [
        r"^main loop %s \(\(anonymous namespace\)::TargetLoop\)$" % address("%s.loop" % s),
        r"^  wake-up pipe: read fd \d+, write fd \d+, a wake-up pending$",
        r"^  timers: 5 armed in 64 slots",
        r"^    timer %d +expires \S+ \(now \+(59|60)\.\d+ s\), every 60\.000000 s  .*onTick\(" % fd("periodicTimer"),
        r"^    timer %d +expires \S+ \(now \+(3599|3600)\.\d+ s\), once  .*onAlarm\(" % fd("alarmTimer"),
        r"^    timer %d +expires \S+ \(now \+(29|30)\.\d+ s\), every 30\.000000 s  object .*Receiver 0x" % fd("objectTimer"),
        # A lethal time and a TTL are armed as wall-clock times: already due.
        r"^    timer \d+ +expires \S+ \(due\), once  ltEventQueue::cbEventHandlerTimeOut\(.*"
        r"lethal time of handler %s \(id 6\)$" % address("%s.c" % s),
        r"^    timer %d +expires \S+ \(due\), once  ltEventQueue::cbEventTimeOut\(.* TTL of event %s " % (
            ttl_timer, address("%s.e3" % s)),
        r"^  timer index: 64 slots, earliest \S+ \(agrees with the table\)$",
        r"^  descriptors: 2 watched in 4 slots",
        r"^    handle %d +fd %d +read +.*onReadable\(" % (fd("readHandle"), fd("readFd")),
        r"^    handle %d +fd %d +write +.*onWritable\(" % (fd("writeHandle"), fd("writeFd")),
        r"^    member %d +ltEventQueue %s$" % (fd("memberId"), address("%s.queue" % s)),
    ])
    event = lambda name, keys, rest: r"ltEvent %s \{keys %s, prio %s\}$" % (address("%s.%s" % (s, name)), keys, rest)
    expect("lt-queue %s.queue" % s, [
        r"^event queue %s on loop %s: max size 4000, known time %s, dispatch depth 0, last handler id 6$" % (
            address("%s.queue" % s), address("%s.loop" % s), now),
        r"^  events waiting, in the order they will be taken: 3$",
        r"^    claimed +" + event("e2", "0x200 0x2 0x0 0x0", r"9, posted %s, no TTL" % now),
        r"^    claimed +" + event("e3", "0x300 0x3 0x0 0x0", r"0, posted %s, TTL until %s \(timer %d\)" % (now, ttl, ttl_timer)),
        r"^    queued +" + event("e4", "0x400 0x4 0x0 0x0", r"0, posted %s, no TTL" % now),
        r"^  put back at the known time, taken again once the queue is found empty: 1$",
        r"^    held +" + event("held", "0x7 0x0 0x0 0x0", r"1, posted %s, no TTL, put back at %s" % (now, now)),
        r"^  claimed batch: 1 of 3 taken, claimed at %s; 3 events out of the ring$" % now,
        r'^  invocation under way: dispatching event %s \{keys 0x100 0x1 0x0 0x0, prio 3, data "channel 5", '
        r"posted %s, no TTL\} to handler 5 \(%s\)$" % (address("%s.e1" % s), now, address("%s.b" % s)),
        r"^  handlers, in dispatch order: 3$",
        r"^    handler 4 +prio 10 +ltCallbackEventHandler %s flags 0x3 \(owns-mask\|persistent\) group 0 "
        r"mask \{key1 == 0x7\} calls .*keep\(.* no lethal time$" % address("%s.a" % s),
        r"^    handler 5 +prio 5 +ltCallbackEventHandler %s flags 0x7 \(owns-mask\|persistent\|not-owned\) group 3 "
        r'mask \{key1 == 0x100 && data prefix "chan" \(4 characters\)\} calls .*stopHere\(' % address("%s.b" % s),
        r"^    handler 6 +prio 0 +ltCallbackEventHandler %s flags 0x0 \(none\) group 0 mask \{every event\} "
        r"calls .*passOn\(.* lethal at %s \(timer \d+\)$" % (address("%s.c" % s), lethal),
    ])
    expect("print *%s.uri" % s, [r' = "rec://servicelist/dvbt\?onid=1&tsid=2&sid=3#now"$'])
    expect("print *%s.triple" % s, [r" = ltPointerList \(triple\) = \{0x\w+ <\S*targets>, 0x\w+ <\S*targets\+4>, 0x\w+ <\S*targets\+8>\}$"])
    expect("print *%s.array" % s, [r" = ltPointerList \(array of 14, count 5\) = \{(0x\w+ <\S*targets(\+\d+)?>(, )?){5}\}$"])
    expect("print *%s.sorted" % s, [r" = ltSortedList of 3 records of 4 bytes \(capacity 4\) = \{01 00 00 00, 02 00 00 00, 03 00 00 00\}$"])
    expect("print %s.queue->handlers_" % s, [r" = lfcVector of 3 \(capacity 500, grows by 15\) = \{%s, %s, %s\}$" % (
        address("%s.a" % s), address("%s.b" % s), address("%s.c" % s))])
    expect("print *%s.e3" % s, [r" = \{keys 0x300 0x3 0x0 0x0, prio 0, posted %s, TTL until %s \(timer %d\)\}$" % (now, ttl, ttl_timer)])
    expect("print *%s.b->mask" % s, [r' = \{key1 == 0x100 && data prefix "chan" \(4 characters\)\}$'])
    expect("print ltTime::noTime", [r" = no time$"])
    expect("print %s.loop->nextWakeup_" % s, [r" = \d+\.\d{6}$"])


def finish():
    for f in failures:
        gdb.write("FAIL %s\n" % f)
    if gdb.selected_inferior().pid and not on_core:
        gdb.execute("kill")
    gdb.execute("quit %d" % (1 if failures else 0))


def loaded():
    """False (and a failure) when the library came without the extension."""
    try:
        gdb.execute("help lt-loop", to_string=True)
        return True
    except gdb.error:
        failures.append("no lt-loop: the extension was not loaded with the library (the -gdb.py file beside it)")
        return False


on_core = bool(gdb.selected_inferior().threads())
if not on_core:
    # A fresh program: run it to the checkpoint, check, and leave a core file there.
    gdb.execute("break lt_gdb_checkpoint")
    gdb.execute("run")
    if loaded():
        check()
    if not failures:
        gdb.execute("gcore %s" % os.environ["LT_GDB_CORE"])
elif loaded():
    check()
finish()
