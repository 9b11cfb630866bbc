#include "storage/provider/StorageIRI.h"

#include <stdexcept>
#include <tuple>

#include <boost/functional/hash.hpp>
#include <gtest/gtest.h>

#include "foundation/core/except/Exception.h"
#include "support/Expect.h"

namespace {

using namespace foundation::storage::provider;
using LogicFailure = foundation::core::except::detail::AnonymousInternalException<std::logic_error>;
using ParseFailure = foundation::core::except::detail::AnonymousInternalException<std::runtime_error>;
using Path = fl::filesystem::basic_path;
using qkfl::test::expectThrow;
using qkfl::test::utf8;

// A file 'levels' containers deep: 's:s:file:///a!/b!/b'.
ustring nested(std::size_t levels) {
    ustring text;
    for (std::size_t i = 0; i < levels; ++i) text += u"s:";
    text += u"file:///a";
    for (std::size_t i = 0; i < levels; ++i) text += u"!/b";
    return text;
}

// Components of parsed text, which reads back from toString(); `inner` is empty for a
// hierarchical location, which has a host.
TEST(StorageIRI, ParsesText) {
    struct Row {
        ustring text, shown, host, path, name, inner;
    };
    const Row rows[] = {
        {u"file:/x", u"file:///x", u"", u"/x", u"x", u""},
        {u"file:///", u"file:///", u"", u"/", u"/", u""},
        {u"file://host", u"file://host", u"host", u"", u"", u""},
        {u"file:///a/b/", u"file:///a/b/", u"", u"/a/b/", u"", u""},
        {u"file:///a%20b/c%3Fd", u"file:///a%20b/c%3Fd", u"", u"/a b/c?d", u"c?d", u""},
        {u"http://h%C3%A9/x?q=1#f", u"http://hé/x?q=1#f", u"hé", u"/x", u"x", u""},
        {u"s:t:file:///x.zip!/y.zip!/z", u"s:t:file:///x.zip!/y.zip!/z", u"", u"/z", u"z", u"t:file:///x.zip!/y.zip"},
        {u"s:file:///c.zip?v=1!/a%21b/", u"s:file:///c.zip?v=1!/a%21b/", u"", u"/a!b", u"a!b", u"file:///c.zip?v=1"},
    };
    for (const auto& row : rows) {
        const StorageIRI iri(row.text);
        const std::string where = utf8(row.text);
        EXPECT_EQ(iri.getScheme(), row.text.substr(0, row.text.find(u':'))) << where;
        EXPECT_EQ(iri.toString(), row.shown) << where;
        EXPECT_EQ(iri.getPath(), row.path) << where;
        EXPECT_EQ(iri.getName(), row.name) << where;
        EXPECT_EQ(iri.isOpaque(), !row.inner.empty()) << where;
        EXPECT_EQ(row.inner.empty() ? iri.getHost() : iri.getInnerIRI().toString(), row.host + row.inner) << where;
        EXPECT_EQ(StorageIRI(iri.toString()), iri) << where;
    }
}

std::size_t asciiHash(const ustring& ascii) { return boost::hash_range(ascii.begin(), ascii.end()); }

// A child location keeps only its text until asked for more: it compares, hashes and answers
// as the location parsed from that text, whichever is asked first. Names are decoded text:
// escapes and delimiters in them stay part of the name.
TEST(StorageIRI, ChildLocationsAreTheirText) {
    const std::tuple<ustring, ustring, ustring> rows[] = {
        {u"file:///a/b", u"/", u"file:///"},
        {u"file:///a/b", u"//a//", u"file:///a//"},
        {u"file:///a/", u"c/", u"file:///a/c"},
        {u"http://user@host:8080/p?q=1#f", u"r s", u"http://user@host:8080/p/r%20s?q=1#f"},
        {u"zip:file:///c.zip!/", u"b", u"zip:file:///c.zip!/b"},
        {u"file:///a", u"50% off?#[1]", u"file:///a/50%25%20off%3F%23%5B1%5D"},
        {u"file:///caf%C3%A9", u"日本 é/./x", u"file:///café/日本%20é/./x"},
        {u"file:///a", u"z\xDCE9", u"file:///a/z%E9"},  // a byte that was not UTF-8 is that byte
    };
    for (const auto& [base, relative, text] : rows) {
        const std::string where = utf8(base) + " + " + utf8(relative);
        const StorageIRI parsed(text);
        const StorageIRI fresh(StorageIRI(base), relative);
        EXPECT_EQ(fresh.hashValue(), asciiHash(parsed.toAsciiString())) << where;
        EXPECT_TRUE(fresh == parsed && parsed == fresh && !(fresh < parsed) && !(parsed < fresh)) << where;
        EXPECT_EQ(fresh.toString(), text) << where;
        EXPECT_EQ(fresh.getName(), parsed.getName()) << where;
        EXPECT_EQ(StorageIRI(fresh, u"z").toString(), StorageIRI(parsed, u"z").toString()) << where;
    }
}

// Every parent is shorter than its child, so walking up ends; a doubled '/' before the name
// goes with it, so the parent is still an ancestor.
TEST(StorageIRI, ParentsAndRoots) {
    const std::tuple<ustring, ustring, ustring> rows[] = {
        {u"mem://store/a/b?q", u"mem://store/a?q", u"mem://store/?q"},
        {u"zip:file:///c.zip!/a", u"zip:file:///c.zip!/", u"zip:file:///c.zip!/"},
        {u"mem:///a://b", u"mem:///a:", u"mem:///"},
        {u"zip:file:///c.zip!/a%21//", u"zip:file:///c.zip!/a%21", u"zip:file:///c.zip!/"},
    };
    for (const auto& [text, parent, root] : rows) {
        const StorageIRI iri(text);
        EXPECT_EQ(iri.getParent().toString(), parent) << utf8(text);
        EXPECT_LT(iri.getParent().getPath().size(), iri.getPath().size()) << utf8(text);
        EXPECT_EQ(iri.getRoot().toString(), root) << utf8(text);
    }
    EXPECT_FALSE(StorageIRI(u"file:///").hasParent());
    expectThrow<LogicFailure>([] { StorageIRI(u"file:///").getParent(); }, "IRI does not have a parent IRI.");
    // An empty path has a parent by hasParent(), but none can be built.
    EXPECT_TRUE(StorageIRI(u"file://host").hasParent());
    expectThrow<LogicFailure>([] { StorageIRI(u"file://host").getParent(); }, "IRI does not have a parent IRI.");
}

TEST(StorageIRI, AncestryAndRelativePaths) {
    const std::tuple<ustring, ustring, bool> ancestry[] = {
        {u"file:///a", u"file:///ab", false},
        {u"file://one/a", u"file://two/a/b", true},  // hosts are not compared
        {u"zip:file:///c.zip!/a", u"zip:file:///d.zip!/a/b", false},
        {u"file:///a/", u"file:///x/y", true},  // '/a/' is viewed as "/" (PathView)
    };
    for (const auto& [a, b, ancestor] : ancestry) {
        EXPECT_EQ(StorageIRI(a).isAncestorOf(StorageIRI(b)), ancestor) << utf8(a) << " of " << utf8(b);
    }
    // The base gets a '/' whenever it is longer than "/": '/a/' is taken as the folder '/a//'.
    const std::tuple<ustring, ustring, ustring> relatives[] = {
        {u"file:///a/b/c", u"file:///a/", u"../b/c"},
        {u"file:///a/b/c/d", u"file:///a/b/x", u"../c/d"},
    };
    for (const auto& [path, base, relative] : relatives) {
        EXPECT_EQ(StorageIRI(path).makePathRelativeTo(StorageIRI(base)), relative) << utf8(path) << utf8(base);
    }
    expectThrow<std::runtime_error>(
        [] { StorageIRI(u"zip:file:///c.zip!/a").makePathRelativeTo(StorageIRI(u"zip:file:///d.zip!/a")); },
        "Can not make relative path between zip:file:///c.zip!/a and zip:file:///d.zip!/a as they don't have "
        "a common root.");
    EXPECT_EQ(StorageIRI(u"file:///../a/./b/../c%25/").getResolvedIRI(), StorageIRI(u"file:///a/c%25"));
    EXPECT_EQ(StorageIRI(u"zip:file:///c.zip!/a/../b").getResolvedPath(), u"/b");
}

TEST(StorageIRI, MalformedTextRaisesTheDocumentedFailures) {
    const std::pair<ustring, std::string> rows[] = {
        {u"a/b", "IRI 'a/b' is not absolute."},
        {u"s:file:///c.zip",
         "Invalid container-style storage IRI 's:file:///c.zip'. Expected to find a '!' to begin the path section."},
        {u"s:file:///c.zip!a", "Invalid container-style storage IRI 's:file:///c.zip!a'. Path should begin with a '/'."},
        {u"s:file://host!/a", "IRI 's:file://host!/a' does not have an absolute path component on the inner IRI."},
        {u"s:rel!/a", "IRI 'rel' is not absolute."},
        {nested(33), "Invalid container-style storage IRI '" + utf8(nested(33)) +
                         "'. Containers nest at most 32 levels deep."},
        {nested(10000), "Invalid container-style storage IRI '" + utf8(nested(10000)) +
                            "'. Containers nest at most 32 levels deep."},
    };
    for (const auto& [text, message] : rows) {
        expectThrow<ParseFailure>([&t = text] { StorageIRI{t}; }, message);
    }
    // The deepest allowed nesting parses, by either parser.
    EXPECT_EQ(StorageIRI(nested(32)), StorageIRI(foundation::network::IRI(nested(32))));
    // Text the IRI parser refuses keeps the parser's exception type.
    EXPECT_THROW(StorageIRI(u"http://[::1/x"), std::invalid_argument);
    expectThrow<LogicFailure>([] { StorageIRI(u"file:///a").getInnerIRI(); }, "IRI does not have an inner IRI.");
    expectThrow<std::logic_error>(
        [] { StorageIRI(u"s:file:///x.zip!/z").getHost(); },
        "StorageIRI s:file:///x.zip!/z is container based so by definition has no host.");
}

// A container built from parts escapes '!' in its path (the last '!' splits the text) and
// refuses a relative path and a nesting deeper than allowed.
TEST(StorageIRI, ContainerBuiltFromParts) {
    const StorageIRI inner(u"file", Path(u"/my archive.zip"));
    EXPECT_EQ(StorageIRI(u"zip", inner, u"/x!/y").toString(), u"zip:file:///my%20archive.zip!/x%21/y");
    EXPECT_EQ(StorageIRI(u"zip", inner, u"/a!/b").getParent().getPath(), u"/a!/");
    expectThrow<ParseFailure>([&] { StorageIRI(u"zip", inner, u"a"); },
                              "Invalid container-style storage IRI 'zip:file:///my%20archive.zip!a'. Path should "
                              "begin with a '/'.");
    expectThrow<ParseFailure>([] { StorageIRI(u"s", StorageIRI(nested(32)), u"/c"); },
                              "Invalid container-style storage IRI 's:" + utf8(nested(32)) +
                                  "!/c'. Containers nest at most 32 levels deep.");
}

}  // namespace
