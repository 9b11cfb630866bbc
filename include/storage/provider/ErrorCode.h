#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>

#include "fl/ustring.h"
#include "storage/provider/Export.h"

namespace foundation::storage::provider {

// Why a provider operation failed. The numbers are stored and compared: never renumber.
enum class ErrorCode : std::uint32_t {
    FolderNotEmpty = 0,
    InvalidLocation = 1,
    PermissionDenied = 2,
    ResourceAlreadyExists = 3,
    ResourceNotFound = 4,
    FileTooLarge = 5,
    ResourceInUse = 6,
    ReadOnlyProvider = 7,
    NoSpaceLeft = 8,
    IOError = 9,
    InternalError = 10,
    UnsupportedOperation = 11,
    Unknown = 12,
};

// "ErrorCode::<Name>", or "Unhandled ErrorCode" for a value without a name. Never throws.
QKFL_STORAGE_EXPORT std::string toString(const ErrorCode& code);
QKFL_STORAGE_EXPORT fl::ustring toUstring(const ErrorCode& code);
QKFL_STORAGE_EXPORT std::ostream& operator<<(std::ostream& out, const ErrorCode& code);

}  // namespace foundation::storage::provider
