#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "addressing/detail/FormSupport.h"
#include "storage/provider/detail/StorageIRIImpl.h"

namespace foundation::storage::provider::detail {

// An IRI with an authority, possibly empty: 'file:///home/a.txt', 'mem://store/a'. Built
// from a parsed IRI (kept as is), from its components, or by withPath from another one.
//
// Locations come by the hundred thousand (a polled folder's snapshot holds one per entry)
// and most of them are only ordered and compared, so the object holds just its ASCII text,
// one byte per character, which is what equality, ordering and hashing need. Everything
// else (the parsed IRI, its components, the texts as UTF-16, path, parent, root) lives in a
// block made on first use, each value made on first use in turn; the IRI is parsed again
// from the text when none was kept.
class HierarchicalImpl final : public StorageIRIImpl {
    struct AsciiText {};

public:
    explicit HierarchicalImpl(foundation::network::IRI&& iri);
    explicit HierarchicalImpl(foundation::network::IRIArgs&& args);
    // `text` is the ASCII text of an IRI with an authority, as IRI::asciiView() gives it.
    HierarchicalImpl(AsciiText, std::string&& text);
    ~HierarchicalImpl() override;

    // toAsciiString() without making the UTF-16 copy; valid while this object lives.
    std::string_view asciiView() const;

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
    struct Derived;

    const Derived& derived() const;
    const foundation::network::IRI& iri() const;
    const std::pair<ustring, ustring>& parentAndName() const;
    std::shared_ptr<StorageIRIImpl> withPathImpl(const ustring& path) const;

    // Empty when the object was built from an IRI: then the block holds it from the start
    // and its text is the one used.
    std::string text_;
    LazyBox<Derived> derived_;
};

}  // namespace foundation::storage::provider::detail
