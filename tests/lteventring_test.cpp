// The event ring and the queue's claimed batches: invisible beside a plain vector of the events.
#include "lteventring.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <memory>
#include <random>
#include <vector>

#include "drivenloop.h"
#include "lfcutil.h"
#include "lteventmask.h"
#include "lteventqueue.h"

namespace {

using lt_internal::EventRing;

ltEvent* newEvent(unsigned key2) { return new ltEvent(1, key2, 0, 0, nullptr, 0); }

// Skipped events as a set, the others in order; without skipped ones it grows as a plain lfcVector.
TEST(EventRingModel, KeepsArrivalOrderBehindTheSkippedAndGrowsLikeAPlainVector)
{
    std::mt19937 random(7);
    lfcVector storage(4, 3), plain(4, 3);
    int head = 0, skipped = 0;
    EventRing ring(storage, head);
    std::vector<ltEvent*> skippedModel;
    std::deque<ltEvent*> model;
    std::vector<std::unique_ptr<ltEvent>> owned;

    for (int step = 0; step < 6000; ++step) {
        const bool withSkipped = step >= 3000;  // the first half keeps to the plain vector
        const unsigned op = random() % 12;
        if (op < 5) {  // push
            owned.emplace_back(newEvent(static_cast<unsigned>(step)));
            // With claimed events counted the room is made early: straightened before it wraps.
            ASSERT_EQ(0, ring.reserveFor(ring.size() + (withSkipped ? static_cast<int>(random() % 3) : 0)));
            ring.push(owned.back().get());
            model.push_back(owned.back().get());
            ASSERT_EQ(0, plain.add(*owned.back()));
        } else if (op < 8) {  // take a batch from behind the skipped events
            ltEvent* out[5];
            const int n = ring.takeFront(out, static_cast<int>(random() % 5) + 1, skipped);
            for (int i = 0; i < n; ++i) {
                ASSERT_EQ(model.front(), out[i]) << "step " << step;
                model.pop_front();
                ASSERT_EQ(0, plain.remove(0, 1));  // the plain vector holds the others only
            }
            for (int i = 0; withSkipped && i < n; i += 2) {
                ring.pushFront(out[i]);
                ++skipped;
                skippedModel.push_back(out[i]);
            }
        } else if (!model.empty() || !skippedModel.empty()) {  // remove one by identity, anywhere
            const size_t at = random() % (skippedModel.size() + model.size());
            ltEvent* e = at < skippedModel.size() ? skippedModel[at] : model[at - skippedModel.size()];
            const int position = ring.remove(e);
            ASSERT_GE(position, 0);
            EXPECT_EQ(-1, ring.remove(e));
            EXPECT_EQ(at < skippedModel.size(), position < skipped);
            if (position < skipped) {
                --skipped;
                skippedModel.erase(skippedModel.begin() + static_cast<long>(at));
            } else {
                model.erase(model.begin() + static_cast<long>(at - skippedModel.size()));
                ASSERT_EQ(0, plain.remove(*e));
            }
        }
        ASSERT_EQ(static_cast<int>(skippedModel.size() + model.size()), ring.size());
        ASSERT_TRUE(withSkipped || plain.capacity == storage.capacity) << "step " << step;
        std::vector<ltEvent*> front;
        for (int i = 0; i < skipped; ++i)
            front.push_back(ring.at(i));
        ASSERT_TRUE(std::is_permutation(front.begin(), front.end(), skippedModel.begin(), skippedModel.end())) << step;
        for (int i = skipped; i < ring.size(); ++i)
            ASSERT_EQ(model[static_cast<size_t>(i - skipped)], ring.at(i)) << "step " << step << " index " << i;
    }
}

int countAndGoOn(ltEventQueue&, ltEvent* e, int, void* seen) { return static_cast<std::vector<unsigned>*>(seen)->push_back(e->key2), 1; }

int keepEverything(ltEventQueue&, ltEvent*, int, void*) { return 0; }

// Arrival order across claimed batches, posts and TTL expiries; the limit counts claimed events.
TEST(EventQueueClaims, OrderLimitMemoryAndPutBackAsWithOnePlainVector)
{
    DrivenLoop loop;  // never run: this thread plays the loop thread
    ltEventQueue* queue = new ltEventQueue(loop);
    std::vector<unsigned> seen;
    ASSERT_NE(0u, queue->addEventHandlerFunction(&countAndGoOn, nullptr, &seen, 0, ltEventHandler::kPersistent));

    std::deque<unsigned> expected;
    std::vector<ltEvent*> events;
    unsigned next = 0;
    auto post = [&](int n) {
        for (int i = 0; i < n; ++i) {
            events.push_back(newEvent(next));
            ASSERT_EQ(0, queue->post(*events.back(), 0));
            expected.push_back(next++);
        }
    };
    auto process = [&](int n) {
        for (int i = 0; i < n; ++i) {
            ASSERT_EQ(0, queue->processNextEvent());
            ASSERT_EQ(expected.front(), seen.back());
            expected.pop_front();
        }
    };
    auto grownSlots = [&](int32_t base) { return (lfcUtilMallocUsed - base) / static_cast<int32_t>(sizeof(lfcObject*)); };

    // A plain (500, 15) vector grows at 500 and 515 queued events, to 515 and 530 slots.
    const int32_t base = lfcUtilMallocUsed;
    post(520);
    EXPECT_EQ(30, grownSlots(base));
    process(45);  // two claims: 32, then 13 of the next 32
    post(55);     // 530 queued, 19 of them claimed and not in the ring: no growth yet
    EXPECT_EQ(30, grownSlots(base));
    post(1);      // 530 queued before it: full, as for the plain vector
    EXPECT_EQ(45, grownSlots(base));

    EXPECT_EQ(0, ltEventQueue::cbEventTimeOut(0, ltTime(0, 0), events[46]));
    EXPECT_EQ(0, ltEventQueue::cbEventTimeOut(0, ltTime(0, 0), events[300]));
    expected.erase(std::find(expected.begin(), expected.end(), 46u));
    expected.erase(std::find(expected.begin(), expected.end(), 300u));
    process(static_cast<int>(expected.size()));
    EXPECT_EQ(-1, queue->processNextEvent());
    EXPECT_EQ(EAGAIN, errno);

    // The limit counts the claimed events exactly: after one take, 40 are left (31 claimed).
    queue->setMaxQueueSize(40);
    post(41);  // the 41st is the one accepted past the limit
    std::unique_ptr<ltEvent> refused(newEvent(9999));
    EXPECT_EQ(-1, queue->post(*refused, 0));
    EXPECT_EQ(EAGAIN, errno);
    process(1);
    ASSERT_EQ(0, queue->post(*refused.release(), 0));
    expected.push_back(9999);
    std::unique_ptr<ltEvent> extra(newEvent(10000));
    EXPECT_EQ(-1, queue->post(*extra, 0));  // 41 queued again
    process(static_cast<int>(expected.size()));
    EXPECT_EQ(-1, queue->processNextEvent());
    EXPECT_EQ(1, queue->removeEventHandlers(0, 0, nullptr, true));
    delete queue;

    // Put-back events stay counted and are not handed out again; those behind them are.
    queue = new ltEventQueue(loop);
    seen.clear();
    ltEventMask keepMask(ltEventMask::kMaskNone, 2, ltEventMask::kKeyEqual, 1u, 0);   // key2 == 1
    ltEventMask passMask(ltEventMask::kMaskNone, 2, ltEventMask::kKeyNotEqual, 1u, 0);  // key2 != 1
    ASSERT_NE(0u, queue->addEventHandlerFunction(&keepEverything, &keepMask, nullptr, 0, ltEventHandler::kPersistent));
    ASSERT_NE(0u, queue->addEventHandlerFunction(&countAndGoOn, &passMask, &seen, 0, ltEventHandler::kPersistent));

    queue->setMaxQueueSize(3);
    std::vector<ltEvent*> kept;
    for (int i = 0; i < 3; ++i) {
        kept.push_back(new ltEvent(1, 1, 0, 0, nullptr, 0));
        ASSERT_EQ(0, queue->post(*kept.back(), 0));
    }
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(0, queue->processNextEvent());  // each kept: put back
    EXPECT_EQ(-1, queue->processNextEvent());
    EXPECT_EQ(EAGAIN, errno);
    ASSERT_EQ(0, queue->post(*newEvent(7), 0));  // 3 put back + 1: the one past the limit
    std::unique_ptr<ltEvent> over(newEvent(8));
    EXPECT_EQ(-1, queue->post(*over, 0));
    EXPECT_EQ(EAGAIN, errno);
    EXPECT_EQ(0, queue->processNextEvent());
    EXPECT_EQ(std::vector<unsigned>{7}, seen);
    EXPECT_EQ(-1, queue->processNextEvent());

    for (ltEvent* e : kept)
        EXPECT_EQ(0, ltEventQueue::cbEventTimeOut(0, ltTime(0, 0), e));
    EXPECT_EQ(-1, queue->processNextEvent());  // now found empty
    EXPECT_EQ(2, queue->removeEventHandlers(0, 0, nullptr, true));
    delete queue;
}

}  // namespace
