//===- abi_test.cpp - Layouts applications see, on armhf and on x86-64 ----===//
//
// Sizes, alignments and field offsets of the records applications share with the library.
// The 32-bit (armhf) expectations are selected with sizeof(void*) == 4; on x86-64 the test
// checks what carries over: field order, fixed widths, and the word-sized entries. Plain
// records are checked with offsetof at compile time. Classes with a virtual table are not
// standard-layout, so their offsets are read at run time from member pointers. ltAbiLayout
// is the friend the headers declare for this test.
//
//===----------------------------------------------------------------------===//
#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <tuple>
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
constexpr size_t kAfterVtable = sizeof(void*);  // first field of a class whose bases add only a vtable

constexpr size_t alignUp(size_t n, size_t a) { return (n + a - 1) / a * a; }

// One field as the compiler placed it; offset kUnknown where it cannot be read (a reference).
struct Field {
    const char* name;
    size_t offset, size, align;
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
Field field(const char* name, M C::*member) { return {name, offsetOfMember(member), sizeof(M), alignof(M)}; }

Field hidden(const char* name, size_t size, size_t align) { return {name, kUnknown, size, align}; }

// The fields lie in the given order from 'start' on (kUnknown: wherever the first one is), each
// right after the one before but for the padding its own alignment needs: none moved, none
// missing, nothing slipped in between. Returns the end of the last field.
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

}  // namespace

// ABI_ORDER(Class, start, member...): expectFieldsInOrder over the named members of Class.
#define ABI_FIELD(C, m) field(#m, &C::m)
#define ABI_F1(C, m) ABI_FIELD(C, m)
#define ABI_F2(C, m, ...) ABI_FIELD(C, m), ABI_F1(C, __VA_ARGS__)
#define ABI_F3(C, m, ...) ABI_FIELD(C, m), ABI_F2(C, __VA_ARGS__)
#define ABI_F4(C, m, ...) ABI_FIELD(C, m), ABI_F3(C, __VA_ARGS__)
#define ABI_F5(C, m, ...) ABI_FIELD(C, m), ABI_F4(C, __VA_ARGS__)
#define ABI_F6(C, m, ...) ABI_FIELD(C, m), ABI_F5(C, __VA_ARGS__)
#define ABI_F7(C, m, ...) ABI_FIELD(C, m), ABI_F6(C, __VA_ARGS__)
#define ABI_F8(C, m, ...) ABI_FIELD(C, m), ABI_F7(C, __VA_ARGS__)
#define ABI_F9(C, m, ...) ABI_FIELD(C, m), ABI_F8(C, __VA_ARGS__)
#define ABI_F10(C, m, ...) ABI_FIELD(C, m), ABI_F9(C, __VA_ARGS__)
#define ABI_F11(C, m, ...) ABI_FIELD(C, m), ABI_F10(C, __VA_ARGS__)
#define ABI_F12(C, m, ...) ABI_FIELD(C, m), ABI_F11(C, __VA_ARGS__)
#define ABI_PICK(_1, _2, _3, _4, _5, _6, _7, _8, _9, _10, _11, _12, N, ...) N
#define ABI_FIELDS(C, ...)                                                                         \
    ABI_PICK(__VA_ARGS__, ABI_F12, ABI_F11, ABI_F10, ABI_F9, ABI_F8, ABI_F7, ABI_F6, ABI_F5, ABI_F4, \
             ABI_F3, ABI_F2, ABI_F1, )(C, __VA_ARGS__)
#define ABI_ORDER(C, start, ...) expectFieldsInOrder(#C, start, {ABI_FIELDS(C, __VA_ARGS__)})
// Compile-time shorthands: the offset of a field, and its exact type.
#define ABI_AT(T, f, off) (offsetof(T, f) == (off))
#define ABI_IS(T, f, Type) std::is_same<decltype(T::f), Type>::value

// -- records whose exact layout applications rely on --

static_assert(sizeof(ltTime) == 8 && alignof(ltTime) == 4 && ABI_AT(ltTime, sec, 0) && ABI_AT(ltTime, usec, 4) &&
                  ABI_IS(ltTime, sec, int32_t) && ABI_IS(ltTime, usec, int32_t),
              "ltTime: signed 32-bit sec, then usec");
static_assert(sizeof(_cspOsalTime_struct) == 16 && alignof(_cspOsalTime_struct) == 8 &&
                  ABI_AT(_cspOsalTime_struct, sec, 0) && ABI_AT(_cspOsalTime_struct, nsec, 8) &&
                  ABI_IS(_cspOsalTime_struct, sec, int64_t) && ABI_IS(_cspOsalTime_struct, nsec, int32_t),
              "OSAL time: signed 64-bit seconds, then 32-bit nanoseconds, 8-byte aligned");
// A mask term: code, operator, 16-bit length, then a one-word operand (a value or a string).
static_assert(ABI_AT(ltEventMaskTerm, code, 0) && ABI_AT(ltEventMaskTerm, op, 1) &&
                  ABI_AT(ltEventMaskTerm, length, 2) && sizeof(ltEventMaskTerm::length) == 2 &&
                  ABI_AT(ltEventMaskTerm, operand, kWord) && sizeof(ltEventMaskTerm) == 2 * kWord &&
                  (!kWord32 || sizeof(ltEventMaskTerm) == 8),
              "mask term: code, op, 16-bit length, operand in the second word; 8 bytes on armhf");
static_assert(sizeof(ltPointerList) == kWord && alignof(ltPointerList) == alignof(void*) &&
                  (!kWord32 || sizeof(ltPointerList) == 4),
              "the pointer list is one word");
using lt_internal::LfcBlockHeader;
static_assert(sizeof(LfcBlockHeader) == 8 && alignof(LfcBlockHeader) == 4 && ABI_AT(LfcBlockHeader, magic, 0) &&
                  ABI_AT(LfcBlockHeader, size, 4) && sizeof(LfcBlockHeader::size) == 4,
              "block header: the magic, then the 32-bit size, 8 bytes on every build");
static_assert(sizeof(lt_md5_state_t) == 88 && ABI_AT(lt_md5_state_t, count, 0) && ABI_AT(lt_md5_state_t, abcd, 8) &&
                  ABI_AT(lt_md5_state_t, buf, 24),
              "the MD5 state: 2 words of count, 4 of A..D, then the 64-byte block");
// The id table: its users read the fields directly.
static_assert(ABI_IS(ltIdTable, initialBits, uint8_t) && ABI_IS(ltIdTable, maxBits, uint8_t) &&
                  ABI_IS(ltIdTable, currentBits, uint8_t) && sizeof(ltIdTable::freeIsZero) == 1 &&
                  ABI_IS(ltIdTable, count, uint16_t) && ABI_IS(ltIdTable, capacity, uint16_t) &&
                  ABI_IS(ltIdTable, keyMask, uint32_t) && sizeof(ltIdTable::entrySize) == 4 &&
                  sizeof(ltIdTable::cursor) == 4 && sizeof(ltIdTable::slots) == kWord &&
                  sizeof(ltIdTable::entryMaskes_) == 5 * 4,
              "id table field widths");
static_assert(ABI_AT(ltIdTable, initialBits, 0) && ABI_AT(ltIdTable, maxBits, 1) && ABI_AT(ltIdTable, currentBits, 2) &&
                  ABI_AT(ltIdTable, freeIsZero, 3) && ABI_AT(ltIdTable, count, 4) && ABI_AT(ltIdTable, capacity, 6) &&
                  ABI_AT(ltIdTable, keyMask, 8) && ABI_AT(ltIdTable, entrySize, 12) && ABI_AT(ltIdTable, cursor, 16) &&
                  ABI_AT(ltIdTable, slots, alignUp(20, kWord)) && (!kWord32 || sizeof(ltIdTable) == 24),
              "id table: three bit counts, the flag, two counters, then the words; six words on armhf");

// The loop tables' entries: 3, 7 and 5 words on armhf. The member entry is three words on both
// builds; the others keep their order, with each pointer in a word of its own.
using MemberEntry = ltAbstractMainLoop::MemberEntry;
using TimerEntry = ltAbstractMainLoop::TimerEntry;
using IOEntry = ltAbstractMainLoop::IOEntry;
static_assert(ABI_AT(MemberEntry, member, 0) && ABI_AT(MemberEntry, id, kWord) &&
                  ABI_AT(MemberEntry, unused, 2 * kWord) && sizeof(MemberEntry) == 3 * kWord &&
                  (!kWord32 || sizeof(MemberEntry) == 3 * 4),
              "member entry: member pointer, id, unused word");
static_assert(ABI_AT(TimerEntry, expiry, 0) && ABI_AT(TimerEntry, period, 8) && ABI_AT(TimerEntry, userData, 16) &&
                  ABI_AT(TimerEntry, callback, 16 + kWord) && ABI_AT(TimerEntry, id, 16 + 2 * kWord) &&
                  (!kWord32 || sizeof(TimerEntry) == 7 * 4),
              "timer entry: expiry, period, user data, callback, id");
static_assert(ABI_AT(IOEntry, fd, 0) && ABI_AT(IOEntry, userData, kWord) && ABI_AT(IOEntry, callback, 2 * kWord) &&
                  ABI_AT(IOEntry, id, 3 * kWord) && ABI_AT(IOEntry, stamp, 3 * kWord + 4) &&
                  ABI_AT(IOEntry, type, 3 * kWord + 5) && sizeof(IOEntry::fd) == 4 && sizeof(IOEntry::stamp) == 1 &&
                  sizeof(IOEntry::type) == 1 && (!kWord32 || sizeof(IOEntry) == 5 * 4),
              "I/O entry: 32-bit fd, user data, callback, id, then the stamp and type bytes");

// Public classes: fixed widths.
static_assert(ABI_IS(ltEventHandler, id, uint64_t) && ABI_IS(ltEvent, key1, uint32_t) && ABI_IS(ltEvent, prio, uint16_t) &&
                  ABI_IS(ltEventMask, termCount, uint16_t) && ABI_IS(ltEventMask, evaluateAll, uint16_t) &&
                  sizeof(ltEventMask::extra1) == 4 && sizeof(ltEventMask::extra2) == 4,
              "64-bit handler id, 32-bit keys, 16-bit priority, count and flag, 32-bit extra values");

// The friend the classes with private fields declare: plain records at compile time, the
// others through expectFields() at run time.
struct ltAbiLayout {
    static_assert(ABI_AT(ltGuard, direct_, 0) && ABI_AT(ltGuard, ltMutex_, kWord) &&
                      ABI_AT(ltGuard, unlocked_, 2 * kWord) && sizeof(ltGuard::unlocked_) == 4 &&
                      (!kWord32 || sizeof(ltGuard) == 12),
                  "guard: direct mutex, ltMutex pointer, 32-bit unlocked flag; 3 words on armhf");
    static_assert(ABI_AT(ltConditionMutex, outside_, 0) && ABI_AT(ltConditionMutex, own_, kWord) &&
                      ABI_AT(ltConditionMutex, cond_, alignUp(kWord + sizeof(pthread_mutex_t), alignof(pthread_cond_t))),
                  "condition mutex: the outside mutex pointer, then its own mutex");
    static_assert(ABI_AT(ltPluginLoader, handle, 0) && ABI_AT(ltPluginLoader, uri, kWord) &&
                      sizeof(ltPluginLoader) == 2 * kWord,
                  "plug-in loader: the dlopen handle, then the owned path");
    static_assert(ABI_AT(ltrsa, key, 0) && ABI_AT(ltrsa, keyInvalid, kWord) && sizeof(ltrsa::keyInvalid) == 1,
                  "RSA: the key, then the invalid flag");
    static_assert(ABI_IS(ltTimer, type, uint32_t) && ABI_IS(ltimghash, byteCount, uint32_t) &&
                      sizeof(ltLinuxSelectMainLoop::wakeupPending_) == 2 && sizeof(ltEventQueue::knownTimeValid_) == 1 &&
                      ABI_IS(ltEventQueue, handlerIdCounter_, uint64_t),
                  "fixed widths of private fields");

    static void expectFields(size_t endOfLoopBase)
    {
        // After the loop base's fields (the base may add its own behind them).
        const size_t first = offsetOfMember(&ltLinuxSelectMainLoop::wakeupPending_);
        EXPECT_GE(first, endOfLoopBase);
        ABI_ORDER(ltLinuxSelectMainLoop, first, wakeupPending_, pipeRead_, pipeWrite_);
        expectFieldsInOrder("ltEventQueue", kAfterVtable,
                            {ABI_FIELDS(ltEventQueue, dispatchDepth_, events_, maxQueueSize_, handlers_,
                                        knownTimeValid_, knownTime_, handlerIdCounter_),
                             hidden("loop_", sizeof(void*), alignof(void*)),  // a reference
                             ABI_FIELD(ltEventQueue, mutex_)});
        ABI_ORDER(ltTimer, kAfterVtable, type, timeout, period, active);
        ABI_ORDER(ltSerialExecutor, 0, queue, stop, mutex, condition, worker);
        ABI_ORDER(ltConfiguration, kAfterVtable, configurationFilePath_, initError_, tree_);
        ABI_ORDER(LTmd5, kAfterVtable, text, hex, digest);
        EXPECT_EQ(16u, sizeof(LTmd5::digest));
        ABI_ORDER(ltimghash, kAfterVtable, digest, finalized, failed, byteCount, mdCtx);
        EXPECT_EQ(20u, sizeof(ltimghash::digest));
    }
};

namespace ta::tarvotools::uri {
struct ltAbiLayout {  // LtUri's friend lives in its own namespace
    static void expectFields()
    {
        ABI_ORDER(LtUri, kAfterVtable, uri_, scheme_, authority_, path_, fragment_, queryKeys_, queries_);
    }
};
}  // namespace ta::tarvotools::uri

namespace {

// The loop's protected tables and fields, reached through a derived class.
class LoopLayout : public ltAbstractMainLoop {
public:
    void wakeupEventLoop() override {}
    void exec() override {}
    static size_t expectFields()
    {
        return ABI_ORDER(LoopLayout, kAfterVtable, membersMutex_, members_, timerMutex_, timers_, ioMutex_,
                         ioHandles_, flags_, now_, nextWakeup_);
    }
    using ltAbstractMainLoop::ioHandles_;
    using ltAbstractMainLoop::members_;
    using ltAbstractMainLoop::timers_;
};

TEST(LoopTables, RecordSizesAreTheEntryStructs)
{
    // 3, 7 and 5 words on armhf (asserted on the structs above); the tables must store exactly
    // those records: 8 to 4096 members, 64 to 16384 timers, 4 to 4096 handles.
    struct Shape {
        const ltIdTable& table;
        size_t entrySize, armhfSize;
        int initialBits, maxBits;
        bool freeIsZero;
    };
    LoopLayout loop;
    for (const Shape& s : {Shape{loop.members_, sizeof(MemberEntry), 3 * 4, 3, 12, true},
                           Shape{loop.timers_, sizeof(TimerEntry), 7 * 4, 6, 14, true},
                           Shape{loop.ioHandles_, sizeof(IOEntry), 5 * 4, 2, 12, false}}) {
        SCOPED_TRACE(s.entrySize);
        EXPECT_EQ(static_cast<int32_t>(s.entrySize), s.table.entrySize);
        EXPECT_TRUE(!kWord32 || s.table.entrySize == static_cast<int32_t>(s.armhfSize));
        EXPECT_EQ(std::make_tuple(s.initialBits, s.maxBits, s.freeIsZero),
                  std::make_tuple(int{s.table.initialBits}, int{s.table.maxBits}, bool{s.table.freeIsZero}));
    }
}

TEST(FieldOrder, EveryClassKeepsItsFieldsInOrder)
{
    ltAbiLayout::expectFields(LoopLayout::expectFields());
    ta::tarvotools::uri::ltAbiLayout::expectFields();
    // The callback handler's one field follows the base's fields (in its tail padding, if any).
    const size_t endOfHandler = ABI_ORDER(ltEventHandler, kAfterVtable, mask, userData, lethalTime, flags, id,
                                          groupTag, owner, priority);
    ABI_ORDER(ltCallbackEventHandler, endOfHandler, callback);
    ABI_ORDER(ltEvent, kAfterVtable, key1, key2, key3, key4, timeStamp, deferralTime, lethalTime, ttlTimerId, data,
              dataWord, prio, owner);
    ABI_ORDER(ltEventMask, kAfterVtable, terms, termCount, evaluateAll, extra1, extra2);
    ABI_ORDER(ltCalendarTime, 0, calendar, time);
    ABI_ORDER(ltTimeZoneSpec, 0, hours, minutes);
    ABI_ORDER(ltScopeMeter, kAfterVtable, clockId, last, total, resetTime);
    ABI_ORDER(ltScopeTimer, 0, meter, start, duration, clockId);
    ABI_ORDER(ltSortedList, kAfterVtable, array, capacity, count, elementSize, spare, growBy);
    ABI_ORDER(lfcVector, kAfterVtable, data, size, capacity, growBy);
    ABI_ORDER(lfcVectorIterator, kAfterVtable, position, vector);
    // One-member classes: the member is the whole object.
    EXPECT_EQ(sizeof(std::string), sizeof(ltSemaPhoros));
    EXPECT_EQ(4u, sizeof(ltrandom));
}

TEST(BlockHeader, MagicThenSizeInFrontOfTheCallersBytes)
{
    // What lfcUtil::malloc writes must read back through the header record checked above.
    const int32_t before = lfcUtilMallocUsed;
    void* p = lfcUtil::malloc(37);
    ASSERT_NE(nullptr, p);
    LfcBlockHeader h;
    std::memcpy(&h, static_cast<unsigned char*>(p) - sizeof h, sizeof h);
    EXPECT_EQ(0, std::memcmp(h.magic, "YHg%", 4));
    EXPECT_EQ(37u, h.size);
    EXPECT_EQ(before + 37, lfcUtilMallocUsed);
    lfcUtil::free(p);
    EXPECT_EQ(before, lfcUtilMallocUsed);
}

}  // namespace
