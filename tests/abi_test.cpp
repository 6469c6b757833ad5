//===- abi_test.cpp - Layouts applications see, on armhf and on x86-64 ----===//
//
// Applications compile against the public headers and share objects with the library, so the
// size, alignment and field offsets of its records are part of its interface. The 32-bit
// expectations (armhf, the target) are selected with sizeof(void*) == 4; on x86-64 the same
// test checks what carries over: the field order, the widths of the fixed-size fields, and the
// entries and records that are laid out in pointer-sized words on both.
//
// Plain records are checked at compile time with offsetof. Classes with a virtual table are
// not standard-layout, so offsetof is not defined for them; their field offsets are read at
// run time from member pointers instead. For classes with private fields, ltAbiLayout is the
// friend the headers declare for this test.
//
//===----------------------------------------------------------------------===//
#include <pthread.h>
#include <sys/select.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>

#include "csp_osal.h"
#include "lfcblock.h"
#include "lfcutil.h"
#include "lfcvector.h"
#include "lfcvectoriterator.h"
#include "ltabstractmainloop.h"
#include "ltcalendartime.h"
#include "ltcallbackeventhandler.h"
#include "ltconditionmutex.h"
#include "ltconfiguration.h"
#include "ltevent.h"
#include "lteventhandler.h"
#include "lteventmask.h"
#include "lteventqueue.h"
#include "ltguard.h"
#include "ltidtable.h"
#include "ltimghash.h"
#include "ltlinuxselectmainloop.h"
#include "ltmd5.h"
#include "ltpluginloader.h"
#include "ltpointerlist.h"
#include "ltrandom.h"
#include "ltrsa.h"
#include "ltscopemeter.h"
#include "ltscopetimer.h"
#include "ltsemaphoros.h"
#include "ltserialexecutor.h"
#include "ltsortedlist.h"
#include "lttime.h"
#include "lttimer.h"
#include "lturi.h"

namespace {

constexpr size_t kWord = sizeof(void*);
constexpr bool kWord32 = kWord == 4;  // armhf: the layouts below are stated for this build
constexpr size_t kUnknown = ~size_t{0};

// One field as the compiler placed it.
struct Field {
    const char* name;
    size_t offset;  // kUnknown where it cannot be read (a reference member)
    size_t size;
    size_t align;
};

// Byte offset of a data member. Both targets follow the Itanium C++ ABI (ARM's EABI too), in
// which a pointer to a data member holds exactly that offset.
template <class C, class M>
size_t offsetOfMember(M C::*member)
{
    static_assert(sizeof member == sizeof(std::ptrdiff_t), "a data member pointer is one offset");
    std::ptrdiff_t offset;
    std::memcpy(&offset, &member, sizeof offset);
    return static_cast<size_t>(offset);
}

template <class C, class M>
Field field(const char* name, M C::*member)
{
    return {name, offsetOfMember(member), sizeof(M), alignof(M)};
}

// The field 'member' of 'Class', named after itself.
#define ABI_FIELD(Class, member) field(#member, &Class::member)

// A field whose address cannot be taken: only its size and alignment are known.
Field hidden(const char* name, size_t size, size_t align)
{
    return {name, kUnknown, size, align};
}

constexpr size_t alignUp(size_t n, size_t a)
{
    return (n + a - 1) / a * a;
}

// The fields lie in the given order from 'start' on, each right after the one before but for
// the padding its own alignment needs: none moved, none missing, nothing slipped in between.
// 'start' is where the first field must lie (kUnknown: wherever it is). Returns the end of the
// last field, where the fields of a derived class go.
size_t expectFieldsInOrder(const char* record, size_t start, std::initializer_list<Field> fields)
{
    size_t next = start;
    for (const Field& f : fields) {
        const size_t expected = next == kUnknown ? f.offset : alignUp(next, f.align);
        if (f.offset != kUnknown) {
            EXPECT_EQ(expected, f.offset) << record << "::" << f.name;
        }
        next = expected + f.size;
    }
    return next;
}

// Where the first field of a class lies whose bases hold nothing but the virtual table pointer.
constexpr size_t kAfterVtable = sizeof(void*);

}  // namespace

// -- records whose exact layout applications rely on --

static_assert(sizeof(ltTime) == 8 && alignof(ltTime) == 4, "ltTime is two 32-bit words");
static_assert(offsetof(ltTime, sec) == 0 && offsetof(ltTime, usec) == 4, "sec, then usec");
static_assert(std::is_same<decltype(ltTime::sec), int32_t>::value &&
                  std::is_same<decltype(ltTime::usec), int32_t>::value,
              "both fields are signed 32-bit");

static_assert(sizeof(_cspOsalTime_struct) == 16 && alignof(_cspOsalTime_struct) == 8,
              "the OSAL time record is four 32-bit words, 8-byte aligned");
static_assert(offsetof(_cspOsalTime_struct, sec) == 0 && offsetof(_cspOsalTime_struct, nsec) == 8,
              "64-bit seconds, then 32-bit nanoseconds");
static_assert(std::is_same<decltype(_cspOsalTime_struct::sec), int64_t>::value &&
                  std::is_same<decltype(_cspOsalTime_struct::nsec), int32_t>::value,
              "seconds are signed 64-bit, nanoseconds signed 32-bit");

// A mask term: code, operator, 16-bit length, then a one-word operand (a value or a string).
static_assert(offsetof(ltEventMaskTerm, code) == 0 && offsetof(ltEventMaskTerm, op) == 1 &&
                  offsetof(ltEventMaskTerm, length) == 2,
              "code byte, operator byte, then the 16-bit length");
static_assert(sizeof(ltEventMaskTerm::length) == 2, "the length is 16 bits");
static_assert(offsetof(ltEventMaskTerm, operand) == kWord && sizeof(ltEventMaskTerm) == 2 * kWord,
              "the operand is the term's second word");
static_assert(!kWord32 || sizeof(ltEventMaskTerm) == 8, "a term is 8 bytes on armhf");

static_assert(sizeof(ltPointerList) == kWord && alignof(ltPointerList) == alignof(void*),
              "the pointer list is one word");
static_assert(!kWord32 || sizeof(ltPointerList) == 4, "one 32-bit word on armhf");

static_assert(sizeof(lt_internal::LfcBlockHeader) == 8 && alignof(lt_internal::LfcBlockHeader) == 4,
              "the block header is 8 bytes on every build");
static_assert(offsetof(lt_internal::LfcBlockHeader, magic) == 0 &&
                  offsetof(lt_internal::LfcBlockHeader, size) == 4 &&
                  sizeof(lt_internal::LfcBlockHeader::size) == 4,
              "the magic, then the 32-bit size");

static_assert(sizeof(lt_md5_state_t) == 88 && offsetof(lt_md5_state_t, count) == 0 &&
                  offsetof(lt_md5_state_t, abcd) == 8 && offsetof(lt_md5_state_t, buf) == 24,
              "the MD5 state: 2 words of count, 4 of A..D, then the 64-byte block");

// The id table's fields: their widths, and their order (its users read them directly).
static_assert(std::is_same<decltype(ltIdTable::initialBits), uint8_t>::value &&
                  std::is_same<decltype(ltIdTable::maxBits), uint8_t>::value &&
                  std::is_same<decltype(ltIdTable::currentBits), uint8_t>::value &&
                  sizeof(ltIdTable::freeIsZero) == 1 &&
                  std::is_same<decltype(ltIdTable::count), uint16_t>::value &&
                  std::is_same<decltype(ltIdTable::capacity), uint16_t>::value &&
                  std::is_same<decltype(ltIdTable::keyMask), uint32_t>::value &&
                  sizeof(ltIdTable::entrySize) == 4 && sizeof(ltIdTable::cursor) == 4 &&
                  sizeof(ltIdTable::slots) == kWord,
              "id table field widths");
static_assert(offsetof(ltIdTable, initialBits) == 0 && offsetof(ltIdTable, maxBits) == 1 &&
                  offsetof(ltIdTable, currentBits) == 2 && offsetof(ltIdTable, freeIsZero) == 3 &&
                  offsetof(ltIdTable, count) == 4 && offsetof(ltIdTable, capacity) == 6 &&
                  offsetof(ltIdTable, keyMask) == 8 && offsetof(ltIdTable, entrySize) == 12 &&
                  offsetof(ltIdTable, cursor) == 16 &&
                  offsetof(ltIdTable, slots) == alignUp(20, kWord),
              "id table field order: three bit counts, the flag, two counters, then the words");
static_assert(!kWord32 || sizeof(ltIdTable) == 24, "the id table is six words on armhf");
static_assert(sizeof(ltIdTable::entryMaskes_) == 5 * 4, "five 32-bit masks");

// The loop tables' entries: 3, 7 and 5 words on armhf. The member entry is three words on both
// builds; the others keep their order, with each pointer in a word of its own.
using MemberEntry = ltAbstractMainLoop::MemberEntry;
using TimerEntry = ltAbstractMainLoop::TimerEntry;
using IOEntry = ltAbstractMainLoop::IOEntry;

static_assert(offsetof(MemberEntry, member) == 0 && offsetof(MemberEntry, id) == kWord &&
                  offsetof(MemberEntry, unused) == 2 * kWord && sizeof(MemberEntry) == 3 * kWord,
              "member entry: member pointer, id, unused word");
static_assert(!kWord32 || sizeof(MemberEntry) == 3 * 4, "a member entry is 3 words on armhf");

static_assert(offsetof(TimerEntry, expiry) == 0 && offsetof(TimerEntry, period) == 8 &&
                  offsetof(TimerEntry, userData) == 16 &&
                  offsetof(TimerEntry, callback) == 16 + kWord &&
                  offsetof(TimerEntry, id) == 16 + 2 * kWord,
              "timer entry: expiry, period, user data, callback, id");
static_assert(!kWord32 || sizeof(TimerEntry) == 7 * 4, "a timer entry is 7 words on armhf");

static_assert(offsetof(IOEntry, fd) == 0 && offsetof(IOEntry, userData) == kWord &&
                  offsetof(IOEntry, callback) == 2 * kWord && offsetof(IOEntry, id) == 3 * kWord &&
                  offsetof(IOEntry, stamp) == 3 * kWord + 4 &&
                  offsetof(IOEntry, type) == 3 * kWord + 5,
              "I/O entry: fd, user data, callback, id, then the stamp and type bytes");
static_assert(sizeof(IOEntry::fd) == 4 && sizeof(IOEntry::stamp) == 1 && sizeof(IOEntry::type) == 1,
              "the fd is 32-bit; stamp and type are one byte each");
static_assert(!kWord32 || sizeof(IOEntry) == 5 * 4, "an I/O entry is 5 words on armhf");

// The friend the classes with private fields declare. Their plain records are checked here at
// compile time; the others through fields() at run time.
struct ltAbiLayout {
    static_assert(offsetof(ltGuard, direct_) == 0 && offsetof(ltGuard, ltMutex_) == kWord &&
                      offsetof(ltGuard, unlocked_) == 2 * kWord && sizeof(ltGuard::unlocked_) == 4,
                  "guard: direct mutex, ltMutex pointer, 32-bit unlocked flag");
    static_assert(!kWord32 || sizeof(ltGuard) == 12, "the guard is 3 words on armhf");
    static_assert(offsetof(ltConditionMutex, outside_) == 0 &&
                      offsetof(ltConditionMutex, own_) == kWord &&
                      offsetof(ltConditionMutex, cond_) ==
                          alignUp(kWord + sizeof(pthread_mutex_t), alignof(pthread_cond_t)),
                  "condition mutex: the outside mutex pointer, then its own mutex");
    static_assert(offsetof(ltPluginLoader, handle) == 0 && offsetof(ltPluginLoader, uri) == kWord &&
                      sizeof(ltPluginLoader) == 2 * kWord,
                  "plug-in loader: the dlopen handle, then the owned path");
    static_assert(offsetof(ltrsa, key) == 0 && offsetof(ltrsa, keyInvalid) == kWord &&
                      sizeof(ltrsa::keyInvalid) == 1,
                  "RSA: the key, then the invalid flag");
    static_assert(std::is_same<decltype(ltTimer::type), uint32_t>::value &&
                      std::is_same<decltype(ltimghash::byteCount), uint32_t>::value &&
                      sizeof(ltLinuxSelectMainLoop::wakeupPending_) == 2 &&
                      sizeof(ltEventQueue::knownTimeValid_) == 1 &&
                      std::is_same<decltype(ltEventQueue::handlerIdCounter_), uint64_t>::value,
                  "fixed widths of private fields");

    static void expectLinuxSelectMainLoop(size_t endOfBaseFields)
    {
        // After the base's fields (the base may add its own behind them).
        const size_t first = offsetOfMember(&ltLinuxSelectMainLoop::wakeupPending_);
        EXPECT_GE(first, endOfBaseFields);
        expectFieldsInOrder("ltLinuxSelectMainLoop", first,
                            {ABI_FIELD(ltLinuxSelectMainLoop, wakeupPending_),
                             ABI_FIELD(ltLinuxSelectMainLoop, pipeRead_),
                             ABI_FIELD(ltLinuxSelectMainLoop, pipeWrite_)});
    }

    static void expectEventQueue()
    {
        expectFieldsInOrder("ltEventQueue", kAfterVtable,
                            {ABI_FIELD(ltEventQueue, dispatchDepth_),
                             ABI_FIELD(ltEventQueue, events_),
                             ABI_FIELD(ltEventQueue, maxQueueSize_),
                             ABI_FIELD(ltEventQueue, handlers_),
                             ABI_FIELD(ltEventQueue, knownTimeValid_),
                             ABI_FIELD(ltEventQueue, knownTime_),
                             ABI_FIELD(ltEventQueue, handlerIdCounter_),
                             hidden("loop_", sizeof(void*), alignof(void*)),  // a reference
                             ABI_FIELD(ltEventQueue, mutex_)});
    }

    static void expectTimer()
    {
        expectFieldsInOrder("ltTimer", kAfterVtable,
                            {ABI_FIELD(ltTimer, type), ABI_FIELD(ltTimer, timeout),
                             ABI_FIELD(ltTimer, period), ABI_FIELD(ltTimer, active)});
    }

    static void expectSerialExecutor()
    {
        expectFieldsInOrder("ltSerialExecutor", 0,
                            {ABI_FIELD(ltSerialExecutor, queue),
                             ABI_FIELD(ltSerialExecutor, stop),
                             ABI_FIELD(ltSerialExecutor, mutex),
                             ABI_FIELD(ltSerialExecutor, condition),
                             ABI_FIELD(ltSerialExecutor, worker)});
    }

    static void expectConfiguration()
    {
        expectFieldsInOrder("ltConfiguration", kAfterVtable,
                            {ABI_FIELD(ltConfiguration, configurationFilePath_),
                             ABI_FIELD(ltConfiguration, initError_),
                             ABI_FIELD(ltConfiguration, tree_)});
    }

    static void expectMd5()
    {
        expectFieldsInOrder("LTmd5", kAfterVtable,
                            {ABI_FIELD(LTmd5, text), ABI_FIELD(LTmd5, hex),
                             ABI_FIELD(LTmd5, digest)});
        EXPECT_EQ(16u, sizeof(LTmd5::digest));
    }

    static void expectImageHash()
    {
        expectFieldsInOrder("ltimghash", kAfterVtable,
                            {ABI_FIELD(ltimghash, digest),
                             ABI_FIELD(ltimghash, finalized),
                             ABI_FIELD(ltimghash, failed),
                             ABI_FIELD(ltimghash, byteCount),
                             ABI_FIELD(ltimghash, mdCtx)});
        EXPECT_EQ(20u, sizeof(ltimghash::digest));
    }
};

namespace ta {
namespace tarvotools {
namespace uri {
// LtUri's friend lives in its own namespace.
struct ltAbiLayout {
    static void expectUri()
    {
        expectFieldsInOrder("LtUri", kAfterVtable,
                            {ABI_FIELD(LtUri, uri_), ABI_FIELD(LtUri, scheme_),
                             ABI_FIELD(LtUri, authority_), ABI_FIELD(LtUri, path_),
                             ABI_FIELD(LtUri, fragment_),
                             ABI_FIELD(LtUri, queryKeys_),
                             ABI_FIELD(LtUri, queries_)});
    }
};
}  // namespace uri
}  // namespace tarvotools
}  // namespace ta

namespace {

// The loop's protected tables and fields, reached through a derived class.
class LoopLayout : public ltAbstractMainLoop {
public:
    void wakeupEventLoop() override {}
    void exec() override {}

    static size_t expectFields()
    {
        return expectFieldsInOrder("ltAbstractMainLoop", kAfterVtable,
                                   {ABI_FIELD(LoopLayout, membersMutex_),
                                    ABI_FIELD(LoopLayout, members_),
                                    ABI_FIELD(LoopLayout, timerMutex_),
                                    ABI_FIELD(LoopLayout, timers_),
                                    ABI_FIELD(LoopLayout, ioMutex_),
                                    ABI_FIELD(LoopLayout, ioHandles_),
                                    ABI_FIELD(LoopLayout, flags_),
                                    ABI_FIELD(LoopLayout, now_),
                                    ABI_FIELD(LoopLayout, nextWakeup_)});
    }

    const ltIdTable& members() const { return members_; }
    const ltIdTable& timers() const { return timers_; }
    const ltIdTable& ioHandles() const { return ioHandles_; }
};

// The table's shape: record size, slot counts as powers of two, and the free pattern.
void expectTable(const char* name, const ltIdTable& t, size_t entrySize, int initialBits,
                 int maxBits, bool freeIsZero)
{
    SCOPED_TRACE(name);
    EXPECT_EQ(static_cast<int32_t>(entrySize), t.entrySize);
    EXPECT_EQ(initialBits, t.initialBits);
    EXPECT_EQ(maxBits, t.maxBits);
    EXPECT_EQ(freeIsZero, t.freeIsZero);
}

TEST(LoopTables, RecordSizesAreTheEntryStructs)
{
    // 3, 7 and 5 words on armhf (asserted on the structs above); the tables must store exactly
    // those records: 8 to 4096 members, 64 to 16384 timers, 4 to 4096 handles.
    LoopLayout loop;
    expectTable("members", loop.members(), sizeof(MemberEntry), 3, 12, true);
    expectTable("timers", loop.timers(), sizeof(TimerEntry), 6, 14, true);
    expectTable("I/O handles", loop.ioHandles(), sizeof(IOEntry), 2, 12, false);
    if (kWord32) {
        EXPECT_EQ(3 * 4, loop.members().entrySize);
        EXPECT_EQ(7 * 4, loop.timers().entrySize);
        EXPECT_EQ(5 * 4, loop.ioHandles().entrySize);
    }
}

TEST(FieldOrder, MainLoopClasses)
{
    const size_t endOfBase = LoopLayout::expectFields();
    ltAbiLayout::expectLinuxSelectMainLoop(endOfBase);
}

TEST(FieldOrder, EventSystem)
{
    const size_t endOfHandler = expectFieldsInOrder(
        "ltEventHandler", kAfterVtable,
        {ABI_FIELD(ltEventHandler, mask), ABI_FIELD(ltEventHandler, userData),
         ABI_FIELD(ltEventHandler, lethalTime), ABI_FIELD(ltEventHandler, flags),
         ABI_FIELD(ltEventHandler, id), ABI_FIELD(ltEventHandler, groupTag),
         ABI_FIELD(ltEventHandler, owner), ABI_FIELD(ltEventHandler, priority)});
    // The callback handler's one field follows the base's fields (in its tail padding, if any).
    expectFieldsInOrder("ltCallbackEventHandler", endOfHandler,
                        {ABI_FIELD(ltCallbackEventHandler, callback)});
    static_assert(std::is_same<decltype(ltEventHandler::id), uint64_t>::value, "64-bit handler id");

    expectFieldsInOrder(
        "ltEvent", kAfterVtable,
        {ABI_FIELD(ltEvent, key1), ABI_FIELD(ltEvent, key2), ABI_FIELD(ltEvent, key3),
         ABI_FIELD(ltEvent, key4), ABI_FIELD(ltEvent, timeStamp),
         ABI_FIELD(ltEvent, deferralTime), ABI_FIELD(ltEvent, lethalTime),
         ABI_FIELD(ltEvent, ttlTimerId), ABI_FIELD(ltEvent, data),
         ABI_FIELD(ltEvent, dataWord), ABI_FIELD(ltEvent, prio),
         ABI_FIELD(ltEvent, owner)});
    static_assert(std::is_same<decltype(ltEvent::key1), uint32_t>::value &&
                      std::is_same<decltype(ltEvent::prio), uint16_t>::value,
                  "32-bit keys, 16-bit priority");

    expectFieldsInOrder("ltEventMask", kAfterVtable,
                        {ABI_FIELD(ltEventMask, terms), ABI_FIELD(ltEventMask, termCount),
                         ABI_FIELD(ltEventMask, evaluateAll),
                         ABI_FIELD(ltEventMask, extra1), ABI_FIELD(ltEventMask, extra2)});
    static_assert(std::is_same<decltype(ltEventMask::termCount), uint16_t>::value &&
                      std::is_same<decltype(ltEventMask::evaluateAll), uint16_t>::value &&
                      sizeof(ltEventMask::extra1) == 4 && sizeof(ltEventMask::extra2) == 4,
                  "16-bit count and flag, 32-bit extra values");

    ltAbiLayout::expectEventQueue();
}

TEST(FieldOrder, TimeClasses)
{
    expectFieldsInOrder("ltCalendarTime", 0,
                        {ABI_FIELD(ltCalendarTime, calendar), ABI_FIELD(ltCalendarTime, time)});
    expectFieldsInOrder("ltTimeZoneSpec", 0,
                        {ABI_FIELD(ltTimeZoneSpec, hours), ABI_FIELD(ltTimeZoneSpec, minutes)});
    expectFieldsInOrder("ltScopeMeter", kAfterVtable,
                        {ABI_FIELD(ltScopeMeter, clockId), ABI_FIELD(ltScopeMeter, last),
                         ABI_FIELD(ltScopeMeter, total),
                         ABI_FIELD(ltScopeMeter, resetTime)});
    expectFieldsInOrder("ltScopeTimer", 0,
                        {ABI_FIELD(ltScopeTimer, meter), ABI_FIELD(ltScopeTimer, start),
                         ABI_FIELD(ltScopeTimer, duration),
                         ABI_FIELD(ltScopeTimer, clockId)});
}

TEST(FieldOrder, ThreadsAndTimers)
{
    ltAbiLayout::expectTimer();
    ltAbiLayout::expectSerialExecutor();
    // One-member classes: the member is the whole object.
    EXPECT_EQ(sizeof(std::string), sizeof(ltSemaPhoros));
    EXPECT_EQ(4u, sizeof(ltrandom));
}

TEST(FieldOrder, ConfigurationUriAndCrypto)
{
    ltAbiLayout::expectConfiguration();
    ta::tarvotools::uri::ltAbiLayout::expectUri();
    ltAbiLayout::expectMd5();
    ltAbiLayout::expectImageHash();
}

TEST(FieldOrder, Containers)
{
    expectFieldsInOrder("ltSortedList", kAfterVtable,
                        {ABI_FIELD(ltSortedList, array), ABI_FIELD(ltSortedList, capacity),
                         ABI_FIELD(ltSortedList, count),
                         ABI_FIELD(ltSortedList, elementSize),
                         ABI_FIELD(ltSortedList, spare), ABI_FIELD(ltSortedList, growBy)});
    expectFieldsInOrder("lfcVector", kAfterVtable,
                        {ABI_FIELD(lfcVector, data), ABI_FIELD(lfcVector, size),
                         ABI_FIELD(lfcVector, capacity), ABI_FIELD(lfcVector, growBy)});
    expectFieldsInOrder("lfcVectorIterator", kAfterVtable,
                        {ABI_FIELD(lfcVectorIterator, position),
                         ABI_FIELD(lfcVectorIterator, vector)});
}

TEST(BlockHeader, MagicThenSizeInFrontOfTheCallersBytes)
{
    // What lfcUtil::malloc writes must read back through the header record checked above.
    const int32_t before = lfcUtilMallocUsed;
    void* p = lfcUtil::malloc(37);
    ASSERT_NE(nullptr, p);
    lt_internal::LfcBlockHeader h;
    std::memcpy(&h, static_cast<unsigned char*>(p) - sizeof h, sizeof h);
    EXPECT_EQ(0, std::memcmp(h.magic, "YHg%", 4));
    EXPECT_EQ(37u, h.size);
    EXPECT_EQ(before + 37, lfcUtilMallocUsed);
    lfcUtil::free(p);
    EXPECT_EQ(before, lfcUtilMallocUsed);
}

}  // namespace
