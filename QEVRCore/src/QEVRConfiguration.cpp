#include <QEVRCore/QEVRConfiguration.h>

#include <QEVRPlatform/Json.h>

#include <array>
#include <utility>

using qevr::json::Decoder;
using qevr::json::Writer;

namespace {

constexpr std::array<std::pair<std::string_view, QEVREnvironment>, 3> kEnvironments{{
    {"development", QEVREnvironment::development},
    {"staging", QEVREnvironment::staging},
    {"production", QEVREnvironment::production},
}};

constexpr std::array<std::pair<std::string_view, QEVRLogLevel>, 7> kLogLevels{{
    {"trace", QEVRLogLevel::trace},
    {"debug", QEVRLogLevel::debug},
    {"info", QEVRLogLevel::info},
    {"warning", QEVRLogLevel::warning},
    {"error", QEVRLogLevel::error},
    {"critical", QEVRLogLevel::critical},
    {"off", QEVRLogLevel::off},
}};

constexpr std::array<std::pair<std::string_view, QEVRLifecycleState>, 6> kLifecycleStates{{
    {"notStarted", QEVRLifecycleState::notStarted},
    {"starting", QEVRLifecycleState::starting},
    {"running", QEVRLifecycleState::running},
    {"paused", QEVRLifecycleState::paused},
    {"shuttingDown", QEVRLifecycleState::shuttingDown},
    {"shutdown", QEVRLifecycleState::shutdown},
}};

template <typename E, size_t N>
std::string_view nameIn(const std::array<std::pair<std::string_view, E>, N>& table, E value) {
  for (const auto& [name, e] : table) {
    if (e == value) return name;
  }
  return {};
}

}  // namespace

std::string_view labelOf(QEVRLogLevel level) {
  switch (level) {
    case QEVRLogLevel::trace:
      return "TRACE";
    case QEVRLogLevel::debug:
      return "DEBUG";
    case QEVRLogLevel::info:
      return "INFO";
    case QEVRLogLevel::warning:
      return "WARNING";
    case QEVRLogLevel::error:
      return "ERROR";
    case QEVRLogLevel::critical:
      return "CRITICAL";
    case QEVRLogLevel::off:
      return "OFF";
  }
  return "OFF";
}

std::string_view caseNameOf(QEVREnvironment value) {
  return nameIn(kEnvironments, value);
}
std::string_view caseNameOf(QEVRLogLevel value) {
  return nameIn(kLogLevels, value);
}
std::string_view caseNameOf(QEVRLifecycleState value) {
  return nameIn(kLifecycleStates, value);
}

void encodeJSON(Writer& writer, QEVREnvironment value) {
  qevr::json::encodeKeyedEnum(writer, caseNameOf(value));
}
void encodeJSON(Writer& writer, QEVRLogLevel value) {
  qevr::json::encodeKeyedEnum(writer, caseNameOf(value));
}
void encodeJSON(Writer& writer, QEVRLifecycleState value) {
  qevr::json::encodeKeyedEnum(writer, caseNameOf(value));
}

QEVREnvironment decodeEnvironment(const Decoder& decoder) {
  return qevr::json::decodeKeyedEnum<QEVREnvironment>(decoder, kEnvironments);
}
QEVRLogLevel decodeLogLevel(const Decoder& decoder) {
  return qevr::json::decodeKeyedEnum<QEVRLogLevel>(decoder, kLogLevels);
}
QEVRLifecycleState decodeLifecycleState(const Decoder& decoder) {
  return qevr::json::decodeKeyedEnum<QEVRLifecycleState>(decoder, kLifecycleStates);
}

void QEVRConfiguration::encode(Writer& writer) const {
  writer.beginObject();
  writer.key("appId");
  writer.string(appId);
  writer.key("environment");
  encodeJSON(writer, environment);
  writer.key("logLevel");
  encodeJSON(writer, logLevel);
  writer.key("isDiagnosticsEnabled");
  writer.boolean(isDiagnosticsEnabled);
  writer.key("isBackgroundProcessingEnabled");
  writer.boolean(isBackgroundProcessingEnabled);
  writer.key("isOnDeviceAIEnabled");
  writer.boolean(isOnDeviceAIEnabled);
  writer.key("isCloudAIEnabled");
  writer.boolean(isCloudAIEnabled);
  writer.key("isLocalLLMEnabled");
  writer.boolean(isLocalLLMEnabled);
  writer.key("isFallbackRecommendationsEnabled");
  writer.boolean(isFallbackRecommendationsEnabled);
  writer.endObject();
}

QEVRConfiguration QEVRConfiguration::decode(const Decoder& decoder) {
  QEVRConfiguration c;
  c.appId = decoder["appId"].asString();
  c.environment = decodeEnvironment(decoder["environment"]);
  c.logLevel = decodeLogLevel(decoder["logLevel"]);
  c.isDiagnosticsEnabled = decoder["isDiagnosticsEnabled"].asBool();
  c.isBackgroundProcessingEnabled = decoder["isBackgroundProcessingEnabled"].asBool();
  c.isOnDeviceAIEnabled = decoder["isOnDeviceAIEnabled"].asBool();
  c.isCloudAIEnabled = decoder["isCloudAIEnabled"].asBool();
  c.isLocalLLMEnabled = decoder["isLocalLLMEnabled"].asBool();
  c.isFallbackRecommendationsEnabled = decoder["isFallbackRecommendationsEnabled"].asBool();
  return c;
}

std::string QEVRConfiguration::toJSON() const {
  Writer writer;
  encode(writer);
  return writer.take();
}

QEVRConfiguration QEVRConfiguration::fromJSON(std::string_view json) {
  qevr::json::Value root = qevr::json::parse(json);
  return decode(Decoder(root));
}
