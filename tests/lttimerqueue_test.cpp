#include "lttimerqueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include <boost/weak_ptr.hpp>

namespace {

using TimerPtr = boost::shared_ptr<ltTimer>;

_cspOsalTime_struct at(int64_t sec, int32_t nsec = 0) { return _cspOsalTime_struct{sec, nsec}; }
bool later(const _cspOsalTime_struct& a, const _cspOsalTime_struct& b) { return cspOsalCompareTime(&a, &b) > 0; }

// Random sets, reschedules and removals against a model: a vector in expiry order where an
// entry goes behind every entry due at the same time (first set, first out).
TEST(TimerQueueOrder, PositionsRescheduleRemovalAndDrainFollowTheModel)
{
    ltTimerQueue queue;
    std::vector<TimerPtr> model, known;
    std::mt19937 rng(7);
    for (int step = 0; step < 300; ++step) {
        TimerPtr t;  // empty: setTimer creates a timer into it
        if (!known.empty() && rng() % 2 == 0)
            t = known[rng() % known.size()];
        auto old = std::find(model.begin(), model.end(), t);
        const int oldIndex = old == model.end() ? -2 : static_cast<int>(old - model.begin());
        if (old != model.end())
            model.erase(old);
        if (t && rng() % 3 == 0) {  // remove: the result is where it stood, or -2
            ASSERT_EQ(oldIndex, queue.removeTimer(t));
            EXPECT_FALSE(t->isActive());
            continue;
        }
        const _cspOsalTime_struct due = at(rng() % 4, (rng() % 2) * 500000000);  // many ties
        auto place = std::find_if(model.begin(), model.end(),
                                  [&](const TimerPtr& m) { return later(m->getTimeout(), due); });
        const int position = static_cast<int>(place - model.begin());
        ASSERT_EQ(position, queue.setTimer(t, due, /*period=*/at(0)));
        model.insert(model.begin() + position, t);
        if (std::find(known.begin(), known.end(), t) == known.end())
            known.push_back(t);
        EXPECT_TRUE(t->isActive() && t->getType() == ltTimer::kType);
    }
    // Drain in two steps: a 'now' between expiries, then one past them all.
    for (const _cspOsalTime_struct& now : {at(1, 250000000), at(9)}) {
        TimerPtr out;
        for (; !model.empty() && !later(model.front()->getTimeout(), now); model.erase(model.begin())) {
            ASSERT_EQ(1, queue.getExpired(now, out));
            EXPECT_EQ(model.front(), out);
            EXPECT_FALSE(out->isActive() || queue.isInQueue(out));  // one-shot: gone
        }
        EXPECT_EQ(0, queue.getExpired(now, out));
        EXPECT_FALSE(out);
    }
    EXPECT_EQ(1, queue.removeAll());  // nothing left: 1, kept the right way round

    ltTimerQueue q;
    const _cspOsalTime_struct now = at(100);
    TimerPtr periodic, oneShot, exact, o;
    EXPECT_TRUE(q.removeTimer(o) == -2 && !q.isInQueue(o));  // an empty pointer is in no queue
    q.setTimer(periodic, at(96, 500000000), at(1));  // 3.5 s behind 'now'
    q.setTimer(oneShot, at(99), at(-1, 500000000));  // minus half a second: one-shot
    q.setTimer(exact, now, at(2, -1750000000));      // normalises to 0.25 s; due at 'now'
    std::vector<TimerPtr> fired;
    for (int i = 0; i < 10 && q.getExpired(now, o) == 1; ++i)
        fired.push_back(o);
    EXPECT_EQ((std::vector<TimerPtr>{periodic, oneShot, exact}), fired);  // once each
    EXPECT_TRUE(periodic->getTimeout().sec == 100 && periodic->getTimeout().nsec == 500000000);  // next boundary after 'now'
    EXPECT_EQ(250000000, exact->getTimeout().nsec);
    EXPECT_EQ(2, exact->getPeriod().sec);  // the stored period is left as it was set
    EXPECT_TRUE(periodic->isActive() && exact->isActive() && !oneShot->isActive());
    for (const TimerPtr& expected : {exact, periodic}) {  // re-queued at their new places
        ASSERT_EQ(1, q.getExpired(at(100, 600000000), o));
        EXPECT_EQ(expected, o);
    }
    boost::weak_ptr<ltTimer> held = periodic;
    periodic.reset(), o.reset(), fired.clear();
    EXPECT_FALSE(held.expired());  // alive through the q's reference alone
    EXPECT_EQ(0, q.removeAll());
    EXPECT_TRUE(held.expired());
    EXPECT_FALSE(exact->isActive());
    o = exact;
    EXPECT_TRUE(q.getFirst(o) == 0 && !o);  // an empty queue empties 'o'
}

}  // namespace
