#pragma once

#include <sstream>
#include <string>
#include <string_view>
#include <utility>

#include "fl/ustring.h"
#include "foundation/core/except/Exception.h"
#include "storage/provider/detail/StorageIRIImpl.h"

// Helpers shared by the StorageIRI forms: the fixed failure texts and path splitting.
namespace foundation::storage::provider::detail {

using fl::ustring;
using LogicFailure = foundation::core::except::detail::AnonymousInternalException<std::logic_error>;
using ParseFailure = foundation::core::except::detail::AnonymousInternalException<std::runtime_error>;

// Concatenates narrow and UTF-16 pieces into one UTF-8 message.
template <class... Parts>
std::string message(const Parts&... parts) {
    std::ostringstream out;
    (out << ... << parts);
    return out.str();
}

[[noreturn]] void throwNoParent();
[[noreturn]] void throwNoInnerIRI();
[[noreturn]] void throwNotAbsolute(const ustring& text);

struct StorageIRIImpl::Extras {
    virtual ~Extras() = default;
    LazyBox<ustring> resolvedPath;
};

// Equality of two ASCII texts of locations: a run of one or of three or more '/' after the
// scheme match each other, and the character before the first '/' is not compared.
bool equalAsciiTexts(std::u16string_view a, std::u16string_view b) noexcept;
bool equalAsciiTexts(std::string_view a, std::string_view b) noexcept;

// (text up to and including the last '/', text after it); ("", "/") for "/" and ("", path)
// for a path without '/'. An empty first member means there is no parent.
std::pair<ustring, ustring> splitParentAndName(const ustring& path);

// The parent's path: the first member of the split without one trailing '/'. Throws
// LogicFailure when the first member is empty.
ustring parentPathOf(const std::pair<ustring, ustring>& parentAndName);

}  // namespace foundation::storage::provider::detail
