#include "Text.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <sstream>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <fmt/format.h>

#include "fl/i18n/convert.h"

namespace qkfl {

std::string utf8(const std::u16string& text) { return fl::i18n::to_string(text); }

std::u16string utf16(std::string_view text) { return fl::i18n::to_ustring(text); }

std::string text(const sp::StorageIRI& location) { return utf8(location.toString()); }

std::string formatTime(const boost::posix_time::ptime& time, bool fraction) {
    if (time.is_special()) return "-";
    std::string iso = boost::posix_time::to_iso_extended_string(time);  // 2026-03-01T12:00:05[.123456]
    if (fraction) {
        if (iso.find('.') == std::string::npos) iso += ".000000";
        return iso + "Z";
    }
    iso.resize(std::min<std::size_t>(iso.size(), 19));
    iso[10] = ' ';
    return iso;
}

std::string formatBytes(std::uint64_t bytes) {
    static constexpr std::array<const char*, 6> units{"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (bytes < 1024) return fmt::format("{} B", bytes);
    double value = static_cast<double>(bytes) / 1024;
    std::size_t unit = 0;
    while (value >= 1024 && unit + 1 < units.size()) {
        value /= 1024;
        ++unit;
    }
    return fmt::format("{:.1f} {}", value, units[unit]);
}

std::string formatDuration(double seconds) {
    const auto whole = static_cast<long long>(std::max(0.0, seconds) + 0.5);
    if (whole < 60) return fmt::format("{}s", whole);
    if (whole < 3600) return fmt::format("{}m{:02}s", whole / 60, whole % 60);
    return fmt::format("{}h{:02}m", whole / 3600, whole % 3600 / 60);
}

std::optional<std::uint64_t> parseSize(std::string_view text) {
    std::size_t digits = 0;
    while (digits < text.size() && std::isdigit(static_cast<unsigned char>(text[digits])) != 0) ++digits;
    if (digits == 0 || digits > 19) return std::nullopt;
    std::uint64_t value = std::stoull(std::string(text.substr(0, digits)));
    std::string suffix(text.substr(digits));
    std::transform(suffix.begin(), suffix.end(), suffix.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    if (suffix.size() == 3 && suffix.substr(1) == "IB") suffix.resize(1);
    if (suffix == "B") suffix.clear();
    if (suffix.empty()) return value;
    if (suffix.size() != 1) return std::nullopt;
    const auto at = std::string_view("KMGT").find(suffix[0]);
    if (at == std::string_view::npos) return std::nullopt;
    const unsigned shift = 10 * (static_cast<unsigned>(at) + 1);
    if (value > (~std::uint64_t(0) >> shift)) return std::nullopt;
    return value << shift;
}

std::string kindName(ev::Kind kind) {
    std::ostringstream out;
    out << kind;
    std::string name = out.str();
    const auto colons = name.rfind("::");
    return colons == std::string::npos ? name : name.substr(colons + 2);
}

std::optional<ev::Kind> parseKind(std::string_view name) {
    auto lower = [](std::string_view s) {
        std::string result(s);
        std::transform(result.begin(), result.end(), result.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        return result;
    };
    const std::string wanted = lower(name);
    for (const ev::Kind kind : {ev::Kind::FolderChanged, ev::Kind::FolderVanished, ev::Kind::EntryAdded,
                                ev::Kind::EntryModified, ev::Kind::EntryRemoved}) {
        const std::string full = lower(kindName(kind));
        std::string bare = full;
        for (const std::string_view prefix : {"folder", "entry"}) {
            if (bare.starts_with(prefix)) bare.erase(0, prefix.size());
        }
        if (wanted == full || wanted == bare) return kind;
    }
    return std::nullopt;
}

std::string existenceName(sp::ExistenceType type) {
    std::ostringstream out;
    out << type;
    return out.str();
}

std::string existenceName(sp::ExistenceTypeExtended type) {
    std::ostringstream out;
    out << type;
    return out.str();
}

std::string jsonString(std::string_view value) {
    std::string out = "\"";
    for (const char c : value) {
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    out += fmt::format("\\u{:04x}", static_cast<unsigned>(c));
                } else {
                    out += c;
                }
        }
    }
    return out + "\"";
}

}  // namespace qkfl
