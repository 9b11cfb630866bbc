#include "storage/provider/ErrorCode.h"

#include <sstream>

#include <gtest/gtest.h>

namespace foundation::storage::provider {
namespace {

TEST(ErrorCode, EveryValuePrintsItsFixedText) {
    auto check = [](std::uint32_t number, const std::string& text) {
        const auto code = static_cast<ErrorCode>(number);
        EXPECT_EQ(toString(code), text) << number;
        EXPECT_EQ(toUstring(code), std::u16string(text.begin(), text.end())) << number;
        std::ostringstream out;
        EXPECT_EQ(&(out << code), &out);
        EXPECT_EQ(out.str(), text) << number;
        EXPECT_TRUE(out.good()) << number;
    };
    check(0, "ErrorCode::FolderNotEmpty");
    check(1, "ErrorCode::InvalidLocation");
    check(2, "ErrorCode::PermissionDenied");
    check(3, "ErrorCode::ResourceAlreadyExists");
    check(4, "ErrorCode::ResourceNotFound");
    check(5, "ErrorCode::FileTooLarge");
    check(6, "ErrorCode::ResourceInUse");
    check(7, "ErrorCode::ReadOnlyProvider");
    check(8, "ErrorCode::NoSpaceLeft");
    check(9, "ErrorCode::IOError");
    check(10, "ErrorCode::InternalError");
    check(11, "ErrorCode::UnsupportedOperation");
    check(12, "ErrorCode::Unknown");
    check(13, "Unhandled ErrorCode");
    check(0x80000000u, "Unhandled ErrorCode");
    check(0xFFFFFFFFu, "Unhandled ErrorCode");
}

}  // namespace
}  // namespace foundation::storage::provider
