//===- lturi_test.cpp - URI vocabulary, parser, queries and composition ---===//
#include "lturi.h"

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

namespace uri = ta::tarvotools::uri;
using uri::LtUri;
using Items = std::vector<std::pair<std::string, std::string>>;

[[maybe_unused]] const int kDebugOutputOn = setenv("CSP_DEBUG_QUIET", "0", /*overwrite=*/1);

// The items of `u` in key-list order, values as getValue gives them; stale entries skipped.
Items itemsOf(const LtUri& u)
{
    Items items;
    for (const std::string& key : u.getQueryKeys()) {
        std::string value;
        if (u.getValue(key, value) == 0)
            items.emplace_back(key, value);
    }
    return items;
}

TEST(UriParsing, SplitsEachExampleAndComposesItBack)
{
    const struct {
        const char *text, *scheme, *authority, *path;
        Items items;
        const char *fragment, *composed;
    } cases[] = {
        {"dvbt://plain/search?onid=1&tsid=2&sid=3", "dvbt", "plain", "search", {{"onid", "1"}, {"tsid", "2"}, {"sid", "3"}},
         "", "dvbt://plain/search?onid=1&tsid=2&sid=3"},
        // '#' belongs to file names; the scheme alone is lower-cased.
        {"FILE:///mnt/usb/a#1.ts?position=10", "file", "", "/mnt/usb/a#1.ts", {{"position", "10"}}, "", "file:///mnt/usb/a#1.ts?position=10"},
        {"file:///a#b", "file", "", "/a#b", {}, "", "file:///a#b"}, {"s://#f", "s", "", "", {}, "f", "s://#f"},
        {"rtsp://a:554/x?id=5#top", "rtsp", "a:554", "x", {{"id", "5"}}, "top", "rtsp://a:554/x?id=5#top"},
        {"http://h/a#b.ts?x=1", "http", "h", "a", {}, "b.ts?x=1", "http://h/a#b.ts?x=1"},
        // Without "//" the character after ':' is skipped, whatever it is.
        {"rec:/a/b", "rec", "", "a/b", {}, "", "rec://a/b"}, {"x:abc", "x", "", "bc", {}, "", "x://bc"}, {"x:a", "x", "", "", {}, "", "x://"},
        {"x:", "x", "", "", {}, "", "x://"}, {"s:x?a&b=c", "s", "", "", {{"a&b", "c"}}, "", "s://?a&b=c"}, {":", "", "", "", {}, "", ":"},
        // A bare key with no later '=' ends the query: what follows is the fragment.
        {"s://a/p?a&b", "s", "a", "p", {{"a", ""}}, "b", "s://a/p?a#b"}, {"s://a?k=v#x=1&y", "s", "a", "", {{"k", "v"}}, "x=1&y", "s://a?k=v#x=1&y"},
        {"s://a?k=v=w&=e&k2=", "s", "a", "", {{"k", "v=w"}, {"", "e"}, {"k2", ""}}, "", "s://a?k=v=w&=e&k2"},
        {"s://a?k=1&j=2&k=3", "s", "a", "", {{"k", "3"}, {"j", "2"}}, "", "s://a?k=3&j=2"}, {"s:?", "s", "", "", {}, "", "s://"},
        {"s:#", "s", "", "", {}, "", "s://"}, {"s://", "s", "", "", {}, "", "s://"}, {"s:///", "s", "", "/", {}, "", "s:///"},
        {"s://a?k", "s", "a", "", {{"k", ""}}, "", "s://a?k"}, {"s://?=&#", "s", "", "", {{"", ""}}, "", "s://?"},
        {"s://a?k=1&", "s", "a", "", {{"k", "1"}}, "", "s://a?k=1"}, {"no-colon-text", "", "", "", {}, "", "no-colon-text"}, {"", "", "", "", {}, "", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const LtUri u{std::string(c.text)};
        EXPECT_EQ(c.scheme, u.getScheme());
        EXPECT_EQ(c.authority, u.getAuthority());
        EXPECT_EQ(c.path, u.getPath());
        EXPECT_EQ(c.items, itemsOf(u));
        EXPECT_EQ(c.fragment, u.getFragment());
        EXPECT_EQ(c.composed, u.getUri());
    }
}

TEST(UriQueryItems, ReplacingKeepsThePlaceAndEmptyValuesHaveNoEquals)
{
    LtUri u("DVBT", uri::Authority::Plain, uri::Path::Lcn);
    EXPECT_EQ(0, u.addQuery(uri::Query::Frontend, 0u));
    EXPECT_EQ(0, u.addQuery("id", "12"));
    u.addQuery(uri::Query::Frontend, "");
    EXPECT_EQ("dvbt://plain/lcn?frontend&id=12", u.getUri());
    u.addQuery("id", 4294967295u);
    u.setFragment("now");
    EXPECT_EQ("dvbt://plain/lcn?frontend&id=4294967295#now", u.getUri());

    u.removeQueries();  // the values too
    u.addQuery(uri::Query::AtscType, 1u);
    EXPECT_EQ("dvbt://plain/lcn?atscType=1#now", u.getUri());
    unsigned id = 0;
    EXPECT_EQ(-1, u.getValue("id", id));

    const std::string base = "s://h?a=1&b=2&c=3";
    // Removing the first of three moves the others up; the list ends in an empty entry.
    LtUri first(base);
    EXPECT_EQ(0, first.removeQuery("a"));
    EXPECT_EQ((std::vector<std::string>{"b", "c", ""}), first.getQueryKeys());
    first.addQuery("d", "4");
    EXPECT_EQ("s://h?b=2&c=3&d=4", first.getUri());

    // The last entry stays listed; re-adding the key lists it twice and writes it twice.
    LtUri last(base);
    last.removeQuery("c");
    last.addQuery("c", "9");
    EXPECT_EQ((std::vector<std::string>{"a", "b", "c", "c"}), last.getQueryKeys());
    EXPECT_EQ("s://h?a=1&b=2&c=9&c=9", last.getUri());

    // A stale first entry: the first item written starts with '&'.
    LtUri stale("s://h?k=1");
    stale.removeQuery("k");
    stale.addQuery("x", "2");
    EXPECT_EQ("s://h&x=2", stale.getUri());
    stale.removeQuery("absent");  // changes nothing
    EXPECT_EQ((std::vector<std::string>{"k", "x"}), stale.getQueryKeys());
}

TEST(UriUrlEscaping, OnlyTheUrlKeyIsEscapedAndOnlyAmpersandAndHash)
{
    const LtUri tool("");
    EXPECT_EQ("a?b=1%26c=2%23t", tool.codingReservedUrlChars("a?b=1&c=2#t"));
    EXPECT_EQ("&#%2526%41&", tool.encodingReservedUrlChars("%26%23%2526%41%26"));

    const std::string target = "http://example.com/watch?v=a&t=10#start";
    LtUri u(uri::Scheme::YouTube, uri::Authority::Plain, "");
    u.addQuery(uri::Query::Url, target);
    u.addQuery("URL", "a&b");  // not the url key: stored as it is
    EXPECT_EQ("youtubev3://plain?url=http://example.com/watch?v=a%26t=10%23start&URL=a&b", u.getUri());
    std::string value;
    ASSERT_EQ(0, u.getValue(uri::Query::Url, value));
    EXPECT_EQ(target, value);
}

TEST(UriNumbers, ConvertWholeValuesOnlyAndLeaveTheOutputAloneOnFailure)
{
    const unsigned kUntouched = 555;
    const std::pair<const char*, unsigned> cases[] = {{"12", 12}, {"-1", 4294967295u},
        {"4294967296", kUntouched}, {"12 ", kUntouched}, {"", kUntouched}};
    for (const auto& [stored, expected] : cases) {
        const LtUri u("s://h?n=" + std::string(stored));
        unsigned n = kUntouched;
        testing::internal::CaptureStderr();
        EXPECT_EQ(expected == kUntouched ? -1 : 0, u.getValue("n", n)) << stored;
        const std::string log = testing::internal::GetCapturedStderr();
        EXPECT_EQ(expected, n) << stored;
        const bool logged = log.rfind("lturi.cpp:", 0) == 0 &&
                            log.find(":getValue(): LTUri bad_lexical_cast\n") != std::string::npos;
        EXPECT_EQ(expected == kUntouched, logged) << stored << log;
        std::string text = "keep";
        EXPECT_EQ(-1, u.getValue("N", n));
        EXPECT_EQ(-1, u.getValue("N", text));
        EXPECT_EQ("keep", text);
    }
}

}  // namespace
