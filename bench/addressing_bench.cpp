// Costs of StorageIRI: copies, cached accessors, comparisons against the same work on the
// ASCII texts; and side by side with the peers on the same texts: parsing a file IRI and a
// nested container IRI against Boost.URL's parse_uri (the limit: a parse that keeps no copy),
// GIO's g_file_new_for_uri and Poco::URI; and 100,000 locations as keys of std::unordered_map
// and std::map against the same texts as std::string keys (the limit), GFile keys of a
// GHashTable and Poco::URI keys. The flat case puts ours and the limit in Boost's open-addressing
// table, the kind of table a GHashTable is, so that it compares keys rather than containers.
//
// Benchmark names <case>/ours, <case>/peer:<who> and <case>/limit:<who> make the rows of
// bench/report's table.
#include <cstdio>
#include <malloc.h>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include <benchmark/benchmark.h>
#include <boost/container_hash/hash.hpp>
#include <boost/unordered/unordered_flat_map.hpp>
#include <boost/url/parse.hpp>

#include "storage/provider/StorageIRI.h"

#if QKFL_BENCH_GIO
#include <gio/gio.h>
#endif
#if QKFL_BENCH_POCO
#include <Poco/URI.h>
#endif

namespace {

using foundation::storage::provider::StorageIRI;
using foundation::storage::provider::ustring;

const ustring kText = u"file:///home/user/Documents/report-2026.pdf";
const std::string kUtf8 = "file:///home/user/Documents/report-2026.pdf";
const ustring kNestedText = u"zip:zip:file:///home/user/Documents/archive.zip!/inner.zip!/docs/report-2026.pdf";
const std::string kNestedUtf8 = "zip:zip:file:///home/user/Documents/archive.zip!/inner.zip!/docs/report-2026.pdf";

void copy(benchmark::State& state) {
    const StorageIRI location(kText);
    for (auto _ : state) {
        StorageIRI copied = location;
        benchmark::DoNotOptimize(copied);
    }
}
BENCHMARK(copy);

// Each accessor once before timing, so every timed call is a second call.
template <class Accessor>
void cached(benchmark::State& state, Accessor accessor) {
    const StorageIRI location(kText);
    benchmark::DoNotOptimize(accessor(location));
    for (auto _ : state) {
        benchmark::DoNotOptimize(accessor(location));
    }
}
BENCHMARK_CAPTURE(cached, toString, [](const StorageIRI& l) -> const ustring& { return l.toString(); });
BENCHMARK_CAPTURE(cached, toAsciiString, [](const StorageIRI& l) -> const ustring& { return l.toAsciiString(); });
BENCHMARK_CAPTURE(cached, getPath, [](const StorageIRI& l) -> const ustring& { return l.getPath(); });
BENCHMARK_CAPTURE(cached, getName, [](const StorageIRI& l) -> const ustring& { return l.getName(); });
BENCHMARK_CAPTURE(cached, getParent, [](const StorageIRI& l) { return l.getParent(); });
BENCHMARK_CAPTURE(cached, getResolvedPath, [](const StorageIRI& l) -> const ustring& { return l.getResolvedPath(); });

// --- Parsing -----------------------------------------------------------------------------

void parseOurs(benchmark::State& state, const ustring& text) {
    for (auto _ : state) {
        StorageIRI location(text);
        benchmark::DoNotOptimize(location);
    }
}
BENCHMARK_CAPTURE(parseOurs, file, kText)->Name("parse_file_iri/ours");
BENCHMARK_CAPTURE(parseOurs, nested, kNestedText)->Name("parse_nested_iri/ours");

void parseBoost(benchmark::State& state, const std::string& text) {
    for (auto _ : state) {
        auto parsed = boost::urls::parse_uri(text);
        benchmark::DoNotOptimize(parsed);
    }
}
BENCHMARK_CAPTURE(parseBoost, file, kUtf8)->Name("parse_file_iri/limit:boost::urls::parse_uri");
BENCHMARK_CAPTURE(parseBoost, nested, kNestedUtf8)->Name("parse_nested_iri/limit:boost::urls::parse_uri");

// The platform's IRI parse alone (UTF-16 to URI text, parse, own copy): the floor under
// parsing a StorageIRI.
void platformIRI(benchmark::State& state) {
    for (auto _ : state) {
        foundation::network::IRI iri{fl::ustring_view(kText)};
        benchmark::DoNotOptimize(iri);
    }
}
BENCHMARK(platformIRI);

#if QKFL_BENCH_GIO
// GIO knows no nested container scheme: it makes a placeholder GFile that keeps the text.
void parseGio(benchmark::State& state, const std::string& text) {
    for (auto _ : state) {
        GFile* file = g_file_new_for_uri(text.c_str());
        benchmark::DoNotOptimize(file);
        g_object_unref(file);
    }
}
BENCHMARK_CAPTURE(parseGio, file, kUtf8)->Name("parse_file_iri/peer:g_file_new_for_uri");
BENCHMARK_CAPTURE(parseGio, nested, kNestedUtf8)->Name("parse_nested_iri/peer:g_file_new_for_uri");
#endif

#if QKFL_BENCH_POCO
void parsePoco(benchmark::State& state, const std::string& text) {
    for (auto _ : state) {
        Poco::URI uri(text);
        benchmark::DoNotOptimize(uri);
    }
}
BENCHMARK_CAPTURE(parsePoco, file, kUtf8)->Name("parse_file_iri/peer:Poco::URI");
BENCHMARK_CAPTURE(parsePoco, nested, kNestedUtf8)->Name("parse_nested_iri/peer:Poco::URI");
#endif

// --- Children and memory ------------------------------------------------------------------

// StorageIRI(parent, name): the step a listing takes per entry.
void childLocation(benchmark::State& state) {
    const StorageIRI folder(u"file:///home/user/projects/app/src/module-042");
    const ustring name = u"source-01234.cpp";
    benchmark::DoNotOptimize(folder.getPath());
    for (auto _ : state) {
        StorageIRI child(folder, name);
        benchmark::DoNotOptimize(child);
    }
}
BENCHMARK(childLocation)->Name("child_location/ours");

// The heap bytes one hierarchical location takes beyond its text, as a listing makes them
// (children of one folder, each kept; names of 16 consecutive lengths, so the allocator's
// rounding averages out): the counter bytes_beyond_text.
void memoryPerLocation(benchmark::State& state) {
    const StorageIRI folder(u"file:///home/user/projects/app/src/module-042");
    constexpr int kCount = 10000;
    std::vector<ustring> names;
    std::size_t textBytes = 0;
    for (int i = 0; i < kCount; ++i) {
        names.push_back(u"source-" + ustring(1, static_cast<char16_t>(u'a' + i % 26)) +
                        ustring(static_cast<std::size_t>(i % 16), u'x') + u".cpp");
    }
    double beyond = 0;
    for (auto _ : state) {
        std::vector<StorageIRI> children;
        children.reserve(kCount);
        const std::size_t before = mallinfo2().uordblks;
        for (const ustring& name : names) children.emplace_back(folder, name);
        const std::size_t after = mallinfo2().uordblks;
        textBytes = 0;
        for (const StorageIRI& child : children) textBytes += child.toAsciiString().size();
        // toAsciiString() made UTF-16 copies after the measurement; they do not count.
        beyond = (static_cast<double>(after - before) - static_cast<double>(textBytes)) / kCount;
    }
    state.counters["bytes_beyond_text"] = beyond;
}
BENCHMARK(memoryPerLocation)->Name("memory_per_location")->Iterations(3);

// --- Comparisons --------------------------------------------------------------------------

// Two distinct objects with the same text and a third differing at the end: the worst case.
struct Pair {
    StorageIRI a{kText};
    StorageIRI b{kText};
    StorageIRI c{u"file:///home/user/Documents/report-2026.pdg"};
    Pair() {
        benchmark::DoNotOptimize(a.toAsciiString());
        benchmark::DoNotOptimize(b.toAsciiString());
        benchmark::DoNotOptimize(c.toAsciiString());
    }
};

void equality(benchmark::State& state) {
    const Pair p;
    for (auto _ : state) {
        benchmark::DoNotOptimize(p.a == p.b);
        benchmark::DoNotOptimize(p.a == p.c);
    }
}
BENCHMARK(equality);

void equalityOfAsciiTexts(benchmark::State& state) {
    const Pair p;
    for (auto _ : state) {
        benchmark::DoNotOptimize(p.a.toAsciiString() == p.b.toAsciiString());
        benchmark::DoNotOptimize(p.a.toAsciiString() == p.c.toAsciiString());
    }
}
BENCHMARK(equalityOfAsciiTexts);

void ordering(benchmark::State& state) {
    const Pair p;
    for (auto _ : state) {
        benchmark::DoNotOptimize(p.a < p.b);
        benchmark::DoNotOptimize(p.a < p.c);
    }
}
BENCHMARK(ordering);

void orderingOfAsciiTexts(benchmark::State& state) {
    const Pair p;
    for (auto _ : state) {
        benchmark::DoNotOptimize(p.a.toAsciiString() < p.b.toAsciiString());
        benchmark::DoNotOptimize(p.a.toAsciiString() < p.c.toAsciiString());
    }
}
BENCHMARK(orderingOfAsciiTexts);

void hashing(benchmark::State& state) {
    const Pair p;
    for (auto _ : state) {
        benchmark::DoNotOptimize(p.a.hashValue());
    }
}
BENCHMARK(hashing);

void hashingOfAsciiText(benchmark::State& state) {
    const Pair p;
    for (auto _ : state) {
        const ustring& text = p.a.toAsciiString();
        benchmark::DoNotOptimize(boost::hash_range(text.begin(), text.end()));
    }
}
BENCHMARK(hashingOfAsciiText);


// --- Locations as map keys ----------------------------------------------------------------

constexpr int kKeys = 100000;

// The texts of 100,000 distinct files in a deep tree.
const std::vector<std::string>& keyTexts() {
    static const std::vector<std::string> texts = [] {
        std::vector<std::string> result;
        result.reserve(kKeys);
        char text[96];
        for (int i = 0; i < kKeys; ++i) {
            std::snprintf(text, sizeof text, "file:///home/user/projects/app/src/module-%03d/source-%05d.cpp", i % 997,
                          i);
            result.emplace_back(text);
        }
        return result;
    }();
    return texts;
}

// Per iteration: a fresh map gets every key inserted (copied from a prepared vector), then
// is asked for every key through a second, equal but distinct object.
template <class Map, class Key, class Make>
void mapKeys(benchmark::State& state, Make make) {
    std::vector<Key> keys;
    std::vector<Key> probes;
    keys.reserve(kKeys);
    probes.reserve(kKeys);
    for (const std::string& text : keyTexts()) {
        keys.push_back(make(text));
        probes.push_back(make(text));
    }
    for (auto _ : state) {
        Map map;
        int value = 0;
        for (const Key& key : keys) map.emplace(key, value++);
        long found = 0;
        for (const Key& probe : probes) found += map.find(probe) != map.end();
        if (found != kKeys) state.SkipWithError("lost a key");
    }
    state.SetItemsProcessed(state.iterations() * kKeys);
}

StorageIRI makeLocation(const std::string& text) { return StorageIRI(ustring(text.begin(), text.end())); }
std::string makeText(const std::string& text) { return text; }

#if QKFL_BENCH_GIO
// GIO's own hash table with its own hash and equality of GFiles.
void gioHashTable(benchmark::State& state) {
    std::vector<GFile*> keys;
    std::vector<GFile*> probes;
    for (const std::string& text : keyTexts()) {
        keys.push_back(g_file_new_for_uri(text.c_str()));
        probes.push_back(g_file_new_for_uri(text.c_str()));
    }
    for (auto _ : state) {
        GHashTable* map = g_hash_table_new_full(g_file_hash, reinterpret_cast<GEqualFunc>(g_file_equal),
                                                g_object_unref, nullptr);
        long value = 0;
        for (GFile* key : keys) g_hash_table_insert(map, g_object_ref(key), reinterpret_cast<gpointer>(value++));
        long found = 0;
        for (GFile* probe : probes) found += g_hash_table_contains(map, probe) ? 1 : 0;
        g_hash_table_unref(map);
        if (found != kKeys) state.SkipWithError("lost a key");
    }
    for (GFile* file : keys) g_object_unref(file);
    for (GFile* file : probes) g_object_unref(file);
    state.SetItemsProcessed(state.iterations() * kKeys);
}
#endif

#if QKFL_BENCH_POCO
// Poco::URI has equality but neither hash nor order: both go through its text, as user code
// keying maps by Poco::URI has to.
struct PocoHash {
    std::size_t operator()(const Poco::URI& uri) const { return std::hash<std::string>{}(uri.toString()); }
};
struct PocoLess {
    bool operator()(const Poco::URI& a, const Poco::URI& b) const { return a.toString() < b.toString(); }
};
Poco::URI makePocoURI(const std::string& text) { return Poco::URI(text); }
#endif

const bool kMapKeysRegistered = [] {
    using benchmark::RegisterBenchmark;
    auto add = [](const char* name, auto function) {
        RegisterBenchmark(name, function)->Unit(benchmark::kMillisecond);
    };
    add("map_keys_unordered/ours", [](benchmark::State& state) {
        mapKeys<std::unordered_map<StorageIRI, int>, StorageIRI>(state, makeLocation);
    });
    add("map_keys_unordered/limit:std::string", [](benchmark::State& state) {
        mapKeys<std::unordered_map<std::string, int>, std::string>(state, makeText);
    });
    add("map_keys_flat/ours", [](benchmark::State& state) {
        mapKeys<boost::unordered_flat_map<StorageIRI, int, std::hash<StorageIRI>>, StorageIRI>(state, makeLocation);
    });
    add("map_keys_flat/limit:std::string", [](benchmark::State& state) {
        mapKeys<boost::unordered_flat_map<std::string, int, std::hash<std::string>>, std::string>(state, makeText);
    });
    add("map_keys_ordered/ours", [](benchmark::State& state) {
        mapKeys<std::map<StorageIRI, int>, StorageIRI>(state, makeLocation);
    });
    add("map_keys_ordered/limit:std::string", [](benchmark::State& state) {
        mapKeys<std::map<std::string, int>, std::string>(state, makeText);
    });
#if QKFL_BENCH_GIO
    add("map_keys_unordered/peer:GFile+GHashTable", gioHashTable);
    add("map_keys_flat/peer:GFile+GHashTable", gioHashTable);
#endif
#if QKFL_BENCH_POCO
    add("map_keys_unordered/peer:Poco::URI", [](benchmark::State& state) {
        mapKeys<std::unordered_map<Poco::URI, int, PocoHash>, Poco::URI>(state, makePocoURI);
    });
    add("map_keys_ordered/peer:Poco::URI", [](benchmark::State& state) {
        mapKeys<std::map<Poco::URI, int, PocoLess>, Poco::URI>(state, makePocoURI);
    });
#endif
    return true;
}();

}  // namespace

BENCHMARK_MAIN();
