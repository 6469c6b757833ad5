//===- ltpointerlist_test.cpp - Forms, growth, removal rules and tidying --===//
#include "ltpointerlist.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <set>
#include <string>
#include <utility>

#include <gtest/gtest.h>

namespace {

int64_t pool[32769];  // distinct aligned addresses; the list never dereferences them
void* obj(int i) { return &pool[i]; }
using Model = std::multiset<void*>;

// Adds obj(0) .. obj(n - 1); returns what the list should now hold.
Model fill(ltPointerList& list, int n)
{
    Model model;
    for (int i = 0; i < n; model.insert(obj(i++)))
        EXPECT_EQ(0, list.addPointer(obj(i)));
    return model;
}

// The list holds exactly the model: count, slot contents, lookups, and nothing past the end.
void expectSameContents(const ltPointerList& list, const Model& model)
{
    Model found;
    for (int i = 0; i < list.getCurrentMaxEntries(); ++i)
        if (void* p = list.getPointer(i))
            found.insert(p);
    EXPECT_EQ(model, found);
    EXPECT_EQ(static_cast<int>(model.size()), list.getNEntries());
    for (void* p : model)
        EXPECT_TRUE(list.hasPointer(p));
    EXPECT_TRUE(list.getPointer(-1) == nullptr && list.getPointer(list.getCurrentMaxEntries()) == nullptr);
}

TEST(PointerListGrowth, KeepsEveryPointerAcrossEachForm)
{
    ltPointerList list;
    Model model;
    for (int n = 1, capacity = 1; n <= 60; ++n) {  // single, triple, array 14, 28, 56, 112
        ASSERT_EQ(0, list.addPointer(*model.insert(obj(n - 1))));
        SCOPED_TRACE("after " + std::to_string(n) + " adds");
        capacity = n == 2 ? 3 : n == 4 ? 14 : n > capacity ? 2 * capacity : capacity;
        EXPECT_EQ(capacity, list.getCurrentMaxEntries());
        expectSameContents(list, model);
    }
}

TEST(PointerListStorage, FailedDoublingChangesNothingAndSizesPickTheForm)
{
    constexpr int kCapacity = 32768;  // cannot double within the 16-bit capacity field
    ltPointerList full(kCapacity);
    fill(full, kCapacity);
    testing::internal::CaptureStdout();
    EXPECT_EQ(-12, full.addPointer(obj(kCapacity)));
    EXPECT_EQ("Not enough storage.\n", testing::internal::GetCapturedStdout());
    EXPECT_TRUE(full.getCurrentMaxEntries() == kCapacity && full.getNEntries() == kCapacity && !full.hasPointer(obj(kCapacity)));
    EXPECT_EQ(obj(kCapacity - 1), full.getPointer(kCapacity - 1));

    // {n, capacity}: n < 2 and sizes beyond the 16-bit field give the empty single form.
    for (auto [n, capacity] : {std::pair{INT_MIN, 1}, {1, 1}, {3, 3}, {5, 5}, {65535, 65535}, {65536, 1}, {INT_MAX, 1}}) {
        SCOPED_TRACE("n = " + std::to_string(n));
        ltPointerList list(n);
        EXPECT_EQ(capacity == 1 ? -1 : 0, list.tidyUp(false));  // -1: nothing allocated
        const Model model = fill(list, std::min(capacity, 5));  // filling keeps the form
        EXPECT_EQ(capacity, list.getCurrentMaxEntries());
        expectSameContents(list, model);
    }
}

TEST(PointerListRemoval, ByIndexFollowsEachFormsRule)
{
    ltPointerList single;  // index 0 only, and only when occupied
    EXPECT_EQ(-1, single.removePointer(0));
    ASSERT_EQ(0, single.addPointer(obj(0)));
    EXPECT_TRUE(single.removePointer(1) == -1 && single.removePointer(0) == 0);
    expectSameContents(single, {});

    ltPointerList triple;  // index 1 and 2 refused although taken (kept behaviour)
    fill(triple, 3);
    for (int i : {1, 2, -1, 0})
        EXPECT_EQ(i == 0 ? 0 : -1, triple.removePointer(i));
    EXPECT_EQ(-1, triple.removePointer(0));  // slot 0 is free now
    expectSameContents(triple, {obj(1), obj(2)});

    ltPointerList array;  // any taken slot inside the block
    Model model = fill(array, 5);
    for (int i : {7, 20, -1, INT_MIN, INT_MAX})  // free slot, past the capacity of 14, negative
        EXPECT_EQ(-1, array.removePointer(i));
    for (int i : {3, 0, 4, 1, 2}) {
        model.erase(model.find(array.getPointer(i)));
        ASSERT_EQ(0, array.removePointer(i));
        EXPECT_EQ(-1, array.removePointer(i));
        expectSameContents(array, model);
    }
    EXPECT_EQ(14, array.getCurrentMaxEntries());  // an emptied array keeps its block
}

TEST(PointerListRemoval, NullIsLookedForLikeAnyPointerOnEveryForm)
{
    // Null and misaligned pointers are refused. Where a slot equals null (a free one) it is
    // "removed": 0, and an array counts one less.
    ltPointerList single;
    void* odd = static_cast<char*>(obj(0)) + 1;  // its low bit would read as a tag
    for (void* bad : {static_cast<void*>(nullptr), odd, static_cast<void*>(static_cast<char*>(obj(0)) + 2)})
        EXPECT_EQ(-1, single.addPointer(bad));
    EXPECT_FALSE(single.hasPointer(nullptr));  // empty lists answer false first
    EXPECT_EQ(0, single.removePointer(nullptr));  // the empty word equals null
    ASSERT_EQ(0, single.addPointer(obj(0)));
    EXPECT_EQ(-1, single.removePointer(nullptr));
    ASSERT_EQ(0, single.addPointer(obj(1)));
    EXPECT_TRUE(single.hasPointer(nullptr));  // triple with a free slot: kept behaviour
    expectSameContents(single, {obj(0), obj(1)});

    ltPointerList triple(3);
    EXPECT_EQ(0, triple.removePointer(nullptr));  // an empty triple has three free slots
    fill(triple, 3);
    EXPECT_EQ(-1, triple.removePointer(nullptr));  // full: no slot equals null
    ASSERT_EQ(0, triple.removePointer(obj(1)));
    EXPECT_EQ(0, triple.removePointer(nullptr));
    expectSameContents(triple, {obj(0), obj(2)});

    ltPointerList array(4);
    EXPECT_EQ(-1, array.removePointer(nullptr));  // count 0
    fill(array, 3);
    EXPECT_TRUE(array.removePointer(nullptr) == 0 && array.getNEntries() == 2);  // one less, though all three stay
    ASSERT_EQ(0, array.addPointer(obj(3)));  // fills the free slot: count 3 of 4 slots taken
    EXPECT_TRUE(array.removePointer(nullptr) == -1 && array.getNEntries() == 3);  // no free slot
    ASSERT_EQ(0, array.addPointer(obj(4)));  // room by its count, yet every slot is taken: it grows
    EXPECT_TRUE(array.getCurrentMaxEntries() == 8 && array.getNEntries() == 4);  // still one less than it holds
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(obj(i), array.getPointer(i));
}

TEST(PointerListTidy, CompactsTheTripleAndAFullFrontLosslessly)
{
    ltPointerList list;
    fill(list, 3);
    ASSERT_EQ(0, list.removePointer(obj(0)));
    EXPECT_TRUE(list.tidyUp(true) == 0 && list.getCurrentMaxEntries() == 3);  // shrink has no effect on a triple
    EXPECT_TRUE(list.getPointer(0) == obj(1) && list.getPointer(1) == obj(2));  // order kept, hole last

    // [1, 2, 0, 3, 4] in an array of 14: no hole before count, so shrinking loses nothing.
    for (int i : {0, 3, 4})
        ASSERT_EQ(0, list.addPointer(obj(i)));
    EXPECT_EQ(0, list.tidyUp(true));
    ASSERT_EQ(0, list.addPointer(obj(5)));
    EXPECT_EQ(10, list.getCurrentMaxEntries());  // a shrunk array doubles from its new size
    expectSameContents(list, {obj(0), obj(1), obj(2), obj(3), obj(4), obj(5)});
    list.clearList();
    EXPECT_EQ(-1, list.tidyUp(true));

    // [A, x, y, B] with x and y removed: count 2, B at position 3.
    fill(list, 4);
    ASSERT_EQ(0, list.removePointer(obj(1)));
    ASSERT_EQ(0, list.removePointer(obj(2)));
    EXPECT_EQ(0, list.tidyUp(false));  // B lies past count: it stays where it is
    EXPECT_EQ(obj(3), list.getPointer(3));
    // Shrinking cuts the block to count slots: B is dropped yet still counted (kept).
    EXPECT_EQ(0, list.tidyUp(true));
    EXPECT_TRUE(list.getCurrentMaxEntries() == 2 && list.getNEntries() == 2);
    EXPECT_TRUE(list.getPointer(0) == obj(0) && !list.hasPointer(obj(3)));
    ASSERT_EQ(0, list.addPointer(obj(3)));  // full by its count: the add doubles it
    EXPECT_TRUE(list.getCurrentMaxEntries() == 4 && list.getPointer(2) == obj(3));
}

}  // namespace
