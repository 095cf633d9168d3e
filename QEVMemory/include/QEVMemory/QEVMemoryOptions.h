// The limits memory keeps to, and what it reports about its store.
#pragma once

#include <QEVRPlatform/Date.h>
#include <QEVRPlatform/Export.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qevr::json {
class Decoder;
class Writer;
}  // namespace qevr::json

struct QEVR_API QEVMemoryOptions {
  std::int64_t maxDiskUsageMB = 25;   // units of 1,048,576 bytes
  std::int64_t maxEventAgeDays = 30;  // days of 86,400 seconds
  std::int64_t maxSessionCount = 100;
  bool pruningEnabled = true;

  QEVMemoryOptions() = default;
  // Raises a negative number to 0, silently.
  QEVMemoryOptions(std::int64_t maxDiskUsageMB, std::int64_t maxEventAgeDays,
                   std::int64_t maxSessionCount, bool pruningEnabled);

  bool operator==(const QEVMemoryOptions&) const = default;

  // All four keys required; numbers are stored as they stand (the pruner
  // treats negative ones as 0).
  void encode(qevr::json::Writer& writer) const;
  static QEVMemoryOptions decode(const qevr::json::Decoder& decoder);
  std::string toJSON() const;
  static QEVMemoryOptions fromJSON(std::string_view json);
};

struct QEVR_API QEVMemoryStats {
  std::uint64_t estimatedDiskUsageBytes = 0;
  std::int64_t eventChunkCount = 0;
  std::int64_t sessionGraphCount = 0;
  bool hasUserGraph = false;
  std::optional<QEVRDate> oldestEventDate;
  std::optional<QEVRDate> newestEventDate;

  bool operator==(const QEVMemoryStats&) const = default;

  void encode(qevr::json::Writer& writer) const;
  static QEVMemoryStats decode(const qevr::json::Decoder& decoder);
  std::string toJSON() const;
  static QEVMemoryStats fromJSON(std::string_view json);
};
