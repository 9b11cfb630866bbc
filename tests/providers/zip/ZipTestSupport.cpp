#include "ZipTestSupport.h"

#include <zip.h>

#include <stdexcept>

#include "fl/i18n/convert.h"
#include "storage/provider/Exception.h"
#include "storage/provider/memory/MemoryProvider.h"

namespace foundation::storage::provider::zip::ziptest {
namespace {

void require(bool condition, const std::string& what) {
    if (!condition) throw std::runtime_error("test archive: " + what);
}

}  // namespace

std::string zipOf(const std::vector<Entry>& entries) {
    zip_error_t error;
    zip_error_init(&error);
    zip_source_t* buffer = zip_source_buffer_create(nullptr, 0, 0, &error);
    require(buffer != nullptr, "no buffer");
    zip_t* archive = zip_open_from_source(buffer, ZIP_TRUNCATE, &error);
    require(archive != nullptr, "cannot start");
    zip_source_keep(buffer);
    for (const Entry& entry : entries) {
        zip_int64_t index = -1;
        const bool folder = entry.name.back() == '/';
        if (folder) {
            index = zip_dir_add(archive, entry.name.c_str(), ZIP_FL_ENC_UTF_8);
        } else {
            zip_source_t* data = zip_source_buffer(archive, entry.content.data(), entry.content.size(), 0);
            require(data != nullptr, "no data source");
            index = zip_file_add(archive, entry.name.c_str(), data, ZIP_FL_ENC_UTF_8);
            if (index < 0) zip_source_free(data);
        }
        require(index >= 0, std::string("cannot add ") + entry.name + ": " + zip_strerror(archive));
        const auto at = static_cast<zip_uint64_t>(index);
        const zip_int32_t method = folder || entry.method == Method::Stored ? ZIP_CM_STORE : ZIP_CM_DEFLATE;
        require(zip_set_file_compression(archive, at, method, 0) == 0, "cannot set the method");
        require(zip_file_set_mtime(archive, at, entry.time, 0) == 0, "cannot set the time");
        if (entry.extendedTime) {
            std::string field(5, '\1');  // flags: modification time only, then the time
            putLittle(field, 1, 4, static_cast<std::uint32_t>(*entry.extendedTime));
            require(zip_file_extra_field_set(archive, at, 0x5455, ZIP_EXTRA_FIELD_NEW,
                                             reinterpret_cast<const zip_uint8_t*>(field.data()), 5,
                                             ZIP_FL_CENTRAL | ZIP_FL_LOCAL) == 0,
                    "cannot set the extended time");
        }
        if (entry.unixMode) {
            require(zip_file_set_external_attributes(archive, at, 0, ZIP_OPSYS_UNIX, *entry.unixMode << 16) == 0,
                    "cannot set the mode");
        }
    }
    require(zip_close(archive) == 0, "cannot write");

    std::string out;
    zip_stat_t stat;
    require(zip_source_open(buffer) == 0 && zip_source_stat(buffer, &stat) == 0, "cannot read back");
    out.resize(stat.size);
    require(zip_source_read(buffer, out.data(), stat.size) == static_cast<zip_int64_t>(stat.size), "short read back");
    zip_source_close(buffer);
    zip_source_free(buffer);
    zip_error_fini(&error);
    return out;
}

void putLittle(std::string& bytes, std::uint64_t offset, int width, std::uint64_t value) {
    for (int i = 0; i < width; ++i) bytes.at(offset + i) = static_cast<char>(value >> (8 * i) & 0xFF);
}

StorageIRI zipLocation(const StorageIRI& inner, const std::string& path) {
    return StorageIRI(u"zip:" + inner.toString() + u"!" + fl::i18n::to_ustring(path));
}

StorageIRI InMemory::at(const std::string& path) const { return zipLocation(container.getLocation(), path); }

InMemory inMemory(const std::string& archive, const std::string& name) {
    std::shared_ptr<IProvider> store = memory::makeMemoryProvider();
    const StorageIRI location(u"mem:///" + fl::i18n::to_ustring(name));
    put(*store, location, archive);
    StorageItem container(store, location);
    auto provider = std::make_shared<ZipProvider>(container);
    return InMemory{store, container, provider};
}

}  // namespace foundation::storage::provider::zip::ziptest
