//===- lfcvector_test.cpp - Counted blocks, vector growth and removal -----===//
#include "lfcvector.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <vector>

#include "lfcutil.h"
#include "lfcvectoriterator.h"

namespace {

lfcObject objects[64];

// The vector must hold exactly the model's pointers, in order.
void expectSame(const lfcVector& v, const std::vector<lfcObject*>& model)
{
    ASSERT_EQ(static_cast<int>(model.size()), v.getSize());
    for (size_t i = 0; i < model.size(); ++i)
        EXPECT_EQ(model[i], v.elementAt(static_cast<int>(i))) << "index " << i;
}

TEST(CountedBlocks, CounterFollowsEveryLiveBlockAndIgnoresForeignOnes)
{
    const int32_t base = lfcUtilMallocUsed;
    EXPECT_EQ(nullptr, lfcUtil::malloc(0));
    EXPECT_EQ(nullptr, lfcUtil::calloc(0, 5));
    EXPECT_EQ(nullptr, lfcUtil::strdup(nullptr));

    auto* a = static_cast<unsigned char*>(lfcUtil::malloc(10));
    ASSERT_NE(nullptr, a);
    EXPECT_EQ(0, std::memcmp(a - 8, "YHg%", 4));  // the header other tools look for
    auto* zeros = static_cast<unsigned char*>(lfcUtil::calloc(3, 4));
    ASSERT_NE(nullptr, zeros);
    EXPECT_EQ(std::vector<unsigned char>(12, 0), std::vector<unsigned char>(zeros, zeros + 12));
    char* s = lfcUtil::strdup("tuner");
    EXPECT_STREQ("tuner", s);
    EXPECT_EQ(base + 10 + 12 + 6, lfcUtilMallocUsed);  // requested bytes only

    lfcUtil::free(a);
    lfcUtil::free(a);  // second free: no magic any more
    lfcUtil::free(nullptr);
    EXPECT_EQ(base + 18, lfcUtilMallocUsed);
    auto* foreign = static_cast<unsigned char*>(std::calloc(1, 32));  // no magic in front
    lfcUtil::free(foreign + 8);
    EXPECT_EQ(base + 18, lfcUtilMallocUsed);
    std::free(foreign);
    lfcUtil::free(zeros);
    lfcUtil::free(s);
    EXPECT_EQ(base, lfcUtilMallocUsed);

    EXPECT_EQ(-1, lfcUtil::strcmp(nullptr, "a"));
    EXPECT_GT(lfcUtil::strcmp("hdmi", "dvbt"), 0);
}

TEST(VectorGrowth, GrowsLinearlyAndCountsItsArray)
{
    const int32_t base = lfcUtilMallocUsed;
    {
        lfcVector v;  // no array until the first add
        std::vector<lfcObject*> model;
        const std::map<int, int> capacityAfter = {{1, 15}, {15, 15}, {16, 30}, {30, 30}, {31, 45}};
        for (int n = 1; n <= 31; ++n) {
            ASSERT_EQ(0, v.add(objects[n]));
            model.push_back(&objects[n]);
            if (capacityAfter.count(n) == 0)
                continue;
            EXPECT_EQ(capacityAfter.at(n), v.capacity) << n << " entries";
            EXPECT_EQ(base + v.capacity * static_cast<int>(sizeof(void*)), lfcUtilMallocUsed);
        }
        expectSame(v, model);
    }
    EXPECT_EQ(base, lfcUtilMallocUsed);

    lfcVector small(0, 1);  // growBy raised to 2, two slots at once
    EXPECT_EQ(2, small.capacity);
    for (int n = 0; n < 3; ++n)
        ASSERT_EQ(0, small.add(objects[n]));
    EXPECT_EQ(4, small.capacity);
}

TEST(VectorInsert, BelowSizeIntoAFullVectorKeepsCapacityAndEveryEntry)
{
    lfcVector v(4, 3);
    std::vector<lfcObject*> model;
    for (int n = 0; n < 4; ++n) {
        ASSERT_EQ(0, v.add(objects[n]));
        model.push_back(&objects[n]);
    }
    // Full: inserts below size do not grow the capacity, yet every entry stays intact (the
    // sanitizer build checks that nothing is written past the array).
    const int at[] = {1, 0, 3, 2, 0};
    for (int k = 0; k < 5; ++k) {
        ASSERT_EQ(0, v.insert(objects[10 + k], at[k]));
        model.insert(model.begin() + at[k], &objects[10 + k]);
        EXPECT_EQ(4, v.capacity);
        expectSame(v, model);
    }
    ASSERT_EQ(0, v.add(objects[20]));  // the next add grows from size
    model.push_back(&objects[20]);
    EXPECT_EQ(9 + 3, v.capacity);
    expectSame(v, model);

    // At size, on a full vector: the index test grows to index + growBy.
    lfcVector w(2, 5);
    ASSERT_EQ(0, w.add(objects[0]));
    ASSERT_EQ(0, w.add(objects[1]));
    ASSERT_EQ(0, w.insert(objects[2], 2));
    EXPECT_EQ(7, w.capacity);
    ASSERT_EQ(0, w.insert(objects[3], -1));  // -1 and beyond size append
    ASSERT_EQ(0, w.insert(objects[4], 99));
    EXPECT_EQ(-1, w.insert(objects[5], -2));
    expectSame(w, {&objects[0], &objects[1], &objects[2], &objects[3], &objects[4]});
}

TEST(VectorRemoval, CutsAtTheEndAndRejectsEmptyRanges)
{
    lfcVector v;
    std::vector<lfcObject*> model;
    for (int n : {0, 1, 2, 3, 4, 1}) {  // a duplicate: remove(object) takes the first
        ASSERT_EQ(0, v.add(objects[n]));
        model.push_back(&objects[n]);
    }
    EXPECT_EQ(-1, v.remove(1, 0));
    EXPECT_EQ(-1, v.remove(-1, 1));
    EXPECT_EQ(-1, v.remove(6, 1));
    EXPECT_EQ(-1, v.remove(objects[40]));
    EXPECT_EQ(0, v.remove(objects[1]));
    model.erase(model.begin() + 1);
    expectSame(v, model);
    EXPECT_EQ(0, v.remove(2, 10));  // cut to the end
    model.resize(2);
    expectSame(v, model);

    EXPECT_EQ(-1, v.replace(objects[9], 2));  // index == size
    EXPECT_EQ(0, v.replace(objects[9], -1));  // only the upper bound is checked; nothing stored
    EXPECT_EQ(0, v.replace(objects[9], 1));
    model[1] = &objects[9];
    expectSame(v, model);
}

TEST(VectorIteration, RemovesWhatItReturnedAndCopiesCollections)
{
    lfcVector v;
    std::vector<lfcObject*> model;
    for (int n = 0; n < 6; ++n) {
        ASSERT_EQ(0, v.add(objects[n]));
        model.push_back(&objects[n]);
    }
    lfcVectorIterator* it = v.iterator();
    EXPECT_EQ(0, it->remove());  // nothing returned yet: no change
    expectSame(v, model);
    for (int k = 0; it->hasNext(); ++k) {
        lfcObject* o = it->next();
        if (k % 2 == 0)
            EXPECT_EQ(0, it->remove());
        else
            EXPECT_NE(nullptr, o);
    }
    EXPECT_EQ(nullptr, it->next());
    delete it;
    model = {&objects[1], &objects[3], &objects[5]};
    expectSame(v, model);

    lfcVector w;
    ASSERT_EQ(0, w.add(objects[30]));
    ASSERT_EQ(0, w.add(v));
    ASSERT_EQ(0, w.add(w));  // itself: appended once
    expectSame(w, {&objects[30], &objects[1], &objects[3], &objects[5],
                   &objects[30], &objects[1], &objects[3], &objects[5]});
}

}  // namespace
