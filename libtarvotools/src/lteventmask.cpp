//===- lteventmask.cpp - Selects the events a handler is offered -----------===//
#include "lteventmask.h"

#include <strings.h>

#include <cstdlib>
#include <cstring>
#include <new>

#include "ltevent.h"
#include "ltresult.h"

using lt_internal::kFailed;
using lt_internal::kOk;

namespace {

constexpr unsigned kKeyOpBits = 0x1F;   // key operators are read in their low five bits
constexpr unsigned kDataOpBits = 0x07;  // data operators in their low three bits
constexpr unsigned kEndsWalkBits = 0x07;  // an operator with these bits 0 ends matches()
constexpr unsigned kCountBits = 0xFFFF;   // the count word's low 16 bits
constexpr uint8_t kNestedShort = 0x10;    // code bytes clone() treats as nested masks
constexpr uint8_t kNestedShortKey1 = 0x11;
constexpr unsigned kSupersetAnyValue = 8;  // isSuperSetOf(): this key operator admits any value

uint32_t keyOf(const ltEvent& e, unsigned field)
{
    switch (field) {
    case 1: return e.key1;
    case 2: return e.key2;
    case 3: return e.key3;
    default: return e.key4;
    }
}

bool keyTermMatches(unsigned op, uint32_t operand, uint32_t value)
{
    switch (op & kKeyOpBits) {
    case ltEventMask::kKeyGreater: return operand > value;
    case ltEventMask::kKeyLess: return operand < value;
    case ltEventMask::kKeyEqual: return operand == value;
    case ltEventMask::kKeyGreaterEqual: return operand >= value;
    case ltEventMask::kKeyLessEqual: return operand <= value;
    case ltEventMask::kKeyAnyBit: return (operand & value) != 0;
    case ltEventMask::kKeyNotEqual: return operand != value;
    default: return false;  // kKeyNever and the unassigned operators
    }
}

bool dataTermMatches(const ltEventMaskTerm& t, const char* data)
{
    const unsigned op = t.op & kDataOpBits;
    if (data == nullptr)
        return op == ltEventMask::kDataBelow;
    if (op == ltEventMask::kDataNever)
        return false;
    const char* operand = t.operand.string != nullptr ? t.operand.string : "";  // null compares as ""
    const bool noCase = (t.op & ltEventMask::kDataNoCase) != 0;
    if (op == ltEventMask::kDataPrefix)
        return (noCase ? strncasecmp(data, operand, t.length) : std::strncmp(data, operand, t.length)) == 0;
    const int c = noCase ? strcasecmp(data, operand) : std::strcmp(data, operand);
    switch (op) {
    case ltEventMask::kDataBelow: return c < 0;
    case ltEventMask::kDataAbove: return c > 0;
    case ltEventMask::kDataEqual: return c == 0;
    case ltEventMask::kDataBelowOrEqual: return c <= 0;
    default: return c >= 0;  // kDataAboveOrEqual
    }
}

bool termMatches(const ltEventMaskTerm& t, const ltEvent& e)
{
    const unsigned field = t.code & ltEventMask::kFieldBits;
    if (field >= ltEventMask::kFieldKey1 && field <= ltEventMask::kFieldKey4)
        return keyTermMatches(t.op, t.operand.value, keyOf(e, field));
    if (field == ltEventMask::kFieldData)
        return dataTermMatches(t, e.data);
    return false;
}

// Whether the other mask's operand b lies within what this mask's key operator allows for a.
bool keyPairCompatible(unsigned op, uint32_t a, uint32_t b)
{
    switch (op) {
    case ltEventMask::kKeyGreater:
    case ltEventMask::kKeyGreaterEqual: return b <= a;
    case ltEventMask::kKeyLess:
    case ltEventMask::kKeyLessEqual: return b >= a;
    case ltEventMask::kKeyNever:
    case ltEventMask::kKeyEqual:
    case ltEventMask::kKeyNotEqual: return b == a;
    case ltEventMask::kKeyAnyBit: return (b & ~a) == 0;
    case kSupersetAnyValue: return true;
    default: return false;
    }
}

}  // namespace

ltEventMask::ltEventMask() : terms(nullptr), termCount(0), evaluateAll(0), extra1(0), extra2(0)
{
}

ltEventMask::ltEventMask(MaskFlags flags, ...)
    : terms(nullptr), termCount(0), evaluateAll(0), extra1(0), extra2(0)
{
    va_list args;
    va_start(args, flags);
    unsigned count = 0;
    if ((flags & kMaskCount) != 0)
        count = va_arg(args, unsigned) & kCountBits;
    if ((flags & kMaskExtra1) != 0)
        extra1 = va_arg(args, uint32_t);
    if ((flags & kMaskExtra2) != 0)
        extra2 = va_arg(args, uint32_t);
    if (flags == kMaskNone) {
        va_list counting;
        va_copy(counting, args);  // parseArgs may consume a va_list it is given
        count = static_cast<unsigned>(parseArgs(counting, kParseCountOnly, 0)) & kCountBits;
        va_end(counting);
    }
    if (count > 0) {
        // Zero-filled: terms a short list leaves unset are code 0, operator 0.
        terms = static_cast<ltEventMaskTerm*>(std::calloc(count, sizeof(ltEventMaskTerm)));
        if (terms != nullptr) {
            termCount = static_cast<uint16_t>(count);
            (void)parseArgs(args, kParseStore, static_cast<int>(count));
        }
    }
    va_end(args);
}

ltEventMask::~ltEventMask()
{
    std::free(terms);  // both the constructor and doCloneFlatFrom allocate with malloc
}

int ltEventMask::parseArgs(va_list args, ParseFlags pf, int max)
{
    const bool countOnly = (pf & kParseCountOnly) != 0;
    uint16_t length = 0;  // of the last string term, carried by the terms after it
    int n = 0;
    for (;;) {
        if (!countOnly && n >= max)
            return n;
        const unsigned code = va_arg(args, unsigned);
        if (code == 0)
            return n;
        ltEventMaskTerm t{};
        t.code = static_cast<uint8_t>(code);
        if (code < kCodeShort)
            t.op = static_cast<uint8_t>(va_arg(args, unsigned));  // long form: operator word
        const unsigned field = code & kFieldBits;                 // long form: the code itself
        if (field >= kFieldKey1 && field <= kFieldKey4) {
            t.operand.value = va_arg(args, uint32_t);
        } else if (field == kFieldData) {
            t.operand.string = va_arg(args, const char*);
            if (!countOnly)
                length = static_cast<uint16_t>(t.operand.string != nullptr ? std::strlen(t.operand.string) : 0);
        }
        t.length = length;
        if (!countOnly)
            terms[n] = t;
        ++n;
    }
}

ltEventMask* ltEventMask::createInstance() const
{
    return new (std::nothrow) ltEventMask();
}

bool ltEventMask::matches(const ltEvent& event) const
{
    if (termCount == 0 || terms == nullptr)
        return true;
    bool result = true;
    for (int i = 0; i < termCount; ++i) {
        const ltEventMaskTerm& t = terms[i];
        // Such a term holds the walk for every remaining step, so evaluation ends here with
        // the result so far; short-form terms (operator 0) end it. Kept: masks rely on it.
        if ((t.op & kEndsWalkBits) == 0)
            return result;
        bool r = termMatches(t, event);
        if ((t.code & kCodeInvert) != 0)
            r = !r;
        result = result && r;
        if (evaluateAll == 0 && (t.code & kCodeGoOn) == 0 && !result)
            return false;
    }
    return result;
}

bool ltEventMask::isSuperSetOf(const ltEventMask& other) const
{
    if (termCount == 0 || terms == nullptr)
        return false;
    bool compatible = false;  // undecided until a pair says otherwise
    for (int i = 0; i < termCount; ++i) {
        const ltEventMaskTerm& t = terms[i];
        for (int j = 0; j < other.termCount && other.terms != nullptr; ++j) {
            const ltEventMaskTerm& o = other.terms[j];
            if (o.code != t.code)
                continue;  // flag bits in the code pair only with identical codes
            if (t.code == 0)
                return compatible;
            if (t.code >= kFieldKey1 && t.code <= kFieldKey4) {
                // Only this mask's operator is read; the other's is not looked at.
                const bool pair = keyPairCompatible(t.op & ~kOpInvertSuperset, t.operand.value, o.operand.value);
                const bool inverted = (t.op & kOpInvertSuperset) != 0;
                if (pair == inverted)
                    return false;
                compatible = true;
            } else if (t.code == kFieldData) {
                const unsigned op = t.op & ~kOpInvertSuperset;
                const char* a = t.operand.string;
                const char* b = o.operand.string;
                if (op == kDataPrefix) {
                    if (a == nullptr || b == nullptr || std::strncmp(a, b, t.length) != 0)
                        return false;
                } else if (op == kDataEqual) {
                    if ((a == nullptr) != (b == nullptr))
                        return false;
                    if (a != nullptr && std::strcmp(a, b) != 0)
                        return false;
                } else {
                    return false;
                }
                compatible = true;
            }
            // Any other code: the pair is ignored.
        }
    }
    return compatible;
}

int ltEventMask::doCloneFlatFrom(const ltEventMask& other)
{
    if (&other == this)
        return kOk;
    std::free(terms);
    terms = nullptr;
    termCount = 0;
    evaluateAll = other.evaluateAll;
    extra1 = other.extra1;
    extra2 = other.extra2;
    if (other.termCount == 0 || other.terms == nullptr)
        return kOk;
    terms = static_cast<ltEventMaskTerm*>(std::malloc(other.termCount * sizeof(ltEventMaskTerm)));
    if (terms == nullptr)
        return kFailed;
    std::memcpy(terms, other.terms, other.termCount * sizeof(ltEventMaskTerm));
    termCount = other.termCount;
    return kOk;
}

ltEventMask* ltEventMask::clone() const
{
    ltEventMask* copy = createInstance();
    if (copy == nullptr)
        return nullptr;
    // A failed flat copy leaves the copy without terms; the walk below runs all the same.
    (void)copy->doCloneFlatFrom(*this);
    // The walk rewrites the SOURCE's terms while the copy keeps the pointers it was given:
    // required behaviour, kept exactly.
    for (int i = 0; i < termCount && terms != nullptr; ++i) {
        ltEventMaskTerm& t = terms[i];
        if (t.code != kNestedShort && t.code != kNestedShortKey1)
            continue;
        if (t.operand.mask != nullptr)
            t.operand.mask = t.operand.mask->clone();
    }
    return copy;
}
