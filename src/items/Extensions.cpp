#include "storage/provider/Extensions.h"

#include "storage/provider/Exception.h"

// The destructors are defined here so that the library alone emits the vtables and type
// information, and a dynamic_cast in a caller finds the same types.

namespace foundation::storage::provider {

namespace extensions {

IFlushableFilesystem::~IFlushableFilesystem() = default;
IInvalidatable::~IInvalidatable() = default;
IFileIdentity::~IFileIdentity() = default;

}  // namespace extensions

bool isSameStoredFile(const IProvider& firstProvider, const StorageIRI& first, const IProvider& secondProvider,
                      const StorageIRI& second) {
    const auto* firstIdentity = dynamic_cast<const extensions::IFileIdentity*>(&firstProvider);
    const auto* secondIdentity = dynamic_cast<const extensions::IFileIdentity*>(&secondProvider);
    if (firstIdentity != nullptr && secondIdentity != nullptr) {
        const auto identity = firstIdentity->fileIdentity(first);
        return identity && identity == secondIdentity->fileIdentity(second);
    }
    return &firstProvider == &secondProvider && first.getResolvedIRI() == second.getResolvedIRI();
}

void refuseQueryOrFragment(const StorageIRI& location) {
    // In the ASCII text '?' and '#' stand only as delimiters: names hold them escaped.
    if (location.toAsciiString().find_first_of(u"?#") == ustring::npos) return;
    throw addExceptionContext(Exception(ErrorCode::InvalidLocation, location),
                              u"a location with a query ('?') or a fragment ('#') names no stored file; "
                              u"write them as '%3F' and '%23' in a name");
}

}  // namespace foundation::storage::provider
