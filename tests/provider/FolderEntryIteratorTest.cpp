#include "storage/provider/FolderEntryIterator.h"

#include <memory>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace foundation::storage::provider {
namespace {

// A listing over a snapshot, holding `handle` the way a provider holds a directory handle.
class SnapshotIterator final : public IFolderEntryIterator {
public:
    SnapshotIterator(std::vector<FolderEntry> entries, std::shared_ptr<int> handle)
        : entries_(std::move(entries)), handle_(std::move(handle)) {}

    FolderEntry get() const override {
        ++gets;
        return entries_.at(position_ - 1);
    }
    bool hasNext() override { return position_ < entries_.size(); }
    void next() override { ++position_; }
    std::optional<std::size_t> remainingHint() const override { return entries_.size() - position_; }

    mutable int gets = 0;

private:
    std::vector<FolderEntry> entries_;
    std::shared_ptr<int> handle_;
    std::size_t position_ = 0;
};

std::vector<std::u16string> drain(IFolderEntryIterator& it) {
    std::vector<std::u16string> names;
    if (auto hint = it.remainingHint()) {
        names.reserve(*hint);
    }
    while (it.hasNext()) {
        it.next();
        names.push_back(it.get().getName());
    }
    return names;
}

TEST(FolderEntryIterator, ConsumerLoopAndEarlyEnd) {
    auto handle = std::make_shared<int>(0);
    std::weak_ptr<int> held = handle;

    std::unique_ptr<IFolderEntryIterator> empty = std::make_unique<SnapshotIterator>(std::vector<FolderEntry>{}, handle);
    EXPECT_EQ(empty->remainingHint(), std::optional<std::size_t>(0));
    EXPECT_TRUE(drain(*empty).empty());
    EXPECT_EQ(dynamic_cast<SnapshotIterator&>(*empty).gets, 0);

    std::unique_ptr<IFolderEntryIterator> listing = std::make_unique<SnapshotIterator>(
        std::vector<FolderEntry>{FolderEntry(u"a", FolderEntry::EntryType::File),
                                 FolderEntry(u"b", FolderEntry::EntryType::Folder)},
        std::move(handle));
    EXPECT_EQ(listing->remainingHint(), std::optional<std::size_t>(2));
    ASSERT_TRUE(listing->hasNext());
    listing->next();
    EXPECT_EQ(listing->get().getName(), u"a");
    EXPECT_EQ(listing->remainingHint(), std::optional<std::size_t>(1));

    // Destroying the listings through the interface releases what they hold.
    empty.reset();
    EXPECT_FALSE(held.expired());
    listing.reset();
    EXPECT_TRUE(held.expired());
}

}  // namespace
}  // namespace foundation::storage::provider
