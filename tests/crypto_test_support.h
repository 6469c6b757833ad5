// Shared by the tests that work on files: a temporary directory, byte files, the openssl tool,
// open descriptors, the debug line format, and a private RSA key folder.
#ifndef CRYPTO_TEST_SUPPORT_H
#define CRYPTO_TEST_SUPPORT_H

#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/evp.h>

namespace crypto_test {

using Bytes = std::vector<unsigned char>;

inline Bytes readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void writeFile(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary | std::ios::trunc) << text; }
inline void writeFile(const std::string& path, const Bytes& data) { writeFile(path, std::string(data.begin(), data.end())); }

// A fresh directory under TMPDIR (or /tmp), removed with its contents at the end.
class TempDir {
public:
    TempDir() : path_(std::string(getenv("TMPDIR") && *getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp") + "/lttest-XXXXXX")
    {
        if (mkdtemp(&path_[0]) == nullptr)
            throw std::runtime_error("mkdtemp failed");
    }
    ~TempDir() { std::error_code ignored; std::filesystem::remove_all(path_, ignored); }
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    std::string put(const std::string& name, const std::string& text) const { return writeFile(file(name), text), file(name); }

private:
    std::string path_;
};

// A shell command's exit status (-1 if it did not exit); its output is appended to *output.
inline int runCommand(const std::string& command, std::string* output = nullptr)
{
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr)
        return -1;
    char chunk[4096];
    for (size_t got; (got = std::fread(chunk, 1, sizeof chunk, pipe)) > 0;)
        if (output != nullptr)
            output->append(chunk, got);
    const int status = pclose(pipe);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

inline bool haveOpenssl() { return runCommand("openssl version >/dev/null 2>&1") == 0; }

inline long openDescriptors() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }

// True when a line of captured reads "<file>:<line>:<func>(): <message>" (message ends in "\n").
inline bool hasDebugLine(const std::string& captured, const std::string& file, const std::string& func,
                         const std::string& message)
{
    std::istringstream lines(captured);
    for (std::string l; std::getline(lines, l);) {
        const size_t from = file.size() + 1, end = l.find_first_not_of("0123456789", from);
        if (l.compare(0, from, file + ":") == 0 && end != std::string::npos && end > from &&
            l.substr(end) + "\n" == ":" + func + "(): " + message)
            return true;
    }
    return false;
}

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
    std::string out;
    for (size_t i = 0; i < size; ++i)
        out += {"0123456789abcdef"[data[i] >> 4], "0123456789abcdef"[data[i] & 15]};
    return out;
}

inline std::string opensslDigestHex(const Bytes& data, const EVP_MD* type)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    EXPECT_EQ(1, EVP_Digest(data.data(), data.size(), digest, &size, type, nullptr));
    return hexOf(digest, size);
}

inline const std::string kKeyDir = "/usr/local/configuration/keys";  // where ltrsa looks

// In a child: a private mount namespace (a user namespace of its own without root) where an
// empty tmpfs hides kKeyDir, or its nearest existing parent. Returns "" or why it failed.
inline std::string makePrivateKeyDir()
{
    auto put = [](const char* path, const std::string& text) { return bool(std::ofstream(path) << text << std::flush); };
    auto failed = [](const std::string& step) { return step + ": " + std::strerror(errno); };
    if (const uid_t uid = geteuid(); uid != 0) {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0 || !put("/proc/self/setgroups", "deny") ||
            !put("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") ||
            !put("/proc/self/gid_map", "0 " + std::to_string(getegid()) + " 1"))
            return failed("user namespace");
    } else if (unshare(CLONE_NEWNS) != 0) {
        return failed("unshare(CLONE_NEWNS)");
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)  // nothing leaks out
        return failed("making / private");
    std::string base = kKeyDir;
    for (std::error_code e; !base.empty() && !std::filesystem::is_directory(base, e);)
        base = base.substr(0, base.rfind('/'));
    if (base.empty() || base == "/usr")
        return "no directory to hide below /usr";
    if (mount("lt-test-keys", base.c_str(), "tmpfs", 0, "mode=0755") != 0)
        return failed("mounting a tmpfs over " + base);
    std::error_code error;
    std::filesystem::create_directories(kKeyDir, error);
    return std::filesystem::is_directory(kKeyDir, error) ? "" : "could not create " + kKeyDir;
}

// Runs body in a child with a private key directory. The child prints its own failures (or why
// the namespace was refused); the parent reports them, or skips.
inline void runWithPrivateKeyDir(const std::function<void()>& body)
{
    constexpr int kSetupRefused = 77;
    std::fflush(nullptr);  // nothing buffered may be printed twice
    const pid_t child = fork();
    ASSERT_GE(child, 0) << std::strerror(errno);
    if (child == 0) {
        if (const std::string reason = makePrivateKeyDir(); !reason.empty())
            std::fprintf(stderr, "%s\n", reason.c_str()), _exit(kSetupRefused);
        body();
        std::fflush(nullptr);
        _exit(::testing::Test::HasFailure() ? 1 : 0);  // no second run of the exit handlers
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_TRUE(WIFEXITED(status)) << "the child died with signal " << WTERMSIG(status);
    if (WEXITSTATUS(status) == kSetupRefused)
        GTEST_SKIP() << "a private mount namespace for the key files is not permitted here (see above)";
    EXPECT_EQ(0, WEXITSTATUS(status)) << "the child reported failures (see above)";
}

}  // namespace crypto_test

#endif // CRYPTO_TEST_SUPPORT_H
