// JSON pieces that several memory records share. Internal to QEVMemory.
#pragma once

#include <QEVRPlatform/Json.h>
#include <QEVRPlatform/Saturating.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>

namespace qevr::memory {

using CountMap = std::unordered_map<std::string, std::int64_t>;

// Adds a count read from a file to a total. Files may hold any 64-bit
// value, so the sum sticks at the limit it passes instead of overflowing.
inline void addSaturating(std::int64_t& total, std::int64_t amount) {
  total = saturatingAdd(total, amount);
}

// A map of names to counts, as a JSON object.
inline void writeCounts(json::Writer& writer, const CountMap& counts) {
  writer.beginObject();
  for (const auto& [name, count] : counts) {
    writer.key(name);
    writer.integer(count);
  }
  writer.endObject();
}

inline CountMap readCounts(const json::Decoder& decoder) {
  CountMap counts;
  for (const auto& [name, value] : decoder.members())
    counts.insert_or_assign(name, value.asInt64());
  return counts;
}

// The number of elements of an array. Anything else fails as at() does,
// with the usual "Expected an array" text; size() alone would accept an
// object.
inline std::size_t arraySize(const json::Decoder& decoder) {
  if (!decoder.isArray()) decoder.at(0);
  return decoder.size();
}

}  // namespace qevr::memory
