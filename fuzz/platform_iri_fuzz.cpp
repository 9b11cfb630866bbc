// The platform IRI parser on arbitrary text: every getter, both text forms and the component
// record parse back to the same IRI, and reference resolution against a second fuzzed IRI.
//
// Input: two texts separated by the first '\n' (see FuzzSupport.h).

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>

#include "FuzzSupport.h"
#include "foundation/network/IRI.h"

namespace {

using foundation::network::Encoding;
using foundation::network::IRI;
using fl::ustring;
using qkfl::fuzz::check;
using qkfl::fuzz::fail;
using qkfl::fuzz::isExactly;
using qkfl::fuzz::narrow;

// Parses `text`; std::nullopt for the documented std::invalid_argument.
template <class Text>
std::optional<IRI> parse(const Text& text, const char* what) {
    try {
        return IRI(text);
    } catch (const std::exception& e) {
        if (isExactly<std::invalid_argument>(e)) return std::nullopt;
        fail(what, " threw ", typeid(e).name(), ": ", e.what());
    }
}

void getters(const IRI& iri) {
    for (Encoding encoding : {Encoding::Decoded, Encoding::Encoded}) {
        (void)iri.getUserInfo(encoding);
        (void)iri.getHost(encoding);
        (void)iri.getPath(encoding);
        (void)iri.getQuery(encoding);
        (void)iri.getFragment(encoding);
        (void)iri.getSchemeSpecificPart(encoding);
    }
    (void)iri.getScheme();
    (void)iri.getPort();
    check(!iri.hasHost() || iri.hasAuthority(), "a host without an authority");
    check(!iri.isOpaque() || (iri.isAbsolute() && !iri.hasAuthority()), "an opaque IRI with an authority");
    for (char16_t c : iri.toAsciiString()) check(c < 0x80, "toAsciiString() holds a non-ASCII code unit");
    check(ustring(iri.asciiView().begin(), iri.asciiView().end()) == iri.toAsciiString(),
          "asciiView() differs from toAsciiString()");
}

// Both text forms and the component record give the same IRI again.
void roundTrips(const IRI& iri) {
    const auto fromText = parse(iri.toString(), "IRI(toString())");
    if (!fromText || !(*fromText == iri)) {
        fail("'", narrow(iri.toString()), "' does not parse back to '", narrow(iri.toAsciiString()), "'");
    }
    const auto fromAscii = parse(iri.toAsciiString(), "IRI(toAsciiString())");
    if (!fromAscii || !(*fromAscii == iri)) fail("'", narrow(iri.toAsciiString()), "' does not parse back");
    const auto fromArgs = parse(iri.toArgs(), "IRI(toArgs())");
    if (!fromArgs || fromArgs->toAsciiString() != iri.toAsciiString()) {
        fail("the components of '", narrow(iri.toAsciiString()), "' give '",
             fromArgs ? narrow(fromArgs->toAsciiString()) : std::string("nothing"), "'");
    }
}

// A relative reference made against a base resolves back against it.
void relative(const IRI& iri, const IRI& base) {
    const IRI resolved = iri.resolveAgainst(base);
    getters(resolved);
    const IRI rel = iri.makeRelativeTo(base);
    if (rel == iri) return;
    const IRI back = rel.resolveAgainst(base);
    if (!(back == iri)) {
        fail("'", narrow(rel.toAsciiString()), "' against '", narrow(base.toAsciiString()), "' resolves to '",
             narrow(back.toAsciiString()), "', not '", narrow(iri.toAsciiString()), "'");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto [first, second] = qkfl::fuzz::splitInput(data, size);
    const ustring text = qkfl::fuzz::toText(first);
    (void)foundation::network::mapToUri(text);
    (void)foundation::network::encodePath(text);
    // The UTF-8 constructor sees the raw bytes.
    if (const auto raw = parse(first, "IRI(utf8)")) getters(*raw);
    const auto iri = parse(fl::ustring_view(text), "IRI(text)");
    if (!iri) return 0;
    getters(*iri);
    roundTrips(*iri);
    if (const auto base = parse(fl::ustring_view(qkfl::fuzz::toText(second)), "IRI(base)")) {
        relative(*iri, *base);
        relative(*base, *iri);
    }
    return 0;
}
