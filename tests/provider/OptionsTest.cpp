#include "storage/provider/Options.h"
#include "storage/provider/ChangeEvents.h"
#include "storage/provider/ErrorCode.h"

#include <functional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace foundation::storage::provider {
namespace {

// `number` printed as an `Enum`, with "!" before it when the stream is left failed.
template <class Enum>
std::string print(std::uint32_t number) {
    std::ostringstream out;
    out << static_cast<Enum>(number);
    return (out.fail() ? "!" : "") + out.str();
}

// The texts of 0, 1, 2, ... of each enumeration: the two-valued stream options print their
// second name for any number but 0; the others print named values only, and only ExistenceType
// fails the stream on a number without a name.
TEST(Options, EnumerationsPrintTheirOwnTexts) {
    using Print = std::function<std::string(std::uint32_t)>;
    const std::vector<std::pair<Print, std::vector<std::string>>> rows = {
        {print<ByteStreamAccess>, {"ByteStreamAccess::WriteOnly", "ByteStreamAccess::ReadWrite", "ByteStreamAccess::ReadWrite"}},
        {print<ByteStreamCreate>, {"ByteStreamCreate::Create", "ByteStreamCreate::NeverCreate", "ByteStreamCreate::NeverCreate"}},
        {print<ByteStreamTruncate>, {"ByteStreamTruncate::TruncateExisting", "ByteStreamTruncate::PreserveExisting"}},
        {print<ByteStreamAppend>, {"ByteStreamAppend::Append", "ByteStreamAppend::Overwrite", "ByteStreamAppend::Overwrite"}},
        {print<CaseModifier>, {"CaseModifier::None", "CaseModifier::Sensitive", "CaseModifier::InSensitive", ""}},
        {print<ReplacementPolicy>, {"ReplacementPolicy::Preserve", "ReplacementPolicy::Overwrite", "ReplacementPolicy::Clobber", "", "ReplacementPolicy::NoClobber", ""}},
        {print<ExtendedFeature>, {"ExtendedFeature::RecursiveFolderRemoval", ""}},
        {print<InterruptSignal>, {"InterruptSignal::Continue", "InterruptSignal::Abort", ""}},
        {print<StreamClosePolicy>, {"StreamClosePolicy::Commit", "StreamClosePolicy::Abort", ""}},
        {print<TransactionPolicy>, {"TransactionPolicy::NonAtomic", "TransactionPolicy::Atomic", ""}},
        {print<TransactionStatus>, {"TransactionStatus::Completed", "TransactionStatus::Aborted", ""}},
        {print<ExistenceType>, {"AsFile", "AsFolder", "AsNeither", "!"}},
        {print<ErrorCode>, {"ErrorCode::FolderNotEmpty", "ErrorCode::InvalidLocation", "ErrorCode::PermissionDenied", "ErrorCode::ResourceAlreadyExists", "ErrorCode::ResourceNotFound", "ErrorCode::FileTooLarge", "ErrorCode::ResourceInUse", "ErrorCode::ReadOnlyProvider", "ErrorCode::NoSpaceLeft", "ErrorCode::IOError", "ErrorCode::InternalError", "ErrorCode::UnsupportedOperation", "ErrorCode::Unknown", "Unhandled ErrorCode"}},
        {print<events::Kind>, {"Kind::FolderChanged", "Kind::FolderVanished", "Kind::EntryAdded", "Kind::EntryModified", "Kind::EntryRemoved", ""}},
        {print<events::EntryType>, {"EntryType::File", "EntryType::Folder", ""}},
        {print<ExistenceTypeExtended>, {"RegularFile", "SpecialFile", "RegularFolder", "SymlinkToFile", "SymlinkToFolder", "BrokenSymlink", "None", ""}},
    };
    for (const auto& [printed, texts] : rows) {
        for (std::uint32_t number = 0; number < texts.size(); ++number) EXPECT_EQ(printed(number), texts[number]);
    }
    EXPECT_EQ(print<ByteStreamAccess>(0xFFFFFFFFu), "ByteStreamAccess::ReadWrite");
    std::ostringstream out;
    out << ByteStreamOpenOptions{static_cast<ByteStreamAccess>(9), ByteStreamCreate::Create,
                                 static_cast<ByteStreamTruncate>(2), ByteStreamAppend::Append};
    EXPECT_EQ(out.str(), "ByteStreamOpenOptions: {ByteStreamAccess::ReadWrite, ByteStreamCreate::Create, "
                         "ByteStreamTruncate::PreserveExisting, ByteStreamAppend::Append}");
}

}  // namespace
}  // namespace foundation::storage::provider
