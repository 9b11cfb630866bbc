// qkfl end to end: the built binary run as a child process on files the tests make.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "providers/zip/ZipTestSupport.h"
#include "storage/provider/Version.h"
#include "support/FakeFolder.h"
#include "support/TempFolder.h"

namespace {

namespace fs = std::filesystem;
namespace sp = foundation::storage::provider;
namespace ziptest = sp::zip::ziptest;
using namespace std::chrono_literals;

constexpr auto npos = std::string::npos;

// How a run ended: its exit status (128 + the signal when a signal ended it, -1 when it ran
// past its deadline) and what it wrote.
struct Outcome {
    int status = -1;
    std::string out;
    std::string err;
};

// The whole of what `file` holds, read through a descriptor of its own so that the offset
// a writer shares does not move.
std::string contentOf(std::FILE* file) {
    std::ostringstream content;
    content << std::ifstream("/proc/self/fd/" + std::to_string(::fileno(file)), std::ios::binary).rdbuf();
    return content.str();
}

// qkfl run with `args` in the folder `cwd`, its standard output and error kept in files the
// test reads while it runs. The destructor kills it if it runs on.
class Qkfl {
public:
    Qkfl(std::vector<std::string> args, const std::string& cwd) {
        args.insert(args.begin(), QKFL_TOOL_PATH);
        std::vector<char*> argv;
        for (std::string& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        if ((pid_ = ::fork()) == 0) {  // the child: nothing but what is safe before exec
            ::dup2(::fileno(out_), STDOUT_FILENO);
            ::dup2(::fileno(err_), STDERR_FILENO);
            if (::chdir(cwd.c_str()) == 0) ::execv(QKFL_TOOL_PATH, argv.data());
            ::_exit(127);
        }
    }
    ~Qkfl() {
        if (pid_ > 0 && ::kill(pid_, SIGKILL) == 0) ::waitpid(pid_, nullptr, 0);
        std::fclose(out_);
        std::fclose(err_);
    }

    // The first line of output that holds `text`; empty when `limit` passes first.
    std::optional<std::string> waitForLine(const std::string& text, std::chrono::milliseconds limit) const {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        for (; std::chrono::steady_clock::now() < deadline; std::this_thread::sleep_for(10ms)) {
            std::istringstream lines(contentOf(out_));
            for (std::string line; std::getline(lines, line);) {
                if (line.find(text) != npos) return line;
            }
        }
        return std::nullopt;
    }
    void signal(int number) const { ::kill(pid_, number); }
    Outcome wait(std::chrono::milliseconds limit) {
        int raw = 0;
        if (!sp::fake::eventually([&] { return ::waitpid(pid_, &raw, WNOHANG) == pid_; }, limit)) return {};
        pid_ = -1;
        return {WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw), contentOf(out_), contentOf(err_)};
    }

private:
    pid_t pid_ = -1;
    std::FILE* out_ = std::tmpfile();
    std::FILE* err_ = std::tmpfile();
};

class QkflCli : public ::testing::Test {
protected:
    std::string path(const std::string& name) const { return temp_.path() + "/" + name; }
    std::string iri(const std::string& name = {}) const {
        return "file://" + (name.empty() ? temp_.path() : path(name));
    }
    void write(const std::string& name, const std::string& content) const {
        fs::create_directories(fs::path(path(name)).parent_path());
        std::ofstream(path(name), std::ios::binary) << content;
    }
    // Scratch files of transactional writes: ".<uuid>.tmp.bak".
    std::size_t scratchFiles() const {
        return std::count_if(fs::directory_iterator(temp_.path()), {}, [](const fs::directory_entry& entry) {
            return entry.path().filename().string().starts_with('.') && entry.path().string().ends_with(".tmp.bak");
        });
    }
    Outcome qkfl(const std::vector<std::string>& args) const { return Qkfl(args, temp_.path()).wait(600s); }
    // Makes probe files in `folder` until the watcher reports one: from then on it watches.
    bool untilWatching(const Qkfl& watcher, const std::string& folder) const {
        for (int i = 0; i < 200; ++i) {
            write(folder + "/probe-" + std::to_string(i), "p");
            if (watcher.waitForLine("probe-" + std::to_string(i), 300ms)) return true;
        }
        return false;
    }

    sp::testsupport::TempFolder temp_;
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
    {{"cp", "-n", "--overwrite", "a.txt", "b.txt"}, 2, "", "qkfl: cp: --no-clobber excludes --overwrite"},
    {{"truncate", "12Q", "a.txt"}, 2, "", "qkfl: truncate: SIZE: '12Q' is not a size (1234, 64K, +1M, -1KB)"},
    {{"watch", "--kinds", "added,exploded", "."}, 2, "", "qkfl: watch: --kinds: unknown kind 'exploded'"},
    // Failures: the location, the code and a reason in words; nothing changes.
    {{"cat", "missing.txt"}, 1, "", "qkfl: cat: $F/missing.txt: ErrorCode::ResourceNotFound: no such file or folder"},
    {{"cat", "file://host/x"}, 1, "", "~x: ErrorCode::InvalidLocation: names the host 'host': write file:///PATH"},
    {{"cp", "-n", "a.txt", "sub/b.txt"}, 1, "", "qkfl: cp: $F/sub/b.txt: ErrorCode::ResourceAlreadyExists: already exists"},
    {{"cp", "sub", "copy"}, 1, "", "qkfl: cp: $F/sub: ErrorCode::InvalidLocation: is a folder: cp copies files"},
    {{"cp", "a.txt", "."}, 1, "", "qkfl: cp: $F/a.txt: ErrorCode::InvalidLocation: is the source itself"},
    {{"mv", "sub", "sub"}, 1, "", "qkfl: mv: $F/sub/sub: ErrorCode::InvalidLocation: is inside the source folder"},
    {{"truncate", "-c", "5", "new.bin"}, 1, "", "qkfl: truncate: $F/new.bin: ErrorCode::ResourceNotFound: no such file or folder"},
    {{"ls", "http://example.com/"}, 1, "", "~ErrorCode::InvalidLocation: no provider for the scheme 'http'"},
    {{"ls", "zip:a.zip"}, 1, "", "~qkfl: ls: zip:a.zip: ErrorCode::InvalidLocation: cannot parse it as an IRI: "},
    {{"watch", "--native", "mem:///"}, 1, "", "~UnsupportedOperation: no native change events here (use --poll MS)"},
    // Local paths are literal; 'ls' prints names that paste back in the form given.
    {{"ls", "."}, 0, "a.txt\nbin\nlink\nr#2\nsub/\nz/\n", ""},
    {{"ls", "$F"}, 0, "a.txt\nbin\nlink\nr%232\nsub/\nz/\n", ""},
    {{"cat", "r#2"}, 0, "hash", ""},
    {{"cp", "a.txt", "a:b"}, 0, "", ""},
    {{"cat", "$D/a:b"}, 0, "alpha", ""},
    {{"ls", "-l", "link"}, 0, "~lw-            5 ", ""},
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
    const std::string inner = ziptest::zipOf({{"data/hello.txt", "Hello, nested.\n"}, {"data/more/n.csv", "1,2\n"}});
    write("z/outer.zip",
          ziptest::zipOf({{"readme.txt", "outer"}, {"x#1.txt", "one"}, {"inner.zip", inner, ziptest::Method::Stored}}));

    const std::string zip = "zip:" + iri("z/outer.zip") + "!/";
    auto expand = [&](std::string text) {
        for (const auto& [mark, value] :
             {std::pair<std::string, std::string>{"$D", temp_.path()}, {"$F", iri()}, {"$Z", zip},
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
        SCOPED_TRACE(::testing::PrintToString(args));
        const Outcome o = qkfl(args);
        EXPECT_EQ(o.status, line.status) << o.err;
        EXPECT_TRUE(matches(o.out, expand(line.out))) << o.out;
        EXPECT_TRUE(matches(o.err.substr(0, o.err.find('\n')), expand(line.err))) << o.err;
        EXPECT_TRUE(line.status != 1 || std::count(o.err.begin(), o.err.end(), '\n') == 1) << "one line";
        EXPECT_TRUE(line.status != 2 || o.err.find("\nUsage: qkfl") != npos) << "the usage";
    }
    EXPECT_EQ(scratchFiles(), 0u);

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
    auto check = [&](const std::string& source, bool atomic) {
        write("target.bin", "old");
        std::vector<std::string> args{"cp", "--bwlimit", "4M", source, "target.bin"};
        if (atomic) args.insert(args.begin() + 1, "--atomic");
        Qkfl copy(args, temp_.path());
        // Under way: an atomic copy writes its scratch file, a plain one the target itself.
        ASSERT_TRUE(sp::fake::eventually(
            [&] { return atomic ? scratchFiles() > 0 : fs::file_size(path("target.bin")) >= (4u << 20); }, 120s))
            << ::testing::PrintToString(args);
        copy.signal(SIGINT);
        const Outcome o = copy.wait(120s);
        EXPECT_EQ(o.status, 130) << ::testing::PrintToString(args);
        EXPECT_EQ(o.err, "qkfl: cp: " + iri("target.bin") + ": interrupted, " +
                              (atomic ? "the target is as it was\n" : "the target holds what was copied so far\n"));
        EXPECT_EQ(scratchFiles(), 0u) << ::testing::PrintToString(args);
        std::ostringstream held;
        held << std::ifstream(path("target.bin")).rdbuf();
        EXPECT_TRUE(atomic ? held.str() == "old" : held.str().size() > 3 && held.str().size() < big.size());
    };
    check("big.bin", true);   // an atomic copy
    check("big.bin", false);  // streamed into the target itself
}

TEST_F(QkflCli, WatchPrintsOneLinePerEventUntilItsFolderGoes) {
    fs::create_directories(path("w"));
    Qkfl watch({"watch", "--poll", "50", "--json", "--kinds", "added,EntryRemoved", path("w")}, temp_.path());
    ASSERT_TRUE(untilWatching(watch, "w"));
    write("w/new.txt", "n");
    EXPECT_EQ(watch.waitForLine("new.txt", 60s), R"({"kind":"EntryAdded","type":"file","folder":")" +
                                                             iri("w") + R"(","entry":")" + iri("w/new.txt") +
                                                             R"("})");
    fs::remove(path("w/new.txt"));
    ASSERT_TRUE(watch.waitForLine("EntryRemoved", 60s));
    // FolderVanished is not shown, yet the watch ends with the folder.
    fs::remove_all(path("w"));
    const Outcome o = watch.wait(60s);
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.err, "");
    std::istringstream lines(o.out);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_TRUE(line.find("EntryAdded") != npos || line.find("EntryRemoved") != npos) << line;
    }
}

TEST_F(QkflCli, DemoRunsItsTourAndRemovesItsSample) {
    const Outcome o = qkfl({"demo"});
    ASSERT_EQ(o.status, 0) << o.err;
    EXPECT_EQ(o.err, "");
    const std::string prefix = "qkfl demo: a short tour in ";
    ASSERT_EQ(o.out.rfind(prefix, 0), 0u) << o.out;
    EXPECT_FALSE(fs::exists(o.out.substr(prefix.size(), o.out.find('\n') - prefix.size()))) << o.out;
    for (const char* expected : {"-> tree/hello.txt: completed, \"Hello from inside two zip files!\"\n",
                                 "EntryRemoved   tree/todo.txt\n", " is gone\n"}) {
        EXPECT_NE(o.out.find(expected), npos) << expected << "\n" << o.out;
    }
}

}  // namespace
