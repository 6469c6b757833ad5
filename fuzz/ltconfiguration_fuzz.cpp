//===- ltconfiguration_fuzz.cpp - Configuration store on arbitrary INFO bytes ===//
//
// Writes the input to a file in a private temporary folder and builds an ltConfiguration
// from it. Whatever the bytes, the constructor must return; an error must come as text, and
// then every lookup gives its default. When the file was read, lookups of the words found in
// the input must give what Boost's own reader gives for the same path with '/' between the
// names, and a put must leave what the tree's own put leaves (Boost's assertions are off here
// as in the library, so a key ending in '/' behaves as in a release build of Boost).
//
// "#include" directives are followed by the reader. Inputs that name a path with '/' in an
// include line are skipped, so that the fuzzer cannot make the reader open /dev or /proc
// files (an endless read); includes of plain names stay within the private folder, where
// only the input file itself exists.
//
//===----------------------------------------------------------------------===//
#define BOOST_DISABLE_ASSERTS
#include "ltconfiguration.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <locale>
#include <string>
#include <vector>

#include <boost/property_tree/info_parser.hpp>
#include <boost/property_tree/ptree.hpp>

#include "fuzz_check.h"

namespace {

namespace pt = boost::property_tree;

const char* const kDefault = "\x01" "default";  // a default that a value is unlikely to equal
std::string folder;

void removeFolder()
{
    (void)std::remove((folder + "/input.info").c_str());
    (void)rmdir(folder.c_str());
}

// True when some "#include" line of the text names a path with a '/'.
bool includesAPath(const std::string& text)
{
    for (size_t at = text.find("include"); at != std::string::npos; at = text.find("include", at + 1)) {
        const size_t end = text.find('\n', at);
        if (text.substr(at, end == std::string::npos ? std::string::npos : end - at).find('/') != std::string::npos)
            return true;
    }
    return false;
}

// Up to a few words of the text, as key candidates.
std::vector<std::string> wordsOf(const std::string& text)
{
    std::vector<std::string> words;
    std::string word;
    for (char c : text) {
        if (c == ' ' || c == '\n' || c == '\t' || c == '{' || c == '}' || c == '"' || c == ';' || c == '\r') {
            if (!word.empty())
                words.push_back(word);
            word.clear();
            if (words.size() >= 8)
                break;
            continue;
        }
        word += c;
    }
    if (!word.empty() && words.size() < 8)
        words.push_back(word);
    if (words.size() >= 2)
        words.push_back(words[0] + "/" + words[1]);
    return words;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    char name[] = "/tmp/ltconfiguration-fuzz-XXXXXX";
    FUZZ_CHECK(mkdtemp(name) != nullptr);
    folder = name;
    std::atexit(removeFolder);
    FUZZ_CHECK(chdir(name) == 0);  // plain include names resolve here
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    if (includesAPath(text))
        return 0;
    const std::string path = folder + "/input.info";
    FILE* f = std::fopen(path.c_str(), "wb");
    FUZZ_CHECK(f != nullptr);
    FUZZ_CHECK(std::fwrite(data, 1, size, f) == size);
    FUZZ_CHECK(std::fclose(f) == 0);

    ltConfiguration config(path);
    FUZZ_CHECK(config.getConfigurationFilePath() == path);
    FUZZ_CHECK(config.initError() == !config.getInitError().empty());

    pt::ptree reference;
    bool referenceRead = true;
    try {
        pt::read_info(path, reference, std::locale());
    } catch (const pt::info_parser::info_parser_error&) {
        referenceRead = false;
    }
    FUZZ_CHECK(referenceRead == !config.initError());

    for (const std::string& key : wordsOf(text)) {
        const std::string value = config.getString(key, kDefault);
        if (config.initError()) {
            FUZZ_CHECK(value == kDefault);
            FUZZ_CHECK(config.getInteger(key, -17) == -17);
            continue;
        }
        const auto node = reference.get_child_optional(pt::ptree::path_type(key, '/'));
        FUZZ_CHECK(value == (node ? node->data() : std::string(kDefault)));
        const auto number = reference.get_optional<int>(pt::ptree::path_type(key, '/'));
        FUZZ_CHECK(config.getInteger(key, -17) == (number ? *number : -17));
    }

    // Puts work in every state, as the tree's own put on the same tree.
    if (config.initError())
        reference.clear();
    FuzzedDataProvider in(data, size);
    const std::string key = in.ConsumeRandomLengthString(16);
    const pt::ptree::path_type keyPath(key, '/');
    const std::string value = in.ConsumeRandomLengthString(16);
    config.putString(key, value);
    reference.put(keyPath, value);
    const auto node = reference.get_child_optional(keyPath);
    FUZZ_CHECK(config.getString(key, kDefault) == (node ? node->data() : std::string(kDefault)));
    const int n = in.ConsumeIntegral<int>();
    config.putInteger(key, n);
    reference.put(keyPath, n);
    const auto number = reference.get_optional<int>(keyPath);
    FUZZ_CHECK(config.getInteger(key, -17) == (number ? *number : -17));
    return 0;
}
