#pragma once

#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "addressing/detail/FormSupport.h"
#include "addressing/detail/InlineText.h"
#include "storage/provider/detail/StorageIRIImpl.h"

namespace foundation::storage::provider::detail {

// An IRI with an authority, possibly empty: 'file:///home/a.txt', 'mem://store/a'. Built
// from a parsed IRI, from text already known to be such an IRI's ASCII text, or by withPath
// from another one.
//
// Locations come by the hundred thousand (a polled folder's snapshot holds one per entry)
// and most of them are only ordered and compared, so the object is one block: reference
// counts, this object and its ASCII text right after it, one byte per character, which is
// what equality, ordering and hashing need. Everything else (the parsed IRI, the texts as
// UTF-16, path, parent, root) lives in a block made on first use, each value made on first
// use in turn; the IRI is parsed again from the text when none was kept, and only when a
// value needs more than the text (a decoded escape, the host).
class HierarchicalImpl final : public StorageIRIImpl, public WithInlineText {
    struct Key {};

public:
    // `ascii` is the ASCII text of an IRI with an authority, as IRI::asciiView() gives it.
    static std::shared_ptr<HierarchicalImpl> fromText(std::string_view ascii);
    // The same from UTF-16 code units that are all ASCII.
    static std::shared_ptr<HierarchicalImpl> fromText(std::u16string_view ascii);
    // `iri` has an authority.
    static std::shared_ptr<HierarchicalImpl> fromIRI(foundation::network::IRI&& iri);
    static std::unique_ptr<HierarchicalImpl> uniqueFromIRI(foundation::network::IRI&& iri);

    // Writes the text of `size` bytes to `out`.
    struct TextWriter {
        void (*write)(const void* context, char* out);
        const void* context;
    };
    HierarchicalImpl(Key, std::size_t size, TextWriter writer);
    HierarchicalImpl(Key, foundation::network::IRI&& iri);
    ~HierarchicalImpl() override;

    // toAsciiString() without making the UTF-16 copy; valid while this object lives.
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

    // The derived values, made on first use.
    const Extras& derivedExtras() const;

    // withPath without the StorageIRI around it.
    std::shared_ptr<StorageIRIImpl> withPathImpl(std::u16string_view path) const;
    // withPath(path) where path is the concatenation of the pieces (split where no surrogate
    // pair is), after this location's own path when `afterOwnPath`.
    std::shared_ptr<StorageIRIImpl> withPathImpl(std::initializer_list<std::u16string_view> pieces,
                                                 bool afterOwnPath = false) const;

private:
    struct Derived;

    const Derived& derived() const;
    const foundation::network::IRI& iri() const;
    const std::pair<ustring, ustring>& parentAndName() const;
    std::string_view authority() const noexcept;
};

// Writes `path` (decoded) to `out` as the path of URI text and returns the end of what it
// wrote, or (with a null `out`) only the size it takes: the characters a path allows as they
// are, every other ASCII character ('%', '?', '#', '[', ']', ...) and every non-ASCII
// character (as UTF-8, an unpaired surrogate as U+FFFD) percent-encoded with upper-case hex
// digits. The same text as IRI(IRIArgs) makes of encodePath(path).
std::size_t encodedPathSize(std::u16string_view path) noexcept;
char* writeEncodedPath(char* out, std::u16string_view path) noexcept;

}  // namespace foundation::storage::provider::detail
