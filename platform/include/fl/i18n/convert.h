#pragma once

#include <string>
#include <string_view>

#include "fl/ustring.h"

// Text conversion between UTF-8 and UTF-16. Invalid input never fails: each ill-formed
// sequence becomes U+FFFD. Pure ASCII takes a fast path without ICU.
namespace fl::i18n {

QKFL_PLATFORM_EXPORT ustring to_ustring(std::string_view utf8);
QKFL_PLATFORM_EXPORT std::string to_string(ustring_view utf16);

// Full Unicode lower-casing in the root locale (never the process locale, so 'I' is always
// 'i'). The result may be longer than the input.
QKFL_PLATFORM_EXPORT ustring to_lower(ustring_view text);

}  // namespace fl::i18n
