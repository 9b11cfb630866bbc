#include "storage/provider/Attributes.h"

#include <functional>
#include <stdexcept>

#include <gtest/gtest.h>

namespace foundation::storage::provider {
namespace {

const boost::posix_time::ptime kTime(boost::gregorian::date(2024, 3, 1));

// A callback runs once per record and its copies; a throwing one stays in place and runs again on
// the next read; an empty one changes nothing.
TEST(AttributeFlags, CallbacksRunOnceAndCopiesFollowTheirOwnEvaluation) {
    int calls = 0;
    FileAttributes a(42UL, kTime, [&calls] {
        if (++calls == 1) throw std::runtime_error("permission check failed");
        return true;
    });
    EXPECT_THROW((void)a.isWritable(), std::runtime_error);
    EXPECT_TRUE(a.isWritable());
    EXPECT_TRUE(FileAttributes(a).isWritable());
    EXPECT_EQ(calls, 2);

    a.withHiddenAttribute(true).withHiddenAttribute(std::function<bool()>());
    EXPECT_TRUE(a.isHidden());
    EXPECT_THROW((void)FolderAttributes(kTime, std::function<bool()>()).isWritable(), std::bad_function_call);
}

}  // namespace
}  // namespace foundation::storage::provider
