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

namespace qkfl::testing {
namespace {

namespace fs = std::filesystem;
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

TEST_F(QkflCli, HelpExplainsEveryCommandAndOption) {
    const Outcome bare = qkfl({});
    EXPECT_EQ(bare.status, 0);
    EXPECT_NE(bare.out.find("Usage: qkfl"), npos);

    const Outcome help = qkfl({"--help"});
    EXPECT_EQ(help.status, 0);
    for (const char* command : {"ls", "stat", "cat", "cp", "mv", "rm", "mkdir", "truncate", "watch", "demo"}) {
        EXPECT_NE(bare.out.find(std::string("\n  ") + command + " "), npos) << command;
        const Outcome one = qkfl({command, "--help"});
        EXPECT_EQ(one.status, 0) << command;
        EXPECT_NE(one.out.find(std::string("Usage: qkfl ") + command), npos) << one.out;
    }
    for (const char* option : {"--long", "--recursive", "--names-only", "--match", "--atomic", "--no-clobber",
                               "--overwrite", "--bwlimit", "--parents", "--poll", "--native", "--kinds", "--json"}) {
        EXPECT_NE(help.out.find(option), npos) << option;
    }
}

TEST_F(QkflCli, UsageErrorsExitTwoWithTheUsageAndTouchNothing) {
    write("a.txt", "A");
    auto bad = [&](const std::vector<std::string>& args, const std::string& command) {
        const Outcome o = qkfl(args);
        EXPECT_EQ(o.status, 2) << joined(args);
        EXPECT_EQ(o.out, "") << joined(args);
        EXPECT_EQ(o.err.rfind(command.empty() ? "qkfl: " : "qkfl: " + command + ": ", 0), 0u) << o.err;
        EXPECT_NE(o.err.find(command.empty() ? "Usage: qkfl [OPTIONS]" : "Usage: qkfl " + command + " "), npos)
            << o.err;
    };
    bad({"frob"}, "");
    bad({"ls"}, "ls");
    bad({"ls", "-l", "--names-only", "."}, "ls");
    bad({"cp", "a.txt"}, "cp");
    bad({"cp", "-n", "--overwrite", "a.txt", "b.txt"}, "cp");
    bad({"cp", "--bwlimit", "fast", "a.txt", "b.txt"}, "cp");
    bad({"rm", "-x", "a.txt"}, "rm");
    bad({"truncate", "12Q", "a.txt"}, "truncate");
    bad({"watch", "--poll", "50", "--native", "."}, "watch");
    bad({"watch", "--poll", "0", "."}, "watch");
    bad({"watch", "--kinds", "added,exploded", "."}, "watch");
    EXPECT_FALSE(fs::exists(path("b.txt")));
    EXPECT_EQ(read("a.txt"), "A");
}

TEST_F(QkflCli, FailuresPrintOneLineAndExitOne) {
    write("a.txt", "A");
    write("full/x", "x");
    makeZip(path("a.zip"), {{"in.txt", "zipped"}});
    auto fails = [&](const std::vector<std::string>& args, const std::string& line) {
        const Outcome o = qkfl(args);
        EXPECT_EQ(o.status, 1) << joined(args);
        EXPECT_EQ(o.out, "") << joined(args);
        EXPECT_EQ(o.err, line + "\n") << joined(args);
    };
    fails({"cat", "missing.txt"}, "qkfl: cat: " + iri("missing.txt") + ": ErrorCode::ResourceNotFound");
    fails({"cat", "full"}, "qkfl: cat: " + iri("full") + ": ErrorCode::InvalidLocation");
    fails({"stat", iri("nothing")}, "qkfl: stat: " + iri("nothing") + ": ErrorCode::ResourceNotFound");
    fails({"mkdir", "full"}, "qkfl: mkdir: " + iri("full") + ": ErrorCode::ResourceAlreadyExists");
    fails({"rm", "full"}, "qkfl: rm: " + iri("full") + ": ErrorCode::FolderNotEmpty");
    fails({"cp", "-n", "a.txt", "full/x"}, "qkfl: cp: " + iri("full/x") + ": ErrorCode::ResourceAlreadyExists");
    fails({"cp", "full", "copy"}, "qkfl: cp: " + iri("full") + ": ErrorCode::InvalidLocation: a folder: cp copies files");
    fails({"cp", "a.txt", "."}, "qkfl: cp: " + iri("a.txt") + ": ErrorCode::InvalidLocation: the source itself");
    fails({"ls", "http://example.com/"},
          "qkfl: ls: http://example.com/: ErrorCode::InvalidLocation: no provider for the scheme 'http'");
    fails({"mkdir", "zip:" + iri("a.zip") + "!/new"},
          "qkfl: mkdir: zip:" + iri("a.zip") + "!/new: ErrorCode::ReadOnlyProvider");
    fails({"cat", "zip:" + iri("a.zip") + "!/absent.txt"},
          "qkfl: cat: zip:" + iri("a.zip") + "!/absent.txt: ErrorCode::ResourceNotFound");
    fails({"watch", "--native", "mem:///"},
          "qkfl: watch: mem:///: ErrorCode::UnsupportedOperation: no native change events here (use --poll MS)");

    const Outcome unparsable = qkfl({"ls", "zip:a.zip"});
    EXPECT_EQ(unparsable.status, 1);
    EXPECT_EQ(unparsable.err.rfind("qkfl: ls: zip:a.zip: ErrorCode::InvalidLocation: cannot parse it as an IRI", 0), 0u)
        << unparsable.err;
    EXPECT_EQ(std::count(unparsable.err.begin(), unparsable.err.end(), '\n'), 1);

    EXPECT_EQ(read("full/x"), "x");
    EXPECT_EQ(read("a.txt"), "A");
    EXPECT_FALSE(fs::exists(path("copy")));
}

TEST_F(QkflCli, FileCommandsTakePathsAndIris) {
    write("a.txt", "alpha");
    write("sub/b.txt", "beta");
    write("sub/deeper/c.log", "gamma");
    auto check = [&](const std::vector<std::string>& args, const std::string& out) {
        const Outcome o = qkfl(args);
        EXPECT_EQ(o.status, 0) << joined(args) << ": " << o.err;
        EXPECT_EQ(o.out, out) << joined(args);
    };
    check({"ls", "."}, "a.txt\nsub/\n");
    check({"ls", iri("sub")}, "b.txt\ndeeper/\n");
    check({"ls", "-R", "--match", "*.txt", "."}, "a.txt\nsub/b.txt\n");
    check({"ls", "-R", "--names-only", "sub/../sub"}, "b.txt\ndeeper/\ndeeper/c.log\n");
    check({"cat", "sub/deeper/c.log"}, "gamma");
    check({"cp", "a.txt", "sub"}, "");
    check({"cp", "--atomic", iri("sub/b.txt"), "copy.txt"}, "");
    check({"mv", "copy.txt", "sub/deeper/moved.txt"}, "");
    check({"mv", "sub", "renamed"}, "");
    check({"truncate", "2", "a.txt"}, "");
    check({"mkdir", "-p", "x/y/z"}, "");
    check({"mkdir", "-p", "x/y/z"}, "");
    check({"rm", "-r", "x"}, "");
    check({"ls", "-R", "."}, "a.txt\nrenamed/\nrenamed/a.txt\nrenamed/b.txt\nrenamed/deeper/\n"
                             "renamed/deeper/c.log\nrenamed/deeper/moved.txt\n");
    EXPECT_EQ(read("a.txt"), "al");
    EXPECT_EQ(read("renamed/a.txt"), "alpha");
    EXPECT_EQ(read("renamed/deeper/moved.txt"), "beta");

    check({"truncate", "4K", "a.txt"}, "");
    EXPECT_EQ(read("a.txt"), "al" + std::string(4094, '\0'));

    const std::string binary("\0\xff\n\r\x7f end", 9);
    write("bin", binary);
    check({"cat", "bin"}, binary);

    const Outcome listed = qkfl({"ls", "-l", "bin"});
    EXPECT_EQ(listed.status, 0);
    EXPECT_EQ(listed.out.rfind("-w--            9 ", 0), 0u) << listed.out;
    EXPECT_TRUE(listed.out.ends_with(" bin\n")) << listed.out;

    const Outcome stat = qkfl({"stat", "renamed"});
    EXPECT_NE(stat.out.find("location:  " + iri("renamed") + "\nexists:    AsFolder (RegularFolder)\n"), npos)
        << stat.out;
    EXPECT_NE(qkfl({"stat", "bin"}).out.find("size:      9 (9 B)\n"), npos);

    // The memory store lives as long as one command.
    check({"mkdir", "mem:///fresh"}, "");
    check({"ls", "mem:///"}, "");
}

TEST_F(QkflCli, ListsReadsAndCopiesOutOfNestedZips) {
    makeZip(path("inner.zip"), {{"data/hello.txt", "Hello, nested.\n"}, {"data/more/n.csv", "1,2\n"}});
    std::string inner = read("inner.zip");
    makeZip(path("outer.zip"), {{"readme.txt", "outer"}, {"inner.zip", std::move(inner), true}});
    const std::string nested = "zip:zip:" + iri("outer.zip") + "!/inner.zip!/";
    auto check = [&](const std::vector<std::string>& args, const std::string& out) {
        const Outcome o = qkfl(args);
        EXPECT_EQ(o.status, 0) << joined(args) << ": " << o.err;
        EXPECT_EQ(o.out, out) << joined(args);
    };
    check({"ls", "zip:" + iri("outer.zip") + "!/"}, "inner.zip\nreadme.txt\n");
    check({"ls", "-R", nested}, "data/\ndata/hello.txt\ndata/more/\ndata/more/n.csv\n");
    check({"ls", "-R", "--match", "*.csv", nested}, "data/more/n.csv\n");
    check({"cat", nested + "data/hello.txt"}, "Hello, nested.\n");
    check({"cp", "--atomic", nested + "data/hello.txt", "out.txt"}, "");
    EXPECT_EQ(read("out.txt"), "Hello, nested.\n");
    EXPECT_TRUE(scratchFiles().empty());

    const Outcome entry = qkfl({"ls", "-l", nested + "data/hello.txt"});
    EXPECT_EQ(entry.out.rfind("----           15 ", 0), 0u) << entry.out;
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
