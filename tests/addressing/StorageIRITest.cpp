#include "storage/provider/StorageIRI.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <unordered_set>
#include <vector>

#include <pthread.h>

#include <boost/functional/hash.hpp>
#include <gtest/gtest.h>

#include "foundation/core/except/Exception.h"
#include "storage/provider/detail/StorageIRIImpl.h"
#include "support/Expect.h"

namespace {

using foundation::storage::provider::StorageIRI;
using foundation::storage::provider::ustring;
using foundation::storage::provider::detail::StorageIRIImpl;
using LogicFailure = foundation::core::except::detail::AnonymousInternalException<std::logic_error>;
using ParseFailure = foundation::core::except::detail::AnonymousInternalException<std::runtime_error>;

using qkfl::test::expectThrow;
using qkfl::test::utf8;

// An implementation with a given ASCII text, to drive the base equality directly.
class TextImpl final : public StorageIRIImpl {
public:
    explicit TextImpl(ustring text) : text_(std::move(text)) {}
    ustring getScheme() const override { return u"t"; }
    const std::shared_ptr<StorageIRIImpl>& getParent() const override { throw std::logic_error("none"); }
    bool hasParent() const override { return false; }
    StorageIRI getRoot() const override { throw std::logic_error("none"); }
    bool hasPath() const override { return true; }
    const ustring& getPath() const override { return text_; }
    const ustring& getName() const override { return text_; }
    const ustring& toString() const override { return text_; }
    const ustring& toAsciiString() const override { return text_; }
    ustring getHost() const override { return {}; }
    bool hasHost() const override { return false; }
    bool isOpaque() const override { return false; }
    foundation::network::IRI toIRI() const override { return foundation::network::IRI(); }
    bool hasInnerIRI() const override { return false; }
    StorageIRI getInnerIRI() const override { throw std::logic_error("none"); }
    fl::filesystem::basic_path toUPath() const override { return {}; }
    StorageIRI withPath(const ustring&) const override { throw std::logic_error("none"); }

private:
    ustring text_;
};

StorageIRI textIRI(const ustring& text) { return StorageIRI(std::make_shared<TextImpl>(text)); }

// A file 'levels' containers deep: 's:s:file:///a!/b!/b'.
ustring nested(std::size_t levels) {
    ustring text;
    for (std::size_t i = 0; i < levels; ++i) text += u"s:";
    text += u"file:///a";
    for (std::size_t i = 0; i < levels; ++i) text += u"!/b";
    return text;
}

TEST(StorageIRI, ParsesHierarchicalText) {
    auto check = [](const ustring& text, const ustring& shown, const ustring& host, const ustring& path,
                    const ustring& name) {
        const StorageIRI iri(text);
        EXPECT_EQ(iri.toString(), shown) << utf8(text);
        EXPECT_EQ(iri.hasHost(), !host.empty()) << utf8(text);
        EXPECT_EQ(iri.getHost(), host) << utf8(text);
        EXPECT_EQ(iri.getPath(), path) << utf8(text);
        EXPECT_EQ(iri.hasPath(), !path.empty()) << utf8(text);
        EXPECT_EQ(iri.getName(), name) << utf8(text);
        EXPECT_FALSE(iri.isOpaque()) << utf8(text);
        EXPECT_FALSE(iri.hasInnerIRI()) << utf8(text);
    };
    check(u"file:///home/user/a.txt", u"file:///home/user/a.txt", u"", u"/home/user/a.txt", u"a.txt");
    check(u"mem://store/a/b", u"mem://store/a/b", u"store", u"/a/b", u"b");
    check(u"file:/x", u"file:///x", u"", u"/x", u"x");
    check(u"file:///", u"file:///", u"", u"/", u"/");
    check(u"file://host", u"file://host", u"host", u"", u"");
    check(u"file:///a/b/", u"file:///a/b/", u"", u"/a/b/", u"");
    check(u"file:///a%20b/c%3Fd", u"file:///a%20b/c%3Fd", u"", u"/a b/c?d", u"c?d");
    check(u"file:///a b", u"file:///a%20b", u"", u"/a b", u"a b");
    check(u"file:///caf%C3%A9", u"file:///café", u"", u"/café", u"café");
    check(u"http://h%C3%A9/x?q=1#f", u"http://hé/x?q=1#f", u"hé", u"/x", u"x");
    EXPECT_EQ(StorageIRI(u"mem://store/a").getScheme(), u"mem");
    EXPECT_EQ(StorageIRI(foundation::network::IRI(u"file:/y")).toString(), u"file:///y");
}

TEST(StorageIRI, NonAsciiLocationsWorkEndToEnd) {
    const ustring shown = u"file:///home/Ünïcode café/日本語 フォルダ/報告.txt";
    const ustring ascii =
        u"file:///home/%C3%9Cn%C3%AFcode%20caf%C3%A9/%E6%97%A5%E6%9C%AC%E8%AA%9E%20"
        u"%E3%83%95%E3%82%A9%E3%83%AB%E3%83%80/%E5%A0%B1%E5%91%8A.txt";
    const StorageIRI parsed(shown);
    const StorageIRI escaped(ascii);
    const StorageIRI child(StorageIRI(StorageIRI(u"file:///home"), u"Ünïcode café/日本語 フォルダ"), u"報告.txt");
    const StorageIRI fromPath(u"file", fl::filesystem::basic_path(u"/home/Ünïcode café/日本語 フォルダ/報告.txt"));
    for (const StorageIRI* iri : {&parsed, &escaped, &child, &fromPath}) {
        EXPECT_EQ(iri->toString(), u"file:///home/Ünïcode%20café/日本語%20フォルダ/報告.txt");
        EXPECT_EQ(iri->toAsciiString(), ascii);
        EXPECT_EQ(iri->getPath(), u"/home/Ünïcode café/日本語 フォルダ/報告.txt");
        EXPECT_EQ(iri->getName(), u"報告.txt");
        EXPECT_EQ(iri->getParent().getName(), u"日本語 フォルダ");
        for (const StorageIRI* other : {&parsed, &escaped, &child, &fromPath}) {
            EXPECT_TRUE(*iri == *other);
            EXPECT_FALSE(*iri < *other);
            EXPECT_EQ(iri->hashValue(), other->hashValue());
        }
    }
    EXPECT_EQ(std::set<StorageIRI>({parsed, escaped, child}).size(), 1u);
    EXPECT_EQ(std::unordered_set<StorageIRI>({parsed, escaped, child, fromPath}).size(), 1u);
    std::ostringstream out;
    out << parsed;
    EXPECT_EQ(out.str(), "file:///home/Ünïcode%20café/日本語%20フォルダ/報告.txt");
}

TEST(StorageIRI, EqualityIsLooserThanOrdering) {
    auto check = [](const ustring& a, const ustring& b, bool equal) {
        EXPECT_EQ(textIRI(a) == textIRI(b), equal) << utf8(a) << " vs " << utf8(b);
        EXPECT_EQ(textIRI(b) == textIRI(a), equal) << utf8(a) << " vs " << utf8(b);
        EXPECT_EQ(textIRI(a) != textIRI(b), !equal) << utf8(a) << " vs " << utf8(b);
    };
    check(u"s:/x", u"s:///x", true);
    check(u"s:/x", u"s:////x", true);
    check(u"s://x", u"s:/x", false);
    check(u"s://x", u"s:///x", false);
    check(u"s://x", u"s://x", true);
    check(u"ab:/x", u"ab;/x", true);  // the code unit before the first '/' is not compared
    check(u"ab:/x", u"ac:/x", false);
    check(u"a:/x", u"ab:/x", false);
    check(u"s:/x", u"s:/y", false);
    check(u"s:/x", u"s:/xy", false);
    check(u"/x", u"///x", true);
    check(u"nothing", u"nothing", true);
    check(u"nothing", u"nothinG", false);
    check(u"", u"", true);

    // Parsed: 's:/x' takes the text 's:///x'; more slashes stay equal yet order apart.
    const StorageIRI one(u"s:/x");
    const StorageIRI three(u"s:///x");
    const StorageIRI four(u"s:////x");
    EXPECT_EQ(one.toAsciiString(), three.toAsciiString());
    EXPECT_TRUE(three == four);
    EXPECT_TRUE(four < three);
    EXPECT_FALSE(three < four);
    EXPECT_FALSE(StorageIRI(u"s://x") == one);
    EXPECT_FALSE(three < three);
    EXPECT_TRUE(StorageIRI(u"s:///a") < StorageIRI(u"s:///a/b"));
    EXPECT_TRUE(StorageIRI(u"s:///a/b") < StorageIRI(u"s:///a0"));
}

TEST(StorageIRI, HashIsBoostHashRangeOverTheAsciiText) {
    const std::vector<ustring> texts = {
        u"file:///",
        u"file:///home/user/Documents/report-2026.pdf",
        u"mem://store/a/b?x=1#frag",
        u"zip:file:///a.zip!/b/c.txt",
        u"zip:zip:file:///a.zip!/b.zip!/c",
        u"file:///caf%C3%A9/%E6%97%A5",
        u"file:///Ünïcode café/日本語",
        u"http://user@host:8080/p%20q",
        u"s:////x",
        u"file:///" + ustring(500, u'a'),
    };
    for (const auto& text : texts) {
        const StorageIRI iri(text);
        const ustring& ascii = iri.toAsciiString();
        const std::size_t expected = boost::hash_range(ascii.begin(), ascii.end());
        EXPECT_EQ(iri.hashValue(), expected) << utf8(text);
        EXPECT_EQ(hash_value(iri), expected) << utf8(text);
        EXPECT_EQ(std::hash<StorageIRI>()(iri), expected) << utf8(text);
        EXPECT_EQ(boost::hash<StorageIRI>()(iri), expected) << utf8(text);
        EXPECT_EQ(StorageIRI(iri.toString()).hashValue(), expected) << utf8(text);
    }
    EXPECT_EQ(textIRI(u"").hashValue(), 0u);
    EXPECT_EQ(textIRI(u"a").hashValue(), boost::hash_range(std::u16string_view(u"a").begin(),
                                                           std::u16string_view(u"a").end()));
    EXPECT_NE(StorageIRI(u"file:///a").hashValue(), StorageIRI(u"file:///b").hashValue());
}

TEST(StorageIRI, ChildLocations) {
    auto check = [](const ustring& base, const ustring& relative, const ustring& path) {
        const StorageIRI child(StorageIRI(base), relative);
        EXPECT_EQ(child.getPath(), path) << utf8(base) << " + " << utf8(relative);
        EXPECT_EQ(child.getScheme(), StorageIRI(base).getScheme());
    };
    check(u"file:///a/b", u"/", u"/");
    check(u"file:///a/b", u"//a//", u"/a//");
    check(u"file:///a/b", u"//a/b", u"/a/b");
    check(u"file:///a/b", u"///", u"/");
    check(u"file:///a/b", u"c/", u"/a/b/c");
    check(u"file:///a/", u"c/", u"/a/c");
    check(u"file:///a/b", u"c/d", u"/a/b/c/d");
    check(u"file:///a/b", u"", u"/a/b");
    check(u"file:///", u"c", u"/c");
    check(u"file://host", u"c", u"/c");
    check(u"mem://store/a", u"b", u"/a/b");
    check(u"zip:file:///c.zip!/a", u"b", u"/a/b");
    check(u"zip:file:///c.zip!/", u"b", u"/b");
    // Names are decoded text: escapes and delimiters in them stay part of the name.
    check(u"file:///a", u"x%20y", u"/a/x%20y");
    check(u"file:///a", u"q?r#s", u"/a/q?r#s");
    check(u"file:///a", u"50% off", u"/a/50% off");

    const StorageIRI host(StorageIRI(u"mem://store/a?v=1"), u"b");
    EXPECT_EQ(host.toString(), u"mem://store/a/b?v=1");
    EXPECT_EQ(host.getHost(), u"store");
    const StorageIRI odd(StorageIRI(u"file:///a"), u"50% off?");
    EXPECT_EQ(odd.toString(), u"file:///a/50%25%20off%3F");
    EXPECT_EQ(odd.getName(), u"50% off?");
    EXPECT_EQ(StorageIRI(odd.toString()), odd);
    const StorageIRI inner(StorageIRI(u"zip:file:///c.zip!/a"), u"b");
    EXPECT_EQ(inner.getInnerIRI(), StorageIRI(u"file:///c.zip"));
    EXPECT_EQ(inner.toString(), u"zip:file:///c.zip!/a/b");
}

TEST(StorageIRI, ParentsNamesAndRoots) {
    auto check = [](const ustring& text, const ustring& parent) {
        const StorageIRI iri(text);
        ASSERT_TRUE(iri.hasParent()) << utf8(text);
        EXPECT_EQ(iri.getParent().toString(), parent) << utf8(text);
    };
    check(u"file:///a/b/c", u"file:///a/b");
    check(u"file:///a", u"file:///");
    check(u"file:///a/b/", u"file:///a/b");
    check(u"mem://store/a/b?q", u"mem://store/a?q");
    check(u"zip:file:///c.zip!/a/b", u"zip:file:///c.zip!/a");
    check(u"zip:file:///c.zip!/a", u"zip:file:///c.zip!/");
    check(u"file:///a%20b/c", u"file:///a%20b");
    // A doubled '/' before the name goes with it, so the parent is still an ancestor.
    check(u"file:///a//b", u"file:///a");
    check(u"mem:///a://b", u"mem:///a:");
    check(u"zip:file:///c.zip!/a//b", u"zip:file:///c.zip!/a");
    check(u"zip:file:///c.zip!/a%21//", u"zip:file:///c.zip!/a%21");
    EXPECT_TRUE(StorageIRI(u"mem:///a://b").getParent().isAncestorOf(StorageIRI(u"mem:///a://b")));

    const StorageIRI root(u"file:///");
    EXPECT_FALSE(root.hasParent());
    EXPECT_EQ(root.getName(), u"/");
    expectThrow<LogicFailure>([&] { root.getParent(); }, "IRI does not have a parent IRI.");
    // An empty path has a parent by hasParent(), but none can be built.
    const StorageIRI empty(u"file://host");
    EXPECT_TRUE(empty.hasParent());
    expectThrow<LogicFailure>([&] { empty.getParent(); }, "IRI does not have a parent IRI.");

    // Walking up ends at the root; each step's name is the element removed.
    std::vector<ustring> names;
    for (StorageIRI at(u"mem://s/x/y/z"); at.hasParent(); at = at.getParent()) {
        names.push_back(at.getName());
    }
    EXPECT_EQ(names, (std::vector<ustring>{u"z", u"y", u"x"}));

    // The parent is computed once and shared.
    const StorageIRI leaf(u"file:///a/b");
    EXPECT_EQ(leaf.getParent().impl(), leaf.getParent().impl());
    const StorageIRI copy = leaf;
    EXPECT_EQ(copy.impl(), leaf.impl());
    EXPECT_EQ(&copy.toString(), &leaf.toString());

    EXPECT_EQ(StorageIRI(u"mem://store/a/b?q").getRoot().toString(), u"mem://store/?q");
    EXPECT_EQ(StorageIRI(u"zip:file:///c.zip!/a/b").getRoot().toString(), u"zip:file:///c.zip!/");
    EXPECT_EQ(StorageIRI(u"file:///").getRoot().getPath(), u"/");
}

TEST(StorageIRI, Ancestry) {
    auto check = [](const ustring& a, const ustring& b, bool ancestor) {
        EXPECT_EQ(StorageIRI(a).isAncestorOf(StorageIRI(b)), ancestor) << utf8(a) << " of " << utf8(b);
    };
    check(u"file:///a", u"file:///a/b", true);
    check(u"file:///a/", u"file:///a/b", true);
    check(u"file:///", u"file:///a/b", true);
    check(u"file:///a", u"file:///a", false);
    check(u"file:///a", u"file:///ab", false);
    check(u"file:///a/b", u"file:///a", false);
    check(u"file:///a", u"mem:///a/b", false);
    check(u"file://one/a", u"file://two/a/b", true);  // hosts are not compared
    check(u"zip:file:///c.zip!/a", u"zip:file:///c.zip!/a/b", true);
    check(u"zip:file:///c.zip!/", u"zip:file:///c.zip!/a", true);
    check(u"zip:file:///c.zip!/a", u"zip:file:///d.zip!/a/b", false);
    check(u"zip:file:///c.zip!/a", u"file:///c.zip/a/b", false);
    check(u"file:///c.zip", u"zip:file:///c.zip!/a", false);
    // The path view drops two code units from a trailing '/': '/a/' is viewed as "/".
    check(u"file:///a/", u"file:///x/y", true);
}

TEST(StorageIRI, RelativePaths) {
    auto check = [](const ustring& path, const ustring& base, const ustring& relative) {
        EXPECT_EQ(StorageIRI(path).makePathRelativeTo(StorageIRI(base)), relative) << utf8(path) << " from "
                                                                                    << utf8(base);
    };
    check(u"file:///a/b/c", u"file:///a", u"b/c");
    // The base gets a '/' whenever it is longer than "/": '/a/' is taken as the folder '/a//'.
    check(u"file:///a/b/c", u"file:///a/", u"../b/c");
    check(u"file:///a/b/c", u"file:///a/x", u"../b/c");
    check(u"file:///a/b/c", u"file:///", u"a/b/c");
    check(u"file:///a/b/c/d", u"file:///a/b/x", u"../c/d");
    check(u"file:///a/b", u"file:///a/b", u"../b");
    check(u"file:///a%20b/c", u"file:///a%20b", u"c");
    check(u"zip:file:///c.zip!/a/b", u"zip:file:///c.zip!/a", u"b");

    expectThrow<std::runtime_error>(
        [] { StorageIRI(u"file:///a").makePathRelativeTo(StorageIRI(u"mem:///a")); },
        "Can not make relative path between file:///a and mem:///a as they don't have a common root.");
    expectThrow<std::runtime_error>(
        [] { StorageIRI(u"zip:file:///c.zip!/a").makePathRelativeTo(StorageIRI(u"zip:file:///d.zip!/a")); },
        "Can not make relative path between zip:file:///c.zip!/a and zip:file:///d.zip!/a as they don't have "
        "a common root.");
}

TEST(StorageIRI, ResolvedPaths) {
    auto check = [](const ustring& text, const ustring& resolved) {
        const StorageIRI iri(text);
        EXPECT_EQ(iri.getResolvedPath(), resolved) << utf8(text);
        EXPECT_EQ(iri.getResolvedIRI().getPath(), resolved) << utf8(text);
        EXPECT_EQ(iri.getResolvedIRI().getScheme(), iri.getScheme()) << utf8(text);
    };
    check(u"file:///a/./b/../c", u"/a/c");
    check(u"file:///a/b/", u"/a/b");
    check(u"file:///a/b/..", u"/a");
    check(u"file:///a/b/../", u"/a");
    check(u"file:///..", u"/");
    check(u"file:///../../a", u"/a");
    check(u"file:///", u"/");
    check(u"file://host", u"");
    check(u"file:///a%20b/./c%25", u"/a b/c%");
    check(u"zip:file:///c.zip!/a/../b", u"/b");
    const StorageIRI iri(u"file:///a/../b");
    EXPECT_EQ(&iri.getResolvedPath(), &iri.getResolvedPath());
}

TEST(StorageIRI, MalformedTextRaisesTheDocumentedFailures) {
    auto bad = [](const ustring& text, const std::string& message) {
        expectThrow<ParseFailure>([&] { StorageIRI{text}; }, message);
    };
    bad(u"a/b", "IRI 'a/b' is not absolute.");
    bad(u"/a/b", "IRI '/a/b' is not absolute.");
    bad(u"//host/a", "IRI '//host/a' is not absolute.");
    bad(u"", "IRI '' is not absolute.");
    bad(u"s:file:///c.zip", "Invalid container-style storage IRI 's:file:///c.zip'. Expected to find a '!' to begin "
                            "the path section.");
    bad(u"s:file:///c.zip!a", "Invalid container-style storage IRI 's:file:///c.zip!a'. Path should begin with a '/'.");
    bad(u"s:file:///c.zip!", "Invalid container-style storage IRI 's:file:///c.zip!'. Path should begin with a '/'.");
    bad(u"s:file://host!/a", "IRI 's:file://host!/a' does not have an absolute path component on the inner IRI.");
    bad(u"s:rel!/a", "IRI 'rel' is not absolute.");
    bad(u"mailto:x", "Invalid container-style storage IRI 'mailto:x'. Expected to find a '!' to begin the path "
                     "section.");
    for (const std::size_t levels : {33, 10000}) {
        bad(nested(levels), "Invalid container-style storage IRI '" + utf8(nested(levels)) +
                                "'. Containers nest at most 32 levels deep.");
    }
    // Text the IRI parser refuses keeps the parser's exception type.
    EXPECT_THROW(StorageIRI(u"http://[::1/x"), std::invalid_argument);
    EXPECT_THROW(StorageIRI(u"1a:/x"), std::exception);

    const StorageIRI plain(u"file:///a");
    expectThrow<LogicFailure>([&] { plain.getInnerIRI(); }, "IRI does not have an inner IRI.");
    EXPECT_THROW(StorageIRI(std::shared_ptr<StorageIRIImpl>()), std::invalid_argument);
}

// Reads every member of `iri`; only exceptions derived from std::exception may escape.
void exercise(const StorageIRI& iri) {
    const std::vector<std::function<void()>> members = {
        [&] { (void)iri.getScheme(); },         [&] { (void)iri.getHost(); },
        [&] { (void)iri.getPath(); },           [&] { (void)iri.getName(); },
        [&] { (void)iri.getParent().toString(); },
        [&] { (void)iri.getRoot().toString(); },
        [&] { (void)iri.getInnerIRI().toString(); },
        [&] { (void)iri.getResolvedIRI().toString(); },
        [&] { (void)iri.toIRI(); },             [&] { (void)iri.toUPath(); },
        [&] { (void)iri.toString(); },          [&] { (void)iri.hashValue(); },
        [&] { (void)StorageIRI(iri, u"x/y/").toString(); },
        [&] { (void)StorageIRI(iri, u"/").toString(); },
        [&] { (void)StorageIRI(u"zip", iri, u"/a!b").toString(); },
        [&] { (void)iri.makePathRelativeTo(iri.getRoot()); },
        [&] { (void)StorageIRI(iri.toString()).toString(); },
        [&] {
            for (const auto& element : iri.getPathView()) {
                (void)element.size();
            }
            (void)iri.getPathView().getFilenameStringView();
            (void)iri.isAncestorOf(iri);
            (void)(iri == iri.getRoot());
            (void)(iri < iri.getRoot());
            (void)iri.hasParent();
            (void)iri.isOpaque();
            (void)iri.hasHost();
        },
    };
    for (const auto& member : members) {
        try {
            member();
        } catch (const std::exception&) {
        }
    }
}

TEST(StorageIRI, DeepestNestingParsesOnASmallStack) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, 512 * 1024);
    pthread_t thread;
    bool parsed = false;
    ASSERT_EQ(pthread_create(
                  &thread, &attributes,
                  [](void* result) -> void* {
                      // Both parsers: the one for common text and the general one.
                      const StorageIRI common(nested(32));
                      const StorageIRI general{foundation::network::IRI(nested(32))};
                      *static_cast<bool*>(result) = common == general && general.getInnerIRI().hasInnerIRI();
                      return nullptr;
                  },
                  &parsed),
              0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
    EXPECT_TRUE(parsed);
}

TEST(StorageIRI, NoInputCrashes) {
    std::vector<ustring> texts = {
        u"", u":", u"a:", u"a:/", u"a://", u"a:///", u"a:!", u"a:!/", u"a:b!", u"a:b!/", u"a:b:!/",
        u"a:b:c:!/!/", u"zip:file:///a.zip!/b!/c", u"zip:zip:zip:file:///a!/b!/c!/d", u"file:///%",
        u"file:///%zz/%C3", u"file:///%ED%A0%80", u"file://[::1]/a", u"file://h:80/a?b#c", u"x:%21!/%21",
        u"file:///a/../../..", u"file:////", u"s:#!/", u"s:?!/", u"s:a?b!/c#d!/e", ustring(u"\0:/", 3),
        ustring(u"file:///a\0b", 11), u"file:///\xD800", u"ü:/x", u"file:///ü/日本", u"file:/../a",
        u"http://user:pw@host/p", u"file:" + ustring(2000, u'/') + u"a", u"file:///" + ustring(300, u'!'),
    };
    // Deterministic mutations of well-formed texts.
    const std::vector<ustring> seeds = {u"zip:file:///c.zip!/a/b%20c", u"file://host/a/./b/../c?q#f",
                                        u"s:t:file:///x.zip!/y.zip!/z"};
    const ustring alphabet = u"/!%:?#.@[]\u00FC\u65E5a2F ";
    std::mt19937 random(12345);
    for (int i = 0; i < 600; ++i) {
        ustring text = seeds[i % seeds.size()];
        for (int edits = 1 + static_cast<int>(random() % 4); edits > 0; --edits) {
            const std::size_t at = random() % (text.size() + 1);
            switch (random() % 3) {
            case 0: text.insert(at, 1, alphabet[random() % alphabet.size()]); break;
            case 1: if (at < text.size()) text.erase(at, 1); break;
            default: if (at < text.size()) text[at] = alphabet[random() % alphabet.size()]; break;
            }
        }
        texts.push_back(text);
    }
    int parsed = 0;
    for (const auto& text : texts) {
        try {
            exercise(StorageIRI(text));
            ++parsed;
        } catch (const std::exception&) {
        }
    }
    EXPECT_GT(parsed, 100);
    for (const auto& path : {u"", u"/", u"//", u"a", u"/a/", u"//a//b", u"\\a", u"/ü/%"}) {
        exercise(StorageIRI(u"file", fl::filesystem::basic_path(path)));
    }
}

TEST(StorageIRI, ManyThreadsReadOneFreshLocation) {
    for (int round = 0; round < 20; ++round) {
        const StorageIRI iri(u"zip:file:///home/user/Ünïcode/a.zip!/x/./y/z.txt");
        const StorageIRI fromPath(u"file", fl::filesystem::basic_path(u"/home/user/café/z.txt"));
        struct Seen {
            const ustring* text;
            const ustring* ascii;
            const ustring* name;
            const ustring* resolved;
            const StorageIRIImpl* parent;
            const ustring* pathText;
            const StorageIRIImpl* pathParent;
            std::size_t hash;
        };
        std::vector<Seen> seen(8);
        std::atomic<bool> go{false};
        std::vector<std::thread> threads;
        for (std::size_t i = 0; i < seen.size(); ++i) {
            threads.emplace_back([&, i] {
                while (!go.load()) {
                    std::this_thread::yield();
                }
                const StorageIRI copy = iri;  // copies share the cached values
                seen[i] = {&copy.toString(),           &iri.toAsciiString(),       &iri.getName(),
                           &copy.getResolvedPath(),    iri.getParent().impl().get(), &fromPath.toString(),
                           fromPath.getParent().impl().get(), iri.hashValue()};
            });
        }
        go.store(true);
        for (auto& thread : threads) {
            thread.join();
        }
        for (const auto& s : seen) {
            EXPECT_EQ(s.text, seen.front().text);
            EXPECT_EQ(s.ascii, seen.front().ascii);
            EXPECT_EQ(s.name, seen.front().name);
            EXPECT_EQ(s.resolved, seen.front().resolved);
            EXPECT_EQ(s.parent, seen.front().parent);
            EXPECT_EQ(s.pathText, seen.front().pathText);
            EXPECT_EQ(s.pathParent, seen.front().pathParent);
            EXPECT_EQ(s.hash, seen.front().hash);
        }
        EXPECT_EQ(*seen.front().text, u"zip:file:///home/user/Ünïcode/a.zip!/x/./y/z.txt");
        EXPECT_EQ(*seen.front().resolved, u"/x/y/z.txt");
        EXPECT_EQ(seen.front().parent, iri.getParent().impl().get());
        EXPECT_EQ(*seen.front().pathText, u"file:///home/user/café/z.txt");
    }
}

// A child location keeps only its text until asked for more: it must compare, order, hash and
// answer every accessor exactly as the same location parsed from that text, whichever is
// asked first.
TEST(StorageIRI, ChildLocationsBehaveAsTheirParsedText) {
    auto check = [](const ustring& base, const ustring& relative, const ustring& text) {
        const std::string where = utf8(base) + " + " + utf8(relative);
        const StorageIRI parsed(text);
        const StorageIRI fresh(StorageIRI(base), relative);
        // Identity first, before any other value of the child exists.
        const ustring& ascii = parsed.toAsciiString();
        EXPECT_EQ(fresh.hashValue(), boost::hash_range(ascii.begin(), ascii.end())) << where;
        EXPECT_TRUE(fresh == parsed && parsed == fresh) << where;
        EXPECT_FALSE(fresh < parsed || parsed < fresh) << where;
        const StorageIRI after(ascii + u"x");
        EXPECT_TRUE(fresh < after && !(after < fresh) && fresh != after) << where;
        const StorageIRI child(StorageIRI(base), relative);
        EXPECT_EQ(child.getPath(), parsed.getPath()) << where;
        EXPECT_EQ(child.getName(), parsed.getName()) << where;
        EXPECT_EQ(child.toString(), text) << where;
        EXPECT_EQ(child.toAsciiString(), ascii) << where;
        EXPECT_EQ(child.getScheme(), parsed.getScheme()) << where;
        EXPECT_EQ(child.hasHost(), parsed.hasHost()) << where;
        EXPECT_EQ(child.getHost(), parsed.getHost()) << where;
        EXPECT_EQ(child.hasParent(), parsed.hasParent()) << where;
        EXPECT_EQ(child.getResolvedPath(), parsed.getResolvedPath()) << where;
        EXPECT_EQ(child.toIRI().toAsciiString(), ascii) << where;
        EXPECT_EQ(child.toUPath().string(), parsed.toUPath().string()) << where;
        EXPECT_EQ(child.getRoot().toString(), parsed.getRoot().toString()) << where;
        if (parsed.hasParent()) {
            EXPECT_EQ(child.getParent().toString(), parsed.getParent().toString()) << where;
        }
        EXPECT_EQ(StorageIRI(child, u"z").toString(), StorageIRI(parsed, u"z").toString()) << where;
    };
    check(u"mem:///bench/unchanged", u"entry-00001.dat", u"mem:///bench/unchanged/entry-00001.dat");
    check(u"file:///a", u"/", u"file:///");
    check(u"file:///a/b", u"c/", u"file:///a/b/c");
    check(u"file:///a/b", u"//a//", u"file:///a//");
    check(u"file://server/share", u"x", u"file://server/share/x");
    check(u"http://user@host:8080/p?q=1#f", u"r s", u"http://user@host:8080/p/r%20s?q=1#f");
    check(u"s:/x", u"y", u"s:///x/y");
    check(u"file:///a", u"x/../y/./z", u"file:///a/x/../y/./z");
    check(u"file:///a", u"50% off?#", u"file:///a/50%25%20off%3F%23");
    check(u"file:///a", u"[1]", u"file:///a/%5B1%5D");
    check(u"file:///Ünïcode", u"日本語 フォルダ", u"file:///Ünïcode/日本語%20フォルダ");
    check(u"file:///caf%C3%A9", u"é", u"file:///café/é");
}

TEST(StorageIRI, ManyThreadsReadOneFreshChildLocation) {
    const StorageIRI folder(u"file:///home/user/Ünïcode");
    for (int round = 0; round < 20; ++round) {
        const StorageIRI child(folder, u"x/./y/z.txt");
        struct Seen {
            const ustring* text;
            const ustring* ascii;
            const ustring* path;
            const ustring* name;
            const ustring* resolved;
            const StorageIRIImpl* parent;
            const StorageIRIImpl* root;
            std::size_t hash;
            bool equal;
        };
        std::vector<Seen> seen(8);
        std::atomic<bool> go{false};
        std::vector<std::thread> threads;
        for (std::size_t i = 0; i < seen.size(); ++i) {
            threads.emplace_back([&, i] {
                while (!go.load()) {
                    std::this_thread::yield();
                }
                // Each thread starts with a different value, so that every value is raced for.
                const StorageIRI copy = child;
                std::vector<std::function<void()>> steps = {
                    [&] { seen[i].text = &copy.toString(); },
                    [&] { seen[i].ascii = &child.toAsciiString(); },
                    [&] { seen[i].path = &copy.getPath(); },
                    [&] { seen[i].name = &child.getName(); },
                    [&] { seen[i].resolved = &copy.getResolvedPath(); },
                    [&] { seen[i].parent = child.getParent().impl().get(); },
                    [&] { seen[i].root = copy.getRoot().impl().get(); },
                    [&] { seen[i].hash = child.hashValue(); },
                    [&] { seen[i].equal = copy == StorageIRI(u"file:///home/user/Ünïcode/x/./y/z.txt"); },
                };
                std::rotate(steps.begin(), steps.begin() + long(i % steps.size()), steps.end());
                for (const auto& step : steps) {
                    step();
                }
            });
        }
        go.store(true);
        for (auto& thread : threads) {
            thread.join();
        }
        for (const auto& s : seen) {
            EXPECT_EQ(s.text, seen.front().text);
            EXPECT_EQ(s.ascii, seen.front().ascii);
            EXPECT_EQ(s.path, seen.front().path);
            EXPECT_EQ(s.name, seen.front().name);
            EXPECT_EQ(s.resolved, seen.front().resolved);
            EXPECT_EQ(s.parent, seen.front().parent);
            EXPECT_EQ(s.root, seen.front().root);
            EXPECT_EQ(s.hash, seen.front().hash);
            EXPECT_TRUE(s.equal);
        }
        EXPECT_EQ(*seen.front().text, u"file:///home/user/Ünïcode/x/./y/z.txt");
        EXPECT_EQ(*seen.front().resolved, u"/home/user/Ünïcode/x/y/z.txt");
        EXPECT_EQ(*seen.front().name, u"z.txt");
        EXPECT_EQ(seen.front().parent->toString(), u"file:///home/user/Ünïcode/x/./y");
    }
}

}  // namespace
