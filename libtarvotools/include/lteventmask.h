//===- lteventmask.h - Selects the events a handler is offered -------------===//
///
/// \file
/// An ltEventMask is a short array of terms, each comparing one field of an ltEvent (one of
/// its four keys, or its data string) with an operand; the terms are combined by AND. Masks
/// are built from variable argument lists and can be cloned.
///
/// A term (ltEventMaskTerm), 8 bytes on a 32-bit build:
/// ```
///   byte 0     code: low four bits the field (1-4 key1..key4, 5 the data string, any other
///              value never matches); 0x10 short form; 0x20 inverts the term's result;
///              0x40 lets evaluation go on after this term fails
///   byte 1     operator (kKey... for keys, kData... for the data string)
///   bytes 2-3  for a string term the strlen of its operand at construction; other terms
///              carry the length of the string term before them, or 0
///   bytes 4-7  operand: an unsigned 32-bit value for fields 1-4, a string pointer for
///              field 5 (not copied: the string must outlive the mask)
/// ```
/// On a 64-bit build the operand is pointer-sized (the term is 16 bytes); the argument list is
/// read by the term's field, a 32-bit word for a key and a const char* for the data string,
/// so the same calls build the same masks on both builds.
///
/// Argument lists, ltEventMask(flags, ...): first the words the flags announce (the term
/// count with kMaskCount, the first extra value with kMaskExtra1, the second with
/// kMaskExtra2), then the terms:
///   - long form (code below 16): code, operator, then a value for codes 1-4, a const char*
///     for code 5, nothing for codes 6-15; code 0 ends the list;
///   - short form (code 16 or more, i.e. 0x10 with optionally 0x20 and 0x40): code, then a
///     value for fields 1-4, a const char* for field 5, nothing for other fields. The
///     operator is 0, and the code byte is stored whole. Every code of 16 or more is read
///     this way, so a long-form term gets the 0x20 and 0x40 bits only by setting them in
///     its stored code byte.
///
/// With flags kMaskNone the terms are counted up to the terminating 0. With any other flags
/// the count is what kMaskCount supplied (0 without it) and must equal the number of terms
/// that follow: the remaining terms of a shorter list stay zero.
/// \code
///   ltEventMask m(ltEventMask::kMaskNone, 1, ltEventMask::kKeyEqual, 7u,
///                 5, ltEventMask::kDataPrefix, "ch", 0);  // key1 == 7 and data starts "ch"
/// \endcode
/// Kept behaviour a caller must know (existing masks rely on it):
///   - matches() ends at the first term whose operator has its low three bits 0, returning
///     the result so far: a short-form term (operator 0) ends the evaluation, so a long-form
///     term followed by a short-form term is decided by the first term alone.
///   - clone() takes the operand of every term whose code byte is exactly 0x10 or 0x11 as a
///     nested ltEventMask*, clones it and stores the new pointer back into the SOURCE mask,
///     while the copy keeps the old pointer. The argument list gives 0x10 terms no operand
///     and 0x11 terms a 32-bit value, so on a 64-bit build set operand.mask directly; a null
///     operand is left alone.
///
/// Not synchronised: a mask is read by the loop thread while its handler is in a queue.
///
//===----------------------------------------------------------------------===//
#ifndef LTEVENTMASK_H
#define LTEVENTMASK_H

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "ltexport.h"

class ltEvent;
class ltEventMask;

/// The operand of a term: which member is meaningful depends on the term's code.
union ltEventMaskOperand {
    uint32_t value;       ///< fields 1-4
    const char* string;   ///< field 5
    ltEventMask* mask;    ///< code bytes 0x10 and 0x11, for clone()
};

/// One term of a mask: a field of the event, an operator and an operand (see the file
/// comment for the layout).
struct ltEventMaskTerm {
    uint8_t code;                ///< field in the low four bits, plus the kCode... bits
    uint8_t op;                  ///< operator
    uint16_t length;             ///< see the file comment
    ltEventMaskOperand operand;  ///< compared with the field
};

static_assert(sizeof(void*) != 4 || sizeof(ltEventMaskTerm) == 8,
              "a mask term is 8 bytes on a 32-bit build");
static_assert(sizeof(void*) != 4 || offsetof(ltEventMaskTerm, operand) == 4,
              "a mask term's operand is its second 32-bit word on a 32-bit build");
static_assert(sizeof(ltEventMaskOperand) == sizeof(void*), "the operand is one pointer-sized word");

/// Selects events by their keys and data string: the terms, combined by AND. See the file
/// comment for the argument lists and the kept behaviour.
class LT_EXPORT ltEventMask {
public:
    /// Words the constructor reads before the terms.
    enum MaskFlags {
        kMaskNone = 0x0,    ///< count the terms up to the terminating 0
        kMaskCount = 0x1,   ///< the term count (low 16 bits)
        kMaskExtra1 = 0x2,  ///< the first extra value
        kMaskExtra2 = 0x4,  ///< the second extra value
    };
    /// What parseArgs() does.
    enum ParseFlags {
        kParseStore = 0x0,      ///< store up to max terms
        kParseCountOnly = 0x1,  ///< only count the terms up to the terminating 0
    };

    // Code byte: field in the low four bits, and flag bits.
    static constexpr uint8_t kFieldBits = 0x0F;   ///< the field part of a code byte
    static constexpr uint8_t kFieldKey1 = 1;      ///< field key1
    static constexpr uint8_t kFieldKey4 = 4;      ///< field key4 (key2 and key3 are 2 and 3)
    static constexpr uint8_t kFieldData = 5;      ///< field data, the event's string
    static constexpr uint8_t kCodeShort = 0x10;   ///< short form: no operator word
    static constexpr uint8_t kCodeInvert = 0x20;  ///< the term's result is inverted
    static constexpr uint8_t kCodeGoOn = 0x40;    ///< a failing term does not end evaluation

    /// \name Key operators
    /// Read in their low five bits and written as operand against the event's value
    /// (unsigned): true when ...
    ///@{
    static constexpr uint8_t kKeyGreater = 1;       ///< operand > value
    static constexpr uint8_t kKeyLess = 2;          ///< operand < value
    static constexpr uint8_t kKeyNever = 3;         ///< never
    static constexpr uint8_t kKeyEqual = 4;         ///< operand == value
    static constexpr uint8_t kKeyGreaterEqual = 5;  ///< operand >= value
    static constexpr uint8_t kKeyLessEqual = 6;     ///< operand <= value
    static constexpr uint8_t kKeyAnyBit = 7;        ///< (operand & value) != 0
    static constexpr uint8_t kKeyNotEqual = 9;      ///< operand != value
    ///@}
    /// \name Data-string operators
    /// Read in their low three bits; c compares the event's string with the operand. An event
    /// without data satisfies only kDataBelow.
    ///@{
    static constexpr uint8_t kDataBelow = 1;         ///< c < 0
    static constexpr uint8_t kDataAbove = 2;         ///< c > 0
    static constexpr uint8_t kDataPrefix = 3;        ///< the first 'length' characters equal
    static constexpr uint8_t kDataEqual = 4;         ///< c == 0
    static constexpr uint8_t kDataBelowOrEqual = 5;  ///< c <= 0
    static constexpr uint8_t kDataAboveOrEqual = 6;  ///< c >= 0
    static constexpr uint8_t kDataNever = 7;         ///< never
    static constexpr uint8_t kDataNoCase = 0x8;      ///< strcasecmp / strncasecmp instead
    ///@}
    /// Bit of the operator byte that reverses a key pair's verdict in isSuperSetOf().
    static constexpr uint8_t kOpInvertSuperset = 0x20;

    /// An empty mask (no terms; it matches every event); what createInstance() makes.
    ltEventMask();
    /// Builds the mask from the argument list described in the file comment. A failed
    /// allocation leaves a mask without terms.
    ltEventMask(MaskFlags flags, ...);
    ltEventMask(const ltEventMask&) = delete;
    ltEventMask& operator=(const ltEventMask&) = delete;

    /// Releases the term array; nested masks and strings are not touched.
    virtual ~ltEventMask();
    /// A new mask of this mask's class made with its default constructor (null when new
    /// fails). Derived masks override it so that clone() copies them.
    virtual ltEventMask* createInstance() const;
    /// True when every term matches the event (AND); true for a mask without terms.
    virtual bool matches(const ltEvent& event) const;
    /// Whether this mask admits what the other one selects, judged term pair by term pair:
    /// each term t of this mask is paired with every term of the other mask whose whole code
    /// byte equals t's. Only t's operator is read. Keys: the other operand must lie in what
    /// t's operator admits for t's operand (greater/greater-equal: at most it; less/
    /// less-equal: at least it; never, equal, not-equal: equal to it; any-bit: no bit outside
    /// it; 8: anything); kOpInvertSuperset in t's operator reverses that verdict. Data: prefix
    /// and equal compare the two strings, other operators fail. A failing pair returns false
    /// at once, a pair of code 0 returns the verdict so far, codes with flag bits are ignored.
    /// False for a mask without terms, and when no pair was found.
    virtual bool isSuperSetOf(const ltEventMask& other) const;
    /// Copies count, evaluate-all, the extra values and the terms (strings and nested masks
    /// shared). 0, or -1 when the term array could not be allocated (the mask is then left
    /// without terms).
    virtual int doCloneFlatFrom(const ltEventMask& other);

    /// createInstance(), then doCloneFlatFrom(*this) on it; then the nested-mask walk over the
    /// source's terms (see the file comment). The caller deletes the copy; null when the
    /// instance could not be made.
    ltEventMask* clone() const;
    /// With kParseCountOnly: counts the terms of args up to the terminating 0. Otherwise
    /// stores at most max terms into the term array, stopping early at a code 0, and returns
    /// how many it stored.
    int parseArgs(va_list args, ParseFlags pf, int max);

    // Plain fields, in this order.
    ltEventMaskTerm* terms;  ///< termCount terms from malloc, or null
    uint16_t termCount;      ///< terms in the array
    uint16_t evaluateAll;    ///< not 0: matches() never stops early; the parser sets 0
    uint32_t extra1;         ///< stored and copied only
    uint32_t extra2;         ///< stored and copied only
};

/// Combines mask flags: kMaskCount | kMaskExtra1.
inline ltEventMask::MaskFlags operator|(ltEventMask::MaskFlags a, ltEventMask::MaskFlags b)
{
    return static_cast<ltEventMask::MaskFlags>(static_cast<int>(a) | static_cast<int>(b));
}

#endif // LTEVENTMASK_H
