// qkfl end to end: the built binary run as a child process on files the tests make.
#include "ToolRunner.h"

#include <signal.h>
#include <stdlib.h>
#include <zip.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "storage/provider/Version.h"

namespace qkfl::testing {
namespace {

namespace fs = std::filesystem;
namespace sp = foundation::storage::provider;
using namespace std::chrono_literals;

constexpr auto npos = std::string::npos;

std::string joined(const std::vector<std::string>& args) {
    std::string text;
    for (const std::string& a : args) text += (text.empty() ? "" : " ") + a;
    return text;
}

struct ZipEntry {
    std::string name;
    std::string content;
    bool stored = false;
};

void makeZip(const std::string& path, const std::vector<ZipEntry>& entries) {
    int error = 0;
    zip_t* archive = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error);
    ASSERT_NE(archive, nullptr) << "libzip error " << error;
    for (const ZipEntry& e : entries) {
        zip_source_t* source = zip_source_buffer(archive, e.content.data(), e.content.size(), 0);
        const zip_int64_t index = zip_file_add(archive, e.name.c_str(), source, ZIP_FL_ENC_UTF_8);
        ASSERT_GE(index, 0) << zip_strerror(archive);
        if (e.stored) zip_set_file_compression(archive, static_cast<zip_uint64_t>(index), ZIP_CM_STORE, 0);
    }
    ASSERT_EQ(zip_close(archive), 0) << zip_strerror(archive);
}

class QkflCli : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "qkfl-cli-XXXXXX").string();
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        dir_ = pattern;
    }
    void TearDown() override {
        std::error_code ignored;
        fs::remove_all(dir_, ignored);
    }

    std::string path(const std::string& name) const { return dir_ + "/" + name; }
    std::string iri(const std::string& name = {}) const { return "file://" + (name.empty() ? dir_ : path(name)); }
    void write(const std::string& name, const std::string& content) const {
        fs::create_directories(fs::path(path(name)).parent_path());
        std::ofstream(path(name), std::ios::binary) << content;
    }
    std::string read(const std::string& name) const { return slurpFile(path(name)); }
    // Scratch files of transactional writes: ".<uuid>.tmp.bak".
    std::vector<std::string> scratchFiles() const {
        std::vector<std::string> found;
        for (const auto& entry : fs::directory_iterator(dir_)) {
            const std::string name = entry.path().filename().string();
            if (name.front() == '.' && name.ends_with(".tmp.bak")) found.push_back(name);
        }
        return found;
    }
    Outcome qkfl(const std::vector<std::string>& args) const { return runQkfl(args, dir_); }

    // Makes probe files in `folder` until the watcher reports one: from then on it watches.
    bool untilWatching(RunningQkfl& watcher, const std::string& folder) const {
        const Deadline deadline = after(60s);
        for (int i = 0; std::chrono::steady_clock::now() < deadline; ++i) {
            const std::string probe = "probe-" + std::to_string(i);
            write(folder + "/" + probe, "p");
            const auto seen = watcher.waitForLine(
                [&](const std::string& line) { return line.find(probe) != npos; },
                std::chrono::steady_clock::now() + 300ms);
            if (seen) return true;
        }
        return false;
    }

    std::string dir_;
};

// One command line, run in the test's folder, and what it must give: the exit status, the
// whole standard output, and the first line of standard error. An expectation starting with
// '~' need only occur in the output. In every text, $D stands for the folder, $F for its
// 'file' IRI, $Z for the archive z/outer.zip as a container and $N for inner.zip inside it.
// A failure (1) writes exactly one line; a usage error (2) adds the usage.
struct CommandLine {
    std::vector<std::string> args;
    int status;
    std::string out;
    std::string err;
};

const std::vector<CommandLine> kCommandLines = {
    // Conventions of the shell tools.
    {{"--version"}, 0, "qkfl $V\n", ""},
    {{"--help"}, 0, "~'#' %23   '?' %3F   '!' %21   '%' %25   space %20\n", ""},
    {{}, 2, "", "qkfl: no command given"},
    {{"frob", "a.txt"}, 2, "", "qkfl: unknown command 'frob'"},
    {{"ls"}, 2, "", "qkfl: ls: LOCATION is required"},
    {{"cp", "-n", "--overwrite", "a.txt", "b.txt"}, 2, "", "qkfl: cp: --no-clobber excludes --overwrite"},
    {{"truncate", "12Q", "a.txt"}, 2, "", "qkfl: truncate: SIZE: '12Q' is not a size (1234, 64K, +1M, -1KB)"},
    {{"watch", "--kinds", "added,exploded", "."}, 2, "", "qkfl: watch: --kinds: unknown kind 'exploded'"},
    // Failures: the location, the code and a reason in words; nothing changes.
    {{"cat", "missing.txt"}, 1, "", "qkfl: cat: $F/missing.txt: ErrorCode::ResourceNotFound: no such file or folder"},
    {{"cat", "sub"}, 1, "", "qkfl: cat: $F/sub: ErrorCode::InvalidLocation: is a folder"},
    {{"cat", "file://host/x"}, 1, "",
     "qkfl: cat: file://host/x: ErrorCode::InvalidLocation: names the host 'host': write file:///PATH"},
    {{"mkdir", "sub"}, 1, "", "qkfl: mkdir: $F/sub: ErrorCode::ResourceAlreadyExists: already exists"},
    {{"rm", "sub"}, 1, "", "qkfl: rm: $F/sub: ErrorCode::FolderNotEmpty: the folder is not empty"},
    {{"cp", "-n", "a.txt", "sub/b.txt"}, 1, "", "qkfl: cp: $F/sub/b.txt: ErrorCode::ResourceAlreadyExists: already exists"},
    {{"cp", "sub", "copy"}, 1, "", "qkfl: cp: $F/sub: ErrorCode::InvalidLocation: is a folder: cp copies files"},
    {{"cp", "a.txt", "."}, 1, "", "qkfl: cp: $F/a.txt: ErrorCode::InvalidLocation: is the source itself"},
    {{"mv", "a.txt", "./a.txt"}, 1, "", "qkfl: mv: $F/a.txt: ErrorCode::InvalidLocation: is the source itself"},
    {{"mv", "sub", "sub"}, 1, "", "qkfl: mv: $F/sub/sub: ErrorCode::InvalidLocation: is inside the source folder"},
    {{"truncate", "-c", "5", "new.bin"}, 1, "", "qkfl: truncate: $F/new.bin: ErrorCode::ResourceNotFound: no such file or folder"},
    {{"ls", "http://example.com/"}, 1, "",
     "qkfl: ls: http://example.com/: ErrorCode::InvalidLocation: no provider for the scheme 'http'"},
    {{"ls", "zip:a.zip"}, 1, "", "~qkfl: ls: zip:a.zip: ErrorCode::InvalidLocation: cannot parse it as an IRI: "},
    {{"mkdir", "$Znew"}, 1, "", "qkfl: mkdir: $Znew: ErrorCode::ReadOnlyProvider: the storage is read-only"},
    {{"cat", "$Zabsent.txt"}, 1, "", "qkfl: cat: $Zabsent.txt: ErrorCode::ResourceNotFound: no such file or folder"},
    {{"watch", "--native", "mem:///"}, 1, "",
     "qkfl: watch: mem:///: ErrorCode::UnsupportedOperation: no native change events here (use --poll MS)"},
    {{"stat", "sub/b.txt"}, 0, "~\nsize:      4 (4 B)\n", ""},
    {{"cat", "a.txt"}, 0, "alpha", ""},
    // Local paths are literal; 'ls' prints names that paste back in the form given.
    {{"ls", "."}, 0, "a.txt\nbin\nlink\nr#2\nsub/\nz/\n", ""},
    {{"ls", "$F"}, 0, "a.txt\nbin\nlink\nr%232\nsub/\nz/\n", ""},
    {{"cat", "r#2"}, 0, "hash", ""},
    {{"cat", "$F/r%232"}, 0, "hash", ""},
    {{"cp", "a.txt", "a:b"}, 0, "", ""},
    {{"cat", "$D/a:b"}, 0, "alpha", ""},
    {{"ls", "-l", "link"}, 0, "~lw-            5 ", ""},
    {{"ls", "-l", "a.txt"}, 0, "~-w-            5 ", ""},
    {{"cat", "bin"}, 0, std::string("\0\xff\n\r\x7f end", 9), ""},
    // The commands, through paths and IRIs.
    {{"ls", "-R", "--match", "*.txt", "sub"}, 0, "b.txt\n", ""},
    {{"ls", "-R", "--names-only", "sub/../sub"}, 0, "b.txt\ndeeper/\ndeeper/c.log\n", ""},
    {{"cp", "a.txt", "sub"}, 0, "", ""},
    {{"cp", "--atomic", "$F/sub/b.txt", "copy.txt"}, 0, "", ""},
    {{"mv", "copy.txt", "sub/deeper/moved.txt"}, 0, "", ""},
    {{"mv", "sub", "renamed"}, 0, "", ""},
    {{"mkdir", "-p", "x/y/z"}, 0, "", ""},
    {{"mkdir", "-p", "x/y/z"}, 0, "", ""},
    {{"rm", "-r", "x"}, 0, "", ""},
    {{"ls", "-R", "renamed"}, 0, "a.txt\nb.txt\ndeeper/\ndeeper/c.log\ndeeper/moved.txt\n", ""},
    {{"cat", "renamed/deeper/moved.txt"}, 0, "beta", ""},
    {{"stat", "renamed"}, 0, "~location:  $F/renamed\nexists:    AsFolder (RegularFolder)\n", ""},
    // Sizes as coreutils takes them, absolute and relative; a missing file is made.
    {{"truncate", "1.5K", "a.txt"}, 0, "", ""},
    {{"truncate", "-36", "a.txt"}, 0, "", ""},
    {{"stat", "a.txt"}, 0, "~\nsize:      1500 (", ""},
    {{"truncate", "%1KB", "a.txt"}, 0, "", ""},
    {{"stat", "a.txt"}, 0, "~\nsize:      2000 (", ""},
    {{"truncate", "+1KiB", "new.bin"}, 0, "", ""},
    {{"stat", "new.bin"}, 0, "~\nsize:      1024 (", ""},
    // Zip archives, nested to any depth, and a memory store that lives for one command.
    {{"ls", "$Z"}, 0, "inner.zip\nreadme.txt\nx%231.txt\n", ""},
    {{"cat", "$Zx%231.txt"}, 0, "one", ""},
    {{"ls", "-R", "$N"}, 0, "data/\ndata/hello.txt\ndata/more/\ndata/more/n.csv\n", ""},
    {{"ls", "-R", "--match", "*.csv", "$N"}, 0, "data/more/n.csv\n", ""},
    {{"ls", "-l", "$Ndata/hello.txt"}, 0, "~---           15 ", ""},
    {{"cp", "--atomic", "$Ndata/hello.txt", "out.txt"}, 0, "", ""},
    {{"cat", "out.txt"}, 0, "Hello, nested.\n", ""},
    {{"mkdir", "mem:///fresh"}, 0, "", ""},
    {{"ls", "mem:///"}, 0, "", ""},
};

bool matches(const std::string& actual, const std::string& expected) {
    return expected.starts_with("~") ? actual.find(expected.substr(1)) != npos : actual == expected;
}

TEST_F(QkflCli, CommandLines) {
    write("a.txt", "alpha");
    write("r#2", "hash");
    write("sub/b.txt", "beta");
    write("sub/deeper/c.log", "gamma");
    write("bin", std::string("\0\xff\n\r\x7f end", 9));
    fs::create_symlink("a.txt", path("link"));
    fs::create_directories(path("z"));
    makeZip(path("z/inner.zip"), {{"data/hello.txt", "Hello, nested.\n"}, {"data/more/n.csv", "1,2\n"}});
    makeZip(path("z/outer.zip"), {{"readme.txt", "outer"}, {"x#1.txt", "one"}, {"inner.zip", read("z/inner.zip"), true}});
    fs::remove(path("z/inner.zip"));

    const std::string zip = "zip:" + iri("z/outer.zip") + "!/";
    auto expand = [&](std::string text) {
        for (const auto& [mark, value] : {std::pair<std::string, std::string>{"$D", dir_}, {"$F", iri()}, {"$Z", zip},
                                          {"$N", "zip:" + zip + "inner.zip!/"}, {"$V", sp::libraryVersion()}}) {
            for (auto at = text.find(mark); at != npos; at = text.find(mark, at + value.size())) {
                text.replace(at, mark.size(), value);
            }
        }
        return text;
    };
    for (const CommandLine& line : kCommandLines) {
        std::vector<std::string> args;
        for (const std::string& arg : line.args) args.push_back(expand(arg));
        const Outcome o = qkfl(args);
        const std::string err = o.err.substr(0, o.err.find('\n'));
        EXPECT_EQ(o.status, line.status) << joined(args) << "\n" << o.err;
        EXPECT_TRUE(matches(o.out, expand(line.out))) << joined(args) << "\n" << o.out;
        EXPECT_TRUE(matches(err, expand(line.err))) << joined(args) << "\n" << o.err;
        if (line.status == 1) {
            EXPECT_EQ(std::count(o.err.begin(), o.err.end(), '\n'), 1) << joined(args);
        } else if (line.status == 2) {
            EXPECT_NE(o.err.find("\nUsage: qkfl"), npos) << joined(args);
        }
    }
    EXPECT_TRUE(scratchFiles().empty());

    // A new file made by a copy gets the source's permission bits (less the umask), as cp's.
    const auto ownerOnly = fs::perms::owner_read | fs::perms::owner_write;
    fs::permissions(path("a.txt"), ownerOnly);
    ASSERT_EQ(qkfl({"cp", "a.txt", "private.txt"}).status, 0);
    EXPECT_EQ(fs::status(path("private.txt")).permissions() & fs::perms::all, ownerOnly);
}

TEST_F(QkflCli, InterruptedCopyStopsThroughTheCallback) {
    // Held to 4 MiB a second, a 48 MiB copy runs for twelve seconds unless interrupted.
    const std::string big(48u << 20, 'b');
    write("big.bin", big);
    makeZip(path("big.zip"), {{"big.bin", big, true}});
    auto check = [&](const std::string& source, bool atomic) {
        write("target.bin", "old");
        std::vector<std::string> args{"cp", "--bwlimit", "4M", source, "target.bin"};
        if (atomic) args.insert(args.begin() + 1, "--atomic");
        RunningQkfl copy(args, dir_);
        // Under way: an atomic copy writes its scratch file, a plain one the target itself.
        ASSERT_TRUE(eventually(
            [&] { return atomic ? scratchFiles().size() == 1 : fs::file_size(path("target.bin")) >= (4u << 20); },
            after(120s)))
            << joined(args);
        copy.signal(SIGINT);
        const auto o = copy.wait(after(120s));
        ASSERT_TRUE(o.has_value()) << joined(args);
        EXPECT_EQ(o->status, 130) << joined(args);
        EXPECT_EQ(o->err, "qkfl: cp: " + iri("target.bin") + ": interrupted, " +
                              (atomic ? "the target is as it was\n" : "the target holds what was copied so far\n"));
        EXPECT_TRUE(scratchFiles().empty()) << joined(args);
        if (atomic) {
            EXPECT_EQ(read("target.bin"), "old") << joined(args);
        } else {
            const auto size = fs::file_size(path("target.bin"));
            EXPECT_GT(size, 0u);
            EXPECT_LT(size, big.size());
        }
    };
    check("big.bin", true);                                // the local provider's own atomic copy
    check("zip:" + iri("big.zip") + "!/big.bin", true);    // streamed into a transactional stream
    check("big.bin", false);                               // streamed into the target itself
}

TEST_F(QkflCli, WatchPrintsOneLinePerEventUntilInterruptedOrGone) {
    fs::create_directories(path("w"));
    {
        RunningQkfl watch({"watch", "--poll", "50", "--json", "--kinds", "added,EntryRemoved", path("w")});
        ASSERT_TRUE(untilWatching(watch, "w"));
        write("w/new.txt", "n");
        const auto added = watch.waitForLine(
            [](const std::string& line) { return line.find("new.txt") != npos; }, after(60s));
        ASSERT_TRUE(added.has_value());
        EXPECT_EQ(*added, R"({"kind":"EntryAdded","type":"file","folder":")" + iri("w") + R"(","entry":")" +
                              iri("w/new.txt") + R"("})");
        fs::remove(path("w/new.txt"));
        ASSERT_TRUE(watch.waitForLine(
            [](const std::string& line) { return line.find("EntryRemoved") != npos && line.find("new.txt") != npos; },
            after(60s)));
        // FolderVanished is not shown, yet the watch ends with the folder.
        fs::remove_all(path("w"));
        const auto o = watch.wait(after(60s));
        ASSERT_TRUE(o.has_value());
        EXPECT_EQ(o->status, 0);
        EXPECT_EQ(o->err, "");
        for (const std::string& line : watch.lines()) {
            EXPECT_TRUE(line.find("EntryAdded") != npos || line.find("EntryRemoved") != npos) << line;
        }
    }
    {
        // Native notification by default on local folders, until interrupted.
        fs::create_directories(path("v"));
        RunningQkfl watch({"watch", "v"}, dir_);
        ASSERT_TRUE(untilWatching(watch, "v"));
        ASSERT_TRUE(watch.waitForLine([](const std::string& line) { return line.rfind("EntryAdded     file   ", 0) == 0; },
                                      after(60s)));
        watch.signal(SIGINT);
        const auto o = watch.wait(after(60s));
        ASSERT_TRUE(o.has_value());
        EXPECT_EQ(o->status, 0);
    }
}

TEST_F(QkflCli, DemoRunsItsTourAndRemovesItsSample) {
    const Outcome o = qkfl({"demo"});
    ASSERT_EQ(o.status, 0) << o.err;
    EXPECT_EQ(o.err, "");
    const std::string prefix = "qkfl demo: a short tour in ";
    ASSERT_EQ(o.out.rfind(prefix, 0), 0u) << o.out;
    const std::string sample = o.out.substr(prefix.size(), o.out.find('\n') - prefix.size());
    EXPECT_FALSE(fs::exists(sample)) << sample;
    for (const char* expected :
         {"tree/docs/  tree/docs/guide.txt  tree/notes.txt  tree/todo.txt\n", "inner.zip!/\n", "data/hello.txt",
          "-> tree/hello.txt: completed, \"Hello from inside two zip files!\"\n", "EntryAdded     tree/draft.txt\n",
          "EntryModified  tree/notes.txt\n", "EntryRemoved   tree/todo.txt\n", " is gone\n"}) {
        EXPECT_NE(o.out.find(expected), npos) << expected << "\n" << o.out;
    }
}

}  // namespace
}  // namespace qkfl::testing
