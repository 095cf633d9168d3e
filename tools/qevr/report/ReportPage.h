// What the report page shows, and the page itself: one self-contained HTML
// file with inline CSS, SVG and script, and no reference to anything
// outside it.
#pragma once

#include "GraphLayout.h"

#include <QEVIntelligence/QEVIntelligenceModels.h>
#include <QEVMemory/QEVMemoryIntelligenceSnapshot.h>
#include <QEVRecommendations/QEVRecommendation.h>
#include <QEVRecommendations/QEVRecommendationOutcomes.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace report {

struct ReportSession {
  std::optional<QEVRDate> startedAt;
  std::optional<double> durationSeconds;
  std::int64_t eventCount = 0;
  // True when memory kept no session graph and the session was put back
  // together from its stored events.
  bool rebuiltFromEvents = false;
};

struct ReportCount {
  std::string name;
  std::int64_t count = 0;
  bool hotSpot = false;  // named by a frustration signal
};

struct FlowNode {
  std::string label;
  std::int64_t visits = 0;
  bool isEntry = false;  // stands for "arrived from nowhere recorded"
  bool hotSpot = false;  // a frustration hot spot was used on this screen
};

struct FlowEdge {
  std::size_t from = 0;
  std::size_t to = 0;
  std::int64_t count = 0;
};

// One recommendation and the page sections (element ids) of the analyses
// that led to it, the most direct first.
struct ReportRecommendation {
  QEVRecommendation recommendation;
  std::vector<std::string> sources;
};

// The outcome log as the report read it. Each history carries its effect
// (measured over the store's session graphs) and whether outcome learning
// holds it back at the report's time.
struct ReportOutcomes {
  // Why the log could not be read or decoded, in one line.
  std::optional<std::string> failure;
  std::vector<QEVRecommendationOutcomeHistory> histories;  // as recorded
};

struct ReportModel {
  std::string storePath;
  QEVRDate generatedAt;
  std::string domainLabel;  // "any" when no domain was given
  QEVMemoryIntelligenceSnapshot snapshot;
  std::uint64_t diskUsageBytes = 0;

  std::vector<ReportSession> sessions;  // oldest first
  std::size_t sessionsLeftOut = 0;      // older sessions not charted

  std::vector<FlowNode> nodes;
  std::vector<FlowEdge> edges;
  GraphLayout layout;
  std::string layoutName;  // "Graphviz dot" or "builtin layered layout"
  std::string layoutNote;  // why dot was not used, when it was wanted
  std::size_t nodesLeftOut = 0;
  std::size_t edgesLeftOut = 0;

  std::vector<ReportCount> components;  // most used first
  std::size_t componentsLeftOut = 0;
  std::vector<ReportCount> customEvents;
  std::size_t customEventsLeftOut = 0;

  std::optional<QEVBehaviorSummary> behavior;
  std::optional<QEVIntentAnalysis> intent;
  std::optional<QEVFrustrationAnalysis> frustration;
  std::optional<QEVSkillAnalysis> skill;
  std::vector<ReportRecommendation> recommendations;  // as ranked
  ReportOutcomes outcomes;
};

// The section ids a recommendation links to: the analysis its type comes
// from, then every analysis that one of its evidence lines quotes.
std::vector<std::string> sourceSectionsOf(const QEVRecommendation& recommendation,
                                          const ReportModel& model);

// The whole page. Every text from the model is escaped; the data the page's
// script reads travels as script-safe JSON.
std::string renderReportPage(const ReportModel& model);

}  // namespace report
