// detail::canonicalize of arbitrary paths and IRIs: one trailing '/' goes, nothing else
// changes.
//
// Input: the text, taken both as a path and as an IRI.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>

#include "storage/provider/PathConversions.h"
#include "FuzzSupport.h"
#include "foundation/network/IRI.h"

namespace {

using foundation::network::Encoding;
using foundation::network::IRI;
using foundation::storage::provider::detail::canonicalize;
using fl::ustring;
using qkfl::fuzz::check;
using qkfl::fuzz::fail;
using qkfl::fuzz::isExactly;
using qkfl::fuzz::narrow;

void path(const ustring& text) {
    ustring expected = text;
    if (expected.size() > 1 && expected.back() == u'/') expected.pop_back();
    if (canonicalize(text) != expected) fail("canonicalize('", narrow(text), "') is '", narrow(canonicalize(text)), "'");
}

void iri(const ustring& text) {
    std::optional<IRI> parsed;
    try {
        parsed.emplace(text);
    } catch (const std::exception& e) {
        if (!isExactly<std::invalid_argument>(e)) fail("IRI('", narrow(text), "') threw ", typeid(e).name(), ": ", e.what());
        return;
    }
    const ustring before = parsed->getPath(Encoding::Decoded);
    IRI result;
    try {
        result = canonicalize(*parsed);
    } catch (const std::exception& e) {
        fail("canonicalize(IRI '", narrow(parsed->toString()), "') threw ", typeid(e).name(), ": ", e.what());
    }
    const ustring after = result.getPath(Encoding::Decoded);
    ustring expected = before;
    if (expected.size() > 1 && expected.back() == u'/') expected.pop_back();
    if (after != expected) {
        fail("canonicalize(IRI '", narrow(parsed->toString()), "') has the path '", narrow(after), "', not '",
             narrow(expected), "'");
    }
    if (expected == before) check(result == *parsed, "canonicalize changed an IRI it had nothing to remove from");
    check(result.getScheme() == parsed->getScheme(), "canonicalize changed the scheme");
    check(result.hasAuthority() == parsed->hasAuthority(), "canonicalize changed the authority");
    check(result.getHost(Encoding::Encoded) == parsed->getHost(Encoding::Encoded), "canonicalize changed the host");
    check(result.getQuery(Encoding::Encoded) == parsed->getQuery(Encoding::Encoded) &&
              result.hasQuery() == parsed->hasQuery(),
          "canonicalize changed the query");
    check(result.getFragment(Encoding::Encoded) == parsed->getFragment(Encoding::Encoded) &&
              result.hasFragment() == parsed->hasFragment(),
          "canonicalize changed the fragment");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const ustring text = qkfl::fuzz::toText(std::string_view(reinterpret_cast<const char*>(data), size));
    path(text);
    iri(text);
    return 0;
}
