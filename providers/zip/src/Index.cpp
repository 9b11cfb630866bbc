#include "Index.h"

#include <zip.h>

#include <algorithm>
#include <cstring>
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

constexpr std::uint64_t kDirectoryRecord = 46;  // a directory record without its name
constexpr std::uint64_t kImpliedFolders = 32768;
constexpr std::uint64_t kDirectoryBytesPerFolder = 32;

// The entry's modification time: its extended-timestamp field (UTC seconds) when it has
// one, otherwise its DOS fields, which libzip reads as local time (as zip tools write them).
boost::posix_time::ptime lastModifiedOf(::zip* archive, zip_uint64_t entry, const zip_stat_t& stat) {
    zip_uint16_t length = 0;
    const zip_uint8_t* field = zip_file_extra_field_get_by_id(archive, entry, 0x5455, 0, &length, ZIP_FL_CENTRAL);
    if (field != nullptr && length >= 5 && (field[0] & 1) != 0) {
        const auto seconds = static_cast<std::int32_t>(static_cast<std::uint32_t>(field[1]) | field[2] << 8 |
                                                       field[3] << 16 | static_cast<std::uint32_t>(field[4]) << 24);
        return boost::posix_time::from_time_t(seconds);
    }
    return boost::posix_time::from_time_t(stat.mtime);
}

bool isLink(::zip* archive, zip_uint64_t entry) {
    zip_uint8_t system = 0;
    zip_uint32_t attributes = 0;
    return zip_file_get_external_attributes(archive, entry, 0, &system, &attributes) == 0 &&
           system == ZIP_OPSYS_UNIX && (attributes >> 16 & 0170000) == 0120000;
}

// The tree while it is built: names of their own, children in the order met.
struct Draft {
    fl::ustring name;
    std::vector<std::uint32_t> children;
    Node node;
};

}  // namespace

Index::Index(::zip* archive, std::uint64_t archiveSize, const boost::posix_time::ptime& containerTime,
             const ZipLimits& limits) {
    const zip_int64_t count = zip_get_num_entries(archive, 0);
    if (count < 0 || static_cast<std::uint64_t>(count) > limits.maxEntries) {
        throw std::runtime_error("implausible number of entries");
    }
    // Every entry, and every folder the entries imply, is a node. A name implies a folder per
    // two of its bytes, so implied folders are limited by the directory's size as well:
    // kImpliedFolders plus one per kDirectoryBytesPerFolder bytes of its records, which no
    // archive that stores its folders, or keeps a few files per folder, comes near.
    std::uint64_t directoryBytes = 0;
    for (zip_int64_t i = 0; i < count; ++i) {
        const char* name = zip_get_name(archive, static_cast<zip_uint64_t>(i), ZIP_FL_ENC_RAW);
        directoryBytes += kDirectoryRecord + (name == nullptr ? 0 : std::strlen(name));
    }
    const std::uint64_t implied =
        std::min<std::uint64_t>(limits.maxEntries, kImpliedFolders + directoryBytes / kDirectoryBytesPerFolder);
    const std::uint64_t maxNodes = std::min<std::uint64_t>(static_cast<std::uint64_t>(count) + implied + 1,
                                                           std::numeric_limits<std::uint32_t>::max());

    std::vector<Draft> drafts;
    drafts.reserve(static_cast<std::size_t>(count) + 1);
    drafts.emplace_back().node.folder = true;
    drafts.front().node.lastModified = containerTime;
    // Every node but the root by its parent and name, while the tree is being built (keyed
    // by the parent, not the whole path, so that deep names cost no more than their length).
    std::unordered_map<fl::ustring, std::uint32_t> byParentAndName;
    byParentAndName.reserve(static_cast<std::size_t>(count));
    auto key = [](std::uint32_t parent, const fl::ustring& name) {
        fl::ustring text;
        text.reserve(name.size() + 2);
        text.push_back(static_cast<char16_t>(parent >> 16));
        text.push_back(static_cast<char16_t>(parent & 0xFFFF));
        return text.append(name);
    };
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

        std::uint32_t parent = kRoot;
        for (std::size_t e = 0; e < elements.size(); ++e) {
            const bool last = e + 1 == elements.size();
            fl::ustring here = key(parent, elements[e]);
            const auto found = byParentAndName.find(here);
            if (found != byParentAndName.end()) {
                Node& existing = drafts[found->second].node;
                if (!existing.folder) break;  // a file holds this path: the entry cannot be reached
                if (!last) {
                    parent = found->second;
                } else if (folder && existing.entry == Node::kNoEntry) {
                    // A folder's own entry gives it a time; a file cannot take a folder's place.
                    existing.entry = static_cast<std::uint64_t>(i);
                    existing.lastModified = lastModifiedOf(archive, static_cast<zip_uint64_t>(i), stat);
                }
                continue;
            }
            if (drafts.size() >= maxNodes) throw std::runtime_error("too many implied folders");
            const auto id = static_cast<std::uint32_t>(drafts.size());
            Draft& draft = drafts.emplace_back();
            draft.name = elements[e];
            Node& node = draft.node;
            if (last) {
                node.folder = folder;
                node.entry = static_cast<std::uint64_t>(i);
                node.size = folder ? 0 : stat.size;
                node.stored = !folder && stat.comp_method == ZIP_CM_STORE && stat.encryption_method == ZIP_EM_NONE;
                node.lastModified = lastModifiedOf(archive, static_cast<zip_uint64_t>(i), stat);
                node.link = !folder && isLink(archive, static_cast<zip_uint64_t>(i));
            } else {
                node.folder = true;
                node.lastModified = containerTime;
            }
            drafts[parent].children.push_back(id);
            byParentAndName.emplace(std::move(here), id);
            parent = id;
        }
    }
    byParentAndName = {};

    // Lay the tree out breadth first, each folder's children together and sorted, names in
    // the same order in one pool.
    std::size_t nameSize = 0;
    for (const Draft& draft : drafts) nameSize += draft.name.size();
    names_.reserve(nameSize);
    nodes_.reserve(drafts.size());
    std::vector<std::uint32_t> order;  // draft ids in their final order
    order.reserve(drafts.size());
    order.push_back(kRoot);
    for (std::size_t at = 0; at < order.size(); ++at) {
        Draft& draft = drafts[order[at]];
        Node node = draft.node;
        node.nameOffset = names_.size();
        node.nameLength = static_cast<std::uint32_t>(draft.name.size());
        names_ += draft.name;
        std::sort(draft.children.begin(), draft.children.end(),
                  [&](std::uint32_t a, std::uint32_t b) { return drafts[a].name < drafts[b].name; });
        node.firstChild = static_cast<std::uint32_t>(order.size());
        node.childCount = static_cast<std::uint32_t>(draft.children.size());
        order.insert(order.end(), draft.children.begin(), draft.children.end());
        draft = Draft{};
        nodes_.push_back(node);
    }
}

FileAttributes fileAttributesOf(const Node& node) {
    return FileAttributes(static_cast<unsigned long>(node.size), node.lastModified, false)
        .withSymlinkStatusAttribute(node.link);
}

Index::Lookup Index::find(fl::ustring_view path) const {
    std::uint32_t current = kRoot;
    for (const fl::ustring& element : pathElements(path)) {
        const Node& folder = nodes_[current];
        if (!folder.folder) return {Outcome::ThroughFile, 0};
        const auto first = nodes_.begin() + folder.firstChild;
        const auto last = first + folder.childCount;
        const auto it = std::lower_bound(first, last, element, [this](const Node& node, const fl::ustring& wanted) {
            return name(node) < fl::ustring_view(wanted);
        });
        if (it == last || name(*it) != fl::ustring_view(element)) return {Outcome::Missing, 0};
        current = static_cast<std::uint32_t>(it - nodes_.begin());
    }
    return {Outcome::Found, current};
}

}  // namespace foundation::storage::provider::zip::detail
