//===- lturi.cpp - URI vocabulary constants and the LtUri parser ----------===//
//
// Holds the definitions of every vocabulary constant (in the order of lturi.h, after the two
// private escape texts, which must be constructed first) and the LtUri state machine, query
// operations and composition.
//
//===----------------------------------------------------------------------===//
#include "lturi.h"

#include <algorithm>
#include <cctype>
#include <limits>

#include <boost/algorithm/string/replace.hpp>
#include <boost/lexical_cast.hpp>

#include "ltdebug.h"
#include "ltresult.h"

namespace {

// Percent forms of the two bytes that would cut a query value short. Defined before the
// exported constants so that they are built first.
const std::string kEscapedAmpersand("%26");
const std::string kEscapedHash("%23");

}  // namespace

namespace ta {
namespace tarvotools {
namespace uri {

namespace Scheme {
std::string Http("http");
std::string File("file");
std::string Rec("rec");
std::string Fsl2("fsl2");
std::string Output("output");
std::string Https("https");
std::string Mms("mms");
std::string Mme("mme");
std::string Mmsh("mmsh");
std::string External("external");
std::string YouTube("youtubev3");  // not "youtube": kept, stored URIs use this text
std::string YouTubeV4("youtubev4");
std::string Ruda("ruda");
std::string Ginga("ginga");
std::string Miracast("miracast");
std::string Rtp("rtp");
std::string Rtsp("rtsp");
}  // namespace Scheme

namespace Authority {
std::string Plain("plain");
std::string Servicelist("servicelist");
}  // namespace Authority

namespace Path {
std::string Lcn("lcn");
std::string Uid("uid");
std::string Search("search");
std::string Dvbt("dvbt");
std::string Dvbc("dvbc");
std::string Dvbs("dvbs");
std::string Dvbip("dvbip");
std::string Analog("analog");
std::string Atsc("atsc");
std::string AtscAtv("atscatv");
std::string Isdb("isdb");
std::string Hdmi("hdmi");
std::string Avs("avs");
std::string Vga("vga");
std::string Component("component");
std::string Scart("scart");
std::string PcIn("pcin");
std::string SpdifIn("spdifin");
std::string Stream("stream");
std::string Sample("sample");
std::string Expansion("expansion");
}  // namespace Path

// Texts that differ from their identifiers are kept: stored URIs use them.
namespace Query {
std::string Id("id");
std::string Onid("onid");
std::string Tsid("tsid");
std::string Sid("sid");
std::string Frontend("frontend");
std::string SatId("satid");
std::string SatIndex("satindex");
std::string DiseqcAttr("attr");  // kept for compatibility
std::string bissKey("bisskey");
std::string Frequency("frequency");
std::string Symbolrate("symbolrate");
std::string Bandwidth("bandwidth");
std::string HdTv("hdtv");
std::string Inversion("inversion");
std::string DvbtPriority("dvbtpriority");
std::string PlpId("plpid");
std::string GroupId("groupid");
std::string Modulation("modulation");
std::string DataSliceId("datasliceid");
std::string Polarization("polarization");
std::string Band("band");
std::string ModCod("modcod");
std::string CodeRate("coderate");
std::string videoPid("svideopid");  // lower-case identifiers carry the "s" texts: kept
std::string audioPid("saudiopid");
std::string pcrPid("spcrpid");
std::string VideoStreamType("videostreamtype");
std::string AudioStreamType("audiostreamtype");
std::string VideoPid("videopid");
std::string AudioPid("audiopid");
std::string PcrPid("pcrpid");
std::string TtxPid("ttxpid");
std::string SubtitlePid("subtitlepid");
std::string ColStd("colstd");
std::string BroadcastStd("brdstd");            // short texts: kept for compatibility
std::string ServiceSAP("srvsap");
std::string PhysicalChannelIndex("phychanind");
std::string CableFlag("cabflg");
std::string SlotConfig("slotconfig");
std::string Encrypted("encrypted");
std::string ViaCam("viacam");
std::string ViaTuner("viatuner");
std::string Key("key");
std::string Position("position");
std::string Speed("speed");
std::string SignalType("signaltype");
std::string OutputSignalType("outputsignaltype");
std::string Url("url");
std::string AtscType("atscType");  // the one upper-case letter: kept for compatibility
}  // namespace Query

namespace Value {
std::string Rgb("rgb");
std::string Cvbs("cvbs");
std::string Yc("yc");
std::string Auto_Cvbs_Yc("auto_yc_cvbs");  // words in the other order: kept
}  // namespace Value

namespace {

// What a step returns when no further delimiter exists; ends parse()'s loop.
constexpr unsigned kNotFound = std::numeric_limits<unsigned>::max();

// What the fragment step and unknown states return; parse() stops on the state instead.
constexpr unsigned kStepDone = 1;

const char kAuthorityMark[] = "//";
const char kEmptyAuthorityMark[] = "///";

unsigned toPosition(std::string::size_type pos)
{
    return pos == std::string::npos ? kNotFound : static_cast<unsigned>(pos);
}

// The first position at or after pos that holds one of the bytes A, B, C, or npos: the
// delimiter searches of the parser. A plain scan, where std::string::find_first_of would
// search the set with memchr once for every byte of the text.
template <char A, char B, char C = B>
std::string::size_type findAny(const std::string& text, std::string::size_type pos)
{
    const char* bytes = text.data();
    for (std::string::size_type i = pos; i < text.size(); ++i) {
        const char c = bytes[i];
        if (c == A || c == B || c == C)
            return i;
    }
    return std::string::npos;
}

// Replaces the value of a present key in place, or appends a new key to the list.
void setItem(std::map<std::string, std::string>& queries, std::vector<std::string>& keys,
             const std::string& key, std::string&& value)
{
    const auto at = queries.lower_bound(key);  // one search serves both cases
    if (at != queries.end() && at->first == key) {
        at->second = std::move(value);
        return;
    }
    queries.emplace_hint(at, key, std::move(value));
    keys.push_back(key);
}

bool startsWithAt(const std::string& text, unsigned pos, const char* prefix)
{
    return text.compare(pos, std::char_traits<char>::length(prefix), prefix) == 0;
}

// The C library's tolower, byte by byte, in the current C locale.
std::string lowerCased(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

}  // namespace

LtUri::LtUri(const std::string& uri) : uri_(uri)
{
    parse(uri_);
}

LtUri::LtUri(const std::string& scheme, const std::string& authority, const std::string& path)
    : scheme_(lowerCased(scheme)), authority_(authority), path_(path)
{
}

LtUri::~LtUri() = default;

void LtUri::parse(const std::string& text)
{
    parseState_enum state = ParseScheme;
    unsigned position = 0;
    while (position < text.size()) {
        position = doit(state, text, position);
        if (state == ParseDone)
            break;
    }
}

unsigned LtUri::doit(parseState_enum& state, const std::string& text, unsigned& position)
{
    // A position past the end reads as the end: the step then sees an empty rest.
    const unsigned p = std::min<unsigned>(position, static_cast<unsigned>(text.size()));
    switch (state) {
    case ParseScheme: {
        const unsigned colon = toPosition(text.find(':', p));
        if (colon == kNotFound) {
            state = ParseDone;  // no scheme: the text is kept only as uri_
            return kNotFound;
        }
        scheme_ = lowerCased(text.substr(p, colon - p));
        state = ParseAuthority;
        return colon + 1;
    }

    case ParseAuthority: {
        if (startsWithAt(text, p, kEmptyAuthorityMark)) {
            state = ParsePath;  // the third '/' starts the path
            return p + 2;
        }
        if (!startsWithAt(text, p, kAuthorityMark)) {
            // Skips the character after ':' whatever it is ("x:abc" has the path "bc"):
            // kept, existing URIs rely on it.
            state = ParsePath;
            return p + 1;
        }
        const unsigned start = p + 2;
        const unsigned end = toPosition(findAny<'/', '?', '#'>(text, start));
        if (end == kNotFound) {
            authority_ = text.substr(start);
            state = ParseDone;
            return kNotFound;
        }
        authority_ = text.substr(start, end - start);
        switch (text[end]) {
        case '?': state = ParseQuery; break;
        case '#': state = ParseFragment; break;
        default: state = ParsePath; break;
        }
        return end + 1;  // the delimiter is dropped: a path never starts with that '/'
    }

    case ParsePath: {
        // File names may hold '#', so a file path ends at '?' only.
        const unsigned end = scheme_ == Scheme::File ? toPosition(text.find('?', p))
                                                     : toPosition(findAny<'?', '#'>(text, p));
        if (end == kNotFound) {
            path_ = text.substr(p);
            state = ParseDone;
            return kNotFound;
        }
        path_ = text.substr(p, end - p);
        state = text[end] == '?' ? ParseQuery : ParseFragment;
        return end + 1;
    }

    case ParseQuery: {
        // addQuery(key, value), with the value moved in rather than copied.
        const auto addParsedItem = [this](const std::string& key, std::string&& value) {
            if (key == Query::Url)
                value = codingReservedUrlChars(value);
            setItem(queries_, queryKeys_, key, std::move(value));
        };
        if (queryKeys_.empty()) {
            // Room for every item up front, rather than growing the list item by item.
            queryKeys_.reserve(static_cast<size_t>(std::count(text.begin() + p, text.end(), '&')) + 1);
        }
        // The '=' search is not bounded by '&' or '#': a key can swallow a bare item before
        // it ("x&y=1" is the key "x&y"). Kept for compatibility.
        const unsigned equals = toPosition(text.find('=', p));
        if (equals != kNotFound) {
            const std::string key = text.substr(p, equals - p);
            const unsigned end = toPosition(findAny<'&', '#'>(text, equals + 1));
            if (end == kNotFound) {
                addParsedItem(key, text.substr(equals + 1));
                state = ParseDone;
                return kNotFound;
            }
            addParsedItem(key, text.substr(equals + 1, end - equals - 1));
            state = text[end] == '#' ? ParseFragment : ParseQuery;
            return end + 1;
        }
        const unsigned end = toPosition(findAny<'&', '#'>(text, p));
        if (end == kNotFound) {
            addParsedItem(text.substr(p), std::string());
            state = ParseDone;
            return kNotFound;
        }
        addParsedItem(text.substr(p, end - p), std::string());
        // A bare key ends the query even at '&': the rest becomes the fragment ("?a&b" has
        // the fragment "b"). Kept for compatibility.
        state = ParseFragment;
        return end + 1;
    }

    case ParseFragment:
        fragment_ = text.substr(p);
        state = ParseDone;
        return kStepDone;

    default:
        return kStepDone;
    }
}

std::string LtUri::getScheme() const
{
    return scheme_;
}

std::string LtUri::getAuthority() const
{
    return authority_;
}

std::string LtUri::getPath() const
{
    return path_;
}

std::string LtUri::getFragment() const
{
    return fragment_;
}

void LtUri::setFragment(const std::string& fragment)
{
    fragment_ = fragment;
}

int LtUri::addQuery(const std::string& key, const std::string& value)
{
    if (key == Query::Url)
        setItem(queries_, queryKeys_, key, codingReservedUrlChars(value));
    else
        setItem(queries_, queryKeys_, key, std::string(value));
    return lt_internal::kOk;
}

int LtUri::addQuery(const std::string& key, const unsigned int& value)
{
    std::string text;
    try {
        text = boost::lexical_cast<std::string>(value);
    } catch (const boost::bad_lexical_cast&) {
        LT_DEBUG(kLtDebugLevelDefault, "addQuery", "LTUri bad_lexical_cast\n");
        return lt_internal::kFailed;
    }
    setItem(queries_, queryKeys_, key, std::move(text));
    return lt_internal::kOk;
}

int LtUri::getValue(const std::string& key, std::string& value) const
{
    const auto found = queries_.find(key);
    if (found == queries_.end())
        return lt_internal::kFailed;
    value = key == Query::Url ? encodingReservedUrlChars(found->second) : found->second;
    return lt_internal::kOk;
}

int LtUri::getValue(const std::string& key, unsigned int& value) const
{
    const auto found = queries_.find(key);
    if (found == queries_.end())
        return lt_internal::kFailed;
    try {
        value = boost::lexical_cast<unsigned int>(found->second);
    } catch (const boost::bad_lexical_cast&) {
        LT_DEBUG(kLtDebugLevelDefault, "getValue", "LTUri bad_lexical_cast\n");
        return lt_internal::kFailed;
    }
    return lt_internal::kOk;
}

int LtUri::removeQuery(const std::string& key)
{
    const auto found = queries_.find(key);
    if (found == queries_.end())
        return lt_internal::kOk;
    queries_.erase(found);

    // The key list is compacted from the key's first entry the way std::remove does it, and
    // never shortened: the entries after it move up and the vacated tail entries are left
    // empty. A key in the last entry so stays listed. Kept: existing callers rely on it.
    auto write = std::find(queryKeys_.begin(), queryKeys_.end(), key);
    if (write == queryKeys_.end())
        return lt_internal::kOk;
    for (auto read = write + 1; read != queryKeys_.end(); ++read) {
        if (*read == key)
            continue;
        *write++ = std::move(*read);
        read->clear();
    }
    return lt_internal::kOk;
}

void LtUri::removeQueries()
{
    queries_.clear();
    queryKeys_.clear();
}

const std::vector<std::string>& LtUri::getQueryKeys() const
{
    return queryKeys_;
}

std::string LtUri::codingReservedUrlChars(const std::string& text) const
{
    std::string escaped;
    escaped.reserve(text.size());
    for (const char c : text) {
        if (c == '&')
            escaped += kEscapedAmpersand;
        else if (c == '#')
            escaped += kEscapedHash;
        else
            escaped += c;
    }
    return escaped;
}

std::string LtUri::encodingReservedUrlChars(const std::string& text) const
{
    std::string plain = text;
    boost::algorithm::replace_all(plain, kEscapedAmpersand, "&");
    boost::algorithm::replace_all(plain, kEscapedHash, "#");
    return plain;
}

std::string LtUri::getUri() const
{
    if (scheme_.empty())
        return uri_;  // unparsed or scheme-less text comes back as it was given

    // Written in place into the cache, whose buffer (the parsed text's, usually as long as
    // the result) is reused.
    size_t length = scheme_.size() + 3 + authority_.size() + 1 + path_.size() + 1 + fragment_.size();
    for (const auto& item : queries_)
        length += item.first.size() + item.second.size() + 2;
    uri_.clear();
    uri_.reserve(length);
    uri_.append(scheme_).append(":").append(kAuthorityMark);
    if (!authority_.empty()) {
        uri_ += authority_;
        if (!path_.empty())
            uri_.append("/").append(path_);
    } else {
        uri_ += path_;  // "rec:/a/b" (path "a/b") comes back as "rec://a/b"
    }

    for (size_t i = 0; i < queryKeys_.size(); ++i) {
        const auto found = queries_.find(queryKeys_[i]);
        if (found == queries_.end())
            continue;
        // The separator follows the list position, not the items written so far: a stale
        // first entry makes the first item start with '&'. Kept for compatibility.
        uri_ += i == 0 ? '?' : '&';
        uri_ += found->first;
        if (!found->second.empty())
            uri_.append("=").append(found->second);
    }

    if (!fragment_.empty())
        uri_.append("#").append(fragment_);
    return uri_;
}

}  // namespace uri
}  // namespace tarvotools
}  // namespace ta
