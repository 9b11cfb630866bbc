#include "storage/provider/memory/MemoryProvider.h"

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/FakeFolder.h"

namespace foundation::storage::provider::memory {
namespace {

using events::Kind;
using Events = std::vector<std::string>;

StorageIRI mem(const char16_t* path) { return StorageIRI(ustring(u"mem://") + path); }

// Each change is made only once the previous one has been reported, so every change falls
// into one poll and the events of a poll arrive in their fixed order.
TEST(MemoryPolling, ReportsEachChangeOfAWatchedFolder) {
    fake::Recorder events(mem(u"/w"));
    auto provider = makeMemoryProvider();
    provider->createFolder(mem(u"/w"));
    provider->createFile(mem(u"/w/a"));
    provider->startChangePollingMechanism(mem(u"/w"), events.callback(),
                                          {Kind::FolderChanged, Kind::FolderVanished, Kind::EntryAdded,
                                           Kind::EntryModified, Kind::EntryRemoved},
                                          std::chrono::milliseconds(1), RecursiveChangePolling::NonRecursive);

    provider->createFile(mem(u"/w/b"));
    EXPECT_EQ(events.waitFor(2), (Events{"FolderChanged /w folder", "EntryAdded /w/b file"}));
    provider->openStream(mem(u"/w/a"), {ByteStreamAccess::WriteOnly, ByteStreamCreate::NeverCreate,
                                        ByteStreamTruncate::PreserveExisting, ByteStreamAppend::Overwrite})
        ->write("1", 1);
    EXPECT_EQ(events.waitFor(1), Events{"EntryModified /w/a file"});
    provider->moveFile(mem(u"/w/b"), mem(u"/w/c"), ReplacementPolicy::Preserve);
    EXPECT_EQ(events.waitFor(3),
              (Events{"FolderChanged /w folder", "EntryAdded /w/c file", "EntryRemoved /w/b file"}));
    provider->removeFile(mem(u"/w/a"));
    EXPECT_EQ(events.waitFor(2), (Events{"FolderChanged /w folder", "EntryRemoved /w/a file"}));
    provider->removeFile(mem(u"/w/c"));
    EXPECT_EQ(events.waitFor(2), (Events{"FolderChanged /w folder", "EntryRemoved /w/c file"}));
    provider->removeFolder(mem(u"/w"));
    EXPECT_EQ(events.waitFor(1), Events{"FolderVanished /w folder"});
}

}  // namespace
}  // namespace foundation::storage::provider::memory
