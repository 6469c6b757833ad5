// tour_config_uri.cpp - the INFO configuration store and the platform's channel URIs.
#include <cstdio>
#include <fstream>
#include <optional>
#include <string>

#include "ltconfiguration.h"
#include "lturi.h"
#include "tour.h"

namespace uri = ta::tarvotools::uri;

namespace {

const char kChannelFile[] = "channels.info";

// The channel list in the current directory, else the one shipped beside the demo's sources.
std::string findChannelFile()
{
    if (std::ifstream(kChannelFile).good())
        return kChannelFile;
#ifdef LT_DEMO_DATA_DIR
    return std::string(LT_DEMO_DATA_DIR) + "/" + kChannelFile;
#else
    return kChannelFile;
#endif
}

// The URI words a channel entry may name; anything else in the file is refused, so that
// every URI the tour prints is spelled from the library's vocabulary.
const std::string* const kSchemes[] = {&uri::Path::Dvbt, &uri::Path::Dvbs, &uri::Path::Dvbc,
                                       &uri::Path::Avs, &uri::Scheme::File, &uri::Scheme::YouTube};
const std::string* const kAuthorities[] = {&uri::Authority::Plain, &uri::Authority::Servicelist};

// The query items a channel entry may carry, in the order the URI lists them. Numbers go
// through addQuery's number form; the rest are texts.
struct QueryField {
    const std::string* key;
    bool numeric;
};
const QueryField kQueryFields[] = {
    {&uri::Query::Id, true},           {&uri::Query::Onid, true},
    {&uri::Query::Tsid, true},         {&uri::Query::Sid, true},
    {&uri::Query::Frequency, true},    {&uri::Query::Bandwidth, true},
    {&uri::Query::Symbolrate, true},   {&uri::Query::Polarization, false},
    {&uri::Query::DiseqcAttr, true},   {&uri::Query::Modulation, false},
    {&uri::Query::SignalType, false},  {&uri::Query::Position, true},
    {&uri::Query::Url, false},
};

// The vocabulary constant whose text is `word`, or nullptr.
template <size_t N>
const std::string* lookUp(const std::string* const (&words)[N], const std::string& word)
{
    for (const std::string* w : words)
        if (*w == word)
            return w;
    return nullptr;
}

// Builds the URI of the channel stored under `base` ("channels/<n>"); nothing when the entry
// names a scheme or authority outside the vocabulary.
std::optional<uri::LtUri> channelUri(const ltConfiguration& config, const std::string& base)
{
    const std::string* scheme = lookUp(kSchemes, config.getString(base + "/scheme", ""));
    const std::string authorityText = config.getString(base + "/authority", "");
    const std::string* authority = lookUp(kAuthorities, authorityText);
    if (scheme == nullptr || (authority == nullptr && !authorityText.empty()))
        return std::nullopt;

    uri::LtUri channel(*scheme, authority ? *authority : std::string(),
                       config.getString(base + "/path", ""));
    for (const QueryField& field : kQueryFields) {
        const std::string item = base + "/" + *field.key;
        const std::string text = config.getString(item, "");
        if (text.empty())
            continue;  // the channel has no such item
        if (field.numeric)
            channel.addQuery(*field.key, static_cast<unsigned>(config.getInteger(item, 0)));
        else
            channel.addQuery(*field.key, text);
    }
    return channel;
}

// Shows every field of a URI read back from its text.
void showFields(const std::string& text)
{
    const uri::LtUri parsed(text);
    std::printf("  parsed \"%s\":\n", text.c_str());
    std::printf("    scheme    \"%s\"\n", parsed.getScheme().c_str());
    std::printf("    authority \"%s\"\n", parsed.getAuthority().c_str());
    std::printf("    path      \"%s\"\n", parsed.getPath().c_str());
    for (const std::string& key : parsed.getQueryKeys()) {
        std::string value;
        if (parsed.getValue(key, value) == 0)
            std::printf("    query     %-12s = \"%s\"\n", key.c_str(), value.c_str());
    }
    std::printf("    fragment  \"%s\"\n", parsed.getFragment().c_str());
    unsigned frequency = 0;
    if (parsed.getValue(uri::Query::Frequency, frequency) == 0)
        std::printf("    the frequency read as a number: %u\n", frequency);
}

}  // namespace

void tourConfigAndUris()
{
    tourHeading("Configuration store and channel URIs");
    const std::string path = findChannelFile();
    std::printf("ltConfiguration reads an INFO file once, when it is built; lookups then work on\n"
                "the tree in memory. Key paths use '/', so a key such as \"list.title\" is one name.\n");

    const ltConfiguration missing("no-such-channels.info");
    std::printf("  a missing file does not throw; the error is kept as text:\n    \"%s\"\n",
                missing.getInitError().c_str());

    const ltConfiguration config(path);
    if (config.initError()) {
        std::printf("  cannot read the channel list: %s\n", config.getInitError().c_str());
        return;
    }
    std::printf("  read %s: \"%s\"\n", path.c_str(),
                config.getString("list.title", "(untitled)").c_str());
    std::printf("  \"channels/favourite\" is not in the file, so its default comes back: %d\n",
                config.getInteger("channels/favourite", 1));

    std::printf("\nEach channel's URI is composed from the vocabulary: scheme, authority, path,\n"
                "then the query items in the order they were added.\n");
    const int count = config.getInteger("channels/count", 0);
    std::string satelliteUri, fileUri, webUri;
    for (int n = 1; n <= count; ++n) {
        const std::string base = "channels/" + std::to_string(n);
        const std::string name = config.getString(base + "/name", "?");
        const std::optional<uri::LtUri> channel = channelUri(config, base);
        if (!channel) {
            std::printf("  %d %-18s (not in the vocabulary, skipped)\n", n, name.c_str());
            continue;
        }
        const std::string text = channel->getUri();
        std::printf("  %d %-18s %s\n", n, name.c_str(), text.c_str());
        if (channel->getScheme() == uri::Path::Dvbs)
            satelliteUri = text;
        else if (channel->getScheme() == uri::Scheme::File)
            fileUri = text;
        else if (channel->getScheme() == uri::Scheme::YouTube)
            webUri = text;
    }

    std::printf("\nThe parser reads a URI back in one pass and never rejects its input.\n");
    if (!satelliteUri.empty())
        showFields(satelliteUri);
    if (!fileUri.empty()) {
        std::printf("  For \"file\" URIs '#' belongs to the file name, not to a fragment:\n");
        showFields(fileUri);
    }
    if (!webUri.empty()) {
        const uri::LtUri web(webUri);
        std::string target;
        (void)web.getValue(uri::Query::Url, target);  // present: the channel was built with it
        std::printf("  A \"url\" value is stored with '&' and '#' escaped, so it cannot end the\n"
                    "  query early; getValue gives it back as it was:\n    %s\n", target.c_str());
    }
    std::fflush(stdout);
}
