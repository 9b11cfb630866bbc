#pragma once

#include <iosfwd>
#include <string>
#include <string_view>

#include "fl/Export.h"

namespace fl {

// All names, paths and IRIs are UTF-16 text.
using ustring = std::u16string;
using ustring_view = std::u16string_view;

}  // namespace fl

namespace std {

// Writes UTF-16 text to a narrow stream as fl::i18n::to_string converts it: UTF-8, with
// U+DC80..U+DCFF as the bytes they stand for and other unpaired surrogates as U+FFFD.
QKFL_PLATFORM_EXPORT std::ostream& operator<<(std::ostream& out, const std::u16string& text);

}  // namespace std
