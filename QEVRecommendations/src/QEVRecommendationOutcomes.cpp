#include <QEVRecommendations/QEVRecommendationOutcomes.h>
#include <QEVRecommendations/QEVRecommendationPolicy.h>

#include "RecommendationSupport.h"

#include <algorithm>
#include <array>
#include <map>
#include <numeric>
#include <unordered_set>

using qevr::json::Decoder;
using qevr::json::DecodingError;
using qevr::json::Writer;

namespace {

constexpr std::array<std::string_view, 3> kOutcomes = {"shown", "applied", "dismissed"};
constexpr std::array<std::string_view, 4> kEffects = {"improved", "unchanged", "worse", "tooEarly"};
constexpr std::array<std::string_view, 4> kSignals = {"repeatedInteractions", "failuresAndRetries",
                                                      "featureUse", "destinationSteps"};
constexpr std::string_view kLogFormat = "qevr-outcomes/1";
constexpr double kSecondsPerDay = 86400;

std::string norm(const std::optional<std::string>& text) {
  return text ? normalizedRecommendationKey(*text) : std::string();
}

// The part of an action that stays the same while the advice does: what it
// acts on, never how much (a position, a delta's size) or why.
std::string targetOf(const QEVRecommendationAction& action) {
  using A = QEVRecommendationAction;
  if (auto* a = action.getIf<A::ReorderComponent>()) {
    return normalizedRecommendationKey(a->componentId) + "|" + norm(a->screenName);
  }
  if (auto* a = action.getIf<A::HighlightComponent>()) {
    return normalizedRecommendationKey(a->componentId) + "|" + norm(a->screenName);
  }
  if (auto* a = action.getIf<A::HideComponent>()) {
    return normalizedRecommendationKey(a->componentId) + "|" + norm(a->screenName);
  }
  if (auto* a = action.getIf<A::SuggestShortcut>()) {
    return norm(a->sourceScreen) + ">" + norm(a->destinationScreen) + "|" + norm(a->componentId) +
           "|" + norm(a->shortcutId);
  }
  if (auto* a = action.getIf<A::SuggestFeature>()) return normalizedRecommendationKey(a->featureId);
  if (auto* a = action.getIf<A::AdjustDifficulty>()) {
    std::string direction = a->difficultyDelta < 0 ? "decrease" : "increase";
    if (a->targetGameMode) direction += "|" + norm(a->targetGameMode);
    return direction;
  }
  if (auto* a = action.getIf<A::ShowHelp>()) {
    return norm(a->componentId) + "|" + norm(a->featureId) + "|" + norm(a->screenName);
  }
  const auto& payload = action.getIf<A::Custom>()->customPayload;
  std::map<std::string, std::string> sorted;
  for (const auto& [key, value] : payload) {
    sorted[normalizedRecommendationKey(key)] = normalizedRecommendationKey(value);
  }
  std::string target;
  for (const auto& [key, value] : sorted) {
    if (!target.empty()) target += "|";
    target += key + "=" + value;
  }
  return target;
}

std::int64_t decodeCount(const Decoder& decoder) {
  const std::int64_t count = decoder.asInt64();
  if (count < 0) decoder.fail(DecodingError::Kind::dataCorrupted, "A count is never negative");
  return count;
}

}  // namespace

std::string_view rawValueOf(QEVRecommendationOutcome outcome) {
  return kOutcomes[static_cast<std::size_t>(outcome)];
}

std::string_view rawValueOf(QEVRecommendationEffect effect) {
  return kEffects[static_cast<std::size_t>(effect)];
}

std::string_view rawValueOf(QEVRecommendationSignal signal) {
  return kSignals[static_cast<std::size_t>(signal)];
}

std::optional<QEVRecommendationOutcome> recommendationOutcomeFromRawValue(std::string_view raw) {
  if (auto index = qevr::recommendations::indexOf(kOutcomes, raw)) {
    return static_cast<QEVRecommendationOutcome>(*index);
  }
  return std::nullopt;
}

std::string recommendationOutcomeKey(const QEVRecommendation& recommendation) {
  return std::string(rawValueOf(recommendation.type())) + "/" +
         std::string(recommendation.action().kindText()) + "/" + targetOf(recommendation.action());
}

void QEVRecommendationEffectMeasurement::encode(Writer& writer) const {
  writer.beginObject();
  writer.key("effect");
  writer.string(rawValueOf(effect));
  writer.key("signal");
  writer.string(rawValueOf(signal));
  writer.key("sessionsBefore");
  writer.integer(sessionsBefore);
  writer.key("sessionsAfter");
  writer.integer(sessionsAfter);
  writer.key("before");
  writer.number(before);
  writer.key("after");
  writer.number(after);
  if (reachedBefore) {
    writer.key("reachedBefore");
    writer.number(*reachedBefore);
  }
  if (reachedAfter) {
    writer.key("reachedAfter");
    writer.number(*reachedAfter);
  }
  writer.endObject();
}

void QEVRecommendationOutcomeHistory::encode(Writer& writer, bool withFindings) const {
  writer.beginObject();
  writer.key("key");
  writer.string(key);
  writer.key("type");
  writer.string(rawValueOf(type));
  writer.key("title");
  writer.string(title);
  writer.key("action");
  action.encode(writer);
  writer.key("shown");
  writer.integer(shownCount);
  writer.key("applied");
  writer.integer(appliedCount);
  writer.key("dismissed");
  writer.integer(dismissedCount);
  writer.key("firstRecordedAt");
  writer.date(firstRecordedAt);
  writer.key("lastRecordedAt");
  writer.date(lastRecordedAt);
  if (firstAppliedAt) {
    writer.key("firstAppliedAt");
    writer.date(*firstAppliedAt);
  }
  writer.key("dismissedAt");
  writer.beginArray();
  for (const QEVRDate& date : dismissedAt)
    writer.date(date);
  writer.endArray();
  if (withFindings) {
    if (effect) {
      writer.key("effect");
      effect->encode(writer);
    }
    writer.key("isHeldBack");
    writer.boolean(isHeldBack);
  }
  writer.endObject();
}

QEVRecommendationOutcomeHistory QEVRecommendationOutcomeHistory::decode(const Decoder& decoder) {
  QEVRecommendationOutcomeHistory history;
  history.key = decoder["key"].asString();
  if (history.key.empty()) decoder.fail(DecodingError::Kind::dataCorrupted, "An empty key");
  const std::optional<QEVRecommendationType> type =
      recommendationTypeFromRawValue(decoder["type"].asString());
  if (!type) decoder["type"].fail(DecodingError::Kind::dataCorrupted, "Unknown type");
  history.type = *type;
  history.title = decoder["title"].asString();
  history.action = QEVRecommendationAction::decode(decoder["action"]);
  history.shownCount = decodeCount(decoder["shown"]);
  history.appliedCount = decodeCount(decoder["applied"]);
  history.dismissedCount = decodeCount(decoder["dismissed"]);
  history.firstRecordedAt = decoder["firstRecordedAt"].asDate();
  history.lastRecordedAt = decoder["lastRecordedAt"].asDate();
  if (auto applied = decoder.optional("firstAppliedAt")) history.firstAppliedAt = applied->asDate();
  const Decoder dismissals = decoder["dismissedAt"];
  if (dismissals.size() > kKeptDismissals) {
    dismissals.fail(DecodingError::Kind::dataCorrupted, "Too many dismissals kept");
  }
  for (std::size_t i = 0; i < dismissals.size(); ++i)
    history.dismissedAt.push_back(dismissals.at(i).asDate());
  return history;
}

void QEVRecommendationOutcomeLog::record(const QEVRecommendation& recommendation,
                                         QEVRecommendationOutcome outcome, QEVRDate at) {
  const std::string key = recommendationOutcomeKey(recommendation);
  auto found = std::find_if(entries.begin(), entries.end(),
                            [&](const QEVRecommendationOutcomeHistory& h) { return h.key == key; });
  if (found == entries.end()) {
    QEVRecommendationOutcomeHistory fresh;
    fresh.key = key;
    fresh.firstRecordedAt = at;
    entries.push_back(std::move(fresh));
    found = entries.end() - 1;
  }
  QEVRecommendationOutcomeHistory& history = *found;
  history.type = recommendation.type();
  history.title = recommendation.title();
  history.action = recommendation.action();
  history.lastRecordedAt = std::max(history.lastRecordedAt, at);
  switch (outcome) {
    case QEVRecommendationOutcome::shown:
      history.shownCount = qevr::saturatingAdd(history.shownCount, std::int64_t{1});
      break;
    case QEVRecommendationOutcome::applied:
      history.appliedCount = qevr::saturatingAdd(history.appliedCount, std::int64_t{1});
      if (!history.firstAppliedAt || at < *history.firstAppliedAt) history.firstAppliedAt = at;
      break;
    case QEVRecommendationOutcome::dismissed:
      history.dismissedCount = qevr::saturatingAdd(history.dismissedCount, std::int64_t{1});
      history.dismissedAt.insert(
          std::upper_bound(history.dismissedAt.begin(), history.dismissedAt.end(), at), at);
      if (history.dismissedAt.size() > QEVRecommendationOutcomeHistory::kKeptDismissals) {
        history.dismissedAt.erase(history.dismissedAt.begin());
      }
      break;
  }
}

void QEVRecommendationOutcomeLog::trim(QEVRDate now) {
  const QEVRDate cutoff = now.addingSeconds(-kMaxAgeDays * kSecondsPerDay);
  std::erase_if(
      entries, [&](const QEVRecommendationOutcomeHistory& h) { return h.lastRecordedAt < cutoff; });
  if (entries.size() <= kMaxEntries) return;
  // The most recently recorded stay, in first-seen order; of equal dates
  // the later seen.
  std::vector<std::size_t> order(entries.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
    return entries[a].lastRecordedAt > entries[b].lastRecordedAt ||
           (entries[a].lastRecordedAt == entries[b].lastRecordedAt && a > b);
  });
  order.resize(kMaxEntries);
  std::sort(order.begin(), order.end());
  std::vector<QEVRecommendationOutcomeHistory> kept;
  kept.reserve(order.size());
  for (std::size_t index : order)
    kept.push_back(std::move(entries[index]));
  entries = std::move(kept);
}

const QEVRecommendationOutcomeHistory* QEVRecommendationOutcomeLog::find(
    std::string_view key) const {
  for (const auto& history : entries) {
    if (history.key == key) return &history;
  }
  return nullptr;
}

std::string QEVRecommendationOutcomeLog::toJSON() const {
  Writer writer;
  writer.beginObject();
  writer.key("format");
  writer.string(kLogFormat);
  writer.key("histories");
  writer.beginArray();
  for (const auto& history : entries)
    history.encode(writer, false);
  writer.endArray();
  writer.endObject();
  return writer.take();
}

QEVRecommendationOutcomeLog QEVRecommendationOutcomeLog::fromJSON(std::string_view json) {
  const qevr::json::Value root = qevr::json::parse(json);
  const Decoder decoder(root);
  if (decoder["format"].asString() != kLogFormat) {
    decoder["format"].fail(DecodingError::Kind::dataCorrupted, "Not an outcome log");
  }
  const Decoder histories = decoder["histories"];
  if (histories.size() > kMaxEntries) {
    histories.fail(DecodingError::Kind::dataCorrupted, "Too many histories");
  }
  QEVRecommendationOutcomeLog log;
  std::unordered_set<std::string> keys;
  for (std::size_t i = 0; i < histories.size(); ++i) {
    QEVRecommendationOutcomeHistory history =
        QEVRecommendationOutcomeHistory::decode(histories.at(i));
    if (!keys.insert(history.key).second) {
      histories.at(i).fail(DecodingError::Kind::dataCorrupted, "A key twice");
    }
    log.entries.push_back(std::move(history));
  }
  return log;
}

bool isHeldBackByOutcomes(const QEVRecommendationOutcomeHistory& history, QEVRDate now) {
  if (history.dismissedAt.size() >= 2 &&
      now < history.dismissedAt.back().addingSeconds(kQEVDismissalHoldDays * kSecondsPerDay)) {
    return true;
  }
  if (history.firstAppliedAt) {
    return !history.effect || history.effect->effect != QEVRecommendationEffect::worse;
  }
  return false;
}
