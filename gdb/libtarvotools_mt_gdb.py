# libtarvotools_mt_gdb.py - gdb support for libtarvotools-mt
#
# Pretty-printers for ltTime, ltEvent, LtUri, lfcVector, ltPointerList, ltSortedList and
# ltEventMask, and two commands:
#
#   lt-loop [EXPR]   the main loop (default ltLinuxSelectMainLoop::singleton_): cached now,
#                    next wake-up, armed timers, watched descriptors, members
#   lt-queue EXPR    an ltEventQueue: the events waiting, in the order they will be taken, the
#                    claimed batch, the dispatch under way, the handlers in dispatch order
#
# Everything is read from memory: nothing is called in the process and nothing runs, so the
# commands work alike on a stopped process and on a core file. That includes the state the
# library keeps beside the loop and the queue (the timer index, the event ring's head, the
# claimed batch, the lethal timers): it lives in side tables found through their symbols, so
# the library's symbol table (or its separate debug file) must be at hand.
#
# Installed where gdb auto-loads it for the library, under the library's real file name with
# "-gdb.py" appended; it may also be sourced by hand ("source libtarvotools_mt_gdb.py").

import gdb
import gdb.printing

kLtTimeNever = 0x7FFFFFFF

# -- reading memory -------------------------------------------------------------------------

_types = {}
gdb.events.new_objfile.connect(lambda event: _types.clear())  # perhaps another build


def _type(name):
    """The type called name, looked up once."""
    if name not in _types:
        _types[name] = gdb.lookup_type(name)
    return _types[name]


def _at(address, type_name):
    """The object of type type_name at address."""
    return gdb.Value(address).cast(_type(type_name).pointer()).dereference()


def _scalar(v):
    """The plain value inside a std::atomic (or v itself)."""
    while v.type.strip_typedefs().code == gdb.TYPE_CODE_STRUCT:
        fields = [f for f in v.type.strip_typedefs().fields() if hasattr(f, "bitpos")]  # not static
        if not fields:
            break
        v = v[fields[0]]
    return v


def _object(v, type_name):
    """v as a type_name: v itself, or the object it refers or points to."""
    code = v.type.strip_typedefs().code
    if code == gdb.TYPE_CODE_REF or code == getattr(gdb, "TYPE_CODE_RVALUE_REF", -1):
        v = v.referenced_value()
    elif code == gdb.TYPE_CODE_PTR:
        if int(v) == 0:
            raise gdb.GdbError("null pointer")
        v = v.dereference()
    if not _derives(v.type, type_name):
        raise gdb.GdbError("%s is not a %s (or a pointer to one)" % (v.type, type_name))
    return v.cast(_type(type_name))


def _derives(t, type_name):
    """Whether class t is type_name or derives from it."""
    t = t.strip_typedefs().unqualified()
    if t.code != gdb.TYPE_CODE_STRUCT:
        return False
    return t.tag == type_name or any(f.is_base_class and _derives(f.type, type_name) for f in t.fields())


def _symbol_address(name):
    """Address of the (data) symbol called name, or None when the symbol table lacks it."""
    try:
        return int(gdb.parse_and_eval("&'%s'" % name))
    except gdb.error:
        return None


def _cstring(p, limit=200):
    """The C string p points to, quoted, cut after limit bytes."""
    address = int(p)
    if address == 0:
        return "null"
    inferior = gdb.selected_inferior()
    text = b""
    while len(text) < limit:
        try:
            byte = bytes(inferior.read_memory(address + len(text), 1))
        except gdb.MemoryError:
            return "<unreadable 0x%x>" % address
        if byte == b"\0":
            break
        text += byte
    quoted = text.decode("utf-8", "backslashreplace").replace('"', '\\"')
    return '"%s"%s' % (quoted, "..." if len(text) >= limit else "")


def _std_string(s):
    try:
        return s["_M_dataplus"]["_M_p"].string(length=int(s["_M_string_length"]))
    except gdb.error:
        return str(s)


def _std_vector(v):
    impl = v["_M_impl"]
    start, finish = impl["_M_start"], impl["_M_finish"]
    return [(start + i).dereference() for i in range(int(finish - start))]


def _std_map(m):
    """(key, value) pairs of a std::map, in its order, read from its red-black tree."""
    impl = m["_M_t"]["_M_impl"]
    header = impl["_M_header"]
    base_type = header.type.strip_typedefs()
    key_type = m.type.strip_typedefs().template_argument(0)
    value_type = m.type.strip_typedefs().template_argument(1)
    round_up = lambda n, to: -(-n // to) * to
    first = round_up(base_type.sizeof, max(key_type.alignof, value_type.alignof))  # node storage
    second = round_up(key_type.sizeof, value_type.alignof)  # the pair's second member
    items = []
    node = header["_M_left"]
    for _ in range(int(impl["_M_node_count"])):
        storage = int(node) + first
        items.append((gdb.Value(storage).cast(key_type.pointer()).dereference(),
                      gdb.Value(storage + second).cast(value_type.pointer()).dereference()))
        if int(node["_M_right"]) != 0:  # the in-order successor, as _Rb_tree_increment
            node = node["_M_right"]
            while int(node["_M_left"]) != 0:
                node = node["_M_left"]
        else:
            parent = node["_M_parent"]
            while int(node) == int(parent["_M_right"]):
                node, parent = parent, parent["_M_parent"]
            if int(node["_M_right"]) != int(parent):
                node = parent
    return items


def _function_name(address):
    """The name of the function at address ('0x...' when there is none)."""
    if address == 0:
        return "null"
    try:
        block = gdb.current_progspace().block_for_pc(address)
        while block is not None and block.function is None:
            block = block.superblock
        if block is not None and block.start == address:
            return block.function.print_name
    except RuntimeError:
        pass
    try:
        text = gdb.execute("info symbol 0x%x" % address, to_string=True)
        if not text.startswith("No symbol"):
            return text.split(" in section ")[0].strip()
    except gdb.error:
        pass
    return "0x%x" % address


def _dynamic(pointer, base):
    """pointer cast to the pointer type of base, then to its dynamic type."""
    p = pointer.cast(_type(base).pointer())
    if int(p) == 0:
        return p
    try:
        return p.cast(p.dynamic_type)
    except gdb.error:
        return p


def _fields_of(t):
    """The fields of class t and of its bases."""
    for f in t.strip_typedefs().fields():
        if f.is_base_class:
            for g in _fields_of(f.type):
                yield g
        else:
            yield f


def _class_name(p):
    return str(p.type.target().unqualified().strip_typedefs())


# -- the side tables: state kept beside an object, found by the object's address -------------

def _side_table_find(table, key):
    """What the lt_internal::SideTable 'table' binds to key: a void* Value, or None."""
    buckets = table["buckets_"]
    low, high = buckets.type.strip_typedefs().range()
    bits = (high - low + 1).bit_length() - 1
    bucket = ((key * 0x9E3779B97F4A7C15) & 0xFFFFFFFFFFFFFFFF) >> (64 - bits)
    node = _scalar(buckets[bucket])
    while int(node) != 0:
        if int(_scalar(node["key"])) == key:
            value = _scalar(node["value"])
            return value if int(value) != 0 else None
        node = _scalar(node["next"])
    return None


def _queue_ext(queue):
    """The queue's ltEventQueue::Ext, or None; raises gdb.GdbError without the table's symbol."""
    address = _symbol_address("(anonymous namespace)::extTable()::table")
    if address is None:
        raise gdb.GdbError("the event queues' side table is not in the symbol table: "
                           "load the library's symbols (or its debug file)")
    table = _at(address, "lt_internal::SideTable<void>")
    ext = _side_table_find(table, int(queue.address))
    return None if ext is None else ext.cast(_type("ltEventQueue::Ext").pointer()).dereference()


def _timer_index(loop):
    """The loop's lt_internal::TimerIndex, or None."""
    address = _symbol_address("(anonymous namespace)::timerIndexes()::table")
    if address is None:
        return None
    table_type = _type("lt_internal::SideTable<lt_internal::TimerIndex>")
    table = gdb.Value(address).cast(table_type.pointer().pointer()).dereference()
    if int(table) == 0:
        return None
    index = _side_table_find(table.dereference(), int(loop.address))
    return None if index is None else index.cast(_type("lt_internal::TimerIndex").pointer()).dereference()


# -- times ----------------------------------------------------------------------------------

def _pair(t):
    return int(t["sec"]), int(t["usec"])


def format_time(t):
    sec, usec = _pair(t) if isinstance(t, gdb.Value) else t
    if (sec, usec) == (-1, -1):
        return "no time"
    if sec == kLtTimeNever:
        return "never"
    total = sec * 1000000 + usec
    sign = "-" if total < 0 else ""
    return "%s%d.%06d" % (sign, abs(total) // 1000000, abs(total) % 1000000)


def _micros(t):
    sec, usec = _pair(t) if isinstance(t, gdb.Value) else t
    return sec * 1000000 + usec


def _relative(t, now):
    """t, and how far it lies from now."""
    if _pair(t)[0] == kLtTimeNever:
        return "never"
    delta = _micros(t) - _micros(now)
    if delta <= 0:
        return "%s (due)" % format_time(t)
    return "%s (now +%s s)" % (format_time(t), format_time((0, delta)))


# -- pretty-printers --------------------------------------------------------------------------

class TimePrinter:
    """ltTime: seconds.microseconds; 'no time' and 'never' by name."""

    def __init__(self, val):
        self.val = val

    def to_string(self):
        return format_time(self.val)


def _event_summary(e):
    keys = " ".join("0x%x" % int(e["key%d" % i]) for i in range(1, 5))
    parts = ["keys %s" % keys, "prio %d" % int(e["prio"])]
    if int(e["data"]) != 0:
        parts.append("data %s" % _cstring(e["data"]))
    if int(e["owner"]) == 0:
        parts.append("not posted")
        return ", ".join(parts)
    parts.append("posted %s" % format_time(e["timeStamp"]))
    if int(e["ttlTimerId"]) != 0:
        parts.append("TTL until %s (timer %d)" % (format_time(e["lethalTime"]), int(e["ttlTimerId"])))
    else:
        parts.append("no TTL")
    if _pair(e["deferralTime"]) != (0, 0):
        parts.append("put back at %s" % format_time(e["deferralTime"]))
    return ", ".join(parts)


class EventPrinter:
    """ltEvent: keys, priority, data, time stamp, TTL and put-back time in one line."""

    def __init__(self, val):
        self.val = val

    def to_string(self):
        return "{%s}" % _event_summary(self.val)


_KEY_OPERATORS = {1: "<", 2: ">", 4: "==", 5: "<=", 6: ">=", 7: "&", 9: "!="}
_DATA_OPERATORS = {1: "<", 2: ">", 3: "prefix", 4: "==", 5: "<=", 6: ">="}


def _term(term):
    """One mask term, written as a condition on the event's field."""
    code, op = int(term["code"]), int(term["op"])
    field = code & 0x0F
    if field in (1, 2, 3, 4):
        name, operand = "key%d" % field, "0x%x" % int(term["operand"]["value"])
    elif field == 5:
        name, operand = "data", _cstring(term["operand"]["string"])
    else:
        name, operand = "field %d" % field, "-"
    if op & 7 == 0:
        text = "%s %s (operator %d: evaluation ends here)" % (name, operand, op)
    elif field in (1, 2, 3, 4):
        # Stored as 'operand OP value': written here from the event's side.
        symbol = _KEY_OPERATORS.get(op & 0x1F)
        text = "%s %s %s" % (name, symbol, operand) if symbol else "%s never" % name
    elif field == 5:
        symbol = _DATA_OPERATORS.get(op & 7)
        text = "%s %s %s" % (name, symbol, operand) if symbol else "data never"
        if symbol and op & 8:
            text += " (any case)"
        if (op & 7) == 3:
            text += " (%d characters)" % int(term["length"])
    else:
        text = "%s never" % name
    if code & 0x20:
        text = "!(%s)" % text
    if code & 0x40:
        text += " [goes on when false]"
    return text


class EventMaskPrinter:
    """ltEventMask: its terms, joined by &&."""

    def __init__(self, val):
        self.val = val

    def to_string(self):
        count = int(self.val["termCount"])
        terms = self.val["terms"]
        if count == 0 or int(terms) == 0:
            text = "every event"
        else:
            text = " && ".join(_term((terms + i).dereference()) for i in range(count))
        extras = []
        if int(self.val["evaluateAll"]) != 0:
            extras.append("evaluates all")
        if int(self.val["extra1"]) or int(self.val["extra2"]):
            extras.append("extra 0x%x 0x%x" % (int(self.val["extra1"]), int(self.val["extra2"])))
        return "{%s}" % "; ".join([text] + extras)


class UriPrinter:
    """LtUri: the text getUri() would compose from the parsed parts."""

    def __init__(self, val):
        self.val = val

    def to_string(self):
        v = self.val
        scheme = _std_string(v["scheme_"])
        if not scheme:
            return '"%s"' % _std_string(v["uri_"])
        authority, path = _std_string(v["authority_"]), _std_string(v["path_"])
        text = scheme + "://"
        if authority:
            text += authority + ("/" + path if path else "")
        else:
            text += path
        queries = dict((_std_string(k), _std_string(x)) for k, x in _std_map(v["queries_"]))
        for i, key in enumerate(_std_string(k) for k in _std_vector(v["queryKeys_"])):
            if key not in queries:
                continue
            text += ("?" if i == 0 else "&") + key
            if queries[key]:
                text += "=" + queries[key]
        fragment = _std_string(v["fragment_"])
        if fragment:
            text += "#" + fragment
        return '"%s"' % text


class VectorPrinter:
    """lfcVector: its entries, each as a pointer to its dynamic type."""

    def __init__(self, val):
        self.val = val

    def to_string(self):
        return "lfcVector of %d (capacity %d, grows by %d)" % (
            int(self.val["size"]), int(self.val["capacity"]), int(self.val["growBy"]))

    def children(self):
        data = self.val["data"]
        for i in range(int(self.val["size"])):
            yield "[%d]" % i, _dynamic((data + i).dereference(), "lfcObject")

    def display_hint(self):
        return "array"


class PointerListPrinter:
    """ltPointerList: its form (single, triple, array) and its pointers by slot."""

    def __init__(self, val):
        self.val = val
        word = int(self.val["storage"])
        self.tag, self.block = word & 3, word & ~3
        self.slots = []
        if self.tag == 0:
            self.form = "single, empty" if word == 0 else "single"
            self.slots = [(0, word)] if word else []
        elif self.tag == 3:
            self.form = "triple"
            self.slots = self._read(self.block, 3)
        elif self.tag == 2:
            capacity = int(_at(self.block, "uint16_t"))
            count = int(_at(self.block + 2, "uint16_t"))
            self.form = "array of %d, count %d" % (capacity, count)
            self.slots = self._read(self.block + _type("void").pointer().sizeof, capacity)
        else:
            self.form = "tag 1, empty"

    @staticmethod
    def _read(address, n):
        void_p = _type("void").pointer()
        slots = gdb.Value(address).cast(void_p.pointer())
        return [(i, int(slots[i])) for i in range(n)]

    def to_string(self):
        return "ltPointerList (%s)" % self.form

    def children(self):
        void_p = _type("void").pointer()
        for i, p in self.slots:
            if p != 0:
                yield "[%d]" % i, gdb.Value(p).cast(void_p)

    def display_hint(self):
        return "array"


class SortedListPrinter:
    """ltSortedList: its records in order, as hex bytes (the default order is memcmp's)."""

    def __init__(self, val):
        self.val = val

    def to_string(self):
        return "ltSortedList of %d records of %d bytes (capacity %d)" % (
            int(self.val["count"]), int(self.val["elementSize"]), int(self.val["capacity"]))

    def children(self):
        size = int(self.val["elementSize"])
        array = int(self.val["array"])
        inferior = gdb.selected_inferior()
        for i in range(int(self.val["count"])):
            raw = bytes(inferior.read_memory(array + i * size, min(size, 32)))
            yield "[%d]" % i, " ".join("%02x" % b for b in raw) + (" ..." if size > 32 else "")

    def display_hint(self):
        return "array"


def build_printers():
    printers = gdb.printing.RegexpCollectionPrettyPrinter("libtarvotools-mt")
    printers.add_printer("ltTime", "^ltTime$", TimePrinter)
    printers.add_printer("ltEvent", "^ltEvent$", EventPrinter)
    printers.add_printer("ltEventMask", "^ltEventMask$", EventMaskPrinter)
    printers.add_printer("LtUri", "^ta::tarvotools::uri::LtUri$", UriPrinter)
    printers.add_printer("lfcVector", "^lfcVector$", VectorPrinter)
    printers.add_printer("ltPointerList", "^ltPointerList$", PointerListPrinter)
    printers.add_printer("ltSortedList", "^ltSortedList$", SortedListPrinter)
    return printers


# -- lt-loop ----------------------------------------------------------------------------------

_FLAG_NAMES = [(0x01, "members-changed"), (0x02, "timers-changed"), (0x04, "handles-changed"),
               (0x08, "now-stale"), (0x10, "wakeup-stale")]
_HANDLE_TYPES = {0: "read", 1: "write", 2: "exception"}


def _entries(table, entry_type):
    """(slot, entry) for every slot of an ltIdTable in use, in slot order."""
    base, size = int(table["slots"]), int(table["entrySize"])
    if base == 0:
        return
    key_mask = int(table["keyMask"])
    free = 0 if bool(table["freeIsZero"]) else key_mask
    for slot in range(int(table["capacity"])):
        address = base + slot * size
        if int(_at(address, "uint32_t")) & key_mask != free:
            yield slot, _at(address, entry_type)


def _callback(callback, user_data, receiver_type):
    """What a timer or descriptor calls: its function, or the receiver object."""
    if int(callback) != 0:
        return _function_name(int(callback))
    receiver = _dynamic(user_data, receiver_type)
    return "object %s 0x%x" % (_class_name(receiver), int(user_data))


def _library_timer(name, user_data):
    """What a timer armed by an event queue is for, or ''."""
    if name.startswith("ltEventQueue::cbEventTimeOut"):
        event = user_data.cast(_type("ltEvent").pointer())
        return "  TTL of event 0x%x (keys 0x%x ...)" % (int(event), int(event["key1"]))
    if name.startswith("ltEventQueue::cbEventHandlerTimeOut"):
        handler = user_data.cast(_type("ltEventHandler").pointer())
        return "  lethal time of handler 0x%x (id %d)" % (int(handler), int(handler["id"]))
    return ""


def format_loop(loop):
    """lt-loop's text for loop, an ltAbstractMainLoop."""
    now = loop["now_"]
    flags = int(loop["flags_"])
    out = []
    dynamic = loop.dynamic_type
    out.append("main loop 0x%x (%s)" % (int(loop.address), dynamic))
    stale = [name for bit, name in _FLAG_NAMES if flags & bit]
    next_wakeup = _relative(loop["nextWakeup_"], now)
    if flags & 0x10:
        next_wakeup += ", stale: computed again on the next pass"
    out.append("  now %s, next wake-up %s" % (format_time(now), next_wakeup))
    out.append("  dirty flags 0x%02x%s" % (flags, " (%s)" % ", ".join(stale) if stale else ""))
    if any(f.name == "pipeRead_" for f in _fields_of(dynamic)):
        select = loop.address.cast(_type("ltLinuxSelectMainLoop").pointer()).dereference()
        out.append("  wake-up pipe: read fd %d, write fd %d, %s" % (
            int(select["pipeRead_"]), int(select["pipeWrite_"]),
            "a wake-up pending" if int(select["wakeupPending_"]) else "nothing pending"))

    timers = loop["timers_"]
    rows = []
    earliest = None
    for slot, e in _entries(timers, "ltAbstractMainLoop::TimerEntry"):
        period = e["period"]
        every = "once" if _pair(period) == (-1, -1) else "every %s s" % format_time(period)
        if earliest is None or _micros(e["expiry"]) < _micros(earliest):
            earliest = _pair(e["expiry"])
        name = _callback(e["callback"], e["userData"], "ltTimerReceiver")
        rows.append("    timer %-6d expires %s, %s  %s  data 0x%x%s" % (
            int(e["id"]), _relative(e["expiry"], now), every, name, int(e["userData"]),
            _library_timer(name, e["userData"])))
    out.append("  timers: %d armed in %d slots, fired in slot order:" % (
        int(timers["count"]), int(timers["capacity"])))
    out.extend(rows)
    index = _timer_index(loop)
    if index is None or int(index["slots_"]) != int(timers["capacity"]):
        out.append("  timer index: none (the loop walks its table)")
    else:
        root = int((index["nodes_"] + 1).dereference())  # node 1 holds the earliest expiry
        if root == 0xFFFFFFFFFFFFFFFF:
            out.append("  timer index: %d slots, empty" % int(index["slots_"]))
        else:
            # Keys are (sec, usec) with their sign bits flipped; the index rounds one expiry
            # down by a microsecond.
            signed = lambda word: (word ^ 0x80000000) - ((word ^ 0x80000000) & 0x80000000) * 2
            first = (signed(root >> 32), signed(root & 0xFFFFFFFF))
            agrees = earliest is not None and 0 <= _micros(earliest) - _micros(first) <= 1
            out.append("  timer index: %d slots, earliest %s (%s)" % (
                int(index["slots_"]), format_time(first),
                "agrees with the table" if agrees else "DISAGREES with the table"))

    handles = loop["ioHandles_"]
    rows = []
    for slot, e in _entries(handles, "ltAbstractMainLoop::IOEntry"):
        kind = _HANDLE_TYPES.get(int(e["type"]), "type %d (never watched)" % int(e["type"]))
        rows.append("    handle %-5d fd %-4d %-9s %s  data 0x%x" % (
            int(e["id"]), int(e["fd"]), kind, _callback(e["callback"], e["userData"], "ltIOHandleReceiver"),
            int(e["userData"])))
    out.append("  descriptors: %d watched in %d slots:" % (int(handles["count"]), int(handles["capacity"])))
    out.extend(rows)

    members = loop["members_"]
    live = 1 if _type("void").pointer().sizeof > 4 else 0  # kMemberLive
    rows = []
    for slot, e in _entries(members, "ltAbstractMainLoop::MemberEntry"):
        member = gdb.Value(int(e["member"]) & ~live).cast(_type("ltMainLoopMember").pointer())
        member = _dynamic(member, "ltMainLoopMember")
        rows.append("    member %-5d %s 0x%x" % (int(e["id"]), _class_name(member), int(member)))
    out.append("  members: %d registered in %d slots, run in slot order:" % (
        int(members["count"]), int(members["capacity"])))
    out.extend(rows)
    return "\n".join(out) + "\n"


class LoopCommand(gdb.Command):
    """Print a libtarvotools-mt main loop: lt-loop [EXPR]

EXPR is a loop or a pointer to one; by default ltLinuxSelectMainLoop::singleton_. Shows the
cached now and the next wake-up (monotonic seconds), the dirty flags, every armed timer (id,
expiry, period, what it calls), the timer index beside the loop, every watched descriptor (id,
fd, type, what it calls) and every member. Reads memory only: works on a core file."""

    def __init__(self):
        super().__init__("lt-loop", gdb.COMMAND_DATA, gdb.COMPLETE_EXPRESSION)

    def invoke(self, arg, from_tty):
        expr = arg.strip() or "ltLinuxSelectMainLoop::singleton_"
        gdb.write(format_loop(_object(gdb.parse_and_eval(expr), "ltAbstractMainLoop")))


# -- lt-queue ---------------------------------------------------------------------------------

_HANDLER_FLAGS = [(0x1, "owns-mask"), (0x2, "persistent"), (0x4, "not-owned")]


def _event_line(p, tag):
    event = _dynamic(p, "ltEvent")
    kind = _class_name(event)
    return "    %-9s %s 0x%x {%s}" % (tag, kind, int(event), _event_summary(event.dereference().cast(_type("ltEvent"))))


def format_queue(q):
    """lt-queue's text for q, an ltEventQueue."""
    out = []
    known = "%s%s" % (format_time(q["knownTime_"]), "" if int(q["knownTimeValid_"]) else " (stale)")
    depth = int(q["dispatchDepth_"])
    out.append("event queue 0x%x on loop 0x%x: max size %d, known time %s, %s, last handler id %d" % (
        int(q.address), int(q["loop_"].address), int(_scalar(q["maxQueueSize_"])), known,
        "at rest" if depth < 0 else "dispatch depth %d" % depth, int(q["handlerIdCounter_"])))
    ext = _queue_ext(q)
    events = q["events_"]
    if ext is None:
        out.append("  no bookkeeping beside the queue: nothing was ever posted")
        ring, skipped, claimed = [], 0, []
    else:
        size, capacity, data = int(events["size"]), int(events["capacity"]), events["data"]
        head, skipped = int(ext["head"]), int(ext["skipped"])
        ring = [(data + (head + i) % capacity).dereference() for i in range(size)] if capacity else []
        claim = ext["claim"]
        first, count = int(claim["next"]), int(claim["count"])
        claimed = [claim["events"][i] for i in range(first, count)]
        claim_known = claim["known"]

    waiting = []
    for p in claimed:
        # One put back at the claim's known time joins the held ones when its turn comes.
        if _pair(p["deferralTime"]) == _pair(claim_known):
            waiting.append(_event_line(p, "claimed*"))
        else:
            waiting.append(_event_line(p, "claimed"))
    waiting.extend(_event_line(p, "queued") for p in ring[skipped:])
    out.append("  events waiting, in the order they will be taken: %d" % len(waiting))
    out.extend(waiting)
    held = [_event_line(p, "held") for p in ring[:skipped]]
    out.append("  put back at the known time, taken again once the queue is found empty: %d" % len(held))
    out.extend(held)
    if ext is not None:
        out.append("  claimed batch: %d of %d taken, claimed at %s; %d events out of the ring" % (
            first, count, format_time(claim_known), int(_scalar(claim["held"]))))
        frame = ext["frames"]
        while int(frame) != 0:
            f = frame.dereference()
            if int(f["event"]) != 0:
                what = "dispatching event 0x%x {%s}%s" % (
                    int(f["event"]), _event_summary(f["event"].dereference()),
                    " (expired meanwhile)" if bool(f["eventExpired"]) else "")
            else:
                what = "lethal time"
            if int(f["handler"]) == 0:
                what += ", between handlers"
            elif bool(f["handlerGone"]):
                what += " to handler 0x%x (deleted meanwhile)" % int(f["handler"])
            else:
                what += " to handler %d (0x%x)" % (int(f["handler"]["id"]), int(f["handler"]))
            out.append("  invocation under way: %s" % what)
            frame = f["outer"]

    lethal = {}
    if ext is not None:
        for entry in _std_vector(ext["lethalTimers"]):
            lethal[int(entry["first"])] = int(entry["second"])
    handlers = q["handlers_"]
    out.append("  handlers, in dispatch order: %d" % int(handlers["size"]))
    for i in range(int(handlers["size"])):
        p = (handlers["data"] + i).dereference()
        if int(p) == 0:
            out.append("    [%d] null" % i)
            continue
        h = _dynamic(p, "ltEventHandler")
        base = h.dereference().cast(_type("ltEventHandler"))
        flags = int(base["flags"])
        names = [name for bit, name in _HANDLER_FLAGS if flags & bit] or ["none"]
        mask = base["mask"]
        line = "    handler %-4d prio %-4d %s 0x%x flags 0x%x (%s) group %d mask %s" % (
            int(base["id"]), int(base["priority"]), _class_name(h), int(h), flags, "|".join(names),
            int(base["groupTag"]), EventMaskPrinter(mask.dereference()).to_string() if int(mask) else "{every event}")
        try:
            line += " calls %s" % _function_name(int(h.dereference()["callback"]))
        except gdb.error:
            pass
        if _pair(base["lethalTime"])[0] == -1:
            line += " no lethal time"
        else:
            line += " lethal at %s" % format_time(base["lethalTime"])
            if int(h) in lethal:
                line += " (timer %d)" % lethal[int(h)]
        out.append(line)
    return "\n".join(out) + "\n"


class QueueCommand(gdb.Command):
    """Print an event queue of libtarvotools-mt: lt-queue EXPR

EXPR is an ltEventQueue or a pointer to one. Shows the events waiting in the order the queue
will take them (claimed* marks one put back at the known time, which joins the held ones), the
events put back and held until the queue is found empty, the claimed batch, any invocation
under way, and the handlers in dispatch order with their masks, flags and lethal times. Reads
memory only: works on a core file."""

    def __init__(self):
        super().__init__("lt-queue", gdb.COMMAND_DATA, gdb.COMPLETE_EXPRESSION)

    def invoke(self, arg, from_tty):
        if not arg.strip():
            raise gdb.GdbError("usage: lt-queue EXPR (an ltEventQueue or a pointer to one)")
        gdb.write(format_queue(_object(gdb.parse_and_eval(arg), "ltEventQueue")))


LoopCommand()
QueueCommand()
gdb.printing.register_pretty_printer(gdb.current_objfile(), build_printers(), replace=True)
