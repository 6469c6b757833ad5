//===- lteventmask_test.cpp - Events, masks from argument lists, handlers -===//
#include "lteventmask.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "ltcallbackeventhandler.h"
#include "ltevent.h"

namespace {

using M = ltEventMask;

ltEvent keys(unsigned k1, unsigned k2 = 0, const char* data = nullptr) { return ltEvent(k1, k2, 0, 0, data, ltEvent::kDataNotOwned); }

TEST(EventLifetime, FreesOnlyDataItOwnsAndCarriesTtlMicroseconds)
{
    {  // nothing to free; freeing static data would crash; a leak of heap data would be reported
        ltEvent none(1, 2, 3, 4, nullptr, 0), borrowed(1, 2, 3, 4, "static", ltEvent::kDataNotOwned), owned(1, 2, 3, 4, strdup("heap"), 0x7);
    }

    ltEvent e = keys(1);
    ltTime stamp(10, 800000), ttl(0, 999999);
    e.setTimeStamp(stamp);
    e.setTTL(1500);
    EXPECT_EQ(ltTime(12, 300000), e.lethalTime);
    e.setTTL(ttl);
    EXPECT_EQ(ltTime(11, 799999), e.lethalTime);
}

// Each operator against operand 7 in every key field; expected results for 0, 6, 7, 8, ~0.
TEST(MaskKeyOperators, EachOperatorComparesOperandAgainstEveryKey)
{
    const struct { unsigned op; const char* expect; } cases[] = {
        {M::kKeyGreater, "11000"}, {M::kKeyLess, "00011"}, {M::kKeyNever, "00000"}, {M::kKeyEqual, "00100"},
        {M::kKeyGreaterEqual, "11100"}, {M::kKeyLessEqual, "00111"}, {M::kKeyAnyBit, "01101"},
        {M::kKeyNotEqual, "11011"}, {10, "00000"} /* unassigned */, {0x20 | M::kKeyEqual, "00100"} /* 5 bits */};
    const uint32_t values[] = {0, 6, 7, 8, 0xFFFFFFFFu};
    for (const auto& c : cases) {
        for (unsigned field = 1; field <= 4; ++field) {
            M mask(M::kMaskNone, field, c.op, 7u, 0);
            for (int i = 0; i < 5; ++i) {
                const uint32_t v = values[i];
                ltEvent e(field == 1 ? v : 1, field == 2 ? v : 1, field == 3 ? v : 1, field == 4 ? v : 1, nullptr, 0);
                EXPECT_EQ(c.expect[i] == '1', mask.matches(e)) << "op " << c.op << " field " << field << " value " << v;
            }
        }
    }
    M unknownField(M::kMaskNone, 6, M::kKeyEqual, 0);  // codes 6-15 take no operand, never match
    EXPECT_EQ(1, unknownField.termCount);
    EXPECT_FALSE(unknownField.matches(keys(0)));
}

TEST(MaskDataOperators, ComparesTheEventStringWithOrWithoutCase)
{
    struct Case { unsigned op; const char* data; bool expect; };
    const Case cases[] = {
        {M::kDataBelow, "abb", true}, {M::kDataBelow, "abc", false}, {M::kDataBelow, nullptr, true}, {M::kDataAbove, "abd", true},
        {M::kDataAbove, nullptr, false}, {M::kDataPrefix, "abcdef", true}, {M::kDataPrefix, "ab", false}, {M::kDataPrefix, "ABCd", false},
        {M::kDataPrefix | M::kDataNoCase, "ABCd", true}, {M::kDataEqual, "abc", true}, {M::kDataEqual, "ABC", false},
        {M::kDataEqual | M::kDataNoCase, "ABC", true}, {M::kDataEqual, nullptr, false}, {M::kDataBelowOrEqual, "abc", true},
        {M::kDataBelowOrEqual, "abd", false}, {M::kDataAboveOrEqual, "abc", true}, {M::kDataAboveOrEqual, "abb", false},
        {M::kDataNever, "abc", false}};
    for (const Case& c : cases) {
        M mask(M::kMaskNone, 5, c.op, "abc", 0);
        EXPECT_EQ(c.expect, mask.matches(keys(0, 0, c.data))) << "op " << c.op << " " << (c.data ? c.data : "null");
    }
    M nullOperand(M::kMaskNone, 5, M::kDataEqual, static_cast<const char*>(nullptr), 0);  // compared as ""
    EXPECT_TRUE(nullOperand.matches(keys(0, 0, "")));
    EXPECT_FALSE(nullOperand.matches(keys(0, 0, nullptr)));
}

// Invert and go-on act only on long terms set directly: a listed code of 16 or more is a short term.
TEST(MaskArgumentLists, CountsFlagsBothTermFormsAndTheBitsSetDirectly)
{
    // Flags 0: counted up to the 0 code. A string term's length is carried by the next term.
    M counted(M::kMaskNone, 5, M::kDataPrefix, "ch", 2, M::kKeyEqual, 9u, 0);
    ASSERT_EQ(2, counted.termCount);
    EXPECT_EQ(2, counted.terms[0].length);
    EXPECT_EQ(2, counted.terms[1].length);
    EXPECT_EQ(9u, counted.terms[1].operand.value);
    EXPECT_TRUE(counted.matches(keys(0, 9, "chan")));
    EXPECT_FALSE(counted.matches(keys(0, 8, "chan")));

    // Count and both extra values come first; a short count leaves the rest unset.
    M flagged(M::kMaskCount | M::kMaskExtra1 | M::kMaskExtra2, 0x10003u, 11u, 22u,
              1, M::kKeyEqual, 4u, 0);
    EXPECT_EQ(3, flagged.termCount);  // low 16 bits of the count word
    EXPECT_EQ(11u, flagged.extra1);
    EXPECT_EQ(22u, flagged.extra2);
    EXPECT_EQ(0, flagged.terms[1].code);
    EXPECT_TRUE(flagged.matches(keys(4)));  // the unset term (operator 0) ends evaluation

    M extraOnly(M::kMaskExtra1, 5u, 1, M::kKeyEqual, 4u, 0);  // no count word: no terms
    EXPECT_EQ(0, extraOnly.termCount);
    EXPECT_TRUE(extraOnly.matches(keys(99)));  // a mask without terms matches everything

    // Short form: no operator word, a value for a key field, the code byte kept whole.
    M shortFirst(M::kMaskNone, M::kCodeInvert | 2, 5u, 1, M::kKeyEqual, 3u, 0);
    ASSERT_EQ(2, shortFirst.termCount);
    EXPECT_EQ(0x22, shortFirst.terms[0].code);
    EXPECT_EQ(0, shortFirst.terms[0].op);
    EXPECT_EQ(3u, shortFirst.terms[1].operand.value);
    EXPECT_TRUE(shortFirst.matches(keys(0)));  // the short term ends it at once: kept

    // A long term followed by a short term: only the first decides.
    M longThenShort(M::kMaskNone, 1, M::kKeyEqual, 7u, M::kCodeShort | 1, 8u, 0);
    EXPECT_TRUE(longThenShort.matches(keys(7)));
    EXPECT_FALSE(longThenShort.matches(keys(8)));

    M inverted(M::kMaskNone, 1, M::kKeyEqual, 7u, 0);
    inverted.terms[0].code |= M::kCodeInvert;
    EXPECT_FALSE(inverted.matches(keys(7)));
    EXPECT_TRUE(inverted.matches(keys(6)));

    M both(M::kMaskNone, 1, M::kKeyEqual, 7u, 2, M::kKeyEqual, 1u, 0);
    both.terms[0].code |= M::kCodeGoOn;
    EXPECT_FALSE(both.matches(keys(6, 1)));  // going on never turns a failed AND true
    EXPECT_TRUE(both.matches(keys(7, 1)));
    both.evaluateAll = 1;
    EXPECT_FALSE(both.matches(keys(7, 2)));
}

TEST(MaskSuperset, PairsTermsOfTheSameCodeByThisMasksOperator)
{
    M le10(M::kMaskNone, 1, M::kKeyGreaterEqual, 10u, 0);  // admits key1 <= 10
    M eq7(M::kMaskNone, 1, M::kKeyEqual, 7u, 0), eq12(M::kMaskNone, 1, M::kKeyEqual, 12u, 0);
    EXPECT_TRUE(le10.isSuperSetOf(eq7));
    EXPECT_FALSE(le10.isSuperSetOf(eq12));
    EXPECT_FALSE(eq7.isSuperSetOf(le10));
    M bits(M::kMaskNone, 1, M::kKeyAnyBit, 0x0Fu, 0);
    EXPECT_TRUE(bits.isSuperSetOf(M(M::kMaskNone, 1, M::kKeyEqual, 0x05u, 0)));
    EXPECT_FALSE(bits.isSuperSetOf(M(M::kMaskNone, 1, M::kKeyEqual, 0x15u, 0)));
    M notLe10(M::kMaskNone, 1, M::kOpInvertSuperset | M::kKeyGreaterEqual, 10u, 0);  // reversed
    EXPECT_FALSE(notLe10.isSuperSetOf(eq7));
    EXPECT_TRUE(notLe10.isSuperSetOf(eq12));

    M prefix(M::kMaskNone, 5, M::kDataPrefix, "dvb", 0);
    M dvbt(M::kMaskNone, 5, M::kDataEqual, "dvbt", 0), hdmi(M::kMaskNone, 5, M::kDataEqual, "hdmi", 0);
    EXPECT_TRUE(prefix.isSuperSetOf(dvbt));
    EXPECT_FALSE(prefix.isSuperSetOf(hdmi));
    EXPECT_FALSE(dvbt.isSuperSetOf(hdmi));

    EXPECT_FALSE(M().isSuperSetOf(eq7));
    EXPECT_FALSE(eq7.isSuperSetOf(M()));
    EXPECT_FALSE(eq7.isSuperSetOf(prefix));  // no partner of the same code
    EXPECT_FALSE(eq7.isSuperSetOf(M(M::kMaskNone, M::kCodeShort | 1, 7u, 0)));  // flag bits differ
}

struct CountedMask : ltEventMask {
    static int live;
    CountedMask() { ++live; }
    ~CountedMask() override { --live; }
    ltEventMask* createInstance() const override { return new CountedMask(); }
};
int CountedMask::live = 0;

TEST(MaskClone, CopiesFlatRewritesNestedPointersAndHandlersDeleteOnlyOwnedMasks)
{
    M outer(M::kMaskCount | M::kMaskExtra2, 2u, 5u, M::kCodeShort | 1, 0u, 1, M::kKeyEqual, 3u, 0);
    auto* nested = new CountedMask();
    outer.terms[0].operand.mask = nested;  // a pointer does not fit the list's 32-bit word
    ltEventMask* copy = outer.clone();
    ASSERT_NE(nullptr, copy);
    ASSERT_EQ(2, copy->termCount);
    EXPECT_EQ(5u, copy->extra2);
    EXPECT_EQ(M::kKeyEqual, copy->terms[1].op);
    EXPECT_EQ(3u, copy->terms[1].operand.value);
    // The copy keeps the old pointer; the source now holds a new clone of the nested mask.
    EXPECT_EQ(nested, copy->terms[0].operand.mask);
    ltEventMask* fresh = outer.terms[0].operand.mask;
    EXPECT_NE(nested, fresh);
    EXPECT_EQ(2, CountedMask::live);  // created through the nested mask's createInstance
    delete fresh;
    delete nested;
    delete copy;
    EXPECT_EQ(0, CountedMask::live);

    ltTime lethal(5, 6);
    CountedMask* shared = new CountedMask();
    {
        ltCallbackEventHandler owning(new CountedMask(), nullptr, nullptr, ltEventHandler::kOwnsMask, nullptr);
        ltCallbackEventHandler borrowing(shared, nullptr, &lethal, ltEventHandler::kPersistent, nullptr);
    }
    EXPECT_EQ(1, CountedMask::live);  // the borrowed mask is left alone
    delete shared;
}

}  // namespace
