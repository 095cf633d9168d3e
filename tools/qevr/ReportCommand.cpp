#include "ReportCommand.h"

#include "InspectionSupport.h"
#include "StoreReader.h"
#include "report/GraphLayout.h"
#include "report/ReportPage.h"

#include <QEVIntelligence/QEVFixedIntelligenceSnapshotProvider.h>
#include <QEVIntelligence/QEVIntelligenceAnalyzers.h>
#include <QEVRPlatform/FileSystem.h>
#include <QEVRPlatform/Tasks.h>
#include <QEVRecommendations/QEVFixedRecommendationSources.h>
#include <QEVRecommendations/QEVRecommendationOutcomes.h>
#include <QEVRecommendations/QEVRecommendationPolicy.h>
#include <QEVRecommendations/QEVRecommendationSources.h>
#include <QEVRecommendations/QEVRecommendationsGenerator.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>

namespace fs = std::filesystem;
using namespace report;

namespace {

constexpr std::size_t kMaxChartedSessions = 120;
constexpr std::size_t kMaxListedComponents = 20;
constexpr std::size_t kMaxListedEvents = 15;

// The analyses run as `qevr analyze` runs them; one that fails is left out
// of the page rather than failing it.
template <typename Compute>
auto attempt(Compute compute) -> std::optional<decltype(compute())> {
  try {
    return compute();
  } catch (const QEVRCancellationError&) {
    throw;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

// True when `id` appears in `text` as a whole word, so that a component
// called "a" is not found inside every signal.
bool mentions(const std::string& text, const std::string& id) {
  if (id.empty()) return false;
  for (std::size_t at = text.find(id); at != std::string::npos; at = text.find(id, at + 1)) {
    const bool startsWord = at == 0 || text[at - 1] == ' ';
    const bool endsWord = at + id.size() == text.size() || text[at + id.size()] == ' ';
    if (startsWord && endsWord) return true;
  }
  return false;
}

std::vector<ReportCount> topCounts(const std::unordered_map<std::string, std::int64_t>& counts,
                                   std::size_t limit, std::size_t& leftOut) {
  std::vector<ReportCount> rows;
  rows.reserve(counts.size());
  for (const auto& [name, count] : counts)
    rows.push_back({name, count, false});
  std::sort(rows.begin(), rows.end(), [](const ReportCount& a, const ReportCount& b) {
    return a.count != b.count ? a.count > b.count : a.name < b.name;
  });
  leftOut = rows.size() > limit ? rows.size() - limit : 0;
  if (rows.size() > limit) rows.resize(limit);
  return rows;
}

// Every session the store knows: its session graphs, and the sessions whose
// graphs memory no longer keeps, folded again from their stored events.
std::vector<std::pair<QEVSessionGraph, bool>> sessionsOf(
    std::vector<QEVSessionGraph> graphs, const std::vector<QEVMemoryEventChunk>& chunks) {
  std::set<std::string> known;
  std::vector<std::pair<QEVSessionGraph, bool>> sessions;
  for (QEVSessionGraph& graph : graphs) {
    if (graph.sessionId) known.insert(graph.sessionId->uuidString());
    sessions.emplace_back(std::move(graph), false);
  }
  std::map<std::string, std::vector<const QEVMemoryEvent*>> orphans;
  for (const QEVMemoryEventChunk& chunk : chunks) {
    for (const QEVMemoryEvent& event : chunk.events) {
      if (!event.sessionId) continue;
      const std::string id = event.sessionId->uuidString();
      if (!known.contains(id)) orphans[id].push_back(&event);
    }
  }
  for (auto& [id, events] : orphans) {
    std::stable_sort(events.begin(), events.end(), [](const auto* a, const auto* b) {
      return a->timestamp != b->timestamp ? a->timestamp < b->timestamp
                                          : a->sequenceNumber < b->sequenceNumber;
    });
    QEVSessionGraphBuilder builder;
    for (const QEVMemoryEvent* event : events)
      builder.ingest(*event);
    QEVSessionGraph graph = builder.build();
    graph.startedAt = graph.startedAt.value_or(events.front()->timestamp);
    graph.endedAt = graph.endedAt.value_or(events.back()->timestamp);
    graph.duration =
        graph.endedAt->secondsSinceReferenceDate - graph.startedAt->secondsSinceReferenceDate;
    sessions.emplace_back(std::move(graph), true);
  }
  // Undated sessions first, in the order the store gave them.
  std::stable_sort(sessions.begin(), sessions.end(), [](const auto& a, const auto& b) {
    return a.first.startedAt < b.first.startedAt;
  });
  return sessions;
}

void fillSessions(ReportModel& model,
                  const std::vector<std::pair<QEVSessionGraph, bool>>& sessions) {
  const std::size_t first =
      sessions.size() > kMaxChartedSessions ? sessions.size() - kMaxChartedSessions : 0;
  model.sessionsLeftOut = first;
  for (std::size_t i = first; i < sessions.size(); ++i) {
    const QEVSessionGraph& graph = sessions[i].first;
    model.sessions.push_back(
        {graph.startedAt, graph.duration, graph.eventCount, sessions[i].second});
  }
}

// Screens and moves of all sessions, cut to what a page can show: the most
// visited screens, then the heaviest moves between them.
void fillFlow(ReportModel& model, const std::vector<std::pair<QEVSessionGraph, bool>>& sessions,
              const std::set<std::string>& hotComponents) {
  std::map<std::string, std::int64_t> visits;
  std::map<std::pair<std::optional<std::string>, std::string>, std::int64_t> moves;
  // A hot component marks the screen where it was used most, not every
  // screen it appears on (a menu button is everywhere).
  std::map<std::string, std::map<std::string, std::int64_t>> hotUse;  // component -> screen -> uses
  for (const auto& [graph, rebuilt] : sessions) {
    for (const std::string& screen : graph.screenSequence)
      ++visits[screen];
    for (const QEVNavigationEdge& edge : graph.navigationEdges) {
      moves[{edge.from, edge.to}] += edge.count;
      visits.try_emplace(edge.to, 0);
      if (edge.from) visits.try_emplace(*edge.from, 0);
    }
    for (const QEVComponentInteractionSummary& c : graph.componentInteractions) {
      if (c.screenName && hotComponents.contains(c.componentId))
        hotUse[c.componentId][*c.screenName] += c.tapCount + c.gestureCount;
    }
  }
  std::set<std::string> hotScreens;
  for (const auto& [component, screens] : hotUse) {
    const auto most =
        std::max_element(screens.begin(), screens.end(),
                         [](const auto& a, const auto& b) { return a.second < b.second; });
    hotScreens.insert(most->first);
  }
  if (sessions.empty()) {
    // Nothing but the user graph's totals: the screens without moves.
    for (const auto& [screen, count] : model.snapshot.frequentlyVisitedScreens)
      visits[screen] = count;
  }

  std::map<std::string, std::int64_t> weight = visits;
  for (const auto& [key, count] : moves) {
    weight[key.second] += count;
    if (key.first) weight[*key.first] += count;
  }
  std::vector<std::string> screens;
  screens.reserve(weight.size());
  for (const auto& [screen, w] : weight)
    screens.push_back(screen);
  std::stable_sort(screens.begin(), screens.end(),
                   [&](const auto& a, const auto& b) { return weight[a] > weight[b]; });
  bool hasEntry = false;
  for (const auto& [key, count] : moves)
    hasEntry |= !key.first.has_value();
  const std::size_t room = kMaxLayoutNodes - (hasEntry ? 1 : 0);
  model.nodesLeftOut = screens.size() > room ? screens.size() - room : 0;
  if (screens.size() > room) screens.resize(room);

  // The entry goes first: the layout starts its search there, so it ends up
  // at the top with the flow running down from it.
  std::map<std::string, std::size_t> indexOf;
  if (hasEntry) model.nodes.push_back({"(entry)", 0, true, false});
  for (const std::string& screen : screens) {
    indexOf[screen] = model.nodes.size();
    model.nodes.push_back({screen, visits[screen], false, hotScreens.contains(screen)});
  }

  std::vector<FlowEdge> edges;
  std::size_t dropped = 0;
  for (const auto& [key, count] : moves) {
    const auto to = indexOf.find(key.second);
    const auto from = key.first ? indexOf.find(*key.first) : indexOf.end();
    if (to == indexOf.end() || (key.first && from == indexOf.end())) {
      ++dropped;
      continue;
    }
    edges.push_back({key.first ? from->second : 0, to->second, count});
  }
  std::stable_sort(edges.begin(), edges.end(),
                   [](const FlowEdge& a, const FlowEdge& b) { return a.count > b.count; });
  if (edges.size() > kMaxLayoutEdges) {
    dropped += edges.size() - kMaxLayoutEdges;
    edges.resize(kMaxLayoutEdges);
  }
  model.edgesLeftOut = dropped;
  model.edges = std::move(edges);
}

LayoutInput layoutInputOf(const ReportModel& model) {
  LayoutInput input;
  for (const FlowNode& node : model.nodes) {
    std::size_t length = 0;
    for (char c : node.label)
      length += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    input.nodes.push_back({24 + 7.4 * static_cast<double>(std::min<std::size_t>(length, 29)), 32});
  }
  for (const FlowEdge& edge : model.edges)
    input.edges.push_back({edge.from, edge.to});
  return input;
}

void fillLayout(ReportModel& model, const std::string& wanted) {
  const LayoutInput input = layoutInputOf(model);
  if (wanted != "builtin") {
    std::string failure;
    if (auto layout = dotLayout(input, DotRunLimits{}, failure)) {
      model.layout = std::move(*layout);
      model.layoutName = "Graphviz dot layout";
      return;
    }
    model.layoutNote = failure + ", so the builtin layout was used";
  }
  model.layout = builtinLayout(input);
  model.layoutName = "builtin layered layout";
}

// The outcome log with what the library would say of each history now. A
// log that cannot be read or decoded is noted on the page, not fatal: the
// library itself treats it as empty.
ReportOutcomes outcomesOf(ReadOnlyMemoryStore& store, const std::vector<QEVSessionGraph>& graphs,
                          QEVRDate now) {
  ReportOutcomes result;
  try {
    const std::optional<std::string> bytes = store.loadOutcomeLog();
    if (!bytes) return result;
    result.histories = QEVRecommendationOutcomeLog::fromJSON(*bytes).histories();
  } catch (const QEVRCancellationError&) {
    throw;
  } catch (const std::exception& e) {
    result.failure = oneLine(e.what());
    return result;
  }
  for (QEVRecommendationOutcomeHistory& history : result.histories) {
    history.effect = measureRecommendationEffect(history, graphs);
    history.isHeldBack = isHeldBackByOutcomes(history, now);
  }
  return result;
}

bool isInside(const fs::path& file, const fs::path& directory) {
  std::error_code error;
  const fs::path a = fs::weakly_canonical(file, error);
  const fs::path b = fs::weakly_canonical(directory, error);
  if (error) return false;
  auto [end, _] = std::mismatch(b.begin(), b.end(), a.begin(), a.end());
  return end == b.end();
}

// Written beside the target and renamed over it, so a reader never sees
// half a page.
void writeAtomically(const fs::path& target, const std::string& content) {
  try {
    qevr::FileSystem::defaultFileSystem().writeFileAtomically(
        target, std::span(reinterpret_cast<const std::uint8_t*>(content.data()), content.size()));
  } catch (const std::exception&) {
    throw std::runtime_error(target.string() + ": cannot be written");
  }
}

}  // namespace

int runReportCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  InspectionArguments parsed;
  fs::path output;
  std::string layout = "dot";
  try {
    parsed = parseInspectionArguments(args, {"-o", "--layout"});
    if (parsed.json) throw InspectionError("unknown argument '--json'");
    const auto o = parsed.files.find("-o");
    if (o == parsed.files.end() || o->second.empty())
      throw InspectionError("missing -o FILE (where to write the page)");
    output = o->second;
    if (auto l = parsed.files.find("--layout"); l != parsed.files.end()) {
      if (l->second != "dot" && l->second != "builtin")
        throw InspectionError("unknown layout '" + l->second + "' (dot or builtin)");
      layout = l->second;
    }
  } catch (const InspectionError& e) {
    err << "qevr report: " << e.what() << "\n";
    return 2;
  }

  // Everything is read and computed before the page is written, so a
  // damaged store leaves no page behind.
  ReportModel model;
  try {
    const auto store = ReadOnlyMemoryStore::open(parsed.dataDir);
    if (isInside(output, store->rootDirectory())) {
      throw InspectionError(output.string() + ": inside the store, which the report never changes");
    }
    model.storePath = store->rootDirectory().string();
    model.generatedAt = qevr::now();
    model.domainLabel = parsed.domain ? experienceDomainLabel(*parsed.domain) : "any";
    model.snapshot = intelligenceSnapshot(*store);
    model.diskUsageBytes = store->estimatedDiskUsageBytes();
    // Effects are measured on the stored session graphs only, as the
    // library measures them, not on sessions rebuilt from events.
    std::vector<QEVSessionGraph> graphs = store->loadSessionGraphs();
    model.outcomes = outcomesOf(*store, graphs, model.generatedAt);
    const auto sessions = sessionsOf(std::move(graphs), store->loadEventChunks());

    const QEVIntelligenceAnalyzers analyzers(
        std::make_shared<QEVFixedIntelligenceSnapshotProvider>(model.snapshot));
    model.behavior = attempt([&] { return analyzers.summarizeBehavior(); });
    model.intent = attempt([&] { return analyzers.analyzeIntent(parsed.domain); });
    model.frustration = attempt([&] { return analyzers.detectFrustration(); });
    model.skill = attempt([&] { return analyzers.analyzeSkill(parsed.domain); });

    QEVFixedRecommendationSources::Values values;
    values.snapshot = model.snapshot;
    values.behaviorSummary = model.behavior;
    values.intentAnalysis = model.intent;
    values.frustrationAnalysis = model.frustration;
    values.skillAnalysis = model.skill;
    auto sources = std::make_shared<QEVFixedRecommendationSources>(std::move(values));
    const QEVRecommendationsGenerator generator = QEVRecommendationsGenerator::withSources(
        sources, sources, std::make_shared<QEVRecommendationCache>());
    for (QEVRecommendation& r :
         generator.generate(parsed.domain, QEVRecommendationPolicy::defaultPolicy(parsed.domain))) {
      model.recommendations.push_back({std::move(r), {}});
    }
    for (ReportRecommendation& item : model.recommendations)
      item.sources = sourceSectionsOf(item.recommendation, model);

    model.components =
        topCounts(model.snapshot.frequentComponents, kMaxListedComponents, model.componentsLeftOut);
    model.customEvents =
        topCounts(model.snapshot.frequentCustomEvents, kMaxListedEvents, model.customEventsLeftOut);
    std::set<std::string> hot;
    if (model.frustration) {
      for (ReportCount& row : model.components) {
        for (const std::string& signal : model.frustration->signals)
          row.hotSpot |= mentions(signal, row.name);
        if (row.hotSpot) hot.insert(row.name);
      }
    }
    fillSessions(model, sessions);
    fillFlow(model, sessions, hot);
    fillLayout(model, layout);
  } catch (const std::exception& e) {
    err << "qevr report: " << oneLine(e.what()) << "\n";
    return 2;
  }

  const std::string page = renderReportPage(model);
  try {
    writeAtomically(output, page);
  } catch (const std::exception& e) {
    err << "qevr report: " << oneLine(e.what()) << "\n";
    return 1;
  }
  out << "wrote " << output.string() << " (" << page.size() << " bytes, " << model.nodes.size()
      << " screens, " << model.layoutName << ")\n";
  return 0;
}
