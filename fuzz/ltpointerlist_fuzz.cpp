//===- ltpointerlist_fuzz.cpp - Pointer list against a multiset model -----===//
//
// Runs a fuzzed stream of additions, removals (by pointer and by index), look-ups, tidy-ups
// and clears on an ltPointerList, keeping a std::multiset of the pointers it must hold and
// the form it must be in (single, triple, array of 14 doubling). After every step the slots
// must hold exactly the model's pointers and the capacity and count must be the model's.
// A shrinking tidy-up drops the pointers lying at or past the count and leaves the count as
// it was; the model follows that rule.
//
//===----------------------------------------------------------------------===//
#include "ltpointerlist.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <set>
#include <vector>

#include "fuzz_check.h"

namespace {

constexpr int kMaxSteps = 3000;
constexpr int kPoolSize = 48;
constexpr int kMaxCapacity = 65535;

alignas(8) uint64_t pool[kPoolSize];

enum class Form { kSingle, kTriple, kArray };

struct Model {
    Form form = Form::kSingle;
    int capacity = 1;
    int count = 0;  // the array's count field; it may exceed the pointers held (see above)
    std::multiset<void*> held;

    int entries() const { return form == Form::kArray ? count : static_cast<int>(held.size()); }
};

std::multiset<void*> slotsOf(const ltPointerList& list)
{
    std::multiset<void*> s;
    for (int i = 0; i < list.getCurrentMaxEntries(); ++i) {
        if (void* p = list.getPointer(i))
            s.insert(p);
    }
    return s;
}

void expectSame(const ltPointerList& list, const Model& m)
{
    FUZZ_CHECK(list.getCurrentMaxEntries() == m.capacity);
    FUZZ_CHECK(list.getNEntries() == m.entries());
    FUZZ_CHECK(slotsOf(list) == m.held);
    FUZZ_CHECK(list.getPointer(-1) == nullptr);
    FUZZ_CHECK(list.getPointer(m.capacity) == nullptr);
}

void* pick(FuzzedDataProvider& in)
{
    return &pool[in.ConsumeIntegralInRange<int>(0, kPoolSize - 1)];
}

// An array whose count is 0 (null removals count down too) gives nothing back.
bool emptyArray(const Model& m) { return m.form == Form::kArray && m.count == 0; }

void add(ltPointerList& list, Model& m, void* p)
{
    const int r = list.addPointer(p);
    switch (m.form) {
    case Form::kSingle:
        if (!m.held.empty()) {
            m.form = Form::kTriple;
            m.capacity = 3;
        }
        break;
    case Form::kTriple:
        if (m.held.size() == 3) {
            m.form = Form::kArray;
            m.capacity = 14;
            m.count = 3;
        }
        break;
    case Form::kArray:
        // Full by its count, or by its slots when null removals counted it down.
        if (m.count == m.capacity || static_cast<int>(m.held.size()) == m.capacity) {
            if (2 * m.capacity > kMaxCapacity) {
                FUZZ_CHECK(r == -12);
                return;
            }
            m.capacity *= 2;
        }
        break;
    }
    FUZZ_CHECK(r == 0);
    m.held.insert(p);
    m.count += 1;
}

void removeAt(ltPointerList& list, Model& m, int i)
{
    void* at = list.getPointer(i);
    bool removable = at != nullptr && !emptyArray(m);
    if (m.form == Form::kTriple && i != 0)
        removable = false;  // only index 0 comes out of a triple by index
    FUZZ_CHECK(list.removePointer(i) == (removable ? 0 : -1));
    if (!removable)
        return;
    m.held.erase(m.held.find(at));
    m.count -= 1;
}

void removeOne(ltPointerList& list, Model& m, void* p)
{
    const auto hit = emptyArray(m) ? m.held.end() : m.held.find(p);
    FUZZ_CHECK(list.removePointer(p) == (hit != m.held.end() ? 0 : -1));
    if (hit == m.held.end())
        return;
    m.held.erase(hit);
    m.count -= 1;
}

// Null is looked for like any other pointer: it "removes" a free slot, and an array counts
// one pointer less for it.
void removeNull(ltPointerList& list, Model& m)
{
    const bool freeSlot = static_cast<int>(m.held.size()) < m.capacity;
    const bool removable = freeSlot && !emptyArray(m);
    FUZZ_CHECK(list.removePointer(static_cast<void*>(nullptr)) == (removable ? 0 : -1));
    if (removable && m.form == Form::kArray)
        m.count -= 1;
}

void tidy(ltPointerList& list, Model& m, bool shrink)
{
    std::vector<void*> before;
    for (int i = 0; i < m.capacity; ++i)
        before.push_back(list.getPointer(i));
    if (m.form == Form::kSingle) {
        FUZZ_CHECK(list.tidyUp(shrink) == (m.held.empty() ? -1 : 0));
        return;
    }
    FUZZ_CHECK(list.tidyUp(shrink) == 0);
    // The slots compacted: the first n (all of a triple, count of an array) keep their order.
    const int n = m.form == Form::kTriple ? 3 : m.count;
    if (m.form == Form::kArray && (m.count == 0 || m.count == m.capacity))
        return;
    std::vector<void*> front;
    for (int i = 0; i < n; ++i) {
        if (before[i] != nullptr)
            front.push_back(before[i]);
    }
    for (size_t i = 0; i < front.size(); ++i)
        FUZZ_CHECK(list.getPointer(static_cast<int>(i)) == front[i]);
    for (int i = static_cast<int>(front.size()); i < n; ++i)
        FUZZ_CHECK(list.getPointer(i) == nullptr);
    if (m.form != Form::kArray || !shrink)
        return;
    for (int i = n; i < m.capacity; ++i) {
        if (before[i] != nullptr)
            m.held.erase(m.held.find(before[i]));  // cut off, and still counted
    }
    m.capacity = m.count;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider in(data, size);
    Model m;
    int n = 0;
    switch (in.ConsumeIntegralInRange<int>(0, 3)) {
    case 0:
        break;  // default constructor
    case 1:
        n = in.ConsumeIntegralInRange<int>(-3, 40);
        break;
    case 2:
        n = in.ConsumeIntegralInRange<int>(kMaxCapacity - 2, kMaxCapacity + 2);
        break;
    default:
        n = in.ConsumeIntegral<int>();
        break;
    }
    ltPointerList list(n);
    if (n >= 2 && n <= 3) {
        m.form = Form::kTriple;
        m.capacity = 3;
    } else if (n >= 4 && n <= kMaxCapacity) {
        m.form = Form::kArray;
        m.capacity = n;
    }
    expectSame(list, m);

    for (int step = 0; step < kMaxSteps && in.remaining_bytes() > 0; ++step) {
        switch (in.ConsumeIntegralInRange<int>(0, 9)) {
        case 0:
        case 1:
        case 2:
            add(list, m, pick(in));
            break;
        case 3: {
            // Null and misaligned pointers are refused and change nothing; removing null
            // follows the search.
            void* bad = in.ConsumeBool() ? nullptr : reinterpret_cast<char*>(pick(in)) + in.ConsumeIntegralInRange<int>(1, 3);
            FUZZ_CHECK(list.addPointer(bad) == -1);
            if (bad == nullptr)
                removeNull(list, m);
            else
                FUZZ_CHECK(list.removePointer(bad) == -1);
            break;
        }
        case 4:
            removeOne(list, m, pick(in));
            break;
        case 5:
            removeAt(list, m, in.ConsumeIntegralInRange<int>(-2, m.capacity + 2));
            break;
        case 6: {
            void* p = pick(in);
            FUZZ_CHECK(list.hasPointer(p) == (!emptyArray(m) && m.held.count(p) != 0));
            break;
        }
        case 7:
        case 8:
            tidy(list, m, in.ConsumeBool());
            break;
        case 9:
            if (in.ConsumeIntegralInRange<int>(0, 3) == 0) {
                list.clearList();
                m = Model();
            }
            break;
        }
        expectSame(list, m);
    }
    return 0;
}
