#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include <boost/date_time/posix_time/ptime.hpp>

#include "fl/ustring.h"
#include "storage/provider/Attributes.h"
#include "storage/provider/zip/ZipProvider.h"

struct zip;

namespace foundation::storage::provider::zip::detail {

// One file or folder of an archive's tree. The children of a folder are the nodes
// [firstChild, firstChild + childCount), sorted by name, so a listing reads the index in
// order.
struct Node {
    static constexpr std::uint64_t kNoEntry = ~std::uint64_t{0};

    std::size_t nameOffset = 0;  // in the index's name pool
    std::uint32_t nameLength = 0;
    std::uint32_t firstChild = 0;
    std::uint32_t childCount = 0;
    bool folder = false;
    bool stored = false;             // a file kept as it is: seekable in place
    bool link = false;               // a symbolic link (a Unix mode in its attributes)
    std::uint64_t size = 0;          // declared size of a file
    std::uint64_t entry = kNoEntry;  // index in the archive's directory, if any
    boost::posix_time::ptime lastModified;
};

// The attributes of the file `node`.
FileAttributes fileAttributesOf(const Node& node);

// The tree of an archive's entries, built once from its directory and never changed.
class Index {
public:
    static constexpr std::uint32_t kRoot = 0;

    enum class Outcome { Found, Missing, ThroughFile };
    struct Lookup {
        Outcome outcome;
        std::uint32_t node;  // when Found
    };

    // Reads every entry of `archive`. Folders without an entry of their own take
    // `containerTime`. Throws std::runtime_error when the entries break `limits` (their
    // declared sizes, or more implied folders than maxEntries) or together claim more bytes
    // than `archiveSize` holds.
    Index(::zip* archive, std::uint64_t archiveSize, const boost::posix_time::ptime& containerTime,
          const ZipLimits& limits);

    // The node at a decoded path ('/a/b'), confined to the archive as pathElements does.
    Lookup find(fl::ustring_view path) const;
    const Node& node(std::uint32_t id) const { return nodes_[id]; }
    fl::ustring_view name(const Node& node) const { return {names_.data() + node.nameOffset, node.nameLength}; }

private:
    std::vector<Node> nodes_;
    fl::ustring names_;
};

}  // namespace foundation::storage::provider::zip::detail
