#include "addressing/detail/PathIRI.h"

namespace foundation::storage::provider::detail {

using foundation::network::Encoding;
using foundation::network::IRI;

IRI pathOnlyIRI(const fl::ustring& path) {
    foundation::network::IRIArgs args;
    args.path = foundation::network::encodePath(path);
    return IRI(args);
}

fl::ustring resolveDotSegments(const fl::ustring& path) {
    // Resolving against an empty base removes dot segments and nothing else: an absolute
    // path stays absolute and a relative one relative.
    return pathOnlyIRI(path).resolveAgainst(IRI()).getPath(Encoding::Decoded);
}

fl::ustring relativePath(const fl::ustring& path, const fl::ustring& basePath) {
    return pathOnlyIRI(path).makeRelativeTo(pathOnlyIRI(basePath)).getPath(Encoding::Decoded);
}

}  // namespace foundation::storage::provider::detail
