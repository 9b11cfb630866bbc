#include "ProviderConformance.h"

#include "fl/i18n/convert.h"

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
    subject_ = providerCase.makeEmptyProvider();
    for (const auto& [path, content] : standardTree()) {
        if (path.back() == '/') {
            provider().createFolder(at(path));
        } else {
            write(path, content);
        }
    }
}

StorageIRI ProviderConformance::at(const std::string& relative) const {
    return relative.empty() ? subject_->root : StorageIRI(subject_->root, fl::i18n::to_ustring(relative));
}

void ProviderConformance::write(const std::string& relative, const std::string& content) const {
    testsupport::put(provider(), at(relative), content);
}

Tree ProviderConformance::snapshot() const {
    Tree tree;
    std::function<void(const std::string&)> walk = [&](const std::string& folder) {
        for (const std::string& name : entrySet(provider().listAll(at(folder)))) {
            const std::string path = folder + name;
            tree[path] = name.back() == '/' ? "" : read(path);
            if (name.back() == '/') walk(path);
        }
    };
    walk("");
    return tree;
}

void ProviderConformance::expectRefusals(const std::vector<Refusal>& rows) const {
    for (std::size_t i = 0; i < rows.size(); ++i) {
        SCOPED_TRACE(::testing::Message() << "row " << i + 1 << " at " << rows[i].location.value_or("any location"));
        const testsupport::Failure failure = testsupport::failureOf(rows[i].call);
        EXPECT_EQ(failure.code, rows[i].code);
        if (rows[i].location) {
            EXPECT_EQ(failure.location, std::optional<StorageIRI>(at(*rows[i].location)));
        }
    }
}

}  // namespace foundation::storage::provider::conformance
