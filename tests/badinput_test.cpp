//===- badinput_test.cpp - Every public operation given input it must survive ===//
//
// Null pointers, negative and oversized sizes and times, huge texts, missing and unreadable
// files, truncated encrypted files and overlong key lines, grouped per class: each call must
// give its documented answer and nothing worse. The suite also runs under the sanitizers, so
// an out-of-bounds access or an overflow fails here even where a plain build would go on.
//
//===----------------------------------------------------------------------===//
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <array>
#include <climits>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "crypto_test_support.h"
#include "lfcutil.h"
#include "lfcvector.h"
#include "ltbase64.h"
#include "ltcalendartime.h"
#include "ltconfiguration.h"
#include "ltcrypt.h"
#include "ltimghash.h"
#include "ltmd5.h"
#include "ltpluginloader.h"
#include "ltpointerlist.h"
#include "ltrandom.h"
#include "ltrsa.h"
#include "ltscopemeter.h"
#include "ltsemaphoros.h"
#include "ltsortedlist.h"
#include "lttimerqueue.h"
#include "lturi.h"

namespace {

using namespace crypto_test;

TEST(BadInputPointerList, RefusesWhatItCannotHoldAndAnswersOutOfRangeWithNothing)
{
    alignas(8) static uint64_t objects[20];
    for (int n : {INT_MIN, -1, 0, 1, 65536, INT_MAX}) {
        ltPointerList list(n);
        EXPECT_EQ(1, list.getCurrentMaxEntries()) << n;
        EXPECT_EQ(0, list.getNEntries()) << n;
        EXPECT_EQ(-1, list.tidyUp(true)) << n;
    }
    EXPECT_EQ(0u, ltPointerList::createStorage(-5, true));
    ltPointerList::freeStorage(0);
    ltPointerList list;
    EXPECT_EQ(-1, list.addPointer(nullptr));
    EXPECT_EQ(-1, list.addPointer(reinterpret_cast<char*>(&objects[0]) + 2));
    for (auto& o : objects)
        ASSERT_EQ(0, list.addPointer(&o));  // the array form
    for (int i : {INT_MIN, -1, 28, 1000, INT_MAX}) {
        EXPECT_EQ(nullptr, list.getPointer(i)) << i;
        EXPECT_EQ(-1, list.removePointer(i)) << i;
    }
    EXPECT_EQ(20, list.getNEntries());
}

class CountingList : public ltSortedList {
public:
    using ltSortedList::ltSortedList;
    ~CountingList() override { destroyArray(); }
    void destroyElement(void*) override { ++destroyed; }
    int destroyed = 0;
};

TEST(BadInputSortedList, NonsenseSizesLeaveAnEmptyListThatStillWorks)
{
    unsigned char record[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    for (int size : {0, -8}) {
        ltSortedList list(size, 4, 0, 4);
        EXPECT_EQ(nullptr, list.array);
        EXPECT_EQ(0, list.add(record));
        EXPECT_EQ(0, list.count);
        EXPECT_EQ(-12, list.expand(1));
    }
    CountingList list(8, -3, 0, -100);  // no first block; growth below zero means "to what is asked"
    EXPECT_EQ(0, list.capacity);
    EXPECT_EQ(0, list.add(record));
    EXPECT_EQ(1, list.capacity);
    EXPECT_EQ(0, list.add(nullptr));
    list.remove(static_cast<void*>(nullptr));
    list.remove(INT_MIN);
    list.remove(INT_MAX);
    bool found = true;
    EXPECT_EQ(0, list.search(nullptr, &found));
    EXPECT_FALSE(found);
    EXPECT_EQ(0, list.search(record, nullptr));
    EXPECT_EQ(nullptr, list[INT_MIN]);
    EXPECT_EQ(nullptr, list[INT_MAX]);
    EXPECT_EQ(0, list.expand(INT_MIN));
    EXPECT_EQ(1, list.count);
    EXPECT_EQ(0, std::memcmp(list[0], record, sizeof record));
    EXPECT_EQ(0, list.destroyed);
}

TEST(BadInputCountedMemory, NullForeignAndOverflowingRequestsAreRefusedOrIgnored)
{
    const int32_t base = lfcUtilMallocUsed;
    EXPECT_EQ(nullptr, lfcUtil::calloc(65536, 65536));  // the product wraps to 0: kept, no check
    EXPECT_EQ(nullptr, lfcUtil::strdup(nullptr));
    EXPECT_EQ(-1, lfcUtil::strcmp(nullptr, "a"));
    EXPECT_EQ(-1, lfcUtil::strcmp("a", nullptr));
    lfcUtil::free(nullptr);
    uint64_t foreign[4] = {};
    lfcUtil::free(&foreign[2]);  // no magic in front: ignored
    EXPECT_EQ(base, lfcUtilMallocUsed);

    static lfcObject o;
    lfcVector v;
    const int refused[] = {v.insert(o, INT_MIN), v.remove(INT_MAX, 1), v.remove(-1, 1), v.replace(o, 0)};
    for (int r : refused)
        EXPECT_EQ(-1, r);
    EXPECT_EQ(-ENOMEM, v.expandTo(INT_MAX));  // more than the counted allocator takes
    EXPECT_EQ(0, v.add(o));
    EXPECT_EQ(0, v.replace(o, INT_MIN));  // only the upper bound is checked: kept
    EXPECT_EQ(0, v.remove(0, INT_MAX));   // cut to the end
    EXPECT_EQ(0, v.getSize());
    lfcVector never(INT_MAX, INT_MAX);  // no array, and every growth step is too big
    EXPECT_EQ(-ENOMEM, never.add(o));
    EXPECT_EQ(0, never.getSize());
    EXPECT_EQ(-1, never.remove(o));
}

TEST(BadInputCalendarTime, OutOfRangeFieldsAreRejectedAndExtremeTimesDoNotOverflow)
{
    ltCalendarTime c;
    // (29, 2, INT_MAX): INT_MAX + 1900 is no leap year, and no overflow.
    for (const auto& d : {std::array<int, 3>{29, 2, INT_MAX}, {INT_MIN, 1, 100}, {1, INT_MAX, 100}, {1, 1, -1}})
        EXPECT_EQ(0, c.setDate(d[0], d[1], d[2])) << d[0] << "." << d[1] << "." << d[2];
    for (const auto& t : {std::array<int, 3>{INT_MIN, 0, 0}, {0, INT_MAX, 0}, {0, 0, -1}})
        EXPECT_EQ(0, c.setTime(t[0], t[1], t[2])) << t[0] << ":" << t[1] << ":" << t[2];
    (void)c.setDate(31, 12, INT_MAX);  // valid fields; mktime may not represent the year
    (void)c.setFromLtTime(ltTime(INT32_MAX, 999999), ltTimeZoneSpec(INT32_MAX, INT32_MAX));
    (void)c.setFromLtTime(ltTime(INT32_MIN, -999999), ltTimeZoneSpec(INT32_MIN, INT32_MIN));
    EXPECT_EQ(0, static_cast<const ltTime&>(ltCalendarTime(31, 2, 120, 25, 61, 99)).sec);
}

TEST(BadInputScopeMeter, UnknownClocksAndNullArgumentsAreIgnored)
{
    for (int clock : {-1, 12345}) {
        ltScopeMeter meter(clock);
        meter.scopeDurationMeasured(nullptr);
        const timespec odd = {-5, 1999999999};
        meter.scopeDurationMeasured(&odd);
        meter.getTimers(nullptr, nullptr);
        timespec total;
        meter.getTimers(&total, nullptr);
        EXPECT_EQ(-4, total.tv_sec);  // one second carried out of the nanoseconds
        EXPECT_EQ(999999999, total.tv_nsec);
        meter.resetTimers();
    }
}

TEST(BadInputTimerQueue, EmptyPointersFindNothingAndOddRecordsAreQueued)
{
    ltTimerQueue queue;
    boost::shared_ptr<ltTimer> none, a, b, out;
    EXPECT_EQ(-2, queue.removeTimer(none));
    EXPECT_FALSE(queue.isInQueue(none));
    const _cspOsalTime_struct unnormal = {5, 1999999999};   // 6.999999999 s, unnormalised
    const _cspOsalTime_struct negative = {-3, -500000000};  // a negative period: one-shot
    EXPECT_EQ(0, queue.setTimer(a, unnormal, negative));
    EXPECT_FALSE(a->isReoccuring());
    const _cspOsalTime_struct farAway = {INT64_MAX / 2, 0}, now = {7, 0};
    EXPECT_EQ(1, queue.setTimer(b, farAway, farAway));
    EXPECT_EQ(1, queue.getExpired(now, out));
    EXPECT_EQ(a, out);
    EXPECT_EQ(0, queue.getExpired(now, out));
    EXPECT_EQ(0, queue.removeAll());
}

TEST(BadInputPluginLoader, NullAndUnloadablePathsAreRefused)
{
    ltPluginLoader loader;
    EXPECT_EQ(0, loader.setURI(nullptr));
    EXPECT_EQ(-1, loader.load());
    EXPECT_EQ(nullptr, loader.lookupSymbol(nullptr));
    TempDir dir;
    writeFile(dir.file("not-elf.so"), Bytes(100, 'x'));
    for (const std::string& path : {std::string(""), dir.path(), dir.file("not-elf.so"), dir.file("missing.so"),
                                    std::string(5000, 'p')}) {
        EXPECT_EQ(0, loader.setURI(path.c_str()));
        EXPECT_EQ(-1, loader.load()) << path.substr(0, 80);
        EXPECT_FALSE(loader.isLoaded());
    }
    EXPECT_EQ(0, loader.unload());
}

TEST(BadInputSemaphore, NamesTheSystemRefusesFailAtOnceWithoutBlocking)
{
    for (const std::string& name : {std::string(""), std::string("/a/b"), "/" + std::string(400, 'n')}) {
        EXPECT_EQ(-1, ltSemaPhoros(std::string(name)).lock(0)) << name.size();
        EXPECT_EQ(-1, ltSemaPhoros(std::string(name)).unlock(0)) << name.size();
        EXPECT_EQ(-1, ltSemaPhoros(std::string(name)).lock(O_CREAT)) << name.size();
    }
}

// The one trap the library documents: get(4294967295) divides by zero.
TEST(BadInputRandomDeathTest, GetOfTheLargestValueTraps)
{
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    ltrandom r;
    EXPECT_EQ(0u, r.get(0));
    EXPECT_LE(r.get(4294967294u), 4294967294u);
    EXPECT_DEATH((void)r.get(4294967295u), "");
}

TEST(BadInputConfiguration, UnreadableAndMalformedFilesGiveAnErrorTextAndDefaults)
{
    TempDir dir;
    auto write = [&](const std::string& name, const std::string& text) {
        writeFile(dir.file(name), text);
        return dir.file(name);
    };
    const std::string self = write("self.info", "k v\n#include \"" + dir.file("self.info") + "\"\n");
    for (const std::string& path : {dir.file("missing.info"), write("unterminated.info", "key \"no closing quote\n"),
                                    write("unmatched.info", "a {\n b 1\n"),
                                    write("braces.info", "a " + std::string(20000, '{') + "\n"),
                                    write("missing-include.info", "#include \"nowhere.info\"\n"), self}) {
        ltConfiguration config(path);
        EXPECT_TRUE(config.initError()) << path;
        EXPECT_FALSE(config.getInitError().empty()) << path;
        EXPECT_EQ("dflt", config.getString("k", "dflt")) << path;
        EXPECT_EQ(-3, config.getInteger("a/b", -3)) << path;
    }
    EXPECT_NE(std::string::npos, ltConfiguration(self).getInitError().find("include depth"));
    // A directory opens but cannot be read, and binary junk: never a tree, never a crash.
    for (const std::string& path : {dir.path(), write("binary.info", std::string("k\0\xff\x01{}\"\\\n", 9))})
        EXPECT_EQ("dflt", ltConfiguration(path).getString("k/x", "dflt"));

    // Deep nesting is read without recursion in the reader.
    std::string deep, path = "n";
    for (int i = 0; i < 2000; ++i)
        deep += "n {\n";
    for (int i = 1; i < 2000; ++i)
        path += "/n";
    ltConfiguration nested(write("deep.info", deep + "leaf 7\n" + std::string(2000, '}') + "\n"));
    ASSERT_FALSE(nested.initError()) << nested.getInitError();
    EXPECT_EQ(7, nested.getInteger(path + "/leaf", 0));

    // A large file and strange keys. The first put of a key ending in '/' may store its value
    // in a new child with an empty name; once the node exists, puts go where lookups find it.
    std::string big;
    for (int i = 0; i < 50000; ++i)
        big += "k" + std::to_string(i) + " " + std::to_string(i) + "\n";
    ltConfiguration large(write("large.info", big));
    ASSERT_FALSE(large.initError());
    EXPECT_EQ(49999, large.getInteger("k49999", 0));
    EXPECT_EQ("dflt", large.getString(std::string(100000, 'k'), "dflt"));
    EXPECT_EQ("dflt", large.getString(std::string("k1\0x", 4), "dflt"));
    EXPECT_EQ(0, large.getInteger("////", 0));
    for (const std::string& key : {std::string("a/"), std::string("/"), std::string("x//"), std::string("")}) {
        large.putString(key, "v");
        large.putString(key, "w");
        EXPECT_EQ("w", large.getString(key, "dflt")) << key;
        large.putInteger(key, -9);
        EXPECT_EQ(-9, large.getInteger(key, 0)) << key;
    }
}

TEST(BadInputUri, HugeAndBrokenTextsParseWithoutError)
{
    using ta::tarvotools::uri::LtUri;
    std::string many = "dvbt://plain/search?";
    for (int i = 0; i < 20000; ++i)
        many += "k" + std::to_string(i) + "=" + std::to_string(i) + "&";
    for (const std::string& text : {std::string(1 << 20, 'x'), std::string(1 << 16, ':'), std::string(1 << 16, '?'),
                                    std::string(1 << 16, '='), std::string("a:\0//b?c=\0#\0", 12), std::string("s:"),
                                    std::string(":"), std::string("s://"), std::string("s:///"), std::string("s:?"),
                                    std::string("s:#"), std::string("s://?=&#"), many}) {
        LtUri u(text);
        const std::string again = u.getUri();
        if (u.getScheme().empty()) {
            EXPECT_EQ(text, again);
        }
    }
    LtUri u(many);
    EXPECT_EQ(20000u, u.getQueryKeys().size());
    unsigned n = 5;
    EXPECT_EQ(0, u.getValue("k19999", n));
    EXPECT_EQ(19999u, n);
    EXPECT_EQ(0, u.addQuery("big", std::string(100000, '9')));
    EXPECT_EQ(-1, u.getValue("big", n));  // beyond 32 bits: not converted, n left alone
    EXPECT_EQ(-1, u.getValue("", n));
    EXPECT_EQ(19999u, n);
    EXPECT_EQ(0, u.removeQuery(""));
    EXPECT_EQ(0, u.removeQuery("nothing"));
    u.removeQueries();
    EXPECT_EQ("dvbt://plain/search", u.getUri());
}

TEST(BadInputBase64, NullEmptyAndOversizedArgumentsAreRefused)
{
    const unsigned char data[3] = {'a', 'b', 'c'};
    char* text = reinterpret_cast<char*>(0x1);  // must stay untouched
    unsigned char* out = reinterpret_cast<unsigned char*>(0x1);
    const int refused[] = {ltBase64().encode(nullptr, 3, &text), ltBase64().encode(data, 0, &text),
                           ltBase64().encode(data, 0x80000000u, &text), ltBase64().decode(nullptr, 4, &out),
                           ltBase64().decode("YWJj", 0, &out), ltBase64().decode("YWJj", UINT_MAX, &out)};
    for (int r : refused)
        EXPECT_EQ(-22, r);
    EXPECT_EQ(reinterpret_cast<char*>(0x1), text);
    EXPECT_EQ(reinterpret_cast<unsigned char*>(0x1), out);

    // Garbage and NUL bytes decode to nothing (OpenSSL route) or stop the own decoder.
    const std::string garbage = std::string("\0\0\0\0====\n\n", 10) + std::string(1 << 16, '\xff');
    out = nullptr;
    EXPECT_LE(ltBase64().decode(garbage.data(), static_cast<unsigned>(garbage.size()), &out), 0);
    delete[] out;
    std::vector<unsigned char> bytes = {1, 2, 3};
    ltBase64().decode(garbage, bytes);
    EXPECT_TRUE(bytes.empty());
    ltBase64().decode(std::string(1 << 20, 'A'), bytes);  // a megabyte of one line
    EXPECT_EQ(size_t{3} << 18, bytes.size());
}

TEST(BadInputDigests, NullBuffersAndStatesAreRefusedOrIgnored)
{
    LTmd5 md5("abc");
    EXPECT_EQ(-22, md5.getHash(nullptr, 16));
    EXPECT_EQ(-22, md5.getHash(nullptr, 0));
    // Null data is ignored like a non-positive length, and so is a null state.
    lt_md5_state_t state;
    lt_md5_init(&state);
    lt_md5_append(&state, nullptr, 100);
    lt_md5_append(&state, "abc", -1);
    lt_md5_append(&state, "abc", 3);
    unsigned char digest[16], expected[16];
    lt_md5_finish(&state, digest);
    ASSERT_EQ(0, md5.getHash(expected, sizeof expected));
    EXPECT_EQ(0, std::memcmp(expected, digest, sizeof digest));
    lt_md5_init(nullptr);
    lt_md5_append(nullptr, "abc", 3);
    lt_md5_finish(nullptr, digest);
    lt_md5_finish(&state, nullptr);

    ltimghash hash;
    const auto* abc = reinterpret_cast<const unsigned char*>("abc");
    EXPECT_TRUE(hash.update(nullptr, 0));
    EXPECT_FALSE(hash.update(nullptr, 10));  // a failed step: sticky
    EXPECT_FALSE(hash.update(abc, 3));
    EXPECT_FALSE(hash.finalize());
    EXPECT_FALSE(hash.finalize());  // the context was reset: still no crash
    EXPECT_FALSE(hash.update(abc, 3));
    EXPECT_NE(nullptr, hash.Hash());
}

TEST(BadInputCrypt, MissingAndTruncatedFilesGiveTheirCodes)
{
    TempDir dir;
    ltcrypt crypt;
    const std::string plain = dir.file("plain"), sealed = dir.file("sealed"), out = dir.file("out");
    const Bytes text(100, 'A');  // its last block never looks like padding
    writeFile(plain, text);
    ASSERT_EQ(0, crypt.encryptFile("pw", plain, sealed));
    const Bytes full = readFile(sealed);
    ASSERT_EQ(16u + 112u, full.size());

    // Every truncation: a header cut short is "not valid file"; a cut body decrypts to a
    // prefix of the plain text, and a missing final block is not an error.
    for (size_t cut = 0; cut < full.size(); cut += 5) {
        writeFile(dir.file("cut"), Bytes(full.begin(), full.begin() + static_cast<long>(cut)));
        (void)std::remove(out.c_str());
        const int r = crypt.decryptFile("pw", dir.file("cut"), out);
        const Bytes got = readFile(out);
        EXPECT_EQ(cut < 8 ? -2 : 0, r) << cut;
        EXPECT_LE(got.size(), text.size()) << cut;
        EXPECT_TRUE(std::equal(got.begin(), got.end(), text.begin())) << cut;
    }
    // The file-layer forms report open failures as codes, whatever the volume number.
    for (int volume : {-1, 0, 12345}) {
        EXPECT_EQ(-2, crypt.decryptFile("pw", volume, dir.file("missing"), volume, out)) << volume;
        EXPECT_EQ(-2, crypt.encryptFile("pw", volume, dir.file("missing"), volume, out)) << volume;
    }
    // Odd passwords are only bytes to the key derivation.
    for (const std::string& password : {std::string(), std::string("\0\0", 2), std::string(1 << 20, 'p')}) {
        (void)std::remove(dir.file("odd").c_str());
        (void)std::remove(out.c_str());
        ASSERT_EQ(0, crypt.encryptFile(password, plain, dir.file("odd")));
        EXPECT_EQ(0, crypt.decryptFile(password, dir.file("odd"), out));
        EXPECT_EQ(text, readFile(out));
    }
}

// Key files live at fixed paths: runWithPrivateKeyDir hides the real ones.
TEST(BadInputRsa, OverlongAndBrokenKeyFilesLeaveAnObjectThatFailsCleanly)
{
    runWithPrivateKeyDir([] {
        const std::string production = kKeyDir + "/production.key";
        unsigned char from[256] = {}, to[256];
        from[255] = 2;
        auto load = [&](const std::string& text) {
            std::ofstream(production, std::ios::binary) << text;
            return ltrsa(1);
        };
        // A 2000-digit modulus line is read in 768-byte pieces; the rest of the line does not
        // start with "<name>:" and is skipped. The last accepted line is "E": zero modulus.
        ltrsa longLine = load("N:" + std::string(2000, 'F') + "\nE:10001\n");
        EXPECT_FALSE(longLine.decryptSignature(from, to));
        // A piece that happens to start with "E:" counts as an "E" line of its own.
        ltrsa piece = load("N:" + std::string(765, 'C') + "E:3\n");
        EXPECT_FALSE(piece.encryptSignature(from, to));
        // One enormous line without a newline, binary junk, an empty file: invalid objects.
        for (const std::string& text : {std::string(100000, 'N'), std::string("\0\xff:\n:\n\x01", 7), std::string()}) {
            ltrsa junk = load(text);
            EXPECT_FALSE(junk.decryptSignature(from, to));
            EXPECT_FALSE(junk.encryptSignature(nullptr, nullptr));
        }
        // A valid object (last accepted line "N", exponent zero) refuses null blocks.
        ltrsa valid = load("E:3\nN:" + std::string(511, 'F') + "1\n");
        EXPECT_TRUE(valid.decryptSignature(from, to));
        EXPECT_FALSE(valid.decryptSignature(nullptr, to));
        EXPECT_FALSE(valid.encryptSignature(from, nullptr));
    });
}

}  // namespace
