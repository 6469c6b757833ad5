//===- ltconfiguration.cpp - INFO file store with '/'-separated key paths -===//
//
// Reading, lookups and puts are Boost.PropertyTree's own; this file fixes the path separator,
// turns a parser error into the stored init error and formats print().
//
//===----------------------------------------------------------------------===//
// The tree's put() asserts when it creates the node of a key that ends in '/' and assertions
// are on; without them it puts the value into a new child with an empty name. Applications
// see the latter in every build of the library.
#define BOOST_DISABLE_ASSERTS
#include "ltconfiguration.h"

#include <locale>

#include <boost/optional.hpp>
#include <boost/property_tree/info_parser.hpp>

#include "ltdebug.h"

namespace {

using Tree = boost::property_tree::ptree;

// Keys of the platform contain dots, so paths are split at '/' only.
constexpr char kKeySeparator = '/';

Tree::path_type keyPath(const std::string& key)
{
    return Tree::path_type(key, kKeySeparator);
}

}  // namespace

ltConfiguration::ltConfiguration(const std::string& configurationFilePath)
    : configurationFilePath_(configurationFilePath)
{
    if (configurationFilePath_.empty())
        return;  // unloaded: no error, every lookup gives its default

    try {
        boost::property_tree::info_parser::read_info(configurationFilePath_, tree_,
                                                     std::locale());
    } catch (const boost::property_tree::info_parser::info_parser_error& e) {
        // The reader fills the tree only on success, so it is still empty here.
        initError_ = e.what();
    }
}

ltConfiguration::~ltConfiguration() = default;

bool ltConfiguration::initError() const
{
    return !initError_.empty();
}

std::string ltConfiguration::getInitError() const
{
    return initError_;
}

std::string ltConfiguration::getConfigurationFilePath() const
{
    return configurationFilePath_;
}

std::string ltConfiguration::getString(const std::string& key,
                                       const std::string& defaultValue) const
{
    const boost::optional<const Tree&> node = tree_.get_child_optional(keyPath(key));
    if (!node)
        return defaultValue;
    return node->data();
}

int ltConfiguration::getInteger(const std::string& key, int defaultValue) const
{
    // The tree's stream translator on the global locale: the whole value must be one int.
    const boost::optional<int> value = tree_.get_optional<int>(keyPath(key));
    return value ? *value : defaultValue;
}

void ltConfiguration::putString(const std::string& key, const std::string& value)
{
    tree_.put(keyPath(key), value);
}

void ltConfiguration::putInteger(const std::string& key, int value)
{
    tree_.put(keyPath(key), value);  // the stream translator on the global locale
}

void ltConfiguration::print(const boost::property_tree::ptree& tree, int depth) const
{
    for (const Tree::value_type& child : tree) {
        LT_DEBUG(kLtDebugLevelDefault, "print", "%02d: %s = %s\n", depth, child.first.c_str(),
                 child.second.data().c_str());
        print(child.second, depth + 1);
    }
}
