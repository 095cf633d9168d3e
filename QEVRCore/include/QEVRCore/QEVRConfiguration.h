// The start-up record and the core's plain value types.
#pragma once

#include <QEVRPlatform/Export.h>

#include <stdexcept>
#include <string>
#include <string_view>

namespace qevr::json {
class Decoder;
class Writer;
}  // namespace qevr::json

enum class QEVREnvironment { development, staging, production };

// Ordered by severity; the logger compares ordinals. `off` disables all.
enum class QEVRLogLevel {
  trace = 0,
  debug = 1,
  info = 2,
  warning = 3,
  error = 4,
  critical = 5,
  off = 6
};

enum class QEVRLifecycleState { notStarted, starting, running, paused, shuttingDown, shutdown };

// The label a log line shows for the level: "TRACE", "DEBUG", "INFO", ...
QEVR_API std::string_view labelOf(QEVRLogLevel level);
QEVR_API std::string_view caseNameOf(QEVREnvironment value);
QEVR_API std::string_view caseNameOf(QEVRLogLevel value);
QEVR_API std::string_view caseNameOf(QEVRLifecycleState value);

// What the host passes to QEVR::start. No validation of its own: a blank
// `appId` is refused by QEVR::start, not here.
//
// The default values are a configuration that works: a host that names only
// `appId` gets modules whose background work the start's worker tracks, and
// recommendations from the built-in engines, which need no model; no AI
// service is asked for. They are defaults of the C++ record only: the JSON
// form below still needs every key.
struct QEVR_API QEVRConfiguration {
  std::string appId;  // stored exactly as given, not trimmed
  QEVREnvironment environment = QEVREnvironment::production;
  QEVRLogLevel logLevel = QEVRLogLevel::info;
  bool isDiagnosticsEnabled = false;
  bool isBackgroundProcessingEnabled = true;
  bool isOnDeviceAIEnabled = false;
  bool isCloudAIEnabled = false;
  bool isLocalLLMEnabled = false;
  // Without it (and without the three AI flags) the recommendations module
  // starts inactive and every generation is empty.
  bool isFallbackRecommendationsEnabled = true;

  bool operator==(const QEVRConfiguration&) const = default;

  // JSON: an object with all nine keys, all required; the two enums in the
  // keyed form {"production":{}}. Decoding throws qevr::json::DecodingError.
  std::string toJSON() const;
  static QEVRConfiguration fromJSON(std::string_view json);
  void encode(qevr::json::Writer& writer) const;
  static QEVRConfiguration decode(const qevr::json::Decoder& decoder);
};

// Keyed enum forms of the core enums, {"caseName":{}}.
QEVR_API void encodeJSON(qevr::json::Writer& writer, QEVREnvironment value);
QEVR_API void encodeJSON(qevr::json::Writer& writer, QEVRLogLevel value);
QEVR_API void encodeJSON(qevr::json::Writer& writer, QEVRLifecycleState value);
QEVR_API QEVREnvironment decodeEnvironment(const qevr::json::Decoder& decoder);
QEVR_API QEVRLogLevel decodeLogLevel(const qevr::json::Decoder& decoder);
QEVR_API QEVRLifecycleState decodeLifecycleState(const qevr::json::Decoder& decoder);

// The core's public error. One case: invalidConfiguration(message).
class QEVR_API QEVRError : public std::runtime_error {
 public:
  enum class Case { invalidConfiguration };

  static QEVRError invalidConfiguration(std::string message) {
    return QEVRError(Case::invalidConfiguration, std::move(message));
  }

  Case kind() const { return errorCase; }
  const std::string& message() const { return text; }
  // The localised description: the carried message.
  const std::string& errorDescription() const { return text; }

  bool operator==(const QEVRError& other) const {
    return errorCase == other.errorCase && text == other.text;
  }

 private:
  QEVRError(Case c, std::string message)
      : std::runtime_error(message), errorCase(c), text(std::move(message)) {}
  Case errorCase;
  std::string text;
};
