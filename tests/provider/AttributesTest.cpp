#include "storage/provider/Attributes.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <latch>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <boost/date_time/posix_time/time_parsers.hpp>
#include <gtest/gtest.h>

namespace foundation::storage::provider {
namespace {

using boost::posix_time::ptime;
using boost::posix_time::time_from_string;

const ptime kTime = time_from_string("2024-03-01 12:30:00");

// A callback that counts its calls and answers `value`.
std::function<bool()> counting(std::atomic<int>& calls, bool value = true) {
    return [&calls, value] {
        ++calls;
        return value;
    };
}

// The two attribute records share the flag behaviour; the typed tests run on both.
template <class Attributes>
struct Make;
template <>
struct Make<FileAttributes> {
    static FileAttributes with(bool writable) { return FileAttributes(42UL, kTime, writable); }
    static FileAttributes with(std::function<bool()> writable) { return FileAttributes(42UL, kTime, std::move(writable)); }
};
template <>
struct Make<FolderAttributes> {
    static FolderAttributes with(bool writable) { return FolderAttributes(kTime, writable); }
    static FolderAttributes with(std::function<bool()> writable) { return FolderAttributes(kTime, std::move(writable)); }
};

template <class Attributes>
class AttributeFlags : public testing::Test {};
using AttributeRecords = testing::Types<FileAttributes, FolderAttributes>;
TYPED_TEST_SUITE(AttributeFlags, AttributeRecords);

TYPED_TEST(AttributeFlags, PlainValuesAndDefaults) {
    auto a = Make<TypeParam>::with(true);
    EXPECT_TRUE(a.isWritable());
    EXPECT_FALSE(a.isHidden());
    EXPECT_FALSE(a.isSymlink());
    EXPECT_EQ(a.getLastModified(), kTime);
    EXPECT_FALSE(Make<TypeParam>::with(false).isWritable());

    // Chaining modifies the object itself.
    EXPECT_EQ(&a.withHiddenAttribute(true).withSymlinkStatusAttribute(true), &a);
    EXPECT_TRUE(a.isHidden());
    EXPECT_TRUE(a.isSymlink());
    a.withHiddenAttribute(false).withSymlinkStatusAttribute(false);
    EXPECT_FALSE(a.isHidden());
    EXPECT_FALSE(a.isSymlink());
}

TYPED_TEST(AttributeFlags, CallbackRunsOnceAndCopiesFollowTheirOwnEvaluation) {
    std::atomic<int> calls = 0;
    auto a = Make<TypeParam>::with(counting(calls));
    EXPECT_EQ(calls, 0);  // nothing is evaluated eagerly

    const TypeParam before = a;  // unevaluated copy: keeps its own callback
    EXPECT_TRUE(a.isWritable());
    EXPECT_TRUE(a.isWritable());
    EXPECT_EQ(calls, 1);

    const TypeParam after = a;  // evaluated copy: keeps the value
    EXPECT_TRUE(after.isWritable());
    EXPECT_EQ(calls, 1);

    EXPECT_TRUE(before.isWritable());
    EXPECT_TRUE(before.isWritable());
    EXPECT_EQ(calls, 2);

    TypeParam assigned = Make<TypeParam>::with(false);
    assigned = before;
    EXPECT_TRUE(assigned.isWritable());
    EXPECT_EQ(calls, 2);
}

TYPED_TEST(AttributeFlags, WithCallbackReplacesButAnEmptyCallbackChangesNothing) {
    std::atomic<int> hiddenCalls = 0;
    std::atomic<int> symlinkCalls = 0;
    auto a = Make<TypeParam>::with(true);
    a.withHiddenAttribute(true).withHiddenAttribute(std::function<bool()>());
    EXPECT_TRUE(a.isHidden());

    a.withHiddenAttribute(counting(hiddenCalls, false)).withHiddenAttribute(std::function<bool()>());
    a.withSymlinkStatusAttribute(counting(symlinkCalls)).withSymlinkStatusAttribute(std::function<bool()>());
    EXPECT_FALSE(a.isHidden());
    EXPECT_TRUE(a.isSymlink());
    EXPECT_TRUE(a.isSymlink());
    EXPECT_EQ(hiddenCalls, 1);
    EXPECT_EQ(symlinkCalls, 1);

    a.withSymlinkStatusAttribute(false);
    EXPECT_FALSE(a.isSymlink());

    // Chaining on a temporary yields an rvalue, so the record moves on without copying its flags.
    static_assert(std::is_same_v<decltype(Make<TypeParam>::with(true).withHiddenAttribute(true)), TypeParam&&>);
    const TypeParam chained =
        Make<TypeParam>::with(true).withHiddenAttribute(counting(hiddenCalls)).withSymlinkStatusAttribute(true);
    EXPECT_TRUE(chained.isHidden());
    EXPECT_TRUE(chained.isSymlink());
    EXPECT_EQ(hiddenCalls, 2);
}

TYPED_TEST(AttributeFlags, EmptyOrThrowingCallbacksLeaveTheRecordUsable) {
    // The constructor keeps an empty callback: every read reports it.
    auto empty = Make<TypeParam>::with(std::function<bool()>());
    EXPECT_THROW((void)empty.isWritable(), std::bad_function_call);
    EXPECT_THROW((void)empty.isWritable(), std::bad_function_call);
    EXPECT_FALSE(empty.isHidden());
    EXPECT_EQ(empty.getLastModified(), kTime);

    // A throwing callback stays in place and runs again on the next read.
    int calls = 0;
    auto flaky = Make<TypeParam>::with(std::function<bool()>([&calls] {
        if (++calls == 1) {
            throw std::runtime_error("permission check failed");
        }
        return true;
    }));
    EXPECT_THROW((void)flaky.isWritable(), std::runtime_error);
    const TypeParam copy = flaky;  // still unevaluated
    EXPECT_TRUE(flaky.isWritable());
    EXPECT_TRUE(flaky.isWritable());
    EXPECT_EQ(calls, 2);
    EXPECT_TRUE(copy.isWritable());
    EXPECT_EQ(calls, 3);
}

TYPED_TEST(AttributeFlags, ManyReadersCallTheCallbackOnce) {
    constexpr int kThreads = 8;
    for (int round = 0; round < 20; ++round) {
        std::atomic<int> calls = 0;
        const auto a = Make<TypeParam>::with(std::function<bool()>([&calls] {
            ++calls;
            // Keep the evaluation open so that the other readers pile up on it.
            std::this_thread::sleep_for(std::chrono::microseconds(200));
            return true;
        }));
        std::atomic<int> trueReads = 0;
        std::latch start(kThreads);
        std::vector<std::jthread> readers;
        for (int t = 0; t < kThreads; ++t) {
            readers.emplace_back([&, t] {
                start.arrive_and_wait();
                if (t % 4 == 3) {
                    // Copying while others evaluate: the copy holds either the value or the callback.
                    const TypeParam copy = a;
                    trueReads += copy.isWritable() ? 1 : 0;
                } else {
                    trueReads += a.isWritable() ? 1 : 0;
                    trueReads += a.isWritable() ? 1 : 0;
                }
            });
        }
        readers.clear();
        EXPECT_EQ(trueReads, kThreads / 4 + 2 * (kThreads - kThreads / 4));
        EXPECT_GE(calls, 1);
        EXPECT_LE(calls, 1 + kThreads / 4);  // once for the record, at most once per early copy
        const int settled = calls;
        EXPECT_TRUE(a.isWritable());
        EXPECT_EQ(calls, settled);
    }
}

TEST(Attributes, FileSize) {
    const FileAttributes sized(std::optional<unsigned long>(0UL), kTime, true);
    EXPECT_TRUE(sized.hasSizeAttribute());
    EXPECT_EQ(sized.getSize(), 0UL);
    EXPECT_EQ(FileAttributes(18446744073709551615UL, kTime, true).getSize(), 18446744073709551615UL);
    EXPECT_FALSE(FileAttributes(std::nullopt, kTime, true).hasSizeAttribute());
}

TEST(Attributes, FolderEntryKinds) {
    const FolderEntry file(u"a.txt", FileAttributes(3UL, kTime, false));
    EXPECT_TRUE(file.isFile());
    EXPECT_EQ(file.getName(), u"a.txt");
    ASSERT_TRUE(file.getFileAttributes().has_value());
    EXPECT_EQ(file.getFileAttributes()->getSize(), 3UL);
    EXPECT_FALSE(file.getFolderAttributes().has_value());
    EXPECT_FALSE(file.getExtendedAttributes().has_value());

    const FolderEntry folder(u"sub", FolderAttributes(kTime, true));
    EXPECT_FALSE(folder.isFile());
    EXPECT_FALSE(folder.getFileAttributes().has_value());
    ASSERT_TRUE(folder.getFolderAttributes().has_value());
    EXPECT_TRUE(folder.getFolderAttributes()->isWritable());

    auto check = [](std::uint32_t type, bool isFile) {
        const FolderEntry entry(u"n", static_cast<FolderEntry::EntryType>(type));
        EXPECT_EQ(entry.isFile(), isFile) << type;
        EXPECT_FALSE(entry.getFileAttributes().has_value()) << type;
        EXPECT_FALSE(entry.getFolderAttributes().has_value()) << type;
        EXPECT_FALSE(entry.getExtendedAttributes().has_value()) << type;
    };
    check(0, true);
    check(1, false);
    check(2, false);
}

TEST(Attributes, FolderEntryCopiesCarryTheirOwnFlags) {
    std::atomic<int> calls = 0;
    FolderEntry entry(u"link", FileAttributes(1UL, kTime, true).withSymlinkStatusAttribute(counting(calls)));
    const FolderEntry early = entry;
    EXPECT_TRUE(entry.getFileAttributes()->isSymlink());
    const FolderEntry late = entry;
    EXPECT_TRUE(late.getFileAttributes()->isSymlink());
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(early.getFileAttributes()->isSymlink());
    EXPECT_EQ(calls, 2);

    EXPECT_EQ(&entry.withExtendedAttributes(ExtendedAttributes({{"owner", std::string("ann")}})), &entry);
    entry.withExtendedAttributes(ExtendedAttributes({{"mode", 0644}}));
    ASSERT_TRUE(entry.getExtendedAttributes().has_value());
    EXPECT_FALSE(entry.getExtendedAttributes()->hasAttribute("owner"));
    EXPECT_EQ(boost::any_cast<int>(entry.getExtendedAttributes()->getAttribute("mode")), 0644);
    EXPECT_FALSE(late.getExtendedAttributes().has_value());
}

TEST(Attributes, ExtendedAttributesLookUpExactKeysInByteOrder) {
    ExtendedAttributes attributes({{"b", 2}, {"a", 1}, {"B", 0}, {"\xc3\xa9t\xc3\xa9", 3}, {"z", 4}});
    EXPECT_TRUE(attributes.hasAttribute("a"));
    EXPECT_FALSE(attributes.hasAttribute("A"));
    EXPECT_FALSE(attributes.hasAttribute(""));
    std::string order;
    for (const auto& [key, value] : attributes) {
        order += key + "=" + std::to_string(boost::any_cast<int>(value)) + " ";
    }
    EXPECT_EQ(order, "B=0 a=1 b=2 z=4 \xc3\xa9t\xc3\xa9=3 ");

    // getAttribute hands out a copy.
    boost::any copy = attributes.getAttribute("a");
    boost::any_cast<int&>(copy) = 10;
    EXPECT_EQ(boost::any_cast<int>(attributes.getAttribute("a")), 1);

    for (auto& [key, value] : attributes) {
        value = key;  // the non-const iterators write through
    }
    EXPECT_EQ(boost::any_cast<std::string>(attributes.getAttribute("b")), "b");

    auto bad = [](const ExtendedAttributes& from, const std::string& key, const std::string& message) {
        try {
            (void)from.getAttribute(key);
            ADD_FAILURE() << key;
        } catch (const std::out_of_range& e) {
            EXPECT_EQ(std::string(e.what()), message);
        }
    };
    bad(ExtendedAttributes(), "size", "Attribute size not found.");
    bad(attributes, "owner", "Attribute owner not found.");
    bad(attributes, "A", "Attribute A not found.");
    bad(attributes, "", "Attribute  not found.");
    EXPECT_TRUE(attributes.hasAttribute("a"));  // unchanged by the failed lookups
}

TEST(Attributes, StorageInfoAndCacheUsage) {
    ProviderStorageInfo info;
    EXPECT_EQ(info.getStorageCapacity(), 18446744073709551615UL);
    EXPECT_EQ(info.getSpaceOccupied(), 0UL);
    info.withStorageCapacity(100).withSpaceOccupied(60);
    EXPECT_EQ(info.getStorageCapacity(), 100UL);
    EXPECT_EQ(info.getSpaceOccupied(), 60UL);

    ProviderCacheUsage usage;
    EXPECT_FALSE(usage.getSpaceAvailable().has_value());
    usage.withSpaceAvailable(0);
    EXPECT_EQ(usage.getSpaceAvailable(), std::optional<unsigned long>(0UL));
}

}  // namespace
}  // namespace foundation::storage::provider
