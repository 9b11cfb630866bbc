#include "foundation/network/IRI.h"

#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

using foundation::network::IRI;

namespace {

std::string text(const IRI& iri) { return std::string(iri.asciiView()); }

std::string resolve(const std::string& reference, const std::string& base) {
    return text(IRI(std::string_view(reference)).resolveAgainst(IRI(std::string_view(base))));
}

std::string relative(const std::string& target, const std::string& base) {
    return text(IRI(std::string_view(target)).makeRelativeTo(IRI(std::string_view(base))));
}

}  // namespace

TEST(IRIResolution, NormalExamplesOfRfc3986) {
    auto check = [](const std::string& reference, const std::string& expected) {
        EXPECT_EQ(resolve(reference, "http://a/b/c/d;p?q"), expected) << reference;
    };
    check("g:h", "g:h");
    check("g", "http://a/b/c/g");
    check("./g", "http://a/b/c/g");
    check("g/", "http://a/b/c/g/");
    check("/g", "http://a/g");
    check("//g", "http://g");
    check("?y", "http://a/b/c/d;p?y");
    check("g?y", "http://a/b/c/g?y");
    check("#s", "http://a/b/c/d;p?q#s");
    check("g#s", "http://a/b/c/g#s");
    check("g?y#s", "http://a/b/c/g?y#s");
    check(";x", "http://a/b/c/;x");
    check("g;x", "http://a/b/c/g;x");
    check("g;x?y#s", "http://a/b/c/g;x?y#s");
    check("", "http://a/b/c/d;p?q");
    check(".", "http://a/b/c/");
    check("./", "http://a/b/c/");
    check("..", "http://a/b/");
    check("../", "http://a/b/");
    check("../g", "http://a/b/g");
    check("../..", "http://a/");
    check("../../", "http://a/");
    check("../../g", "http://a/g");
}

TEST(IRIResolution, AbnormalExamplesOfRfc3986) {
    auto check = [](const std::string& reference, const std::string& expected) {
        EXPECT_EQ(resolve(reference, "http://a/b/c/d;p?q"), expected) << reference;
    };
    check("../../../g", "http://a/g");
    check("../../../../g", "http://a/g");
    check("/./g", "http://a/g");
    check("/../g", "http://a/g");
    check("g.", "http://a/b/c/g.");
    check(".g", "http://a/b/c/.g");
    check("g..", "http://a/b/c/g..");
    check("..g", "http://a/b/c/..g");
    check("./../g", "http://a/b/g");
    check("./g/.", "http://a/b/c/g/");
    check("g/./h", "http://a/b/c/g/h");
    check("g/../h", "http://a/b/c/h");
    check("g;x=1/./y", "http://a/b/c/g;x=1/y");
    check("g;x=1/../y", "http://a/b/c/y");
    check("g?y/./x", "http://a/b/c/g?y/./x");
    check("g?y/../x", "http://a/b/c/g?y/../x");
    check("g#s/./x", "http://a/b/c/g#s/./x");
    check("g#s/../x", "http://a/b/c/g#s/../x");
    check("http:g", "http:g");
}

TEST(IRIResolution, ResolvesWhereBoostUrlDoesNot) {
    auto check = [](const std::string& reference, const std::string& base, const std::string& expected) {
        EXPECT_EQ(resolve(reference, base), expected) << reference << " against " << base;
    };
    // Bare paths, as the resolved path of a location needs them.
    check("/a/b/../c", "/", "/a/c");
    check("/..", "/", "/");
    check("/a/./b/../../..", "/a/b", "/");
    check("c", "/a/b", "/a/c");
    check("../../x", "a/b", "x");
    // The reference's fragment only, never the base's.
    check("", "http://a/b?q#f", "http://a/b?q");
    // '%2F' is data, not a separator, and stays escaped.
    check("../x%2Fy/%2E%2E/z", "http://a/b/c", "http://a/x%2Fy/%2E%2E/z");
    check("x%2F..%2Fy", "file:///a/b", "file:///a/x%2F..%2Fy");
    // Opaque IRIs keep their dot segments (and so their container).
    check("zip:file:///a/../b.zip!/c/../d", "http://a/b", "zip:file:///a/../b.zip!/c/../d");
    check("x/../y", "zip:file:///a.zip!/b", "x/../y");
    check("#f", "zip:file:///a.zip!/b#g", "zip:file:///a.zip!/b#f");
    // A path starting with '//' keeps a dot segment rather than turn into an authority.
    check("..//x", "a:/b", "a:/.//x");
    check("file:/..//x", "http://h/", "file:/.//x");
    // Non-ASCII stays escaped UTF-8 through resolution.
    EXPECT_EQ(IRI(u"../\u00fc").resolveAgainst(IRI(u"file:///a/b/c")).toString(), u"file:///a/\u00fc");
}

TEST(IRIRelative, GivesTheShortestReference) {
    auto check = [](const std::string& target, const std::string& expected) {
        EXPECT_EQ(relative(target, "http://a/b/c/d;p?q"), expected) << target;
    };
    check("http://a/b/c/g", "g");
    check("http://a/b/c/g/h?y#s", "g/h?y#s");
    check("http://a/b/c/", ".");
    check("http://a/b/", "..");
    check("http://a/b/g", "../g");
    check("http://a/", "/");
    check("http://a/g", "/g");
    check("http://a/b/c/d;p?q", "");
    check("http://a/b/c/d;p?q#s", "#s");
    check("http://a/b/c/d;p?y", "?y");
    check("http://a/b/c/d;p", "d;p");
    check("http://a/b/c/x:y", "./x:y");
    check("http://a/b/c//x", ".//x");
    check("http://a/b/c/%2F", "%2F");
    check("http://a", "//a");
    // Not relative to this base: the target as it is.
    check("http://g/b/c/g", "http://g/b/c/g");
    check("https://a/b/c/g", "https://a/b/c/g");
    check("zip:http://a/b.zip!/c", "zip:http://a/b.zip!/c");
    check("http://a/b/./c", "http://a/b/./c");
    EXPECT_EQ(relative("zip:f:///a.zip!/b/c", "zip:f:///a.zip!/b/d"), "zip:f:///a.zip!/b/c");
    EXPECT_EQ(relative("file:///a/x", "file:///a/./b/../c/d"), "../x");
    EXPECT_EQ(relative("/a/b", "/a/c"), "b");
}

// Resolving the relative form of a target against its base gives the target back.
TEST(IRIRelative, ResolvesBackOverGeneratedPairs) {
    std::mt19937 random(20260);
    auto pick = [&random](const std::vector<std::string>& choices) {
        return choices[std::uniform_int_distribution<std::size_t>(0, choices.size() - 1)(random)];
    };
    auto generate = [&](bool withDots) {
        std::string uri = pick({"http://a", "http://b", "file://", "file:/z", "https://a"});
        const int segments = std::uniform_int_distribution<int>(0, 5)(random);
        if (segments == 0 && uri.ends_with("//a")) return uri + pick({"", "?q", "#f"});
        for (int i = 0; i < segments; ++i) {
            uri += '/';
            uri += withDots ? pick({"a", "b", "", ".", "..", "x:y"}) : pick({"a", "b", "", "c%2Fd", "x:y"});
        }
        if (segments == 0) uri += "/";
        return uri + pick({"", "", "?", "?q", "?r"}) + pick({"", "", "#", "#f"});
    };
    int relativeCount = 0;
    for (int i = 0; i < 20000; ++i) {
        const IRI target(std::string_view(generate(false)));
        const IRI base(std::string_view(generate(true)));
        const IRI reference = target.makeRelativeTo(base);
        ASSERT_EQ(text(reference.resolveAgainst(base)), text(target))
            << "target " << text(target) << " base " << text(base) << " reference " << text(reference);
        ASSERT_LE(reference.asciiView().size(), target.asciiView().size()) << text(reference);
        if (target.getScheme() == base.getScheme() && target.hasAuthority() == base.hasAuthority() &&
            target.getHost() == base.getHost()) {
            ASSERT_FALSE(reference.isAbsolute()) << "target " << text(target) << " base " << text(base);
            ++relativeCount;
        } else {
            ASSERT_EQ(reference, target);
        }
    }
    EXPECT_GT(relativeCount, 2000);
}
