#pragma once

#include <memory>

#include "storage/provider/ByteStream.h"
#include "storage/provider/Exception.h"
#include "storage/provider/Extensions.h"
#include "storage/provider/IProvider.h"

namespace foundation::storage::provider::testsupport {

// A provider whose every primitive throws UnsupportedOperation (listings do by default): a
// base for test providers that need only a few operations. `Base` is IProvider or an interface derived from it.
template <class Base = IProvider>
class BasicStubProvider : public Base {
protected:
    [[noreturn]] static void unsupported(const StorageIRI& location) {
        throw Exception(ErrorCode::UnsupportedOperation, location);
    }

    void doCreateFile(const StorageIRI& location) const override { unsupported(location); }
    void doCreateFolder(const StorageIRI& location) const override { unsupported(location); }
    bool doFileExists(const StorageIRI& location) const override { unsupported(location); }
    bool doFolderExists(const StorageIRI& location) const override { unsupported(location); }
    void doRemoveFile(const StorageIRI& location) const override { unsupported(location); }
    void doMoveFile(const StorageIRI& from, const StorageIRI&, const ReplacementPolicy&) const override {
        unsupported(from);
    }
    void doRemoveFolder(const StorageIRI& location) const override { unsupported(location); }
    void doMoveFolder(const StorageIRI& from, const StorageIRI&, const ReplacementPolicy&) const override {
        unsupported(from);
    }
    FileAttributes doGetFileAttributes(const StorageIRI& location) const override { unsupported(location); }
    FolderAttributes doGetFolderAttributes(const StorageIRI& location) const override { unsupported(location); }
    std::unique_ptr<ByteStream> doOpenStream(const StorageIRI& location, const ByteStreamOpenOptions&) const override {
        unsupported(location);
    }
    std::unique_ptr<ByteStream> doOpenReadOnlyStream(const StorageIRI& location) const override {
        unsupported(location);
    }
};

using StubProvider = BasicStubProvider<>;

}  // namespace foundation::storage::provider::testsupport
