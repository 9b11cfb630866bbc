#pragma once

#include <memory>
#include <optional>
#include <string_view>
#include <utility>

#include "addressing/detail/FormSupport.h"
#include "addressing/detail/InlineText.h"
#include "storage/provider/detail/StorageIRIImpl.h"

namespace foundation::storage::provider::detail {

// A location inside a container file: 'containerScheme:innerIRI!/path/in/container'. The
// last '!' separates the inner IRI (the container file's location, itself possibly a
// container location) from the path, so a '!' inside the path is written '%21'.
//
// Like the hierarchical form, one block holds the object and its ASCII text; the inner
// location, path, parsed IRI and UTF-16 texts are made on first use where the text alone
// gives them.
class ContainerImpl final : public StorageIRIImpl, public WithInlineText {
public:
    // What a container location is made from. `text` is its ASCII text and `bang` the index
    // of the '!' that begins the path section; the rest, when absent, is derived from the
    // text on first use (then the inner location must be in one of the common forms).
    struct Parts {
        std::string_view text;
        std::size_t bang = 0;
        std::size_t levels = 1;
        std::shared_ptr<StorageIRIImpl> inner;
        std::optional<ustring> path;
        std::optional<foundation::network::IRI> iri;  // when given, its text is `text`
    };

    // Parses `iri`. Throws ParseFailure when it is relative, has no '!', has a path that
    // does not start with '/', an inner IRI without a path, or nests deeper than
    // kMaxContainerNesting.
    static Parts parse(foundation::network::IRI&& iri);
    // `path` is decoded and kept as given; the text is built already encoded, so it parses
    // back to the same inner location and path. Throws ParseFailure for an empty scheme, an
    // inner location without a path, a non-empty path that does not start with '/', or
    // nesting deeper than kMaxContainerNesting.
    static Parts compose(const ustring& containerScheme, std::shared_ptr<StorageIRIImpl> inner, ustring path);

    static std::shared_ptr<ContainerImpl> make(Parts&& parts);
    static std::unique_ptr<ContainerImpl> makeUnique(Parts&& parts);

    struct Key {};
    ContainerImpl(Key, Parts&& parts);
    ~ContainerImpl() override;

    std::string_view asciiView() const noexcept { return inlineAscii(); }

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

    // The levels of containers this location is in: 1 for 'zip:file:///a.zip!/b'.
    std::size_t levels() const noexcept { return levels_; }

private:
    const std::shared_ptr<StorageIRIImpl>& inner() const;
    const foundation::network::IRI& iri() const;
    std::shared_ptr<StorageIRIImpl> makeParent() const;

    LazyBox<std::shared_ptr<StorageIRIImpl>> inner_;
    LazyBox<ustring> path_;
    LazyBox<foundation::network::IRI> iri_;
    LazyBox<ustring> string_;
    LazyBox<ustring> asciiString_;
    LazyBox<std::shared_ptr<StorageIRIImpl>> parent_;
    LazyBox<std::pair<ustring, ustring>> parentAndName_;
    std::uint32_t bang_;
    std::uint8_t levels_;
};

}  // namespace foundation::storage::provider::detail
