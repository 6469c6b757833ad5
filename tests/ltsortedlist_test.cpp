//===- ltsortedlist_test.cpp - Search positions, growth, owning records ---===//
#include "ltsortedlist.h"

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

// The records in list order.
template <typename T>
std::vector<T> recordsOf(const ltSortedList& list)
{
    const T* first = reinterpret_cast<const T*>(list.array);
    return std::vector<T>(first, first + list.count);
}

TEST(SortedListSearch, ReportsTheMatchOrTheInsertPosition)
{
    ltSortedList list(1, 4, 0, 4);
    bool found = true;
    unsigned char key = 10;
    EXPECT_TRUE(list.search(&key, &found) == 0 && !found);
    for (unsigned char v : {30, 10, 20, 10})  // the second 10 is refused, still with 0
        ASSERT_EQ(0, list.add(&v));
    EXPECT_EQ(0, list.add(nullptr));
    ASSERT_EQ((std::vector<unsigned char>{10, 20, 30}), recordsOf<unsigned char>(list));

    for (key = 5; key <= 35; key += 5) {  // {10, 20, 30} at positions 0, 1, 2
        EXPECT_EQ((key - 5) / 10, list.search(&key, &found)) << "key " << +key;
        EXPECT_EQ(key % 10 == 0, found) << "key " << +key;
        EXPECT_EQ((key - 5) / 10, list.search(&key, nullptr));  // found may be null
    }
    EXPECT_TRUE(list[3] == nullptr && list[-1] == nullptr);  // at count and below 0
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    ltSortedList words(sizeof(uint16_t), 2, 0, 2);  // the default compare orders bytes, not values
    for (uint16_t v : {0x0001, 0x0100})
        ASSERT_EQ(0, words.add(&v));
    EXPECT_EQ((std::vector<uint16_t>{0x0100, 0x0001}), recordsOf<uint16_t>(words));
#endif
}

TEST(SortedListGrowth, GrowsByTheStepOrToWhatIsNeeded)
{
    for (int growBy : {8, 0}) {
        SCOPED_TRACE("growBy " + std::to_string(growBy));
        ltSortedList list(1, 4, 0, growBy);
        for (unsigned char v = 1; v <= 5; ++v) {
            ASSERT_EQ(0, list.add(&v));
            EXPECT_EQ(v < 5 ? 4 : growBy == 8 ? 12 : 5, list.capacity);
        }
        EXPECT_EQ((std::vector<unsigned char>{1, 2, 3, 4, 5}), recordsOf<unsigned char>(list));
    }

    // {request, capacity}: a step of 3 when that is enough, else straight to the request.
    ltSortedList list(4, 2, 0, 3);
    for (auto [request, capacity] : {std::pair{2, 2}, {5, 5}, {6, 8}, {40, 40}})
        EXPECT_TRUE(list.expand(request) == 0 && list.capacity == capacity) << request;
    const std::vector<unsigned char> zeros(40 * 4, 0);  // every new slot is zeroed
    EXPECT_EQ(0, std::memcmp(list.array, zeros.data(), zeros.size()));
}

TEST(SortedListGrowth, NonsenseSizesLeaveAnEmptyListThatStillWorks)
{
    unsigned char bytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    for (int size : {0, -8}) {  // no records at all
        ltSortedList list(size, 4, 0, 4);
        EXPECT_TRUE(list.array == nullptr && list.add(bytes) == 0 && list.count == 0 && list.expand(1) == -12) << size;
    }
    ltSortedList odd(8, -3, 0, -100);  // no first block; growth below zero means "to what is asked"
    EXPECT_EQ(0, odd.capacity);
    EXPECT_TRUE(odd.add(bytes) == 0 && odd.capacity == 1);
    odd.remove(static_cast<void*>(nullptr)), odd.remove(INT_MIN), odd.remove(INT_MAX);
    bool found = true;
    EXPECT_TRUE(odd.search(nullptr, &found) == 0 && !found);
    EXPECT_TRUE(odd[INT_MIN] == nullptr && odd[INT_MAX] == nullptr);
    EXPECT_TRUE(odd.expand(INT_MIN) == 0 && odd.count == 1);
    EXPECT_EQ(0, std::memcmp(odd[0], bytes, sizeof bytes));
}

// Records owning a heap copy of their text, keyed by an int; `live` counts the copies.
struct Named { int key; char* text; };
int live = 0;

struct NamedList : ltSortedList {
    NamedList() : ltSortedList(sizeof(Named), 2, 0, 2) {}
    ~NamedList() override { destroyArray(); }  // the base destructor cannot reach ours

    int compare(const void* a, const void* b) const override { return static_cast<const Named*>(a)->key - static_cast<const Named*>(b)->key; }
    void destroyElement(void* record) override { std::free(static_cast<Named*>(record)->text), --live; }
    void copy(void* to, const void* from) override
    {
        static const Named zero{};
        dirtySlots += std::memcmp(to, &zero, sizeof zero) != 0;  // must get a cleared slot
        const Named* f = static_cast<const Named*>(from);
        *static_cast<Named*>(to) = {f->key, strdup(f->text)};
        ++live;
    }
    std::string textAt(int i) const { return static_cast<Named*>((*this)[i])->text; }

    int dirtySlots = 0;
};

TEST(SortedListOwnership, EveryCopyIsReleasedExactlyOnce)
{
    {
        NamedList list;
        char words[][8] = {"delta", "alpha", "echo", "bravo", "charlie"};
        for (int i = 0; i < 6; ++i) {
            Named n{(i * 3) % 5, words[i % 5]};  // keys 0, 3, 1, 4, 2, then 0 refused: no copy made
            ASSERT_EQ(0, list.add(&n));
        }
        EXPECT_EQ(5, live);
        EXPECT_EQ("alpha", list.textAt(3));

        Named key{1, nullptr};
        list.remove(static_cast<void*>(&key));  // "echo"
        list.remove(0);                         // "delta"
        EXPECT_EQ(3, live);
        EXPECT_EQ("charlie", list.textAt(0));

        // Vacated slots are reused; each is cleared before the copy.
        for (Named n : {Named{0, words[2]}, Named{9, words[1]}})
            ASSERT_EQ(0, list.add(&n));
        EXPECT_EQ(0, list.dirtySlots);

        list.destroyArray();
        EXPECT_EQ(0, live);
        Named last{9, words[1]};
        ASSERT_EQ(0, list.add(&last));  // usable again after destroyArray
    }
    EXPECT_EQ(0, live);  // the derived destructor released the last record
}

}  // namespace
