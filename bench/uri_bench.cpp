//===- uri_bench.cpp - LtUri parse and compose against uriparser ----------===//
//
// One iteration handles a set of 14 realistic channel and media URIs, built from the
// exported vocabulary (broadcast services with their tuning queries, external inputs,
// recordings, files, streams). items_per_second counts URIs.
//   - UriLibraryParseCompose: LtUri(text) then getUri(), the goal's figure.
//   - UriLibraryParse: LtUri(text) only.
//   - UriparserParse: uriParseSingleUriA plus uriFreeUriMembersA (RFC 3986 split, no copies).
//   - UriparserParseQuery: the same plus uriDissectQueryMallocA, which splits the query into
//     key/value pairs as LtUri does.
//   - UriparserParseRecompose: parse, dissect the query and write the text back with
//     uriToStringA, the closest match of the library's work.
//   - UriDataModelFloor: no parsing at all, only the strings, std::map and std::vector that
//     an LtUri holds, filled with the same items: the floor of any parser that keeps them.
//
//===----------------------------------------------------------------------===//
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <uriparser/Uri.h>

#include "lturi.h"

namespace {

namespace U = ta::tarvotools::uri;

std::string query(std::initializer_list<std::pair<const std::string*, const char*>> items)
{
    std::string out;
    for (const auto& item : items) {
        out += out.empty() ? "?" : "&";
        out += *item.first + "=" + item.second;
    }
    return out;
}

std::string broadcast(const std::string& system, const std::string& authority, const std::string& selector)
{
    return system + "://" + authority + "/" + selector;
}

const std::vector<std::string>& uris()
{
    using namespace U;
    static const std::vector<std::string> set = {
        broadcast(Path::Dvbt, Authority::Plain, Path::Search) +
            query({{&Query::Onid, "8916"}, {&Query::Tsid, "1"}, {&Query::Sid, "28006"}, {&Query::Frequency, "474000"},
                   {&Query::Bandwidth, "8"}, {&Query::PlpId, "0"}, {&Query::Frontend, "0"}}),
        broadcast(Path::Dvbc, Authority::Servicelist, Path::Lcn) +
            query({{&Query::Id, "101"}, {&Query::Onid, "61441"}, {&Query::Tsid, "1051"}, {&Query::Sid, "10301"},
                   {&Query::Frequency, "346000"}, {&Query::Symbolrate, "6900"}, {&Query::Modulation, "256"}}),
        broadcast(Path::Dvbs, Authority::Plain, Path::Uid) +
            query({{&Query::SatId, "192"}, {&Query::SatIndex, "1"}, {&Query::DiseqcAttr, "0"},
                   {&Query::Frequency, "11836"}, {&Query::Symbolrate, "27500"}, {&Query::Polarization, "h"},
                   {&Query::Band, "high"}, {&Query::ModCod, "8psk"}, {&Query::CodeRate, "2_3"},
                   {&Query::Onid, "1"}, {&Query::Tsid, "1101"}, {&Query::Sid, "28106"}}),
        broadcast(Path::Dvbip, Authority::Plain, Path::Stream) +
            query({{&Query::Onid, "1"}, {&Query::Tsid, "2"}, {&Query::Sid, "3"}, {&Query::VideoPid, "101"},
                   {&Query::AudioPid, "102"}, {&Query::PcrPid, "101"}, {&Query::VideoStreamType, "27"},
                   {&Query::AudioStreamType, "15"}}),
        broadcast(Path::Analog, Authority::Plain, Path::Search) +
            query({{&Query::Frequency, "182250"}, {&Query::ColStd, "pal"}, {&Query::BroadcastStd, "bg"},
                   {&Query::ServiceSAP, "0"}, {&Query::PhysicalChannelIndex, "5"}}),
        broadcast(Path::Atsc, Authority::Plain, Path::Lcn) +
            query({{&Query::PhysicalChannelIndex, "14"}, {&Query::CableFlag, "0"}, {&Query::AtscType, "2"},
                   {&Query::Frequency, "473000"}}),
        broadcast(Path::Isdb, Authority::Plain, Path::Lcn) +
            query({{&Query::Id, "3"}, {&Query::Onid, "32736"}, {&Query::Tsid, "32736"}, {&Query::Sid, "1024"},
                   {&Query::videoPid, "273"}, {&Query::audioPid, "274"}, {&Query::pcrPid, "273"}}),
        Scheme::External + "://" + Authority::Plain + "/" + Path::Hdmi +
            query({{&Query::Id, "1"}, {&Query::SignalType, Value::Rgb.c_str()}}),
        Scheme::External + "://" + Authority::Plain + "/" + Path::Scart +
            query({{&Query::SignalType, Value::Auto_Cvbs_Yc.c_str()}, {&Query::OutputSignalType, Value::Cvbs.c_str()}}),
        Scheme::File + ":///mnt/usb/Recordings/news.ts" + query({{&Query::Position, "120"}, {&Query::Speed, "1"}}),
        Scheme::Rec + "://" + Authority::Plain + "/" + Path::Stream +
            query({{&Query::Id, "17"}, {&Query::Encrypted, "1"}, {&Query::Key, "0a1b2c3d"}}),
        Scheme::YouTube + "://" + Authority::Plain + "/" + Path::Stream +
            query({{&Query::Url, "https://www.example.com/watch?v=abc%26t=10s"}}),
        Scheme::Rtsp + "://192.0.2.10:554/live/ch1" +
            query({{&Query::Id, "5"}, {&Query::ViaCam, "1"}, {&Query::ViaTuner, "0"}}) + "#top",
        Scheme::Http + "://example.com/media/ch1.m3u8" + query({{&Query::GroupId, "3"}, {&Query::SlotConfig, "2"}}),
    };
    return set;
}

void reportUris(benchmark::State& state)
{
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(uris().size()));
}

void UriLibraryParseCompose(benchmark::State& state)
{
    for (auto _ : state) {
        for (const std::string& text : uris()) {
            U::LtUri uri(text);
            std::string back = uri.getUri();
            benchmark::DoNotOptimize(back);
        }
    }
    reportUris(state);
}

void UriLibraryParse(benchmark::State& state)
{
    for (auto _ : state) {
        for (const std::string& text : uris()) {
            U::LtUri uri(text);
            benchmark::DoNotOptimize(uri);
        }
    }
    reportUris(state);
}

void UriparserParse(benchmark::State& state)
{
    int failures = 0;
    for (auto _ : state) {
        for (const std::string& text : uris()) {
            UriUriA uri;
            const char* error = nullptr;
            if (uriParseSingleUriA(&uri, text.c_str(), &error) != URI_SUCCESS) {
                ++failures;
                continue;
            }
            benchmark::DoNotOptimize(uri);
            uriFreeUriMembersA(&uri);
        }
    }
    reportUris(state);
    state.counters["failures"] = failures;
}

void UriparserParseQuery(benchmark::State& state)
{
    int failures = 0;
    for (auto _ : state) {
        for (const std::string& text : uris()) {
            UriUriA uri;
            const char* error = nullptr;
            if (uriParseSingleUriA(&uri, text.c_str(), &error) != URI_SUCCESS) {
                ++failures;
                continue;
            }
            UriQueryListA* items = nullptr;
            int count = 0;
            if (uriDissectQueryMallocA(&items, &count, uri.query.first, uri.query.afterLast) == URI_SUCCESS)
                uriFreeQueryListA(items);
            uriFreeUriMembersA(&uri);
        }
    }
    reportUris(state);
    state.counters["failures"] = failures;
}

void UriparserParseRecompose(benchmark::State& state)
{
    int failures = 0;
    std::string out;
    for (auto _ : state) {
        for (const std::string& text : uris()) {
            UriUriA uri;
            const char* error = nullptr;
            if (uriParseSingleUriA(&uri, text.c_str(), &error) != URI_SUCCESS) {
                ++failures;
                continue;
            }
            UriQueryListA* items = nullptr;
            int count = 0;
            if (uriDissectQueryMallocA(&items, &count, uri.query.first, uri.query.afterLast) == URI_SUCCESS)
                uriFreeQueryListA(items);
            int chars = 0;
            if (uriToStringCharsRequiredA(&uri, &chars) == URI_SUCCESS) {
                out.resize(static_cast<size_t>(chars) + 1);
                if (uriToStringA(&out[0], &uri, chars + 1, nullptr) != URI_SUCCESS)
                    ++failures;
                benchmark::DoNotOptimize(out);
            }
            uriFreeUriMembersA(&uri);
        }
    }
    reportUris(state);
    state.counters["failures"] = failures;
}

// What the object's data alone costs, without any parsing: the fields of each URI (split
// beforehand) copied into strings, the query items into a std::map and their keys into a
// std::vector, as LtUri keeps them, then released. The floor of UriLibraryParse.
void UriDataModelFloor(benchmark::State& state)
{
    struct Split {
        std::string scheme, authority, path;
        std::vector<std::pair<std::string, std::string>> items;
    };
    std::vector<Split> split;
    for (const std::string& text : uris()) {
        UriUriA uri;
        const char* error = nullptr;
        if (uriParseSingleUriA(&uri, text.c_str(), &error) != URI_SUCCESS)
            continue;
        Split s;
        s.scheme.assign(uri.scheme.first, uri.scheme.afterLast);
        s.authority.assign(uri.hostText.first, uri.hostText.afterLast);
        for (UriPathSegmentA* seg = uri.pathHead; seg != nullptr; seg = seg->next)
            s.path.append(seg->text.first, seg->text.afterLast).append("/");
        UriQueryListA* items = nullptr;
        int count = 0;
        if (uriDissectQueryMallocA(&items, &count, uri.query.first, uri.query.afterLast) == URI_SUCCESS) {
            for (UriQueryListA* q = items; q != nullptr; q = q->next)
                s.items.emplace_back(q->key, q->value != nullptr ? q->value : "");
            uriFreeQueryListA(items);
        }
        uriFreeUriMembersA(&uri);
        split.push_back(std::move(s));
    }
    for (auto _ : state) {
        for (const Split& s : split) {
            std::string text(s.scheme + s.authority + s.path), scheme(s.scheme), authority(s.authority), path(s.path);
            std::map<std::string, std::string> queries;
            std::vector<std::string> keys;
            for (const auto& item : s.items) {
                queries.emplace(item.first, item.second);
                keys.push_back(item.first);
            }
            benchmark::DoNotOptimize(queries);
            benchmark::DoNotOptimize(text);
        }
    }
    reportUris(state);
}

}  // namespace

BENCHMARK(UriDataModelFloor)->MinTime(0.5);
BENCHMARK(UriLibraryParseCompose)->MinTime(0.5);
BENCHMARK(UriLibraryParse)->MinTime(0.5);
BENCHMARK(UriparserParse)->MinTime(0.5);
BENCHMARK(UriparserParseQuery)->MinTime(0.5);
BENCHMARK(UriparserParseRecompose)->MinTime(0.5);
