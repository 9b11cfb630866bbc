// demo: a short tour on a sample made in a temporary folder, removed at the end.
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <mutex>
#include <stdexcept>
#include <system_error>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <fmt/format.h>
#include <fmt/ranges.h>
#ifdef QKFL_TOOL_WITH_ZIP
#include <zip.h>
#endif

#include "Commands.h"
#include "Text.h"
#include "storage/provider/PathConversions.h"
#include "storage/provider/StorageItem.h"
#include "storage/provider/TransactionalStream.h"

namespace qkfl {

namespace {

using sp::StorageIRI;
using sp::StorageItem;

constexpr auto kEventDeadline = std::chrono::seconds(5);
constexpr auto kPollPeriod = std::chrono::milliseconds(100);

// Writes `content` as the whole file: into a scratch file beside it, committed by a rename.
void writeFile(const StorageItem& file, std::string_view content) {
    sp::ByteStreamOpenOptions options;
    options.truncate = sp::ByteStreamTruncate::TruncateExisting;
    const auto stream = file.openTransactionalStream(options);
    stream->write(content.data(), static_cast<long>(content.size()));
    stream->close(sp::StreamClosePolicy::Commit);
}

// The temporary folder, removed with everything in it however the demo ends.
class ScratchFolder {
public:
    ScratchFolder() {
        std::string pattern = (std::filesystem::temp_directory_path() / "qkfl-demo-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) {
            throw std::system_error(errno, std::generic_category(), "cannot make a temporary folder");
        }
        path_ = pattern;
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    ~ScratchFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

// Change events gathered on the polling thread, handed to the demo's thread in order.
class EventLog {
public:
    struct Event {
        ev::Kind kind;
        StorageIRI entry;
    };

    sp::ChangeEventCallback callback() {
        return [this](const ev::Kind& kind, const StorageIRI&, const StorageIRI& entry, const ev::EntryType&,
                      boost::property_tree::ptree) {
            const std::lock_guard lock(mutex_);
            events_.push_back({kind, entry});
            arrived_.notify_all();
        };
    }

    // The events up to and including the first of `kind` about `entry`, waiting for it until
    // the deadline; whatever came when it does not.
    std::vector<Event> until(ev::Kind kind, const StorageIRI& entry) {
        std::unique_lock lock(mutex_);
        std::vector<Event> taken;
        const auto deadline = std::chrono::steady_clock::now() + kEventDeadline;
        for (;;) {
            while (!events_.empty()) {
                taken.push_back(events_.front());
                events_.pop_front();
                if (taken.back().kind == kind && taken.back().entry == entry) return taken;
            }
            if (arrived_.wait_until(lock, deadline) == std::cv_status::timeout && events_.empty()) return taken;
        }
    }

private:
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::deque<Event> events_;
};

#ifdef QKFL_TOOL_WITH_ZIP

// A zip archive written with libzip; the provider only reads archives.
class ZipWriter {
public:
    explicit ZipWriter(const std::string& path) {
        int error = 0;
        archive_ = zip_open(path.c_str(), ZIP_CREATE | ZIP_EXCL, &error);
        if (archive_ == nullptr) throw std::runtime_error(fmt::format("cannot create '{}' (libzip error {})", path, error));
    }
    ZipWriter(const ZipWriter&) = delete;
    ZipWriter& operator=(const ZipWriter&) = delete;
    ~ZipWriter() {
        if (archive_ != nullptr) zip_discard(archive_);
    }

    // `stored`: kept uncompressed, so that an archive inside is read without inflating.
    void add(const std::string& name, std::string content, bool stored = false) {
        contents_.push_back(std::move(content));
        const std::string& data = contents_.back();
        zip_source_t* source = zip_source_buffer(archive_, data.data(), data.size(), 0);
        const zip_int64_t index = source == nullptr ? -1 : zip_file_add(archive_, name.c_str(), source, ZIP_FL_ENC_UTF_8);
        if (index < 0) {
            if (source != nullptr) zip_source_free(source);
            throw std::runtime_error(fmt::format("cannot add '{}': {}", name, zip_strerror(archive_)));
        }
        if (stored) zip_set_file_compression(archive_, static_cast<zip_uint64_t>(index), ZIP_CM_STORE, 0);
    }

    void close() {
        if (zip_close(archive_) != 0) throw std::runtime_error(fmt::format("cannot write: {}", zip_strerror(archive_)));
        archive_ = nullptr;
    }

private:
    zip_t* archive_ = nullptr;
    std::deque<std::string> contents_;  // libzip reads the buffers when the archive closes
};

std::string readFile(const StorageItem& file) {
    const auto stream = file.openReadOnlyStream();
    std::string content;
    char buffer[4096];
    for (long n; (n = stream->read(buffer, sizeof buffer)) > 0;) content.append(buffer, static_cast<std::size_t>(n));
    stream->close();
    return content;
}

#endif

}  // namespace

int runDemo(const ProviderRegistry& registry) {
    const ScratchFolder scratch;
    const StorageIRI rootLocation = sp::toStorageIRI(u"file", fl::filesystem::basic_path(utf16(scratch.path())));
    const StorageItem root = registry.itemFor(rootLocation);
    const StorageItem tree(root, std::u16string(u"tree"));
    auto shortName = [&](const StorageIRI& location) { return utf8(location.makePathRelativeTo(rootLocation)); };

    fmt::print("qkfl demo: a short tour in {}\n\n", scratch.path());

    // 1. Files written atomically; their times set an hour back, so the changes below show.
    fmt::print("1. Write a small tree, each file atomically (a scratch file, then a rename)\n");
    tree.createFolder();
    StorageItem(tree, std::u16string(u"docs")).createFolder();
    const boost::posix_time::ptime anHourAgo =
        boost::posix_time::second_clock::universal_time() - boost::posix_time::hours(1);
    for (const auto& [name, content] : {std::pair{u"notes.txt", "Buy milk.\n"}, std::pair{u"todo.txt", "Call Ann.\n"},
                                        std::pair{u"docs/guide.txt", "Read me first.\n"}}) {
        const StorageItem file(tree, std::u16string(name));
        writeFile(file, content);
        file.setLastModified(anHourAgo);
    }
    std::vector<std::string> names;
    for (auto it = tree.listAllRecursiveNamesOnly(); it->hasNext();) {
        it->next();
        names.push_back("tree/" + utf8(it->get().getName()) + (it->get().isFile() ? "" : "/"));
    }
    std::sort(names.begin(), names.end());
    fmt::print("     {}\n", fmt::join(names, "  "));

#ifdef QKFL_TOOL_WITH_ZIP
    // 2. The zip provider only reads: the sample archives are made with libzip.
    fmt::print("2. Make outer.zip with archives/inner.zip inside it\n");
    const std::string innerPath = scratch.path() + "/inner.zip";
    {
        ZipWriter inner(innerPath);
        inner.add("data/hello.txt", "Hello from inside two zip files!\n");
        inner.add("data/numbers.csv", "n,square\n1,1\n2,4\n3,9\n");
        inner.close();
        ZipWriter outer(scratch.path() + "/outer.zip");
        outer.add("README.txt", "A zip with a zip inside.\n");
        outer.add("archives/inner.zip", readFile(StorageItem(root, std::u16string(u"inner.zip"))), true);
        outer.close();
        StorageItem(root, std::u16string(u"inner.zip")).removeFile();
    }

    // 3. 'zip:zip:file:///…/outer.zip!/archives/inner.zip!/': a container inside a container.
    const StorageIRI outerZip(rootLocation, u"outer.zip");
    const StorageIRI innerRoot(u"zip", StorageIRI(u"zip", outerZip, u"/archives/inner.zip"), u"/");
    fmt::print("3. List inside the nested container\n     {}\n", text(innerRoot));
    const StorageItem innerFolder = registry.itemFor(innerRoot);
    for (auto it = innerFolder.listAllRecursive(); it->hasNext();) {
        it->next();
        const sp::FolderEntry entry = it->get();
        if (entry.isFile()) {
            fmt::print("       {:<18} {:>6}\n", utf8(entry.getName()), formatBytes(entry.getFileAttributes()->getSize()));
        } else {
            fmt::print("       {}/\n", utf8(entry.getName()));
        }
    }

    // 4. Across providers, StorageItem streams the bytes into a transactional stream.
    const StorageItem hello = registry.itemFor(StorageIRI(innerRoot, u"data/hello.txt"));
    const StorageItem copy(tree, std::u16string(u"hello.txt"));
    fmt::print("4. Copy data/hello.txt out of it, atomically\n");
    sp::CopyFileOptions options;
    options.transactionPolicy = sp::TransactionPolicy::Atomic;
    options.replacementPolicy = sp::ReplacementPolicy::NoClobber;
    const sp::TransactionStatus status = hello.copyFile(copy, options);
    std::string copied = readFile(copy);
    while (!copied.empty() && copied.back() == '\n') copied.pop_back();
    fmt::print("     -> {}: {} \"{}\"\n", shortName(copy.getLocation()),
               status == sp::TransactionStatus::Completed ? "completed," : "aborted,", copied);
#else
    fmt::print("2-4. (this qkfl was built without the zip provider: no containers to show)\n");
#endif

    // 5. Polling: every provider has it. The demo waits for each change's event before the next.
    fmt::print("5. Watch tree/ (polling every {} ms) while changing it\n", kPollPeriod.count());
    EventLog log;
    tree.startChangePollingMechanism(log.callback(),
                                     {ev::Kind::EntryAdded, ev::Kind::EntryModified, ev::Kind::EntryRemoved},
                                     kPollPeriod, sp::RecursiveChangePolling::NonRecursive);
    auto show = [&](const char* change, ev::Kind expected, const StorageItem& entry) {
        const auto events = log.until(expected, entry.getLocation());
        if (events.empty()) fmt::print("     {:<28} (no event within {} s)\n", change, kEventDeadline.count());
        for (std::size_t i = 0; i < events.size(); ++i) {
            fmt::print("     {:<28} {:<14} {}\n", i == 0 ? change : "", kindName(events[i].kind),
                       shortName(events[i].entry));
        }
    };
    const StorageItem draft(root, std::u16string(u"draft.txt"));
    const StorageItem moved(tree, std::u16string(u"draft.txt"));
    writeFile(draft, "An idea.\n");
    draft.moveFile(moved.getLocation(), sp::ReplacementPolicy::NoClobber);
    show("move draft.txt into tree/", ev::Kind::EntryAdded, moved);

    const StorageItem notes(tree, std::u16string(u"notes.txt"));
    {
        sp::ByteStreamOpenOptions append;
        append.append = sp::ByteStreamAppend::Append;
        const auto stream = notes.openStream(append);
        stream->write("Buy bread.\n", 11);
        stream->close();
    }
    show("append a line to notes.txt", ev::Kind::EntryModified, notes);

    const StorageItem todo(tree, std::u16string(u"todo.txt"));
    todo.removeFile();
    show("remove todo.txt", ev::Kind::EntryRemoved, todo);
    tree.stopChangePollingMechanism();

    // 6. The provider removes the tree below one open folder, never following links.
    root.removeFolderRecursively();
    fmt::print("6. Remove everything the demo made: {} {}\n\n", scratch.path(),
               root.folderExists() ? "is still there" : "is gone");
    fmt::print("Next: 'qkfl --help', or 'qkfl ls -l -R PATH' on a folder or on 'zip:file:///PATH/TO.zip!/'.\n");
    return kExitOk;
}

}  // namespace qkfl
