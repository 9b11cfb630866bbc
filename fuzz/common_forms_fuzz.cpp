// The parser of the common forms against the general one. StorageIRI(text) takes the short
// path for text in a common form ('scheme://host/path', a container of such); the location
// made from the parsed IRI, StorageIRI(IRI(text)), always takes the general one. For every
// input both give the same text, components, inner locations, equality, order and hash, or
// the same exception with the same message. Child locations built by the short path (the
// text with its path replaced) match the text that composing the IRI from its components
// gives.
//
// Input: two texts separated by the first '\n' (see FuzzSupport.h): the location, and the
// name of a child location.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>

#include "storage/provider/StorageIRI.h"
#include "FuzzSupport.h"
#include "foundation/network/IRI.h"

namespace {

using foundation::network::IRI;
using foundation::storage::provider::StorageIRI;
using fl::ustring;
using qkfl::fuzz::fail;
using qkfl::fuzz::narrow;

// What `make` gives: a location, or the type and message of what it threw.
struct Outcome {
    std::optional<StorageIRI> location;
    std::string error;
};

Outcome attempt(const std::function<StorageIRI()>& make) {
    try {
        return {make(), {}};
    } catch (const std::exception& e) {
        return {std::nullopt, std::string(typeid(e).name()) + ": " + e.what()};
    }
}

// The same value or the same exception from `read` on both.
template <class Read>
void same(const char* what, const StorageIRI& fast, const StorageIRI& general, Read read) {
    std::string fastResult;
    std::string generalResult;
    try {
        fastResult = "= " + read(fast);
    } catch (const std::exception& e) {
        fastResult = std::string("! ") + typeid(e).name() + ": " + e.what();
    }
    try {
        generalResult = "= " + read(general);
    } catch (const std::exception& e) {
        generalResult = std::string("! ") + typeid(e).name() + ": " + e.what();
    }
    if (fastResult != generalResult) {
        fail(what, " of '", narrow(general.toString()), "' differs: '", fastResult, "' against '", generalResult, "'");
    }
}

std::string text(const ustring& value) { return narrow(value); }
std::string flag(bool value) { return value ? "true" : "false"; }

void compare(const StorageIRI& fast, const StorageIRI& general, int depth) {
    same("toString", fast, general, [](const StorageIRI& l) { return text(l.toString()); });
    same("toAsciiString", fast, general, [](const StorageIRI& l) { return text(l.toAsciiString()); });
    same("getScheme", fast, general, [](const StorageIRI& l) { return text(l.getScheme()); });
    same("hasHost", fast, general, [](const StorageIRI& l) { return flag(l.hasHost()); });
    same("getHost", fast, general, [](const StorageIRI& l) { return text(l.getHost()); });
    same("hasPath", fast, general, [](const StorageIRI& l) { return flag(l.hasPath()); });
    same("getPath", fast, general, [](const StorageIRI& l) { return text(l.getPath()); });
    same("getName", fast, general, [](const StorageIRI& l) { return text(l.getName()); });
    same("hasParent", fast, general, [](const StorageIRI& l) { return flag(l.hasParent()); });
    same("getParent", fast, general, [](const StorageIRI& l) { return text(l.getParent().toAsciiString()); });
    same("getRoot", fast, general, [](const StorageIRI& l) { return text(l.getRoot().toAsciiString()); });
    same("isOpaque", fast, general, [](const StorageIRI& l) { return flag(l.isOpaque()); });
    same("hasInnerIRI", fast, general, [](const StorageIRI& l) { return flag(l.hasInnerIRI()); });
    same("getResolvedPath", fast, general, [](const StorageIRI& l) { return text(l.getResolvedPath()); });
    same("toIRI", fast, general, [](const StorageIRI& l) { return std::string(l.toIRI().asciiView()); });
    same("toUPath", fast, general, [](const StorageIRI& l) { return text(l.toUPath().generic_string()); });
    same("hashValue", fast, general, [](const StorageIRI& l) { return std::to_string(l.hashValue()); });
    if (!(fast == general) || !(general == fast)) fail("'", narrow(general.toString()), "' is not equal to itself");
    if (fast < general || general < fast) fail("'", narrow(general.toString()), "' orders before itself");
    if (depth < 3 && general.hasInnerIRI()) compare(fast.getInnerIRI(), general.getInnerIRI(), depth + 1);
}

// A child location's text against the text composed from the components with the new path.
void child(const StorageIRI& base, const ustring& name) {
    if (base.isOpaque()) return;
    const Outcome made = attempt([&] { return StorageIRI(base, name); });
    if (!made.location) return;  // the general rule decided; the parse check covers it
    ustring path = made.location->getPath();
    foundation::network::IRIArgs args = base.toIRI().toArgs();
    ustring encoded = foundation::network::encodePath(path);
    if (!encoded.empty() && encoded.front() != u'/') encoded.insert(encoded.begin(), u'/');
    args.path = encoded;
    const IRI composed(args);
    if (made.location->toAsciiString() != composed.toAsciiString()) {
        fail("the child '", narrow(name), "' of '", narrow(base.toString()), "' is '",
             narrow(made.location->toAsciiString()), "', composed '", narrow(composed.toAsciiString()), "'");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto [first, second] = qkfl::fuzz::splitInput(data, size);
    const ustring input = qkfl::fuzz::toText(first);
    const Outcome fast = attempt([&] { return StorageIRI(input); });
    const Outcome general = attempt([&] { return StorageIRI(IRI(fl::ustring_view(input))); });
    if (fast.error != general.error) {
        fail("'", narrow(input), "' fails differently: '", fast.error, "' against '", general.error, "'");
    }
    if (!fast.location) return 0;
    compare(*fast.location, *general.location, 0);
    child(*fast.location, qkfl::fuzz::toText(second));
    return 0;
}
