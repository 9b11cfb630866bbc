#include "storage/provider/Attributes.h"

#include <functional>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

namespace foundation::storage::provider {
namespace {

const boost::posix_time::ptime kTime(boost::gregorian::date(2024, 3, 1));

// The two attribute records share the lazy flags; the typed tests run on both.
template <class Attributes>
Attributes make(std::function<bool()> writable);
template <>
FileAttributes make(std::function<bool()> writable) {
    return FileAttributes(42UL, kTime, std::move(writable));
}
template <>
FolderAttributes make(std::function<bool()> writable) {
    return FolderAttributes(kTime, std::move(writable));
}

template <class Attributes>
class AttributeFlags : public testing::Test {};
using AttributeRecords = testing::Types<FileAttributes, FolderAttributes>;
TYPED_TEST_SUITE(AttributeFlags, AttributeRecords);

// A callback runs once per record and its copies; a throwing one stays in place and runs again on
// the next read; an empty one changes nothing.
TYPED_TEST(AttributeFlags, CallbacksRunOnceAndCopiesFollowTheirOwnEvaluation) {
    int calls = 0;
    auto a = make<TypeParam>([&calls] {
        if (++calls == 1) throw std::runtime_error("permission check failed");
        return true;
    });
    EXPECT_THROW((void)a.isWritable(), std::runtime_error);
    EXPECT_TRUE(a.isWritable());
    EXPECT_TRUE(TypeParam(a).isWritable());
    EXPECT_EQ(calls, 2);

    a.withHiddenAttribute(true).withHiddenAttribute(std::function<bool()>());
    EXPECT_TRUE(a.isHidden());
    a.withSymlinkStatusAttribute([&calls] { return ++calls > 0; }).withSymlinkStatusAttribute(std::function<bool()>());
    EXPECT_TRUE(a.isSymlink());
    EXPECT_TRUE(a.isSymlink());
    EXPECT_EQ(calls, 3);
    EXPECT_THROW((void)make<TypeParam>(std::function<bool()>()).isWritable(), std::bad_function_call);
}

}  // namespace
}  // namespace foundation::storage::provider
