#pragma once

#include <memory>
#include <string_view>

#include "storage/provider/detail/StorageIRIImpl.h"

namespace foundation::storage::provider::detail {

// The location for `text` when it is in one of the common forms, else null (then the
// general parser decides, errors included). The common forms are ASCII text that the
// general parser keeps exactly as written: 'scheme://host/path' with a host of letters,
// digits and '-._~!$&'()*+,;=' (possibly empty), a path of the characters a path allows
// without escapes; or 'scheme:inner!/path' of such characters, whose inner location is in
// a common form itself with a non-empty path, nested at most kMaxContainerNesting deep. No
// '%', '?', '#', port or user information. The result is the location the general parser
// gives (same text, components, equality and hash); the inner locations of a container are
// parsed when first asked for.
std::shared_ptr<StorageIRIImpl> parseCommonForm(std::u16string_view text);
std::shared_ptr<StorageIRIImpl> parseCommonForm(std::string_view text);

}  // namespace foundation::storage::provider::detail
