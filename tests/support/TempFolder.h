#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

#include <stdlib.h>

#include "fl/i18n/convert.h"
#include "storage/provider/StorageIRI.h"

namespace foundation::storage::provider::testsupport {

// A fresh folder under /tmp, removed with its content.
class TempFolder {
public:
    TempFolder() {
        char pattern[] = "/tmp/qkfl-test-XXXXXX";
        if (::mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;
    ~TempFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    const std::string& path() const { return path_; }
    // 'file://' + the path of `relative` in the folder.
    StorageIRI location(const std::string& relative) const {
        return StorageIRI(u"file://" + fl::i18n::to_ustring(path_ + "/" + relative));
    }

private:
    std::string path_;
};

}  // namespace foundation::storage::provider::testsupport
