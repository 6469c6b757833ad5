//===- ltconfiguration.cpp - INFO file store with '/'-separated key paths -===//
//
// Reading and lookups are Boost.PropertyTree's own; this file fixes the path separator, walks
// the path of a put itself (see putAt), turns a parser error into the stored init error and
// formats print().
//
//===----------------------------------------------------------------------===//
#include "ltconfiguration.h"

#include <locale>
#include <vector>

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

// Stores value at the node that a lookup of key finds, creating the missing nodes of the path
// (each after its existing siblings): what the tree's put() does, walked here because put()
// cannot take a key that ends in the separator ("a/"): Boost asserts on it, or puts the value
// one level below the node that lookups find.
//
// The missing part of the path is built apart, value included, and attached in one step: a
// put that runs out of memory throws and leaves the tree as it was, without empty parents.
template <class Value> void putAt(Tree& root, const std::string& key, const Value& value)
{
    Tree::path_type path = keyPath(key);
    Tree* node = &root;
    while (!path.empty()) {
        std::string name = path.reduce();
        const Tree::assoc_iterator found = node->find(name);
        if (found != node->not_found()) {
            node = &found->second;
            continue;
        }
        std::vector<std::string> names{std::move(name)};
        while (!path.empty())
            names.push_back(path.reduce());
        Tree chain;
        chain.put_value(value);
        for (size_t i = names.size() - 1; i > 0; --i) {
            Tree parent;
            parent.push_back(Tree::value_type(names[i], Tree()))->second.swap(chain);
            chain.swap(parent);
        }
        node->push_back(Tree::value_type(names[0], Tree()))->second.swap(chain);
        return;
    }
    node->put_value(value);
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
    putAt(tree_, key, value);
}

void ltConfiguration::putInteger(const std::string& key, int value)
{
    // The tree's stream translator on the global locale, as put() uses.
    putAt(tree_, key, value);
}

void ltConfiguration::print(const boost::property_tree::ptree& tree, int depth) const
{
    for (const Tree::value_type& child : tree) {
        LT_DEBUG(kLtDebugLevelDefault, "print", "%02d: %s = %s\n", depth, child.first.c_str(),
                 child.second.data().c_str());
        print(child.second, depth + 1);
    }
}
