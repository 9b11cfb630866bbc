#pragma once

#include <string>
#include <string_view>

#include "fl/ustring.h"

// Text conversion between UTF-8 and UTF-16, lossless for bytes, so that a name on disk that is
// not valid UTF-8 converts to UTF-16 and back to the same bytes. Invalid input never fails:
// - to_ustring maps each byte that is not part of a well-formed UTF-8 character (each is
//   0x80..0xFF) to the lone low surrogate U+DC80..U+DCFF (U+DC00 + the byte);
// - to_string maps each lone U+DC80..U+DCFF back to that one byte, and any other unpaired
//   surrogate to U+FFFD.
// Escapes that spell a well-formed character (U+DCC3 U+DCA9) give its bytes, the same as the
// character itself ('é'). Pure ASCII takes a fast path.
namespace fl::i18n {

QKFL_PLATFORM_EXPORT ustring to_ustring(std::string_view utf8);
QKFL_PLATFORM_EXPORT std::string to_string(ustring_view utf16);

// Full Unicode lower-casing in the root locale (never the process locale, so 'I' is always
// 'i'). The result may be longer than the input.
QKFL_PLATFORM_EXPORT ustring to_lower(ustring_view text);

}  // namespace fl::i18n
