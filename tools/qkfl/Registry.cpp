#include "Registry.h"

#include <cctype>
#include <cstdlib>
#include <filesystem>

#include "Text.h"
#include "storage/provider/Exception.h"
#include "storage/provider/PathConversions.h"

namespace qkfl {

namespace {

// 'scheme:' before any '/': RFC 3987's scheme characters.
bool startsWithScheme(std::string_view text) {
    if (text.empty() || std::isalpha(static_cast<unsigned char>(text[0])) == 0) return false;
    for (const char c : text.substr(1)) {
        if (c == ':') return true;
        if (std::isalnum(static_cast<unsigned char>(c)) == 0 && c != '+' && c != '-' && c != '.') return false;
    }
    return false;
}

[[noreturn]] void noProvider(const sp::StorageIRI& location) {
    throw sp::addExceptionContext(sp::Exception(sp::ErrorCode::InvalidLocation, location),
                                  u"no provider for the scheme '" + location.getScheme() + u"'");
}

}  // namespace

bool isLocalPath(std::string_view text) {
    if (!startsWithScheme(text)) return true;
    const std::string scheme(text.substr(0, text.find(':')));
    if (ProviderRegistry::serves(scheme)) return false;
    // Text with a scheme no provider serves is a local path unless it parses as an IRI, so that
    // 'a:b' names a file while 'http://x/' is reported as a scheme without a provider.
    try {
        sp::StorageIRI{utf16(text)};
        return false;
    } catch (const std::exception&) {
        return true;
    }
}

sp::StorageIRI parseLocation(std::string_view text) {
    if (text.empty()) throw BadLocation{std::string(text), "an empty location"};
    if (!isLocalPath(text)) {
        try {
            return sp::StorageIRI(utf16(text));
        } catch (const std::exception& e) {
            throw BadLocation{std::string(text), std::string("cannot parse it as an IRI: ") + e.what()};
        }
    }
    try {
        std::filesystem::path path{std::string(text)};
        if (path.is_relative()) path = std::filesystem::current_path() / path;
        std::string normal = path.lexically_normal().string();
        if (normal.size() > 1 && normal.back() == '/') normal.pop_back();
        return sp::toStorageIRI(u"file", fl::filesystem::basic_path(utf16(normal)));
    } catch (const std::exception& e) {
        throw BadLocation{std::string(text), std::string("cannot use it as a path: ") + e.what()};
    }
}

bool ProviderRegistry::serves(std::string_view scheme) {
#ifdef QKFL_TOOL_WITH_ZIP
    if (scheme == "zip") return true;
#endif
#ifdef QKFL_TOOL_WITH_DAV
    if (scheme == "dav" || scheme == "davs") return true;
#endif
    return scheme == "file" || scheme == "mem";
}

ProviderRegistry::ProviderRegistry(bool insecure) : memory_(sp::memory::makeMemoryProvider()) {
#ifdef QKFL_TOOL_WITH_DAV
    // Credentials from the user's ~/.netrc when there is one; TLS verified unless asked not to.
    boost::property_tree::ptree configuration;
    const char* home = std::getenv("HOME");
    if (home && std::filesystem::exists(std::filesystem::path(home) / ".netrc")) {
        configuration.put("netrc", (std::filesystem::path(home) / ".netrc").string());
    }
    if (insecure) configuration.put("verifyTls", "false");
    dav_.configure(configuration);
#else
    (void)insecure;
#endif
}

std::shared_ptr<sp::IProvider> ProviderRegistry::physicalProvider(const sp::StorageIRI& location) const {
    const std::u16string scheme = location.getScheme();
    if (location.hasInnerIRI()) noProvider(location);
    if (scheme == u"file") {
        // The local provider serves this machine only.
        if (location.hasHost() && !location.getHost().empty() && location.getHost() != u"localhost") {
            throw sp::addExceptionContext(sp::Exception(sp::ErrorCode::InvalidLocation, location),
                                          u"names the host '" + location.getHost() + u"': write file:///PATH");
        }
        return local_.buildProvider(location);
    }
    if (scheme == u"mem") return memory_;
#ifdef QKFL_TOOL_WITH_DAV
    if (scheme == u"dav" || scheme == u"davs") return dav_.buildProvider(location);
#endif
    noProvider(location);
}

sp::StorageItem ProviderRegistry::itemFor(const sp::StorageIRI& location) const {
#ifdef QKFL_TOOL_WITH_ZIP
    if (location.hasInnerIRI() && location.getScheme() == u"zip") {
        return zip_.itemFor(location, [this](const sp::StorageIRI& outer) { return physicalProvider(outer); });
    }
#endif
    return sp::StorageItem(physicalProvider(location), location);
}

}  // namespace qkfl
