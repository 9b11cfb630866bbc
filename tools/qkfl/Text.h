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

// "2026-03-01 12:00:05", or with `fraction` "2026-03-01T12:00:05.123456Z"; "-" for a time
// that is not a date.
std::string formatTime(const boost::posix_time::ptime& time, bool fraction = false);
// "0 B", "512 B", "1.5 KiB", "3.0 GiB".
std::string formatBytes(std::uint64_t bytes);
// "12s", "3m05s", "1h02m".
std::string formatDuration(double seconds);

// "1234", "4K", "16M", "2G" (binary multiples, optional "iB"/"B"). Empty on anything else.
std::optional<std::uint64_t> parseSize(std::string_view text);

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
