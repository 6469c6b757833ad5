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

// The growth-failure test asks for an impossible block; under AddressSanitizer that must give
// a null result as it does in the plain build, not a report.
extern "C" const char* __asan_default_options()
{
    return "allocator_may_return_null=1";
}

namespace {

// The records in list order, read through operator[] until it answers null.
template <typename T>
std::vector<T> recordsOf(const ltSortedList& list)
{
    std::vector<T> out;
    for (int i = 0; list[i] != nullptr; ++i) {
        T v;
        std::memcpy(&v, list[i], sizeof v);
        out.push_back(v);
    }
    return out;
}

TEST(SortedListSearch, ReportsTheMatchOrTheInsertPosition)
{
    ltSortedList list(1, 4, 0, 4);
    bool found = true;
    unsigned char key = 10;
    EXPECT_EQ(0, list.search(&key, &found) + found);
    for (unsigned char v : {30, 10, 20, 10})  // the second 10 is refused, still with 0
        ASSERT_EQ(0, list.add(&v));
    EXPECT_EQ(0, list.add(nullptr));
    ASSERT_EQ((std::vector<unsigned char>{10, 20, 30}), recordsOf<unsigned char>(list));

    for (int k = 5; k <= 35; k += 5) {  // {10, 20, 30} at positions 0, 1, 2
        key = static_cast<unsigned char>(k);
        EXPECT_EQ((k - 5) / 10, list.search(&key, &found)) << "key " << k;
        EXPECT_EQ(k % 10 == 0, found) << "key " << k;
        EXPECT_EQ((k - 5) / 10, list.search(&key, nullptr));  // found may be null
    }
    EXPECT_EQ(nullptr, list[3]);  // operator[](count)
    EXPECT_EQ(nullptr, list[-1]);
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
        for (unsigned char v = 1; v <= 4; ++v)
            ASSERT_EQ(0, list.add(&v));
        EXPECT_EQ(4, list.capacity);
        unsigned char fifth = 5;
        ASSERT_EQ(0, list.add(&fifth));
        EXPECT_EQ(growBy == 8 ? 12 : 5, list.capacity);
        EXPECT_EQ((std::vector<unsigned char>{1, 2, 3, 4, 5}), recordsOf<unsigned char>(list));
    }

    // {request, capacity}: a step of 3 when that is enough, else straight to the request.
    ltSortedList list(4, 2, 0, 3);
    for (auto [request, capacity] : {std::pair{2, 2}, {5, 5}, {6, 8}, {40, 40}}) {
        EXPECT_EQ(0, list.expand(request));
        EXPECT_EQ(capacity, list.capacity);
    }
    const std::vector<unsigned char> zeros(40 * 4, 0);  // every new slot is zeroed
    EXPECT_EQ(0, std::memcmp(list.array, zeros.data(), zeros.size()));
}

TEST(SortedListGrowth, FailedExpandLeavesTheRecords)
{
    constexpr int kRecordSize = 1 << 20;
    ltSortedList list(kRecordSize, 1, 0, 0);
    ASSERT_NE(nullptr, list.array);
    std::vector<unsigned char> record(kRecordSize, 0);
    record[0] = 42;
    ASSERT_EQ(0, list.add(record.data()));

    EXPECT_EQ(-12, list.expand(INT_MAX));  // 2^51 bytes: more than any address space
    EXPECT_EQ(1, list.capacity);
    EXPECT_EQ(42, *static_cast<unsigned char*>(list[0]));

    // add needs room it cannot get: nothing is stored, and the answer is still 0.
    list.growBy = INT_MAX - 1;  // the next step alone is beyond reach
    record[0] = 43;
    EXPECT_EQ(0, list.add(record.data()));
    EXPECT_EQ(1, list.count);
    EXPECT_EQ(1, list.capacity);

    unsigned char bytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    for (int size : {0, -8}) {  // no records at all
        ltSortedList list(size, 4, 0, 4);
        EXPECT_EQ(nullptr, list.array);
        EXPECT_EQ(0, list.add(bytes));
        EXPECT_EQ(0, list.count);
        EXPECT_EQ(-12, list.expand(1));
    }
    ltSortedList odd(8, -3, 0, -100);  // no first block; growth below zero means "to what is asked"
    EXPECT_EQ(0, odd.capacity);
    EXPECT_EQ(0, odd.add(bytes));
    EXPECT_EQ(1, odd.capacity);
    odd.remove(static_cast<void*>(nullptr));
    odd.remove(INT_MIN);
    odd.remove(INT_MAX);
    bool found = true;
    EXPECT_EQ(0, odd.search(nullptr, &found));
    EXPECT_FALSE(found);
    EXPECT_EQ(nullptr, odd[INT_MIN]);
    EXPECT_EQ(nullptr, odd[INT_MAX]);
    EXPECT_EQ(0, odd.expand(INT_MIN));
    EXPECT_EQ(1, odd.count);
    EXPECT_EQ(0, std::memcmp(odd[0], bytes, sizeof bytes));
}

// Records owning a heap copy of their text, keyed by an int; live copies are counted.
struct Named {
    int key;
    char* text;
};

class NamedList : public ltSortedList {
public:
    explicit NamedList(int* live) : ltSortedList(sizeof(Named), 2, 0, 2), live_(live) {}
    ~NamedList() override { destroyArray(); }  // the base destructor cannot reach ours

    int compare(const void* a, const void* b) const override
    {
        const int x = static_cast<const Named*>(a)->key, y = static_cast<const Named*>(b)->key;
        return x < y ? -1 : x > y;
    }
    void destroyElement(void* record) override
    {
        Named* n = static_cast<Named*>(record);
        std::free(n->text);
        n->text = nullptr;
        --*live_;
    }
    void copy(void* to, const void* from) override
    {
        static const Named zero{};
        if (std::memcmp(to, &zero, sizeof zero) != 0)
            dirtySlots += 1;  // copy must get a cleared slot, never stale bytes
        Named* t = static_cast<Named*>(to);
        const Named* f = static_cast<const Named*>(from);
        t->key = f->key;
        t->text = strdup(f->text);
        ++*live_;
    }
    std::string textAt(int i) const { return static_cast<Named*>((*this)[i])->text; }

    int dirtySlots = 0;

private:
    int* live_;
};

TEST(SortedListOwnership, EveryCopyIsReleasedExactlyOnce)
{
    int live = 0;
    {
        NamedList list(&live);
        char words[][8] = {"delta", "alpha", "echo", "bravo", "charlie"};
        for (int i = 0; i < 5; ++i) {
            Named n{(i * 3) % 5, words[i]};  // keys 0, 3, 1, 4, 2
            ASSERT_EQ(0, list.add(&n));
        }
        Named dup{3, words[0]};
        ASSERT_EQ(0, list.add(&dup));  // refused: no copy made
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
