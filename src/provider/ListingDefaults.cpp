// The listing defaults. Every listing member defaults to doList, whose default takes one step
// down the fallbacks through the member serving the smaller request: wildcard requests drop
// the wildcard, names-only requests ask for the full listing, and the full listings, plain or
// recursive, are unsupported. So a provider that overrides only the three plain listings
// answers every request with them, and one that overrides only doList answers all of them
// there; recursion is never emulated.
#include "storage/provider/IProvider.h"

namespace foundation::storage::provider {

using Listing = std::unique_ptr<IFolderEntryIterator>;
using Select = ListingRequest::Select;

Listing IProvider::listThroughMember(const StorageIRI& folder, ListingRequest request) const {
    using Plain = Listing (IProvider::*)(const StorageIRI&) const;
    using Wildcards = Listing (IProvider::*)(const StorageIRI&, ustring) const;
    // Rows: all, files, folders, recursive; columns: full, names only.
    static constexpr Plain plain[4][2] = {{&IProvider::doListAll, &IProvider::doListAllNamesOnly},
                                          {&IProvider::doListFiles, &IProvider::doListFilesNamesOnly},
                                          {&IProvider::doListFolders, &IProvider::doListFoldersNamesOnly},
                                          {&IProvider::doListAllRecursive, &IProvider::doListAllRecursiveNamesOnly}};
    static constexpr Wildcards wildcards[4][2] = {
        {&IProvider::doListAllWildcards, &IProvider::doListAllNamesOnlyWildcards},
        {&IProvider::doListFilesWildcards, &IProvider::doListFilesNamesOnlyWildcards},
        {&IProvider::doListFoldersWildcards, &IProvider::doListFoldersNamesOnlyWildcards},
        {&IProvider::doListAllRecursiveWildcards, &IProvider::doListAllRecursiveNamesOnlyWildcards}};
    if (request.recursive && request.select != Select::All) return doList(folder, std::move(request));
    const auto row = request.recursive ? 3 : static_cast<int>(request.select);
    const auto column = request.namesOnly ? 1 : 0;
    if (request.wildcard.empty()) return (this->*plain[row][column])(folder);
    return (this->*wildcards[row][column])(folder, std::move(request.wildcard));
}

Listing IProvider::doList(const StorageIRI& folder, ListingRequest request) const {
    if (!request.wildcard.empty()) {
        request.wildcard.clear();
    } else if (request.namesOnly) {
        request.namesOnly = false;
    } else {
        throw Exception(ErrorCode::UnsupportedOperation, folder);
    }
    return listThroughMember(folder, std::move(request));
}

Listing IProvider::doListAll(const StorageIRI& f) const { return doList(f, {Select::All, false, false, {}}); }

Listing IProvider::doListFiles(const StorageIRI& f) const { return doList(f, {Select::Files, false, false, {}}); }

Listing IProvider::doListFolders(const StorageIRI& f) const { return doList(f, {Select::Folders, false, false, {}}); }

Listing IProvider::doListAllWildcards(const StorageIRI& f, ustring w) const {
    return doList(f, {Select::All, false, false, std::move(w)});
}

Listing IProvider::doListFilesWildcards(const StorageIRI& f, ustring w) const {
    return doList(f, {Select::Files, false, false, std::move(w)});
}

Listing IProvider::doListFoldersWildcards(const StorageIRI& f, ustring w) const {
    return doList(f, {Select::Folders, false, false, std::move(w)});
}

Listing IProvider::doListAllNamesOnly(const StorageIRI& f) const { return doList(f, {Select::All, true, false, {}}); }

Listing IProvider::doListFilesNamesOnly(const StorageIRI& f) const {
    return doList(f, {Select::Files, true, false, {}});
}

Listing IProvider::doListFoldersNamesOnly(const StorageIRI& f) const {
    return doList(f, {Select::Folders, true, false, {}});
}

Listing IProvider::doListAllNamesOnlyWildcards(const StorageIRI& f, ustring w) const {
    return doList(f, {Select::All, true, false, std::move(w)});
}

Listing IProvider::doListFilesNamesOnlyWildcards(const StorageIRI& f, ustring w) const {
    return doList(f, {Select::Files, true, false, std::move(w)});
}

Listing IProvider::doListFoldersNamesOnlyWildcards(const StorageIRI& f, ustring w) const {
    return doList(f, {Select::Folders, true, false, std::move(w)});
}

Listing IProvider::doListAllRecursive(const StorageIRI& f) const { return doList(f, {Select::All, false, true, {}}); }

Listing IProvider::doListAllRecursiveNamesOnly(const StorageIRI& f) const {
    return doList(f, {Select::All, true, true, {}});
}

Listing IProvider::doListAllRecursiveWildcards(const StorageIRI& f, ustring w) const {
    return doList(f, {Select::All, false, true, std::move(w)});
}

Listing IProvider::doListAllRecursiveNamesOnlyWildcards(const StorageIRI& f, ustring w) const {
    return doList(f, {Select::All, true, true, std::move(w)});
}

}  // namespace foundation::storage::provider
