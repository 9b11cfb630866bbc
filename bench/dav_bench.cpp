// The WebDAV provider against Apache httpd (mod_dav) on a loopback port, beside bare libcurl
// (with expat for PROPFIND answers) making the same requests over one kept-alive connection:
// listing a 10,000-file folder, reading 256 MiB, 1,000 sequential 1 KiB writes, 64 KiB reads at
// random offsets of a 1 GiB file (p50 and p99 as counters), and one entry of a 50 MB,
// 2,000-entry zip archive on the server (requests and bytes as the provider counts them, and
// as the server's access log shows them); and rclone's client listing the same folder.
#include <curl/curl.h>
#include <expat.h>
#include <fcntl.h>
#include <unistd.h>
#include <zip.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "DavTestSupport.h"
#include "fl/i18n/convert.h"
#include "storage/provider/TransactionalStream.h"
#include "storage/provider/zip/ZipProvider.h"

namespace {

namespace sp = foundation::storage::provider;
using sp::dav::test::TestServer;

constexpr int kListed = 10000;
constexpr std::uint64_t kBig = 256ull << 20;
constexpr std::uint64_t kHuge = 1ull << 30;
constexpr int kWrites = 1000;
constexpr int kZipEntries = 2000;
constexpr std::size_t kZipEntrySize = 25000;

const char* const kPropfind =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?><D:propfind xmlns:D=\"DAV:\"><D:prop><D:getcontentlength/>"
    "<D:getlastmodified/><D:resourcetype/><D:getetag/></D:prop></D:propfind>";

void sparseFile(const std::string& path, std::uint64_t size) {
    const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
    if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(size)) != 0) throw std::runtime_error("cannot make " + path);
    ::close(fd);
}

// Entries of incompressible bytes, stored, so that the archive is as large as its content.
void makeZip(const std::string& path) {
    int error = 0;
    zip_t* archive = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error);
    std::mt19937 random(7);
    std::vector<std::string> contents(kZipEntries);
    for (int i = 0; i < kZipEntries; ++i) {
        contents[i].resize(kZipEntrySize);
        for (char& c : contents[i]) c = static_cast<char>(random());
        const std::string name = std::string("e").append(std::to_string(i)).append(".bin");
        zip_source_t* source = zip_source_buffer(archive, contents[i].data(), contents[i].size(), 0);
        const zip_int64_t index = zip_file_add(archive, name.c_str(), source, ZIP_FL_ENC_UTF_8);
        zip_set_file_compression(archive, static_cast<zip_uint64_t>(index), ZIP_CM_STORE, 0);
    }
    if (zip_close(archive) != 0) throw std::runtime_error("cannot write " + path);
}

TestServer& server() {
    static TestServer apache(TestServer::Kind::Apache);
    static const bool prepared = [] {
        std::filesystem::create_directories(apache.onDisk("/list"));
        for (int i = 0; i < kListed; ++i) std::ofstream(apache.onDisk("/list/f" + std::to_string(i) + ".txt")) << i;
        sparseFile(apache.onDisk("/big.bin"), kBig);
        // Read once, so that every contender finds it in the page cache: the first reader of a
        // new file would otherwise pay for filling it.
        std::ifstream warm(apache.onDisk("/big.bin"), std::ios::binary);
        std::vector<char> block(1 << 20);
        while (warm.read(block.data(), static_cast<std::streamsize>(block.size()))) {
        }
        sparseFile(apache.onDisk("/huge.bin"), kHuge);
        makeZip(apache.onDisk("/a.zip"));
        return true;
    }();
    (void)prepared;
    return apache;
}

std::string url(const std::string& path) { return "http://127.0.0.1:" + std::to_string(server().port()) + path; }

// One easy handle for the whole peer run: its connection stays alive between requests.
CURL* peer() {
    static CURL* curl = curl_easy_init();
    curl_easy_reset(curl);
    return curl;
}

std::size_t discard(char*, std::size_t size, std::size_t count, void* total) {
    *static_cast<std::uint64_t*>(total) += size * count;
    return size * count;
}

std::size_t parse(char* data, std::size_t size, std::size_t count, void* parser) {
    XML_Parse(static_cast<XML_Parser>(parser), data, static_cast<int>(size * count), 0);
    return size * count;
}

void BM_List_Dav(benchmark::State& state) {
    const auto provider = sp::dav::test::providerFor(server());
    const sp::StorageIRI folder = server().at("/list");
    for (auto _ : state) {
        int n = 0;
        for (auto listing = provider->listAll(folder); listing->hasNext(); ++n) listing->next();
        if (n != kListed) state.SkipWithError("not every file listed");
    }
}

void BM_List_CurlExpat(benchmark::State& state) {
    for (auto _ : state) {
        int responses = 0;
        XML_Parser parser = XML_ParserCreateNS(nullptr, '|');
        XML_SetUserData(parser, &responses);
        XML_SetEndElementHandler(parser, [](void* user, const XML_Char* name) {
            if (std::string_view(name) == "DAV:|response") ++*static_cast<int*>(user);
        });
        CURL* curl = peer();
        curl_slist* headers = curl_slist_append(nullptr, "Depth: 1");
        headers = curl_slist_append(headers, "Content-Type: application/xml; charset=utf-8");
        const std::string target = url("/list/");
        curl_easy_setopt(curl, CURLOPT_URL, target.c_str());
        curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, "PROPFIND");
        curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, kPropfind);
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, parse);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, parser);
        curl_easy_perform(curl);
        XML_Parse(parser, nullptr, 0, 1);
        curl_slist_free_all(headers);
        XML_ParserFree(parser);
        if (responses != kListed + 1) state.SkipWithError("not every file listed");
    }
}

// rclone's own WebDAV client listing the same folder as its users run it, one process per
// listing; BM_Start_Rclone times the process alone (`rclone version`) to tell the two apart.
int linesOf(const std::string& command) {
    FILE* out = ::popen(command.c_str(), "r");
    if (out == nullptr) return -1;
    int lines = 0;
    for (int c = std::fgetc(out); c != EOF; c = std::fgetc(out)) lines += c == '\n';
    ::pclose(out);
    return lines;
}

void BM_List_Rclone(benchmark::State& state) {
    const std::string command = "rclone lsf --config /dev/null ':webdav,url=\"" + url("/list") + "\":' 2>/dev/null";
    for (auto _ : state) {
        if (linesOf(command) != kListed) state.SkipWithError("rclone did not list every file");
    }
}

void BM_Start_Rclone(benchmark::State& state) {
    for (auto _ : state) {
        if (linesOf("rclone version 2>/dev/null") <= 0) state.SkipWithError("rclone did not start");
    }
}

std::uint64_t readBig(const sp::dav::DavProvider& provider, std::vector<char>& buffer) {
    auto stream = provider.openReadOnlyStream(server().at("/big.bin"));
    std::uint64_t total = 0;
    for (long n; (n = stream->read(buffer.data(), static_cast<long>(buffer.size()))) > 0;) total += n;
    return total;
}

std::uint64_t curlBig() {
    std::uint64_t total = 0;
    CURL* curl = peer();
    const std::string target = url("/big.bin");
    curl_easy_setopt(curl, CURLOPT_URL, target.c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, discard);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &total);
    curl_easy_perform(curl);
    return total;
}

// Each contender reads the file once before it is timed: Apache's first pass over a file
// takes several times as long as the next ones.
void BM_Read256MiB_Dav(benchmark::State& state) {
    const auto provider = sp::dav::test::providerFor(server());
    std::vector<char> buffer(1 << 20);
    readBig(*provider, buffer);
    const std::uint64_t before = provider->traffic().requests;
    for (auto _ : state) {
        if (readBig(*provider, buffer) != kBig) state.SkipWithError("short read");
    }
    state.counters["requests"] =
        static_cast<double>(provider->traffic().requests - before) / static_cast<double>(state.iterations());
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kBig));
}

void BM_Read256MiB_Curl(benchmark::State& state) {
    curlBig();
    for (auto _ : state) {
        if (curlBig() != kBig) state.SkipWithError("short read");
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kBig));
}

// Plain streams, or transactional ones committed (as StorageItem writes and copies do).
void BM_Write1KiB_Dav(benchmark::State& state) {
    const auto provider = sp::dav::test::providerFor(server());
    const std::string kib(1024, 'w');
    const sp::ByteStreamOpenOptions replace{sp::ByteStreamAccess::WriteOnly, sp::ByteStreamCreate::Create,
                                            sp::ByteStreamTruncate::TruncateExisting, sp::ByteStreamAppend::Overwrite};
    const bool transactional = state.range(0) == 1;
    for (auto _ : state) {
        for (int i = 0; i < kWrites; ++i) {
            const sp::StorageIRI file = server().at("/open/d" + std::to_string(i));
            if (transactional) {
                auto stream = provider->openTransactionalStream(file, replace);
                stream->write(kib.data(), static_cast<long>(kib.size()));
                stream->close(sp::StreamClosePolicy::Commit);
            } else {
                auto stream = provider->openStream(file, replace);
                stream->write(kib.data(), static_cast<long>(kib.size()));
                stream->close();
            }
        }
    }
    state.counters["requests_per_write"] =
        static_cast<double>(provider->traffic().requests) / static_cast<double>(state.iterations() * kWrites);
    state.SetItemsProcessed(state.iterations() * kWrites);
}

void BM_Write1KiB_Curl(benchmark::State& state) {
    const std::string kib(1024, 'w');
    for (auto _ : state) {
        CURL* curl = peer();
        std::uint64_t ignored = 0;
        curl_slist* headers = curl_slist_append(nullptr, "Expect:");
        curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, "PUT");
        curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, kib.data());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(kib.size()));
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, discard);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, &ignored);
        for (int i = 0; i < kWrites; ++i) {
            const std::string target = url("/open/c" + std::to_string(i));
            curl_easy_setopt(curl, CURLOPT_URL, target.c_str());
            curl_easy_perform(curl);
        }
        curl_slist_free_all(headers);
    }
    state.SetItemsProcessed(state.iterations() * kWrites);
}

// Wall-clock time of each read, for the percentiles.
void BM_RandomRead64KiB_Dav(benchmark::State& state) {
    const auto provider = sp::dav::test::providerFor(server());
    auto stream = provider->openReadOnlyStream(server().at("/huge.bin"));
    std::mt19937_64 random(11);
    std::vector<char> buffer(64 << 10);
    std::vector<double> seconds;
    for (auto _ : state) {
        const auto offset = static_cast<long>(random() % (kHuge - buffer.size()));
        const auto start = std::chrono::steady_clock::now();
        stream->seek(offset, std::ios_base::beg);
        for (long done = 0; done < static_cast<long>(buffer.size());) {
            done += stream->read(buffer.data() + done, static_cast<long>(buffer.size()) - done);
        }
        seconds.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    std::sort(seconds.begin(), seconds.end());
    state.counters["p50_ms"] = seconds[seconds.size() / 2] * 1e3;
    state.counters["p99_ms"] = seconds[seconds.size() * 99 / 100] * 1e3;
}

std::size_t accessLogLines() {
    std::ifstream log(server().accessLog());
    return static_cast<std::size_t>(std::count(std::istreambuf_iterator<char>(log), {}, '\n'));
}

void BM_ZipEntry_Dav(benchmark::State& state) {
    const sp::StorageIRI archive = server().at("/a.zip");
    const sp::StorageIRI entry(u"zip", archive, u"/e1000.bin");
    const auto archiveSize = static_cast<double>(std::filesystem::file_size(server().onDisk("/a.zip")));
    sp::dav::DavProvider::Traffic traffic;
    std::size_t logged = 0;
    for (auto _ : state) {
        const auto provider = sp::dav::test::providerFor(server());
        const std::size_t before = accessLogLines();
        const sp::StorageItem item = sp::zip::ZipProviderFactory().itemFor(entry, [&](const sp::StorageIRI&) {
            return std::static_pointer_cast<sp::IProvider>(provider);
        });
        auto stream = item.openReadOnlyStream();
        std::vector<char> buffer(kZipEntrySize + 1);
        long total = 0;
        for (long n; (n = stream->read(buffer.data(), static_cast<long>(buffer.size()))) > 0;) total += n;
        if (total != static_cast<long>(kZipEntrySize)) state.SkipWithError("wrong entry size");
        traffic = provider->traffic();
        logged = accessLogLines() - before;  // the server writes its log line as it answers
    }
    state.counters["requests"] = static_cast<double>(traffic.requests);
    state.counters["logged_requests"] = static_cast<double>(logged);
    state.counters["bytes"] = static_cast<double>(traffic.bytesReceived);
    state.counters["archive_percent"] = 100.0 * static_cast<double>(traffic.bytesReceived) / archiveSize;
}

// The machine is shared: few repetitions, each case's contenders one after the other.
BENCHMARK(BM_List_Dav)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_List_CurlExpat)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_List_Rclone)->Unit(benchmark::kMillisecond)->Iterations(5)->UseRealTime();
BENCHMARK(BM_Start_Rclone)->Unit(benchmark::kMillisecond)->Iterations(5)->UseRealTime();
// Rates by the wall clock: the client mostly waits for the server.
BENCHMARK(BM_Read256MiB_Dav)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();
BENCHMARK(BM_Read256MiB_Curl)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();
BENCHMARK(BM_Write1KiB_Dav)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(BM_Write1KiB_Curl)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(BM_RandomRead64KiB_Dav)->Unit(benchmark::kMillisecond)->Iterations(300);
BENCHMARK(BM_ZipEntry_Dav)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
