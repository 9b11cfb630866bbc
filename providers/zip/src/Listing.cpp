#include "Listing.h"

#include <utility>
#include <vector>

namespace foundation::storage::provider::zip::detail {
namespace {

class Listing : public IFolderEntryIterator {
public:
    Listing(std::shared_ptr<const Archive> archive, std::uint32_t folder, ListingRequest request)
        : archive_(std::move(archive)), index_(archive_->index()), request_(std::move(request)) {
        frames_.push_back({folder, 0, {}});
    }

    FolderEntry get() const override {
        const Node& node = index_.node(current_);
        fl::ustring name = prefix_.empty() ? node.name : prefix_ + node.name;
        if (request_.namesOnly) {
            return FolderEntry(std::move(name), node.folder ? FolderEntry::EntryType::Folder : FolderEntry::EntryType::File);
        }
        if (node.folder) return FolderEntry(std::move(name), FolderAttributes(node.lastModified, false));
        return FolderEntry(std::move(name), FileAttributes(static_cast<unsigned long>(node.size), node.lastModified, false));
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
        if (request_.recursive || request_.wildcard || request_.select != ListingRequest::Select::All) {
            return std::nullopt;
        }
        if (frames_.empty()) return 0;
        const Frame& frame = frames_.front();
        const std::size_t remaining = index_.node(frame.folder).children.size() - frame.position;
        return pending_ && *pending_ ? remaining + 1 : remaining;
    }

private:
    struct Frame {
        std::uint32_t folder;
        std::size_t position;      // next child to look at
        fl::ustring prefix;        // path of the folder relative to the listed one, with '/'
    };

    bool selected(const Node& node) const {
        if (request_.select != ListingRequest::Select::All &&
            node.folder != (request_.select == ListingRequest::Select::Folders)) {
            return false;
        }
        return !request_.wildcard || request_.wildcard->matches(node.name);
    }

    // Moves current_ to the next entry to yield; false at the end. In a recursive listing a
    // folder is entered right after it has been considered, whether it was selected or not.
    bool advance() {
        while (!frames_.empty()) {
            Frame& frame = frames_.back();
            const Node& folder = index_.node(frame.folder);
            if (frame.position == folder.children.size()) {
                frames_.pop_back();
                continue;
            }
            const std::uint32_t child = folder.children[frame.position++];
            const Node& node = index_.node(child);
            fl::ustring prefix = frame.prefix;
            if (request_.recursive && node.folder) {
                frames_.push_back({child, 0, prefix + node.name + u'/'});
            }
            if (selected(node)) {
                current_ = child;
                prefix_ = std::move(prefix);
                return true;
            }
        }
        return false;
    }

    std::shared_ptr<const Archive> archive_;
    const Index& index_;
    ListingRequest request_;
    std::vector<Frame> frames_;
    std::uint32_t current_ = 0;
    fl::ustring prefix_;
    std::optional<bool> pending_;  // the outcome of an advance made by hasNext()
};

}  // namespace

std::unique_ptr<IFolderEntryIterator> makeListing(std::shared_ptr<const Archive> archive, std::uint32_t folder,
                                                  ListingRequest request) {
    return std::make_unique<Listing>(std::move(archive), folder, std::move(request));
}

}  // namespace foundation::storage::provider::zip::detail
