#include "foundation/core/except/Exception.h"

#include "fl/i18n/convert.h"

namespace foundation::core::except {

IException::~IException() = default;

fl::ustring IException::convert_str(const fl::ustring& text) const { return text; }

fl::ustring IException::convert_str(const std::string& text) const { return fl::i18n::to_ustring(text); }

// The two message-only exceptions are thrown across the shared library's boundary: instantiate
// them here so their type information is exported once.
template class Exception<IInternalException, std::logic_error>;
template class Exception<IInternalException, std::runtime_error>;
template class Exception<IInternalException, std::exception>;
template class detail::AnonymousInternalException<std::logic_error>;
template class detail::AnonymousInternalException<std::runtime_error>;

}  // namespace foundation::core::except
