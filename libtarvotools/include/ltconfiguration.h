//===- ltconfiguration.h - Read-mostly store over one INFO file -----------===//
///
/// \class ltConfiguration
/// ltConfiguration reads one configuration file in Boost's INFO tree format when it is built
/// and answers lookups by key path from the tree in memory. It never writes the file: puts
/// change the in-memory tree only, and those changes end with the object. There is no save.
///
/// Key paths use '/' as the separator, not the tree's usual '.': "tuner/dvbt/bandwidth" is
/// the node bandwidth inside dvbt inside tuner, while "video.mode" is one node whose name
/// holds a dot (the platform's keys contain dots).
///
/// No locking: several threads may read one object at once as long as nobody puts; puts need
/// the caller's own exclusion.
///
//===----------------------------------------------------------------------===//
#ifndef LTCONFIGURATION_H
#define LTCONFIGURATION_H

#include <string>

#include <boost/property_tree/ptree.hpp>

#include "ltexport.h"

class LT_EXPORT ltConfiguration {
public:
    /// Reads the file at `configurationFilePath` into the tree, with the global locale. The
    /// constructor does not fail on a bad file: an unreadable file, bad syntax or a failing
    /// "#include" leaves the tree empty and keeps the parser's text as the init error
    /// ("<file>(<line>): <reason>", the line only when known). An empty path reads nothing and
    /// reports no error. Exceptions other than the parser's (memory exhaustion) pass through.
    ltConfiguration(const std::string& configurationFilePath);

    /// Frees the tree and both strings; writes nothing to the file.
    virtual ~ltConfiguration();

    ltConfiguration(const ltConfiguration&) = delete;
    ltConfiguration& operator=(const ltConfiguration&) = delete;

    /// True exactly when reading the file failed.
    bool initError() const;

    /// The parser's error text; empty when the file was read or the path was empty.
    std::string getInitError() const;

    /// The path given to the constructor, unchanged.
    std::string getConfigurationFilePath() const;

    /// The value of the node at `key`, or `defaultValue` when there is no such node. A node
    /// with an empty value gives the empty string. Of several same-named siblings the first in
    /// file order is found.
    std::string getString(const std::string& key, const std::string& defaultValue) const;

    /// The node's value read as a decimal int (leading white space and a sign allowed,
    /// trailing white space only), or `defaultValue` when the node is missing or its value
    /// does not convert: "0x10", "12a", "" and values beyond 32 bits give the default, silently.
    int getInteger(const std::string& key, int defaultValue) const;

    /// Sets the value of the node at `key`, creating it and any missing parents (each new node
    /// after its existing siblings): the tree's put() with '/' as the separator. In memory only.
    /// Kept as the tree does it: a key ending in '/' names the node before the '/', as in a
    /// lookup, when that node exists; when it does not, the put creates it and stores the value
    /// in a new child with an empty name below it ("a/" on a tree without "a" writes what
    /// getString("a//") reads). The empty key names the root.
    void putString(const std::string& key, const std::string& value);

    /// As putString (the same paths), with the value written as decimal text ("-5").
    void putInteger(const std::string& key, int value);

    /// Logs every node below `tree` depth first through the debug output, one line per node:
    /// "<file>:<line>:print(): <depth as %02d>: <key> = <value>". Pass a root and 0. The library
    /// never calls it; it logs any tree the caller holds.
    void print(const boost::property_tree::ptree& tree, int depth) const;

private:
    friend struct ltAbiLayout;  // the ABI test reads the field offsets; nothing else
    std::string configurationFilePath_;
    std::string initError_;               // empty when nothing went wrong
    boost::property_tree::ptree tree_;    // empty unless the file was read without error
};

#endif // LTCONFIGURATION_H
