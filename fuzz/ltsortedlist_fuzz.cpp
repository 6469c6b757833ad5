//===- ltsortedlist_fuzz.cpp - Sorted list against a std::set model -------===//
//
// Runs a fuzzed stream of additions, removals (by index and by key), searches, expansions
// and array releases on an ltSortedList, with a std::set as the model: records compared as
// bytes (memcmp order is the lexicographic order of unsigned bytes). After every step the
// list must hold the model's records in order and the capacity its growth rule gives.
//
// Half of the inputs use a derived list whose records own a heap copy of a text: compare on
// a key, copy duplicates the text, destroyElement frees it. The number of live copies must
// equal the count at every step and be zero once the list is gone (the leak checker would
// also see a lost copy).
//
//===----------------------------------------------------------------------===//
#include "ltsortedlist.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <set>
#include <vector>

#include "fuzz_check.h"

namespace {

constexpr int kMaxSteps = 2000;

using Record = std::vector<uint8_t>;

// A record of the owning list: a key and a heap text that the record owns.
struct Owned {
    uint32_t key;
    char* text;
};

int liveCopies = 0;

class OwningList : public ltSortedList {
public:
    explicit OwningList(int capacity, int growBy) : ltSortedList(sizeof(Owned), capacity, 0, growBy) {}
    ~OwningList() override { destroyArray(); }

    int compare(const void* a, const void* b) const override
    {
        const uint32_t x = static_cast<const Owned*>(a)->key;
        const uint32_t y = static_cast<const Owned*>(b)->key;
        return x < y ? -1 : x > y ? 1 : 0;
    }
    void copy(void* to, const void* from) override
    {
        const auto* f = static_cast<const Owned*>(from);
        auto* t = static_cast<Owned*>(to);
        t->key = f->key;
        t->text = strdup(f->text);
        FUZZ_CHECK(t->text != nullptr);
        ++liveCopies;
    }
    void destroyElement(void* record) override
    {
        auto* r = static_cast<Owned*>(record);
        std::free(r->text);
        r->text = nullptr;
        --liveCopies;
    }
};

struct Model {
    int elementSize = 0;
    int capacity = 0;
    int growBy = 0;
    bool owning = false;
    std::set<Record> records;

    int grownTo(int n) const { return capacity + growBy >= n ? capacity + growBy : n; }
};

// The model's record for the bytes the list holds; for the owning list only the key counts.
Record recordAt(const ltSortedList& list, const Model& m, int i)
{
    const auto* p = static_cast<const uint8_t*>(list[i]);
    FUZZ_CHECK(p != nullptr);
    if (m.owning) {
        const auto* o = reinterpret_cast<const Owned*>(p);
        FUZZ_CHECK(o->text != nullptr && std::strtoul(o->text, nullptr, 10) == o->key);
        uint8_t bytes[4];
        for (int b = 0; b < 4; ++b)
            bytes[b] = static_cast<uint8_t>(o->key >> (24 - 8 * b));  // big-endian: sorts as the key
        return Record(bytes, bytes + 4);
    }
    return Record(p, p + m.elementSize);
}

void expectSame(const ltSortedList& list, const Model& m)
{
    FUZZ_CHECK(list.count == static_cast<int>(m.records.size()));
    FUZZ_CHECK(list.capacity == m.capacity);
    int i = 0;
    for (const Record& r : m.records)
        FUZZ_CHECK(recordAt(list, m, i++) == r);
    FUZZ_CHECK(list[list.count] == nullptr);
    FUZZ_CHECK(list[-1] == nullptr);
    if (m.owning)
        FUZZ_CHECK(liveCopies == list.count);
}

// A key in both forms: the model's bytes and what the list is given. For the owning list
// the text buffer lives in 'text'.
struct Key {
    Record model;
    std::vector<uint8_t> raw;
    char text[16];
};

void makeKey(FuzzedDataProvider& in, const Model& m, Key& k)
{
    if (m.owning) {
        const uint32_t key = in.ConsumeIntegralInRange<uint32_t>(0, 200);
        std::snprintf(k.text, sizeof k.text, "%u", key);
        Owned o = {key, k.text};
        k.raw.assign(reinterpret_cast<uint8_t*>(&o), reinterpret_cast<uint8_t*>(&o) + sizeof o);
        for (int b = 0; b < 4; ++b)
            k.model.push_back(static_cast<uint8_t>(key >> (24 - 8 * b)));
        return;
    }
    k.raw = in.ConsumeBytes<uint8_t>(m.elementSize);
    k.raw.resize(m.elementSize, 0);
    k.model = k.raw;
}

void run(ltSortedList& list, Model& m, FuzzedDataProvider& in)
{
    for (int step = 0; step < kMaxSteps && in.remaining_bytes() > 0; ++step) {
        Key k;
        switch (in.ConsumeIntegralInRange<int>(0, 8)) {
        case 0:
        case 1:
        case 2: {
            makeKey(in, m, k);
            const bool fresh = m.records.count(k.model) == 0;
            if (fresh && m.capacity < static_cast<int>(m.records.size()) + 1)
                m.capacity = m.grownTo(static_cast<int>(m.records.size()) + 1);
            FUZZ_CHECK(list.add(k.raw.data()) == 0);
            m.records.insert(k.model);
            break;
        }
        case 3: {
            const int index = in.ConsumeIntegralInRange<int>(-2, static_cast<int>(m.records.size()) + 2);
            if (index >= 0 && index < static_cast<int>(m.records.size()))
                m.records.erase(std::next(m.records.begin(), index));
            list.remove(index);
            break;
        }
        case 4:
            makeKey(in, m, k);
            m.records.erase(k.model);
            list.remove(static_cast<void*>(k.raw.data()));
            break;
        case 5: {
            makeKey(in, m, k);
            bool found = true;
            const int at = list.search(k.raw.data(), &found);
            const auto lower = m.records.lower_bound(k.model);
            FUZZ_CHECK(at == static_cast<int>(std::distance(m.records.begin(), lower)));
            FUZZ_CHECK(found == (lower != m.records.end() && *lower == k.model));
            FUZZ_CHECK(list.search(k.raw.data(), nullptr) == at);
            break;
        }
        case 6: {
            const int n = in.ConsumeIntegralInRange<int>(-1, 64);
            if (m.capacity < n)
                m.capacity = m.grownTo(n);
            FUZZ_CHECK(list.expand(n) == 0);
            break;
        }
        case 7: {
            // Null keys and records change nothing.
            bool found = true;
            FUZZ_CHECK(list.search(nullptr, &found) == 0 && !found);
            FUZZ_CHECK(list.add(nullptr) == 0);
            list.remove(static_cast<void*>(nullptr));
            break;
        }
        case 8:
            if (in.ConsumeIntegralInRange<int>(0, 3) == 0) {
                list.destroyArray();
                FUZZ_CHECK(list.array == nullptr);
                m.records.clear();
                m.capacity = 0;
            }
            break;
        }
        expectSame(list, m);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider in(data, size);
    Model m;
    m.owning = in.ConsumeBool();
    m.elementSize = m.owning ? static_cast<int>(sizeof(Owned)) : in.ConsumeIntegralInRange<int>(1, 12);
    const int capacity = in.ConsumeIntegralInRange<int>(-2, 16);
    m.growBy = in.ConsumeIntegralInRange<int>(-3, 10);
    m.capacity = capacity > 0 ? capacity : 0;

    if (m.owning) {
        {
            OwningList list(capacity, m.growBy);
            expectSame(list, m);
            run(list, m, in);
        }
        FUZZ_CHECK(liveCopies == 0);
        return 0;
    }
    ltSortedList list(m.elementSize, capacity, /*spare=*/0, m.growBy);
    expectSame(list, m);
    run(list, m, in);
    return 0;
}
