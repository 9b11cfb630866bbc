#pragma once

#include <memory>
#include <utility>

#include "addressing/detail/FormSupport.h"
#include "storage/provider/detail/StorageIRIImpl.h"

namespace foundation::storage::provider::detail {

// A location inside a container file: 'containerScheme:innerIRI!/path/in/container'. The
// last '!' separates the inner IRI (the container file's location, itself possibly a
// container location) from the path, so a '!' inside the path is written '%21'.
class ContainerImpl final : public StorageIRIImpl {
public:
    // Throws ParseFailure when `iri` is relative, has no '!', has a path that does not start
    // with '/' or an inner IRI without a path.
    explicit ContainerImpl(foundation::network::IRI&& iri);
    // `path` is decoded and kept as given; the text is built already encoded, so it parses
    // back to the same inner location and path. Throws ParseFailure for an empty scheme, an
    // inner location without a path, or a non-empty path that does not start with '/'.
    ContainerImpl(const ustring& containerScheme, std::shared_ptr<StorageIRIImpl> inner, ustring path);

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
    struct Parts {
        std::shared_ptr<StorageIRIImpl> inner;
        ustring path;
        foundation::network::IRI iri;
    };
    explicit ContainerImpl(Parts&& parts);
    static Parts parse(foundation::network::IRI&& iri);
    static Parts compose(const ustring& containerScheme, std::shared_ptr<StorageIRIImpl> inner, ustring path);
    std::shared_ptr<StorageIRIImpl> makeParent() const;

    std::shared_ptr<StorageIRIImpl> innerIRI_;
    ustring path_;
    foundation::network::IRI iri_;
    Lazy<ustring> string_{[this] { return iri_.toString(); }};
    Lazy<ustring> asciiString_{[this] { return iri_.toAsciiString(); }};
    Lazy<std::shared_ptr<StorageIRIImpl>> parent_{[this] { return makeParent(); }};
    Lazy<std::pair<ustring, ustring>> parentAndName_{[this] { return splitParentAndName(path_); }};
};

}  // namespace foundation::storage::provider::detail
