#pragma once

#include <memory>
#include <utility>

#include "addressing/detail/FormSupport.h"
#include "storage/provider/detail/StorageIRIImpl.h"

namespace foundation::storage::provider::detail {

// An IRI with an authority, possibly empty: 'file:///home/a.txt', 'mem://store/a'. Built
// from a parsed IRI (kept as is) or from its components (the IRI is composed on first use,
// which is how parents and withPath results stay cheap until printed).
class HierarchicalImpl final : public StorageIRIImpl {
public:
    explicit HierarchicalImpl(foundation::network::IRI&& iri);
    explicit HierarchicalImpl(foundation::network::IRIArgs&& args);

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
    std::shared_ptr<StorageIRIImpl> withPathImpl(const ustring& path) const;
    std::shared_ptr<StorageIRIImpl> makeParent() const;

    // One of the two is given; the other is derived from it.
    Lazy<foundation::network::IRI> iri_;
    Lazy<foundation::network::IRIArgs> args_;
    Lazy<ustring> string_{[this] { return iri_.get().toString(); }};
    Lazy<ustring> asciiString_{[this] { return iri_.get().toAsciiString(); }};
    Lazy<ustring> path_{[this] { return iri_.get().getPath(foundation::network::Encoding::Decoded); }};
    Lazy<std::shared_ptr<StorageIRIImpl>> parent_{[this] { return makeParent(); }};
    Lazy<std::shared_ptr<StorageIRIImpl>> root_{[this] { return withPathImpl(u"/"); }};
    Lazy<std::pair<ustring, ustring>> parentAndName_{[this] { return splitParentAndName(getPath()); }};
};

}  // namespace foundation::storage::provider::detail
