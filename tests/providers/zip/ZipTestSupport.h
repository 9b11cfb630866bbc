#pragma once

// Archives for the zip provider's tests, made by the tests themselves: well-formed ones
// written by libzip into memory, and damaged or malicious ones derived from them byte by byte.

#include <cstdint>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "storage/provider/IProvider.h"
#include "storage/provider/StorageItem.h"
#include "storage/provider/zip/ZipProvider.h"
#include "support/TestIO.h"

namespace foundation::storage::provider::zip::ziptest {

// An even number of seconds: zip times have a resolution of two seconds.
constexpr std::time_t kTime = 1'700'000'000;

enum class Method { Stored, Deflated };

// One entry of a test archive; a name ending in '/' is a folder.
struct Entry {
    std::string name;
    std::string content{};
    Method method = Method::Deflated;
    std::time_t time = kTime;
    std::optional<std::time_t> extendedTime{};  // also in an extended-timestamp field (UTC)
    std::optional<std::uint32_t> unixMode{};    // a Unix mode, with its file type, in its attributes
};
// A zip archive written by libzip into memory, entries in the order given.
std::string zipOf(const std::vector<Entry>& entries);

// Where the records of a well-formed archive (one disk, no zip64, no comment) lie.
struct Layout {
    std::uint64_t directoryOffset;
    std::uint64_t directorySize;
    std::uint64_t endRecord;                      // offset of the end of central directory record
    std::vector<std::uint64_t> directoryEntries;  // offset of each central directory record
    std::vector<std::uint64_t> localHeaders;      // offset of each local header
};
Layout layoutOf(const std::string& archive);

std::uint64_t getLittle(const std::string& bytes, std::uint64_t offset, int width);
void putLittle(std::string& bytes, std::uint64_t offset, int width, std::uint64_t value);

// A field of entry `entry` set to `value` in both of its records: `width` bytes at `central` in
// its central directory record and at `local` in its local header.
std::string withField(std::string archive, std::size_t entry, int central, int local, int width,
                      std::uint64_t value);
// Replaces the bytes `from` by `to` (same length) wherever they occur.
std::string replaced(std::string archive, const std::string& from, const std::string& to);

using testsupport::namesOf;
using testsupport::pattern;
using testsupport::put;
using testsupport::readAll;

// A memory store holding the archive at 'mem:///<name>', and a zip provider on it.
struct InMemory {
    std::shared_ptr<IProvider> store;
    StorageItem container;
    std::shared_ptr<ZipProvider> provider;
    // The location of `path` in the archive ('/a/b').
    StorageIRI at(const std::string& path) const;
};
InMemory inMemory(const std::string& archive, const std::string& name = "t.zip");

// 'zip:' + inner + '!' + path.
StorageIRI zipLocation(const StorageIRI& inner, const std::string& path);

}  // namespace foundation::storage::provider::zip::ziptest
