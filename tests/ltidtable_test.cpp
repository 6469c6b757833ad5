// The id table: ids with generations, round-robin probing, growth to the cap, removal codes.
#include "ltidtable.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>

namespace {

struct Rec {
    uint32_t key;
    uint32_t payload;
};

int put(ltIdTable& t, uint32_t key, uint32_t payload = 0)
{
    Rec r = {key, payload};
    return t.putMember(&r);
}

const Rec& at(const ltIdTable& t, int id)
{
    return *static_cast<const Rec*>(t.slotFor(id));
}

TEST(IdTableIds, GrowByDoublingUpToTheCap)
{
    ltIdTable t(4, 2, 3, true);
    EXPECT_EQ(1, put(t, 11));
    EXPECT_EQ(2, put(t, 12));
    EXPECT_EQ(3, put(t, 13));
    EXPECT_EQ(4, t.capacity);
    EXPECT_EQ(4, put(t, 14));  // the fourth grows the table to 8 slots
    EXPECT_EQ(8, t.capacity);
    EXPECT_EQ(3, t.currentBits);
    for (uint32_t k = 15; k <= 17; ++k)
        EXPECT_NE(0, put(t, k));
    EXPECT_EQ(7, t.count);
    EXPECT_EQ(0, put(t, 18));  // eight slots holding seven records: full at the cap
    EXPECT_EQ(7, t.count);
    // Growth kept every record in place.
    for (int id = 1; id <= 4; ++id)
        EXPECT_EQ(static_cast<uint32_t>(10 + id), at(t, id).key);
}

TEST(IdTableIds, ReusedSlotsGetANewGeneration)
{
    ltIdTable t(4, 2, 3, true);
    const int a = put(t, 1), b = put(t, 2), c = put(t, 3);
    ASSERT_EQ(0, t.removeMember(a));
    ASSERT_EQ(0, t.removeMember(b));
    ASSERT_EQ(0, t.removeMember(c));
    // The cursor wraps past the end of four slots; slot 1 comes back with generation 1.
    const int again = put(t, 4);
    EXPECT_EQ(1 + (1 << 3), again);
    EXPECT_EQ(4u, at(t, again).key);
}

TEST(IdTableIds, ProbesRoundRobinSoFreedSlotsAreReusedLast)
{
    ltIdTable t(8, 3, 6, true);
    const int a = put(t, 1);
    put(t, 2);
    ASSERT_EQ(0, t.removeMember(a));
    EXPECT_EQ(3, put(t, 3));  // slot 1 is free, but the probe goes on from slot 2
}

TEST(IdTableRefusal, FreeLookingRecordsAndNullAreRefused)
{
    ltIdTable zero(4, 2, 3, true);
    EXPECT_EQ(0, put(zero, 0));
    EXPECT_EQ(0, zero.putMember(nullptr));
    EXPECT_EQ(0, zero.count);

    ltIdTable ones(4, 2, 3, false);
    EXPECT_EQ(0, put(ones, 0xFFFFFFFFu));
    EXPECT_NE(0, put(ones, 0));  // all-zero keys are fine when free means all ones
    EXPECT_EQ(0xFF, static_cast<const uint8_t*>(ones.slotFor(2))[0]);  // new slots read free
}

TEST(IdTableRemoval, ReportsEachFailureByCode)
{
    ltIdTable t(sizeof(Rec), 2, 3, true);
    EXPECT_EQ(-1, t.removeMember(1));  // empty
    const int id = put(t, 7, 99);
    EXPECT_EQ(-2, t.removeMember(0));
    EXPECT_EQ(-2, t.removeMember(1 << 3));  // generation bits only: index 0
    EXPECT_EQ(0, t.removeMember(id));
    EXPECT_EQ(99u, at(t, id).payload);  // only the key bits were freed
    put(t, 8);
    EXPECT_EQ(-3, t.removeMember(id));
}

TEST(IdTableRemoval, StaleIdRemovesTheNewerRecordInItsSlot)
{
    ltIdTable t(4, 1, 4, true);  // 2 slots: only slot 1 usable before growth
    const int old = put(t, 5);
    ASSERT_EQ(0, t.removeMember(old));
    const int fresh = put(t, 6);
    ASSERT_NE(old, fresh);
    EXPECT_EQ(0, t.removeMember(old));  // generations are not compared
    EXPECT_EQ(0, t.count);
}

TEST(IdTableKeys, KeyMaskFollowsTheEntrySize)
{
    EXPECT_EQ(0xFFu, ltIdTable(1, 2, 3, true).keyMask);
    EXPECT_EQ(0xFFFFu, ltIdTable(2, 2, 3, true).keyMask);
    EXPECT_EQ(0xFFFFFFu, ltIdTable(3, 2, 3, true).keyMask);
    EXPECT_EQ(0xFFFFFFFFu, ltIdTable(12, 2, 3, true).keyMask);

    // Only the masked bits decide: a 2-byte entry with key 0x0100 has non-zero key bits.
    ltIdTable t(2, 2, 3, true);
    uint16_t rec = 0x0100;
    EXPECT_NE(0, t.putMember(&rec));
    uint16_t zeroKey = 0;
    EXPECT_EQ(0, t.putMember(&zeroKey));
}

// Started at 0, just below 2^31 and just below 2^32 (the cursor is never reset): ids stay
// non-zero, name their own slot and are unique among the records held, across both wraps.
TEST(IdTableModel, RandomPutsAndRemovesMatchAMap)
{
    for (uint32_t start : {0u, 0x7FFFFF00u, 0xFFFFFF00u}) {
        SCOPED_TRACE(start);
        ltIdTable t(sizeof(Rec), 2, 8, true);
        t.cursor = static_cast<int32_t>(start);
        std::map<int, uint32_t> model;  // id -> key
        uint32_t seed = 12345, nextKey = 1;
        for (int step = 0; step < 5000; ++step) {
            seed = seed * 1103515245u + 12345u;
            if ((seed >> 16) % 3 != 0 || model.empty()) {
                const int id = put(t, nextKey);
                if (model.size() + 1 >= 256u) {
                    EXPECT_EQ(0, id);
                    continue;
                }
                ASSERT_NE(0, id);
                for (const auto& m : model)
                    ASSERT_NE((m.first ^ id) & (t.capacity - 1), 0) << "slot handed out twice";
                model[id] = nextKey++;
            } else {
                auto it = model.begin();
                std::advance(it, (seed >> 8) % model.size());
                ASSERT_EQ(0, t.removeMember(it->first));
                model.erase(it);
            }
            ASSERT_EQ(model.size(), t.count);
            for (const auto& m : model)
                ASSERT_EQ(m.second, at(t, m.first).key);
        }
        if (start != 0) {
            EXPECT_LT(static_cast<uint32_t>(t.cursor) - start, 0x80000000u) << "the cursor did not pass the wrap";
            EXPECT_GT(static_cast<uint32_t>(t.cursor) - start, 256u);
        }
    }
}

TEST(IdTableIds, LimitsOutsideTheIdKeepIdsOnTheirSlot)
{
    // A limit of 40 bits leaves no room for a generation; a table built above its limit of 1
    // keeps the generation above its 8 slots. Either way every id names the slot it filled.
    for (int maxBits : {40, 1}) {
        SCOPED_TRACE(maxBits);
        ltIdTable t(sizeof(Rec), 3, maxBits, true);
        for (uint32_t k = 1; k <= 40; ++k) {
            const int id = put(t, k);
            ASSERT_NE(0, id);
            EXPECT_EQ(k, at(t, id).key);
            ASSERT_EQ(0, t.removeMember(id));
        }
    }
}

}  // namespace
