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

std::string iriPath(const std::u16string& path) {
    std::string out;
    for (const char c : utf8(path)) {
        const auto byte = static_cast<unsigned char>(c);
        // '!' ends a container's location; the rest are delimiters or not allowed in an IRI.
        if (byte <= 0x20 || byte == 0x7f || std::string_view("%#?![]\"<>\\^`{|}").find(c) != std::string_view::npos) {
            out += fmt::format("%{:02X}", byte);
        } else {
            out += c;
        }
    }
    return out;
}

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
    std::size_t at = 0;
    auto digits = [&] {
        const std::size_t from = at;
        while (at < text.size() && std::isdigit(static_cast<unsigned char>(text[at])) != 0) ++at;
        return text.substr(from, at - from);
    };
    const std::string_view whole = digits();
    std::string_view fraction;
    if (at < text.size() && text[at] == '.') {
        ++at;
        fraction = digits();
        if (fraction.empty()) return std::nullopt;
    }
    if (whole.empty() || whole.size() > 20 || fraction.size() > 18) return std::nullopt;

    std::string unit(text.substr(at));
    std::transform(unit.begin(), unit.end(), unit.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    unsigned power = 0;
    unsigned base = 1024;
    if (!unit.empty()) {
        const auto found = std::string_view("KMGTPEZYRQ").find(unit[0]);
        if (found == std::string_view::npos) return std::nullopt;
        power = static_cast<unsigned>(found) + 1;
        const std::string_view rest = std::string_view(unit).substr(1);
        if (rest == "B") {
            base = 1000;
        } else if (!rest.empty() && rest != "IB") {
            return std::nullopt;
        }
    }

    // (whole.fraction) * base^power exactly, in 128 bits: everything at most 2^64 * 10^18.
    __extension__ typedef unsigned __int128 Wide;  // __extension__: no -Wpedantic note
    Wide bound = ~std::uint64_t(0);
    for (std::size_t i = 0; i < fraction.size(); ++i) bound *= 10;
    Wide value = 0;
    for (const std::string_view part : {whole, fraction}) {
        for (const char c : part) {
            value = value * 10 + static_cast<unsigned>(c - '0');
            if (value > bound) return std::nullopt;
        }
    }
    for (unsigned i = 0; i < power; ++i) {
        if (value > bound / base) return std::nullopt;
        value *= base;
    }
    for (std::size_t i = 0; i < fraction.size(); ++i) {
        if (value % 10 != 0) return std::nullopt;  // not a whole number of bytes
        value /= 10;
    }
    return static_cast<std::uint64_t>(value);
}

std::optional<SizeChange> parseSizeChange(std::string_view text) {
    SizeChange change;
    if (!text.empty() && std::string_view("+-<>/%").find(text[0]) != std::string_view::npos) {
        change.prefix = text[0];
        text.remove_prefix(1);
    }
    const auto value = parseSize(text);
    if (!value) return std::nullopt;
    change.value = *value;
    if ((change.prefix == '/' || change.prefix == '%') && change.value == 0) return std::nullopt;
    return change;
}

std::optional<std::uint64_t> SizeChange::applyTo(std::uint64_t current) const {
    switch (prefix) {
        case '+':
            if (value > ~std::uint64_t(0) - current) return std::nullopt;
            return current + value;
        case '-': return current > value ? current - value : 0;
        case '<': return std::min(current, value);
        case '>': return std::max(current, value);
        case '/': return value == 0 ? current : current / value * value;
        case '%': {
            if (value == 0) return current;
            const std::uint64_t down = current / value * value;
            if (down == current) return current;
            if (value > ~std::uint64_t(0) - down) return std::nullopt;
            return down + value;
        }
        default: return value;
    }
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
