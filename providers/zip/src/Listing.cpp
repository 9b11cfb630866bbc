#include "Listing.h"

#include <optional>
#include <utility>
#include <vector>

#include "Wildcard.h"

namespace foundation::storage::provider::zip::detail {
namespace {

class Listing : public IFolderEntryIterator {
public:
    Listing(std::shared_ptr<const Archive> archive, std::uint32_t folder, ListingRequest request)
        : archive_(std::move(archive)), index_(archive_->index()), request_(std::move(request)) {
        if (!request_.wildcard.empty()) wildcard_.emplace(std::move(request_.wildcard));
        const Node& node = index_.node(folder);
        frames_.push_back({node.firstChild, node.firstChild + node.childCount, 0});
    }

    FolderEntry get() const override {
        const Node& node = index_.node(current_);
        fl::ustring name;
        if (prefix_.empty()) {
            name = index_.name(node);
        } else {
            name.reserve(prefix_.size() + node.nameLength);
            name.append(prefix_).append(index_.name(node));
        }
        if (request_.namesOnly) {
            return FolderEntry(std::move(name),
                               node.folder ? FolderEntry::EntryType::Folder : FolderEntry::EntryType::File);
        }
        if (node.folder) return FolderEntry(std::move(name), FolderAttributes(node.lastModified, false));
        return FolderEntry(std::move(name),
                           fileAttributesOf(node));
    }

    bool hasNext() override {
        if (!pending_) pending_ = advance();
        return *pending_;
    }

    void next() override {
        if (!pending_) pending_ = advance();
        pending_.reset();
    }

    std::optional<std::size_t> remainingHint() const override {
        if (request_.recursive || wildcard_ || request_.select != ListingRequest::Select::All) {
            return std::nullopt;
        }
        if (frames_.empty()) return 0;
        const std::size_t remaining = frames_.front().end - frames_.front().next;
        return pending_ && *pending_ ? remaining + 1 : remaining;
    }

private:
    // A folder being walked: its children [next, end), and how long prefix_ was above it.
    struct Frame {
        std::uint32_t next;
        std::uint32_t end;
        std::size_t prefixLength;
    };

    bool selected(const Node& node) const {
        if (request_.select != ListingRequest::Select::All &&
            node.folder != (request_.select == ListingRequest::Select::Folders)) {
            return false;
        }
        return !wildcard_ || wildcard_->matches(index_.name(node));
    }

    // Moves current_ to the next entry to yield; false at the end. In a recursive listing a
    // folder is entered right after it has been considered, whether it was selected or not;
    // prefix_ then holds the path of the folder of current_, relative to the listed one.
    bool advance() {
        for (;;) {
            if (enterCurrent_) {
                enterCurrent_ = false;
                const Node& folder = index_.node(current_);
                frames_.push_back({folder.firstChild, folder.firstChild + folder.childCount, prefix_.size()});
                prefix_.append(index_.name(folder)).push_back(u'/');
            }
            if (frames_.empty()) return false;
            Frame& frame = frames_.back();
            if (frame.next == frame.end) {
                prefix_.resize(frame.prefixLength);
                frames_.pop_back();
                continue;
            }
            current_ = frame.next++;
            const Node& node = index_.node(current_);
            enterCurrent_ = request_.recursive && node.folder && node.childCount > 0;
            if (selected(node)) return true;
        }
    }

    std::shared_ptr<const Archive> archive_;
    const Index& index_;
    ListingRequest request_;
    std::optional<Wildcard> wildcard_;  // compiled from request_.wildcard
    std::vector<Frame> frames_;
    std::uint32_t current_ = 0;
    bool enterCurrent_ = false;    // current_ is a folder whose content comes next
    fl::ustring prefix_;
    std::optional<bool> pending_;  // the outcome of an advance made by hasNext()
};

}  // namespace

std::unique_ptr<IFolderEntryIterator> makeListing(std::shared_ptr<const Archive> archive, std::uint32_t folder,
                                                  ListingRequest request) {
    return std::make_unique<Listing>(std::move(archive), folder, std::move(request));
}

}  // namespace foundation::storage::provider::zip::detail
