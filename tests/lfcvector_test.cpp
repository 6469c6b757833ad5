//===- lfcvector_test.cpp - Counted blocks, vector growth and removal -----===//
#include "lfcvector.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <vector>

#include "lfcutil.h"
#include "lfcvectoriterator.h"

namespace {

lfcObject objects[64];
using Refs = std::vector<lfcObject*>;

// Appends objects[n] for each n; returns what the vector should now hold.
Refs fill(lfcVector& v, std::initializer_list<int> ns)
{
    Refs model;
    for (int n : ns)
        EXPECT_EQ(0, v.add(*model.emplace_back(&objects[n])));
    return model;
}

Refs contents(const lfcVector& v)
{
    Refs out;
    for (int i = 0; i < v.getSize(); ++i)
        out.push_back(v.elementAt(i));
    return out;
}

TEST(CountedBlocks, CounterFollowsEveryLiveBlockAndIgnoresForeignOnes)
{
    const int32_t base = lfcUtilMallocUsed;
    for (void* none : {lfcUtil::malloc(0), lfcUtil::calloc(0, 5), static_cast<void*>(lfcUtil::strdup(nullptr)),
                       lfcUtil::calloc(65536, 65536)})  // the last product wraps to 0: kept, no check
        EXPECT_EQ(nullptr, none);
    void* a = lfcUtil::malloc(10);
    auto* zeros = static_cast<unsigned char*>(lfcUtil::calloc(3, 4));
    char* s = lfcUtil::strdup("tuner");
    ASSERT_TRUE(a && zeros && s);
    EXPECT_EQ(std::vector<unsigned char>(12, 0), std::vector<unsigned char>(zeros, zeros + 12));
    EXPECT_STREQ("tuner", s);
    EXPECT_EQ(base + 10 + 12 + 6, lfcUtilMallocUsed);  // requested bytes only

    lfcUtil::free(a);
    lfcUtil::free(a);  // second free: no magic any more
    lfcUtil::free(nullptr);
    auto* foreign = static_cast<unsigned char*>(std::calloc(1, 32));  // no magic in front
    lfcUtil::free(foreign + 8);
    std::free(foreign);
    EXPECT_EQ(base + 18, lfcUtilMallocUsed);
    lfcUtil::free(zeros);
    lfcUtil::free(s);
    EXPECT_EQ(base, lfcUtilMallocUsed);

    EXPECT_TRUE(lfcUtil::strcmp(nullptr, "a") == -1 && lfcUtil::strcmp("a", nullptr) == -1);
    EXPECT_GT(lfcUtil::strcmp("hdmi", "dvbt"), 0);
}

TEST(VectorGrowth, GrowsLinearlyAndCountsItsArray)
{
    const int32_t base = lfcUtilMallocUsed;
    {
        lfcVector v;  // no array until the first add
        Refs model;
        for (int n = 1; n <= 31; ++n) {
            ASSERT_EQ(0, v.add(*model.emplace_back(&objects[n])));
            EXPECT_EQ((n + 14) / 15 * 15, v.capacity) << n << " entries";  // steps of 15
            EXPECT_EQ(base + v.capacity * static_cast<int>(sizeof(void*)), lfcUtilMallocUsed);
        }
        EXPECT_EQ(model, contents(v));
    }
    EXPECT_EQ(base, lfcUtilMallocUsed);

    lfcVector small(0, 1);  // growBy raised to 2, two slots at once
    EXPECT_EQ(2, small.capacity);
    fill(small, {0, 1, 2});
    EXPECT_EQ(4, small.capacity);
    // Growth beyond what the counted allocator takes fails and changes nothing.
    EXPECT_TRUE(small.expandTo(INT_MAX) == -ENOMEM && small.getSize() == 3);
    lfcVector never(INT_MAX, INT_MAX);  // no array, and every growth step is too big
    EXPECT_TRUE(never.add(objects[0]) == -ENOMEM && never.getSize() == 0);
}

TEST(VectorInsert, BelowSizeIntoAFullVectorKeepsCapacityAndEveryEntry)
{
    lfcVector v(4, 3);
    Refs model = fill(v, {0, 1, 2, 3});
    // Full: inserts below size keep the capacity (kept), and every entry (ASan: nothing past the array).
    const int at[] = {1, 0, 3, 2, 0};
    for (int k = 0; k < 5; ++k) {
        ASSERT_EQ(0, v.insert(objects[10 + k], at[k]));
        model.insert(model.begin() + at[k], &objects[10 + k]);
        EXPECT_EQ(4, v.capacity);
        EXPECT_EQ(model, contents(v));
    }
    ASSERT_EQ(0, v.add(*model.emplace_back(&objects[20])));  // the next add grows from size
    EXPECT_EQ(9 + 3, v.capacity);
    EXPECT_EQ(model, contents(v));

    // At size, on a full vector: the index test grows to index + growBy.
    lfcVector w(2, 5);
    fill(w, {0, 1});
    ASSERT_TRUE(w.insert(objects[2], 2) == 0 && w.capacity == 7);
    ASSERT_EQ(0, w.insert(objects[3], -1));  // -1 and beyond size append
    ASSERT_EQ(0, w.insert(objects[4], 99));
    EXPECT_EQ(-1, w.insert(objects[5], -2));
    EXPECT_EQ((Refs{&objects[0], &objects[1], &objects[2], &objects[3], &objects[4]}), contents(w));

    lfcVector r;
    fill(r, {0, 1, 2, 3, 4, 1});  // a duplicate: remove(object) takes the first
    for (auto [at, n] : {std::pair{1, 0}, {-1, 1}, {6, 1}, {INT_MAX, 1}})
        EXPECT_EQ(-1, r.remove(at, n)) << at << ", " << n;
    EXPECT_EQ(-1, r.remove(objects[40]));
    EXPECT_EQ(0, r.remove(objects[1]));
    EXPECT_EQ(0, r.remove(3, INT_MAX));  // cut to the end
    EXPECT_EQ(0, r.remove(2, 10));
    EXPECT_EQ((Refs{&objects[0], &objects[2]}), contents(r));

    EXPECT_EQ(-1, r.replace(objects[9], 2));  // index == size
    EXPECT_EQ(0, r.replace(objects[9], -1));  // only the upper bound is checked (kept); nothing stored
    EXPECT_EQ(0, r.replace(objects[9], 1));
    EXPECT_EQ((Refs{&objects[0], &objects[9]}), contents(r));
}

TEST(VectorIteration, RemovesWhatItReturnedAndCopiesCollections)
{
    lfcVector v;
    const Refs all = fill(v, {0, 1, 2, 3, 4, 5});
    lfcVectorIterator* it = v.iterator();
    EXPECT_EQ(0, it->remove());  // nothing returned yet: no change
    EXPECT_EQ(all, contents(v));
    for (int k = 0; it->hasNext(); ++k)  // removes every second entry, from the first
        EXPECT_TRUE(it->next() != nullptr && (k % 2 != 0 || it->remove() == 0)) << k;
    EXPECT_EQ(nullptr, it->next());
    delete it;
    const Refs odd = {&objects[1], &objects[3], &objects[5]};
    EXPECT_EQ(odd, contents(v));

    lfcVector w;
    fill(w, {30});
    ASSERT_EQ(0, w.add(v));
    ASSERT_EQ(0, w.add(w));  // itself: appended once
    EXPECT_EQ((Refs{&objects[30], odd[0], odd[1], odd[2], &objects[30], odd[0], odd[1], odd[2]}), contents(w));
}

}  // namespace
