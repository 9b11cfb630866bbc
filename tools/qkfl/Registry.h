#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "storage/provider/StorageIRI.h"
#include "storage/provider/StorageItem.h"
#include "storage/provider/local/LocalProvider.h"
#include "storage/provider/memory/MemoryProvider.h"
#ifdef QKFL_TOOL_WITH_ZIP
#include "storage/provider/zip/ZipProvider.h"
#endif
#ifdef QKFL_TOOL_WITH_DAV
#include "storage/provider/dav/DavProvider.h"
#endif

namespace qkfl {

namespace sp = foundation::storage::provider;

// A location argument that is neither an IRI nor a path the tool can use.
struct BadLocation {
    std::string text;
    std::string reason;
};

// The location named by a command-line argument: an IRI when the text starts with a scheme a
// provider here serves ('file:///a', 'mem:///a', 'zip:file:///a.zip!/b') or parses as an IRI
// ('http://x/', refused later for want of a provider); otherwise a local path, absolute or
// relative to the working folder ('a:b', 'r#2'), taken literally and turned into a 'file'
// location with toStorageIRI after removing '.' and '..' lexically. Throws BadLocation for
// text that does not parse.
sp::StorageIRI parseLocation(std::string_view text);
// Whether parseLocation takes `text` as a local path.
bool isLocalPath(std::string_view text);

// Maps schemes to providers: 'file' to the local provider (through its factory), 'mem' to one
// memory store shared by the whole process, 'zip' (at any depth of nesting) to the zip
// provider of the container, built through its factory from the container's own item; 'dav'
// and 'davs' to one WebDAV provider per server, with credentials from ~/.netrc.
// Providers live while some item holds them, so items made while another is alive share its
// provider.
class ProviderRegistry {
public:
    // `insecure`: accept any TLS certificate of a 'davs' server (verified by default).
    explicit ProviderRegistry(bool insecure = false);

    // Whether a provider here serves `scheme` (a container scheme at any depth).
    static bool serves(std::string_view scheme);

    // The item for `location`. Throws Exception(InvalidLocation) with a context naming the
    // scheme when no provider serves it.
    sp::StorageItem itemFor(const sp::StorageIRI& location) const;
    sp::StorageItem itemFor(std::string_view argument) const { return itemFor(parseLocation(argument)); }

private:
    std::shared_ptr<sp::IProvider> physicalProvider(const sp::StorageIRI& location) const;

    sp::local::LocalProviderFactory local_;
    std::shared_ptr<sp::memory::MemoryProvider> memory_;
#ifdef QKFL_TOOL_WITH_ZIP
    sp::zip::ZipProviderFactory zip_;
#endif
#ifdef QKFL_TOOL_WITH_DAV
    sp::dav::DavProviderFactory dav_;
#endif
};

}  // namespace qkfl
