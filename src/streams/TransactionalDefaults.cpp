// IProvider's transactional-stream defaults: write to a hidden scratch file beside the
// target, commit by moving it over the target, abort by removing it.

#include <string>
#include <string_view>

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid.hpp>
#include <boost/uuid/uuid_io.hpp>

#include "storage/provider/IProvider.h"
#include "storage/provider/TransactionalStream.h"

namespace foundation::storage::provider {

namespace {

constexpr std::size_t kUuidLength = 36;
constexpr std::string_view kScratchSuffix = ".tmp.bak";

template <typename Char>
bool hasScratchForm(std::basic_string_view<Char> name) {
    if (name.size() != 1 + kUuidLength + kScratchSuffix.size() || name.front() != Char('.')) {
        return false;
    }
    for (std::size_t i = 0; i < kUuidLength; ++i) {
        const Char c = name[1 + i];
        const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        const bool hex = (c >= Char('0') && c <= Char('9')) || (c >= Char('a') && c <= Char('f'));
        if (dash ? c != Char('-') : !hex) {
            return false;
        }
    }
    for (std::size_t i = 0; i < kScratchSuffix.size(); ++i) {
        if (name[1 + kUuidLength + i] != Char(kScratchSuffix[i])) {
            return false;
        }
    }
    return true;
}

}  // namespace

ustring makeScratchName() {
    // The generator is not thread-safe; one per thread keeps concurrent opens lock-free.
    thread_local boost::uuids::random_generator generator;
    const std::string uuid = boost::uuids::to_string(generator());
    ustring name = u".";
    name.append(uuid.begin(), uuid.end());  // ASCII only
    name.append(kScratchSuffix.begin(), kScratchSuffix.end());
    return name;
}

bool isScratchName(std::u16string_view name) { return hasScratchForm(name); }
bool isScratchName(std::string_view name) { return hasScratchForm(name); }

std::unique_ptr<TransactionalStream> IProvider::openTransactionalStream(const StorageIRI& location,
                                                                        const ByteStreamOpenOptions& options) const {
    return doOpenTransactionalStream(location, options);
}

std::unique_ptr<TransactionalStream> IProvider::doOpenTransactionalStream(const StorageIRI& location,
                                                                          const ByteStreamOpenOptions& options) const {
    // Same folder as the target, so that the commit is a move within one folder.
    const StorageIRI scratch(location.getParent(), makeScratchName());
    return doOpenTransactionalStreamAtScratchLocation(location, scratch, options);
}

std::unique_ptr<TransactionalStream> IProvider::doOpenTransactionalStreamAtScratchLocation(
    const StorageIRI& location, const StorageIRI& scratch, const ByteStreamOpenOptions& options) const {
    std::unique_ptr<ByteStream> opened = doOpenStream(scratch, options);
    std::unique_ptr<ByteStream> stream = SafeByteStream::open(opened, options);
    // The provider is held by reference: it must outlive the stream.
    auto onClose = [scratch, provider = this, location](const StreamClosePolicy& policy) {
        if (policy == StreamClosePolicy::Commit) {
            provider->doMoveFile(scratch, location, ReplacementPolicy::Overwrite);
        } else {
            provider->doRemoveFile(scratch);
        }
    };
    return std::make_unique<GenericTransactionalStream<ByteStream>>(stream, onClose, location);
}

}  // namespace foundation::storage::provider
