// The C entry points of <QEVR/qevr.h>. Each one checks its arguments, then
// makes one facade call inside guarded(), which keeps every exception on
// this side of the boundary.
#include "QEVRCApiSupport.h"

#include <QEVR/QEVR.h>
#include <QEVR/qevr.h>
#include <QEVRPlatform/FileSystem.h>
#include <QEVRPlatform/Json.h>
#include <QEVRPlatform/Tasks.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <vector>

using namespace qevr::capi;

namespace {

// The appId a configuration without one gets: start refuses a blank one,
// and a host that passes NULL asks for a configuration that works.
constexpr std::string_view kDefaultAppId = "qevr.c-api";

qevr_lifecycle_state toC(QEVRLifecycleState state) {
  switch (state) {
    case QEVRLifecycleState::notStarted:
      return QEVR_STATE_NOT_STARTED;
    case QEVRLifecycleState::starting:
      return QEVR_STATE_STARTING;
    case QEVRLifecycleState::running:
      return QEVR_STATE_RUNNING;
    case QEVRLifecycleState::paused:
      return QEVR_STATE_PAUSED;
    case QEVRLifecycleState::shuttingDown:
      return QEVR_STATE_SHUTTING_DOWN;
    case QEVRLifecycleState::shutdown:
      return QEVR_STATE_SHUTDOWN;
  }
  return QEVR_STATE_NOT_STARTED;
}

// The facade ignores a transition the state does not allow, with only a log
// line; a C host gets a code instead. Another thread may change the state
// between this check and the call: the facade then ignores the call, which
// leaves the system consistent.
void requireState(std::string_view action, std::initializer_list<QEVRLifecycleState> allowed,
                  std::string_view allowedText) {
  const QEVRLifecycleState current = QEVR::lifecycleState();
  for (QEVRLifecycleState state : allowed) {
    if (state == current) return;
  }
  throw Failure(QEVR_ERROR_STATE, "cannot " + std::string(action) + " while the system is " +
                                      std::string(caseNameOf(current)) + "; " +
                                      std::string(action) + " needs " + std::string(allowedText));
}

QEVRConfiguration configurationArgument(const char* json) {
  QEVRConfiguration defaults;
  defaults.appId = kDefaultAppId;
  const std::string completed = completedRecordJSON(json, "configuration_json", defaults.toJSON());
  return decodeArgument("configuration_json",
                        [&] { return QEVRConfiguration::fromJSON(completed); });
}

QEVObserverMetadata metadataArgument(const char* json) {
  const std::optional<std::string_view> text = optionalText(json, "metadata_json");
  if (!text) return {};
  const qevr::json::Value tree = parseArgument(*text, "metadata_json");
  return decodeArgument("metadata_json", [&] {
    const qevr::json::Decoder decoder(tree);
    QEVObserverMetadata metadata;
    for (auto& [key, value] : decoder.members()) {
      metadata.insert_or_assign(key, QEVObserverMetadataValue::decode(value));
    }
    return metadata;
  });
}

std::optional<QEVExperienceDomain> domainArgument(const char* json) {
  const std::optional<std::string_view> text = optionalText(json, "domain_json");
  if (!text) return std::nullopt;
  return decodeArgument("domain_json", [&] { return QEVExperienceDomain::fromJSON(*text); });
}

// Runs one observer call and gives its answer as the C out-parameter.
// `call` checks its own text arguments before it reaches the facade.
template <typename Call>
qevr_status observe(const char* metadataJSON, int* outDispatched, Call&& call) {
  if (outDispatched) *outDispatched = 0;
  return guarded([&] {
    const QEVObserverMetadata metadata = metadataArgument(metadataJSON);
    const bool dispatched = call(metadata);
    if (outDispatched) *outDispatched = dispatched ? 1 : 0;
  });
}

template <typename Record>
std::string encoded(const Record& record) {
  qevr::json::Writer writer;
  record.encode(writer);
  return writer.take();
}

}  // namespace

extern "C" {

const char* qevr_version(void) {
  // A string_view literal is NUL-terminated, but only the literal says so.
  static const std::string text(QEVR::version);
  return text.c_str();
}

const char* qevr_last_error(void) {
  return lastErrorText();
}

const char* qevr_status_name(qevr_status status) {
  switch (status) {
    case QEVR_OK:
      return "QEVR_OK";
    case QEVR_ERROR_INVALID_ARGUMENT:
      return "QEVR_ERROR_INVALID_ARGUMENT";
    case QEVR_ERROR_INVALID_JSON:
      return "QEVR_ERROR_INVALID_JSON";
    case QEVR_ERROR_INVALID_UTF8:
      return "QEVR_ERROR_INVALID_UTF8";
    case QEVR_ERROR_STATE:
      return "QEVR_ERROR_STATE";
    case QEVR_ERROR_UNAVAILABLE:
      return "QEVR_ERROR_UNAVAILABLE";
    case QEVR_ERROR_CANCELLED:
      return "QEVR_ERROR_CANCELLED";
    case QEVR_ERROR_IO:
      return "QEVR_ERROR_IO";
    case QEVR_ERROR_OUT_OF_MEMORY:
      return "QEVR_ERROR_OUT_OF_MEMORY";
    case QEVR_ERROR_INTERNAL:
      return "QEVR_ERROR_INTERNAL";
  }
  return "unknown";
}

void qevr_string_free(char* text) {
  std::free(text);
}

qevr_status qevr_cancel_token_new(qevr_cancel_token** out_token) {
  return guarded([&] {
    if (out_token == nullptr)
      throw Failure(QEVR_ERROR_INVALID_ARGUMENT, "out_token must not be NULL");
    *out_token = new qevr_cancel_token();
  });
}

qevr_status qevr_cancel_token_cancel(qevr_cancel_token* token) {
  return guarded([&] {
    if (token == nullptr) throw Failure(QEVR_ERROR_INVALID_ARGUMENT, "token must not be NULL");
    token->source.request_stop();
  });
}

void qevr_cancel_token_free(qevr_cancel_token* token) {
  delete token;
}

qevr_status qevr_set_data_directory(const char* path) {
  return guarded([&] {
    const std::optional<std::string_view> dir = optionalText(path, "path");
    if (dir && dir->empty()) {
      throw Failure(QEVR_ERROR_INVALID_ARGUMENT,
                    "path must not be empty; pass NULL for the default");
    }
    qevr::setApplicationSupportDirectoryOverride(
        dir ? std::optional<std::filesystem::path>(std::filesystem::path(*dir)) : std::nullopt);
  });
}

qevr_status qevr_wait_for_background_idle(long long timeout_ms, int* out_idle) {
  return guarded([&] {
    if (out_idle == nullptr) {
      throw Failure(QEVR_ERROR_INVALID_ARGUMENT, "out_idle must not be NULL");
    }
    if (timeout_ms < 0) {
      throw Failure(QEVR_ERROR_INVALID_ARGUMENT, "timeout_ms must not be negative");
    }
    *out_idle = 0;
    // A deadline of now + LLONG_MAX ms would overflow the clock; a day is
    // as good as forever here.
    const long long bounded = std::min(timeout_ms, 24LL * 60 * 60 * 1000);
    *out_idle = qevr::waitForBackgroundIdle(std::chrono::milliseconds(bounded)) ? 1 : 0;
  });
}

qevr_status qevr_start(const char* configuration_json) {
  return guarded([&] {
    const QEVRConfiguration configuration = configurationArgument(configuration_json);
    requireState("start", {QEVRLifecycleState::notStarted, QEVRLifecycleState::shutdown},
                 "notStarted or shutdown");
    QEVRRegisterDefaultModules();
    QEVR::start(configuration);
  });
}

qevr_status qevr_pause(void) {
  return guarded([] {
    requireState("pause", {QEVRLifecycleState::running}, "running");
    QEVR::pause();
  });
}

qevr_status qevr_resume(void) {
  return guarded([] {
    requireState("resume", {QEVRLifecycleState::paused}, "paused");
    QEVR::resume();
  });
}

qevr_status qevr_shutdown(void) {
  return guarded([] {
    requireState("shut down", {QEVRLifecycleState::running, QEVRLifecycleState::paused},
                 "running or paused");
    QEVR::shutdown();
  });
}

qevr_lifecycle_state qevr_get_lifecycle_state(void) {
  return toC(QEVR::lifecycleState());
}

const char* qevr_lifecycle_state_name(qevr_lifecycle_state state) {
  switch (state) {
    case QEVR_STATE_NOT_STARTED:
      return "notStarted";
    case QEVR_STATE_STARTING:
      return "starting";
    case QEVR_STATE_RUNNING:
      return "running";
    case QEVR_STATE_PAUSED:
      return "paused";
    case QEVR_STATE_SHUTTING_DOWN:
      return "shuttingDown";
    case QEVR_STATE_SHUTDOWN:
      return "shutdown";
  }
  return "unknown";
}

qevr_status qevr_observer_privacy_options(char** out_json) {
  return guarded([&] {
    prepareOut(out_json, "out_json");
    handOut(out_json, QEVR::Observer::privacyOptions().toJSON());
  });
}

qevr_status qevr_observer_configure(const char* privacy_options_json) {
  return guarded([&] {
    const std::string completed = completedRecordJSON(privacy_options_json, "privacy_options_json",
                                                      QEVObserverPrivacyOptions().toJSON());
    QEVR::Observer::configure(decodeArgument(
        "privacy_options_json", [&] { return QEVObserverPrivacyOptions::fromJSON(completed); }));
  });
}

qevr_status qevr_track(const char* name, const char* metadata_json, int* out_dispatched) {
  return observe(metadata_json, out_dispatched, [&](const QEVObserverMetadata& metadata) {
    return QEVR::Observer::track(requiredText(name, "name"), metadata);
  });
}

qevr_status qevr_screen_view(const char* screen_name, const char* metadata_json,
                             int* out_dispatched) {
  return observe(metadata_json, out_dispatched, [&](const QEVObserverMetadata& metadata) {
    return QEVR::Observer::screenView(requiredText(screen_name, "screen_name"), metadata);
  });
}

qevr_status qevr_screen_disappear(const char* screen_name, const char* metadata_json,
                                  int* out_dispatched) {
  return observe(metadata_json, out_dispatched, [&](const QEVObserverMetadata& metadata) {
    return QEVR::Observer::screenDisappear(requiredText(screen_name, "screen_name"), metadata);
  });
}

qevr_status qevr_navigation(const char* from, const char* to, const char* metadata_json,
                            int* out_dispatched) {
  return observe(metadata_json, out_dispatched, [&](const QEVObserverMetadata& metadata) {
    const std::optional<std::string_view> source = optionalText(from, "from");
    return QEVR::Observer::navigation(source, requiredText(to, "to"), metadata);
  });
}

qevr_status qevr_button_tap(const char* component_id, const char* title, const char* metadata_json,
                            int* out_dispatched) {
  return observe(metadata_json, out_dispatched, [&](const QEVObserverMetadata& metadata) {
    const std::string_view component = requiredText(component_id, "component_id");
    return QEVR::Observer::buttonTap(component, optionalText(title, "title"), metadata);
  });
}

qevr_status qevr_gesture(const char* gesture_type, const char* component_id,
                         const char* metadata_json, int* out_dispatched) {
  return observe(metadata_json, out_dispatched, [&](const QEVObserverMetadata& metadata) {
    const std::string_view raw = requiredText(gesture_type, "gesture_type");
    const std::optional<QEVGestureType> type = gestureTypeFromRawValue(raw);
    if (!type) {
      throw Failure(QEVR_ERROR_INVALID_ARGUMENT,
                    "gesture_type \"" + std::string(raw) +
                        "\" is none of tap, doubleTap, longPress, swipe, pinch, pan, rotate, "
                        "custom");
    }
    return QEVR::Observer::gesture(*type, optionalText(component_id, "component_id"), metadata);
  });
}

qevr_status qevr_memory_options(char** out_json) {
  return guarded([&] {
    prepareOut(out_json, "out_json");
    handOut(out_json, QEVR::Memory::options().toJSON());
  });
}

qevr_status qevr_memory_set_continuity(int enabled) {
  return guarded([&] { QEVR::Memory::setContinuity(enabled != 0); });
}

qevr_status qevr_memory_continuity(int* out_enabled) {
  return guarded([&] {
    if (out_enabled == nullptr)
      throw Failure(QEVR_ERROR_INVALID_ARGUMENT, "out_enabled must not be NULL");
    *out_enabled = QEVR::Memory::continuity() ? 1 : 0;
  });
}

qevr_status qevr_memory_configure(const char* memory_options_json) {
  return guarded([&] {
    const std::string completed = completedRecordJSON(memory_options_json, "memory_options_json",
                                                      QEVMemoryOptions().toJSON());
    QEVR::Memory::configure(decodeArgument("memory_options_json",
                                           [&] { return QEVMemoryOptions::fromJSON(completed); }));
  });
}

qevr_status qevr_memory_stats(qevr_cancel_token* cancel, char** out_json) {
  return guarded([&] {
    prepareOut(out_json, "out_json");
    handOut(out_json, QEVR::Memory::memoryStats(stopTokenOf(cancel)).toJSON());
  });
}

qevr_status qevr_memory_clear(qevr_cancel_token* cancel) {
  return guarded([&] { QEVR::Memory::clearMemory(stopTokenOf(cancel)); });
}

qevr_status qevr_memory_snapshot(qevr_cancel_token* cancel, char** out_json) {
  return guarded([&] {
    prepareOut(out_json, "out_json");
    handOut(out_json, encoded(QEVR::Memory::intelligenceSnapshot(stopTokenOf(cancel))));
  });
}

qevr_status qevr_summarize_behavior(qevr_cancel_token* cancel, char** out_json) {
  return guarded([&] {
    prepareOut(out_json, "out_json");
    handOut(out_json, QEVR::Intelligence::summarizeBehavior(stopTokenOf(cancel)).toJSON());
  });
}

qevr_status qevr_analyze_intent(const char* domain_json, qevr_cancel_token* cancel,
                                char** out_json) {
  return guarded([&] {
    prepareOut(out_json, "out_json");
    const std::optional<QEVExperienceDomain> domain = domainArgument(domain_json);
    handOut(out_json, QEVR::Intelligence::analyzeIntent(domain, stopTokenOf(cancel)).toJSON());
  });
}

qevr_status qevr_detect_frustration(qevr_cancel_token* cancel, char** out_json) {
  return guarded([&] {
    prepareOut(out_json, "out_json");
    handOut(out_json, QEVR::Intelligence::detectFrustration(stopTokenOf(cancel)).toJSON());
  });
}

qevr_status qevr_analyze_skill(const char* domain_json, qevr_cancel_token* cancel,
                               char** out_json) {
  return guarded([&] {
    prepareOut(out_json, "out_json");
    const std::optional<QEVExperienceDomain> domain = domainArgument(domain_json);
    handOut(out_json, QEVR::Intelligence::analyzeSkill(domain, stopTokenOf(cancel)).toJSON());
  });
}

qevr_status qevr_generate(const char* domain_json, const char* policy_json,
                          qevr_cancel_token* cancel, char** out_json) {
  return guarded([&] {
    prepareOut(out_json, "out_json");
    const std::optional<QEVExperienceDomain> domain = domainArgument(domain_json);
    const std::string completed = completedRecordJSON(
        policy_json, "policy_json", QEVRecommendationPolicy::defaultPolicy(domain).toJSON());
    const QEVRecommendationPolicy policy =
        decodeArgument("policy_json", [&] { return QEVRecommendationPolicy::fromJSON(completed); });
    // The facade's domain-less form always applies the default policy, so a
    // policy of the host's own needs a domain to go with it.
    if (!domain && policy != QEVRecommendationPolicy::defaultPolicy(std::nullopt)) {
      throw Failure(QEVR_ERROR_INVALID_ARGUMENT,
                    "policy_json needs domain_json: only the default policy applies without one");
    }
    const std::stop_token stop = stopTokenOf(cancel);
    const std::vector<QEVRecommendation> recommendations =
        domain ? QEVR::Recommendations::generate(*domain, policy, stop)
               : QEVR::Recommendations::generate(stop);
    qevr::json::Writer writer;
    writer.beginArray();
    for (const QEVRecommendation& recommendation : recommendations)
      recommendation.encode(writer);
    writer.endArray();
    handOut(out_json, writer.take());
  });
}

qevr_status qevr_set_outcome_learning(int enabled) {
  return guarded([&] { QEVR::Recommendations::setOutcomeLearning(enabled != 0); });
}

qevr_status qevr_outcome_learning(int* out_enabled) {
  return guarded([&] {
    if (out_enabled == nullptr)
      throw Failure(QEVR_ERROR_INVALID_ARGUMENT, "out_enabled must not be NULL");
    *out_enabled = QEVR::Recommendations::outcomeLearning() ? 1 : 0;
  });
}

qevr_status qevr_record_outcome(const char* recommendation_json, const char* outcome) {
  return guarded([&] {
    const std::string_view json = requiredText(recommendation_json, "recommendation_json");
    const std::string_view text = requiredText(outcome, "outcome");
    const std::optional<QEVRecommendationOutcome> parsed = recommendationOutcomeFromRawValue(text);
    if (!parsed) {
      throw Failure(QEVR_ERROR_INVALID_ARGUMENT,
                    "outcome must be \"shown\", \"applied\" or \"dismissed\"");
    }
    const QEVRecommendation recommendation =
        decodeArgument("recommendation_json", [&] { return QEVRecommendation::fromJSON(json); });
    if (!QEVR::Recommendations::recordOutcome(recommendation, *parsed)) {
      throw Failure(QEVR_ERROR_STATE, "outcome learning is off");
    }
  });
}

qevr_status qevr_outcomes(char** out_json) {
  return guarded([&] {
    prepareOut(out_json, "out_json");
    qevr::json::Writer writer;
    writer.beginArray();
    for (const QEVRecommendationOutcomeHistory& history : QEVR::Recommendations::outcomes())
      history.encode(writer, true);
    writer.endArray();
    handOut(out_json, writer.take());
  });
}

}  // extern "C"
