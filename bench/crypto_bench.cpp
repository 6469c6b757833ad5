//===- crypto_bench.cpp - The crypto and encoding classes against OpenSSL --===//
//
// In one run:
//   - the library's MD5 engine against OpenSSL's EVP MD5 on 64 B, 4 KiB and 1 MiB inputs;
//   - the own base64 decoder (ltBase64::decode into a vector) against EVP_DecodeBlock;
//   - ltcrypt::encryptFile / decryptFile of a 64 MiB file against the same through the
//     openssl command-line tool (openssl enc -aes-256-cbc -md md5), process start included.
// Throughput is reported as bytes_per_second. Run with --benchmark_filter to pick a group.
//
//===----------------------------------------------------------------------===//
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include "ltbase64.h"
#include "ltcrypt.h"
#include "ltmd5.h"

namespace {

std::vector<unsigned char> randomBytes(size_t size)
{
    std::mt19937 generator(42);
    std::vector<unsigned char> out(size);
    for (auto& b : out)
        b = static_cast<unsigned char>(generator());
    return out;
}

void setBytesProcessed(benchmark::State& state, size_t perIteration)
{
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(perIteration));
}

// -- MD5

void Md5Library(benchmark::State& state)
{
    const auto data = randomBytes(static_cast<size_t>(state.range(0)));
    unsigned char digest[16];
    for (auto _ : state) {
        lt_md5_state_t md5;
        lt_md5_init(&md5);
        lt_md5_append(&md5, data.data(), static_cast<int>(data.size()));
        lt_md5_finish(&md5, digest);
        benchmark::DoNotOptimize(digest);
    }
    setBytesProcessed(state, static_cast<size_t>(state.range(0)));
}

void Md5Openssl(benchmark::State& state)
{
    const auto data = randomBytes(static_cast<size_t>(state.range(0)));
    EVP_MD* md = EVP_MD_fetch(nullptr, "MD5", nullptr);  // fetched once: no lookup per digest
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    for (auto _ : state) {
        EVP_DigestInit_ex(ctx, md, nullptr);
        EVP_DigestUpdate(ctx, data.data(), data.size());
        EVP_DigestFinal_ex(ctx, digest, &size);
        benchmark::DoNotOptimize(digest);
    }
    EVP_MD_CTX_free(ctx);
    EVP_MD_free(md);
    setBytesProcessed(state, static_cast<size_t>(state.range(0)));
}

BENCHMARK(Md5Library)->Arg(64)->Arg(4096)->Arg(1 << 20);
BENCHMARK(Md5Openssl)->Arg(64)->Arg(4096)->Arg(1 << 20);

// -- base64 decoding of one line of text (the form both decoders take)

std::string base64Text(size_t bytes)
{
    const auto data = randomBytes(bytes);
    std::string text(4 * ((bytes + 2) / 3) + 1, '\0');
    const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&text[0]), data.data(),
                                       static_cast<int>(bytes));
    text.resize(static_cast<size_t>(length));
    return text;
}

void Base64DecodeLibrary(benchmark::State& state)
{
    const std::string text = base64Text(static_cast<size_t>(state.range(0)));
    std::vector<unsigned char> out;
    for (auto _ : state) {
        ltBase64().decode(text, out);
        benchmark::DoNotOptimize(out.data());
    }
    setBytesProcessed(state, text.size());
}

void Base64DecodeOpenssl(benchmark::State& state)
{
    const std::string text = base64Text(static_cast<size_t>(state.range(0)));
    std::vector<unsigned char> out(text.size());
    for (auto _ : state) {
        const auto* in = reinterpret_cast<const unsigned char*>(text.data());
        const int got = EVP_DecodeBlock(out.data(), in, static_cast<int>(text.size()));
        benchmark::DoNotOptimize(got);
    }
    setBytesProcessed(state, text.size());
}

BENCHMARK(Base64DecodeLibrary)->Arg(4096)->Arg(1 << 20);
BENCHMARK(Base64DecodeOpenssl)->Arg(4096)->Arg(1 << 20);

// -- 64 MiB file encryption against openssl enc

constexpr size_t kFileSize = size_t{64} << 20;
const char* const kPassword = "benchmark password";

// A directory with the 64 MiB plain file and its encrypted form, made on first use.
struct FileFixture {
    std::string dir;
    std::string plain;
    std::string encrypted;
    std::string output;

    FileFixture()
    {
        const char* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") +
                              "/ltcrypt-bench-XXXXXX";
        if (mkdtemp(&pattern[0]) == nullptr) {
            std::perror("mkdtemp");
            std::exit(1);
        }
        dir = pattern;
        plain = dir + "/plain";
        encrypted = dir + "/encrypted";
        output = dir + "/output";
        const auto data = randomBytes(kFileSize);
        FILE* f = std::fopen(plain.c_str(), "wb");
        if (f == nullptr || std::fwrite(data.data(), 1, data.size(), f) != data.size()) {
            std::perror(plain.c_str());
            std::exit(1);
        }
        std::fclose(f);
        ltcrypt crypt;
        if (crypt.encryptFile(kPassword, plain, encrypted) != 0)
            std::exit(1);
    }
    ~FileFixture() { (void)std::system(("rm -rf '" + dir + "'").c_str()); }
};

FileFixture& files()
{
    static FileFixture fixture;
    return fixture;
}

std::string opensslEnc(bool decrypt, const std::string& in, const std::string& out)
{
    return std::string("openssl enc ") + (decrypt ? "-d " : "") +
           "-aes-256-cbc -md md5 -pass 'pass:" + kPassword + "' -in '" + in + "' -out '" + out +
           "' 2>/dev/null";
}

// Each run writes a fresh output file, as openssl enc does (it truncates; ltcrypt does not).
template <class Body>
void runFileBenchmark(benchmark::State& state, Body body)
{
    FileFixture& f = files();
    for (auto _ : state) {
        state.PauseTiming();
        (void)unlink(f.output.c_str());
        state.ResumeTiming();
        if (!body(f)) {
            state.SkipWithError("the operation failed");
            break;
        }
    }
    setBytesProcessed(state, kFileSize);
}

void EncryptFileLibrary(benchmark::State& state)
{
    ltcrypt crypt;
    runFileBenchmark(state, [&](FileFixture& f) {
        return crypt.encryptFile(kPassword, f.plain, f.output) == 0;
    });
}

void EncryptFileOpensslEnc(benchmark::State& state)
{
    runFileBenchmark(state, [](FileFixture& f) {
        return std::system(opensslEnc(false, f.plain, f.output).c_str()) == 0;
    });
}

void DecryptFileLibrary(benchmark::State& state)
{
    ltcrypt crypt;
    runFileBenchmark(state, [&](FileFixture& f) {
        return crypt.decryptFile(kPassword, f.encrypted, f.output) == 0;
    });
}

void DecryptFileOpensslEnc(benchmark::State& state)
{
    runFileBenchmark(state, [](FileFixture& f) {
        return std::system(opensslEnc(true, f.encrypted, f.output).c_str()) == 0;
    });
}

BENCHMARK(EncryptFileLibrary)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK(EncryptFileOpensslEnc)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK(DecryptFileLibrary)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK(DecryptFileOpensslEnc)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);

}  // namespace
