#include <QEVRecommendations/QEVRecommendationContextBuilder.h>

#include <QEVRPlatform/Tasks.h>

#include "EngineSupport.h"

#include <cmath>
#include <limits>

namespace qr = qevr::recommendations;
using qevr::json::Decoder;
using qevr::json::Writer;

namespace {

constexpr std::size_t kMaxSummaryCharacters = 2000;

// A source's value, or nothing when it failed; cancellation passes through.
template <typename F>
auto guarded(F&& call) -> std::optional<decltype(call())> {
  try {
    return call();
  } catch (const QEVRCancellationError&) {
    throw;
  } catch (...) {
    return std::nullopt;
  }
}

bool isFresh(QEVRDate generatedAt, QEVRDate analysisDate, std::optional<double> maximumAge) {
  if (!maximumAge) return true;
  return generatedAt.secondsSinceReferenceDate - analysisDate.secondsSinceReferenceDate <=
         *maximumAge;
}

std::string cut(const std::string& text) {
  return std::string(qevr::text::graphemePrefix(text, kMaxSummaryCharacters));
}

std::string joined(const std::vector<std::string>& parts, std::string_view separator) {
  std::string out;
  for (const std::string& part : parts) {
    if (part.empty()) continue;
    if (!out.empty()) out.append(separator);
    out.append(part);
  }
  return out;
}

// Whole seconds, truncated towards zero; values beyond the integer range
// (only possible in a hand-made store) are written as the truncated double.
std::string durationText(const std::optional<double>& seconds) {
  if (!seconds || !std::isfinite(*seconds)) return "unknown";
  const double whole = std::trunc(*seconds);
  if (std::fabs(whole) < 9.2e18)
    return std::to_string(static_cast<std::int64_t>(whole)) + " seconds";
  char buffer[400];
  std::snprintf(buffer, sizeof buffer, "%.0f", whole);
  return std::string(buffer) + " seconds";
}

std::optional<QEVBehaviorSummary> sanitized(const QEVBehaviorSummary& s) {
  return guarded([&] {
    return QEVBehaviorSummary(
        redactRecommendationText(s.summary), redactRecommendationTexts(s.dominantScreens),
        redactRecommendationTexts(s.dominantActions), redactRecommendationTexts(s.behaviorPatterns),
        s.confidence, s.generatedAt);
  });
}

std::optional<QEVIntentAnalysis> sanitized(const QEVIntentAnalysis& a) {
  return guarded([&] {
    return QEVIntentAnalysis(redactRecommendationText(a.primaryIntent),
                             redactRecommendationTexts(a.secondaryIntents),
                             redactRecommendationTexts(a.evidence), a.confidence, a.generatedAt);
  });
}

std::optional<QEVFrustrationAnalysis> sanitized(const QEVFrustrationAnalysis& a) {
  return guarded([&] {
    return QEVFrustrationAnalysis(a.level, redactRecommendationTexts(a.signals),
                                  redactRecommendationTexts(a.likelyCauses), a.confidence,
                                  a.generatedAt);
  });
}

std::optional<QEVSkillAnalysis> sanitized(const QEVSkillAnalysis& a) {
  return guarded([&] {
    std::optional<std::string> adjustment;
    if (a.recommendedDifficultyAdjustment) {
      adjustment = redactRecommendationText(*a.recommendedDifficultyAdjustment);
    }
    return QEVSkillAnalysis(a.skillLevel, redactRecommendationTexts(a.evidence),
                            std::move(adjustment), a.confidence, a.generatedAt);
  });
}

template <typename T>
std::optional<T> sanitizedIfFresh(const std::optional<T>& value, QEVRDate generatedAt,
                                  std::optional<double> maximumAge) {
  if (!value || !isFresh(generatedAt, value->generatedAt, maximumAge)) return std::nullopt;
  return sanitized(*value);
}

template <typename T>
void writeOptional(Writer& writer, std::string_view key, const std::optional<T>& value) {
  if (!value) return;
  writer.key(key);
  value->encode(writer);
}

template <typename T>
std::optional<T> readOptional(const Decoder& decoder, std::string_view key) {
  if (auto member = decoder.optional(key)) return T::decode(*member);
  return std::nullopt;
}

}  // namespace

std::string redactRecommendationText(std::string_view text) {
  using qevr::text::RegexReplacer;
  static const RegexReplacer email =
      RegexReplacer::compile(R"([A-Z0-9._%+-]+@[A-Z0-9.-]+\.[A-Z]{2,})", /*caseInsensitive=*/true);
  static const RegexReplacer phone = RegexReplacer::compile(R"(\+?[0-9][0-9 .()\-]{7,}[0-9])");
  static const RegexReplacer secret = RegexReplacer::compile(
      R"((?i)\b(password|token|secret|auth|authorization|cookie)\b\s*[:=]\s*[^,;\n]+)");
  std::string out = email.replaceAll(qevr::text::trim(text), "[redacted]");
  out = phone.replaceAll(out, "[redacted]");
  return secret.replaceAll(out, "$1=[redacted]");
}

std::vector<std::string> redactRecommendationTexts(const std::vector<std::string>& texts) {
  std::vector<std::string> out;
  out.reserve(texts.size());
  for (const std::string& text : texts) {
    std::string redacted = redactRecommendationText(text);
    if (!redacted.empty()) out.push_back(std::move(redacted));
  }
  return out;
}

std::string topItemsFragment(std::string_view title,
                             const std::unordered_map<std::string, std::int64_t>& map) {
  // A partial sort: the stores can hold many keys and only five are shown.
  std::vector<qr::Counted> entries(map.begin(), map.end());
  const std::size_t shown = std::min<std::size_t>(entries.size(), 5);
  std::partial_sort(entries.begin(), entries.begin() + static_cast<std::ptrdiff_t>(shown),
                    entries.end(), qr::byCountThenKey);
  std::vector<std::string> items;
  for (std::size_t i = 0; i < shown; ++i) {
    const std::string key = redactRecommendationText(entries[i].first);
    if (!key.empty()) items.push_back(qr::countLine(key, entries[i].second));
  }
  if (items.empty()) return {};
  std::string out = std::string(title) + ": ";
  for (std::size_t i = 0; i < items.size(); ++i) {
    if (i > 0) out.append(", ");
    out.append(items[i]);
  }
  return out;
}

std::string userGraphSummaryOf(const QEVMemoryIntelligenceSnapshot& snapshot) {
  const std::string text =
      joined({"total sessions: " + std::to_string(snapshot.totalSessions),
              "total events: " + std::to_string(snapshot.totalEvents),
              "average session duration: " + durationText(snapshot.averageSessionDuration),
              topItemsFragment("frequent screens", snapshot.frequentlyVisitedScreens),
              topItemsFragment("frequent components", snapshot.frequentComponents),
              topItemsFragment("frequent custom events", snapshot.frequentCustomEvents)},
             "; ");
  return cut(redactRecommendationText(text));
}

std::string recentSessionSummaryOf(const QEVMemoryIntelligenceSnapshot& snapshot) {
  const std::vector<std::string> sequences =
      redactRecommendationTexts(snapshot.recentScreenSequences);
  const std::string text =
      joined({topItemsFragment("recent navigation", snapshot.recentNavigationPatterns),
              joined(qr::firstOf(sequences, 3), "; ")},
             "; ");
  return cut(redactRecommendationText(text));
}

void QEVRecommendationContext::encode(Writer& writer) const {
  writer.beginObject();
  writeOptional(writer, "behaviorSummary", behaviorSummary);
  writeOptional(writer, "intentAnalysis", intentAnalysis);
  writeOptional(writer, "frustrationAnalysis", frustrationAnalysis);
  writeOptional(writer, "skillAnalysis", skillAnalysis);
  writer.key("userGraphSummary");
  writer.string(userGraphSummary);
  writer.key("recentSessionSummary");
  writer.string(recentSessionSummary);
  writeOptional(writer, "domain", domain);
  writer.key("generatedAt");
  writer.date(generatedAt);
  writer.endObject();
}

QEVRecommendationContext QEVRecommendationContext::decode(const Decoder& decoder) {
  QEVRecommendationContext context;
  context.behaviorSummary = readOptional<QEVBehaviorSummary>(decoder, "behaviorSummary");
  context.intentAnalysis = readOptional<QEVIntentAnalysis>(decoder, "intentAnalysis");
  context.frustrationAnalysis =
      readOptional<QEVFrustrationAnalysis>(decoder, "frustrationAnalysis");
  context.skillAnalysis = readOptional<QEVSkillAnalysis>(decoder, "skillAnalysis");
  context.userGraphSummary = decoder["userGraphSummary"].asString();
  context.recentSessionSummary = decoder["recentSessionSummary"].asString();
  context.domain = readOptional<QEVExperienceDomain>(decoder, "domain");
  context.generatedAt = decoder["generatedAt"].asDate();
  return context;
}

QEVRecommendationContextBuilder::QEVRecommendationContextBuilder(
    std::shared_ptr<const QEVRecommendationIntelligenceProviding> intelligenceProvider,
    std::shared_ptr<const QEVRecommendationMemorySnapshotProviding> memorySnapshotProvider,
    Clock clock, qevr::Executor& taskExecutor)
    : intelligence(std::move(intelligenceProvider)),
      memory(std::move(memorySnapshotProvider)),
      now(std::move(clock)),
      executor(&taskExecutor) {}

QEVRecommendationContext QEVRecommendationContextBuilder::build(
    const std::optional<QEVExperienceDomain>& domain, std::optional<double> maximumAnalysisAge,
    bool includeFrustration, std::stop_token stop) const {
  qevr::checkCancellation(stop);
  constexpr auto kPriority = qevr::TaskPriority::utility;
  auto summary =
      qevr::childTask(*executor, kPriority, stop, [source = intelligence](std::stop_token s) {
        return guarded([&] { return source->summarizeBehavior(s); });
      });
  auto intent = qevr::childTask(*executor, kPriority, stop,
                                [source = intelligence, domain](std::stop_token s) {
                                  return guarded([&] { return source->analyzeIntent(domain, s); });
                                });
  auto frustration =
      qevr::childTask(*executor, kPriority, stop,
                      [source = intelligence, includeFrustration](
                          std::stop_token s) -> std::optional<QEVFrustrationAnalysis> {
                        if (!includeFrustration) return std::nullopt;
                        return guarded([&] { return source->detectFrustration(s); });
                      });
  auto skill = qevr::childTask(*executor, kPriority, stop,
                               [source = intelligence, domain](std::stop_token s) {
                                 return guarded([&] { return source->analyzeSkill(domain, s); });
                               });
  auto snapshot = qevr::childTask(*executor, kPriority, stop, [source = memory](std::stop_token s) {
    return guarded([&] { return source->intelligenceSnapshot(s); });
  });
  const QEVRDate generatedAt = now();

  const qevr::TaskHandle children[] = {summary, intent, frustration, skill, snapshot};
  auto cancelAndWait = [&] {
    for (const qevr::TaskHandle& child : children)
      child.cancel();
    summary.wait();
    intent.wait();
    frustration.wait();
    skill.wait();
    snapshot.wait();
  };

  QEVRecommendationContext context;
  std::optional<QEVMemoryIntelligenceSnapshot> memorySnapshot;
  std::optional<QEVBehaviorSummary> behavior;
  std::optional<QEVIntentAnalysis> intentValue;
  std::optional<QEVFrustrationAnalysis> frustrationValue;
  std::optional<QEVSkillAnalysis> skillValue;
  try {
    behavior = summary.value();
    intentValue = intent.value();
    frustrationValue = frustration.value();
    skillValue = skill.value();
    memorySnapshot = snapshot.value();
  } catch (const QEVRCancellationError&) {
    cancelAndWait();
    throw;
  }

  qevr::checkCancellation(stop);
  context.behaviorSummary = sanitizedIfFresh(behavior, generatedAt, maximumAnalysisAge);
  context.intentAnalysis = sanitizedIfFresh(intentValue, generatedAt, maximumAnalysisAge);
  context.frustrationAnalysis = sanitizedIfFresh(frustrationValue, generatedAt, maximumAnalysisAge);
  context.skillAnalysis = sanitizedIfFresh(skillValue, generatedAt, maximumAnalysisAge);
  if (memorySnapshot) {
    context.userGraphSummary = userGraphSummaryOf(*memorySnapshot);
    context.recentSessionSummary = recentSessionSummaryOf(*memorySnapshot);
  }
  context.domain = domain;
  context.generatedAt = generatedAt;
  return context;
}
