#include "QEVIntelligencePatterns.h"

#include <QEVRPlatform/Saturating.h>
#include <QEVRPlatform/Text.h>

#include <charconv>

std::vector<std::string_view> splitOnceAtColon(std::string_view line) {
  std::vector<std::string_view> pieces;
  std::size_t start = 0;
  for (std::size_t at = line.find(':'); at != std::string_view::npos; at = line.find(':', start)) {
    const bool empty = at == start;
    if (!empty) pieces.push_back(line.substr(start, at - start));
    start = at + 1;
    if (!empty) break;
  }
  if (start < line.size()) pieces.push_back(line.substr(start));
  return pieces;
}

std::vector<std::string> patternNames(const std::vector<std::string>& lines) {
  constexpr std::size_t kMaxNames = 5;
  std::vector<std::string> names;
  for (std::size_t i = 0; i < lines.size() && i < kMaxNames; ++i) {
    const std::vector<std::string_view> pieces = splitOnceAtColon(lines[i]);
    if (pieces.empty()) continue;
    const std::string_view name = qevr::text::trim(pieces.front());
    if (!name.empty()) names.emplace_back(name);
  }
  return names;
}

std::optional<std::int64_t> parseSignedInteger(std::string_view text) {
  if (!text.empty() && text.front() == '+') {
    text.remove_prefix(1);
    if (!text.empty() && text.front() == '-') return std::nullopt;
  }
  if (text.empty()) return std::nullopt;
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::vector<std::pair<std::string, std::int64_t>> parsePatternCounts(
    const std::vector<std::string>& lines) {
  std::vector<std::pair<std::string, std::int64_t>> counts;
  for (const std::string& line : lines) {
    const std::vector<std::string_view> pieces = splitOnceAtColon(line);
    if (pieces.size() < 2) continue;
    const std::string_view name = qevr::text::trim(pieces[0]);
    if (name.empty()) continue;
    const std::optional<std::int64_t> count = parseSignedInteger(qevr::text::trim(pieces[1]));
    if (!count) continue;
    bool replaced = false;
    for (auto& entry : counts) {
      if (entry.first == name) {
        entry.second = *count;
        replaced = true;
      }
    }
    if (!replaced) counts.emplace_back(std::string(name), *count);
  }
  return counts;
}

std::int64_t weightedCount(const std::vector<std::pair<std::string, std::int64_t>>& counts,
                           std::span<const std::string_view> words) {
  std::int64_t total = 0;
  for (const auto& [name, count] : counts) {
    const std::string lowered = qevr::text::lowercased(name);
    for (std::string_view word : words) {
      if (contains(lowered, word)) {
        total = qevr::saturatingAdd(total, count);
        break;
      }
    }
  }
  return total;
}
