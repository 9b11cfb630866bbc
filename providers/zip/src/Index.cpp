#include "Index.h"

#include <zip.h>

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <string>
#include <unordered_map>

#include <boost/date_time/posix_time/conversion.hpp>

#include "Names.h"
#include "fl/i18n/convert.h"

namespace foundation::storage::provider::zip::detail {
namespace {

// What an entry may declare: never more compressed bytes than the archive holds, a stored
// entry no more bytes than it stores, a compressed one no more than the ratio allows.
void checkPlausible(const zip_stat_t& stat, std::uint64_t archiveSize, const ZipLimits& limits) {
    const std::uint64_t compressed = stat.comp_size;
    if (compressed > archiveSize) throw std::runtime_error("an entry declares more bytes than the archive holds");
    const bool stored = stat.comp_method == ZIP_CM_STORE;
    const std::uint64_t ceiling = stored ? compressed
                                  : compressed > std::numeric_limits<std::uint64_t>::max() / limits.maxCompressionRatio
                                      ? std::numeric_limits<std::uint64_t>::max()
                                      : compressed * limits.maxCompressionRatio;
    if (stat.size > ceiling) throw std::runtime_error("an entry declares an implausible size");
}

}  // namespace

Index::Index(::zip* archive, std::uint64_t archiveSize, const boost::posix_time::ptime& containerTime,
             const ZipLimits& limits) {
    const zip_int64_t count = zip_get_num_entries(archive, 0);
    if (count < 0 || static_cast<std::uint64_t>(count) > limits.maxEntries) {
        throw std::runtime_error("implausible number of entries");
    }
    nodes_.reserve(static_cast<std::size_t>(count) + 1);
    nodes_.emplace_back().folder = true;
    nodes_.front().lastModified = containerTime;

    // Path ("a/b") of every node but the root, while the tree is being built.
    std::unordered_map<fl::ustring, std::uint32_t> byPath;
    byPath.reserve(static_cast<std::size_t>(count));
    std::uint64_t compressedTotal = 0;

    for (zip_int64_t i = 0; i < count; ++i) {
        zip_stat_t stat;
        if (zip_stat_index(archive, static_cast<zip_uint64_t>(i), 0, &stat) != 0 || stat.name == nullptr) {
            throw std::runtime_error("unreadable entry");
        }
        checkPlausible(stat, archiveSize, limits);
        compressedTotal += stat.comp_size;
        // Entries never share bytes, so together they fit in the archive: overlapping
        // entries would multiply what a small archive declares.
        if (compressedTotal > archiveSize) throw std::runtime_error("entries overlap");

        const fl::ustring name = fl::i18n::to_ustring(stat.name);
        const bool folder = namesFolder(name);
        const std::vector<fl::ustring> elements = pathElements(name);
        if (elements.empty()) continue;  // the root itself

        std::uint32_t parent = kRoot;
        fl::ustring path;
        bool blocked = false;
        for (std::size_t e = 0; e < elements.size() && !blocked; ++e) {
            if (!path.empty()) path += u'/';
            path += elements[e];
            const bool last = e + 1 == elements.size();
            const auto found = byPath.find(path);
            if (found != byPath.end()) {
                Node& existing = nodes_[found->second];
                if (!existing.folder) {
                    blocked = true;  // a file already holds this path
                } else if (last) {
                    // A folder's own entry gives it a time; a file cannot take a folder's place.
                    if (folder && existing.entry == Node::kNoEntry) {
                        existing.entry = static_cast<std::uint64_t>(i);
                        existing.lastModified = boost::posix_time::from_time_t(stat.mtime);
                    }
                } else {
                    parent = found->second;
                }
                continue;
            }
            const auto id = static_cast<std::uint32_t>(nodes_.size());
            Node& node = nodes_.emplace_back();
            node.name = elements[e];
            if (last) {
                node.folder = folder;
                node.entry = static_cast<std::uint64_t>(i);
                node.size = folder ? 0 : stat.size;
                node.stored = stat.comp_method == ZIP_CM_STORE && stat.encryption_method == ZIP_EM_NONE;
                node.lastModified = boost::posix_time::from_time_t(stat.mtime);
            } else {
                node.folder = true;
                node.lastModified = containerTime;
            }
            nodes_[parent].children.push_back(id);
            byPath.emplace(path, id);
            parent = id;
        }
    }

    for (Node& node : nodes_) {
        std::sort(node.children.begin(), node.children.end(),
                  [this](std::uint32_t a, std::uint32_t b) { return nodes_[a].name < nodes_[b].name; });
    }
}

Index::Lookup Index::find(fl::ustring_view path) const {
    std::uint32_t current = kRoot;
    for (const fl::ustring& element : pathElements(path)) {
        const Node& folder = nodes_[current];
        if (!folder.folder) return {Outcome::ThroughFile, 0};
        const auto it = std::lower_bound(folder.children.begin(), folder.children.end(), element,
                                         [this](std::uint32_t id, const fl::ustring& name) {
                                             return nodes_[id].name < name;
                                         });
        if (it == folder.children.end() || nodes_[*it].name != element) return {Outcome::Missing, 0};
        current = *it;
    }
    return {Outcome::Found, current};
}

}  // namespace foundation::storage::provider::zip::detail
