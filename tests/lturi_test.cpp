//===- lturi_test.cpp - URI vocabulary, parser, queries and composition ---===//
#include "lturi.h"

#include <algorithm>
#include <cstdlib>
#include <initializer_list>
#include <locale>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

namespace uri = ta::tarvotools::uri;
using uri::LtUri;
using Items = std::vector<std::pair<std::string, std::string>>;

// The conversion failures are checked by their debug text, so the output must be on.
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
        const char* text;
        const char* scheme;
        const char* authority;
        const char* path;
        Items items;
        const char* fragment;
        const char* composed;
    } cases[] = {
        {"dvbt://plain/search?onid=1&tsid=2&sid=3", "dvbt", "plain", "search",
         {{"onid", "1"}, {"tsid", "2"}, {"sid", "3"}}, "",
         "dvbt://plain/search?onid=1&tsid=2&sid=3"},
        // '#' belongs to file names; the scheme alone is lower-cased.
        {"FILE:///mnt/usb/a#1.ts?position=10", "file", "", "/mnt/usb/a#1.ts", {{"position", "10"}},
         "", "file:///mnt/usb/a#1.ts?position=10"},
        {"file:///a#b", "file", "", "/a#b", {}, "", "file:///a#b"},
        {"rtsp://a:554/x?id=5#top", "rtsp", "a:554", "x", {{"id", "5"}}, "top",
         "rtsp://a:554/x?id=5#top"},
        {"http://h/a#b.ts?x=1", "http", "h", "a", {}, "b.ts?x=1", "http://h/a#b.ts?x=1"},
        {"Http://Host/Some/Path?Key=Val", "http", "Host", "Some/Path", {{"Key", "Val"}}, "",
         "http://Host/Some/Path?Key=Val"},
        {"s://#f", "s", "", "", {}, "f", "s://#f"},
        // Without "//" the character after ':' is skipped, whatever it is.
        {"rec:/a/b", "rec", "", "a/b", {}, "", "rec://a/b"},
        {"x:abc", "x", "", "bc", {}, "", "x://bc"},
        {"x:a", "x", "", "", {}, "", "x://"},
        {"x:", "x", "", "", {}, "", "x://"},
        {"s:x?a&b=c", "s", "", "", {{"a&b", "c"}}, "", "s://?a&b=c"},
        // A bare key with no later '=' ends the query: what follows is the fragment.
        {"s://a/p?a&b", "s", "a", "p", {{"a", ""}}, "b", "s://a/p?a#b"},
        {"s://a?k=v#x=1&y", "s", "a", "", {{"k", "v"}}, "x=1&y", "s://a?k=v#x=1&y"},
        {"s://a?k=v=w&=e&k2=", "s", "a", "", {{"k", "v=w"}, {"", "e"}, {"k2", ""}}, "",
         "s://a?k=v=w&=e&k2"},
        {"s://a?k=1&j=2&k=3", "s", "a", "", {{"k", "3"}, {"j", "2"}}, "", "s://a?k=3&j=2"},
        {"no-colon-text", "", "", "", {}, "", "no-colon-text"},
        {"", "", "", "", {}, "", ""},
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

// The texts of a group of constants, blank-separated, in declaration order.
std::string textsOf(std::initializer_list<const std::string*> constants)
{
    std::string texts;
    for (const std::string* c : constants)
        texts += (texts.empty() ? "" : " ") + *c;
    return texts;
}

TEST(UriVocabulary, EveryConstantHasItsStoredText)
{
    using namespace uri::Scheme;
    EXPECT_EQ("http file rec fsl2 output https mms mme mmsh external youtubev3 youtubev4 ruda "
              "ginga miracast rtp rtsp",
              textsOf({&Http, &File, &Rec, &Fsl2, &Output, &Https, &Mms, &Mme, &Mmsh, &External,
                       &YouTube, &YouTubeV4, &Ruda, &Ginga, &Miracast, &Rtp, &Rtsp}));
    EXPECT_EQ("plain servicelist", textsOf({&uri::Authority::Plain, &uri::Authority::Servicelist}));
    EXPECT_EQ("rgb cvbs yc auto_yc_cvbs", textsOf({&uri::Value::Rgb, &uri::Value::Cvbs,
                                                   &uri::Value::Yc, &uri::Value::Auto_Cvbs_Yc}));
    {
        using namespace uri::Path;
        EXPECT_EQ("lcn uid search dvbt dvbc dvbs dvbip analog atsc atscatv isdb hdmi avs vga "
                  "component scart pcin spdifin stream sample expansion",
                  textsOf({&Lcn, &Uid, &Search, &Dvbt, &Dvbc, &Dvbs, &Dvbip, &Analog, &Atsc,
                           &AtscAtv, &Isdb, &Hdmi, &Avs, &Vga, &Component, &Scart, &PcIn,
                           &SpdifIn, &Stream, &Sample, &Expansion}));
    }
    using namespace uri::Query;
    const std::initializer_list<const std::string*> keys = {&Id, &Onid, &Tsid, &Sid, &Frontend,
        &SatId, &SatIndex, &DiseqcAttr, &bissKey, &Frequency, &Symbolrate, &Bandwidth, &HdTv,
        &Inversion, &DvbtPriority, &PlpId, &GroupId, &Modulation, &DataSliceId, &Polarization,
        &Band, &ModCod, &CodeRate, &videoPid, &audioPid, &pcrPid, &VideoStreamType,
        &AudioStreamType, &VideoPid, &AudioPid, &PcrPid, &TtxPid, &SubtitlePid, &ColStd,
        &BroadcastStd, &ServiceSAP, &PhysicalChannelIndex, &CableFlag, &SlotConfig, &Encrypted,
        &ViaCam, &ViaTuner, &Key, &Position, &Speed, &SignalType, &OutputSignalType, &Url,
        &AtscType};
    EXPECT_EQ("id onid tsid sid frontend satid satindex attr bisskey frequency symbolrate "
              "bandwidth hdtv inversion dvbtpriority plpid groupid modulation datasliceid "
              "polarization band modcod coderate svideopid saudiopid spcrpid videostreamtype "
              "audiostreamtype videopid audiopid pcrpid ttxpid subtitlepid colstd brdstd srvsap "
              "phychanind cabflg slotconfig encrypted viacam viatuner key position speed "
              "signaltype outputsignaltype url atscType",
              textsOf(keys));

    // Keys compare case-sensitively: "atsctype" is not Query::AtscType.
    LtUri u(uri::Path::Atsc, uri::Authority::Plain, uri::Path::Search);
    u.addQuery(uri::Query::AtscType, 1u);
    std::string value;
    EXPECT_EQ(-1, u.getValue("atsctype", value));
    EXPECT_EQ("atsc://plain/search?atscType=1", u.getUri());
}

TEST(UriQueryItems, ReplacingKeepsThePlaceAndEmptyValuesHaveNoEquals)
{
    LtUri u("DVBT", uri::Authority::Plain, uri::Path::Lcn);
    EXPECT_EQ(0, u.addQuery(uri::Query::Frontend, 0u));
    EXPECT_EQ(0, u.addQuery("id", "12"));
    EXPECT_EQ("dvbt://plain/lcn?frontend=0&id=12", u.getUri());
    u.addQuery(uri::Query::Frontend, "");
    EXPECT_EQ("dvbt://plain/lcn?frontend&id=12", u.getUri());
    u.addQuery("id", 4294967295u);
    u.setFragment("now");
    EXPECT_EQ("dvbt://plain/lcn?frontend&id=4294967295#now", u.getUri());

    u.removeQueries();
    u.addQuery("sid", "1");
    EXPECT_EQ("dvbt://plain/lcn?sid=1#now", u.getUri());
}

TEST(UriQueryRemoval, LeavesStaleKeyEntriesThatShowInTheComposedText)
{
    const std::string base = "s://h?a=1&b=2&c=3";

    // Removing the first of three moves the others up; the list ends in an empty entry.
    LtUri first(base);
    EXPECT_EQ(0, first.removeQuery("a"));
    EXPECT_EQ((std::vector<std::string>{"b", "c", ""}), first.getQueryKeys());
    EXPECT_EQ("s://h?b=2&c=3", first.getUri());

    first.addQuery("d", "4");
    EXPECT_EQ("s://h?b=2&c=3&d=4", first.getUri());

    // The last entry stays listed; re-adding the key lists it twice and writes it twice.
    LtUri last(base);
    last.removeQuery("c");
    EXPECT_EQ((std::vector<std::string>{"a", "b", "c"}), last.getQueryKeys());
    EXPECT_EQ("s://h?a=1&b=2", last.getUri());
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
    EXPECT_EQ("%41 %= ?\xc3\xa9/", tool.codingReservedUrlChars("%41 %= ?\xc3\xa9/"));  // as is
    EXPECT_EQ("&#%2526%41&", tool.encodingReservedUrlChars("%26%23%2526%41%26"));
    for (const std::string s : {"", "&", "##", "a&&b#", "%2&3#6", "x=y&z=%41#f"})
        EXPECT_EQ(s, tool.encodingReservedUrlChars(tool.codingReservedUrlChars(s))) << s;

    const std::string target = "http://example.com/watch?v=a&t=10#start";
    LtUri u(uri::Scheme::YouTube, uri::Authority::Plain, "");
    u.addQuery(uri::Query::Url, target);
    u.addQuery("URL", "a&b");  // not the url key: stored as it is
    const std::string text = u.getUri();
    EXPECT_EQ("youtubev3://plain?url=http://example.com/watch?v=a%26t=10%23start&URL=a&b", text);
    std::string value;
    ASSERT_EQ(0, u.getValue(uri::Query::Url, value));
    EXPECT_EQ(target, value);

    // A value that arrives escaped already comes back unescaped.
    LtUri pre("s://h?url=x%26y%23z");
    ASSERT_EQ(0, pre.getValue(uri::Query::Url, value));
    EXPECT_EQ("x&y#z", value);
    EXPECT_EQ("s://h?url=x%26y%23z", pre.getUri());
}

TEST(UriNumbers, ConvertLikeLexicalCastAndLeaveOutputsAloneOnFailure)
{
    const unsigned kUntouched = 555;
    const std::pair<const char*, unsigned> cases[] = {{"12", 12}, {"+7", 7}, {"0", 0},
        {"-1", 4294967295u}, {"4294967295", 4294967295u}, {"4294967296", kUntouched},
        {"12 ", kUntouched}, {" 12", kUntouched}, {"0x1", kUntouched}, {"", kUntouched},
        {"1.0", kUntouched}, {"-", kUntouched}};
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
        // A missing key is -1 for both forms, silently, with the outputs untouched.
        std::string text = "keep";
        EXPECT_EQ(-1, u.getValue("N", n));
        EXPECT_EQ(-1, u.getValue("N", text));
        EXPECT_EQ("keep", text);
    }
}

// Groups thousands with ',' the way a non-classic global locale might.
struct GroupingPunct : std::numpunct<char> {
    char do_thousands_sep() const override { return ','; }
    std::string do_grouping() const override { return "\3"; }
};

TEST(UriNumbers, FollowTheGlobalLocaleDigitGrouping)
{
    const std::locale previous =
        std::locale::global(std::locale(std::locale::classic(), new GroupingPunct));
    LtUri u("s", "h", "");
    u.addQuery("n", 1234567u);
    std::locale::global(previous);
    EXPECT_EQ("s://h?n=1,234,567", u.getUri());
}

// Composes many URIs from the vocabulary, writes them out, parses the text again and
// compares every field with the model they were built from.
TEST(UriRoundTrip, ComposedFromTheVocabularyParsesBackToTheSameFields)
{
    const std::vector<std::string> schemes = {uri::Scheme::Http, uri::Scheme::File,
        uri::Scheme::Rtsp, uri::Scheme::YouTube, uri::Path::Dvbt, uri::Path::Hdmi, "DVBC"};
    const std::vector<std::string> authorities = {"", uri::Authority::Plain, "host:554"};
    const std::vector<std::string> words = {uri::Path::Lcn, uri::Path::Search, "12", "r#1.ts"};
    const std::vector<std::string> keys = {uri::Query::Onid, uri::Query::Frequency,
        uri::Query::videoPid, uri::Query::VideoPid, uri::Query::AtscType, uri::Query::Url, "URL"};
    const std::string valueChars = "abcXYZ019/.:?=-_ ";  // no '&' or '#' but in url values

    std::mt19937 rng(20240611);
    auto pick = [&rng](const std::vector<std::string>& v) { return v[rng() % v.size()]; };
    auto text = [&rng](const std::string& chars) {
        std::string s(1 + rng() % 10, ' ');
        for (char& c : s)
            c = chars[rng() % chars.size()];
        return s;
    };

    for (int round = 0; round < 3000; ++round) {
        const std::string scheme = pick(schemes);
        const bool isFile = scheme == uri::Scheme::File;
        const std::string authority = pick(authorities);
        std::string path;  // without an authority a path must start with '/'
        for (unsigned n = rng() % 3; n > 0; --n) {
            const std::string word = pick(words);
            if (isFile || word.find('#') == std::string::npos)  // only file paths keep '#'
                path += (path.empty() && !authority.empty() ? "" : "/") + word;
        }
        LtUri u(scheme, authority, path);

        Items model;  // keys in first-added order with their plain values
        for (unsigned n = rng() % 6; n > 0; --n) {
            const std::string key = pick(keys);
            const unsigned number = rng();
            const bool numeric = rng() % 3 == 0;
            const std::string value = numeric ? std::to_string(number)
                : text(valueChars + (key == uri::Query::Url ? "&#" : ""));
            if (numeric)
                u.addQuery(key, number);
            else
                u.addQuery(key, value);
            auto item = std::find_if(model.begin(), model.end(),
                                     [&key](const auto& i) { return i.first == key; });
            if (item == model.end())
                item = model.insert(model.end(), {key, ""});
            item->second = value;
        }
        // An empty value is written bare, which reads back only at the end of the query, and
        // then the '=' search reaches into the fragment.
        const bool bareLast = !model.empty() && rng() % 4 == 0;
        if (bareLast) {
            model.back().second.clear();
            u.addQuery(model.back().first, "");
        }
        // A file path would take in a fragment that no query separates from it.
        std::string fragment;
        if (rng() % 2 == 0 && !(isFile && model.empty()))
            fragment = text(bareLast ? "abc/?&#" : valueChars + "&#");
        u.setFragment(fragment);

        const std::string composed = u.getUri();
        SCOPED_TRACE(composed);
        const LtUri back(composed);
        ASSERT_EQ(u.getScheme(), back.getScheme());
        ASSERT_EQ(authority, back.getAuthority());
        ASSERT_EQ(path, back.getPath());
        ASSERT_EQ(fragment, back.getFragment());
        ASSERT_EQ(model, itemsOf(back));
        ASSERT_EQ(model.size(), back.getQueryKeys().size());
        ASSERT_EQ(composed, back.getUri());
    }
}

}  // namespace
