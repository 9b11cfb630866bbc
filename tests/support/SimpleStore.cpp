#include "SimpleStore.h"

#include <vector>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include "StringByteStream.h"

namespace foundation::storage::provider::testsupport {
namespace {

const boost::posix_time::ptime kTime(boost::gregorian::date(2024, 1, 1));

class VectorIterator : public IFolderEntryIterator {
public:
    explicit VectorIterator(std::vector<FolderEntry> entries) : entries_(std::move(entries)) {}
    FolderEntry get() const override { return entries_.at(next_ - 1); }
    bool hasNext() override { return next_ < entries_.size(); }
    void next() override { ++next_; }
    std::optional<std::size_t> remainingHint() const override { return entries_.size() - next_; }

private:
    std::vector<FolderEntry> entries_;
    std::size_t next_ = 0;
};

ustring parentPath(const StorageIRI& location) { return location.getParent().getPath(); }

}  // namespace

SimpleStore::SimpleStore() : folders_{u"/"} {}

StorageIRI SimpleStore::at(const ustring& path) { return StorageIRI(u"test://" + path); }

void SimpleStore::put(const ustring& path, std::string content) {
    std::lock_guard lock(mutex_);
    requireParent(at(path));
    files_[path] = std::make_shared<std::string>(std::move(content));
}

std::string SimpleStore::content(const ustring& path) const {
    std::lock_guard lock(mutex_);
    auto it = files_.find(path);
    if (it == files_.end()) throw Exception(ErrorCode::ResourceNotFound, at(path));
    return *it->second;
}

std::set<ustring> SimpleStore::paths() const {
    std::lock_guard lock(mutex_);
    std::set<ustring> all = folders_;
    for (const auto& file : files_) all.insert(file.first);
    return all;
}

void SimpleStore::requireParent(const StorageIRI& location) const {
    if (folders_.count(parentPath(location)) == 0) throw Exception(ErrorCode::ResourceNotFound, location);
}

void SimpleStore::doCreateFile(const StorageIRI& location) const {
    std::lock_guard lock(mutex_);
    requireParent(location);
    const ustring& path = location.getPath();
    if (files_.count(path) != 0 || folders_.count(path) != 0) {
        throw Exception(ErrorCode::ResourceAlreadyExists, location);
    }
    files_[path] = std::make_shared<std::string>();
}

void SimpleStore::doCreateFolder(const StorageIRI& location) const {
    std::lock_guard lock(mutex_);
    requireParent(location);
    const ustring& path = location.getPath();
    if (files_.count(path) != 0 || folders_.count(path) != 0) {
        throw Exception(ErrorCode::ResourceAlreadyExists, location);
    }
    folders_.insert(path);
}

bool SimpleStore::doFileExists(const StorageIRI& location) const {
    std::lock_guard lock(mutex_);
    return files_.count(location.getPath()) != 0;
}

bool SimpleStore::doFolderExists(const StorageIRI& location) const {
    std::lock_guard lock(mutex_);
    return folders_.count(location.getPath()) != 0;
}

void SimpleStore::doRemoveFile(const StorageIRI& location) const {
    std::lock_guard lock(mutex_);
    if (files_.erase(location.getPath()) == 0) throw Exception(ErrorCode::ResourceNotFound, location);
}

void SimpleStore::doMoveFile(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& policy) const {
    std::lock_guard lock(mutex_);
    auto it = files_.find(from.getPath());
    if (it == files_.end()) throw Exception(ErrorCode::ResourceNotFound, from);
    requireParent(to);
    if (files_.count(to.getPath()) != 0 &&
        (policy == ReplacementPolicy::Preserve || policy == ReplacementPolicy::NoClobber)) {
        throw Exception(ErrorCode::ResourceAlreadyExists, to);
    }
    auto bytes = it->second;
    files_.erase(it);
    files_[to.getPath()] = std::move(bytes);
}

void SimpleStore::doRemoveFolder(const StorageIRI& location) const {
    std::lock_guard lock(mutex_);
    const ustring& path = location.getPath();
    if (folders_.count(path) == 0) throw Exception(ErrorCode::ResourceNotFound, location);
    const ustring prefix = path + u"/";
    auto inside = [&prefix](const ustring& candidate) { return candidate.compare(0, prefix.size(), prefix) == 0; };
    auto file = files_.lower_bound(prefix);
    auto folder = folders_.lower_bound(prefix);
    if ((file != files_.end() && inside(file->first)) || (folder != folders_.end() && inside(*folder))) {
        throw Exception(ErrorCode::FolderNotEmpty, location);
    }
    folders_.erase(path);
}

void SimpleStore::doMoveFolder(const StorageIRI& from, const StorageIRI&, const ReplacementPolicy&) const {
    throw Exception(ErrorCode::UnsupportedOperation, from);
}

FileAttributes SimpleStore::doGetFileAttributes(const StorageIRI& location) const {
    std::lock_guard lock(mutex_);
    auto it = files_.find(location.getPath());
    if (it == files_.end()) throw Exception(ErrorCode::ResourceNotFound, location);
    return FileAttributes(it->second->size(), kTime, true);
}

FolderAttributes SimpleStore::doGetFolderAttributes(const StorageIRI& location) const {
    std::lock_guard lock(mutex_);
    if (folders_.count(location.getPath()) == 0) throw Exception(ErrorCode::ResourceNotFound, location);
    return FolderAttributes(kTime, true);
}

std::unique_ptr<ByteStream> SimpleStore::doOpenStream(const StorageIRI& location,
                                                      const ByteStreamOpenOptions& options) const {
    std::lock_guard lock(mutex_);
    auto it = files_.find(location.getPath());
    if (it == files_.end()) {
        if (options.create == ByteStreamCreate::NeverCreate) throw Exception(ErrorCode::ResourceNotFound, location);
        requireParent(location);
        it = files_.emplace(location.getPath(), std::make_shared<std::string>()).first;
    } else if (options.truncate == ByteStreamTruncate::TruncateExisting) {
        it->second->clear();
    }
    return std::make_unique<StringByteStream>(it->second, options.append == ByteStreamAppend::Append);
}

std::unique_ptr<ByteStream> SimpleStore::doOpenReadOnlyStream(const StorageIRI& location) const {
    std::lock_guard lock(mutex_);
    auto it = files_.find(location.getPath());
    if (it == files_.end()) throw Exception(ErrorCode::ResourceNotFound, location);
    return std::make_unique<StringByteStream>(it->second);
}

std::unique_ptr<IFolderEntryIterator> SimpleStore::list(const StorageIRI& folder, Kind kind) const {
    std::lock_guard lock(mutex_);
    const ustring& path = folder.getPath();
    if (folders_.count(path) == 0) throw Exception(ErrorCode::ResourceNotFound, folder);
    const ustring prefix = path == u"/" ? path : path + u"/";
    auto isChild = [&prefix](const ustring& candidate) {
        return candidate.size() > prefix.size() && candidate.compare(0, prefix.size(), prefix) == 0 &&
               candidate.find(u'/', prefix.size()) == ustring::npos;
    };
    std::vector<FolderEntry> entries;
    if ((static_cast<int>(kind) & static_cast<int>(Kind::Folders)) != 0) {
        for (const ustring& candidate : folders_) {
            if (isChild(candidate)) entries.emplace_back(candidate.substr(prefix.size()), FolderAttributes(kTime, true));
        }
    }
    if ((static_cast<int>(kind) & static_cast<int>(Kind::Files)) != 0) {
        for (const auto& [candidate, bytes] : files_) {
            if (isChild(candidate)) {
                entries.emplace_back(candidate.substr(prefix.size()), FileAttributes(bytes->size(), kTime, true));
            }
        }
    }
    return std::make_unique<VectorIterator>(std::move(entries));
}

std::unique_ptr<IFolderEntryIterator> SimpleStore::doListAll(const StorageIRI& folder) const {
    return list(folder, Kind::All);
}

std::unique_ptr<IFolderEntryIterator> SimpleStore::doListFiles(const StorageIRI& folder) const {
    return list(folder, Kind::Files);
}

std::unique_ptr<IFolderEntryIterator> SimpleStore::doListFolders(const StorageIRI& folder) const {
    return list(folder, Kind::Folders);
}

}  // namespace foundation::storage::provider::testsupport
