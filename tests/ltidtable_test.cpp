// The id table: ids with generations, round-robin probing, growth to the cap, removal codes.
#include "ltidtable.h"

#include <gtest/gtest.h>

#include <climits>

namespace {

struct Rec { uint32_t key, payload; };

int put(ltIdTable& t, uint32_t key, uint32_t payload = 0) { Rec r = {key, payload}; return t.putMember(&r); }

const Rec& at(const ltIdTable& t, int id) { return *static_cast<const Rec*>(t.slotFor(id)); }

TEST(IdTableIds, GrowByDoublingUpToTheCapAndProbeRoundRobin)
{
    ltIdTable t(4, 2, 3, true);
    for (uint32_t k = 11; k <= 14; ++k) {
        EXPECT_EQ(static_cast<int>(k - 10), put(t, k));
        EXPECT_EQ(k < 14 ? 4 : 8, t.capacity) << k;  // the fourth grows the table
    }
    for (uint32_t k = 15; k <= 17; ++k)
        EXPECT_NE(0, put(t, k));
    EXPECT_EQ(0, put(t, 18));  // eight slots holding seven records: full at the cap
    EXPECT_EQ(7, t.count);
    for (int id = 1; id <= 4; ++id)  // growth kept every record in place
        EXPECT_EQ(static_cast<uint32_t>(10 + id), at(t, id).key);

    // A freed slot is reused last; ids handed out after the probe wraps carry the next generation.
    ltIdTable r(4, 2, 3, true);
    const int a = put(r, 1), b = put(r, 2);
    ASSERT_EQ(0, r.removeMember(a));
    const int c = put(r, 3);
    ASSERT_EQ(3, c);
    ASSERT_EQ(0, r.removeMember(b));
    ASSERT_EQ(0, r.removeMember(c));
    const int again = put(r, 4);
    EXPECT_EQ(1 + (1 << 3), again);
    EXPECT_EQ(4u, at(r, again).key);
}

TEST(IdTableRemoval, ReportsEachFailureByCode)
{
    ltIdTable t(sizeof(Rec), 2, 3, true);
    EXPECT_EQ(-1, t.removeMember(1));  // empty
    put(t, 5);
    const int id = put(t, 7, 99);
    EXPECT_EQ(-2, t.removeMember(0));
    EXPECT_EQ(-2, t.removeMember(1 << 3));  // generation bits only: index 0
    EXPECT_EQ(0, t.removeMember(id));
    EXPECT_EQ(99u, at(t, id).payload);  // only the key bits were freed
    EXPECT_EQ(-3, t.removeMember(id));

    ltIdTable two(4, 1, 4, true);  // only slot 1 is usable before growth
    const int old = put(two, 5);
    ASSERT_EQ(0, two.removeMember(old));
    ASSERT_NE(old, put(two, 6));
    EXPECT_EQ(0, two.removeMember(old));  // a stale id: generations are not compared
    EXPECT_EQ(0, two.count);
}

// Records whose key bits read as free, and null, are refused; only the masked bits decide.
TEST(IdTableKeys, KeyMaskFollowsTheEntrySizeAndFreeLookingRecordsAreRefused)
{
    const uint32_t masks[] = {0xFFu, 0xFFu, 0xFFFFu, 0xFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu};
    for (int size = 0; size <= 5; ++size)
        EXPECT_EQ(masks[size], ltIdTable(size, 2, 3, true).keyMask) << size;

    ltIdTable zero(4, 2, 3, true);
    EXPECT_EQ(0, put(zero, 0));
    EXPECT_EQ(0, zero.putMember(nullptr));
    EXPECT_EQ(0, zero.count);
    ltIdTable ones(4, 2, 3, false);
    EXPECT_EQ(0, put(ones, 0xFFFFFFFFu));
    EXPECT_NE(0, put(ones, 0));
    EXPECT_EQ(0xFF, static_cast<const uint8_t*>(ones.slotFor(2))[0]);  // new slots read free
    ltIdTable t(2, 2, 3, true);
    uint16_t rec = 0x0100, zeroKey = 0;
    EXPECT_NE(0, t.putMember(&rec));
    EXPECT_EQ(0, t.putMember(&zeroKey));
}

// Across the cursor's wraps at 2^31 and 2^32 each id names its own slot.
TEST(IdTableIds, CursorWrapsKeepEveryIdOnItsSlot)
{
    for (uint32_t start : {0x7FFFFF00u, 0xFFFFFF00u}) {
        SCOPED_TRACE(start);
        ltIdTable t(sizeof(Rec), 2, 8, true);
        t.cursor = static_cast<int32_t>(start);
        int held[3] = {};  // key k in held[k % 3]
        for (uint32_t k = 1; k < 1000; ++k) {
            if (held[k % 3] != 0) {
                ASSERT_EQ(0, t.removeMember(held[k % 3]));
            }
            held[k % 3] = put(t, k);
            for (uint32_t j = k > 2 ? k - 2 : 1; j <= k; ++j)
                ASSERT_EQ(j, at(t, held[j % 3]).key) << k;
        }
        EXPECT_EQ(3, t.count);
        EXPECT_GT(static_cast<uint32_t>(t.cursor) - start, 256u) << "the cursor did not pass the wrap";
    }
}

// A 40-bit limit leaves no room for a generation; a limit past 15 bits stops at 32768 slots.
TEST(IdTableGeometry, ImpossibleOnesHandOutNoIdsAndLimitsKeepIdsOnTheirSlot)
{
    const struct { int entrySize, bits, maxBits; bool freeIsZero; } impossible[] = {
        {0, 2, 4, true}, {0, 2, 4, false}, {-4, 2, 4, true}, {4, -1, 15, true}, {4, 16, 15, true}, {4, 40, 15, true}};
    for (const auto& g : impossible) {
        ltIdTable t(g.entrySize, g.bits, g.maxBits, g.freeIsZero);
        EXPECT_EQ(0, put(t, 0x12345678)) << g.entrySize << "/" << g.bits;
        EXPECT_EQ(-1, t.removeMember(1)) << g.entrySize << "/" << g.bits;
    }
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
    ltIdTable above(4, 4, 2, true);
    for (uint32_t k = 1; k < 16; ++k)
        EXPECT_NE(0, put(above, k));
    EXPECT_EQ(0, put(above, 16));
    EXPECT_EQ(16, above.capacity);
    ltIdTable wide(4, 14, 20, true);
    int refused = 0;
    for (uint32_t k = 1; k <= 40000; ++k)
        refused += put(wide, k) == 0 ? 1 : 0;
    EXPECT_EQ(32768, wide.capacity);
    EXPECT_EQ(40000 - 32767, refused);
    EXPECT_EQ(-2, wide.removeMember(INT_MIN));  // index 0 in any generation
}

}  // namespace
