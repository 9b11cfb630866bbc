// Costs of StorageIRI: copies, cached accessors, parsing against Boost.URL, and comparisons
// against the same work on the ASCII texts.
#include <string>

#include <benchmark/benchmark.h>
#include <boost/container_hash/hash.hpp>
#include <boost/url/parse.hpp>

#include "storage/provider/StorageIRI.h"

namespace {

using foundation::storage::provider::StorageIRI;
using foundation::storage::provider::ustring;

const ustring kText = u"file:///home/user/Documents/report-2026.pdf";
const std::string kUtf8 = "file:///home/user/Documents/report-2026.pdf";

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

void constructFromText(benchmark::State& state) {
    for (auto _ : state) {
        StorageIRI location(kText);
        benchmark::DoNotOptimize(location);
    }
}
BENCHMARK(constructFromText);

void boostParseUri(benchmark::State& state) {
    for (auto _ : state) {
        auto parsed = boost::urls::parse_uri(kUtf8);
        benchmark::DoNotOptimize(parsed);
    }
}
BENCHMARK(boostParseUri);

// The platform's IRI parse alone (UTF-16 to URI text, parse, own copy): the floor under
// constructFromText.
void platformIRI(benchmark::State& state) {
    for (auto _ : state) {
        foundation::network::IRI iri{fl::ustring_view(kText)};
        benchmark::DoNotOptimize(iri);
    }
}
BENCHMARK(platformIRI);

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

}  // namespace

BENCHMARK_MAIN();
