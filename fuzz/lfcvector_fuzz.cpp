//===- lfcvector_fuzz.cpp - Object vector against a std::vector model -----===//
//
// Runs a fuzzed stream of appends, inserts (the index-based growth rule included), removals,
// replacements, look-ups, explicit growth, changes of the growth step, collection appends
// (of another vector or of the vector itself) and iterator walks with removal on an
// lfcVector, with a std::vector of the references it must hold and the capacity its linear
// growth rule gives. After every step the vector must agree, its array must hold every
// entry, and at the end the counted allocation total must be back where it started.
//
//===----------------------------------------------------------------------===//
#include "lfcvector.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

#include "fuzz_check.h"
#include "lfcblock.h"
#include "lfcutil.h"
#include "lfcvectoriterator.h"

namespace {

constexpr int kMaxSteps = 2000;
constexpr int kPoolSize = 16;

lfcObject pool[kPoolSize];

struct Model {
    std::vector<const lfcObject*> entries;
    int capacity = 0;
    bool allocated = false;
    int growBy = 15;

    int size() const { return static_cast<int>(entries.size()); }
    void expandTo(int n)
    {
        if (allocated && capacity >= n)
            return;
        capacity = std::max(n, 2);
        allocated = true;
    }
    void append(const lfcObject* o)
    {
        if (size() >= capacity)
            expandTo(size() + growBy);
        entries.push_back(o);
    }
};

void expectSame(const lfcVector& v, const Model& m)
{
    FUZZ_CHECK(v.getSize() == m.size());
    FUZZ_CHECK(v.capacity == m.capacity);
    FUZZ_CHECK((v.data != nullptr) == m.allocated);
    if (v.data != nullptr) {
        const size_t room = lt_internal::lfcBlockSize(v.data) / sizeof(lfcObject*);
        FUZZ_CHECK(room >= static_cast<size_t>(std::max(m.capacity, m.size())));
    }
    for (int i = 0; i < m.size(); ++i)
        FUZZ_CHECK(v.elementAt(i) == m.entries[i]);
}

const lfcObject& pick(FuzzedDataProvider& in) { return pool[in.ConsumeIntegralInRange<int>(0, kPoolSize - 1)]; }

int indexIn(FuzzedDataProvider& in, const Model& m) { return in.ConsumeIntegralInRange<int>(-3, m.size() + 3); }

void step(lfcVector& v, Model& m, lfcVector& other, Model& otherModel, FuzzedDataProvider& in)
{
    switch (in.ConsumeIntegralInRange<int>(0, 11)) {
    case 0:
    case 1: {
        const lfcObject& o = pick(in);
        FUZZ_CHECK(v.add(o) == 0);
        m.append(&o);
        break;
    }
    case 2:
    case 3: {
        const lfcObject& o = pick(in);
        const int index = indexIn(in, m);
        const int r = v.insert(o, index);
        if (index < -1) {
            FUZZ_CHECK(r == -1);
        } else if (index == -1 || index > m.size()) {
            FUZZ_CHECK(r == 0);
            m.append(&o);
        } else {
            FUZZ_CHECK(r == 0);
            if (m.capacity <= index)  // the index, not the size, decides: kept rule
                m.expandTo(index + m.growBy);
            m.entries.insert(m.entries.begin() + index, &o);
        }
        break;
    }
    case 4: {
        const int index = indexIn(in, m);
        int n = in.ConsumeIntegralInRange<int>(-2, 6);
        bool ok = index >= 0 && index < m.size();
        if (ok && index + n > m.size())
            n = m.size() - index;
        else if (ok && n < 1)
            ok = false;
        FUZZ_CHECK(v.remove(index, n) == (ok ? 0 : -1));
        if (ok)
            m.entries.erase(m.entries.begin() + index, m.entries.begin() + index + n);
        break;
    }
    case 5: {
        const lfcObject& o = pick(in);
        const auto hit = std::find(m.entries.begin(), m.entries.end(), &o);
        FUZZ_CHECK(v.indexOf(o) == (hit == m.entries.end() ? -1 : static_cast<int>(hit - m.entries.begin())));
        FUZZ_CHECK(v.remove(o) == (hit == m.entries.end() ? -1 : 0));
        if (hit != m.entries.end())
            m.entries.erase(hit);
        break;
    }
    case 6: {
        const lfcObject& o = pick(in);
        const int index = indexIn(in, m);
        FUZZ_CHECK(v.replace(o, index) == (index < m.size() ? 0 : -1));
        if (index >= 0 && index < m.size())
            m.entries[index] = &o;
        break;
    }
    case 7: {
        const int n = in.ConsumeIntegralInRange<int>(-2, 80);
        FUZZ_CHECK(v.expandTo(n) == 0);
        m.expandTo(n);
        break;
    }
    case 8:
        m.growBy = v.growBy = in.ConsumeIntegralInRange<int>(-2, 20);
        break;
    case 9: {
        // Append a collection: the other vector, or this vector itself (appended once). Kept
        // small: appending a vector to itself doubles it.
        const bool self = in.ConsumeBool();
        if ((self ? m.size() : otherModel.size()) > 256)
            break;
        const std::vector<const lfcObject*> appended = self ? m.entries : otherModel.entries;
        FUZZ_CHECK(v.add(self ? static_cast<const lfcCollection&>(v) : other) == 0);
        for (const lfcObject* o : appended)
            m.append(o);
        break;
    }
    case 10: {
        const lfcObject& o = pick(in);
        FUZZ_CHECK(other.add(o) == 0);
        otherModel.append(&o);
        break;
    }
    case 11: {
        // An iterator walk that removes some of what it returns.
        std::unique_ptr<lfcVectorIterator> it(v.iterator());
        FUZZ_CHECK(it != nullptr);
        FUZZ_CHECK(it->remove() == 0);  // before any next(): nothing happens
        int position = 0;
        while (it->hasNext() && in.remaining_bytes() > 0) {
            FUZZ_CHECK(position < m.size());
            FUZZ_CHECK(it->next() == m.entries[position]);
            ++position;
            if (in.ConsumeBool()) {
                FUZZ_CHECK(it->remove() == 0);
                m.entries.erase(m.entries.begin() + position - 1);
                --position;
            }
        }
        if (!it->hasNext())
            FUZZ_CHECK(it->next() == nullptr);
        break;
    }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider in(data, size);
    const int32_t base = lfcUtilMallocUsed;
    {
        Model m;
        std::unique_ptr<lfcVector> v;
        if (in.ConsumeBool()) {
            v.reset(new lfcVector());
        } else {
            const int initial = in.ConsumeIntegralInRange<int>(-2, 40);
            const int grow = in.ConsumeIntegralInRange<int>(-2, 20);
            v.reset(new lfcVector(initial, grow));
            m.growBy = std::max(grow, 2);
            m.expandTo(initial);
        }
        lfcVector other;
        Model otherModel;
        expectSame(*v, m);
        for (int i = 0; i < kMaxSteps && in.remaining_bytes() > 0; ++i) {
            step(*v, m, other, otherModel, in);
            expectSame(*v, m);
            expectSame(other, otherModel);
        }
    }
    FUZZ_CHECK(lfcUtilMallocUsed == base);
    return 0;
}
