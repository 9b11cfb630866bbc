// qkfl: files and folders of any provider from the shell.
#include <cstdio>
#include <deque>
#include <functional>
#include <iostream>
#include <string>
#include <string_view>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "Commands.h"
#include "Registry.h"
#include "Text.h"
#include "storage/provider/ByteStream.h"
#include "storage/provider/ErrorCode.h"
#include "storage/provider/Exception.h"
#include "storage/provider/Version.h"

namespace {

using namespace qkfl;

constexpr const char* kLocations = R"(
Locations: an IRI or a local path.
  file:///home/me/a.txt         the local file system
  mem:///notes/a.txt            a memory store that lives as long as the command
  zip:file:///tmp/a.zip!/x.txt  an entry of a zip archive (read-only)
  zip:zip:file:///tmp/a.zip!/inner.zip!/x.txt
                                an entry of a zip inside a zip, to any depth
  a.txt, ../b, /tmp/c, 'r#2'    local paths, relative to the working folder, taken
                                literally: 'r#2' is the file named r#2
  Text that is not an IRI is a local path (a:b); write ./zip:x or ./c:/d for a relative
  path that would read as one.
In an IRI, write these characters of a name as '%' and two hex digits:
  '#' %23   '?' %3F   '!' %21   '%' %25   space %20
  so file:///tmp/r%232 is /tmp/r#2 and zip:file:///tmp/my%20files.zip!/50%25.txt is the
  entry 50%.txt of '/tmp/my files.zip'. Letters beyond ASCII may be written as they are
  (file:///tmp/café) or as their UTF-8 bytes (file:///tmp/caf%C3%A9). 'ls' prints names in
  the form of the folder given: IRI-encoded under an IRI, literal under a local path.

Exit status: 0 done, 1 failed (one line: qkfl: COMMAND: LOCATION: ErrorCode::CODE: REASON),
2 wrong usage, 130 interrupted.
)";

constexpr const char* kKindNames = "FolderChanged, FolderVanished, EntryAdded, EntryModified, EntryRemoved";

// "qkfl: COMMAND: LOCATION: MESSAGE", or without the location when there is none.
void printFailure(const std::string& command, const std::string& location, const std::string& message) {
    std::fflush(stdout);
    if (location.empty()) {
        fmt::print(stderr, "qkfl: {}: {}\n", command, message);
    } else {
        fmt::print(stderr, "qkfl: {}: {}: {}\n", command, location, message);
    }
}

// A few words for each code, for failures that carry no reason of their own.
const char* words(sp::ErrorCode code) {
    switch (code) {
        case sp::ErrorCode::FolderNotEmpty: return "the folder is not empty";
        case sp::ErrorCode::InvalidLocation: return "not a location this command can use";
        case sp::ErrorCode::PermissionDenied: return "permission denied";
        case sp::ErrorCode::ResourceAlreadyExists: return "already exists";
        case sp::ErrorCode::ResourceNotFound: return "no such file or folder";
        case sp::ErrorCode::FileTooLarge: return "too large for this storage";
        case sp::ErrorCode::ResourceInUse: return "in use";
        case sp::ErrorCode::ReadOnlyProvider: return "the storage is read-only";
        case sp::ErrorCode::NoSpaceLeft: return "no space left";
        case sp::ErrorCode::IOError: return "input/output error";
        case sp::ErrorCode::InternalError: return "internal error";
        case sp::ErrorCode::UnsupportedOperation: return "not supported by this provider";
        case sp::ErrorCode::Unknown: break;
    }
    return "failed for an unknown reason";
}

std::string describe(sp::ErrorCode code, std::string_view reason) {
    return sp::toString(code) + ": " + std::string(reason);
}

// "ErrorCode::Name: reason", the reason being the exception's contexts (top first) or the
// code's words.
std::string describe(sp::ErrorCode code, const std::deque<sp::ExceptionContext>& contexts = {}) {
    std::string reason;
    for (const sp::ExceptionContext& context : contexts) {
        reason += (reason.empty() ? "" : ": ") + utf8(context.getExceptionContextKey());
    }
    return describe(code, reason.empty() ? words(code) : reason);
}

// Runs a command; a failure becomes one line on standard error and exit status 1. Failures
// without a location of their own are reported with `argument`.
int run(const std::string& command, const std::string& argument, const std::function<int()>& body) {
    try {
        return body();
    } catch (const sp::Exception& e) {
        printFailure(command, text(e.getStorageIRI()), describe(e.getErrorCode(), e.getAllExceptionContexts()));
    } catch (const BadLocation& e) {
        printFailure(command, e.text, describe(sp::ErrorCode::InvalidLocation, e.reason));
    } catch (const sp::ChangeEventsNotSupportedException& e) {
        printFailure(command, text(e.getStorageIRI()),
                     describe(sp::ErrorCode::UnsupportedOperation, "no native change events here (use --poll MS)"));
    } catch (const sp::ChangeEventsSubscriptionException& e) {
        printFailure(command, text(e.getStorageIRI()),
                     describe(sp::ErrorCode::IOError, "the system refused a subscription to change events"));
    } catch (const sp::ByteStreamFailure& e) {
        printFailure(command, argument, describe(e.getErrorCode()));
    } catch (const std::exception& e) {
        printFailure(command, argument, describe(sp::ErrorCode::Unknown, e.what()));
    }
    return kExitFailure;
}

// The validator's description stays empty: CLI11 would append it to the option's type name.
CLI::Validator sizeValidator(const char* name) {
    return CLI::Validator(
        [](std::string& value) -> std::string {
            return parseSize(value) ? std::string() : "'" + value + "' is not a size (1234, 64K, 16M, 2G)";
        },
        "", name);
}

// The error, the usage line of the command concerned and where to read more. Without a
// command, the error names what was given instead.
std::string usageFailure(const CLI::App* app, const CLI::Error& e) {
    const CLI::App* failed = app;
    std::string name = app->get_name();
    while (!failed->get_subcommands().empty()) {
        failed = failed->get_subcommands().front();
        name += " " + failed->get_name();
    }
    std::string what = e.what();
    if (failed == app) {
        const std::vector<std::string> given = app->remaining();
        if (given.empty()) {
            what = "no command given";
        } else if (given.front().starts_with("-")) {
            what = "unknown option '" + given.front() + "'";
        } else {
            what = "unknown command '" + given.front() + "'";
        }
    }
    std::string message = fmt::format("qkfl: {}{}\n", failed == app ? "" : failed->get_name() + ": ", what);
    message += CLI::Formatter().make_usage(failed, name);
    if (failed == app) {
        std::string commands;
        for (const CLI::App* command : app->get_subcommands({})) commands += " " + command->get_name();
        message += "Commands:" + commands + "\n";
    }
    return message + fmt::format("Run '{} --help' for more.\n", name);
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app(fmt::format("qkfl {}: list, read, copy, move and watch files in any storage provider",
                             sp::libraryVersion()),
                 "qkfl");
    // Subcommands take the footer they are made with; the overview's own is set at the end.
    app.footer(kLocations);
    app.require_subcommand(1);
    app.set_version_flag("--version", fmt::format("qkfl {}", sp::libraryVersion()), "Print the library's version");
    app.failure_message(usageFailure);
    bool insecure = false;
    app.add_flag("--insecure", insecure,
                 "Accept any TLS certificate of a davs:// server (certificates are verified by default)");

    LsOptions ls;
    auto* lsCmd = app.add_subcommand("ls", "List a folder, or show one file");
    lsCmd->add_flag("-l,--long", ls.longFormat,
                    "One entry a line: type (- file, d folder, l symbolic link), w when writable, h when hidden, "
                    "size in bytes, last-modified time (UTC), name");
    lsCmd->add_flag("-R,--recursive", ls.recursive, "Everything below the folder, as paths relative to it");
    lsCmd->add_flag("--names-only", ls.namesOnly, "Ask the provider for names and kinds only (cheaper, no -l)")
        ->excludes("--long");
    lsCmd->add_option("--match", ls.match, "Only names matching GLOB ('*', '?', '[...]'; the last element with -R)")
        ->type_name("GLOB");
    lsCmd->add_option("LOCATION", ls.location, "The folder or file")->type_name("")->required();

    std::string statLocation;
    auto* statCmd = app.add_subcommand("stat", "Show existence kind, size, time, flags and storage information");
    statCmd->add_option("LOCATION", statLocation, "The file or folder")->type_name("")->required();

    std::string catLocation;
    auto* catCmd = app.add_subcommand("cat", "Write a file's bytes to standard output");
    catCmd->add_option("LOCATION", catLocation, "The file")->type_name("")->required();

    CopyOptions cp;
    std::string cpRate;
    bool cpNoClobber = false;
    bool cpOverwrite = false;
    auto* cpCmd = app.add_subcommand("cp", "Copy a file, between any two providers");
    cpCmd->add_flag("--atomic", cp.atomic,
                    "Readers of TARGET see its old content or the whole copy, never a part; an interrupted copy "
                    "leaves TARGET as it was");
    auto* cpKeep = cpCmd->add_flag("-n,--no-clobber", cpNoClobber, "Fail if TARGET exists (ResourceAlreadyExists)");
    cpCmd->add_flag("--overwrite", cpOverwrite, "Replace an existing TARGET (the default)")->excludes(cpKeep);
    cpCmd->add_option("--bwlimit", cpRate, "Copy at most RATE bytes a second (64K, 16M...)")
        ->type_name("RATE")
        ->check(sizeValidator("RATE"));
    cpCmd->add_option("SOURCE", cp.source, "The file to copy")->type_name("")->required();
    cpCmd->add_option("TARGET", cp.target, "The new file, or an existing folder to copy into")->type_name("")->required();
    cpCmd->footer(std::string(kLocations) +
                  "\nA terminal shows a progress bar on standard error. Ctrl-C stops the copy (exit 130); a "
                  "second Ctrl-C ends qkfl at once.");

    CopyOptions mv;
    bool mvNoClobber = false;
    bool mvOverwrite = false;
    auto* mvCmd = app.add_subcommand("mv", "Move a file or folder (files also between providers)");
    auto* mvKeep = mvCmd->add_flag("-n,--no-clobber", mvNoClobber, "Fail if TARGET exists (ResourceAlreadyExists)");
    mvCmd->add_flag("--overwrite", mvOverwrite, "Replace an existing TARGET (the default)")->excludes(mvKeep);
    mvCmd->add_option("SOURCE", mv.source, "The file or folder to move")->type_name("")->required();
    mvCmd->add_option("TARGET", mv.target, "Its new location, or an existing folder to move into")->type_name("")->required();
    mvCmd->footer(std::string(kLocations) + "\nBetween two providers a file is copied atomically, then removed.");

    bool rmRecursive = false;
    std::string rmLocation;
    auto* rmCmd = app.add_subcommand("rm", "Remove a file or an empty folder");
    rmCmd->add_flag("-r,--recursive", rmRecursive, "Remove a folder with everything in it");
    rmCmd->add_option("LOCATION", rmLocation, "The file or folder")->type_name("")->required();

    bool mkdirParents = false;
    std::string mkdirLocation;
    auto* mkdirCmd = app.add_subcommand("mkdir", "Make a folder");
    mkdirCmd->add_flag("-p,--parents", mkdirParents, "Make missing parents too; an existing folder is fine");
    mkdirCmd->add_option("LOCATION", mkdirLocation, "The new folder")->type_name("")->required();

    std::string truncateSize;
    bool truncateNoCreate = false;
    std::string truncateLocation;
    auto* truncateCmd = app.add_subcommand("truncate", "Shrink or extend a file to SIZE bytes (zeros at the end)");
    truncateCmd->add_flag("-c,--no-create", truncateNoCreate, "Fail on a missing file instead of making it");
    truncateCmd->add_option("SIZE", truncateSize,
                            "The new size: 1234, 64K (KiB, 1024), 64KB (1000), M, G, T...; with +, -, <, >, / or % "
                            "to extend by, reduce by, at most, at least, round down or up to a multiple of")
        ->type_name("")->required()
        ->check(CLI::Validator(
            [](std::string& value) -> std::string {
                return parseSizeChange(value) ? std::string() : "'" + value + "' is not a size (1234, 64K, +1M, -1KB)";
            },
            "", "SIZE"));
    truncateCmd->add_option("LOCATION", truncateLocation, "The file")->type_name("")->required();

    WatchOptions watch;
    std::vector<std::string> watchKinds;
    unsigned pollMilliseconds = 0;
    auto* watchCmd = app.add_subcommand("watch", "Print the changes in a folder until interrupted");
    auto* pollOption = watchCmd->add_option("--poll", pollMilliseconds,
                                            "Compare the folder with a snapshot every MS milliseconds (any provider)");
    pollOption->type_name("MS")->check(CLI::Range(1u, 3'600'000u));
    watchCmd->add_flag("--native", watch.native,
                       "Use the provider's own notification, failing where it has none (default: native where "
                       "available, else polling every second)")
        ->excludes(pollOption);
    watchCmd->add_option("--kinds", watchKinds, std::string("Only these kinds (comma-separated): ") + kKindNames +
                                                    "; the short forms changed, vanished, added, modified, removed")
        ->type_name("LIST")
        ->delimiter(',')
        ->check(CLI::Validator(
            [](std::string& value) -> std::string {
                return parseKind(value) ? std::string() : "unknown kind '" + value + "'";
            },
            "", "KIND"));
    watchCmd->add_flag("-R,--recursive", watch.recursive, "Watch the whole tree below the folder");
    watchCmd->add_flag("--json", watch.json,
                       R"(One JSON object a line: {"kind":..,"type":"file"|"folder","folder":..,"entry":..})");
    watchCmd->add_option("FOLDER", watch.folder, "The folder to watch")->type_name("")->required();
    watchCmd->footer(std::string(kLocations) +
                     "\nOne line per event: KIND TYPE LOCATION. Ends on Ctrl-C or when the folder vanishes.");

    app.add_subcommand("demo", "A short tour on a sample it makes in a temporary folder");
    app.footer(std::string(kLocations) + "Run 'qkfl COMMAND --help' for one command.");

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        // Without a command, every command's options.
        std::cout << app.help("", app.get_subcommands().empty() ? CLI::AppFormatMode::All : CLI::AppFormatMode::Normal);
        return kExitOk;
    } catch (const CLI::ParseError& e) {
        const int status = app.exit(e);
        return status == 0 ? kExitOk : kExitUsage;
    }

    const ProviderRegistry registry(insecure);
    if (*lsCmd) return run("ls", ls.location, [&] { return runLs(registry, ls); });
    if (*statCmd) return run("stat", statLocation, [&] { return runStat(registry, statLocation); });
    if (*catCmd) return run("cat", catLocation, [&] { return runCat(registry, catLocation); });
    if (*cpCmd) {
        cp.policy = cpNoClobber ? sp::ReplacementPolicy::NoClobber : sp::ReplacementPolicy::Overwrite;
        cp.bytesPerSecond = cpRate.empty() ? 0 : *parseSize(cpRate);
        return run("cp", cp.source, [&] { return runCp(registry, cp); });
    }
    if (*mvCmd) {
        mv.policy = mvNoClobber ? sp::ReplacementPolicy::NoClobber : sp::ReplacementPolicy::Overwrite;
        return run("mv", mv.source, [&] { return runMv(registry, mv); });
    }
    if (*rmCmd) return run("rm", rmLocation, [&] { return runRm(registry, rmRecursive, rmLocation); });
    if (*mkdirCmd) return run("mkdir", mkdirLocation, [&] { return runMkdir(registry, mkdirParents, mkdirLocation); });
    if (*truncateCmd) {
        return run("truncate", truncateLocation,
                   [&] { return runTruncate(registry, *parseSizeChange(truncateSize), !truncateNoCreate, truncateLocation); });
    }
    if (*watchCmd) {
        if (pollOption->count() > 0) watch.pollMilliseconds = pollMilliseconds;
        for (const std::string& kind : watchKinds) watch.kinds.push_back(*parseKind(kind));
        return run("watch", watch.folder, [&] { return runWatch(registry, watch); });
    }
    return run("demo", {}, [&] { return runDemo(registry); });
}
