// ls, stat, cat, cp, mv, rm, mkdir and truncate.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <limits>
#include <vector>

#include <fmt/format.h>

#include "Commands.h"
#include "Listing.h"
#include "Progress.h"
#include "Text.h"
#include "storage/provider/Exception.h"
#include "storage/provider/FolderEntryIterator.h"
#include "storage/provider/StorageItem.h"

namespace qkfl {

namespace {

using sp::ErrorCode;
using sp::ExistenceType;
using sp::FolderEntry;
using sp::StorageItem;

[[noreturn]] void fail(ErrorCode code, const StorageItem& item, const std::u16string& context = {}) {
    sp::Exception e(code, item.getLocation());
    if (!context.empty()) sp::addExceptionContext(e, context);
    throw e;
}

ExistenceType existence(const StorageItem& item) { return item.getProvider()->exists(item.getLocation()); }

// As ls: the type ('l' symbolic link, 'd' folder, '-' file), then 'w' when writable and 'h'
// when hidden, '-' otherwise.
template <class Attributes>
std::string flags(char type, const Attributes& a) {
    return fmt::format("{}{}{}", a.isSymlink() ? 'l' : type, a.isWritable() ? 'w' : '-', a.isHidden() ? 'h' : '-');
}

// "writable hidden symlink", the flags that are set, or "-".
template <class Attributes>
std::string flagWords(const Attributes& a) {
    std::string words;
    if (a.isWritable()) words += "writable ";
    if (a.isHidden()) words += "hidden ";
    if (a.isSymlink()) words += "symlink ";
    if (words.empty()) return "-";
    words.pop_back();
    return words;
}

std::string longLine(const FolderEntry& entry, const std::string& name) {
    if (const auto& file = entry.getFileAttributes()) {
        const std::string size = file->hasSizeAttribute() ? std::to_string(file->getSize()) : "?";
        return fmt::format("{} {:>12} {} {}", flags('-', *file), size, formatTime(file->getLastModified()), name);
    }
    if (const auto& folder = entry.getFolderAttributes()) {
        return fmt::format("{} {:>12} {} {}/", flags('d', *folder), "-", formatTime(folder->getLastModified()), name);
    }
    return fmt::format("{} {:>12} {:19} {}{}", entry.isFile() ? "-??" : "d??", "?", "?", name, entry.isFile() ? "" : "/");
}

// Target of a copy or move: into `target` when it is an existing folder, as cp and mv do.
StorageItem destination(const StorageItem& source, const StorageItem& target) {
    if (target.folderExists()) return StorageItem(target, source.getName());
    return target;
}

// cp and mv refuse a target that is their source (a copy would truncate what it reads) or,
// for a folder, lies inside it.
void refuseOwnTarget(const StorageItem& source, const StorageItem& target, bool folder) {
    if (!source.hasSameProviderInstance(target)) return;
    const sp::StorageIRI from = source.getCanonicalLocation();
    const sp::StorageIRI to = target.getCanonicalLocation();
    if (from == to) fail(ErrorCode::InvalidLocation, target, u"is the source itself");
    if (folder && from.isAncestorOf(to)) fail(ErrorCode::InvalidLocation, target, u"is inside the source folder");
}

bool stderrIsTerminal() { return ::isatty(STDERR_FILENO) == 1; }

// Copies one file; prints the interruption and returns kExitInterrupted when stopped.
int copyOne(const StorageItem& source, const StorageItem& target, const CopyOptions& options, const char* command) {
    const sp::FileAttributes attributes = source.getFileAttributes();
    CopyMonitor monitor(attributes.hasSizeAttribute() ? attributes.getSize() : 0, stderrIsTerminal(),
                        options.bytesPerSecond);
    sp::CopyFileOptions copy;
    copy.replacementPolicy = options.policy;
    // A new file within one provider goes through the provider's own atomic copy: the local
    // disk's gives it the source's permission bits less the umask, as cp does, where the
    // streamed copy that an interruptible plain copy takes would create it with default bits.
    // Interrupted, it leaves no partial file, which is still "as it was".
    const bool atomic = options.atomic || (source.getProvider() == target.getProvider() &&
                                           source.hasFeature(sp::ExtendedFeature::NativeAtomicCopy) &&
                                           !target.fileExists());
    copy.transactionPolicy = atomic ? sp::TransactionPolicy::Atomic : sp::TransactionPolicy::NonAtomic;
    copy.interruptCallback = [&monitor] { return monitor.next(); };
    const sp::TransactionStatus status = source.copyFile(target, copy);
    monitor.finish();
    if (status == sp::TransactionStatus::Aborted) {
        fmt::print(stderr, "qkfl: {}: {}: interrupted, {}\n", command, text(target.getLocation()),
                   atomic ? "the target is as it was" : "the target holds what was copied so far");
        return kExitInterrupted;
    }
    return kExitOk;
}

}  // namespace

int runLs(const ProviderRegistry& registry, const LsOptions& o) {
    const StorageItem item = registry.itemFor(o.location);
    std::vector<FolderEntry> entries;
    switch (existence(item)) {
        case ExistenceType::AsFile:
            entries.emplace_back(item.getName(), item.getFileAttributes());
            break;
        case ExistenceType::AsFolder:
            entries = listFolder(item, o);
            break;
        default:
            fail(ErrorCode::ResourceNotFound, item);
    }
    // Names in the form of the argument, so that each pastes back after it.
    const bool literal = isLocalPath(o.location);
    for (const FolderEntry& entry : entries) {
        const std::string name = literal ? utf8(entry.getName()) : iriPath(entry.getName());
        if (o.longFormat) {
            fmt::print("{}\n", longLine(entry, name));
        } else {
            fmt::print("{}{}\n", name, entry.isFile() ? "" : "/");
        }
    }
    return kExitOk;
}

int runStat(const ProviderRegistry& registry, const std::string& location) {
    const StorageItem item = registry.itemFor(location);
    const sp::IProvider& provider = *item.getProvider();
    const ExistenceType kind = provider.exists(item.getLocation());
    const sp::ExistenceTypeExtended extended = provider.existsExtended(item.getLocation());
    if (kind == ExistenceType::AsNeither && extended == sp::ExistenceTypeExtended::None) {
        fail(ErrorCode::ResourceNotFound, item);
    }
    auto line = [](const char* label, const std::string& value) { fmt::print("{:<10} {}\n", label, value); };
    line("location:", text(item.getLocation()));
    line("exists:", fmt::format("{} ({})", existenceName(kind), existenceName(extended)));
    if (kind == ExistenceType::AsFolder) {
        const sp::FolderAttributes a = item.getFolderAttributes();
        line("modified:", formatTime(a.getLastModified(), true));
        line("flags:", flagWords(a));
    } else {
        const sp::FileAttributes a = item.getFileAttributes();
        line("size:", a.hasSizeAttribute() ? fmt::format("{} ({})", a.getSize(), formatBytes(a.getSize())) : "-");
        line("modified:", formatTime(a.getLastModified(), true));
        line("flags:", flagWords(a));
    }
    try {
        const sp::ProviderStorageInfo info = item.getProviderStorageInfo();
        const bool unbounded = info.getStorageCapacity() == std::numeric_limits<unsigned long>::max();
        line("storage:", fmt::format("{} used of {}", formatBytes(info.getSpaceOccupied()),
                                     unbounded ? std::string("no set limit") : formatBytes(info.getStorageCapacity())));
    } catch (const sp::Exception& e) {
        if (e.getErrorCode() != ErrorCode::UnsupportedOperation) throw;
        line("storage:", "not reported by this provider");
    }
    std::string features;
    if (item.hasFeature(sp::ExtendedFeature::RecursiveFolderRemoval)) features += "RecursiveFolderRemoval ";
    if (item.hasFeature(sp::ExtendedFeature::NativeAtomicCopy)) features += "NativeAtomicCopy ";
    if (!features.empty()) features.pop_back();
    line("features:", features.empty() ? "-" : features);
    const sp::FilenameSensitivity sensitivity = item.getFilenameSensitivity();
    line("names:", fmt::format("case {}, case {}", sensitivity.caseSensitive ? "sensitive" : "insensitive",
                               sensitivity.casePreserving ? "preserving" : "folding"));
    return kExitOk;
}

int runCat(const ProviderRegistry& registry, const std::string& location) {
    const StorageItem item = registry.itemFor(location);
    if (item.folderExists()) fail(ErrorCode::InvalidLocation, item, u"is a folder");
    const std::unique_ptr<sp::ByteStream> stream = item.openReadOnlyStream();
    std::vector<char> buffer(std::size_t(1) << 16);
    for (;;) {
        const long n = stream->read(buffer.data(), static_cast<long>(buffer.size()));
        if (n <= 0) break;
        if (std::fwrite(buffer.data(), 1, static_cast<std::size_t>(n), stdout) != static_cast<std::size_t>(n)) break;
    }
    stream->close();
    std::fflush(stdout);
    return kExitOk;
}

int runCp(const ProviderRegistry& registry, const CopyOptions& options) {
    installInterruptHandler();
    const StorageItem source = registry.itemFor(options.source);
    const StorageItem target = destination(source, registry.itemFor(options.target));
    if (source.folderExists()) fail(ErrorCode::InvalidLocation, source, u"is a folder: cp copies files");
    refuseOwnTarget(source, target, false);
    return copyOne(source, target, options, "cp");
}

int runMv(const ProviderRegistry& registry, const CopyOptions& options) {
    installInterruptHandler();
    const StorageItem source = registry.itemFor(options.source);
    const StorageItem target = destination(source, registry.itemFor(options.target));
    const ExistenceType kind = existence(source);
    refuseOwnTarget(source, target, kind == ExistenceType::AsFolder);
    switch (kind) {
        case ExistenceType::AsFile:
            if (source.hasSameProviderInstance(target)) {
                source.moveFile(target.getLocation(), options.policy);
                return kExitOk;
            }
            // Between providers: an atomic copy, and the source goes only once it is complete.
            {
                CopyOptions copy = options;
                copy.atomic = true;
                const int status = copyOne(source, target, copy, "mv");
                if (status != kExitOk) return status;
            }
            source.removeFile();
            return kExitOk;
        case ExistenceType::AsFolder:
            if (!source.hasSameProviderInstance(target)) {
                fail(ErrorCode::UnsupportedOperation, source, u"a folder moves only within one provider");
            }
            source.moveFolder(target.getLocation(), options.policy);
            return kExitOk;
        default:
            fail(ErrorCode::ResourceNotFound, source);
    }
}

int runRm(const ProviderRegistry& registry, bool recursive, const std::string& location) {
    const StorageItem item = registry.itemFor(location);
    switch (existence(item)) {
        case ExistenceType::AsFile:
            item.removeFile();
            break;
        case ExistenceType::AsFolder:
            if (recursive) {
                item.removeFolderRecursively();
            } else {
                item.removeFolder();
            }
            break;
        default:
            // A dangling symbolic link is neither a file nor a folder, yet it can be removed.
            if (item.getProvider()->existsExtended(item.getLocation()) != sp::ExistenceTypeExtended::BrokenSymlink) {
                fail(ErrorCode::ResourceNotFound, item);
            }
            item.removeFile();
    }
    return kExitOk;
}

int runMkdir(const ProviderRegistry& registry, bool parents, const std::string& location) {
    const StorageItem item = registry.itemFor(location);
    if (!parents) {
        item.createFolder();
    } else if (!item.folderExists()) {
        item.createFolderRecursive();
    }
    return kExitOk;
}

int runTruncate(const ProviderRegistry& registry, const SizeChange& size, bool create, const std::string& location) {
    const StorageItem item = registry.itemFor(location);
    const ExistenceType kind = existence(item);
    if (kind == ExistenceType::AsFolder) fail(ErrorCode::InvalidLocation, item, u"is a folder");
    if (kind != ExistenceType::AsFile && !create) fail(ErrorCode::ResourceNotFound, item);
    const std::uint64_t current =
        kind == ExistenceType::AsFile && size.prefix != 0 ? item.getFileAttributes().getSize() : 0;
    const auto wanted = size.applyTo(current);
    if (!wanted) fail(ErrorCode::FileTooLarge, item, u"the new size does not fit in 64 bits");
    if (kind != ExistenceType::AsFile) item.createFile();
    item.truncateToSize(*wanted);
    return kExitOk;
}

}  // namespace qkfl
