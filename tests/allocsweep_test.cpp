//===- allocsweep_test.cpp - Every allocating operation with each allocation failing ===//
// Each row: the operation, its result when an allocation fails, and a check that the object
// still works afterwards; the harness checks that nothing leaked.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <boost/bind/bind.hpp>
#include <boost/thread/thread.hpp>
#include <openssl/bio.h>
#include <openssl/err.h>

#include "allocfail.h"
#include "crypto_test_support.h"
#include "lfcutil.h"
#include "lfcvector.h"
#include "ltabstractmainloop.h"
#include "ltbase64.h"
#include "ltcallbackeventhandler.h"
#include "ltconfiguration.h"
#include "ltcrypt.h"
#include "lteventmask.h"
#include "lteventqueue.h"
#include "ltidtable.h"
#include "ltimghash.h"
#include "ltmd5.h"
#include "ltpluginloader.h"
#include "ltpointerlist.h"
#include "ltrsa.h"
#include "ltserialexecutor.h"
#include "ltsortedlist.h"
#include "lttimerqueue.h"
#include "lturi.h"

using allocfail::Attempt;
using ta::tarvotools::uri::LtUri;

namespace {

constexpr int kNoMemory = -12;
const std::string kUri = "dvbt://plain/lcn?onid=1&tsid=22&sid=333&frequency=474000#frag";

// Timers fire on pass(); events are dispatched by the test.
struct DrivenLoop : ltAbstractMainLoop {
    void wakeupEventLoop() override {}
    void exec() override {}
    void pass() { (void)refreshNow(), processTimeouts(); }
};

struct Item : lfcObject {};
struct NoMember : ltMainLoopMember {
    int processNextEvent() override { return 1; }
};
int noTimer(int, const ltTime&, void*) { return 0; }
int noHandle(int, int, void*) { return 0; }

// Made once per process, in a sweep's first run.
struct Files {
    crypto_test::TempDir dir;
    const std::string config = dir.file("a.info"), plain = dir.file("plain");
    const std::string sealed = dir.file("sealed"), back = dir.file("back");
    const crypto_test::Bytes content = crypto_test::randomBytes(3000, 1);
    Files()
    {
        crypto_test::writeFile(config, "tuner\n{\n  count 2\n  name \"front end\"\n}\nlist { a 1 b 2 c 3 }\n");
        crypto_test::writeFile(plain, content);
        EXPECT_EQ(0, ltcrypt().encryptFile("pw", plain, sealed));
    }
};

const Files& files()
{
    static const Files f;
    return f;
}

// Per event: deliveries to the first handler, deletions, a failed post, a time to live.
// lateCalls: a handler offered an event already deleted.
struct Tally {
    static constexpr int kEvents = 560;
    int delivered[kEvents] = {}, destroyed[kEvents] = {}, lateCalls = 0, lethalCalls = 0;
    bool postFailed[kEvents] = {}, hasTtl[kEvents] = {};
};

struct RoadEvent : ltEvent {
    RoadEvent(Tally& t, unsigned i) : ltEvent(1, i, 0, 0, nullptr, 0), tally(t) {}
    ~RoadEvent() override { tally.destroyed[key2] += 1; }
    Tally& tally;
};

int laterHandler(ltEventQueue&, ltEvent* e, int reason, void* user)
{
    auto* t = static_cast<Tally*>(user);
    (reason != 0 ? t->lethalCalls : t->lateCalls) += reason != 0 || t->destroyed[e->key2] != 0;
    return reason != 0 ? 0 : 1;
}

// Event i % 5 == 0 is put back on its first delivery, 1 stops here, the rest go on.
int firstHandler(ltEventQueue& q, ltEvent* e, int reason, void* user)
{
    if (laterHandler(q, e, reason, user) == 0)
        return 0;
    const unsigned i = e->key2;
    const int n = ++static_cast<Tally*>(user)->delivered[i];
    return i % 5 == 0 ? (n == 1 ? 0 : 1) : i % 5 == 1 ? -1 : 1;
}

// Posts events [from, to): kept ones (not taken again until they expire) and every seventh
// get a time to live. A failed post leaves the event the caller's.
void postRange(ltEventQueue& q, Tally& t, int from, int to)
{
    for (int i = from; i < to; ++i) {
        errno = 0;
        auto* e = new (std::nothrow) RoadEvent(t, static_cast<unsigned>(i));
        const bool ttl = i % 5 == 0 || i % 7 == 0;
        const int r = e == nullptr ? -1 : q.post(*e, ttl ? 1 : 0);
        if (r != 0) {
            EXPECT_EQ(-1, r);
            EXPECT_TRUE(errno == ENOMEM || errno == 0) << "post " << i << " errno " << errno;
            t.postFailed[i] = true;
            t.destroyed[i] += e == nullptr;
            delete e;
        }
        t.hasTtl[i] = ttl && r == 0;
    }
}

void dispatch(DrivenLoop& loop, ltEventQueue& q)
{
    loop.pass();
    for (int k = 0; k < 2 * Tally::kEvents && q.processNextEvent() == 0;)
        ++k;
}

// Passes until every event is deleted, then each was deleted once, delivered once unless its
// time to live ran out, twice at most when kept, never when its post failed.
void settle(DrivenLoop& loop, ltEventQueue& q, const Tally& t, int posted)
{
    auto allGone = [&] { return std::find(t.destroyed, t.destroyed + posted, 0) == t.destroyed + posted; };
    for (int round = 0; round < 400 && !allGone(); ++round) {
        dispatch(loop, q);
        if (round > 2 && !allGone())
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(0, t.lateCalls);
    for (int i = 0; i < posted; ++i) {
        const int least = t.postFailed[i] || t.hasTtl[i] ? 0 : 1;
        const int most = t.postFailed[i] ? 0 : t.hasTtl[i] && i % 5 == 0 ? 2 : 1;
        EXPECT_TRUE(t.destroyed[i] == 1 && t.delivered[i] >= least && t.delivered[i] <= most)
            << "event " << i << " deleted " << t.destroyed[i] << " delivered " << t.delivered[i];
    }
}

// A queue holding n persistent handlers on the tally, of priorities 0 to spread - 1.
struct HandlerQueue {
    Tally t;
    DrivenLoop loop;
    ltEventQueue q{loop};
    std::vector<ltEventHandler*> added;
    ltEventHandler* make(int flags, ltEventHandlerCallback cb = laterHandler)
    {
        return new (std::nothrow) ltCallbackEventHandler(nullptr, &t, nullptr, flags, cb);
    }
    HandlerQueue(int n, int spread)
    {
        for (int i = 0; i < n; ++i) {
            added.push_back(make(ltEventHandler::kPersistent));
            EXPECT_NE(0u, q.addEventHandler(i % spread, added.back()));
        }
    }
    ~HandlerQueue() { (void)q.removeEventHandlers(0, 0, nullptr, true); }
};

// By path or through the file layer's one volume (0). Failure: -1 or -2.
void cryptFiles(Attempt& run, bool layer)
{
    const Files& f = files();
    const std::string pw = "pw", to = layer ? f.dir.file("unused") : f.sealed;
    (void)unlink(f.back.c_str());
    (void)unlink(to.c_str());
    ltcrypt c;
    int r[2] = {1, 1};  // 1: not run
    run.run([&] {
        r[0] = layer ? c.encryptFile(pw, 0, f.plain, 0, to) : c.encryptFile(pw, f.plain, to);
        if (layer || r[0] == 0)
            r[1] = layer ? c.decryptFile(pw, 0, f.sealed, 0, f.back) : c.decryptFile(pw, f.sealed, f.back);
    });
    for (int x : r)
        EXPECT_TRUE(x == 0 || x == -1 || x == -2 || (x == 1 && !layer)) << x;
    EXPECT_TRUE(r[1] != 0 || crypto_test::readFile(f.back) == f.content);
    EXPECT_TRUE((r[0] == 0 && r[1] == 0) || run.failed());
    (void)unlink(f.back.c_str());  // the object still works
    EXPECT_EQ(0, c.encryptFile(pw, f.plain, f.sealed));
    EXPECT_EQ(0, c.decryptFile(pw, f.sealed, f.back));
    EXPECT_EQ(f.content, crypto_test::readFile(f.back));
}

struct Operation {
    const char* name;
    void (*body)(Attempt& run);
    bool exactBytes = true;  // false: an operation that starts threads or whose failure text varies
};

const Operation kOperations[] = {
    {"LfcUtilAllocations", [](Attempt& run) {
         // Failure: null, nothing counted in lfcUtilMallocUsed. calloc may get the dirty blocks again.
         const int32_t used = lfcUtilMallocUsed;
         void *a = nullptr, *c = nullptr, *s = nullptr, *dirty[2] = {lfcUtil::malloc(40), lfcUtil::malloc(40)};
         for (void* p : dirty)
             lfcUtil::free(std::memset(p, 0xA5, 40));
         run.run([&] { a = lfcUtil::malloc(40); c = lfcUtil::calloc(4, 10); s = lfcUtil::strdup("text"); });
         EXPECT_EQ(used + (a ? 40 : 0) + (c ? 40 : 0) + (s ? 5 : 0), lfcUtilMallocUsed);
         EXPECT_TRUE(s == nullptr || std::strcmp("text", static_cast<char*>(s)) == 0);
         const auto* z = static_cast<const char*>(c);
         EXPECT_TRUE(z == nullptr || std::all_of(z, z + 40, [](char x) { return x == 0; }));
         for (void* p : {a, c, s})
             lfcUtil::free(p);
         EXPECT_EQ(used, lfcUtilMallocUsed);
     }},
    {"LfcVectorGrowth", [](Attempt& run) {
         // add, insert, add(collection), expandTo past capacity. Failure: -12, the vector as it was.
         static Item items[64];
         const int32_t used = lfcUtilMallocUsed;
         {
             lfcVector v, other(0, 1);  // v's first add allocates 15 slots, other has 2
             int r[5] = {};
             run.run([&] {
                 r[0] = v.add(items[0]);
                 for (int i = 1; i < 16 && r[0] == 0; ++i)
                     (void)v.add(items[i]);
                 r[1] = v.add(items[16]);
                 r[2] = v.insert(items[17], 1);
                 for (int i = 0; i < 5; ++i)
                     (void)other.add(items[40 + i]);
                 r[3] = v.add(other);
                 r[4] = v.expandTo(200);
             });
             EXPECT_TRUE(std::all_of(r, r + 5, [](int x) { return x == 0 || x == kNoMemory; }));
             std::set<lfcObject*> seen;
             for (int i = 0; i < v.getSize(); ++i)
                 EXPECT_TRUE(seen.insert(v.elementAt(i)).second) << i;
             EXPECT_TRUE(run.failed() || (v.getSize() == 23 && v.elementAt(1) == &items[17]));
             const int before = v.getSize();
             EXPECT_EQ(0, v.add(items[63]));
             EXPECT_TRUE(v.getSize() == before + 1 && v.elementAt(before) == &items[63]);
             EXPECT_EQ(0, v.remove(items[63]));
         }
         EXPECT_EQ(used, lfcUtilMallocUsed);
     }},
    {"IdTablePutGrowth", [](Attempt& run) {
         // Failure: no slots from the constructor; id 0 from putMember, the table as it was.
         std::unique_ptr<ltIdTable> t;
         run.run([&] { t.reset(new (std::nothrow) ltIdTable(4, 2, 4, true)); });
         if (t == nullptr) return;
         uint32_t rec = 1;
         int ids[9] = {};
         run.run([&] { for (int i = 0; i < 9; ++i, ++rec) ids[i] = t->putMember(&rec); });
         EXPECT_EQ(9 - std::count(ids, ids + 9, 0), t->count);
         if (t->slots != nullptr) {  // there is room: the next put works
             rec = 100;
             const int id = t->putMember(&rec);
             ASSERT_NE(0, id);
             EXPECT_EQ(100u, *static_cast<uint32_t*>(t->slotFor(id)));
             EXPECT_EQ(0, t->removeMember(id));
         }
         for (int id : ids)
             EXPECT_EQ(0, id != 0 ? t->removeMember(id) : 0);
         EXPECT_EQ(0, t->count);
     }},
    {"PointerListAddThroughEveryForm", [](Attempt& run) {
         // Failure: -12, the list as it was; a failed doubling of the array form alone prints.
         static int objects[40];
         ltPointerList list;
         int r[40];
         std::fflush(stdout);
         testing::internal::CaptureStdout();
         run.run([&] {
             for (int i = 0; i < 40; ++i)
                 r[i] = list.addPointer(&objects[i]);
             std::fflush(stdout);
         });
         const std::string said = testing::internal::GetCapturedStdout(), line = "Not enough storage.\n";
         std::string expected;
         while (expected.size() < said.size())
             expected += line;
         EXPECT_EQ(expected, said);
         EXPECT_LE(expected.size() / line.size(), static_cast<size_t>(std::count(r, r + 40, kNoMemory)));
         for (int i = 0; i < 40; ++i)
             EXPECT_TRUE((r[i] == 0 || r[i] == kNoMemory) && (r[i] == 0) == list.hasPointer(&objects[i])) << i;
         const int stored = static_cast<int>(std::count(r, r + 40, 0));
         int extra = 0;
         EXPECT_EQ(stored, list.getNEntries());
         EXPECT_EQ(0, list.addPointer(&extra));
         EXPECT_EQ(stored + 1, list.getNEntries());
         EXPECT_EQ(0, list.removePointer(&extra));
     }},
    {"PointerListConstruction", [](Attempt& run) {
         // Failure: the empty single form, which still takes pointers.
         for (int n : {3, 20}) {
             std::unique_ptr<ltPointerList> list;
             run.run([&] { list.reset(new (std::nothrow) ltPointerList(n)); });
             int x = 0;
             EXPECT_TRUE(list == nullptr ||
                         (list->getNEntries() == 0 && list->addPointer(&x) == 0 && list->hasPointer(&x)));
         }
     }},
    {"SortedListAddAndExpand", [](Attempt& run) {
         // Failure: -12 from expand; what was stored stays sorted, unique and intact.
         std::unique_ptr<ltSortedList> list;
         run.run([&] { list.reset(new (std::nothrow) ltSortedList(4, 2, 0, 3)); });
         if (list == nullptr) return;
         int r = 0;
         run.run([&] {
             for (uint32_t v = 20; v > 0; --v)
                 (void)list->add(&v);
             r = list->expand(100);
         });
         EXPECT_TRUE(r == 0 || r == kNoMemory) << r;
         for (int i = 0; i < list->count; ++i) {
             uint32_t v;
             std::memcpy(&v, (*list)[i], 4);
             EXPECT_TRUE(v >= 1 && v <= 20 && (i == 0 || std::memcmp((*list)[i - 1], (*list)[i], 4) < 0)) << v;
         }
         const int before = list->count;
         uint32_t v = 1000;
         bool found = false;
         EXPECT_EQ(0, list->add(&v));
         (void)list->search(&v, &found);
         EXPECT_TRUE(found && list->count == before + 1);
     }},
    {"EventMaskConstructionAndClone", [](Attempt& run) {
         // Failure: a mask (or clone) without terms, which matches everything.
         static const char kText[] = "ab";
         ltEvent match(7, 0, 0, 0, "abc", ltEvent::kDataNotOwned);
         ltEvent other(8, 0, 0, 0, "abc", ltEvent::kDataNotOwned);
         ltEventMask *mask = nullptr, *copy = nullptr;
         run.run([&] {
             mask = new (std::nothrow) ltEventMask(ltEventMask::kMaskNone, 1, ltEventMask::kKeyEqual, 7u, 5,
                                                   ltEventMask::kDataPrefix, kText, 0);
             if (mask != nullptr)
                 copy = mask->clone();
         });
         for (ltEventMask* m : {mask, copy})
             EXPECT_TRUE(m == nullptr || ((m->termCount == 0 || m->termCount == mask->termCount) && m->matches(match) &&
                                          (m->termCount == 0) == m->matches(other)));
         EXPECT_TRUE(run.failed() || (copy != nullptr && copy->termCount == 2));
         delete copy;
         delete mask;
     }},
    {"MainLoopConstruction", [](Attempt& run) {
         // Failure: std::bad_alloc from the constructor.
         std::unique_ptr<DrivenLoop> loop;
         (void)run.runThrowing([&] { loop.reset(new DrivenLoop); });
         if (loop == nullptr) return;
         const ltTime second(1, 0);
         const int id = loop->doAddTimer(timerPeriodic, second, second, noTimer, nullptr);
         EXPECT_TRUE(id != 0 || run.failed());
         loop->removeTimer(id);
     }},
    {"MainLoopTableGrowth", [](Attempt& run) {
         // Two timer, handle and member adds, each table full already. Failure: id 0.
         DrivenLoop loop;
         auto addTimer = [&](const ltTime& t) { return loop.doAddTimer(timerPeriodic, t, t, noTimer, nullptr); };
         auto addHandle = [&](int fd) { return loop.doAddIOHandle(handleRead, handleNoFlags, fd, noHandle, nullptr); };
         std::vector<int> timers, handles{addHandle(100), addHandle(101)};
         NoMember member[10];
         for (int i = 0; i < 62; ++i)
             timers.push_back(addTimer(ltTime(1, 0)));
         for (int i = 0; i < 6; ++i)
             (void)loop.registerMainLoopMember(member[i]);
         int ids[6] = {};
         run.run([&] {
             for (int i = 0; i < 6; ++i)
                 ids[i] = i < 2   ? addTimer(ltTime(1, 0))
                          : i < 4 ? addHandle(198 + i)
                                  : loop.registerMainLoopMember(member[4 + i]);
         });
         EXPECT_TRUE(std::count(ids, ids + 6, 0) == 0 || run.failed());
         loop.pass();
         timers.insert(timers.end(), {ids[0], ids[1], addTimer(ltTime(0, 1000))});
         EXPECT_NE(0, timers.back());
         EXPECT_NE(0x7fffffff, loop.getNextWakeupTime().sec);
         for (int id : timers)
             loop.removeTimer(id);
         for (int id : {ids[2], ids[3], handles[0], handles[1]})
             loop.removeIOHandle(id);
         EXPECT_EQ(0, loop.unregisterMainLoopMember(ids[4] ? ids[4] : 1, member[8]));
     }},
    {"EventRoad", [](Attempt& run) {
         // Posts growing the event vector (500 slots) and the timer table (256), handlers with
         // lethal times, dispatch with put-backs and expiries. Failure: post -1, handler id 0.
         constexpr int kQueued = 495, kPosted = 530;
         auto t = std::make_unique<Tally>();
         DrivenLoop loop;
         ltEventQueue q(loop);
         ASSERT_NE(0u, q.addEventHandlerFunction(firstHandler, nullptr, t.get(), 0, ltEventHandler::kPersistent));
         postRange(q, *t, 0, kQueued);
         ASSERT_EQ(t->postFailed + kQueued, std::find(t->postFailed, t->postFailed + kQueued, true));
         const ltTime hour(3600, 0);  // with the 155 time-to-live timers, a few short of full
         std::vector<int> fillers(95);
         for (int& id : fillers)
             id = loop.doAddTimer(timerPeriodic, hour, hour, noTimer, nullptr);
         unsigned long long h2 = 0, h3 = 0;
         run.run([&] {
             h2 = q.addEventHandlerFunction(laterHandler, nullptr, t.get(), 1, 0);
             h3 = q.addEventHandlerFunction(laterHandler, nullptr, t.get(), 0, ltEventHandler::kPersistent);
             postRange(q, *t, kQueued, kPosted);
             for (int round = 0; round < 3; ++round)
                 dispatch(loop, q);
         });
         EXPECT_TRUE((h2 != 0 && h3 != 0) || run.failed());
         for (int id : fillers)
             loop.removeTimer(id);
         settle(loop, q, *t, kPosted);
         EXPECT_EQ(0, q.post(*new RoadEvent(*t, Tally::kEvents - 1), 0));  // the queue still works
         EXPECT_EQ(0, q.processNextEvent());
         EXPECT_EQ(1, t->destroyed[Tally::kEvents - 1]);
         EXPECT_GE(q.removeEventHandlers(0, 0, nullptr, true), 1);
     }},
    {"EventHandlerAddAndRemove", [](Attempt& run) {
         // Adds growing the full handler vector, a removal. Failure: id 0, the handler the caller's.
         HandlerQueue hq(499, 3);
         ltEventHandler *tenth = hq.added[10], *extra = hq.make(ltEventHandler::kPersistent, firstHandler);
         unsigned long long id = 0;
         int removed = 0;
         run.run([&] {
             for (int i = 0; i < 3; ++i) {
                 ltEventHandler* h = hq.make(0);
                 if (h != nullptr && hq.q.addEventHandler(2, h) == 0)
                     delete h;
             }
             id = hq.q.addEventHandler(1, extra);
             removed = hq.q.removeEventHandlers(0, 0, tenth, true);
         });
         EXPECT_EQ(1, removed);
         if (id == 0)
             delete extra;
         ASSERT_EQ(0, hq.q.post(*new RoadEvent(hq.t, 2), 0));  // goes on through every handler, then finishes
         EXPECT_EQ(0, hq.q.processNextEvent());
         EXPECT_EQ(1, hq.t.destroyed[2]);
         EXPECT_EQ(id != 0 ? 1 : 0, hq.t.delivered[2]);
         hq.loop.pass();
     }},
    {"EventHandlerLethalTimer", [](Attempt& run) {
         // A handler with a lethal time, the 1st or 501st. Failure: id 0, no lethal timer left.
         for (int filled : {0, 500}) {
             HandlerQueue hq(filled, 1);
             ltEventHandler* h = hq.make(0);
             h->setLethalTime(ltTime(0, 0));
             unsigned long long id = 0;
             run.run([&] { id = hq.q.addEventHandler(1, h); });
             if (id == 0)
                 delete h;
             else
                 EXPECT_EQ(1, hq.q.removeEventHandlers(0, 0, h, true));
             hq.loop.pass();
             EXPECT_EQ(0, hq.t.lethalCalls);  // the next pass must not reach the deleted handler
         }
     }},
    {"TimerQueueSetTimer", [](Attempt& run) {
         // Failure: -12, the caller's empty pointer still empty or the timer not queued.
         ltTimerQueue q;
         const _cspOsalTime_struct zero{};
         std::vector<boost::shared_ptr<ltTimer>> timers(7);
         int r[6];
         run.run([&] {
             for (size_t i = 0; i < 6; ++i)
                 r[i] = q.setTimer(timers[i], _cspOsalTime_struct{static_cast<int64_t>(10 - i), 0}, zero);
             if (r[0] >= 0)  // rescheduling a queued timer needs no new element
                 (void)q.setTimer(timers[0], _cspOsalTime_struct{1, 0}, zero);
         });
         for (size_t i = 0; i < 6; ++i) {
             EXPECT_TRUE(r[i] >= 0 || r[i] == kNoMemory) << r[i];
             EXPECT_EQ(r[i] != kNoMemory, timers[i] && q.isInQueue(timers[i])) << i;
         }
         boost::shared_ptr<ltTimer> out;
         long taken = 0;
         for (; q.getExpired(_cspOsalTime_struct{100, 0}, out) == 1; out.reset())
             ++taken;
         EXPECT_EQ(std::count_if(r, r + 6, [](int x) { return x >= 0; }), taken);
         EXPECT_EQ(0, q.setTimer(timers[6], _cspOsalTime_struct{5, 0}, zero));
     }},
    {"SerialExecutorConstructionAndPost", [](Attempt& run) {
         // Failure: std::bad_alloc or thread_resource_error from the constructor; none from post.
         std::atomic<int> ran{0};
         std::unique_ptr<ltSerialExecutor> ex;
         run.run([&] {
             try {
                 ex.reset(new ltSerialExecutor);
             } catch (const std::bad_alloc&) {
             } catch (const boost::thread_resource_error&) {
             }
         });
         if (ex == nullptr) return;
         const boost::function<void()> job = boost::bind(+[](std::atomic<int>* n) { n->fetch_add(1); }, &ran);
         for (int i = 0; i < 3; ++i)  // the deque's first block, then more
             ex->post(job);
         run.run([&] { for (int i = 0; i < 200; ++i) ex->post(job); });
         std::atomic<bool> done{false};
         ex->post(boost::bind(+[](std::atomic<bool>* d) { d->store(true); }, &done));
         for (int i = 0; i < 2000 && !done.load(); ++i)
             std::this_thread::sleep_for(std::chrono::milliseconds(1));
         EXPECT_TRUE(done.load() && (ran.load() == 203 || run.failed()));
         ex.reset();  // before done goes
     }, false},  // a failed thread start leaves glibc's per-thread memory cached
    {"ConfigurationRead", [](Attempt& run) {
         // Failure: std::bad_alloc, or the reader's error kept as text with an empty tree.
         const std::string& path = files().config;
         std::unique_ptr<ltConfiguration> c;
         (void)run.runThrowing([&] { c.reset(new ltConfiguration(path)); });
         if (c == nullptr) return;
         const bool failed = c->initError();
         EXPECT_EQ(failed, c->getInitError().find(path) != std::string::npos) << c->getInitError();
         EXPECT_EQ(failed ? -1 : 2, c->getInteger("tuner/count", -1));
         EXPECT_EQ(failed ? "" : "front end", c->getString("tuner/name", ""));
     }},
    {"ConfigurationGetAndPut", [](Attempt& run) {
         // Failure: std::bad_alloc; a put happened or not (leaving the empty parents it made).
         ltConfiguration c(files().config);
         ASSERT_FALSE(c.initError());
         std::string got;
         int n = 0;
         const bool threw = run.runThrowing([&] {
             got = c.getString("tuner/name", "none");
             n = c.getInteger("list/b", -1);
             c.putString("new/deep/key", "v");
             c.putInteger("tuner/count", 5);
         });
         EXPECT_TRUE(threw || (got == "front end" && n == 2));
         const std::string deep = c.getString("new/deep/key", "absent");
         const int count = c.getInteger("tuner/count", -1);
         EXPECT_TRUE((deep == "absent" || deep == "v") && (count == 2 || count == 5)) << deep << count;
         EXPECT_EQ("", c.getString("new", ""));
         c.putInteger("tuner/count", 3);
         EXPECT_EQ(3, c.getInteger("tuner/count", -1));
         EXPECT_EQ("front end", c.getString("tuner/name", ""));
     }},
    {"UriParse", [](Attempt& run) {
         // Failure: std::bad_alloc from the constructor.
         std::unique_ptr<LtUri> u;
         (void)run.runThrowing([&] { u.reset(new LtUri(kUri)); });
         unsigned v = 0;
         EXPECT_TRUE(u == nullptr || (u->getScheme() == "dvbt" && u->getValue("sid", v) == 0 && v == 333u));
     }},
    {"UriQueriesAndComposition", [](Attempt& run) {
         // Failure: std::bad_alloc; keys and values still agree, the URI composes and parses.
         LtUri u(kUri);
         std::string composed, got;
         int r[3] = {1, 1, 1};
         const bool threw = run.runThrowing([&] {
             r[0] = u.addQuery("plpid", 7u);
             r[1] = u.addQuery("band", "high");
             r[2] = u.removeQuery("tsid");
             (void)u.getValue("band", got);
             composed = u.getUri();
         });
         EXPECT_TRUE(threw || (r[0] == 0 && r[1] == 0 && r[2] == 0 && got == "high"));
         for (const std::string& key : u.getQueryKeys()) {
             std::string value;
             EXPECT_TRUE(key.empty() || u.getValue(key, value) == 0) << key;
         }
         const std::string again = u.getUri();
         EXPECT_EQ(again, LtUri(again).getUri());
         EXPECT_TRUE(threw || composed == again);
         unsigned sid = 0;
         EXPECT_EQ(0, u.addQuery("sid", 4u));
         EXPECT_TRUE(u.getValue("sid", sid) == 0 && sid == 4u);
     }},
    {"Base64EncodeAndDecode", [](Attempt& run) {
         // Failure: -12 from encode, 0 or less from decode; the codec keeps working.
         static const unsigned char data[] = "binary\0data with some length to it";
         static ltBase64 codec;  // one codec through every attempt
         char* text = nullptr;
         unsigned char* back = nullptr;
         int rEnc = 0, rDec = 0;
         run.run([&] {
             rEnc = codec.encode(data, sizeof data, &text);
             if (rEnc > 0)
                 rDec = codec.decode(text, static_cast<unsigned>(rEnc), &back);
         });
         EXPECT_TRUE(rEnc > 0 || rEnc == kNoMemory) << rEnc;
         const bool whole = rEnc > 0 && rDec == static_cast<int>(sizeof data);
         EXPECT_TRUE(rEnc <= 0 || (whole ? std::memcmp(data, back, sizeof data) == 0 : rDec <= 0)) << rDec;
         EXPECT_TRUE(rDec == static_cast<int>(sizeof data) || run.failed());
         delete[] text;
         delete[] back;
     }},
    {"Base64VectorDecode", [](Attempt& run) {
         // Failure: an empty result, and no exception.
         static ltBase64 codec;
         static const std::string text = "YmluYXJ5IGRhdGEgd2l0aCBzb21lIGxlbmd0aCB0byBpdA==";
         std::vector<unsigned char> out{1, 2, 3};
         run.run([&] { codec.decode(text, out); });  // an exception fails the test
         const std::string got(out.begin(), out.end());
         EXPECT_TRUE((got.empty() && run.failed()) || got == "binary data with some length to it") << got;
     }},
    {"Md5", [](Attempt& run) {
         // Failure: std::bad_alloc.
         const std::string text(300, 'x');
         static const std::string expected = LTmd5(text).toString();
         std::string hex;
         (void)run.runThrowing([&] { hex = LTmd5(text).toString(); });
         EXPECT_TRUE((hex.empty() && run.failed()) || hex == expected) << hex;
     }},
    {"ImageHash", [](Attempt& run) {
         // Failure: false from update or finalize (sticky), the object finalized all the same.
         static const std::string text(300, 'x');
         const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
         static ltimghash expected;
         static const bool made = expected.update(bytes, 300) && expected.finalize();
         ASSERT_TRUE(made);
         std::unique_ptr<ltimghash> h;
         bool updated = false, finished = false;
         run.run([&] {
             h.reset(new (std::nothrow) ltimghash);
             if (h != nullptr)
                 updated = h->update(bytes, 300), finished = h->finalize();
         });
         if (h == nullptr) return;
         EXPECT_TRUE(h->isFinalized());
         EXPECT_TRUE(!finished || std::memcmp(expected.Hash(), h->Hash(), ltimghash::kDigestSize) == 0);
         EXPECT_TRUE((updated && finished) || run.failed());
     }},
    {"CryptFiles", [](Attempt& run) { cryptFiles(run, false); }},
    {"CryptFileLayerFiles", [](Attempt& run) { cryptFiles(run, true); }},
    {"PluginLoaderSetUriAndLoad", [](Attempt& run) {
         // Open mode 0, which glibc refuses: every load fails. A failed URI copy shows in load().
         ltPluginLoader p;
         int rSet = 1, rLoad = 1;
         run.run([&] { rSet = p.setURI("libm.so.6"); rLoad = p.load(); });
         EXPECT_TRUE(rSet == 0 && rLoad == -1 && !p.isLoaded());
         EXPECT_EQ(0, p.setURI("libm.so.6"));
         EXPECT_EQ(nullptr, p.lookupSymbol("cos"));
     }, false},  // glibc's dlerror text differs with where dlopen ran short
};

// OpenSSL makes a thread's error queue at its first error and keeps it: made before a sweep.
void makeErrorQueue()
{
    BIO_free(BIO_new_file("", "r"));
    ERR_clear_error();
}

class AllocSweep : public ::testing::TestWithParam<Operation> {};
void PrintTo(const Operation& op, std::ostream* os) { *os << op.name; }

TEST_P(AllocSweep, Operation)
{
    makeErrorQueue();
    const Operation& op = GetParam();
    allocfail::sweep(op.name, [&](Attempt& run) {
        op.body(run);
        ERR_clear_error();  // what a failure left queued holds memory
    }, op.exactBytes);
}

INSTANTIATE_TEST_SUITE_P(Operations, AllocSweep, ::testing::ValuesIn(kOperations), ::testing::PrintToStringParamName());

// ltrsa reads a fixed path: its sweep runs in a child whose private mount namespace holds the
// key file. The key object lives as long as the process, so bytes are not balanced. Failure: false.
TEST(AllocSweepInChild, RsaKeyFileAndPublicKeyOperation)
{
    if (!crypto_test::haveOpenssl())
        GTEST_SKIP() << "the openssl command-line tool is not installed";
    std::string modulus;
    ASSERT_EQ(0, crypto_test::runCommand("openssl genrsa 2048 2>/dev/null | openssl rsa -noout -modulus 2>/dev/null",
                                         &modulus));
    modulus = modulus.substr(8, modulus.find_last_not_of("\r\n") - 7);
    makeErrorQueue();
    crypto_test::runWithPrivateKeyDir([&] {
        crypto_test::writeFile(crypto_test::kKeyDir + "/production.key", "E : 10001\nN : " + modulus + "\n");
        unsigned char from[256], expected[256], out[256];
        for (int i = 0; i < 256; ++i)
            from[i] = static_cast<unsigned char>(i * 7);  // from[0] = 0: below the modulus
        ASSERT_TRUE(ltrsa(1).encryptSignature(from, expected));
        allocfail::sweep("RsaKeyFileAndPublicKeyOperation", [&](Attempt& run) {
            ltrsa* r = nullptr;
            bool ok = false;
            run.run([&] {
                r = new (std::nothrow) ltrsa(1);
                ok = r != nullptr && r->encryptSignature(from, out);
            });
            EXPECT_TRUE(run.failed() ? !ok || std::memcmp(expected, out, sizeof out) == 0
                                     : ok && std::memcmp(expected, out, sizeof out) == 0);
            // Still usable: a key read whole works now; one cut short keeps failing cleanly.
            EXPECT_TRUE(r == nullptr || !r->encryptSignature(from, out) || std::memcmp(expected, out, sizeof out) == 0);
            delete r;
            ERR_clear_error();
        }, false);
    });
}

}  // namespace
