#include "storage/provider/PathConversions.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>

#include "fl/i18n/convert.h"
#include "storage/provider/Exception.h"

namespace {

namespace fs = std::filesystem;
using fl::filesystem::basic_path;
using foundation::network::IRI;
using foundation::storage::provider::ErrorCode;
using foundation::storage::provider::Exception;
using foundation::storage::provider::fromStorageIRI;
using foundation::storage::provider::getPhysicalPartFromFilteringScheme;
using foundation::storage::provider::getPhysicalURLFromFilteringURL;
using foundation::storage::provider::StorageIRI;
using foundation::storage::provider::toCanonicalizedStorageIRI;
using foundation::storage::provider::toStorageIRI;
using foundation::storage::provider::ustring;
using foundation::storage::provider::detail::canonicalize;

std::string utf8(const ustring& text) { return fl::i18n::to_string(text); }
ustring utf16(const std::string& text) { return fl::i18n::to_ustring(text); }

// A fresh folder under the system's temporary folder, removed afterwards.
class TempFolder {
public:
    TempFolder() {
        std::string pattern = (fs::temp_directory_path() / "qkfl-addressing-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("mkdtemp failed");
        }
        path_ = pattern;
    }
    ~TempFolder() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    const fs::path& path() const { return path_; }

private:
    fs::path path_;
};

TEST(PathConversions, CanonicalPaths) {
    auto check = [](const ustring& path, const ustring& canonical) { EXPECT_EQ(canonicalize(path), canonical) << utf8(path); };
    check(u"", u"");
    check(u"/", u"/");
    check(u"//", u"/");
    check(u"/a/", u"/a");
    check(u"/a//", u"/a/");
    check(u"/a", u"/a");
    check(u"a/", u"a");
    check(u"a", u"a");
}

TEST(PathConversions, CanonicalIRIs) {
    auto check = [](const ustring& text, const ustring& canonical) {
        EXPECT_EQ(canonicalize(IRI(text)).toString(), canonical) << utf8(text);
    };
    check(u"file:///a/", u"file:///a");
    check(u"file:///a", u"file:///a");
    check(u"file:///", u"file:///");
    check(u"file:///a//", u"file:///a/");
    check(u"file:///a%20b/?q#f", u"file:///a%20b?q#f");
    check(u"file:///x%2F", u"file:///x");
    check(u"mem://host/a/", u"mem://host/a");
    check(u"zip:file:///c.zip!/b/", u"zip:file:///c.zip!/b");
    check(u"zip:file:///c.zip!/b/?x", u"zip:file:///c.zip!/b?x");
    check(u"file:///caf%C3%A9/", u"file:///café");
}

TEST(PathConversions, FileSystemPathsToLocations) {
    auto check = [](const ustring& path, const ustring& text) {
        const StorageIRI location = toStorageIRI(u"file", basic_path(path));
        EXPECT_EQ(location.toString(), text) << utf8(path);
        EXPECT_EQ(location.getPath(), path) << utf8(path);
        EXPECT_EQ(fromStorageIRI(location), basic_path(path)) << utf8(path);
        if (!path.empty()) {
            EXPECT_EQ(location, StorageIRI(text)) << utf8(path);
            EXPECT_EQ(location.hashValue(), StorageIRI(text).hashValue()) << utf8(path);
            EXPECT_EQ(fromStorageIRI(StorageIRI(text)), basic_path(path)) << utf8(path);
        }
    };
    check(u"/home/user/a.txt", u"file:///home/user/a.txt");
    check(u"/", u"file:///");
    check(u"/a b/c#d?e%f", u"file:///a%20b/c%23d%3Fe%25f");
    check(u"/Ünïcode café/日本語.txt", u"file:///Ünïcode%20café/日本語.txt");
    check(u"/a!b/c:d", u"file:///a!b/c:d");
    check(u"", u"file://");

    auto bad = [](const ustring& path) {
        try {
            toStorageIRI(u"file", basic_path(path));
            ADD_FAILURE() << "accepted " << utf8(path);
        } catch (const std::runtime_error& e) {
            EXPECT_EQ(typeid(e), typeid(std::runtime_error));
            EXPECT_EQ(std::string(e.what()), "File path " + utf8(path) + " is not absolute.");
        }
    };
    bad(u"a/b");
    bad(u"a");
    bad(u"./a");
    bad(u"café/x");

    EXPECT_THROW(fromStorageIRI(StorageIRI(u"zip:file:///a.zip!/b")), std::logic_error);
}

TEST(PathConversions, CanonicalizedLocationsResolveTheVolume) {
    TempFolder temp;
    fs::create_directories(temp.path() / "dir" / "sub");
    std::ofstream(temp.path() / "dir" / "file.txt") << "x";
    fs::create_symlink(temp.path() / "dir", temp.path() / "link");
    const fs::path real = fs::canonical(temp.path());
    const ustring root = utf16(real.string());

    const StorageIRI viaLink =
        toCanonicalizedStorageIRI(u"file", basic_path(utf16((temp.path() / "link" / "sub" / ".." / "file.txt").string())));
    EXPECT_EQ(viaLink.getPath(), root + u"/dir/file.txt");
    EXPECT_EQ(viaLink, toStorageIRI(u"file", basic_path(root + u"/dir/file.txt")));

    // Each failure carries the code of its cause and the unresolved location.
    auto fails = [](const ustring& path, ErrorCode code) {
        try {
            toCanonicalizedStorageIRI(u"file", basic_path(path));
            ADD_FAILURE() << "resolved " << utf8(path);
        } catch (const Exception& e) {
            EXPECT_EQ(e.getErrorCode(), code) << utf8(path);
            EXPECT_EQ(e.getStorageIRI(), toStorageIRI(u"file", basic_path(path))) << utf8(path);
            EXPECT_EQ(e.getStorageIRI().getPath(), path) << utf8(path);
        }
    };
    fs::create_symlink(temp.path() / "loop", temp.path() / "loop");
    fails(root + u"/dir/missing", ErrorCode::ResourceNotFound);
    fails(root + u"/dir/file.txt/below", ErrorCode::ResourceNotFound);
    fails(u"", ErrorCode::ResourceNotFound);
    fails(root + ustring(u"/a\0b", 4), ErrorCode::InvalidLocation);
    fails(root + u"/" + ustring(300, u'n'), ErrorCode::InvalidLocation);
    fails(root + u"/loop/x", ErrorCode::IOError);
    // The fallback location of a relative path cannot be built: its own failure is reported.
    try {
        toCanonicalizedStorageIRI(u"file", basic_path(u"qkfl-surely/missing"));
        ADD_FAILURE() << "resolved a missing relative path";
    } catch (const Exception&) {
        ADD_FAILURE() << "a location was built from a relative path";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()), "File path qkfl-surely/missing is not absolute.");
    }
}

TEST(PathConversions, FilteringPrefixes) {
    auto scheme = [](const ustring& text, const ustring& physical) {
        EXPECT_EQ(getPhysicalPartFromFilteringScheme(text), physical) << utf8(text);
    };
    scheme(u"file", u"file");
    scheme(u"zip+file", u"file");
    scheme(u"a+b+file", u"file");
    scheme(u"a+", u"");
    scheme(u"", u"");
    scheme(u"+", u"");

    auto url = [](const ustring& text, const ustring& physical) {
        EXPECT_EQ(getPhysicalURLFromFilteringURL(text), physical) << utf8(text);
    };
    url(u"zip+file:///a.zip", u"file:///a.zip");
    url(u"file:///a.zip", u"file:///a.zip");
    url(u"a+b+mem://h/x", u"mem://h/x");
    // The whole URL is searched: a '+' in the path counts as well.
    url(u"file:///c++/notes.txt", u"/notes.txt");
    url(u"zip+file:///a+b.zip", u"b.zip");
}

}  // namespace
