#include "storage/provider/IProvider.h"

#include <utility>

#include "fl/i18n/convert.h"
#include "storage/provider/PollingChangeEventsDetector.h"
#include "storage/provider/TransactionalStream.h"

namespace foundation::storage::provider {

IProvider::IProvider() = default;

IProvider::~IProvider() = default;

void IProvider::moveFolder(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& policy) const {
    if (from.isAncestorOf(to)) throw Exception(ErrorCode::InvalidLocation, to);
    doMoveFolder(from, to, policy);
}

std::unique_ptr<ByteStream> IProvider::openStream(const StorageIRI& location,
                                                  const ByteStreamOpenOptions& options) const {
    auto stream = doOpenStream(location, options);
    return SafeByteStream::open(stream, options);
}

std::unique_ptr<ByteStream> IProvider::openReadOnlyStream(const StorageIRI& location) const {
    auto stream = doOpenReadOnlyStream(location);
    return SafeByteStream::openReadOnly(stream);
}

using Select = ListingRequest::Select;

std::unique_ptr<IFolderEntryIterator> IProvider::listAll(const StorageIRI& folder, ustring wildcard) const {
    return listThroughMember(folder, {Select::All, false, false, std::move(wildcard)});
}

std::unique_ptr<IFolderEntryIterator> IProvider::listFiles(const StorageIRI& folder, ustring wildcard) const {
    return listThroughMember(folder, {Select::Files, false, false, std::move(wildcard)});
}

std::unique_ptr<IFolderEntryIterator> IProvider::listFolders(const StorageIRI& folder, ustring wildcard) const {
    return listThroughMember(folder, {Select::Folders, false, false, std::move(wildcard)});
}

std::unique_ptr<IFolderEntryIterator> IProvider::listAllNamesOnly(const StorageIRI& folder, ustring wildcard) const {
    return listThroughMember(folder, {Select::All, true, false, std::move(wildcard)});
}

std::unique_ptr<IFolderEntryIterator> IProvider::listFilesNamesOnly(const StorageIRI& folder,
                                                                    ustring wildcard) const {
    return listThroughMember(folder, {Select::Files, true, false, std::move(wildcard)});
}

std::unique_ptr<IFolderEntryIterator> IProvider::listFoldersNamesOnly(const StorageIRI& folder,
                                                                      ustring wildcard) const {
    return listThroughMember(folder, {Select::Folders, true, false, std::move(wildcard)});
}

std::unique_ptr<IFolderEntryIterator> IProvider::listAllRecursive(const StorageIRI& folder, ustring wildcard) const {
    return listThroughMember(folder, {Select::All, false, true, std::move(wildcard)});
}

std::unique_ptr<IFolderEntryIterator> IProvider::listAllRecursiveNamesOnly(const StorageIRI& folder,
                                                                           ustring wildcard) const {
    return listThroughMember(folder, {Select::All, true, true, std::move(wildcard)});
}

// Default: a file first; the folder test runs only when there is no file.
ExistenceType IProvider::doExists(const StorageIRI& location) const {
    if (doFileExists(location)) return ExistenceType::AsFile;
    if (doFolderExists(location)) return ExistenceType::AsFolder;
    return ExistenceType::AsNeither;
}

// Default: as doExists; special files and links are for providers that can tell them apart.
ExistenceTypeExtended IProvider::doExistsExtended(const StorageIRI& location) const {
    if (doFileExists(location)) return ExistenceTypeExtended::RegularFile;
    if (doFolderExists(location)) return ExistenceTypeExtended::RegularFolder;
    return ExistenceTypeExtended::None;
}

bool IProvider::doHasFeature(const ExtendedFeature&) const { return false; }

PathComparator IProvider::doGetPathComparator(const StorageIRI&) const {
    return [](const ustring& a, const ustring& b, CaseModifier modifier) {
        // Values above InSensitive compare as InSensitive.
        if (static_cast<std::uint32_t>(modifier) >= static_cast<std::uint32_t>(CaseModifier::InSensitive)) {
            return fl::i18n::to_lower(a) == fl::i18n::to_lower(b);
        }
        return a == b;
    };
}

StorageIRI IProvider::doGetCanonicalLocation(const StorageIRI& location) const { return location.getResolvedIRI(); }

FilenameSensitivity IProvider::doGetFilenameSensitivity(const StorageIRI&) const { return FilenameSensitivity{}; }

void IProvider::doShutdown() {}

ExtendedAttributes IProvider::doGetExtendedAttributes(const StorageIRI&) const { return ExtendedAttributes(); }

ProviderStorageInfo IProvider::doGetProviderStorageInfo(const StorageIRI& location) const {
    throw Exception(ErrorCode::UnsupportedOperation, location);
}

ProviderCacheUsage IProvider::doGetProviderCacheUsage(const StorageIRI&) const { return ProviderCacheUsage(); }

void IProvider::doSetLastModified(const StorageIRI& location, const boost::posix_time::ptime&) const {
    throw Exception(ErrorCode::UnsupportedOperation, location);
}

void IProvider::doSetWritable(const StorageIRI& location, bool) const {
    throw Exception(ErrorCode::UnsupportedOperation, location);
}

}  // namespace foundation::storage::provider
