#include "storage/provider/PathConversions.h"

#include <unistd.h>

#include <vector>
#include <stdexcept>

#include <gtest/gtest.h>

#include "support/Expect.h"
#include "support/TestIO.h"

namespace {

using namespace foundation::storage::provider;
using fl::filesystem::basic_path;
using qkfl::test::expectThrow;
using qkfl::test::utf8;

TEST(PathConversions, FileSystemPathsToLocations) {
    const std::pair<ustring, ustring> rows[] = {
        {u"/a b/c#d?e%f", u"file:///a%20b/c%23d%3Fe%25f"},
        {u"/Ünïcode café/日本語.txt", u"file:///Ünïcode%20café/日本語.txt"},
    };
    for (const auto& [path, text] : rows) {
        const StorageIRI location = toStorageIRI(u"file", basic_path(path));
        EXPECT_EQ(location.toString(), text) << utf8(path);
        EXPECT_EQ(location.getPath(), path) << utf8(path);
        EXPECT_TRUE(location == StorageIRI(text) && location.hashValue() == StorageIRI(text).hashValue()) << utf8(path);
        EXPECT_EQ(fromStorageIRI(StorageIRI(text)), basic_path(path)) << utf8(path);
    }
    EXPECT_EQ(toStorageIRI(u"file", basic_path(u"")).toString(), u"file://");
    expectThrow<std::runtime_error>([] { toStorageIRI(u"file", basic_path(u"./a")); }, "File path ./a is not absolute.");
    EXPECT_THROW(fromStorageIRI(StorageIRI(u"zip:file:///a.zip!/b")), std::logic_error);
    // A filtering scheme's (or URL's) physical part follows its last '+'.
    EXPECT_EQ(getPhysicalPartFromFilteringScheme(u"enc+gz+file") + getPhysicalPartFromFilteringScheme(u"mem"), u"filemem");
    EXPECT_EQ(getPhysicalURLFromFilteringURL(u"enc+file:///a+b"), u"b");
}

// One trailing '/' (or escaped '%2F') leaves a path; other escapes stay as they are.
TEST(PathConversions, CanonicalIRIsLoseOneTrailingSlash) {
    for (const auto& [text, canonical] : {std::pair{u"file:///a%20b/", u"file:///a%20b"}, {u"file:///a%2F", u"file:///a"},
                                          {u"mem:x/", u"mem:x"}, {u"file:///", u"file:///"}, {u"file:///a", u"file:///a"}}) {
        EXPECT_EQ(detail::canonicalize(foundation::network::IRI(text)).toString(), canonical) << utf8(text);
    }
}

// Dot segments are resolved on the volume; each failure carries the code of its cause and
// the unresolved location.
TEST(PathConversions, CanonicalizedLocationsResolveTheVolume) {
    EXPECT_EQ(toCanonicalizedStorageIRI(u"file", basic_path(u"/tmp/./../")), StorageIRI(u"file:///"));
    std::vector<std::pair<ustring, ErrorCode>> failures = {
        {u"/qkfl-surely-missing/x", ErrorCode::ResourceNotFound},
        {ustring(u"/a\0b", 4), ErrorCode::InvalidLocation},
        {u"/" + ustring(300, u'n'), ErrorCode::InvalidLocation},
    };
    if (geteuid() != 0) {  // root is never denied
        failures.emplace_back(u"/root/x", ErrorCode::PermissionDenied);
    }
    for (const auto& [path, code] : failures) {
        const auto failure = testsupport::failureOf([&p = path] { toCanonicalizedStorageIRI(u"file", basic_path(p)); });
        EXPECT_EQ(failure.code, code) << utf8(path);
        EXPECT_EQ(failure.location.value_or(StorageIRI(u"x:/")).getPath(), path) << utf8(path);
    }
    // The fallback location of a relative path cannot be built: its own failure is reported.
    expectThrow<std::runtime_error>([] { toCanonicalizedStorageIRI(u"file", basic_path(u"qkfl-surely/missing")); },
                                    "File path qkfl-surely/missing is not absolute.");
}

}  // namespace
