#include "MemoryStore.h"

#include <algorithm>
#include <mutex>

#include "MemoryStream.h"
#include "storage/provider/Exception.h"
#include "storage/provider/Extensions.h"

namespace foundation::storage::provider::memory::detail {
namespace {

using FilePtr = std::shared_ptr<FileNode>;
using FolderPtr = std::shared_ptr<FolderNode>;

[[noreturn]] void fail(ErrorCode code, const StorageIRI& location) { throw Exception(code, location); }

FileNode* asFile(const Node* node) {
    if (node == nullptr) return nullptr;
    const auto* file = std::get_if<FilePtr>(node);
    return file != nullptr ? file->get() : nullptr;
}

FolderNode* asFolder(const Node* node) {
    if (node == nullptr) return nullptr;
    const auto* folder = std::get_if<FolderPtr>(node);
    return folder != nullptr ? folder->get() : nullptr;
}

bool refuses(ReplacementPolicy policy) {
    return policy == ReplacementPolicy::Preserve || policy == ReplacementPolicy::NoClobber;
}

bool startsWith(const std::vector<fl::ustring>& path, const std::vector<fl::ustring>& prefix) {
    return path.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), path.begin());
}

}  // namespace

MemoryStore::MemoryStore()
    : clock_(std::make_shared<ModificationClock>()), root_(std::make_shared<FolderNode>()) {
    touch(*asFolder(&root_));
}

MemoryStore::Path MemoryStore::pathOf(const StorageIRI& location) {
    refuseQueryOrFragment(location);
    if (location.getScheme() != u"mem" || location.hasInnerIRI() || location.isOpaque() ||
        (location.hasHost() && !location.getHost().empty())) {
        fail(ErrorCode::InvalidLocation, location);
    }
    Path path;
    const fl::ustring& text = location.getPath();
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t end = text.find(u'/', start);
        if (end == fl::ustring::npos) end = text.size();
        const fl::ustring_view segment(text.data() + start, end - start);
        if (segment == u"..") {
            if (!path.empty()) path.pop_back();
        } else if (!segment.empty() && segment != u".") {
            path.emplace_back(segment);
        }
        start = end + 1;
    }
    return path;
}

const Node* MemoryStore::find(const Path& path) const {
    const Node* node = &root_;
    for (const fl::ustring& name : path) {
        FolderNode* folder = asFolder(node);
        if (folder == nullptr) return nullptr;
        auto it = folder->children.find(name);
        if (it == folder->children.end()) return nullptr;
        node = &it->second;
    }
    return node;
}

MemoryStore::Place MemoryStore::locate(const Path& path, const StorageIRI& location) const {
    if (path.empty()) return Place{nullptr, nullptr, &root_};
    FolderNode* folder = asFolder(&root_);
    for (std::size_t i = 0; i + 1 < path.size(); ++i) {
        auto it = folder->children.find(path[i]);
        if (it == folder->children.end()) fail(ErrorCode::ResourceNotFound, location);
        folder = asFolder(&it->second);
        if (folder == nullptr) fail(ErrorCode::InvalidLocation, location);
    }
    auto it = folder->children.find(path.back());
    return Place{folder, &path.back(), it == folder->children.end() ? nullptr : &it->second};
}

FolderNode& MemoryStore::folderAt(const StorageIRI& location) const {
    const Place place = locate(pathOf(location), location);
    if (place.node == nullptr) fail(ErrorCode::ResourceNotFound, location);
    FolderNode* folder = asFolder(place.node);
    if (folder == nullptr) fail(ErrorCode::InvalidLocation, location);
    return *folder;
}

bool MemoryStore::fileExists(const StorageIRI& location) const {
    const Path path = pathOf(location);
    std::shared_lock lock(mutex_);
    return asFile(find(path)) != nullptr;
}

const void* MemoryStore::fileNode(const StorageIRI& location) const {
    const Path path = pathOf(location);
    std::shared_lock lock(mutex_);
    return asFile(find(path));
}

bool MemoryStore::folderExists(const StorageIRI& location) const {
    const Path path = pathOf(location);
    std::shared_lock lock(mutex_);
    return asFolder(find(path)) != nullptr;
}

void MemoryStore::create(const StorageIRI& location, Node node) {
    const Path path = pathOf(location);
    std::unique_lock lock(mutex_);
    const Place place = locate(path, location);
    if (place.node != nullptr) fail(ErrorCode::ResourceAlreadyExists, location);
    if (!place.parent->writable) fail(ErrorCode::PermissionDenied, location);
    place.parent->children.emplace(*place.name, std::move(node));
    touch(*place.parent);
}

void MemoryStore::createFile(const StorageIRI& location) {
    auto file = std::make_shared<FileNode>();
    file->lastModified = clock_->next();
    create(location, std::move(file));
}

void MemoryStore::createFolder(const StorageIRI& location) {
    auto folder = std::make_shared<FolderNode>();
    folder->lastModified = clock_->next();
    create(location, std::move(folder));
}

void MemoryStore::removeFile(const StorageIRI& location) {
    const Path path = pathOf(location);
    std::unique_lock lock(mutex_);
    const Place place = locate(path, location);
    if (place.node == nullptr) fail(ErrorCode::ResourceNotFound, location);
    const FileNode* file = asFile(place.node);
    if (file == nullptr) fail(ErrorCode::InvalidLocation, location);
    if (!file->writable || !place.parent->writable) fail(ErrorCode::PermissionDenied, location);
    // Open streams hold the node and go on working on the detached content.
    place.parent->children.erase(*place.name);
    touch(*place.parent);
}

void MemoryStore::removeFolder(const StorageIRI& location) {
    const Path path = pathOf(location);
    std::unique_lock lock(mutex_);
    const Place place = locate(path, location);
    if (place.node == nullptr) fail(ErrorCode::ResourceNotFound, location);
    const FolderNode* folder = asFolder(place.node);
    if (folder == nullptr) fail(ErrorCode::InvalidLocation, location);
    if (place.parent == nullptr || !folder->writable || !place.parent->writable) {
        fail(ErrorCode::PermissionDenied, location);
    }
    if (!folder->children.empty()) fail(ErrorCode::FolderNotEmpty, location);
    place.parent->children.erase(*place.name);
    touch(*place.parent);
}

void MemoryStore::moveFile(const StorageIRI& from, const StorageIRI& to, ReplacementPolicy policy) {
    const Path fromPath = pathOf(from);
    const Path toPath = pathOf(to);
    std::unique_lock lock(mutex_);
    const Place source = locate(fromPath, from);
    if (source.node == nullptr) fail(ErrorCode::ResourceNotFound, from);
    const FileNode* file = asFile(source.node);
    if (file == nullptr) fail(ErrorCode::InvalidLocation, from);
    const Place target = locate(toPath, to);
    if (target.node != nullptr) {
        const FileNode* existing = asFile(target.node);
        if (existing == nullptr) fail(ErrorCode::InvalidLocation, to);
        if (refuses(policy)) fail(ErrorCode::ResourceAlreadyExists, to);
        if (existing == file) return;
        if (!existing->writable) fail(ErrorCode::PermissionDenied, to);
    }
    if (!file->writable || !source.parent->writable) fail(ErrorCode::PermissionDenied, from);
    if (!target.parent->writable) fail(ErrorCode::PermissionDenied, to);
    Node moved = std::move(*source.node);
    source.parent->children.erase(*source.name);
    target.parent->children.insert_or_assign(*target.name, std::move(moved));
    touch(*source.parent);
    touch(*target.parent);
}

void MemoryStore::moveFolder(const StorageIRI& from, const StorageIRI& to, ReplacementPolicy policy) {
    const Path fromPath = pathOf(from);
    const Path toPath = pathOf(to);
    std::unique_lock lock(mutex_);
    const Place source = locate(fromPath, from);
    if (source.node == nullptr) fail(ErrorCode::ResourceNotFound, from);
    const FolderNode* folder = asFolder(source.node);
    if (folder == nullptr) fail(ErrorCode::InvalidLocation, from);
    if (source.parent == nullptr) fail(ErrorCode::PermissionDenied, from);
    // Into its own subtree, or onto an ancestor (which would take the source with it).
    if (fromPath != toPath && (startsWith(toPath, fromPath) || startsWith(fromPath, toPath))) {
        fail(ErrorCode::InvalidLocation, to);
    }
    const Place target = locate(toPath, to);
    if (target.node != nullptr) {
        const FolderNode* existing = asFolder(target.node);
        if (existing == nullptr) fail(ErrorCode::InvalidLocation, to);
        if (refuses(policy)) fail(ErrorCode::ResourceAlreadyExists, to);
        if (existing == folder) return;
        if (!existing->writable) fail(ErrorCode::PermissionDenied, to);
        // Replacing a folder never discards what it holds.
        if (!existing->children.empty()) fail(ErrorCode::FolderNotEmpty, to);
    }
    if (!folder->writable || !source.parent->writable) fail(ErrorCode::PermissionDenied, from);
    if (!target.parent->writable) fail(ErrorCode::PermissionDenied, to);
    Node moved = std::move(*source.node);
    source.parent->children.erase(*source.name);
    target.parent->children.insert_or_assign(*target.name, std::move(moved));
    touch(*source.parent);
    touch(*target.parent);
}

FileAttributes MemoryStore::fileAttributes(const StorageIRI& location) const {
    const Path path = pathOf(location);
    std::shared_lock lock(mutex_);
    const Place place = locate(path, location);
    if (place.node == nullptr) fail(ErrorCode::ResourceNotFound, location);
    FileNode* file = asFile(place.node);
    if (file == nullptr) fail(ErrorCode::InvalidLocation, location);
    std::lock_guard content(file->mutex);
    return FileAttributes(file->data.size(), file->lastModified, file->writable);
}

FolderAttributes MemoryStore::folderAttributes(const StorageIRI& location) const {
    std::shared_lock lock(mutex_);
    const FolderNode& folder = folderAt(location);
    return FolderAttributes(folder.lastModified, folder.writable);
}

std::unique_ptr<ByteStream> MemoryStore::openStream(const StorageIRI& location, const ByteStreamOpenOptions& options) {
    const Path path = pathOf(location);
    std::unique_lock lock(mutex_);
    const Place place = locate(path, location);
    FilePtr file;
    if (place.node == nullptr) {
        if (options.create != ByteStreamCreate::Create) fail(ErrorCode::ResourceNotFound, location);
        if (!place.parent->writable) fail(ErrorCode::PermissionDenied, location);
        file = std::make_shared<FileNode>();
        file->lastModified = clock_->next();
        place.parent->children.emplace(*place.name, file);
        touch(*place.parent);
    } else {
        if (asFile(place.node) == nullptr) fail(ErrorCode::InvalidLocation, location);
        file = std::get<FilePtr>(*place.node);
        if (!file->writable) fail(ErrorCode::PermissionDenied, location);
        if (options.truncate == ByteStreamTruncate::TruncateExisting) {
            std::lock_guard content(file->mutex);
            file->data.clear();
            file->lastModified = clock_->next();
        }
    }
    return std::make_unique<MemoryStream>(std::move(file), clock_, options.access == ByteStreamAccess::ReadWrite, true,
                                          options.append == ByteStreamAppend::Append);
}

std::unique_ptr<ByteStream> MemoryStore::openReadOnlyStream(const StorageIRI& location) const {
    const Path path = pathOf(location);
    std::shared_lock lock(mutex_);
    const Place place = locate(path, location);
    if (place.node == nullptr) fail(ErrorCode::ResourceNotFound, location);
    if (asFile(place.node) == nullptr) fail(ErrorCode::InvalidLocation, location);
    return std::make_unique<MemoryStream>(std::get<FilePtr>(*place.node), clock_, true, false, false);
}

std::vector<FolderEntry> MemoryStore::list(const StorageIRI& location, Filter filter) const {
    std::shared_lock lock(mutex_);
    const FolderNode& folder = folderAt(location);
    std::vector<FolderEntry> entries;
    entries.reserve(folder.children.size());
    for (const auto& [name, node] : folder.children) {
        if (FileNode* file = asFile(&node)) {
            if (filter == Filter::Folders) continue;
            std::lock_guard content(file->mutex);
            entries.emplace_back(name, FileAttributes(file->data.size(), file->lastModified, file->writable));
        } else if (filter != Filter::Files) {
            const FolderNode* child = asFolder(&node);
            entries.emplace_back(name, FolderAttributes(child->lastModified, child->writable));
        }
    }
    return entries;
}

void MemoryStore::setLastModified(const StorageIRI& location, const boost::posix_time::ptime& time) {
    const Path path = pathOf(location);
    std::unique_lock lock(mutex_);
    const Place place = locate(path, location);
    if (place.node == nullptr) fail(ErrorCode::ResourceNotFound, location);
    if (FileNode* file = asFile(place.node)) {
        std::lock_guard content(file->mutex);
        file->lastModified = time;
    } else {
        std::get<FolderPtr>(*place.node)->lastModified = time;
    }
}

void MemoryStore::setWritable(const StorageIRI& location, bool writable) {
    const Path path = pathOf(location);
    std::unique_lock lock(mutex_);
    const Place place = locate(path, location);
    if (place.node == nullptr) fail(ErrorCode::ResourceNotFound, location);
    if (FileNode* file = asFile(place.node)) {
        file->writable = writable;
    } else {
        std::get<FolderPtr>(*place.node)->writable = writable;
    }
}

}  // namespace foundation::storage::provider::memory::detail
