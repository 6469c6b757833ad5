//===- abi_test.cpp - Where applications find the library's fields -------===//
// The documented layout of every class applications allocate, derive from or read: each field's
// offset and size, each class's size and alignment, on armhf and x86-64. `make abi-check` pins
// the rest; this table still fails when a wrong layout is recorded into its baseline.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

// The headers below also bring in the mutexes, events, handlers, times and timers they use.
#include "lfcblock.h"
#include "lfcutil.h"
#include "lfcvectoriterator.h"
#include "ltbase64.h"
#include "ltcalendartime.h"
#include "ltconfiguration.h"
#include "ltcrypt.h"
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
#include "lttimerqueue.h"
#include "lturi.h"

namespace {

struct Place { size_t offset, size; };  // of a field; for a whole class its size and alignment
struct Row { const char* type; const char* field; Place found, armhf, x86_64; };

// In the Itanium C++ ABI (ARM's EABI too) a pointer to a data member holds the member's offset.
template <class C, class M>
Place at(M C::*member)
{
    std::ptrdiff_t offset;
    static_assert(sizeof member == sizeof offset, "a data member pointer is one offset");
    std::memcpy(&offset, &member, sizeof offset);
    return {static_cast<size_t>(offset), sizeof(M)};
}

// A reference has no member pointer: the queue's loop is where its bytes hold the loop's address.
Place loopReference()
{
    ltLinuxSelectMainLoop loop;
    ltEventQueue queue(loop);
    const ltMainLoop* const address = &loop;
    const auto* bytes = reinterpret_cast<const unsigned char*>(&queue);
    for (size_t at = 0; at < sizeof queue; at += alignof(ltMainLoop*))
        if (std::memcmp(bytes + at, &address, sizeof address) == 0)
            return {at, sizeof address};
    return {0, 0};
}

}  // namespace

// F(class, field, armhf offset, size, x86-64 offset, size); S(class, armhf size, alignment, x86-64 ...).
#define F(C, f, ao, as, xo, xs) Row{#C, #f, at(&C::f), {ao, as}, {xo, xs}}
#define S(C, as, aa, xs, xa) Row{#C, "(size, alignment)", {sizeof(C), alignof(C)}, {as, aa}, {xs, xa}}

struct ltAbiLayout {
    using MemberEntry = ltAbstractMainLoop::MemberEntry;
    using TimerEntry = ltAbstractMainLoop::TimerEntry;
    using IOEntry = ltAbstractMainLoop::IOEntry;
    using LfcBlockHeader = lt_internal::LfcBlockHeader;

    static std::vector<Row> rows()
    {
        return {
            // time values, guard, id table and the main loop
            S(ltTime, 8, 4, 8, 4), F(ltTime, sec, 0, 4, 0, 4), F(ltTime, usec, 4, 4, 4, 4),
            S(_cspOsalTime_struct, 16, 8, 16, 8), F(_cspOsalTime_struct, sec, 0, 8, 0, 8),
            F(_cspOsalTime_struct, nsec, 8, 4, 8, 4), S(ltGuard, 12, 4, 24, 8), F(ltGuard, direct_, 0, 4, 0, 8),
            F(ltGuard, ltMutex_, 4, 4, 8, 8), F(ltGuard, unlocked_, 8, 4, 16, 4),
            F(ltConditionMutex, outside_, 0, 4, 0, 8), F(ltConditionMutex, own_, 4, 24, 8, 40),
            S(ltIdTable, 24, 4, 32, 8), F(ltIdTable, initialBits, 0, 1, 0, 1), F(ltIdTable, maxBits, 1, 1, 1, 1),
            F(ltIdTable, currentBits, 2, 1, 2, 1), F(ltIdTable, freeIsZero, 3, 1, 3, 1),
            F(ltIdTable, count, 4, 2, 4, 2), F(ltIdTable, capacity, 6, 2, 6, 2), F(ltIdTable, keyMask, 8, 4, 8, 4),
            F(ltIdTable, entrySize, 12, 4, 12, 4), F(ltIdTable, cursor, 16, 4, 16, 4),
            F(ltIdTable, slots, 20, 4, 24, 8), S(MemberEntry, 12, 4, 24, 8), F(MemberEntry, member, 0, 4, 0, 8),
            F(MemberEntry, id, 4, 4, 8, 4), F(MemberEntry, unused, 8, 4, 16, 8), S(TimerEntry, 28, 4, 40, 8),
            F(TimerEntry, expiry, 0, 8, 0, 8), F(TimerEntry, period, 8, 8, 8, 8),
            F(TimerEntry, userData, 16, 4, 16, 8), F(TimerEntry, callback, 20, 4, 24, 8),
            F(TimerEntry, id, 24, 4, 32, 4), S(IOEntry, 20, 4, 32, 8), F(IOEntry, fd, 0, 4, 0, 4),
            F(IOEntry, userData, 4, 4, 8, 8), F(IOEntry, callback, 8, 4, 16, 8), F(IOEntry, id, 12, 4, 24, 4),
            F(IOEntry, stamp, 16, 1, 28, 1), F(IOEntry, type, 17, 1, 29, 1),
            S(ltMainLoop, 4, 4, 8, 8), S(ltMainLoopMember, 4, 4, 8, 8),  // no data: their virtual table pointer
            // the loop core's protected fields, named through the select loop (whose friend this is)
            S(ltAbstractMainLoop, 168, 4, 248, 8), F(ltLinuxSelectMainLoop, membersMutex_, 4, 24, 8, 40),
            F(ltLinuxSelectMainLoop, members_, 28, 24, 48, 32), F(ltLinuxSelectMainLoop, timerMutex_, 52, 24, 80, 40),
            F(ltLinuxSelectMainLoop, timers_, 76, 24, 120, 32), F(ltLinuxSelectMainLoop, ioMutex_, 100, 24, 152, 40),
            F(ltLinuxSelectMainLoop, ioHandles_, 124, 24, 192, 32), F(ltLinuxSelectMainLoop, flags_, 148, 4, 224, 4),
            F(ltLinuxSelectMainLoop, now_, 152, 8, 228, 8), F(ltLinuxSelectMainLoop, nextWakeup_, 160, 8, 236, 8),
            S(ltLinuxSelectMainLoop, 180, 4, 256, 8), F(ltLinuxSelectMainLoop, wakeupPending_, 168, 2, 244, 2),
            F(ltLinuxSelectMainLoop, pipeRead_, 172, 4, 248, 4), F(ltLinuxSelectMainLoop, pipeWrite_, 176, 4, 252, 4),
            // calendar time and duration meters
            S(ltCalendarTime, 52, 4, 64, 8), F(ltCalendarTime, calendar, 0, 44, 0, 56),
            F(ltCalendarTime, time, 44, 8, 56, 8), F(ltTimeZoneSpec, hours, 0, 4, 0, 4),
            F(ltTimeZoneSpec, minutes, 4, 4, 4, 4), S(ltScopeMeter, 32, 4, 64, 8),
            F(ltScopeMeter, clockId, 4, 4, 8, 4), F(ltScopeMeter, last, 8, 8, 16, 16),
            F(ltScopeMeter, total, 16, 8, 32, 16), F(ltScopeMeter, resetTime, 24, 8, 48, 16),
            S(ltScopeTimer, 24, 4, 48, 8), F(ltScopeTimer, meter, 0, 4, 0, 8), F(ltScopeTimer, start, 4, 8, 8, 16),
            F(ltScopeTimer, duration, 12, 8, 24, 16), F(ltScopeTimer, clockId, 20, 4, 40, 4),
            // objects, vectors and counted blocks
            S(lfcObject, 4, 4, 8, 8), S(lfcCollection, 4, 4, 8, 8), S(lfcVector, 20, 4, 32, 8),
            F(lfcVector, data, 4, 4, 8, 8), F(lfcVector, size, 8, 4, 16, 4), F(lfcVector, capacity, 12, 4, 20, 4),
            F(lfcVector, growBy, 16, 4, 24, 4), S(lfcVectorIterator, 12, 4, 24, 8),
            F(lfcVectorIterator, position, 4, 4, 8, 4), F(lfcVectorIterator, vector, 8, 4, 16, 8),
            S(decltype(lfcUtilMallocUsed), 4, 4, 4, 4), S(LfcBlockHeader, 8, 4, 8, 4),
            F(LfcBlockHeader, magic, 0, 4, 0, 4), F(LfcBlockHeader, size, 4, 4, 4, 4),
            // the event system
            S(ltEvent, 64, 4, 80, 8), F(ltEvent, key1, 4, 4, 8, 4), F(ltEvent, key2, 8, 4, 12, 4),
            F(ltEvent, key3, 12, 4, 16, 4), F(ltEvent, key4, 16, 4, 20, 4), F(ltEvent, timeStamp, 20, 8, 24, 8),
            F(ltEvent, deferralTime, 28, 8, 32, 8), F(ltEvent, lethalTime, 36, 8, 40, 8),
            F(ltEvent, ttlTimerId, 44, 4, 48, 4), F(ltEvent, data, 48, 4, 56, 8), F(ltEvent, dataWord, 52, 4, 64, 4),
            F(ltEvent, prio, 56, 2, 68, 2), F(ltEvent, owner, 60, 4, 72, 8), S(ltEventMaskTerm, 8, 4, 16, 8),
            F(ltEventMaskTerm, code, 0, 1, 0, 1), F(ltEventMaskTerm, op, 1, 1, 1, 1),
            F(ltEventMaskTerm, length, 2, 2, 2, 2), F(ltEventMaskTerm, operand, 4, 4, 8, 8),
            S(ltEventMask, 20, 4, 32, 8), F(ltEventMask, terms, 4, 4, 8, 8), F(ltEventMask, termCount, 8, 2, 16, 2),
            F(ltEventMask, evaluateAll, 10, 2, 18, 2), F(ltEventMask, extra1, 12, 4, 20, 4),
            F(ltEventMask, extra2, 16, 4, 24, 4), S(ltEventHandler, 48, 8, 72, 8),
            F(ltEventHandler, mask, 4, 4, 8, 8), F(ltEventHandler, userData, 8, 4, 16, 8),
            F(ltEventHandler, lethalTime, 12, 8, 24, 8), F(ltEventHandler, flags, 20, 4, 32, 4),
            F(ltEventHandler, id, 24, 8, 40, 8), F(ltEventHandler, groupTag, 32, 4, 48, 4),
            F(ltEventHandler, owner, 36, 4, 56, 8), F(ltEventHandler, priority, 40, 4, 64, 4),
            S(ltCallbackEventHandler, 48, 8, 80, 8), F(ltCallbackEventHandler, callback, 44, 4, 72, 8),
            S(ltEventQueue, 104, 8, 160, 8), F(ltEventQueue, dispatchDepth_, 4, 4, 8, 4),
            F(ltEventQueue, events_, 8, 20, 16, 32), F(ltEventQueue, maxQueueSize_, 28, 4, 48, 4),
            F(ltEventQueue, handlers_, 32, 20, 56, 32), F(ltEventQueue, knownTimeValid_, 52, 1, 88, 1),
            F(ltEventQueue, knownTime_, 56, 8, 92, 8), F(ltEventQueue, handlerIdCounter_, 64, 8, 104, 8),
            Row{"ltEventQueue", "loop_", loopReference(), {72, 4}, {112, 8}},  // a reference: found by its value
            F(ltEventQueue, mutex_, 76, 24, 120, 40),
            // timers, executor, semaphore, plug-ins, random source, configuration
            S(ltTimer, 48, 8, 56, 8), F(ltTimer, type, 4, 4, 8, 4), F(ltTimer, timeout, 8, 16, 16, 16),
            F(ltTimer, period, 24, 16, 32, 16), F(ltTimer, active, 40, 1, 48, 1), S(ltTimerQueue, 16, 4, 32, 8),
            F(ltTimerQueue, timers, 4, 12, 8, 24), S(ltSerialExecutor, 152, 8, 232, 8),
            F(ltSerialExecutor, queue, 0, 40, 0, 80), F(ltSerialExecutor, stop, 40, 1, 80, 1),
            F(ltSerialExecutor, mutex, 44, 24, 88, 40), F(ltSerialExecutor, condition, 72, 72, 128, 88),
            F(ltSerialExecutor, worker, 144, 8, 216, 16), S(ltSemaPhoros, 24, 4, 32, 8),
            F(ltSemaPhoros, name, 0, 24, 0, 32), S(ltPluginLoader, 8, 4, 16, 8),
            F(ltPluginLoader, handle, 0, 4, 0, 8), F(ltPluginLoader, uri, 4, 4, 8, 8), S(ltrandom, 4, 4, 4, 4),
            F(ltrandom, seed, 0, 4, 0, 4), S(ltConfiguration, 80, 4, 112, 8),
            F(ltConfiguration, configurationFilePath_, 4, 24, 8, 32), F(ltConfiguration, initError_, 28, 24, 40, 32),
            F(ltConfiguration, tree_, 52, 28, 72, 40),
            // crypto, encoding and containers
            S(ltcrypt, 1, 1, 1, 1), S(ltBase64, 1, 1, 1, 1), S(ltrsa, 8, 4, 16, 8), F(ltrsa, key, 0, 4, 0, 8),
            F(ltrsa, keyInvalid, 4, 1, 8, 1), S(lt_md5_state_t, 88, 4, 88, 4), F(lt_md5_state_t, count, 0, 8, 0, 8),
            F(lt_md5_state_t, abcd, 8, 16, 8, 16), F(lt_md5_state_t, buf, 24, 64, 24, 64), S(LTmd5, 64, 4, 80, 8),
            F(LTmd5, text, 0, 24, 0, 32), F(LTmd5, hex, 24, 24, 32, 32), F(LTmd5, digest, 48, 16, 64, 16),
            S(ltimghash, 32, 4, 40, 8), F(ltimghash, digest, 0, 20, 0, 20), F(ltimghash, finalized, 20, 1, 20, 1),
            F(ltimghash, failed, 21, 1, 21, 1), F(ltimghash, byteCount, 24, 4, 24, 4),
            F(ltimghash, mdCtx, 28, 4, 32, 8), S(ltPointerList, 4, 4, 8, 8), F(ltPointerList, storage, 0, 4, 0, 8),
            S(ltSortedList, 28, 4, 40, 8), F(ltSortedList, array, 4, 4, 8, 8), F(ltSortedList, capacity, 8, 4, 16, 4),
            F(ltSortedList, count, 12, 4, 20, 4), F(ltSortedList, elementSize, 16, 4, 24, 4),
            F(ltSortedList, spare, 20, 4, 28, 4), F(ltSortedList, growBy, 24, 4, 32, 4),
        };
    }

    // Entry size, initial and largest log2 slot count, free key 0 (else all ones) of each loop table.
    static std::vector<std::tuple<int, int, int, bool>> loopTables()
    {
        ltLinuxSelectMainLoop loop;
        std::vector<std::tuple<int, int, int, bool>> shapes;
        for (const ltIdTable* t : {&loop.members_, &loop.timers_, &loop.ioHandles_})
            shapes.emplace_back(t->entrySize, t->initialBits, t->maxBits, t->freeIsZero);
        return shapes;
    }

    static uintptr_t storageOf(const ltPointerList& list) { return list.storage; }
};

namespace ta::tarvotools::uri {
struct ltAbiLayout {  // LtUri's friend lives in its own namespace
    static std::vector<Row> rows()
    {
        return {
            S(LtUri, 160, 4, 240, 8), F(LtUri, uri_, 4, 24, 8, 32), F(LtUri, scheme_, 28, 24, 40, 32),
            F(LtUri, authority_, 52, 24, 72, 32), F(LtUri, path_, 76, 24, 104, 32),
            F(LtUri, fragment_, 100, 24, 136, 32), F(LtUri, queryKeys_, 124, 12, 168, 24),
            F(LtUri, queries_, 136, 24, 192, 48),
        };
    }
};
}  // namespace ta::tarvotools::uri

namespace {

TEST(Layout, EveryDocumentedFieldWhereApplicationsFindIt)
{
#if !defined(__arm__) && !defined(__x86_64__)
    GTEST_SKIP() << "the table holds the armhf and x86-64 layouts only";
#endif
    for (const auto& rows : {ltAbiLayout::rows(), ta::tarvotools::uri::ltAbiLayout::rows()})
    for (const Row& r : rows) {
        const Place& want = sizeof(void*) == 4 ? r.armhf : r.x86_64;
        EXPECT_EQ(want.offset, r.found.offset) << r.type << "::" << r.field << ": offset (or size)";
        EXPECT_EQ(want.size, r.found.size) << r.type << "::" << r.field << ": size (or alignment)";
    }
}

TEST(Layout, LoopTablesAndIdMasks)
{
    // 8 to 4096 members, 64 to 16384 timers (free: first word 0), 4 to 4096 descriptors (fd -1).
    using Loop = ltAbstractMainLoop;
    EXPECT_EQ((std::vector<std::tuple<int, int, int, bool>>{
                  {sizeof(Loop::MemberEntry), 3, 12, true}, {sizeof(Loop::TimerEntry), 6, 14, true}, {sizeof(Loop::IOEntry), 2, 12, false}}),
              ltAbiLayout::loopTables());
    EXPECT_EQ((std::vector<uint32_t>{0xFF, 0xFF, 0xFFFF, 0xFFFFFF, 0xFFFFFFFF}),
              std::vector<uint32_t>(std::begin(ltIdTable::entryMaskes_), std::end(ltIdTable::entryMaskes_)));
}

// Pointer list blocks: tag 3, three slots; tag 2, 16-bit capacity and count, slots from the next pointer.
TEST(Layout, PointerListBlocks)
{
    int64_t objects[3];
    ltPointerList triple(3), array(5);
    ASSERT_TRUE(triple.addPointer(&objects[0]) == 0 && array.addPointer(&objects[1]) == 0 && array.addPointer(&objects[2]) == 0);
    const uintptr_t t = ltAbiLayout::storageOf(triple), a = ltAbiLayout::storageOf(array);
    ASSERT_EQ(std::make_tuple(3u, 2u), std::make_tuple(unsigned(t & 3), unsigned(a & 3)));
    EXPECT_EQ(&objects[0], reinterpret_cast<void* const*>(t & ~uintptr_t{3})[0]);
    const auto* block = reinterpret_cast<const unsigned char*>(a & ~uintptr_t{3});
    uint16_t head[2];  // capacity, count
    void* slots[2];
    std::memcpy(head, block, sizeof head);
    std::memcpy(slots, block + alignof(void*), sizeof slots);
    EXPECT_EQ(std::make_tuple(5, 2, &objects[1], &objects[2]),
              std::make_tuple(int{head[0]}, int{head[1]}, slots[0], slots[1]));
}

TEST(Layout, BlockHeaderIsMagicThenSizeInFrontOfTheCallersBytes)
{
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
