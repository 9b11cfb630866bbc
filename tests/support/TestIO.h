#pragma once

// Helpers the test programs share: test bytes, whole-file writes and reads through a provider, the
// entries of a listing, and the code and location of the Exception an action throws.

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "fl/i18n/convert.h"
#include "storage/provider/ByteStream.h"
#include "storage/provider/Exception.h"
#include "storage/provider/IProvider.h"

namespace foundation::storage::provider::testsupport {

// Writes all of `bytes` to `stream`; a write that takes nothing is a test failure.
inline void writeAll(ByteStream& stream, const std::string& bytes) {
    for (std::size_t done = 0; done < bytes.size();) {
        const long n = stream.write(bytes.data() + done, static_cast<long>(bytes.size() - done));
        if (n <= 0) {
            ADD_FAILURE() << "a write took nothing";
            return;
        }
        done += static_cast<std::size_t>(n);
    }
}

// Creates or replaces the file `location` with `bytes` (its folders are created first).
inline void put(const IProvider& provider, const StorageIRI& location, const std::string& bytes) {
    if (location.hasParent() && !provider.folderExists(location.getParent())) {
        provider.createFolderRecursive(location.getParent());
    }
    auto stream = provider.openStream(location, {ByteStreamAccess::ReadWrite, ByteStreamCreate::Create,
                                                 ByteStreamTruncate::TruncateExisting, ByteStreamAppend::Overwrite});
    writeAll(*stream, bytes);
    stream->close();
}

// `size` bytes that differ from one seed to the next and repeat only every 251 bytes, so a
// misplaced chunk shows.
inline std::string pattern(std::size_t size, char seed = 'a') {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(seed + static_cast<char>(i % 251));
    return bytes;
}

// Reads a stream to its end, which a read reports as -1; a read of nothing before that fails.
inline std::string readAll(ByteStream& stream) {
    std::string content;
    char buffer[8192];
    for (long n; (n = stream.read(buffer, sizeof buffer)) != -1;) {
        if (n <= 0) {
            ADD_FAILURE() << "a read returned " << n << " before the end";
            break;
        }
        content.append(buffer, static_cast<std::size_t>(n));
    }
    return content;
}

// Reads a whole file through openReadOnlyStream.
inline std::string readAll(const IProvider& provider, const StorageIRI& location) {
    auto stream = provider.openReadOnlyStream(location);
    std::string content = readAll(*stream);
    stream->close();
    return content;
}

// The entries of a listing in its order: name, then "/" for a folder.
inline std::vector<std::string> namesOf(std::unique_ptr<IFolderEntryIterator> listing) {
    std::vector<std::string> names;
    while (listing->hasNext()) {
        listing->next();
        const FolderEntry entry = listing->get();
        names.push_back(fl::i18n::to_string(entry.getName()) + (entry.isFile() ? "" : "/"));
    }
    return names;
}

// The same entries as a set, for listings whose order is the provider's business.
inline std::set<std::string> entrySet(std::unique_ptr<IFolderEntryIterator> listing) {
    const std::vector<std::string> names = namesOf(std::move(listing));
    return {names.begin(), names.end()};
}

// The code and location of the Exception `action` throws; a test failure when it throws none.
struct Failure {
    ErrorCode code = ErrorCode::Unknown;
    std::optional<StorageIRI> location;
    ustring reason;  // the contexts, top first
};
inline Failure failureOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const Exception& e) {
        return {e.getErrorCode(), e.getStorageIRI(), e.getExceptionContextsString()};
    }
    ADD_FAILURE() << "nothing was thrown";
    return {};
}
inline ErrorCode errorOf(const std::function<void()>& action) { return failureOf(action).code; }

// Checks that `action` throws Exception with `code` at `location`.
inline void expectError(ErrorCode code, const StorageIRI& location, const std::function<void()>& action) {
    const Failure failure = failureOf(action);
    EXPECT_EQ(failure.code, code) << location;
    EXPECT_EQ(failure.location, std::optional<StorageIRI>(location)) << "for " << code;
}

}  // namespace foundation::storage::provider::testsupport
