/** \file
 * lv_arg.h - the platform value library: lvArg, a small self-describing value.
 *
 * A stand-in for the platform's argument-value library, as far as libtarvotools-mt uses it:
 * a value that is empty, a 64-bit integer or a text it owns. Values are copied with
 * assignFast() and emptied with releaseData(); the plain C++ copy is disabled so that no
 * owned text is ever shared by accident. C++ only; not thread-safe (the owner serialises). */
#ifndef LV_ARG_H
#define LV_ARG_H

#include <stdint.h>

/** A value that is empty, a 64-bit integer or a text it owns; see the file comment. */
class lvArg {
public:
    /// What the value holds. An empty value has no data to release.
    enum Type : int32_t { kEmpty = 0, kInt = 1, kText = 2 };

    /// An empty value.
    constexpr lvArg() : type_(kEmpty), int_(0), text_(nullptr) {}
    /// An integer value.
    explicit lvArg(int64_t value) : type_(kInt), int_(value), text_(nullptr) {}
    /// Copies the text; a null text, or no memory for the copy, gives an empty value.
    explicit lvArg(const char* text);
    /// Releases the owned text, if any.
    ~lvArg() { releaseData(); }

    lvArg(const lvArg&) = delete;             // copies go through assignFast()
    lvArg& operator=(const lvArg&) = delete;

    /// Makes this value a copy of other (a text is duplicated). Fast: it does NOT release what
    /// this value held; call releaseData() first unless the value is known to be empty.
    /// Returns 0, or -ENOMEM when the text cannot be copied (this value is then empty).
    int assignFast(const lvArg& other);

    /// Frees owned data and leaves the value empty. Safe to call on an empty value.
    void releaseData();

    /// What the value holds.
    Type type() const { return type_; }
    int64_t toInt() const { return type_ == kInt ? int_ : 0; }           ///< 0 unless kInt
    const char* toText() const { return type_ == kText ? text_ : nullptr; }  ///< null unless kText

private:
    Type type_;
    int64_t int_;
    char* text_;  // owned (malloc'd) when type_ is kText
};

#endif /* LV_ARG_H */
