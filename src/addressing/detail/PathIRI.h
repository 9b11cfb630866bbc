#pragma once

#include "fl/ustring.h"
#include "foundation/network/IRI.h"

// Path arithmetic through the IRI library, on decoded paths.
namespace foundation::storage::provider::detail {

// A reference that is only the decoded `path` (escaped, so a '%' or ':' in a name is kept).
foundation::network::IRI pathOnlyIRI(const fl::ustring& path);

// `path` with its '.' and '..' segments removed by reference resolution.
fl::ustring resolveDotSegments(const fl::ustring& path);

// The decoded relative path that leads from the folder `basePath` to `path`.
fl::ustring relativePath(const fl::ustring& path, const fl::ustring& basePath);

}  // namespace foundation::storage::provider::detail
