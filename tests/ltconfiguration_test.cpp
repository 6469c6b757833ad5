//===- ltconfiguration_test.cpp - INFO store over real files --------------===//
#include "ltconfiguration.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <utility>

#include <boost/property_tree/info_parser.hpp>
#include <gtest/gtest.h>

#include "crypto_test_support.h"

namespace {

[[maybe_unused]] const int kDebugOutputOn = setenv("CSP_DEBUG_QUIET", "0", /*overwrite=*/1);

class ConfigFiles : public testing::Test {
protected:
    std::string write(const std::string& name, const std::string& text) { return dir.put(name, text); }
    crypto_test::TempDir dir;
};

TEST_F(ConfigFiles, ReadsNestedBlocksQuotedStringsIncludesAndDottedKeys)
{
    const std::string tuner = write("tuner.info", "dvbs\n{\n    lnb.lof 9750\n}\n");
    const std::string main = write("main.info",
        "; the platform's settings\n"
        "video.mode 1080p\n"
        "video\n{\n    mode 720p\n}\n"
        "tuner\n{\n    dvbt\n    {\n        bandwidth 8\n        name \"Tuner \\\"A\\\"\\tone\"\n"
        "    }\n    #include \"" + tuner + "\"\n}\n"
        "channel first\nchannel second\n"
        "empty \"\"\n");
    const ltConfiguration config(main);
    ASSERT_FALSE(config.initError()) << config.getInitError();
    // A dot is part of a name; only '/' descends; an include lands in the block that has it.
    EXPECT_EQ("1080p", config.getString("video.mode", "-"));
    EXPECT_EQ("720p", config.getString("video/mode", "-"));
    EXPECT_EQ(8, config.getInteger("tuner/dvbt/bandwidth", 0));
    EXPECT_EQ("Tuner \"A\"\tone", config.getString("tuner/dvbt/name", "-"));
    EXPECT_EQ(9750, config.getInteger("tuner/dvbs/lnb.lof", 0));
    EXPECT_EQ(0, config.getInteger("tuner/dvbs/lnb/lof", 0));
    EXPECT_EQ("first", config.getString("channel", "-"));  // the first of same-named siblings
    EXPECT_EQ("", config.getString("empty", "-"));
    EXPECT_EQ("-", config.getString("tuner/dvbc", "-"));
    EXPECT_EQ("-", config.getString(std::string("video.mode\0x", 12), "-"));  // the whole key counts
}

TEST_F(ConfigFiles, IntegerNeedsTheWholeValueAsOneDecimalInt)
{
    const struct {
        const char* text;
        int expected;  // 77 is the default
    } cases[] = {
        {"12", 12}, {"\" 12 \"", 12}, {"-5", -5}, {"+7", 7}, {"2147483647", 2147483647},
        {"2147483648", 77}, {"99999999999", 77}, {"12a", 77}, {"0x10", 77}, {"\"\"", 77},
        {"1.5", 77}, {"\"1 2\"", 77},
    };
    std::string text;
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i)
        text += "k" + std::to_string(i) + " " + cases[i].text + "\n";
    const ltConfiguration config(write("ints.info", text));
    ASSERT_FALSE(config.initError()) << config.getInitError();
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i)
        EXPECT_EQ(cases[i].expected, config.getInteger("k" + std::to_string(i), 77))
            << "value " << cases[i].text;
    EXPECT_EQ(77, config.getInteger("missing", 77));
}

TEST_F(ConfigFiles, ReadErrorsAreKeptAsTextNamingFileAndLine)
{
    const std::string missing = dir.file("missing.info");
    const std::string unmatched = write("unmatched.info", "a 1\nb\n{\n    c 2\n");
    const std::string stray = write("stray.info", "a 1\n}\n");
    const std::string badInclude = write("include.info", "a 1\n#include \"" + missing + "\"\n");

    const std::pair<std::string, std::string> cases[] = {
        {missing, missing + ": cannot open file for reading"},
        {unmatched, unmatched + "(5): unmatched {"},  // reported at the end of the file
        {stray, stray + "(2): unmatched }"},
        {badInclude, badInclude + "(2): cannot open include file " + missing},
    };
    for (const auto& [path, error] : cases) {
        const ltConfiguration config(path);
        EXPECT_TRUE(config.initError()) << path;
        EXPECT_EQ(error, config.getInitError());
        // Nothing of a failed file is kept, not even the lines before the error.
        EXPECT_EQ("-", config.getString("a", "-")) << path;
    }
}

TEST(ConfigWithoutFile, EmptyPathGivesDefaultsTakesPutsAndPrints)
{
    ltConfiguration config("");
    EXPECT_FALSE(config.initError());
    EXPECT_EQ("", config.getInitError());
    EXPECT_EQ("d", config.getString("a", "d"));
    EXPECT_EQ(-9, config.getInteger("a", -9));

    // Puts work in every state, creating missing parents with empty values.
    config.putString("x/y/z", "1");
    EXPECT_EQ(1, config.getInteger("x/y/z", 0));
    EXPECT_EQ("", config.getString("x/y", "-"));
    config.putInteger("x.y", -5);
    EXPECT_EQ("-5", config.getString("x.y", "-"));

    std::istringstream in("a 1\nb\n{\n c \"two words\"\n d\n {\n  e 3\n }\n}\nf\n");
    boost::property_tree::ptree tree;
    boost::property_tree::info_parser::read_info(in, tree);
    testing::internal::CaptureStderr();
    config.print(tree, 0);  // every node depth first, with its depth
    std::istringstream lines(testing::internal::GetCapturedStderr());
    std::string line, nodes;
    while (std::getline(lines, line)) {
        const size_t mark = line.find(":print(): ");
        EXPECT_EQ(0u, line.rfind("ltconfiguration.cpp:", 0)) << line;
        ASSERT_NE(std::string::npos, mark) << line;
        nodes += line.substr(mark + 10) + "\n";
    }
    EXPECT_EQ("00: a = 1\n00: b = \n01: c = two words\n01: d = \n02: e = 3\n00: f = \n", nodes);
}

TEST_F(ConfigFiles, PutsChangeOnlyTheTreeInMemory)
{
    const std::string text = "name one\nname two\nblock\n{\n    n 1\n}\n";
    const std::string path = write("puts.info", text);
    ltConfiguration config(path);
    config.putString("name", "three");  // replaces the first of the two
    config.putInteger("block/n", 2);
    EXPECT_EQ("three", config.getString("name", "-"));
    EXPECT_EQ(2, config.getInteger("block/n", 0));
    EXPECT_EQ(text, std::string(std::istreambuf_iterator<char>(std::ifstream(path).rdbuf()), {}));
}

}  // namespace
