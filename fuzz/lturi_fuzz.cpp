//===- lturi_fuzz.cpp - URI text parsed, composed and parsed again --------===//
//
// The input is a URI text. It is parsed; the fields must keep the parser's own limits (a
// lower-case scheme without ':', an authority without '/', '?' or '#', a path without '?',
// keys without '=', values without '&' or '#', unique keys); the text is composed with
// getUri() and parsed again, and what the parser guarantees for that round trip must hold:
//   - an empty scheme gives back the very text;
//   - the scheme survives, and so does the authority when it is not empty;
//   - when the first path segment cannot be taken for an authority (there is an authority,
//     or the path is empty or starts with '/') and every query value is non-empty, the
//     second parse composes to the same text, with the same items and fragment. (An empty
//     value is written without '=', so the next parse may join it with the item after it;
//     a path without authority loses its first segment to the authority.)
// Then the rest of the interface runs on parts taken from the input: the parts constructor,
// numeric items, removal and the two escaping helpers.
//
//===----------------------------------------------------------------------===//
#include "lturi.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "fuzz_check.h"

namespace {

using ta::tarvotools::uri::LtUri;

bool has(const std::string& s, const char* chars) { return s.find_first_of(chars) != std::string::npos; }

bool allDigits(const std::string& s)
{
    if (s.empty())
        return false;
    for (unsigned char c : s) {
        if (!std::isdigit(c))
            return false;
    }
    return true;
}

// Items in key-list order, as (key, value) pairs.
std::vector<std::pair<std::string, std::string>> itemsOf(const LtUri& u)
{
    std::vector<std::pair<std::string, std::string>> items;
    for (const std::string& k : u.getQueryKeys()) {
        std::string v;
        FUZZ_CHECK(u.getValue(k, v) == 0);  // parsing never leaves a stale key
        items.emplace_back(k, v);
    }
    return items;
}

void checkFields(const LtUri& u)
{
    const std::string scheme = u.getScheme();
    FUZZ_CHECK(!has(scheme, ":"));
    for (unsigned char c : scheme)
        FUZZ_CHECK(std::tolower(c) == c);
    FUZZ_CHECK(!has(u.getAuthority(), "/?#"));
    FUZZ_CHECK(!has(u.getPath(), scheme == "file" ? "?" : "?#"));
    std::set<std::string> keys;
    for (const auto& [k, v] : itemsOf(u)) {
        FUZZ_CHECK(keys.insert(k).second);
        FUZZ_CHECK(!has(k, "="));
        if (k != "url")
            FUZZ_CHECK(!has(v, "&#"));
    }
}

void roundTrip(const std::string& text)
{
    const LtUri a(text);
    checkFields(a);
    const std::string composed = a.getUri();
    FUZZ_CHECK(a.getUri() == composed);  // the cache rewrite changes nothing
    if (a.getScheme().empty()) {
        FUZZ_CHECK(composed == text);
        return;
    }
    FUZZ_CHECK(composed.compare(0, a.getScheme().size() + 3, a.getScheme() + "://") == 0);

    const LtUri b(composed);
    checkFields(b);
    FUZZ_CHECK(b.getScheme() == a.getScheme());
    if (!a.getAuthority().empty())
        FUZZ_CHECK(b.getAuthority() == a.getAuthority());

    const std::string path = a.getPath();
    const bool pathStays = !a.getAuthority().empty() || path.empty() || path[0] == '/';
    bool valuesNonEmpty = true;
    const auto items = itemsOf(a);
    for (const auto& item : items)
        valuesNonEmpty = valuesNonEmpty && !item.second.empty();
    if (!pathStays || !valuesNonEmpty)
        return;
    FUZZ_CHECK(b.getAuthority() == a.getAuthority());
    FUZZ_CHECK(b.getUri() == composed);
    FUZZ_CHECK(itemsOf(b) == items);
    // A "file" path takes in a fragment that no query item separates from it.
    if (a.getScheme() == "file" && items.empty() && !a.getFragment().empty() && !path.empty())
        return;
    FUZZ_CHECK(b.getPath() == path);
    FUZZ_CHECK(b.getFragment() == a.getFragment());
}

void exerciseParts(FuzzedDataProvider& in)
{
    LtUri u(in.ConsumeRandomLengthString(32), in.ConsumeRandomLengthString(32), in.ConsumeRandomLengthString(32));
    for (int step = 0; step < 32 && in.remaining_bytes() > 0; ++step) {
        const std::string key = in.ConsumeBool() ? "url" : in.ConsumeRandomLengthString(8);
        const size_t listed = u.getQueryKeys().size();
        switch (in.ConsumeIntegralInRange<int>(0, 5)) {
        case 0: {
            const std::string value = in.ConsumeRandomLengthString(32);
            FUZZ_CHECK(u.addQuery(key, value) == 0);
            std::string back;
            FUZZ_CHECK(u.getValue(key, back) == 0);
            if (key != "url" || value.find('%') == std::string::npos)
                FUZZ_CHECK(back == value);  // "url" unescapes only what it escaped
            break;
        }
        case 1: {
            const unsigned n = in.ConsumeIntegral<unsigned>();
            FUZZ_CHECK(u.addQuery(key, n) == 0);
            unsigned back = n + 1;
            FUZZ_CHECK(u.getValue(key, back) == 0 && back == n);
            break;
        }
        case 2: {
            std::string value;
            unsigned n = 7;
            const bool present = u.getValue(key, value) == 0;
            const int r = u.getValue(key, n);
            if (!present) {
                FUZZ_CHECK(r == -1 && n == 7);
            } else if (key != "url" && allDigits(value) && value.size() <= 9) {
                FUZZ_CHECK(r == 0 && n == std::strtoul(value.c_str(), nullptr, 10));
            } else if (r == 0) {
                // Converted: digits with at most one leading sign.
                const size_t start = value[0] == '+' || value[0] == '-' ? 1 : 0;
                FUZZ_CHECK(key == "url" || allDigits(value.substr(start)));
            }
            break;
        }
        case 3:
            FUZZ_CHECK(u.removeQuery(key) == 0);
            FUZZ_CHECK(u.getQueryKeys().size() == listed);  // the list never shrinks here
            {
                std::string gone;
                FUZZ_CHECK(u.getValue(key, gone) == -1);
            }
            break;
        case 4:
            u.setFragment(in.ConsumeRandomLengthString(16));
            break;
        case 5: {
            const std::string s = in.ConsumeRandomLengthString(32);
            const std::string escaped = u.codingReservedUrlChars(s);
            FUZZ_CHECK(!has(escaped, "&#"));
            if (s.find('%') == std::string::npos)
                FUZZ_CHECK(u.encodingReservedUrlChars(escaped) == s);
            break;
        }
        }
        (void)u.getUri();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    roundTrip(std::string(reinterpret_cast<const char*>(data), size));
    FuzzedDataProvider in(data, size);
    exerciseParts(in);
    return 0;
}
