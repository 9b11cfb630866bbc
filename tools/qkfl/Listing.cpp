#include "Listing.h"

#include <fnmatch.h>

#include <algorithm>

#include "Text.h"
#include "storage/provider/Exception.h"
#include "storage/provider/FolderEntryIterator.h"

namespace qkfl {

namespace {

using sp::ErrorCode;
using sp::FolderEntry;
using sp::StorageItem;

void drain(std::unique_ptr<sp::IFolderEntryIterator> it, std::vector<FolderEntry>& entries) {
    if (const auto hint = it->remainingHint()) entries.reserve(entries.size() + *hint);
    while (it->hasNext()) {
        it->next();
        entries.push_back(it->get());
    }
}

// Every entry below `folder`, a folder before its content, named by its path relative to
// `folder`: for providers that cannot list recursively themselves.
void walk(const StorageItem& folder, const std::u16string& prefix, bool namesOnly, std::vector<FolderEntry>& entries) {
    std::vector<FolderEntry> level;
    drain(namesOnly ? folder.listAllNamesOnly() : folder.listAll(), level);
    for (FolderEntry& entry : level) {
        const std::u16string name = entry.getName();
        const bool isFolder = !entry.isFile();
        if (const auto& file = entry.getFileAttributes(); file && !namesOnly) {
            entries.emplace_back(prefix + name, *file);
        } else if (const auto& sub = entry.getFolderAttributes(); sub && !namesOnly) {
            entries.emplace_back(prefix + name, *sub);
        } else {
            entries.emplace_back(prefix + name, entry.getType());
        }
        if (isFolder) walk(StorageItem(folder, name), prefix + name + u"/", namesOnly, entries);
    }
}

}  // namespace

std::vector<FolderEntry> listFolder(const StorageItem& folder, const LsOptions& o) {
    const std::u16string wildcard = utf16(o.match);
    std::vector<FolderEntry> entries;
    if (!o.recursive) {
        drain(o.namesOnly ? folder.listAllNamesOnly(wildcard) : folder.listAll(wildcard), entries);
    } else {
        try {
            drain(o.namesOnly ? folder.listAllRecursiveNamesOnly(wildcard) : folder.listAllRecursive(wildcard),
                  entries);
        } catch (const sp::Exception& e) {
            if (e.getErrorCode() != ErrorCode::UnsupportedOperation) throw;
            entries.clear();
            walk(folder, {}, o.namesOnly, entries);
        }
    }
    if (!o.match.empty()) {
        std::erase_if(entries, [&](const FolderEntry& entry) {
            const std::string path = utf8(entry.getName());
            const auto slash = path.rfind('/');
            return ::fnmatch(o.match.c_str(), path.c_str() + (slash == std::string::npos ? 0 : slash + 1), 0) != 0;
        });
    }
    std::sort(entries.begin(), entries.end(),
              [](const FolderEntry& a, const FolderEntry& b) { return a.getName() < b.getName(); });
    return entries;
}

}  // namespace qkfl
