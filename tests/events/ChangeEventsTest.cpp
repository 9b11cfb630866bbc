#include "storage/provider/ChangeEvents.h"

#include <sstream>
#include <string>

#include <gtest/gtest.h>

namespace foundation::storage::events {
namespace {

template <class Enum>
std::string print(std::uint32_t number) {
    std::ostringstream out;
    out << static_cast<Enum>(number);
    EXPECT_TRUE(out.good()) << number;
    return out.str();
}

TEST(ChangeEvents, KindsAndEntryTypesPrintTypeAndValue) {
    auto check = [](std::uint32_t number, const std::string& kind, const std::string& type) {
        EXPECT_EQ(print<Kind>(number), kind);
        EXPECT_EQ(print<EntryType>(number), type);
    };
    check(0, "Kind::FolderChanged", "EntryType::File");
    check(1, "Kind::FolderVanished", "EntryType::Folder");
    check(2, "Kind::EntryAdded", "");
    check(3, "Kind::EntryModified", "");
    check(4, "Kind::EntryRemoved", "");
    check(5, "", "");
}

}  // namespace
}  // namespace foundation::storage::events
