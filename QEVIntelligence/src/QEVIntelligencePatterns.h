// Reading "name: count" lines of a context back into names and numbers.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Splits at the first ":" that leaves a non-empty piece before it, skipping
// empty pieces: "checkout: 7" gives "checkout" and " 7", ": x: 2" gives " x"
// and " 2", "abc:" gives "abc" alone, "::" gives nothing.
std::vector<std::string_view> splitOnceAtColon(std::string_view line);

// The trimmed names of the first five lines; lines without a name drop out.
std::vector<std::string> patternNames(const std::vector<std::string>& lines);

// Names and counts, in the order a name first appears; a later line of the
// same name replaces the count. Lines without a name, without a count part or
// with a count that is no 64-bit decimal integer (an optional sign allowed)
// are dropped.
std::vector<std::pair<std::string, std::int64_t>> parsePatternCounts(
    const std::vector<std::string>& lines);

// A signed decimal integer with an optional "+" or "-", nothing around it,
// that fits 64 bits.
std::optional<std::int64_t> parseSignedInteger(std::string_view text);

// The sum of the counts of all entries whose lower-cased name contains any
// of `words`; each entry counts once. Saturates instead of overflowing.
std::int64_t weightedCount(const std::vector<std::pair<std::string, std::int64_t>>& counts,
                           std::span<const std::string_view> words);

// Plain, case-sensitive substring test.
inline bool contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}
