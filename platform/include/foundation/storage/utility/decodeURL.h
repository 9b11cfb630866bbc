#pragma once

#include "fl/ustring.h"

namespace foundation::storage::utility {

// Percent-decodes `text` in place. With `utf8` the escaped bytes are read as UTF-8
// (together with the unescaped characters around them, so '%C3%BC' becomes 'ü'; an
// ill-formed sequence becomes U+FFFD); without it each escape becomes the code unit of its
// byte value. A '%' not followed by two hex digits is kept as it is. '+' is never a space.
QKFL_PLATFORM_EXPORT void decodeURL(fl::ustring& text, bool utf8);

}  // namespace foundation::storage::utility
