//===- ltidtable_fuzz.cpp - Id table against a model of its slots ---------===//
//
// Builds an ltIdTable of fuzzed geometry and runs a fuzzed stream of puts and removals on it,
// with a std::map from slot index to record as the model. After every step the table must
// agree with the model: count, capacity (doubling up to 1 << maxBits), every live record in
// its slot, and each result code.
//
//===----------------------------------------------------------------------===//
#include "ltidtable.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <vector>

#include "fuzz_check.h"

namespace {

using Record = std::vector<uint8_t>;

constexpr int kMaxSteps = 2000;

struct Model {
    int entrySize;
    int maxBits;
    bool freeIsZero;
    uint32_t capacity;
    std::map<uint32_t, Record> live;  // slot index -> record
    std::vector<int> ids;             // every id handed out, stale ones included

    uint32_t keyMask() const
    {
        return entrySize >= 0 && entrySize <= 3 ? ltIdTable::entryMaskes_[entrySize] : 0xFFFFFFFFu;
    }
    uint32_t freePattern() const { return freeIsZero ? 0u : keyMask(); }
    uint32_t keyOf(const Record& r) const
    {
        uint32_t word = 0;
        std::memcpy(&word, r.data(), r.size() < 4 ? r.size() : 4);
        return word & keyMask();
    }
};

void expectSame(const ltIdTable& t, const Model& m)
{
    FUZZ_CHECK(t.capacity == m.capacity);
    FUZZ_CHECK(t.count == m.live.size());
    for (const auto& [index, record] : m.live)
        FUZZ_CHECK(std::memcmp(t.slots + index * m.entrySize, record.data(), record.size()) == 0);
}

void put(ltIdTable& t, Model& m, FuzzedDataProvider& in)
{
    Record record = in.ConsumeBytes<uint8_t>(m.entrySize);
    record.resize(m.entrySize, 0xA5);
    const bool refused = m.keyOf(record) == m.freePattern() ||
                         (m.live.size() == m.capacity - 1 && m.capacity == (1u << m.maxBits));
    const int id = t.putMember(record.data());
    if (refused) {
        FUZZ_CHECK(id == 0);
        return;
    }
    FUZZ_CHECK(id != 0);
    if (m.live.size() == m.capacity - 1)
        m.capacity *= 2;
    const uint32_t index = static_cast<uint32_t>(id) & (m.capacity - 1);
    FUZZ_CHECK(index != 0);
    FUZZ_CHECK(m.live.count(index) == 0);  // never a slot in use
    // Between the slot index and the generation the id is all zero bits.
    FUZZ_CHECK((static_cast<uint32_t>(id) & ((1u << m.maxBits) - 1)) == index);
    m.live[index] = record;
    m.ids.push_back(id);
}

void remove(ltIdTable& t, Model& m, FuzzedDataProvider& in)
{
    int id;
    if (!m.ids.empty() && in.ConsumeBool())
        id = m.ids[in.ConsumeIntegralInRange<size_t>(0, m.ids.size() - 1)];
    else
        id = in.ConsumeIntegral<int>();
    const uint32_t index = static_cast<uint32_t>(id) & (m.capacity - 1);
    int expected = 0;
    if (m.live.empty())
        expected = -1;
    else if (index == 0)
        expected = -2;
    else if (m.live.count(index) == 0)
        expected = -3;
    FUZZ_CHECK(t.removeMember(id) == expected);
    if (expected == 0)
        m.live.erase(index);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider in(data, size);
    Model m;
    m.entrySize = in.ConsumeIntegralInRange<int>(0, 24);
    m.maxBits = in.ConsumeIntegralInRange<int>(0, 15);
    const int initialBits = in.ConsumeIntegralInRange<int>(0, m.maxBits);
    m.freeIsZero = in.ConsumeBool();
    m.capacity = 1u << initialBits;

    ltIdTable t(m.entrySize, initialBits, m.maxBits, m.freeIsZero);
    if (m.entrySize == 0) {
        // A record of no bytes cannot be told from a free slot: every put is refused.
        uint8_t byte = 1;
        FUZZ_CHECK(t.putMember(&byte) == 0);
        return 0;
    }
    FUZZ_CHECK(t.slots != nullptr);
    FUZZ_CHECK(t.putMember(nullptr) == 0);
    for (int step = 0; step < kMaxSteps && in.remaining_bytes() > 0; ++step) {
        if (in.ConsumeIntegralInRange<int>(0, 2) != 0)
            put(t, m, in);
        else
            remove(t, m, in);
        expectSame(t, m);
    }
    return 0;
}
