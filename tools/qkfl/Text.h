#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <boost/date_time/posix_time/ptime.hpp>

#include "storage/provider/ChangeEvents.h"
#include "storage/provider/Options.h"
#include "storage/provider/StorageIRI.h"

// Text forms the tool prints: UTF-8 everywhere, times in ISO 8601 (the providers' times
// are UTC), byte counts with binary units.
namespace qkfl {

namespace sp = foundation::storage::provider;
namespace ev = foundation::storage::events;

std::string utf8(const std::u16string& text);
std::u16string utf16(std::string_view text);
std::string text(const sp::StorageIRI& location);
// `path` ('/'-separated names) as the path of an IRI: UTF-8, with '%' and every character
// an IRI path cannot hold literally ('#', '?', '!', space, controls...) as '%XX'.
std::string iriPath(const std::u16string& path);

// "2026-03-01 12:00:05", or with `fraction` "2026-03-01T12:00:05.123456Z"; "-" for a time
// that is not a date.
std::string formatTime(const boost::posix_time::ptime& time, bool fraction = false);
// "0 B", "512 B", "1.5 KiB", "3.0 GiB".
std::string formatBytes(std::uint64_t bytes);
// "12s", "3m05s", "1h02m".
std::string formatDuration(double seconds);

// A byte count as coreutils writes it: digits, then optionally a unit K, M, G, T, P, E (also
// Z, Y, R, Q, which overflow), any case, alone or with "iB" for powers of 1024 ("64K",
// "16MiB") or with "B" for powers of 1000 ("1KB" is 1000). A decimal fraction is taken too
// when it comes to whole bytes ("1.5M"). Empty on anything else, or beyond 64 bits.
std::optional<std::uint64_t> parseSize(std::string_view text);

// A truncate size: a byte count as parseSize takes it, optionally after one of coreutils'
// prefixes: '+' extend by, '-' reduce by, '<' at most, '>' at least, '/' round down to a
// multiple of, '%' round up to a multiple of. Empty for "/0" and "%0".
struct SizeChange {
    char prefix = 0;  // 0 for an absolute size
    std::uint64_t value = 0;

    // The new size of a file of `current` bytes; empty when it would not fit in 64 bits.
    // '-' stops at 0.
    std::optional<std::uint64_t> applyTo(std::uint64_t current) const;
};
std::optional<SizeChange> parseSizeChange(std::string_view text);

// The name without its type prefix: "EntryAdded".
std::string kindName(ev::Kind kind);
// A kind from its name, case-insensitively, with or without the "Entry"/"Folder" prefix
// ("added", "EntryAdded", "vanished"). Empty for an unknown name.
std::optional<ev::Kind> parseKind(std::string_view name);
// The bare value name: "AsFile", "RegularFile".
std::string existenceName(sp::ExistenceType type);
std::string existenceName(sp::ExistenceTypeExtended type);

// `value` as a JSON string literal, quotes included.
std::string jsonString(std::string_view value);

}  // namespace qkfl
