// Helpers that several recommendation sources share. Internal.
#pragma once

#include <QEVRPlatform/Json.h>
#include <QEVRPlatform/Saturating.h>
#include <QEVRPlatform/Text.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qevr::recommendations {

// Blank means empty after trimming; the trimmed form serves the test only.
inline bool isBlank(std::string_view text) {
  return text::isBlank(text);
}

inline std::string trimmed(std::string_view text) {
  return std::string(text::trim(text));
}

// Counts come from files on disk: sums saturate rather than overflow.
using qevr::saturatingAdd;

// Calls `visit(cluster, firstCodePoint)` for each user-perceived character
// of `text`. A character is classified by its first code point, so a letter
// with combining marks is one letter.
template <typename Visit>
void forEachCharacter(std::string_view text, Visit visit) {
  while (!text.empty()) {
    std::string_view cluster = text::graphemePrefix(text, 1);
    if (cluster.empty()) cluster = text.substr(0, 1);  // never stall
    std::size_t position = 0;
    const char32_t first = text::decodeNext(cluster, position).value_or(U'\uFFFD');
    visit(cluster, first);
    text.remove_prefix(cluster.size());
  }
}

template <std::size_t N>
std::optional<std::size_t> indexOf(const std::array<std::string_view, N>& names,
                                   std::string_view raw) {
  for (std::size_t i = 0; i < N; ++i) {
    if (names[i] == raw) return i;
  }
  return std::nullopt;
}

inline void writeOptionalString(json::Writer& writer, std::string_view key,
                                const std::optional<std::string>& value) {
  if (!value) return;
  writer.key(key);
  writer.string(*value);
}

inline std::optional<std::string> readOptionalString(const json::Decoder& decoder,
                                                     std::string_view key) {
  if (auto member = decoder.optional(key)) return member->asString();
  return std::nullopt;
}

}  // namespace qevr::recommendations
