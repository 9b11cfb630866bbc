// The listing defaults: every request falls, by direct calls on the same object, to one of
// the three listing primitives, or to doListAllRecursive, which is unsupported. Wildcards
// and the names-only hint are dropped; recursion is never emulated.
#include "storage/provider/IProvider.h"

namespace foundation::storage::provider {

using Listing = std::unique_ptr<IFolderEntryIterator>;

Listing IProvider::doListAllWildcards(const StorageIRI& folder, ustring) const { return doListAll(folder); }

Listing IProvider::doListFilesWildcards(const StorageIRI& folder, ustring) const { return doListFiles(folder); }

Listing IProvider::doListFoldersWildcards(const StorageIRI& folder, ustring) const { return doListFolders(folder); }

Listing IProvider::doListAllNamesOnly(const StorageIRI& folder) const { return doListAll(folder); }

Listing IProvider::doListFilesNamesOnly(const StorageIRI& folder) const { return doListFiles(folder); }

Listing IProvider::doListFoldersNamesOnly(const StorageIRI& folder) const { return doListFolders(folder); }

// The names-only wildcard forms fall to the names-only plain forms, so overriding those
// alone also serves requests with a pattern.
Listing IProvider::doListAllNamesOnlyWildcards(const StorageIRI& folder, ustring) const {
    return doListAllNamesOnly(folder);
}

Listing IProvider::doListFilesNamesOnlyWildcards(const StorageIRI& folder, ustring) const {
    return doListFilesNamesOnly(folder);
}

Listing IProvider::doListFoldersNamesOnlyWildcards(const StorageIRI& folder, ustring) const {
    return doListFoldersNamesOnly(folder);
}

Listing IProvider::doListAllRecursive(const StorageIRI& folder) const {
    throw Exception(ErrorCode::UnsupportedOperation, folder);
}

Listing IProvider::doListAllRecursiveNamesOnly(const StorageIRI& folder) const { return doListAllRecursive(folder); }

Listing IProvider::doListAllRecursiveWildcards(const StorageIRI& folder, ustring) const {
    return doListAllRecursive(folder);
}

Listing IProvider::doListAllRecursiveNamesOnlyWildcards(const StorageIRI& folder, ustring) const {
    return doListAllRecursiveNamesOnly(folder);
}

}  // namespace foundation::storage::provider
