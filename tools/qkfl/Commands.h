#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Registry.h"
#include "Text.h"
#include "storage/provider/ChangeEvents.h"
#include "storage/provider/Options.h"

// The commands of qkfl. Each returns the process's exit status and throws what fails:
// Exception (reported with its location and ErrorCode), BadLocation, or any other
// std::exception (reported with the argument concerned).
namespace qkfl {

namespace ev = foundation::storage::events;

// Exit statuses.
constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr int kExitInterrupted = 130;  // 128 + SIGINT, as shells report it

struct LsOptions {
    bool longFormat = false;
    bool recursive = false;
    bool namesOnly = false;
    std::string match;
    std::string location;
};

struct CopyOptions {
    bool atomic = false;
    sp::ReplacementPolicy policy = sp::ReplacementPolicy::Overwrite;
    std::uint64_t bytesPerSecond = 0;
    std::string source;
    std::string target;
};

struct WatchOptions {
    std::optional<unsigned> pollMilliseconds;
    bool native = false;
    bool recursive = false;
    bool json = false;
    std::vector<ev::Kind> kinds;
    std::string folder;
};

int runLs(const ProviderRegistry& registry, const LsOptions& options);
int runStat(const ProviderRegistry& registry, const std::string& location);
int runCat(const ProviderRegistry& registry, const std::string& location);
int runCp(const ProviderRegistry& registry, const CopyOptions& options);
int runMv(const ProviderRegistry& registry, const CopyOptions& options);
int runRm(const ProviderRegistry& registry, bool recursive, const std::string& location);
int runMkdir(const ProviderRegistry& registry, bool parents, const std::string& location);
// Makes a missing file first when `create`.
int runTruncate(const ProviderRegistry& registry, const SizeChange& size, bool create, const std::string& location);
int runWatch(const ProviderRegistry& registry, const WatchOptions& options);
int runDemo(const ProviderRegistry& registry);

}  // namespace qkfl
