#include "storage/provider/zip/ZipProvider.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include "Archive.h"
#include "Listing.h"
#include "storage/provider/Exception.h"

namespace foundation::storage::provider::zip {
namespace {

using detail::Index;

// A container that is missing, or not a file, holds no entries.
bool containerAbsent(const Exception& e) {
    return e.getErrorCode() == ErrorCode::ResourceNotFound || e.getErrorCode() == ErrorCode::InvalidLocation;
}

using detail::Node;

// The node at `location`: ResourceNotFound when nothing is there, InvalidLocation when a file
// stands on the way.
const Node& find(const detail::Archive& archive, const StorageIRI& location) {
    const Index::Lookup found = archive.index().find(location.getPath());
    if (found.outcome == Index::Outcome::Missing) throw Exception(ErrorCode::ResourceNotFound, location);
    if (found.outcome == Index::Outcome::ThroughFile) throw Exception(ErrorCode::InvalidLocation, location);
    return archive.index().node(found.node);
}

// The nesting of this provider's entry locations: one more than its container's, counted
// both in the container's location and in the chain of zip providers it reads through (a
// chain that a location does not show still holds one open archive per level).
std::size_t nestingOf(const StorageItem& container) {
    std::size_t depth = 1;
    for (StorageIRI location = container.getLocation();
         location.hasInnerIRI() && depth <= kMaxContainerNesting; location = location.getInnerIRI()) {
        ++depth;
    }
    if (const auto* outer = dynamic_cast<const ZipProvider*>(container.getProvider().get())) {
        depth = std::max(depth, outer->getNesting() + 1);
    }
    return depth;
}

}  // namespace

ZipProvider::ZipProvider(StorageItem container, ZipLimits limits)
    : container_(std::move(container)), limits_(limits), nesting_(nestingOf(container_)) {}

ZipProvider::~ZipProvider() { endChangePolling(); }

void ZipProvider::requireOwn(const StorageIRI& location) const {
    refuseQueryOrFragment(location);
    // No entry name holds a NUL (a stored one reads as a space), so a path with one addresses
    // nothing; refusing it keeps a hostile name from reaching the entry spelled with a space.
    if (!location.hasInnerIRI() || location.getScheme() != kScheme ||
        location.getInnerIRI() != container_.getLocation() || location.getPath().find(u'\0') != ustring::npos) {
        throw Exception(ErrorCode::InvalidLocation, location);
    }
    if (nesting_ > kMaxContainerNesting) {
        throw addExceptionContext(Exception(ErrorCode::InvalidLocation, location), u"archives nested too deep");
    }
}

std::shared_ptr<const detail::Archive> ZipProvider::archive(const StorageIRI& location) const {
    requireOwn(location);
    std::optional<FileAttributes> now;
    try {
        now.emplace(container_.getFileAttributes());
    } catch (const Exception& e) {
        throw relocate(e, location);
    }
    std::lock_guard lock(mutex_);
    if (archive_ && archive_->isCurrent(*now)) return archive_;
    archive_.reset();
    archive_ = detail::Archive::open(container_, *now, limits_, location);
    return archive_;
}

ExistenceType ZipProvider::doExists(const StorageIRI& location) const {
    requireOwn(location);
    std::shared_ptr<const detail::Archive> current;
    try {
        current = archive(location);
    } catch (const Exception& e) {
        if (containerAbsent(e)) return ExistenceType::AsNeither;
        throw;
    }
    const Index::Lookup found = current->index().find(location.getPath());
    if (found.outcome != Index::Outcome::Found) return ExistenceType::AsNeither;
    return current->index().node(found.node).folder ? ExistenceType::AsFolder : ExistenceType::AsFile;
}

ExistenceTypeExtended ZipProvider::doExistsExtended(const StorageIRI& location) const {
    switch (doExists(location)) {
    case ExistenceType::AsFile:
        return ExistenceTypeExtended::RegularFile;
    case ExistenceType::AsFolder:
        return ExistenceTypeExtended::RegularFolder;
    default:
        return ExistenceTypeExtended::None;
    }
}

bool ZipProvider::doFileExists(const StorageIRI& location) const { return doExists(location) == ExistenceType::AsFile; }

bool ZipProvider::doFolderExists(const StorageIRI& location) const {
    return doExists(location) == ExistenceType::AsFolder;
}

FileAttributes ZipProvider::doGetFileAttributes(const StorageIRI& location) const {
    const auto current = archive(location);
    const Node& node = find(*current, location);
    if (node.folder) throw Exception(ErrorCode::InvalidLocation, location);
    return detail::fileAttributesOf(node);
}

FolderAttributes ZipProvider::doGetFolderAttributes(const StorageIRI& location) const {
    const auto current = archive(location);
    const Node& node = find(*current, location);
    if (!node.folder) throw Exception(ErrorCode::InvalidLocation, location);
    return FolderAttributes(node.lastModified, false);
}

std::unique_ptr<ByteStream> ZipProvider::doOpenReadOnlyStream(const StorageIRI& location) const {
    const auto current = archive(location);
    const Node& node = find(*current, location);
    if (node.folder) throw Exception(ErrorCode::InvalidLocation, location);
    return current->openEntry(node, location);
}

std::unique_ptr<IFolderEntryIterator> ZipProvider::doList(const StorageIRI& folder, ListingRequest request) const {
    auto current = archive(folder);
    const Index::Lookup found = current->index().find(folder.getPath());
    if (found.outcome == Index::Outcome::Missing) throw Exception(ErrorCode::ResourceNotFound, folder);
    if (found.outcome == Index::Outcome::ThroughFile || !current->index().node(found.node).folder) {
        throw Exception(ErrorCode::InvalidLocation, folder);
    }
    return detail::makeListing(std::move(current), found.node, std::move(request));
}

void ZipProvider::doInvalidate(const StorageIRI& location) {
    const bool ours = location == container_.getLocation() ||
                      (location.hasInnerIRI() && location.getScheme() == kScheme &&
                       location.getInnerIRI() == container_.getLocation());
    if (!ours) return;
    std::lock_guard lock(mutex_);
    archive_.reset();
}

// --- ZipProviderFactory --------------------------------------------------------------------

ZipProviderFactory::ZipProviderFactory(ZipLimits limits) : limits_(limits) {}

StorageItem ZipProviderFactory::itemFor(const StorageIRI& location, const OuterProviders& outer) const {
    if (location.hasInnerIRI() && location.getScheme() == ZipProvider::kScheme) {
        return StorageItem(buildProvider(itemFor(location.getInnerIRI(), outer)), location);
    }
    return StorageItem(outer(location), location);
}

std::shared_ptr<IProvider> ZipProviderFactory::doBuildProvider(const StorageItem& container) const {
    return std::make_shared<ZipProvider>(container, limits_);
}

// 'zip-key://<container provider's address>/<container location, percent-encoded>'. The
// address may be reused only once that provider is gone, and a zip provider keeps its
// container's provider alive, so a reused address never meets a live entry of another store.
StorageIRI ZipProviderFactory::doGetKey(const StorageItem& container) const {
    static constexpr char16_t kHex[] = u"0123456789ABCDEF";
    ustring key = u"zip-key://p";
    for (auto address = reinterpret_cast<std::uintptr_t>(container.getProvider().get()); address != 0; address >>= 4) {
        key.push_back(kHex[address & 0xF]);
    }
    key.push_back(u'/');
    for (const char16_t c : container.getLocation().toAsciiString()) {
        const bool plain = (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || (c >= u'0' && c <= u'9') ||
                           c == u'-' || c == u'.' || c == u'_' || c == u'~';
        if (plain) {
            key.push_back(c);
        } else {
            key += {u'%', kHex[(c >> 4) & 0xF], kHex[c & 0xF]};
        }
    }
    return StorageIRI(std::move(key));
}

}  // namespace foundation::storage::provider::zip
