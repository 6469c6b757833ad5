//===- ltconfiguration_test.cpp - INFO store over real files --------------===//
#include "ltconfiguration.h"

#include <cstdlib>
#include <sstream>
#include <string>
#include <utility>

#include <boost/property_tree/info_parser.hpp>
#include <gtest/gtest.h>

#include "crypto_test_support.h"

namespace {

[[maybe_unused]] const int kDebugOutputOn = setenv("CSP_DEBUG_QUIET", "0", /*overwrite=*/1);

TEST(ConfigFiles, ReadsNestedBlocksQuotedStringsIncludesAndDottedKeys)
{
    crypto_test::TempDir dir;
    const std::string tuner = dir.put("tuner.info", "dvbs\n{\n    lnb.lof 9750\n}\n");
    const std::string main = dir.put("main.info",
        "video.mode 1080p\n"
        "video\n{\n    mode 720p\n}\n"
        "tuner\n{\n    dvbt\n    {\n        bandwidth 8\n    }\n    #include \"" + tuner + "\"\n}\n"
        "channel first\nchannel second\n"
        "empty \"\"\nnumber \" -12 \"\nbad 12a\n");
    const ltConfiguration config(main);
    ASSERT_FALSE(config.initError()) << config.getInitError();
    // A dot is part of a name; only '/' descends; an include lands in the block that has it.
    EXPECT_EQ("1080p", config.getString("video.mode", "-"));
    EXPECT_EQ("720p", config.getString("video/mode", "-"));
    EXPECT_EQ(8, config.getInteger("tuner/dvbt/bandwidth", 0));
    EXPECT_EQ(9750, config.getInteger("tuner/dvbs/lnb.lof", 0));
    EXPECT_EQ("first", config.getString("channel", "-"));  // the first of same-named siblings
    EXPECT_EQ("", config.getString("empty", "-"));
    EXPECT_EQ(-12, config.getInteger("number", 77));  // the whole value must be one int
    EXPECT_EQ(77, config.getInteger("bad", 77));
}

TEST(ConfigFiles, ReadErrorsAreKeptAsTextNamingFileAndLine)
{
    crypto_test::TempDir dir;
    const std::string missing = dir.file("missing.info");
    const std::string unmatched = dir.put("unmatched.info", "a 1\nb\n{\n    c 2\n");
    for (const auto& [path, error] : {std::pair{missing, missing + ": cannot open file for reading"},
                                      {unmatched, unmatched + "(5): unmatched {"}}) {  // at the end
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
    while (std::getline(lines, line))  // each behind "ltconfiguration.cpp:<line>:print(): "
        nodes += line.substr(line.rfind("ltconfiguration.cpp:", 0) == 0 ? line.find(":print(): ") + 10 : 0) + "\n";
    EXPECT_EQ("00: a = 1\n00: b = \n01: c = two words\n01: d = \n02: e = 3\n00: f = \n", nodes);
}

}  // namespace
