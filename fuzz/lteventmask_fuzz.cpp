//===- lteventmask_fuzz.cpp - Event masks from fuzzed terms against events ===//
//
// Builds masks two ways, through the argument-list constructor (up to three terms of every
// form, with either flag set) and by filling the term array directly (any code, operator
// and length, evaluate-all on or off), and matches them against fuzzed events. matches()
// and isSuperSetOf() must give what a plain reading of their rules gives (the model
// below); the constructor must store the terms it was given; clone() and doCloneFlatFrom()
// must give masks that match alike, and clone() must rewrite the source's nested-mask terms.
//
//===----------------------------------------------------------------------===//
#include "lteventmask.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <strings.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "fuzz_check.h"
#include "ltevent.h"

namespace {

constexpr int kMaxArgTerms = 3;
constexpr int kMaxFilledTerms = 8;

// -- the rules, read plainly ------------------------------------------------------------

bool modelKey(unsigned op, uint32_t a, uint32_t v)
{
    switch (op & 0x1F) {
    case 1: return a > v;
    case 2: return a < v;
    case 4: return a == v;
    case 5: return a >= v;
    case 6: return a <= v;
    case 7: return (a & v) != 0;
    case 9: return a != v;
    default: return false;
    }
}

bool modelData(const ltEventMaskTerm& t, const char* data)
{
    const unsigned op = t.op & 7;
    if (data == nullptr)
        return op == 1;
    const char* s = t.operand.string != nullptr ? t.operand.string : "";
    const bool noCase = (t.op & 8) != 0;
    const int c = noCase ? strcasecmp(data, s) : std::strcmp(data, s);
    switch (op) {
    case 1: return c < 0;
    case 2: return c > 0;
    case 3: return (noCase ? strncasecmp(data, s, t.length) : std::strncmp(data, s, t.length)) == 0;
    case 4: return c == 0;
    case 5: return c <= 0;
    case 6: return c >= 0;
    default: return false;
    }
}

bool modelMatches(const ltEventMask& m, const ltEvent& e)
{
    if (m.termCount == 0 || m.terms == nullptr)
        return true;
    const uint32_t keys[5] = {0, e.key1, e.key2, e.key3, e.key4};
    bool result = true;
    for (int i = 0; i < m.termCount; ++i) {
        const ltEventMaskTerm& t = m.terms[i];
        if ((t.op & 7) == 0)
            return result;
        const unsigned field = t.code & 0x0F;
        bool r = false;
        if (field >= 1 && field <= 4)
            r = modelKey(t.op, t.operand.value, keys[field]);
        else if (field == 5)
            r = modelData(t, e.data);
        if ((t.code & 0x20) != 0)
            r = !r;
        result = result && r;
        if (m.evaluateAll == 0 && (t.code & 0x40) == 0 && !result)
            return false;
    }
    return result;
}

int modelSuperset(const ltEventMask& self, const ltEventMask& other)
{
    if (self.termCount == 0 || self.terms == nullptr)
        return false;
    bool compatible = false;
    for (int i = 0; i < self.termCount; ++i) {
        const ltEventMaskTerm& t = self.terms[i];
        for (int j = 0; j < other.termCount && other.terms != nullptr; ++j) {
            const ltEventMaskTerm& o = other.terms[j];
            if (o.code != t.code)
                continue;
            const unsigned op = t.op & ~0x20u;
            if (t.code == 0)
                return compatible;
            if (t.code >= 1 && t.code <= 4) {
                const uint32_t a = t.operand.value, b = o.operand.value;
                bool pair = false;
                switch (op) {
                case 1: case 5: pair = b <= a; break;
                case 2: case 6: pair = b >= a; break;
                case 3: case 4: case 9: pair = b == a; break;
                case 7: pair = (b & ~a) == 0; break;
                case 8: pair = true; break;
                default: pair = false; break;
                }
                if ((t.op & 0x20) == 0) {
                    if (!pair)
                        return false;
                    compatible = true;
                } else {
                    if (pair)
                        return false;
                    compatible = true;
                }
            } else if (t.code == 5) {
                const char* a = t.operand.string;
                const char* b = o.operand.string;
                if (op == 3) {
                    if (a == nullptr || b == nullptr || std::strncmp(a, b, t.length) != 0)
                        return false;
                    compatible = true;
                } else if (op == 4) {
                    if ((a == nullptr) != (b == nullptr))
                        return false;
                    if (a != nullptr && std::strcmp(a, b) != 0)
                        return false;
                    compatible = true;
                } else {
                    return false;
                }
            }
        }
    }
    return compatible;
}

// -- building masks -------------------------------------------------------------------------

struct Strings {
    std::vector<std::string> pool;
    const char* pick(FuzzedDataProvider& in) const
    {
        const size_t i = in.ConsumeIntegralInRange<size_t>(0, pool.size());
        return i == pool.size() ? nullptr : pool[i].c_str();
    }
};

struct ArgTerm {
    unsigned code;
    unsigned op;
    uint32_t value;
    const char* string;
};

bool isLong(unsigned code) { return code < ltEventMask::kCodeShort; }
unsigned fieldOf(unsigned code) { return code & ltEventMask::kFieldBits; }
bool isKey(unsigned code) { return fieldOf(code) >= 1 && fieldOf(code) <= 4; }
bool isData(unsigned code) { return fieldOf(code) == ltEventMask::kFieldData; }

// Passes the terms as the argument list wants them: code, operator for the long form, then
// a value word for a key field, a string for the data field, nothing for other fields.
template <int N, typename... Args>
ltEventMask* construct(ltEventMask::MaskFlags flags, const ArgTerm* t, int left, Args... words)
{
    if constexpr (N == kMaxArgTerms) {
        return new ltEventMask(flags, words..., 0u);
    } else {
        if (left == 0)
            return new ltEventMask(flags, words..., 0u);
        if (isLong(t->code)) {
            if (isKey(t->code))
                return construct<N + 1>(flags, t + 1, left - 1, words..., t->code, t->op, t->value);
            if (isData(t->code))
                return construct<N + 1>(flags, t + 1, left - 1, words..., t->code, t->op, t->string);
            return construct<N + 1>(flags, t + 1, left - 1, words..., t->code, t->op);
        }
        if (isKey(t->code))
            return construct<N + 1>(flags, t + 1, left - 1, words..., t->code, t->value);
        if (isData(t->code))
            return construct<N + 1>(flags, t + 1, left - 1, words..., t->code, t->string);
        return construct<N + 1>(flags, t + 1, left - 1, words..., t->code);
    }
}

ltEventMask* fromArguments(FuzzedDataProvider& in, const Strings& strings)
{
    const int n = in.ConsumeIntegralInRange<int>(0, kMaxArgTerms);
    ArgTerm terms[kMaxArgTerms] = {};
    for (int i = 0; i < n; ++i) {
        ArgTerm& t = terms[i];
        t.code = in.ConsumeIntegralInRange<unsigned>(1, 0x7F);
        t.op = in.ConsumeIntegralInRange<unsigned>(0, 0xFF);
        t.value = in.ConsumeIntegral<uint32_t>();
        t.string = strings.pick(in);
    }
    const bool counted = in.ConsumeBool();
    const unsigned count = counted ? in.ConsumeIntegralInRange<unsigned>(0, n + 2) : static_cast<unsigned>(n);
    const uint32_t extra1 = in.ConsumeIntegral<uint32_t>(), extra2 = in.ConsumeIntegral<uint32_t>();
    ltEventMask* m = counted
        ? construct<0>(ltEventMask::kMaskCount | ltEventMask::kMaskExtra1 | ltEventMask::kMaskExtra2, terms, n,
                       count, extra1, extra2)
        : construct<0>(ltEventMask::kMaskNone, terms, n);
    FUZZ_CHECK(m != nullptr);

    // What was stored: the terms given, then zero terms up to the count.
    FUZZ_CHECK(m->termCount == count);
    FUZZ_CHECK(m->extra1 == (counted ? extra1 : 0u) && m->extra2 == (counted ? extra2 : 0u));
    FUZZ_CHECK(m->evaluateAll == 0);
    uint16_t length = 0;
    for (unsigned i = 0; i < count; ++i) {
        const ltEventMaskTerm& s = m->terms[i];
        if (i >= static_cast<unsigned>(n)) {
            FUZZ_CHECK(s.code == 0 && s.op == 0 && s.length == 0);
            continue;
        }
        const ArgTerm& t = terms[i];
        FUZZ_CHECK(s.code == t.code);
        FUZZ_CHECK(s.op == (isLong(t.code) ? t.op : 0u));
        if (isKey(t.code))
            FUZZ_CHECK(s.operand.value == t.value);
        if (isData(t.code)) {
            FUZZ_CHECK(s.operand.string == t.string);
            length = static_cast<uint16_t>(t.string != nullptr ? std::strlen(t.string) : 0);
        }
        FUZZ_CHECK(s.length == length);
    }
    // Terms of code 0x10 and 0x11 carry no mask from the argument list: set them to none
    // before clone() reads them.
    for (unsigned i = 0; i < count; ++i) {
        if (m->terms[i].code == 0x10 || m->terms[i].code == 0x11)
            m->terms[i].operand.mask = nullptr;
    }
    return m;
}

ltEventMask* filledDirectly(FuzzedDataProvider& in, const Strings& strings, std::vector<ltEventMask*>& nested, bool allowNested)
{
    auto* m = new ltEventMask();
    const int n = in.ConsumeIntegralInRange<int>(0, kMaxFilledTerms);
    if (n > 0) {
        m->terms = static_cast<ltEventMaskTerm*>(std::calloc(n, sizeof(ltEventMaskTerm)));
        FUZZ_CHECK(m->terms != nullptr);
        m->termCount = static_cast<uint16_t>(n);
    }
    m->evaluateAll = in.ConsumeBool() ? 1 : 0;
    for (int i = 0; i < n; ++i) {
        ltEventMaskTerm& t = m->terms[i];
        t.code = in.ConsumeIntegral<uint8_t>();
        t.op = in.ConsumeIntegral<uint8_t>();
        t.length = in.ConsumeIntegralInRange<uint16_t>(0, 20);
        if (isData(t.code)) {
            t.operand.string = strings.pick(in);
        } else if (t.code == 0x10 || t.code == 0x11) {
            if (allowNested && in.ConsumeBool()) {
                nested.push_back(filledDirectly(in, strings, nested, false));
                t.operand.mask = nested.back();
            } else {
                t.operand.mask = nullptr;
            }
        } else {
            t.operand.value = in.ConsumeIntegral<uint32_t>();
        }
    }
    return m;
}

// -- clones ---------------------------------------------------------------------------------

void checkClone(ltEventMask& source, const std::vector<ltEvent*>& events)
{
    std::vector<ltEventMaskTerm> before(source.terms, source.terms + (source.terms ? source.termCount : 0));
    std::unique_ptr<ltEventMask> copy(source.clone());
    FUZZ_CHECK(copy != nullptr);
    FUZZ_CHECK(copy->termCount == source.termCount && copy->evaluateAll == source.evaluateAll);
    FUZZ_CHECK(copy->extra1 == source.extra1 && copy->extra2 == source.extra2);
    for (size_t i = 0; i < before.size(); ++i) {
        // The copy keeps every term as it was; the source's nested masks were replaced by
        // fresh clones, which the caller now owns.
        FUZZ_CHECK(std::memcmp(&copy->terms[i], &before[i], sizeof before[i]) == 0);
        ltEventMaskTerm& s = source.terms[i];
        if ((s.code == 0x10 || s.code == 0x11) && before[i].operand.mask != nullptr) {
            FUZZ_CHECK(s.operand.mask != before[i].operand.mask);
            FUZZ_CHECK(s.operand.mask->termCount == before[i].operand.mask->termCount);
            delete s.operand.mask;
            s.operand.mask = before[i].operand.mask;
        }
    }
    ltEventMask flat;
    FUZZ_CHECK(flat.doCloneFlatFrom(source) == 0);
    for (const ltEvent* e : events) {
        FUZZ_CHECK(copy->matches(*e) == source.matches(*e));
        FUZZ_CHECK(flat.matches(*e) == source.matches(*e));
    }
    std::unique_ptr<ltEventMask> empty(source.createInstance());
    FUZZ_CHECK(empty != nullptr && empty->termCount == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider in(data, size);
    Strings strings;
    const int nStrings = in.ConsumeIntegralInRange<int>(0, 4);
    for (int i = 0; i < nStrings; ++i)
        strings.pool.push_back(in.ConsumeRandomLengthString(12));

    std::vector<ltEventMask*> nested;  // owned here; clone() only reads them
    std::vector<std::unique_ptr<ltEventMask>> masks;
    const int nMasks = in.ConsumeIntegralInRange<int>(1, 4);
    for (int i = 0; i < nMasks; ++i)
        masks.emplace_back(in.ConsumeBool() ? fromArguments(in, strings) : filledDirectly(in, strings, nested, true));

    std::vector<ltEvent*> events;
    const int nEvents = in.ConsumeIntegralInRange<int>(1, 6);
    for (int i = 0; i < nEvents; ++i) {
        const uint32_t k1 = in.ConsumeIntegral<uint32_t>(), k2 = in.ConsumeIntegral<uint32_t>();
        const uint32_t k3 = in.ConsumeIntegral<uint32_t>(), k4 = in.ConsumeIntegral<uint32_t>();
        const char* text = strings.pick(in);
        if (text != nullptr && in.ConsumeBool())  // owned data, freed by the event
            events.push_back(new ltEvent(k1, k2, k3, k4, strdup(text), 0));
        else
            events.push_back(new ltEvent(k1, k2, k3, k4, text, ltEvent::kDataNotOwned));
    }

    for (const auto& m : masks) {
        for (const ltEvent* e : events)
            FUZZ_CHECK(m->matches(*e) == modelMatches(*m, *e));
        for (const auto& other : masks)
            FUZZ_CHECK(m->isSuperSetOf(*other) == static_cast<bool>(modelSuperset(*m, *other)));
        checkClone(*m, events);
    }

    for (ltEvent* e : events)
        delete e;
    masks.clear();
    for (ltEventMask* m : nested)
        delete m;
    return 0;
}
