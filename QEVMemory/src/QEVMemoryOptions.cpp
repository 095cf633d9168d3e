#include <QEVMemory/QEVMemoryOptions.h>

#include <QEVRPlatform/Json.h>

#include <algorithm>

using qevr::json::Decoder;
using qevr::json::Writer;

QEVMemoryOptions::QEVMemoryOptions(std::int64_t diskUsageMB, std::int64_t eventAgeDays,
                                   std::int64_t sessionCount, bool enabled)
    : maxDiskUsageMB(std::max<std::int64_t>(diskUsageMB, 0)),
      maxEventAgeDays(std::max<std::int64_t>(eventAgeDays, 0)),
      maxSessionCount(std::max<std::int64_t>(sessionCount, 0)),
      pruningEnabled(enabled) {}

void QEVMemoryOptions::encode(Writer& writer) const {
  writer.beginObject();
  writer.key("maxDiskUsageMB");
  writer.integer(maxDiskUsageMB);
  writer.key("maxEventAgeDays");
  writer.integer(maxEventAgeDays);
  writer.key("maxSessionCount");
  writer.integer(maxSessionCount);
  writer.key("pruningEnabled");
  writer.boolean(pruningEnabled);
  writer.endObject();
}

QEVMemoryOptions QEVMemoryOptions::decode(const Decoder& decoder) {
  // Not through the clamping constructor: decoded numbers are kept as they
  // stand, and the pruner reads a negative limit as 0 anyway.
  QEVMemoryOptions options;
  options.maxDiskUsageMB = decoder["maxDiskUsageMB"].asInt64();
  options.maxEventAgeDays = decoder["maxEventAgeDays"].asInt64();
  options.maxSessionCount = decoder["maxSessionCount"].asInt64();
  options.pruningEnabled = decoder["pruningEnabled"].asBool();
  return options;
}

std::string QEVMemoryOptions::toJSON() const {
  Writer writer(qevr::json::DateStrategy::iso8601);
  encode(writer);
  return writer.take();
}

QEVMemoryOptions QEVMemoryOptions::fromJSON(std::string_view json) {
  const qevr::json::Value root = qevr::json::parse(json);
  return decode(Decoder(root, qevr::json::DateStrategy::iso8601));
}

void QEVMemoryStats::encode(Writer& writer) const {
  writer.beginObject();
  writer.key("estimatedDiskUsageBytes");
  writer.unsignedInteger(estimatedDiskUsageBytes);
  writer.key("eventChunkCount");
  writer.integer(eventChunkCount);
  writer.key("sessionGraphCount");
  writer.integer(sessionGraphCount);
  writer.key("hasUserGraph");
  writer.boolean(hasUserGraph);
  if (oldestEventDate) {
    writer.key("oldestEventDate");
    writer.date(*oldestEventDate);
  }
  if (newestEventDate) {
    writer.key("newestEventDate");
    writer.date(*newestEventDate);
  }
  writer.endObject();
}

QEVMemoryStats QEVMemoryStats::decode(const Decoder& decoder) {
  QEVMemoryStats stats;
  stats.estimatedDiskUsageBytes = decoder["estimatedDiskUsageBytes"].asUInt64();
  stats.eventChunkCount = decoder["eventChunkCount"].asInt64();
  stats.sessionGraphCount = decoder["sessionGraphCount"].asInt64();
  stats.hasUserGraph = decoder["hasUserGraph"].asBool();
  if (auto d = decoder.optional("oldestEventDate")) stats.oldestEventDate = d->asDate();
  if (auto d = decoder.optional("newestEventDate")) stats.newestEventDate = d->asDate();
  return stats;
}

// Stats are a value handed to the host, not a file: dates go out as seconds
// since 2001, the default, unlike the ISO 8601 text of chunks and graphs.
std::string QEVMemoryStats::toJSON() const {
  Writer writer;
  encode(writer);
  return writer.take();
}

QEVMemoryStats QEVMemoryStats::fromJSON(std::string_view json) {
  const qevr::json::Value root = qevr::json::parse(json);
  return decode(Decoder(root));
}
