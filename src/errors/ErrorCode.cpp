#include "storage/provider/ErrorCode.h"

#include <ostream>

#include "fl/i18n/convert.h"

namespace foundation::storage::provider {

std::string toString(const ErrorCode& code) {
    switch (code) {
        case ErrorCode::FolderNotEmpty: return "ErrorCode::FolderNotEmpty";
        case ErrorCode::InvalidLocation: return "ErrorCode::InvalidLocation";
        case ErrorCode::PermissionDenied: return "ErrorCode::PermissionDenied";
        case ErrorCode::ResourceAlreadyExists: return "ErrorCode::ResourceAlreadyExists";
        case ErrorCode::ResourceNotFound: return "ErrorCode::ResourceNotFound";
        case ErrorCode::FileTooLarge: return "ErrorCode::FileTooLarge";
        case ErrorCode::ResourceInUse: return "ErrorCode::ResourceInUse";
        case ErrorCode::ReadOnlyProvider: return "ErrorCode::ReadOnlyProvider";
        case ErrorCode::NoSpaceLeft: return "ErrorCode::NoSpaceLeft";
        case ErrorCode::IOError: return "ErrorCode::IOError";
        case ErrorCode::InternalError: return "ErrorCode::InternalError";
        case ErrorCode::UnsupportedOperation: return "ErrorCode::UnsupportedOperation";
        case ErrorCode::Unknown: return "ErrorCode::Unknown";
    }
    return "Unhandled ErrorCode";
}

fl::ustring toUstring(const ErrorCode& code) { return fl::i18n::to_ustring(toString(code)); }

std::ostream& operator<<(std::ostream& out, const ErrorCode& code) { return out << toString(code); }

}  // namespace foundation::storage::provider
