#include "storage/provider/detail/StorageIRIImpl.h"

#include <functional>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>

#include "foundation/core/except/Exception.h"
#include "support/Expect.h"

namespace {

using foundation::network::IRI;
using foundation::storage::provider::StorageIRI;
using foundation::storage::provider::ustring;
using foundation::storage::provider::detail::makeImpl;
using ParseFailure = foundation::core::except::detail::AnonymousInternalException<std::runtime_error>;

using qkfl::test::expectThrow;
using qkfl::test::utf8;

TEST(StorageIRIForms, MakeImplChoosesTheForm) {
    const auto container = makeImpl(IRI(u"zip:file:///c.zip!/a"));
    EXPECT_TRUE(container->isOpaque());
    EXPECT_TRUE(container->hasInnerIRI());
    EXPECT_FALSE(container->hasHost());

    const auto hierarchical = makeImpl(IRI(u"mem://store/a"));
    EXPECT_FALSE(hierarchical->isOpaque());
    EXPECT_TRUE(hierarchical->hasHost());
    EXPECT_EQ(hierarchical->toIRI(), IRI(u"mem://store/a"));

    // No authority: given an empty one, so both spellings have one text.
    const auto noAuthority = makeImpl(IRI(u"file:/C:/x"));
    EXPECT_EQ(noAuthority->toString(), u"file:///C:/x");
    EXPECT_EQ(noAuthority->getPath(), u"/C:/x");
    EXPECT_TRUE(noAuthority->equals(*makeImpl(IRI(u"file:///C:/x"))));

    const auto path = makeImpl(u"file", fl::filesystem::basic_path(u"/a b/c"));
    EXPECT_EQ(path->toString(), u"file:///a%20b/c");
    EXPECT_EQ(path->getPath(), u"/a b/c");
    EXPECT_EQ(path->toUPath(), fl::filesystem::basic_path(u"/a b/c"));
    EXPECT_TRUE(path->equals(*hierarchical) == false);
    EXPECT_TRUE(path->equals(*makeImpl(IRI(u"file:///a%20b/c"))));
    EXPECT_TRUE(makeImpl(IRI(u"file:///a%20b/c"))->equals(*path));
}

TEST(StorageIRIForms, ParsesContainerLocations) {
    auto check = [](const ustring& text, const ustring& inner, const ustring& path) {
        const StorageIRI iri(text);
        EXPECT_TRUE(iri.isOpaque()) << utf8(text);
        EXPECT_EQ(iri.getInnerIRI().toString(), inner) << utf8(text);
        EXPECT_EQ(iri.getPath(), path) << utf8(text);
        EXPECT_EQ(iri.getScheme(), u"s") << utf8(text);
    };
    check(u"s:file:///c.zip!/a/b", u"file:///c.zip", u"/a/b");
    check(u"s:t:file:///x.zip!/y.zip!/z", u"t:file:///x.zip!/y.zip", u"/z");
    check(u"s:file:///c.zip!/a/", u"file:///c.zip", u"/a");
    check(u"s:file:///c.zip!/", u"file:///c.zip", u"/");
    check(u"s:file:///c.zip!/a%21b/c%20d%3F%23", u"file:///c.zip", u"/a!b/c d?#");
    check(u"s:file:///c.zip!/caf%C3%A9", u"file:///c.zip", u"/café");
    check(u"s:file:///my%20c.zip!/a", u"file:///my%20c.zip", u"/a");
    check(u"s:file:///c.zip?v=1!/a", u"file:///c.zip?v=1", u"/a");
    check(u"s:file:/c.zip!/a", u"file:///c.zip", u"/a");

    const StorageIRI nested(u"s:t:file:///x.zip!/y.zip!/z");
    EXPECT_EQ(nested.getInnerIRI().getInnerIRI(), StorageIRI(u"file:///x.zip"));
    EXPECT_EQ(nested.getInnerIRI().getPath(), u"/y.zip");
    EXPECT_FALSE(nested.hasHost());
    EXPECT_EQ(nested.getRoot().toString(), u"s:t:file:///x.zip!/y.zip!/");

    expectThrow<std::logic_error>(
        [&] { nested.getHost(); },
        "StorageIRI s:t:file:///x.zip!/y.zip!/z is container based so by definition has no host.");
    expectThrow<std::logic_error>([&] { nested.toUPath(); },
                                  "Can not extract a file system path from StorageIRI s:t:file:///x.zip!/y.zip!/z "
                                  "as it represents a location inside a container.");
}

TEST(StorageIRIForms, ContainerBuiltFromPartsParsesBack) {
    const StorageIRI inner(u"file:///home/user/my archive.zip");
    auto check = [&](const ustring& path, const ustring& text) {
        const StorageIRI built(u"zip", inner, path);
        EXPECT_EQ(built.getPath(), path) << utf8(path);
        EXPECT_EQ(built.toString(), text) << utf8(path);
        const StorageIRI parsed(built.toString());
        EXPECT_EQ(parsed.getPath(), path) << utf8(path);
        EXPECT_EQ(parsed.getInnerIRI(), inner) << utf8(path);
        EXPECT_EQ(parsed, built) << utf8(path);
        EXPECT_EQ(parsed.hashValue(), built.hashValue()) << utf8(path);
        EXPECT_EQ(StorageIRI(built.toAsciiString()).getPath(), path) << utf8(path);
    };
    check(u"/a/b", u"zip:file:///home/user/my%20archive.zip!/a/b");
    check(u"/", u"zip:file:///home/user/my%20archive.zip!/");
    check(u"/a!b", u"zip:file:///home/user/my%20archive.zip!/a%21b");
    check(u"/x!/y", u"zip:file:///home/user/my%20archive.zip!/x%21/y");
    check(u"/what?#", u"zip:file:///home/user/my%20archive.zip!/what%3F%23");
    check(u"/100% sure", u"zip:file:///home/user/my%20archive.zip!/100%25%20sure");
    check(u"/%41", u"zip:file:///home/user/my%20archive.zip!/%2541");
    check(u"/日本/ü", u"zip:file:///home/user/my%20archive.zip!/日本/ü");

    // Nested containers from parts.
    const StorageIRI middle(u"zip", inner, u"/in!ner.zip");
    const StorageIRI deep(u"zip", middle, u"/x");
    const StorageIRI deepParsed(deep.toString());
    EXPECT_EQ(deepParsed.getInnerIRI(), middle);
    EXPECT_EQ(deepParsed.getInnerIRI().getPath(), u"/in!ner.zip");
    EXPECT_EQ(deepParsed.getInnerIRI().getInnerIRI(), inner);

    // An empty path stands as "/" in the text; a parent path ending in '!' gets a '/'.
    EXPECT_EQ(StorageIRI(u"zip", inner, u"").toString(), u"zip:file:///home/user/my%20archive.zip!/");
    const StorageIRI bang(u"zip", inner, u"/a!/b");
    EXPECT_EQ(bang.getParent().getPath(), u"/a!/");
    EXPECT_EQ(bang.getName(), u"b");
    EXPECT_EQ(StorageIRI(u"zip", inner, u"/a/").toString(), u"zip:file:///home/user/my%20archive.zip!/a");

    // A path-form inner location.
    const StorageIRI fsInner(u"file", fl::filesystem::basic_path(u"/tmp/a b.zip"));
    const StorageIRI onPath(u"zip", fsInner, u"/c");
    EXPECT_EQ(StorageIRI(onPath.toString()).getInnerIRI(), fsInner);

    expectThrow<ParseFailure>([&] { StorageIRI(u"zip", inner, u"a"); },
                              "Invalid container-style storage IRI 'zip:file:///home/user/my%20archive.zip!a'. Path "
                              "should begin with a '/'.");
    expectThrow<ParseFailure>([&] { StorageIRI(u"zip", StorageIRI(u"mem://host"), u"/a"); },
                              "IRI 'zip:mem://host!/a' does not have an absolute path component on the inner IRI.");
    expectThrow<ParseFailure>([&] { StorageIRI(u"", inner, u"/a"); },
                              "IRI ':file:///home/user/my%20archive.zip!/a' is not absolute.");
    EXPECT_THROW(StorageIRI(u"no scheme", inner, u"/a"), std::invalid_argument);
}

TEST(StorageIRIForms, PathFormComparesAsTheFileSystemDoes) {
    auto at = [](const ustring& path) { return StorageIRI(u"file", fl::filesystem::basic_path(path)); };
    EXPECT_EQ(at(u"/a/b"), at(u"/a/b"));
    EXPECT_NE(at(u"/a/b"), at(u"/a//b"));
    EXPECT_NE(at(u"/a/b"), at(u"/A/b"));
    // Element order: '/a/b' before '/a.b', though '.' sorts before '/' in the text.
    EXPECT_TRUE(at(u"/a/b") < at(u"/a.b"));
    EXPECT_FALSE(at(u"/a.b") < at(u"/a/b"));
    EXPECT_TRUE(StorageIRI(u"file:///a.b") < StorageIRI(u"file:///a/b"));
    EXPECT_FALSE(at(u"/a") < at(u"/a"));
    // Against another form, the text decides.
    EXPECT_EQ(at(u"/a/b"), StorageIRI(u"file:///a/b"));
    EXPECT_EQ(StorageIRI(u"file:///a/b"), at(u"/a/b"));
    EXPECT_FALSE(at(u"/a/b") < StorageIRI(u"file:///a/b"));
    EXPECT_TRUE(at(u"/a.b") < StorageIRI(u"file:///a/b"));

    EXPECT_FALSE(at(u"/").hasParent());
    EXPECT_FALSE(at(u"").hasParent());
    EXPECT_TRUE(at(u"/a").hasParent());
    EXPECT_TRUE(at(u"a").hasParent());  // a relative path is not its own (empty) root
    EXPECT_EQ(at(u"/a/b").getParent(), at(u"/a"));
    EXPECT_EQ(at(u"/a").getParent().toString(), u"file:///");
    EXPECT_EQ(at(u"/a").getParent().toUPath(), fl::filesystem::basic_path(u"/"));
    EXPECT_EQ(at(u"/a/b/").getName(), u"");
    EXPECT_EQ(at(u"/").getName(), u"/");
    EXPECT_EQ(at(u"/a/b").getRoot(), at(u"/"));
    EXPECT_EQ(StorageIRI(at(u"/a"), u"b c").toUPath(), fl::filesystem::basic_path(u"/a/b c"));
    EXPECT_EQ(at(u"/x").getHost(), u"");
    EXPECT_FALSE(at(u"/x").hasHost());
    EXPECT_EQ(at(u"/x%y").toIRI().getPath(), u"/x%y");
    EXPECT_EQ(at(u"a/b").toString(), u"file:///a/b");
    EXPECT_EQ(at(u"/a/./b/../c").getResolvedPath(), u"/a/c");
    EXPECT_EQ(at(u"/a/b").makePathRelativeTo(at(u"/a")), u"b");
}

TEST(StorageIRIForms, HierarchicalFilePaths) {
    auto check = [](const ustring& text, const ustring& path) {
        EXPECT_EQ(StorageIRI(text).toUPath(), fl::filesystem::basic_path(path)) << utf8(text);
    };
    check(u"file:///home/a%20b", u"/home/a b");
    check(u"file:///", u"/");
    check(u"file://server/share/x", u"//server/share/x");
    check(u"file:///caf%C3%A9", u"/café");
}

}  // namespace
