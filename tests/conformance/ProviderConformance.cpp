#include "ProviderConformance.h"

#include "fl/i18n/convert.h"
#include "support/TestIO.h"

namespace foundation::storage::provider::conformance {

void PrintTo(const ProviderCase& providerCase, std::ostream* out) { *out << providerCase.name; }

const Tree& ProviderConformance::standardTree() {
    static const Tree tree{
        {"a.txt", "alpha"},
        {"empty.bin", ""},
        {"emptyfolder/", ""},
        {"sub/", ""},
        {"sub/b.txt", "bravo bravo"},
        {"sub/deeper/", ""},
        {"sub/deeper/c.txt", "charlie"},
    };
    return tree;
}

void ProviderConformance::SetUp() {
    const ProviderCase& providerCase = GetParam();
    if (providerCase.makePopulatedProvider) {
        subject_ = providerCase.makePopulatedProvider(standardTree());
        return;
    }
    ProviderUnderTest subject = providerCase.makeEmptyProvider();
    for (const auto& [path, content] : standardTree()) {
        const StorageIRI location(subject.root, fl::i18n::to_ustring(path));
        if (path.back() == '/') {
            subject.provider->createFolder(location);
            continue;
        }
        auto stream = subject.provider->openStream(location, ByteStreamOpenOptions{});
        stream->write(content.data(), static_cast<long>(content.size()));
        stream->close();
    }
    subject_ = std::move(subject);
}

StorageIRI ProviderConformance::at(const std::string& relative) const {
    return relative.empty() ? subject_->root : StorageIRI(subject_->root, fl::i18n::to_ustring(relative));
}

std::string ProviderConformance::read(const std::string& relative) const {
    return testsupport::readAll(provider(), at(relative));
}

void ProviderConformance::write(const std::string& relative, const std::string& content) const {
    auto stream = provider().openStream(at(relative), ByteStreamOpenOptions{ByteStreamAccess::WriteOnly,
                                                                            ByteStreamCreate::Create,
                                                                            ByteStreamTruncate::TruncateExisting,
                                                                            ByteStreamAppend::Overwrite});
    EXPECT_EQ(stream->write(content.data(), static_cast<long>(content.size())), static_cast<long>(content.size()));
    stream->close();
}

std::set<std::string> ProviderConformance::entries(std::unique_ptr<IFolderEntryIterator> listing) {
    return testsupport::entrySet(std::move(listing));
}

Tree ProviderConformance::snapshot() const {
    Tree tree;
    std::function<void(const std::string&)> walk = [&](const std::string& folder) {
        for (const std::string& name : entries(provider().listAll(at(folder)))) {
            const std::string path = folder + name;
            tree[path] = name.back() == '/' ? "" : read(path);
            if (name.back() == '/') walk(path);
        }
    };
    walk("");
    return tree;
}

void ProviderConformance::expectError(ErrorCode code, const StorageIRI& location,
                                      const std::function<void()>& action) const {
    testsupport::expectError(code, location, action);
}

std::optional<ErrorCode> ProviderConformance::errorOf(const std::function<void()>& action) {
    return testsupport::errorOf(action);
}

}  // namespace foundation::storage::provider::conformance
