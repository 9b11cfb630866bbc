#include "storage/provider/Options.h"

#include <sstream>
#include <string>

#include <gtest/gtest.h>

namespace foundation::storage::provider {
namespace {

enum class Stream { Good, Failed };

// Prints `number` as an `Enum` into a fresh stream and checks the text and the stream state.
template <class Enum>
void expectPrint(std::uint32_t number, const std::string& text, Stream state = Stream::Good) {
    std::ostringstream out;
    EXPECT_EQ(&(out << static_cast<Enum>(number)), &out);
    EXPECT_EQ(out.str(), text) << number;
    EXPECT_EQ(out.fail(), state == Stream::Failed) << number << " -> '" << text << "'";
}

TEST(Options, TwoValuedStreamOptionsPrintTheSecondNameForAnyNonZeroNumber) {
    auto check = [](std::uint32_t number, const std::string& access, const std::string& create,
                    const std::string& truncate, const std::string& append) {
        expectPrint<ByteStreamAccess>(number, "ByteStreamAccess::" + access);
        expectPrint<ByteStreamCreate>(number, "ByteStreamCreate::" + create);
        expectPrint<ByteStreamTruncate>(number, "ByteStreamTruncate::" + truncate);
        expectPrint<ByteStreamAppend>(number, "ByteStreamAppend::" + append);
    };
    check(0, "WriteOnly", "Create", "TruncateExisting", "Append");
    check(1, "ReadWrite", "NeverCreate", "PreserveExisting", "Overwrite");
    check(7, "ReadWrite", "NeverCreate", "PreserveExisting", "Overwrite");
    check(0xFFFFFFFFu, "ReadWrite", "NeverCreate", "PreserveExisting", "Overwrite");
}

TEST(Options, OpenOptionsPrintTheirFourFieldsInOrder) {
    auto check = [](ByteStreamOpenOptions options, const std::string& text) {
        std::ostringstream out;
        out << options;
        EXPECT_EQ(out.str(), text);
    };
    check({ByteStreamAccess::ReadWrite, ByteStreamCreate::Create, ByteStreamTruncate::PreserveExisting,
           ByteStreamAppend::Overwrite},
          "ByteStreamOpenOptions: {ByteStreamAccess::ReadWrite, ByteStreamCreate::Create, "
          "ByteStreamTruncate::PreserveExisting, ByteStreamAppend::Overwrite}");
    check({ByteStreamAccess::WriteOnly, ByteStreamCreate::NeverCreate, ByteStreamTruncate::TruncateExisting,
           ByteStreamAppend::Append},
          "ByteStreamOpenOptions: {ByteStreamAccess::WriteOnly, ByteStreamCreate::NeverCreate, "
          "ByteStreamTruncate::TruncateExisting, ByteStreamAppend::Append}");
    check({static_cast<ByteStreamAccess>(9), static_cast<ByteStreamCreate>(0), static_cast<ByteStreamTruncate>(2),
           static_cast<ByteStreamAppend>(0)},
          "ByteStreamOpenOptions: {ByteStreamAccess::ReadWrite, ByteStreamCreate::Create, "
          "ByteStreamTruncate::PreserveExisting, ByteStreamAppend::Append}");
}

TEST(Options, MultiValuedEnumerationsPrintNamedValuesOnly) {
    expectPrint<CaseModifier>(0, "CaseModifier::None");
    expectPrint<CaseModifier>(1, "CaseModifier::Sensitive");
    expectPrint<CaseModifier>(2, "CaseModifier::InSensitive");
    expectPrint<CaseModifier>(3, "");

    expectPrint<ReplacementPolicy>(0, "ReplacementPolicy::Preserve");
    expectPrint<ReplacementPolicy>(1, "ReplacementPolicy::Overwrite");
    expectPrint<ReplacementPolicy>(2, "ReplacementPolicy::Clobber");
    expectPrint<ReplacementPolicy>(3, "");
    expectPrint<ReplacementPolicy>(4, "ReplacementPolicy::NoClobber");
    expectPrint<ReplacementPolicy>(5, "");

    expectPrint<ExtendedFeature>(0, "ExtendedFeature::RecursiveFolderRemoval");
    expectPrint<ExtendedFeature>(1, "");
    expectPrint<ExtendedFeature>(5, "");
    EXPECT_EQ(static_cast<std::uint32_t>(ExtendedFeature::NativeAtomicCopy), 5u);

    expectPrint<InterruptSignal>(0, "InterruptSignal::Continue");
    expectPrint<InterruptSignal>(1, "InterruptSignal::Abort");
    expectPrint<InterruptSignal>(2, "");

    expectPrint<StreamClosePolicy>(0, "StreamClosePolicy::Commit");
    expectPrint<StreamClosePolicy>(1, "StreamClosePolicy::Abort");
    expectPrint<StreamClosePolicy>(2, "");

    expectPrint<TransactionPolicy>(0, "TransactionPolicy::NonAtomic");
    expectPrint<TransactionPolicy>(1, "TransactionPolicy::Atomic");
    expectPrint<TransactionPolicy>(2, "");

    expectPrint<TransactionStatus>(0, "TransactionStatus::Completed");
    expectPrint<TransactionStatus>(1, "TransactionStatus::Aborted");
    expectPrint<TransactionStatus>(2, "");
}

TEST(Options, ExistenceEnumerationsPrintBareNamesAndOnlyExistenceTypeFails) {
    expectPrint<ExistenceType>(0, "AsFile");
    expectPrint<ExistenceType>(1, "AsFolder");
    expectPrint<ExistenceType>(2, "AsNeither");
    expectPrint<ExistenceType>(3, "", Stream::Failed);

    expectPrint<ExistenceTypeExtended>(0, "RegularFile");
    expectPrint<ExistenceTypeExtended>(1, "SpecialFile");
    expectPrint<ExistenceTypeExtended>(2, "RegularFolder");
    expectPrint<ExistenceTypeExtended>(3, "SymlinkToFile");
    expectPrint<ExistenceTypeExtended>(4, "SymlinkToFolder");
    expectPrint<ExistenceTypeExtended>(5, "BrokenSymlink");
    expectPrint<ExistenceTypeExtended>(6, "None");
    expectPrint<ExistenceTypeExtended>(7, "");
}

}  // namespace
}  // namespace foundation::storage::provider
