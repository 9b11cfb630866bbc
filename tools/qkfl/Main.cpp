// qkfl: files and folders of any provider from the shell.
#include <cstdio>
#include <functional>
#include <iostream>
#include <string>

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
  a.txt, ../b, /tmp/c           local paths, relative to the working folder
                                (write ./a:b for a relative name with a ':')

Exit status: 0 done, 1 failed (one line: qkfl: COMMAND: LOCATION: ErrorCode::...),
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

std::string describe(sp::ErrorCode code, const std::u16string& contexts) {
    std::string message = sp::toString(code);
    if (!contexts.empty()) message += ": " + utf8(contexts);
    return message;
}

// Runs a command; a failure becomes one line on standard error and exit status 1. Failures
// without a location of their own are reported with `argument`.
int run(const std::string& command, const std::string& argument, const std::function<int()>& body) {
    try {
        return body();
    } catch (const sp::Exception& e) {
        printFailure(command, text(e.getStorageIRI()), describe(e.getErrorCode(), e.getExceptionContextsString()));
    } catch (const BadLocation& e) {
        printFailure(command, e.text, describe(sp::ErrorCode::InvalidLocation, utf16(e.reason)));
    } catch (const sp::ChangeEventsNotSupportedException& e) {
        printFailure(command, text(e.getStorageIRI()),
                     describe(sp::ErrorCode::UnsupportedOperation, u"no native change events here (use --poll MS)"));
    } catch (const sp::ChangeEventsSubscriptionException& e) {
        printFailure(command, text(e.getStorageIRI()),
                     describe(sp::ErrorCode::IOError, u"the system refused a subscription to change events"));
    } catch (const sp::ByteStreamFailure& e) {
        printFailure(command, argument, describe(e.getErrorCode(), {}));
    } catch (const std::exception& e) {
        printFailure(command, argument, e.what());
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

// The error, the usage line of the command concerned and where to read more.
std::string usageFailure(const CLI::App* app, const CLI::Error& e) {
    const CLI::App* failed = app;
    std::string name = app->get_name();
    while (!failed->get_subcommands().empty()) {
        failed = failed->get_subcommands().front();
        name += " " + failed->get_name();
    }
    std::string message = fmt::format("qkfl: {}{}\n", failed == app ? "" : failed->get_name() + ": ", e.what());
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
    app.require_subcommand(0, 1);
    app.failure_message(usageFailure);

    LsOptions ls;
    auto* lsCmd = app.add_subcommand("ls", "List a folder, or show one file");
    lsCmd->add_flag("-l,--long", ls.longFormat,
                    "One entry a line: type and flags (d folder, w writable, h hidden, l symbolic link), size in "
                    "bytes, last-modified time (UTC), name");
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
    std::string truncateLocation;
    auto* truncateCmd = app.add_subcommand("truncate", "Shrink or extend a file to SIZE bytes (zeros at the end)");
    truncateCmd->add_option("SIZE", truncateSize, "The new size: 1234, 64K, 16M, 2G")
        ->type_name("")->required()
        ->check(sizeValidator("SIZE"));
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

    auto* demoCmd = app.add_subcommand("demo", "A short tour on a sample it makes in a temporary folder");
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

    const ProviderRegistry registry;
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
                   [&] { return runTruncate(registry, *parseSize(truncateSize), truncateLocation); });
    }
    if (*watchCmd) {
        if (pollOption->count() > 0) watch.pollMilliseconds = pollMilliseconds;
        for (const std::string& kind : watchKinds) watch.kinds.push_back(*parseKind(kind));
        return run("watch", watch.folder, [&] { return runWatch(registry, watch); });
    }
    if (*demoCmd) return run("demo", {}, [&] { return runDemo(registry); });

    // No command: the overview.
    std::cout << app.help();
    return kExitOk;
}
