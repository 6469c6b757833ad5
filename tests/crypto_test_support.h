//===- crypto_test_support.h - Files, commands and data for the crypto tests -===//
//
// The crypto and encoding tests use the openssl command-line tool as their peer: they write
// files into a private temporary directory, run openssl on them and compare bytes.
//
//===----------------------------------------------------------------------===//
#ifndef CRYPTO_TEST_SUPPORT_H
#define CRYPTO_TEST_SUPPORT_H

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>
#include <sys/wait.h>

#include <gtest/gtest.h>

namespace crypto_test {

using Bytes = std::vector<unsigned char>;

// A fresh directory under TMPDIR (or /tmp), removed with its contents at the end.
class TempDir {
public:
    TempDir()
    {
        const char* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") +
                              "/ltcrypto-XXXXXX";
        if (mkdtemp(&pattern[0]) == nullptr)
            throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    ~TempDir() { (void)std::system(("rm -rf '" + path_ + "'").c_str()); }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

inline Bytes readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void writeFile(const std::string& path, const Bytes& data)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data.data()),
              static_cast<std::streamsize>(data.size()));
}

inline void writeFile(const std::string& path, const std::string& text)
{
    writeFile(path, Bytes(text.begin(), text.end()));
}

// Runs a shell command; returns its exit status (-1 when it did not exit normally) and
// appends its standard output to *output when given.
inline int runCommand(const std::string& command, std::string* output = nullptr)
{
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr)
        return -1;
    char chunk[4096];
    size_t got;
    while ((got = std::fread(chunk, 1, sizeof chunk, pipe)) > 0) {
        if (output != nullptr)
            output->append(chunk, got);
    }
    const int status = pclose(pipe);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// True when captured has, at the start of a line, "<file>:<line>:<func>(): <message>": the
// debug output's prefix with the source base name and the given function name.
inline bool hasDebugLine(const std::string& captured, const std::string& file,
                         const std::string& func, const std::string& message)
{
    const std::string rest = ":" + func + "(): " + message;
    for (size_t at = captured.find(file + ":"); at != std::string::npos;
         at = captured.find(file + ":", at + 1)) {
        size_t end = at + file.size() + 1;
        const size_t digits = end;
        while (end < captured.size() && std::isdigit(static_cast<unsigned char>(captured[end])))
            ++end;
        if ((at == 0 || captured[at - 1] == '\n') && end > digits &&
            captured.compare(end, rest.size(), rest) == 0)
            return true;
    }
    return false;
}

inline bool haveOpenssl()
{
    return runCommand("openssl version >/dev/null 2>&1") == 0;
}

// Deterministic pseudo-random bytes.
inline Bytes randomBytes(size_t size, uint32_t seed)
{
    std::mt19937 generator(seed);
    Bytes out(size);
    for (auto& b : out)
        b = static_cast<unsigned char>(generator());
    return out;
}

inline std::string hexOf(const unsigned char* data, size_t size)
{
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    for (size_t i = 0; i < size; ++i) {
        out += kDigits[data[i] >> 4];
        out += kDigits[data[i] & 15];
    }
    return out;
}

}  // namespace crypto_test

#endif // CRYPTO_TEST_SUPPORT_H
