#include "storage/provider/Options.h"

#include <ostream>

namespace foundation::storage::provider {
namespace {

// The two-valued stream options print their first name for 0 and the second for any other
// number, so a value read from elsewhere always prints something.
template <class Enum>
const char* twoValued(Enum value, const char* zero, const char* other) {
    return static_cast<std::uint32_t>(value) == 0 ? zero : other;
}

const char* text(const ByteStreamAccess& value) {
    return twoValued(value, "ByteStreamAccess::WriteOnly", "ByteStreamAccess::ReadWrite");
}
const char* text(const ByteStreamCreate& value) {
    return twoValued(value, "ByteStreamCreate::Create", "ByteStreamCreate::NeverCreate");
}
const char* text(const ByteStreamTruncate& value) {
    return twoValued(value, "ByteStreamTruncate::TruncateExisting", "ByteStreamTruncate::PreserveExisting");
}
const char* text(const ByteStreamAppend& value) {
    return twoValued(value, "ByteStreamAppend::Append", "ByteStreamAppend::Overwrite");
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const ByteStreamAccess& value) { return out << text(value); }
std::ostream& operator<<(std::ostream& out, const ByteStreamCreate& value) { return out << text(value); }
std::ostream& operator<<(std::ostream& out, const ByteStreamTruncate& value) { return out << text(value); }
std::ostream& operator<<(std::ostream& out, const ByteStreamAppend& value) { return out << text(value); }

std::ostream& operator<<(std::ostream& out, const ByteStreamOpenOptions& options) {
    return out << "ByteStreamOpenOptions: {" << text(options.access) << ", " << text(options.create) << ", "
               << text(options.truncate) << ", " << text(options.append) << "}";
}

std::ostream& operator<<(std::ostream& out, CaseModifier value) {
    switch (value) {
        case CaseModifier::None: return out << "CaseModifier::None";
        case CaseModifier::Sensitive: return out << "CaseModifier::Sensitive";
        case CaseModifier::InSensitive: return out << "CaseModifier::InSensitive";
    }
    return out;
}

std::ostream& operator<<(std::ostream& out, ReplacementPolicy value) {
    switch (value) {
        case ReplacementPolicy::Preserve: return out << "ReplacementPolicy::Preserve";
        case ReplacementPolicy::Overwrite: return out << "ReplacementPolicy::Overwrite";
        case ReplacementPolicy::Clobber: return out << "ReplacementPolicy::Clobber";
        case ReplacementPolicy::NoClobber: return out << "ReplacementPolicy::NoClobber";
    }
    return out;
}

// Bare names, and the only printer that marks the stream failed for an unknown value.
std::ostream& operator<<(std::ostream& out, const ExistenceType& value) {
    switch (value) {
        case ExistenceType::AsFile: return out << "AsFile";
        case ExistenceType::AsFolder: return out << "AsFolder";
        case ExistenceType::AsNeither: return out << "AsNeither";
    }
    out.setstate(std::ios_base::failbit);
    return out;
}

// Bare names; an unknown value leaves the stream good.
std::ostream& operator<<(std::ostream& out, const ExistenceTypeExtended& value) {
    switch (value) {
        case ExistenceTypeExtended::RegularFile: return out << "RegularFile";
        case ExistenceTypeExtended::SpecialFile: return out << "SpecialFile";
        case ExistenceTypeExtended::RegularFolder: return out << "RegularFolder";
        case ExistenceTypeExtended::SymlinkToFile: return out << "SymlinkToFile";
        case ExistenceTypeExtended::SymlinkToFolder: return out << "SymlinkToFolder";
        case ExistenceTypeExtended::BrokenSymlink: return out << "BrokenSymlink";
        case ExistenceTypeExtended::None: return out << "None";
    }
    return out;
}

std::ostream& operator<<(std::ostream& out, ExtendedFeature value) {
    switch (value) {
        case ExtendedFeature::RecursiveFolderRemoval: return out << "ExtendedFeature::RecursiveFolderRemoval";
        case ExtendedFeature::NativeAtomicCopy: break;  // deliberately nameless
    }
    return out;
}

std::ostream& operator<<(std::ostream& out, const InterruptSignal& value) {
    switch (value) {
        case InterruptSignal::Continue: return out << "InterruptSignal::Continue";
        case InterruptSignal::Abort: return out << "InterruptSignal::Abort";
    }
    return out;
}

std::ostream& operator<<(std::ostream& out, const StreamClosePolicy& value) {
    switch (value) {
        case StreamClosePolicy::Commit: return out << "StreamClosePolicy::Commit";
        case StreamClosePolicy::Abort: return out << "StreamClosePolicy::Abort";
    }
    return out;
}

std::ostream& operator<<(std::ostream& out, const TransactionPolicy& value) {
    switch (value) {
        case TransactionPolicy::NonAtomic: return out << "TransactionPolicy::NonAtomic";
        case TransactionPolicy::Atomic: return out << "TransactionPolicy::Atomic";
    }
    return out;
}

std::ostream& operator<<(std::ostream& out, const TransactionStatus& value) {
    switch (value) {
        case TransactionStatus::Completed: return out << "TransactionStatus::Completed";
        case TransactionStatus::Aborted: return out << "TransactionStatus::Aborted";
    }
    return out;
}

}  // namespace foundation::storage::provider
