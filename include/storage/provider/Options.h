#pragma once

#include <cstdint>
#include <iosfwd>

#include "storage/provider/Export.h"

namespace foundation::storage::provider {

// Stream options: every printer treats 0 as the first name and any other value as the second.
enum class ByteStreamAccess : std::uint32_t { WriteOnly = 0, ReadWrite = 1 };
enum class ByteStreamCreate : std::uint32_t { Create = 0, NeverCreate = 1 };
enum class ByteStreamTruncate : std::uint32_t { TruncateExisting = 0, PreserveExisting = 1 };
enum class ByteStreamAppend : std::uint32_t { Append = 0, Overwrite = 1 };

// How a stream is opened. The defaults open a file for reading and writing, create it when
// missing and keep its content, with writes starting at the beginning: the one combination
// that never loses data and suits both a reader and an in-place editor.
struct ByteStreamOpenOptions {
    ByteStreamAccess access = ByteStreamAccess::ReadWrite;
    ByteStreamCreate create = ByteStreamCreate::Create;
    ByteStreamTruncate truncate = ByteStreamTruncate::PreserveExisting;
    ByteStreamAppend append = ByteStreamAppend::Overwrite;
};

// How the default path comparator compares names.
enum class CaseModifier : std::uint32_t { None = 0, Sensitive = 1, InSensitive = 2 };

// What copy and move do when the destination exists. There is deliberately no value 3.
enum class ReplacementPolicy : std::uint32_t { Preserve = 0, Overwrite = 1, Clobber = 2, NoClobber = 4 };

// The answer of IProvider::exists.
enum class ExistenceType : std::uint32_t { AsFile = 0, AsFolder = 1, AsNeither = 2 };

// The answer of IProvider::existsExtended.
enum class ExistenceTypeExtended : std::uint32_t {
    RegularFile = 0,
    SpecialFile = 1,
    RegularFolder = 2,
    SymlinkToFile = 3,
    SymlinkToFolder = 4,
    BrokenSymlink = 5,
    None = 6,
};

// Optional provider capabilities, asked for with IProvider::hasFeature.
enum class ExtendedFeature : std::uint32_t {
    RecursiveFolderRemoval = 0,
    // The provider copies files atomically itself (copyFileAtomic). Has no printed name.
    NativeAtomicCopy = 5,
};

// What a progress callback answers between the chunks of a copy.
enum class InterruptSignal : std::uint32_t { Continue = 0, Abort = 1 };

// How a transactional stream ends: move the scratch file over the target, or remove it.
enum class StreamClosePolicy : std::uint32_t { Commit = 0, Abort = 1 };

enum class TransactionPolicy : std::uint32_t { NonAtomic = 0, Atomic = 1 };
enum class TransactionStatus : std::uint32_t { Completed = 0, Aborted = 1 };

// Printers write "Type::Value", except the two existence enumerations, which write the bare
// value name. A value without a name prints nothing; only ExistenceType then sets failbit.
QKFL_STORAGE_EXPORT std::ostream& operator<<(std::ostream& out, const ByteStreamAccess& value);
QKFL_STORAGE_EXPORT std::ostream& operator<<(std::ostream& out, const ByteStreamCreate& value);
QKFL_STORAGE_EXPORT std::ostream& operator<<(std::ostream& out, const ByteStreamTruncate& value);
QKFL_STORAGE_EXPORT std::ostream& operator<<(std::ostream& out, const ByteStreamAppend& value);
QKFL_STORAGE_EXPORT std::ostream& operator<<(std::ostream& out, const ByteStreamOpenOptions& options);
QKFL_STORAGE_EXPORT std::ostream& operator<<(std::ostream& out, CaseModifier value);
QKFL_STORAGE_EXPORT std::ostream& operator<<(std::ostream& out, ReplacementPolicy value);
QKFL_STORAGE_EXPORT std::ostream& operator<<(std::ostream& out, const ExistenceType& value);
QKFL_STORAGE_EXPORT std::ostream& operator<<(std::ostream& out, const ExistenceTypeExtended& value);
QKFL_STORAGE_EXPORT std::ostream& operator<<(std::ostream& out, ExtendedFeature value);
QKFL_STORAGE_EXPORT std::ostream& operator<<(std::ostream& out, const InterruptSignal& value);
QKFL_STORAGE_EXPORT std::ostream& operator<<(std::ostream& out, const StreamClosePolicy& value);
QKFL_STORAGE_EXPORT std::ostream& operator<<(std::ostream& out, const TransactionPolicy& value);
QKFL_STORAGE_EXPORT std::ostream& operator<<(std::ostream& out, const TransactionStatus& value);

}  // namespace foundation::storage::provider
