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

// Writes `value` as `width` little-endian bytes at `offset`.
void putLittle(std::string& bytes, std::uint64_t offset, int width, std::uint64_t value);

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
