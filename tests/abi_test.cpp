//===- abi_test.cpp - The binary interface applications were built against ===//
//
// Applications allocate the library's classes themselves, derive from them, read their fields
// and call their virtual operations by slot. Each class and record whose fields the interface
// fixes has a mirror here: a plain struct written field by field from the documented list, with
// the documented types (void* for the virtual table pointer of a polymorphic class). A derived
// class's mirror derives from its base's mirror; the mirror of a polymorphic class is not POD,
// so a derived mirror's fields go where the ABI puts a derived class's: from the end of the
// base's fields, in its tail padding when it has some. Every real class must match its mirror in
// size, alignment and each field's offset and size, on both builds; on armhf (4-byte pointers,
// int and long, 8-aligned 64-bit fields, 24-byte pthread_mutex_t and std::string) the mirrors
// must also give the sizes applications were built with.
//
// Virtual tables are checked slot by slot through pointers to virtual member functions (both
// targets follow the Itanium C++ ABI, which encodes the table offset in them), and their length
// through a probe class that appends one virtual function. Classes that are documented as plain
// must have no virtual table at all.
//
// ltAbiLayout is the friend the headers declare for this test: it reads the private fields.
//
//===----------------------------------------------------------------------===//
#include <pthread.h>
#include <time.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <initializer_list>
#include <iterator>
#include <map>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include <boost/function.hpp>
#include <boost/property_tree/ptree.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/thread.hpp>
#include <gtest/gtest.h>

#include "csp_osal.h"
#include "lfcblock.h"
#include "lfccollection.h"
#include "lfcobject.h"
#include "lfcutil.h"
#include "lfcvector.h"
#include "lfcvectoriterator.h"
#include "ltabstractmainloop.h"
#include "ltbase64.h"
#include "ltcalendartime.h"
#include "ltcallbackeventhandler.h"
#include "ltconditionmutex.h"
#include "ltconfiguration.h"
#include "ltcrypt.h"
#include "ltevent.h"
#include "lteventhandler.h"
#include "lteventmask.h"
#include "lteventqueue.h"
#include "ltguard.h"
#include "ltidtable.h"
#include "ltimghash.h"
#include "ltlinuxselectmainloop.h"
#include "ltmainloop.h"
#include "ltmainloopmember.h"
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
#include "lttimerqueue.h"
#include "lturi.h"

namespace {

constexpr bool kArmhf = sizeof(void*) == 4;  // the 32-bit build: the sizes applications know

// -- field offsets and virtual table slots as the compiler laid them out --

// Byte offset of a data member: in the Itanium C++ ABI (ARM's EABI too) a pointer to a data
// member holds exactly that offset.
template <class C, class M>
size_t offsetOfMember(M C::*member)
{
    static_assert(sizeof member == sizeof(std::ptrdiff_t), "a data member pointer is one offset");
    std::ptrdiff_t offset;
    std::memcpy(&offset, &member, sizeof offset);
    return static_cast<size_t>(offset);
}

// Slot of a virtual member function in its class's table, counted in entries; -1 for a
// non-virtual function. A pointer to member function is two words, {ptr, adj}. x86-64 marks a
// virtual one by an odd ptr, which is 1 + the slot's byte offset; ARM keeps ptr for code
// addresses (whose low bit selects Thumb) and marks a virtual one by the low bit of adj, ptr
// being the byte offset itself.
template <class F>
long vtableSlot(F function)
{
    static_assert(sizeof function == 2 * sizeof(void*), "a member function pointer is two words");
    struct {
        uintptr_t ptr;
        std::ptrdiff_t adj;
    } rep;
    std::memcpy(&rep, &function, sizeof rep);
#if defined(__arm__) || defined(__aarch64__)
    const bool isVirtual = (rep.adj & 1) != 0;
    const uintptr_t offset = rep.ptr;
#else
    const bool isVirtual = (rep.ptr & 1) != 0;
    const uintptr_t offset = rep.ptr - 1;
#endif
    return isVirtual ? static_cast<long>(offset / sizeof(void*)) : -1;
}

// A class's first own virtual function lands in the slot after its primary base's last one,
// so this probe's function gives the number of entries of C's table (a destructor takes two:
// the complete and the deleting one). Never instantiated.
template <class C>
struct VtableEnd : C {
    virtual void abiEndOfTable();
};

template <class C>
long vtableLength()
{
    return vtableSlot(&VtableEnd<C>::abiEndOfTable);
}

struct Field {
    const char* name;
    size_t offset, size;              // in the real class
    size_t mirrorOffset, mirrorSize;  // in its mirror
};

template <class R, class RM, class M, class MM>
Field field(const char* name, RM R::*real, MM M::*mirror)
{
    return {name, offsetOfMember(real), sizeof(RM), offsetOfMember(mirror), sizeof(MM)};
}

template <class Real, class Mirror>
void expectLayout(const char* name, std::initializer_list<Field> fields)
{
    EXPECT_EQ(sizeof(Mirror), sizeof(Real)) << name << ": size";
    EXPECT_EQ(alignof(Mirror), alignof(Real)) << name << ": alignment";
    for (const Field& f : fields) {
        EXPECT_EQ(f.mirrorOffset, f.offset) << name << "::" << f.name << ": offset";
        EXPECT_EQ(f.mirrorSize, f.size) << name << "::" << f.name << ": size";
    }
}

}  // namespace

// ABI_LAYOUT(Real, Access, Mirror, field...): Real against Mirror, its fields named through
// Access (Real itself, or a class that may name Real's protected fields).
#define ABI_F(A, M, f) field(#f, &A::f, &M::f)
#define ABI_F1(A, M, f) ABI_F(A, M, f)
#define ABI_F2(A, M, f, ...) ABI_F(A, M, f), ABI_F1(A, M, __VA_ARGS__)
#define ABI_F3(A, M, f, ...) ABI_F(A, M, f), ABI_F2(A, M, __VA_ARGS__)
#define ABI_F4(A, M, f, ...) ABI_F(A, M, f), ABI_F3(A, M, __VA_ARGS__)
#define ABI_F5(A, M, f, ...) ABI_F(A, M, f), ABI_F4(A, M, __VA_ARGS__)
#define ABI_F6(A, M, f, ...) ABI_F(A, M, f), ABI_F5(A, M, __VA_ARGS__)
#define ABI_F7(A, M, f, ...) ABI_F(A, M, f), ABI_F6(A, M, __VA_ARGS__)
#define ABI_F8(A, M, f, ...) ABI_F(A, M, f), ABI_F7(A, M, __VA_ARGS__)
#define ABI_F9(A, M, f, ...) ABI_F(A, M, f), ABI_F8(A, M, __VA_ARGS__)
#define ABI_F10(A, M, f, ...) ABI_F(A, M, f), ABI_F9(A, M, __VA_ARGS__)
#define ABI_F11(A, M, f, ...) ABI_F(A, M, f), ABI_F10(A, M, __VA_ARGS__)
#define ABI_F12(A, M, f, ...) ABI_F(A, M, f), ABI_F11(A, M, __VA_ARGS__)
#define ABI_PICK(_1, _2, _3, _4, _5, _6, _7, _8, _9, _10, _11, _12, N, ...) N
#define ABI_LAYOUT(R, A, M, ...)                                                                   \
    expectLayout<R, M>(#R, {ABI_PICK(__VA_ARGS__, ABI_F12, ABI_F11, ABI_F10, ABI_F9, ABI_F8, ABI_F7, \
                                     ABI_F6, ABI_F5, ABI_F4, ABI_F3, ABI_F2, ABI_F1, )(A, M, __VA_ARGS__)})
// The slot of a virtual function of the given type.
#define ABI_SLOT(Type, function) vtableSlot(static_cast<Type>(function))

// -- mirrors, written from the documented field lists --

namespace mirror {

// The virtual table pointer of a polymorphic class without a base.
struct Polymorphic {
    void* vptr;
    ~Polymorphic() {}  // not POD, as the class it stands for: a derived mirror may use its tail
};

using Callback = void*;  // a function pointer field

struct Time {  // ltTime
    int32_t sec, usec;
};
struct OsalTime {  // _cspOsalTime_struct
    int64_t sec;
    int32_t nsec;
};
struct Guard {
    pthread_mutex_t* direct_;
    void* ltMutex_;
    int32_t unlocked_;
};
struct ConditionMutex {  // only its first two fields are fixed
    pthread_mutex_t* outside_;
    pthread_mutex_t own_;
};
struct IdTable {
    uint8_t initialBits, maxBits, currentBits;
    bool freeIsZero;
    uint16_t count, capacity;
    uint32_t keyMask;
    int32_t entrySize, cursor;
    void* slots;
};
struct MemberEntry {  // 3 words
    void* member;
    int32_t id;
    void* unused;
};
struct TimerEntry {  // 7 words on armhf
    Time expiry, period;
    void* userData;
    Callback callback;
    int32_t id;
};
struct IOEntry {  // 5 words on armhf
    int32_t fd;
    void* userData;
    Callback callback;
    int32_t id;
    uint8_t stamp, type;
};
using MainLoop = Polymorphic;        // no data
using MainLoopMember = Polymorphic;  // no data
struct AbstractMainLoop : MainLoop {
    pthread_mutex_t membersMutex_;
    IdTable members_;
    pthread_mutex_t timerMutex_;
    IdTable timers_;
    pthread_mutex_t ioMutex_;
    IdTable ioHandles_;
    uint32_t flags_;
    Time now_, nextWakeup_;
};
struct LinuxSelectMainLoop : AbstractMainLoop {
    uint16_t wakeupPending_;
    int32_t pipeRead_, pipeWrite_;
};
struct CalendarTime {
    struct tm calendar;
    Time time;
};
struct TimeZoneSpec {  // the hour and minute parts; further fields are the value library's
    int32_t hours, minutes;
};
struct ScopeMeter : Polymorphic {
    int32_t clockId;
    timespec last, total, resetTime;
};
struct ScopeTimer {
    void* meter;
    timespec start, duration;
    int32_t clockId;
};
using LfcObject = Polymorphic;      // no data
using LfcCollection = Polymorphic;  // an interface: no data
struct LfcVector : LfcCollection {
    void* data;
    int32_t size, capacity, growBy;
};
struct LfcVectorIterator : Polymorphic {
    int32_t position;
    void* vector;
};
struct BlockHeader {  // in front of every lfcUtil block
    unsigned char magic[4];
    uint32_t size;
};
struct Event : LfcObject {
    uint32_t key1, key2, key3, key4;
    Time timeStamp, deferralTime, lethalTime;
    int32_t ttlTimerId;
    const char* data;
    int32_t dataWord;
    uint16_t prio;
    void* owner;
};
struct MaskTerm {  // 8 bytes on armhf
    uint8_t code, op;
    uint16_t length;
    union {
        uint32_t value;
        const char* string;
    } operand;
};
struct EventMask : Polymorphic {
    MaskTerm* terms;
    uint16_t termCount, evaluateAll;
    uint32_t extra1, extra2;
};
struct EventHandler : LfcObject {
    void* mask;
    void* userData;
    Time lethalTime;
    int32_t flags;
    uint64_t id;
    int32_t groupTag;
    void* owner;
    int32_t priority;
};
struct CallbackEventHandler : EventHandler {
    Callback callback;
};
struct EventQueue : MainLoopMember {
    int32_t dispatchDepth_;
    LfcVector events_;
    int32_t maxQueueSize_;
    LfcVector handlers_;
    uint8_t knownTimeValid_;
    Time knownTime_;
    uint64_t handlerIdCounter_;
    void* loop_;  // a reference
    pthread_mutex_t mutex_;
};
struct Timer : Polymorphic {
    uint32_t type;
    OsalTime timeout, period;
    bool active;
};
struct TimerList {  // a doubly linked list with its element count
    void* next;
    void* prev;
    size_t count;
};
struct TimerQueue : Polymorphic {
    TimerList timers;
};
struct SerialExecutor {
    std::deque<boost::function<void()>> queue;
    bool stop;
    boost::mutex mutex;
    boost::condition_variable condition;
    boost::thread worker;
};
struct SemaPhoros {
    std::string name;
};
struct PluginLoader {
    void* handle;
    char* uri;
};
struct Random {
    uint32_t seed;
};
struct Configuration : Polymorphic {
    std::string configurationFilePath_, initError_;
    boost::property_tree::ptree tree_;
};
struct Uri : Polymorphic {
    std::string uri_, scheme_, authority_, path_, fragment_;
    std::vector<std::string> queryKeys_;
    std::map<std::string, std::string> queries_;
};
struct Empty {};  // ltcrypt, ltBase64: no data
struct Rsa {
    void* key;
    bool keyInvalid;
};
struct Md5State {
    uint32_t count[2], abcd[4];
    uint8_t buf[64];
};
struct Md5 {
    std::string text, hex;
    unsigned char digest[16];
};
struct ImgHash {
    unsigned char digest[20];
    bool finalized, failed;
    uint32_t byteCount;
    void* mdCtx;
};
struct PointerList {
    uintptr_t storage;  // one word
};
struct PointerArrayBlock {  // what a pointer list's word with tag 2 points to
    uint16_t capacity, count;
    void* slots[1];  // capacity slots from here
};
struct SortedList : Polymorphic {
    unsigned char* array;
    int32_t capacity, count, elementSize, spare, growBy;
};

// The sizes on armhf that applications were built with.
static_assert(!kArmhf || (sizeof(IdTable) == 24 && alignof(IdTable) == 4), "id table: 24 bytes");
static_assert(!kArmhf || (sizeof(MemberEntry) == 3 * 4 && sizeof(TimerEntry) == 7 * 4 && sizeof(IOEntry) == 5 * 4),
              "loop table entries: 3, 7 and 5 words");
static_assert(!kArmhf || (sizeof(AbstractMainLoop) == 168 && alignof(AbstractMainLoop) == 4), "loop core: 168 bytes");
static_assert(!kArmhf || (sizeof(LinuxSelectMainLoop) == 180 && alignof(LinuxSelectMainLoop) == 4),
              "select loop: 180 bytes");
static_assert(!kArmhf || (sizeof(EventQueue) == 104 && alignof(EventQueue) == 8), "event queue: 104 bytes");
static_assert(!kArmhf || (sizeof(MaskTerm) == 8 && sizeof(Guard) == 12), "mask term 8, guard 12 bytes");
static_assert(!kArmhf || offsetof(PointerArrayBlock, slots) == 4, "pointer array: 4 bytes of header");
static_assert(sizeof(OsalTime) == 16 && alignof(OsalTime) == 8 && sizeof(Md5State) == 88, "fixed on both builds");

}  // namespace mirror

// -- the checks, as the friend of the classes with private fields --

struct ltAbiLayout {
    static void expectTimeAndLoop()
    {
        ABI_LAYOUT(ltTime, ltTime, mirror::Time, sec, usec);
        ABI_LAYOUT(_cspOsalTime_struct, _cspOsalTime_struct, mirror::OsalTime, sec, nsec);
        ABI_LAYOUT(ltGuard, ltGuard, mirror::Guard, direct_, ltMutex_, unlocked_);
        // Only the first two fields of the condition mutex are fixed (the guard reads them).
        EXPECT_EQ(offsetOfMember(&mirror::ConditionMutex::outside_), offsetOfMember(&ltConditionMutex::outside_));
        EXPECT_EQ(offsetOfMember(&mirror::ConditionMutex::own_), offsetOfMember(&ltConditionMutex::own_));
        ABI_LAYOUT(ltIdTable, ltIdTable, mirror::IdTable, initialBits, maxBits, currentBits, freeIsZero, count,
                   capacity, keyMask, entrySize, cursor, slots);
        using Loop = ltAbstractMainLoop;
        ABI_LAYOUT(Loop::MemberEntry, Loop::MemberEntry, mirror::MemberEntry, member, id, unused);
        ABI_LAYOUT(Loop::TimerEntry, Loop::TimerEntry, mirror::TimerEntry, expiry, period, userData, callback, id);
        ABI_LAYOUT(Loop::IOEntry, Loop::IOEntry, mirror::IOEntry, fd, userData, callback, id, stamp, type);
        expectLayout<ltMainLoop, mirror::MainLoop>("ltMainLoop", {});
        expectLayout<ltMainLoopMember, mirror::MainLoopMember>("ltMainLoopMember", {});
        // The loop core's protected fields, named through the select loop (this test's friend).
        ABI_LAYOUT(ltAbstractMainLoop, ltLinuxSelectMainLoop, mirror::AbstractMainLoop, membersMutex_, members_,
                   timerMutex_, timers_, ioMutex_, ioHandles_, flags_, now_, nextWakeup_);
        ABI_LAYOUT(ltLinuxSelectMainLoop, ltLinuxSelectMainLoop, mirror::LinuxSelectMainLoop, wakeupPending_,
                   pipeRead_, pipeWrite_);
        ABI_LAYOUT(ltCalendarTime, ltCalendarTime, mirror::CalendarTime, calendar, time);
        EXPECT_EQ(offsetOfMember(&mirror::TimeZoneSpec::hours), offsetOfMember(&ltTimeZoneSpec::hours));
        EXPECT_EQ(offsetOfMember(&mirror::TimeZoneSpec::minutes), offsetOfMember(&ltTimeZoneSpec::minutes));
        ABI_LAYOUT(ltScopeMeter, ltScopeMeter, mirror::ScopeMeter, clockId, last, total, resetTime);
        ABI_LAYOUT(ltScopeTimer, ltScopeTimer, mirror::ScopeTimer, meter, start, duration, clockId);
    }

    static void expectEventSystem()
    {
        expectLayout<lfcObject, mirror::LfcObject>("lfcObject", {});
        expectLayout<lfcCollection, mirror::LfcCollection>("lfcCollection", {});
        ABI_LAYOUT(lfcVector, lfcVector, mirror::LfcVector, data, size, capacity, growBy);
        ABI_LAYOUT(lfcVectorIterator, lfcVectorIterator, mirror::LfcVectorIterator, position, vector);
        ABI_LAYOUT(lt_internal::LfcBlockHeader, lt_internal::LfcBlockHeader, mirror::BlockHeader, magic, size);
        EXPECT_EQ(4u, sizeof lfcUtilMallocUsed);
        ABI_LAYOUT(ltEvent, ltEvent, mirror::Event, key1, key2, key3, key4, timeStamp, deferralTime, lethalTime,
                   ttlTimerId, data, dataWord, prio, owner);
        ABI_LAYOUT(ltEventMaskTerm, ltEventMaskTerm, mirror::MaskTerm, code, op, length, operand);
        ABI_LAYOUT(ltEventMask, ltEventMask, mirror::EventMask, terms, termCount, evaluateAll, extra1, extra2);
        ABI_LAYOUT(ltEventHandler, ltEventHandler, mirror::EventHandler, mask, userData, lethalTime, flags, id,
                   groupTag, owner, priority);
        ABI_LAYOUT(ltCallbackEventHandler, ltCallbackEventHandler, mirror::CallbackEventHandler, callback);
        // The loop field is a reference, which has no member pointer: see LoopReferenceField.
        ABI_LAYOUT(ltEventQueue, ltEventQueue, mirror::EventQueue, dispatchDepth_, events_, maxQueueSize_,
                   handlers_, knownTimeValid_, knownTime_, handlerIdCounter_, mutex_);
    }

    static void expectServices()
    {
        ABI_LAYOUT(ltTimer, ltTimer, mirror::Timer, type, timeout, period, active);
        ABI_LAYOUT(ltTimerQueue, ltTimerQueue, mirror::TimerQueue, timers);
        ABI_LAYOUT(ltSerialExecutor, ltSerialExecutor, mirror::SerialExecutor, queue, stop, mutex, condition, worker);
        ABI_LAYOUT(ltSemaPhoros, ltSemaPhoros, mirror::SemaPhoros, name);
        ABI_LAYOUT(ltPluginLoader, ltPluginLoader, mirror::PluginLoader, handle, uri);
        ABI_LAYOUT(ltrandom, ltrandom, mirror::Random, seed);
        ABI_LAYOUT(ltConfiguration, ltConfiguration, mirror::Configuration, configurationFilePath_, initError_,
                   tree_);
        expectLayout<ltcrypt, mirror::Empty>("ltcrypt", {});
        ABI_LAYOUT(ltrsa, ltrsa, mirror::Rsa, key, keyInvalid);
        ABI_LAYOUT(lt_md5_state_t, lt_md5_state_t, mirror::Md5State, count, abcd, buf);
        ABI_LAYOUT(LTmd5, LTmd5, mirror::Md5, text, hex, digest);
        ABI_LAYOUT(ltimghash, ltimghash, mirror::ImgHash, digest, finalized, failed, byteCount, mdCtx);
        expectLayout<ltBase64, mirror::Empty>("ltBase64", {});
        ABI_LAYOUT(ltPointerList, ltPointerList, mirror::PointerList, storage);
        ABI_LAYOUT(ltSortedList, ltSortedList, mirror::SortedList, array, capacity, count, elementSize, spare,
                   growBy);
    }

    static size_t loopFieldOffset() { return offsetOfMember(&mirror::EventQueue::loop_); }
    static uintptr_t storageOf(const ltPointerList& list) { return list.storage; }
};

namespace ta::tarvotools::uri {
struct ltAbiLayout {  // LtUri's friend lives in its own namespace
    static void expectUri()
    {
        ABI_LAYOUT(LtUri, LtUri, mirror::Uri, uri_, scheme_, authority_, path_, fragment_, queryKeys_, queries_);
    }
};
}  // namespace ta::tarvotools::uri

namespace {

using ta::tarvotools::uri::LtUri;

// A loop core with nothing to wait on: the tables and flags of a real one.
class LoopLayout : public ltAbstractMainLoop {
public:
    void wakeupEventLoop() override {}
    void exec() override {}
    using ltAbstractMainLoop::ioHandles_;
    using ltAbstractMainLoop::members_;
    using ltAbstractMainLoop::timers_;
};

// Every class against its mirror; on armhf the mirrors' sizes are fixed by static_asserts
// above, so these are the sizes applications allocate.
TEST(Layout, EveryClassMatchesItsMirror)
{
    ltAbiLayout::expectTimeAndLoop();
    ltAbiLayout::expectEventSystem();
    ltAbiLayout::expectServices();
    ta::tarvotools::uri::ltAbiLayout::expectUri();
}

TEST(Layout, LoopReferenceField)
{
    // The queue's loop reference is one pointer, between the id counter and the mutex.
    LoopLayout loop;
    ltEventQueue queue(loop);
    ltMainLoop* stored;
    std::memcpy(&stored, reinterpret_cast<const unsigned char*>(&queue) + ltAbiLayout::loopFieldOffset(),
                sizeof stored);
    EXPECT_EQ(static_cast<ltMainLoop*>(&loop), stored);
}

TEST(Layout, LoopTablesHoldTheirEntriesWithTheirLimits)
{
    // 8 to 4096 members, 64 to 16384 timers (free when the first word is 0), 4 to 4096
    // handles (free when the descriptor is -1).
    struct Shape {
        const ltIdTable& table;
        size_t entrySize;
        int initialBits, maxBits;
        bool freeIsZero;
    };
    LoopLayout loop;
    for (const Shape& s : {Shape{loop.members_, sizeof(ltAbstractMainLoop::MemberEntry), 3, 12, true},
                           Shape{loop.timers_, sizeof(ltAbstractMainLoop::TimerEntry), 6, 14, true},
                           Shape{loop.ioHandles_, sizeof(ltAbstractMainLoop::IOEntry), 2, 12, false}}) {
        SCOPED_TRACE(s.entrySize);
        EXPECT_EQ(std::make_tuple(static_cast<int32_t>(s.entrySize), s.initialBits, s.maxBits, s.freeIsZero),
                  std::make_tuple(s.table.entrySize, int{s.table.initialBits}, int{s.table.maxBits},
                                  bool{s.table.freeIsZero}));
    }
    EXPECT_EQ((std::vector<uint32_t>{0xFF, 0xFF, 0xFFFF, 0xFFFFFF, 0xFFFFFFFF}),
              std::vector<uint32_t>(std::begin(ltIdTable::entryMaskes_), std::end(ltIdTable::entryMaskes_)));
}

TEST(Layout, PointerListBlocksAsApplicationsReadThem)
{
    int64_t objects[3];
    // Tag 3: a block of three pointer slots.
    ltPointerList triple(3);
    ASSERT_EQ(0, triple.addPointer(&objects[0]));
    uintptr_t word = ltAbiLayout::storageOf(triple);
    ASSERT_EQ(3u, word & 3);
    EXPECT_EQ(&objects[0], reinterpret_cast<void* const*>(word & ~uintptr_t{3})[0]);
    // Tag 2: a 16-bit capacity, a 16-bit count, then the slots.
    ltPointerList array(5);
    ASSERT_EQ(0, array.addPointer(&objects[1]));
    ASSERT_EQ(0, array.addPointer(&objects[2]));
    word = ltAbiLayout::storageOf(array);
    ASSERT_EQ(2u, word & 3);
    const auto* block = reinterpret_cast<const unsigned char*>(word & ~uintptr_t{3});
    mirror::PointerArrayBlock head;
    void* slots[2];
    std::memcpy(&head, block, offsetof(mirror::PointerArrayBlock, slots));
    std::memcpy(slots, block + offsetof(mirror::PointerArrayBlock, slots), sizeof slots);
    EXPECT_EQ(std::make_tuple(5, 2), std::make_tuple(int{head.capacity}, int{head.count}));
    EXPECT_EQ(&objects[1], slots[0]);
    EXPECT_EQ(&objects[2], slots[1]);
}

TEST(Layout, LoopEnumerationValues)
{
    EXPECT_EQ(std::make_tuple(1, 2), std::make_tuple(int{timerAbsolute}, int{timerPeriodic}));
    EXPECT_EQ(std::make_tuple(0, 1, 2), std::make_tuple(int{handleRead}, int{handleWrite}, int{handleException}));
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

TEST(Vtables, PolymorphicExactlyWhereDocumented)
{
    // Polymorphic, each with a virtual destructor.
    const std::vector<std::tuple<const char*, bool, bool>> polymorphic = {
#define ABI_POLY(C) std::make_tuple(#C, std::is_polymorphic<C>::value, std::has_virtual_destructor<C>::value)
        ABI_POLY(ltMainLoop),     ABI_POLY(ltMainLoopMember),      ABI_POLY(ltAbstractMainLoop),
        ABI_POLY(ltLinuxSelectMainLoop), ABI_POLY(ltScopeMeter),   ABI_POLY(lfcObject),
        ABI_POLY(lfcCollection),  ABI_POLY(lfcVector),             ABI_POLY(lfcVectorIterator),
        ABI_POLY(ltEvent),        ABI_POLY(ltEventMask),           ABI_POLY(ltEventHandler),
        ABI_POLY(ltCallbackEventHandler), ABI_POLY(ltEventQueue),  ABI_POLY(ltTimer),
        ABI_POLY(ltTimerQueue),   ABI_POLY(ltConfiguration),       ABI_POLY(LtUri),
        ABI_POLY(ltSortedList),
#undef ABI_POLY
    };
    for (const auto& [name, isPolymorphic, virtualDestructor] : polymorphic) {
        EXPECT_TRUE(isPolymorphic) << name;
        EXPECT_TRUE(virtualDestructor) << name;
    }
    // Plain: no virtual table.
    const std::vector<std::pair<const char*, bool>> plain = {
#define ABI_PLAIN(C) std::make_pair(#C, std::is_polymorphic<C>::value)
        ABI_PLAIN(ltTime),          ABI_PLAIN(ltGuard),         ABI_PLAIN(ltIdTable),
        ABI_PLAIN(ltCalendarTime),  ABI_PLAIN(ltScopeTimer),    ABI_PLAIN(lfcUtil),
        ABI_PLAIN(ltEventMaskTerm), ABI_PLAIN(ltSerialExecutor), ABI_PLAIN(ltSemaPhoros),
        ABI_PLAIN(ltPluginLoader),  ABI_PLAIN(ltrandom),        ABI_PLAIN(ltcrypt),
        ABI_PLAIN(ltrsa),           ABI_PLAIN(LTmd5),           ABI_PLAIN(ltimghash),
        ABI_PLAIN(ltBase64),        ABI_PLAIN(ltPointerList),
#undef ABI_PLAIN
    };
    for (const auto& [name, isPolymorphic] : plain)
        EXPECT_FALSE(isPolymorphic) << name;
}

// Slots are counted in table entries from 0; a virtual destructor takes two (complete and
// deleting), which lie in the gaps between the slots named here.
struct Slots {
    const char* table;
    long length;                                         // entries of the whole table
    std::vector<std::pair<long, long>> expectedAndFound;  // per named virtual function
    long found;                                          // vtableLength of the class
};

void expectSlots(const Slots& s)
{
    EXPECT_EQ(s.length, s.found) << s.table << ": entries in the table";
    for (size_t i = 0; i < s.expectedAndFound.size(); ++i)
        EXPECT_EQ(s.expectedAndFound[i].first, s.expectedAndFound[i].second) << s.table << ": function " << i;
}

// The main loop's table, the same for every loop class: the destructor (0, 1), then 2 to 12.
template <class L>
Slots mainLoopSlots(const char* name)
{
    return {name,
            13,
            {{2, ABI_SLOT(int (L::*)(const ltMainLoopMember&), &L::registerMainLoopMember)},
             {3, ABI_SLOT(int (L::*)(int, const ltMainLoopMember&), &L::unregisterMainLoopMember)},
             {4, ABI_SLOT(void (L::*)(), &L::wakeupEventLoop)},
             {5, ABI_SLOT(void (L::*)(int), &L::removeIOHandle)},
             {6, ABI_SLOT(int (L::*)(timerFlags_t, const ltTime&, const ltTime&, void*), &L::addObjectTimer)},
             {7, ABI_SLOT(void (L::*)(int), &L::removeTimer)},
             {8, ABI_SLOT(void (L::*)(), &L::exec)},
             {9, ABI_SLOT(ltTime (L::*)(), &L::getNextWakeupTime)},
             {10, ABI_SLOT(void (L::*)(), &L::processTimeouts)},
             {11, ABI_SLOT(int (L::*)(timerFlags_t, const ltTime&, const ltTime&, ltTimerCallback, void*),
                           &L::doAddTimer)},
             {12, ABI_SLOT(int (L::*)(handleType_t, handleFlags_t, int, ltIOHandleCallback, void*),
                           &L::doAddIOHandle)}},
            vtableLength<L>()};
}

TEST(Vtables, SlotOrderOfTheLoopAndItsClients)
{
    expectSlots(mainLoopSlots<ltMainLoop>("ltMainLoop"));
    expectSlots(mainLoopSlots<ltAbstractMainLoop>("ltAbstractMainLoop"));
    expectSlots(mainLoopSlots<ltLinuxSelectMainLoop>("ltLinuxSelectMainLoop"));
    // processNextEvent, then the destructor.
    expectSlots({"ltMainLoopMember",
                 3,
                 {{0, ABI_SLOT(int (ltMainLoopMember::*)(), &ltMainLoopMember::processNextEvent)}},
                 vtableLength<ltMainLoopMember>()});
    // Receivers of timers and handles added without a callback: their first virtual operation.
    EXPECT_EQ(0, ABI_SLOT(int (ltTimerReceiver::*)(int, const ltTime&), &ltTimerReceiver::timerExpired));
    EXPECT_EQ(0, ABI_SLOT(int (ltIOHandleReceiver::*)(int, int), &ltIOHandleReceiver::ioReady));
    expectSlots({"ltScopeMeter",
                 3,
                 {{2, ABI_SLOT(void (ltScopeMeter::*)(const timespec*), &ltScopeMeter::scopeDurationMeasured)}},
                 vtableLength<ltScopeMeter>()});
}

TEST(Vtables, SlotOrderOfTheEventSystem)
{
    using Q = ltEventQueue;
    expectSlots({"ltEventQueue",
                 8,
                 {{0, ABI_SLOT(int (Q::*)(), &Q::processNextEvent)},
                  {3, ABI_SLOT(int (Q::*)(ltEvent&, unsigned int), &Q::post)},
                  {4, ABI_SLOT(int (Q::*)(unsigned long long, int, ltEventHandler*, bool), &Q::removeEventHandlers)},
                  {5, ABI_SLOT(unsigned long long (Q::*)(int, ltEventHandler*), &Q::addEventHandler)},
                  {6, ABI_SLOT(int (Q::*)() const, &Q::getMaxQueueSize)},
                  {7, ABI_SLOT(void (Q::*)(int), &Q::setMaxQueueSize)}},
                 vtableLength<Q>()});
    using M = ltEventMask;
    expectSlots({"ltEventMask",
                 6,
                 {{2, ABI_SLOT(M* (M::*)() const, &M::createInstance)},
                  {3, ABI_SLOT(bool (M::*)(const ltEvent&) const, &M::matches)},
                  {4, ABI_SLOT(bool (M::*)(const M&) const, &M::isSuperSetOf)},
                  {5, ABI_SLOT(int (M::*)(const M&), &M::doCloneFlatFrom)}},
                 vtableLength<M>()});
    for (const auto& [name, slot, length] :
         {std::make_tuple("ltEventHandler", ABI_SLOT(int (ltEventHandler::*)(ltEventQueue&, ltEvent*, int),
                                                     &ltEventHandler::invoke),
                          vtableLength<ltEventHandler>()),
          std::make_tuple("ltCallbackEventHandler",
                          ABI_SLOT(int (ltCallbackEventHandler::*)(ltEventQueue&, ltEvent*, int),
                                   &ltCallbackEventHandler::invoke),
                          vtableLength<ltCallbackEventHandler>())})
        expectSlots({name, 3, {{2, slot}}, length});
    // lfcCollection's five operations, then its destructor; lfcVector goes on from there.
    using V = lfcVector;
    const std::vector<std::pair<long, long>> collection = {
        {0, ABI_SLOT(int (lfcCollection::*)(const lfcCollection&), &lfcCollection::add)},
        {1, ABI_SLOT(int (lfcCollection::*)(const lfcObject&), &lfcCollection::add)},
        {2, ABI_SLOT(int (lfcCollection::*)(const lfcObject&), &lfcCollection::remove)},
        {3, ABI_SLOT(lfcVectorIterator* (lfcCollection::*)(), &lfcCollection::iterator)},
        {4, ABI_SLOT(int (lfcCollection::*)() const, &lfcCollection::getSize)}};
    expectSlots({"lfcCollection", 7, collection, vtableLength<lfcCollection>()});
    expectSlots({"lfcVector",
                 11,
                 {{0, ABI_SLOT(int (V::*)(const lfcCollection&), &V::add)},
                  {1, ABI_SLOT(int (V::*)(const lfcObject&), &V::add)},
                  {2, ABI_SLOT(int (V::*)(const lfcObject&), &V::remove)},
                  {3, ABI_SLOT(lfcVectorIterator* (V::*)(), &V::iterator)},
                  {4, ABI_SLOT(int (V::*)() const, &V::getSize)},
                  {7, ABI_SLOT(int (V::*)(const lfcObject&, int), &V::insert)},
                  {8, ABI_SLOT(int (V::*)(int, int), &V::remove)},
                  {9, ABI_SLOT(int (V::*)(const lfcObject&, int), &V::replace)},
                  {10, ABI_SLOT(int (V::*)(int), &V::expandTo)}},
                 vtableLength<V>()});
    using I = lfcVectorIterator;
    expectSlots({"lfcVectorIterator",
                 5,
                 {{2, ABI_SLOT(bool (I::*)(), &I::hasNext)},
                  {3, ABI_SLOT(lfcObject* (I::*)(), &I::next)},
                  {4, ABI_SLOT(int (I::*)(), &I::remove)}},
                 vtableLength<I>()});
    // Only the destructor.
    expectSlots({"lfcObject", 2, {}, vtableLength<lfcObject>()});
    expectSlots({"ltEvent", 2, {}, vtableLength<ltEvent>()});
}

TEST(Vtables, SlotOrderOfTheServices)
{
    using S = ltSortedList;
    expectSlots({"ltSortedList",
                 5,
                 {{2, ABI_SLOT(int (S::*)(const void*, const void*) const, &S::compare)},
                  {3, ABI_SLOT(void (S::*)(void*), &S::destroyElement)},
                  {4, ABI_SLOT(void (S::*)(void*, const void*), &S::copy)}},
                 vtableLength<S>()});
    // Only the destructor.
    expectSlots({"ltTimer", 2, {}, vtableLength<ltTimer>()});
    expectSlots({"ltTimerQueue", 2, {}, vtableLength<ltTimerQueue>()});
    expectSlots({"ltConfiguration", 2, {}, vtableLength<ltConfiguration>()});
    expectSlots({"LtUri", 2, {}, vtableLength<LtUri>()});
    // Non-virtual operations of polymorphic classes stay out of the table.
    EXPECT_EQ(-1, ABI_SLOT(int (S::*)(void*), &S::add));
    EXPECT_EQ(-1, ABI_SLOT(void (ltScopeMeter::*)(), &ltScopeMeter::resetTimers));
}

}  // namespace
