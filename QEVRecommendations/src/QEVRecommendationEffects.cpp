// The effect of an applied recommendation: this user's sessions before it
// against the sessions after it, on the figure that fits its action.
#include <QEVRecommendations/QEVRecommendationOutcomes.h>
#include <QEVRecommendations/QEVRecommendationPolicy.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <utility>

namespace {

using A = QEVRecommendationAction;

// One figure per counted session; `counted` false leaves the session out.
struct SessionFigure {
  bool counted = false;
  double value = 0;
};
using Figure = std::function<SessionFigure(const QEVSessionGraph&)>;

struct Side {
  std::int64_t count = 0;
  double mean = 0;
  double variance = 0;  // of the sample, n - 1
};

Side sideOf(const std::vector<double>& values) {
  Side side;
  side.count = static_cast<std::int64_t>(values.size());
  if (values.empty()) return side;
  double sum = 0;
  for (double v : values)
    sum += v;
  side.mean = sum / static_cast<double>(values.size());
  if (values.size() > 1) {
    double squares = 0;
    for (double v : values)
      squares += (v - side.mean) * (v - side.mean);
    side.variance = squares / static_cast<double>(values.size() - 1);
  }
  return side;
}

// The two-sided 95 % point of Student's t for 1 to 30 degrees of freedom;
// past 30 the normal's 1.96 is close enough.
constexpr double kStudentT95[] = {12.706, 4.303, 3.182, 2.776, 2.571, 2.447, 2.365, 2.306,
                                  2.262,  2.228, 2.201, 2.179, 2.160, 2.145, 2.131, 2.120,
                                  2.110,  2.101, 2.093, 2.086, 2.080, 2.074, 2.069, 2.064,
                                  2.060,  2.056, 2.052, 2.048, 2.045, 2.042};

// A change counts when it passes a pooled two-sample t test at 95 %, and
// is larger than 15 % of the figure before and than `smallest`, a floor
// that keeps a figure near zero from calling noise a change. Few sessions
// make the test strict rather than the answer a guess.
QEVRecommendationEffect compare(const Side& before, const Side& after, bool lowerIsBetter,
                                double smallest) {
  if (before.count < kQEVEffectMinimumSessions || after.count < kQEVEffectMinimumSessions) {
    return QEVRecommendationEffect::tooEarly;
  }
  double gain = after.mean - before.mean;
  if (lowerIsBetter) gain = -gain;
  const auto nb = static_cast<double>(before.count), na = static_cast<double>(after.count);
  const double pooled = ((nb - 1) * before.variance + (na - 1) * after.variance) / (nb + na - 2);
  const double error = std::sqrt(pooled * (1 / nb + 1 / na));
  const std::int64_t freedom = before.count + after.count - 2;
  const double t = freedom <= 30 ? kStudentT95[freedom - 1] : 1.96;
  const double threshold = std::max({t * error, 0.15 * std::fabs(before.mean), smallest});
  if (gain > threshold) return QEVRecommendationEffect::improved;
  if (gain < -threshold) return QEVRecommendationEffect::worse;
  return QEVRecommendationEffect::unchanged;
}

bool holds(std::string_view name, const std::string& target) {
  return !target.empty() && normalizedRecommendationKey(name).find(target) != std::string::npos;
}

Figure repeatedInteractions(std::string component) {
  return [component = std::move(component)](const QEVSessionGraph& graph) {
    std::int64_t total = 0;
    for (const auto& interaction : graph.componentInteractions) {
      if (normalizedRecommendationKey(interaction.componentId) == component) {
        total += std::max<std::int64_t>(interaction.tapCount, 0) +
                 std::max<std::int64_t>(interaction.gestureCount, 0);
      }
    }
    return SessionFigure{total > 0, static_cast<double>(total - 1)};
  };
}

SessionFigure failuresAndRetries(const QEVSessionGraph& graph) {
  double failures = 0;
  for (const auto& [name, count] : graph.customEventCounts) {
    const std::string key = normalizedRecommendationKey(name);
    if (key.find("fail") != std::string::npos || key.find("death") != std::string::npos ||
        key.find("retry") != std::string::npos) {
      failures += static_cast<double>(std::max<std::int64_t>(count, 0));
    }
  }
  return SessionFigure{!graph.customEventCounts.empty(), failures};
}

Figure featureUse(std::string feature) {
  return [feature = std::move(feature)](const QEVSessionGraph& graph) {
    bool used = false;
    for (const auto& [name, count] : graph.customEventCounts)
      used = used || (count > 0 && holds(name, feature));
    for (const auto& interaction : graph.componentInteractions)
      used = used || holds(interaction.componentId, feature);
    for (const auto& screen : graph.screenSequence)
      used = used || holds(screen, feature);
    return SessionFigure{true, used ? 1.0 : 0.0};
  };
}

// Screens seen before the first visit of `destination`; not counted when
// the session never got there.
Figure stepsTo(std::string destination) {
  return [destination = std::move(destination)](const QEVSessionGraph& graph) {
    for (std::size_t i = 0; i < graph.screenSequence.size(); ++i) {
      if (normalizedRecommendationKey(graph.screenSequence[i]) == destination) {
        return SessionFigure{true, static_cast<double>(i)};
      }
    }
    return SessionFigure{};
  };
}

Figure reached(std::string destination) {
  return [steps = stepsTo(std::move(destination))](const QEVSessionGraph& graph) {
    return SessionFigure{true, steps(graph).counted ? 1.0 : 0.0};
  };
}

std::optional<QEVRDate> dateOf(const QEVSessionGraph& graph) {
  if (graph.startedAt) return graph.startedAt;
  return graph.endedAt;
}

// The latest kQEVEffectWindowSessions counted sessions on each side. Stored
// dates are whole seconds, so a session is before only if it ended at least
// a second before the application, and after only if it started later
// than it; anything in between may have run across it and is left out.
std::pair<std::vector<double>, std::vector<double>> split(
    const std::vector<std::pair<QEVRDate, const QEVSessionGraph*>>& dated, QEVRDate appliedAt,
    const Figure& figure) {
  std::vector<double> before, after;
  for (auto it = dated.rbegin(); it != dated.rend(); ++it) {
    const QEVSessionGraph& graph = *it->second;
    const QEVRDate last = graph.endedAt ? *graph.endedAt : it->first;
    const bool isAfter = it->first > appliedAt;
    if (!isAfter && last.addingSeconds(1) > appliedAt) continue;
    std::vector<double>& side = isAfter ? after : before;
    if (side.size() >= kQEVEffectWindowSessions) continue;
    const SessionFigure value = figure(graph);
    if (value.counted) side.push_back(value.value);
  }
  return {std::move(before), std::move(after)};
}

}  // namespace

std::optional<QEVRecommendationEffectMeasurement> measureRecommendationEffect(
    const QEVRecommendationOutcomeHistory& history, const std::vector<QEVSessionGraph>& graphs) {
  if (!history.firstAppliedAt) return std::nullopt;

  QEVRecommendationEffectMeasurement measured;
  Figure figure;
  bool lowerIsBetter = true;
  double smallest = 0.5;
  std::optional<std::string> destination;
  const A& action = history.action;
  auto onComponent = [&](const std::optional<std::string>& component) {
    if (!component || normalizedRecommendationKey(*component).empty()) return false;
    measured.signal = QEVRecommendationSignal::repeatedInteractions;
    figure = repeatedInteractions(normalizedRecommendationKey(*component));
    return true;
  };
  if (auto* a = action.getIf<A::ReorderComponent>()) {
    onComponent(a->componentId);
  } else if (auto* h = action.getIf<A::HighlightComponent>()) {
    onComponent(h->componentId);
  } else if (auto* help = action.getIf<A::ShowHelp>()) {
    if (!onComponent(help->componentId) && history.type == QEVRecommendationType::gameplay) {
      measured.signal = QEVRecommendationSignal::failuresAndRetries;
      figure = failuresAndRetries;
    }
  } else if (action.getIf<A::AdjustDifficulty>()) {
    measured.signal = QEVRecommendationSignal::failuresAndRetries;
    figure = failuresAndRetries;
  } else if (auto* f = action.getIf<A::SuggestFeature>()) {
    const std::string feature = normalizedRecommendationKey(f->featureId);
    if (!feature.empty()) {
      measured.signal = QEVRecommendationSignal::featureUse;
      figure = featureUse(feature);
      lowerIsBetter = false;
      smallest = 0.1;
    }
  } else if (auto* s = action.getIf<A::SuggestShortcut>()) {
    if (s->destinationScreen && !normalizedRecommendationKey(*s->destinationScreen).empty()) {
      destination = normalizedRecommendationKey(*s->destinationScreen);
      measured.signal = QEVRecommendationSignal::destinationSteps;
      figure = stepsTo(*destination);
    }
  }
  if (!figure) return std::nullopt;

  std::vector<std::pair<QEVRDate, const QEVSessionGraph*>> dated;
  for (const QEVSessionGraph& graph : graphs) {
    if (auto date = dateOf(graph)) dated.emplace_back(*date, &graph);
  }
  std::stable_sort(dated.begin(), dated.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });

  const auto [beforeValues, afterValues] = split(dated, *history.firstAppliedAt, figure);
  const Side before = sideOf(beforeValues), after = sideOf(afterValues);
  measured.before = before.mean;
  measured.after = after.mean;
  measured.sessionsBefore = before.count;
  measured.sessionsAfter = after.count;
  measured.effect = compare(before, after, lowerIsBetter, smallest);

  if (destination) {
    // Reaching it more often counts as much as reaching it sooner. Thin
    // step counts leave the share alone to decide; a conflict is no change.
    const auto [reachedBefore, reachedAfter] =
        split(dated, *history.firstAppliedAt, reached(*destination));
    const Side shareBefore = sideOf(reachedBefore), shareAfter = sideOf(reachedAfter);
    measured.reachedBefore = shareBefore.mean;
    measured.reachedAfter = shareAfter.mean;
    const QEVRecommendationEffect share = compare(shareBefore, shareAfter, false, 0.1);
    const QEVRecommendationEffect steps = measured.effect;
    using E = QEVRecommendationEffect;
    if (share == E::tooEarly) {
      measured.effect = E::tooEarly;
      measured.sessionsBefore = shareBefore.count;
      measured.sessionsAfter = shareAfter.count;
    } else if (steps == E::tooEarly || steps == E::unchanged) {
      measured.effect = share;
    } else if (share != E::unchanged && share != steps) {
      measured.effect = E::unchanged;
    }
  }
  return measured;
}
