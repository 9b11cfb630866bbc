#pragma once

#include <memory>

#include "addressing/detail/FormSupport.h"
#include "storage/provider/detail/StorageIRIImpl.h"

namespace foundation::storage::provider::detail {

// A file-system path under a scheme. Its text is 'scheme://' and the generic path escaped
// as an IRI path: 'file:///home/a%20b', which compares equal to the same location parsed
// from that text. Two path forms compare and order by their paths as the file system does.
class UPathIRIImpl final : public StorageIRIImpl {
public:
    UPathIRIImpl(ustring scheme, fl::filesystem::basic_path path);

    bool equals(const StorageIRIImpl& other) const override;
    bool less(const StorageIRIImpl& other) const override;
    ustring getScheme() const override;
    const std::shared_ptr<StorageIRIImpl>& getParent() const override;
    bool hasParent() const override;
    StorageIRI getRoot() const override;
    bool hasPath() const override;
    const ustring& getPath() const override;
    const ustring& getName() const override;
    const ustring& toString() const override;
    const ustring& toAsciiString() const override;
    ustring getHost() const override;
    bool hasHost() const override;
    bool isOpaque() const override;
    foundation::network::IRI toIRI() const override;
    bool hasInnerIRI() const override;
    StorageIRI getInnerIRI() const override;
    fl::filesystem::basic_path toUPath() const override;
    StorageIRI withPath(const ustring& path) const override;

private:
    ustring makeAsciiText() const;
    ustring makeText() const;

    ustring scheme_;
    fl::filesystem::basic_path fsPath_;
    // toString() keeps non-ASCII characters and toAsciiString() escapes their UTF-8, as for
    // the other forms, so the path form holds both texts: otherwise it could not equal (nor
    // hash as) the same location parsed from text.
    Lazy<ustring> text_{[this] { return makeText(); }};
    Lazy<ustring> asciiText_{[this] { return makeAsciiText(); }};
    ustring name_;
    ustring path_;
    Lazy<std::shared_ptr<StorageIRIImpl>> parent_{[this] {
        return std::make_shared<UPathIRIImpl>(scheme_, fl::filesystem::basic_path(parentPathOf(splitParentAndName(path_))));
    }};
};

}  // namespace foundation::storage::provider::detail
