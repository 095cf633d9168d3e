// Builders and fake sources shared by the recommendation tests.
#pragma once

#include <QEVRPlatform/Tasks.h>
#include <QEVRecommendations/QEVFixedRecommendationSources.h>
#include <QEVRecommendations/QEVRecommendation.h>
#include <QEVRecommendations/QEVRecommendationSources.h>

#include <atomic>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace qevr::testing {

inline const QEVRDate kGeneratedAt{800000000.0};

using Strings = std::vector<std::string>;

inline QEVRUUID uuid(std::uint8_t last) {
  QEVRUUID id;
  id.bytes[15] = last;
  return id;
}

inline QEVRecommendation recommendation(
    QEVRecommendationAction action, double confidence = 0.8,
    QEVRecommendationPriority priority = QEVRecommendationPriority::high,
    QEVRecommendationType type = QEVRecommendationType::ui, QEVRUUID id = QEVRUUID::random(),
    QEVRDate createdAt = kGeneratedAt) {
  return QEVRecommendation(id, type, "Title", "Summary.", confidence, priority, "reason", {},
                           std::move(action), createdAt, std::nullopt);
}

inline std::vector<std::string> titlesOf(const std::vector<QEVRecommendation>& list) {
  std::vector<std::string> titles;
  for (const QEVRecommendation& r : list)
    titles.push_back(r.title());
  return titles;
}

inline QEVIntentAnalysis intent(double confidence = 0.7, std::vector<std::string> evidence = {},
                                std::string primary = "browse") {
  return QEVIntentAnalysis(std::move(primary), {}, std::move(evidence), confidence, kGeneratedAt);
}

inline QEVFrustrationAnalysis frustration(QEVFrustrationLevel level, double confidence = 0.7,
                                          std::vector<std::string> signals = {},
                                          std::vector<std::string> causes = {}) {
  return QEVFrustrationAnalysis(level, std::move(signals), std::move(causes), confidence,
                                kGeneratedAt);
}

inline QEVSkillAnalysis skill(QEVSkillLevel level, double confidence = 0.7,
                              std::vector<std::string> evidence = {}) {
  return QEVSkillAnalysis(level, std::move(evidence), std::nullopt, confidence, kGeneratedAt);
}

// A source whose calls are counted, and that fails, answers, or reports a
// cancellation per operation.
class CountingSources final : public QEVRecommendationIntelligenceProviding,
                              public QEVRecommendationMemorySnapshotProviding {
 public:
  enum class Mode { answer, fail, cancel };

  explicit CountingSources(QEVFixedRecommendationSources::Values values) : fixed(values) {}

  Mode summaryMode = Mode::answer, intentMode = Mode::answer, frustrationMode = Mode::answer;
  Mode skillMode = Mode::answer, snapshotMode = Mode::answer;

  mutable std::atomic<int> analysisCalls{0};
  mutable std::atomic<int> frustrationCalls{0};
  mutable std::atomic<int> snapshotCalls{0};

  QEVBehaviorSummary summarizeBehavior(std::stop_token stop) const override {
    return answer(summaryMode, [&] { return fixed.summarizeBehavior(stop); });
  }
  QEVIntentAnalysis analyzeIntent(const std::optional<QEVExperienceDomain>& domain,
                                  std::stop_token stop) const override {
    return answer(intentMode, [&] { return fixed.analyzeIntent(domain, stop); });
  }
  QEVFrustrationAnalysis detectFrustration(std::stop_token stop) const override {
    ++frustrationCalls;
    return answer(frustrationMode, [&] { return fixed.detectFrustration(stop); });
  }
  QEVSkillAnalysis analyzeSkill(const std::optional<QEVExperienceDomain>& domain,
                                std::stop_token stop) const override {
    return answer(skillMode, [&] { return fixed.analyzeSkill(domain, stop); });
  }
  QEVMemoryIntelligenceSnapshot intelligenceSnapshot(std::stop_token stop) const override {
    ++snapshotCalls;
    act(snapshotMode);
    return fixed.intelligenceSnapshot(stop);
  }

 private:
  static void act(Mode mode) {
    if (mode == Mode::fail) throw std::runtime_error("source failed");
    if (mode == Mode::cancel) throw QEVRCancellationError();
  }
  // One analysis call, counted, acted out per `mode`.
  template <typename F>
  std::invoke_result_t<F> answer(Mode mode, F fixedAnswer) const {
    ++analysisCalls;
    act(mode);
    return fixedAnswer();
  }

  QEVFixedRecommendationSources fixed;
};

}  // namespace qevr::testing
