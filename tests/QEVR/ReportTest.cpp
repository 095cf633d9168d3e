// The report page: its builtin graph layout, dot's output read back, text
// escaping, and `qevr report` end to end on real and hostile stores.
#include "GraphLayout.h"
#include "HtmlText.h"
#include "ReportPage.h"
#include "ToolTestSupport.h"

#include <QEVMemory/QEVFileMemoryStore.h>
#include <QEVRPlatform/Json.h>
#include <QEVRecommendations/QEVRecommendationOutcomes.h>

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

namespace fs = std::filesystem;
using namespace report;
using namespace tooltest;

namespace {

// --- builtin layout -------------------------------------------------------

struct LayoutCase {
  const char* name;
  std::size_t nodes;
  std::vector<LayoutEdge> edges;
  std::size_t reversedEdges;        // how many the layout must turn round
  std::vector<std::size_t> layers;  // expected layer per node; empty: not checked
  bool noCrossings = false;         // adjacent-layer edges must not cross
};

// Whether (x, y) is a finite point of the layout's area.
bool inside(const GraphLayout& layout, double x, double y) {
  return std::isfinite(x) && std::isfinite(y) && x >= 0 && y >= 0 && x <= layout.width &&
         y <= layout.height;
}

bool overlaps(const PlacedNode& a, const PlacedNode& b) {
  return a.x < b.x + b.width && b.x < a.x + a.width && a.y < b.y + b.height && b.y < a.y + a.height;
}

std::size_t crossings(const GraphLayout& layout, const std::vector<LayoutEdge>& edges) {
  std::size_t count = 0;
  auto centre = [&](std::size_t v) { return layout.nodes[v].x + layout.nodes[v].width / 2; };
  for (std::size_t i = 0; i < edges.size(); ++i) {
    for (std::size_t j = i + 1; j < edges.size(); ++j) {
      const LayoutEdge &a = edges[i], &b = edges[j];
      if (layout.nodes[a.from].layer != layout.nodes[b.from].layer ||
          layout.nodes[a.to].layer != layout.nodes[b.to].layer)
        continue;
      if ((centre(a.from) - centre(b.from)) * (centre(a.to) - centre(b.to)) < 0) ++count;
    }
  }
  return count;
}

TEST(ReportLayoutTest, BuiltinLayoutLayersRespectEdgesWithoutOverlaps) {
  const LayoutCase cases[] = {
      {"chain", 4, {{0, 1}, {1, 2}, {2, 3}}, 0, {0, 1, 2, 3}},
      {"cycle", 3, {{0, 1}, {1, 2}, {2, 0}}, 1, {0, 1, 2}},
      {"two-way moves", 2, {{0, 1}, {1, 0}}, 1, {0, 1}},
      {"diamond", 4, {{0, 1}, {0, 2}, {1, 3}, {2, 3}}, 0, {0, 1, 1, 2}, true},
      {"edge across a layer", 3, {{0, 1}, {1, 2}, {0, 2}}, 1, {0, 1, 1}},
      {"every node leads to every other",
       4,
       {{0, 1}, {0, 2}, {0, 3}, {1, 2}, {2, 1}, {2, 3}, {3, 1}, {3, 0}},
       5,
       {0, 1, 1, 1}},
      {"self-loop", 2, {{0, 0}, {0, 1}}, 0, {0, 1}},
      {"disconnected", 5, {{0, 1}, {3, 4}}, 0, {0, 1, 0, 0, 1}},
      {"no nodes", 0, {}, 0, {}},
      {"edge out of range is ignored", 2, {{0, 1}, {0, 7}}, 0, {0, 1}},
      {"crossing pair is untangled", 4, {{0, 3}, {1, 2}}, 0, {0, 0, 1, 1}, true},
      {"two cycles sharing a node", 5, {{0, 1}, {1, 0}, {0, 2}, {2, 3}, {3, 0}, {3, 4}}, 2, {}},
  };
  for (const LayoutCase& c : cases) {
    SCOPED_TRACE(c.name);
    LayoutInput input;
    for (std::size_t v = 0; v < c.nodes; ++v)
      input.nodes.push_back({60.0 + 10.0 * static_cast<double>(v), 30});
    input.edges = c.edges;
    const GraphLayout layout = builtinLayout(input);
    ASSERT_EQ(layout.nodes.size(), c.nodes);
    ASSERT_EQ(layout.edges.size(), c.edges.size());
    EXPECT_TRUE(std::isfinite(layout.width) && std::isfinite(layout.height));
    EXPECT_LE(std::max(layout.width, layout.height), 5000);
    EXPECT_EQ(layout.width == 0 && layout.height == 0, c.nodes == 0);

    std::size_t reversed = 0;
    std::vector<LayoutEdge> placedEdges;
    for (std::size_t e = 0; e < c.edges.size(); ++e) {
      const LayoutEdge& edge = c.edges[e];
      const PlacedEdge& placed = layout.edges[e];
      if (edge.from >= c.nodes || edge.to >= c.nodes) {
        EXPECT_TRUE(placed.route.empty());
        continue;
      }
      ASSERT_GE(placed.route.size(), 4u);
      EXPECT_EQ(placed.route.size() % 3, 1u);
      for (const Point& p : placed.route)
        EXPECT_TRUE(inside(layout, p.x, p.y)) << p.x << "," << p.y;
      if (edge.from == edge.to) continue;
      const std::size_t from = layout.nodes[edge.from].layer, to = layout.nodes[edge.to].layer;
      if (placed.reversed) {
        ++reversed;
        EXPECT_GE(from, to) << edge.from << "->" << edge.to;
      } else {
        EXPECT_LT(from, to) << edge.from << "->" << edge.to;
        placedEdges.push_back(edge);
      }
    }
    EXPECT_EQ(reversed, c.reversedEdges);

    for (std::size_t v = 0; v < c.nodes; ++v) {
      const PlacedNode& node = layout.nodes[v];
      EXPECT_TRUE(inside(layout, node.x, node.y) &&
                  inside(layout, node.x + node.width, node.y + node.height))
          << "node " << v;
      if (!c.layers.empty()) {
        EXPECT_EQ(node.layer, c.layers[v]) << "node " << v;
      }
      for (std::size_t w = v + 1; w < c.nodes; ++w) {
        EXPECT_FALSE(overlaps(node, layout.nodes[w])) << v << " and " << w;
      }
    }
    if (c.noCrossings) {
      EXPECT_EQ(crossings(layout, placedEdges), 0u);
    }
  }
}

TEST(ReportLayoutTest, BuiltinLayoutStaysFiniteAndBoundedForHostileSizesAndLargeGraphs) {
  LayoutInput input;
  input.nodes = {{NAN, 30}, {1e300, -5}, {INFINITY, 1e9}};
  input.edges = {{0, 1}, {1, 2}, {2, 0}, {2, 2}};
  GraphLayout layout = builtinLayout(input);
  EXPECT_TRUE(std::isfinite(layout.width) && std::isfinite(layout.height));
  for (const PlacedNode& node : layout.nodes) {
    EXPECT_TRUE(std::isfinite(node.x) && std::isfinite(node.width));
    EXPECT_LE(node.width, 1000);
  }

  // The most the report ever lays out: a dense graph, every node linked to
  // the next five, which also closes many cycles.
  input = {};
  for (std::size_t v = 0; v < kMaxLayoutNodes; ++v)
    input.nodes.push_back({120, 32});
  for (std::size_t e = 0; input.edges.size() < kMaxLayoutEdges; ++e)
    input.edges.push_back({e % kMaxLayoutNodes, (e * 7 + 3) % kMaxLayoutNodes});
  layout = builtinLayout(input);
  EXPECT_LE(layout.width, 2 * 24 + kMaxLayoutNodes * (1000 + 36) + 4 * 80);
  EXPECT_LE(layout.height, 2 * 24 + kMaxLayoutNodes * (1000 + 72));
  for (std::size_t e = 0; e < input.edges.size(); ++e) {
    const LayoutEdge& edge = input.edges[e];
    if (edge.from == edge.to) continue;
    EXPECT_EQ(layout.edges[e].reversed,
              layout.nodes[edge.from].layer >= layout.nodes[edge.to].layer);
  }
}

// --- dot's plain output ---------------------------------------------------

TEST(ReportLayoutTest, DotPlainOutputIsReadOrRefused) {
  LayoutInput input;
  input.nodes = {{72, 36}, {144, 36}};
  input.edges = {{0, 1}};
  const std::string good =
      "graph 1 3 2\n"
      "node n0 1.5 1.5 1 0.5 \"\" solid box black lightgrey\n"
      "node n1 1.5 0.5 2 0.5 \"\" solid box black lightgrey\n"
      "edge n0 n1 4 1.5 1.25 1.5 1.0 1.5 1.0 1.5 0.75 solid black\n"
      "stop\n";
  const auto layout = layoutFromDotPlain(good, input);
  ASSERT_TRUE(layout.has_value());
  EXPECT_DOUBLE_EQ(layout->width, 216);
  EXPECT_DOUBLE_EQ(layout->height, 144);
  // Centres in inches, y upwards; boxes the caller's size in pixels.
  EXPECT_DOUBLE_EQ(layout->nodes[0].x, 108 - 36);
  EXPECT_DOUBLE_EQ(layout->nodes[0].y, 36 - 18);
  EXPECT_DOUBLE_EQ(layout->nodes[1].x, 108 - 72);
  EXPECT_DOUBLE_EQ(layout->nodes[1].y, 108 - 18);
  ASSERT_EQ(layout->edges[0].route.size(), 4u);
  EXPECT_DOUBLE_EQ(layout->edges[0].route.front().y, 54);
  EXPECT_DOUBLE_EQ(layout->edges[0].route.back().y, 90);

  struct Bad {
    const char* why;
    std::string text;
  };
  const Bad bad[] = {
      {"a node missing", "graph 1 3 2\nnode n0 1 1 1 1\nedge n0 n1 4 1 1 1 1 1 1 1 1\nstop\n"},
      {"an edge missing", "graph 1 3 2\nnode n0 1 1 1 1\nnode n1 1 1 1 1\nstop\n"},
      {"a node twice", "graph 1 3 2\nnode n0 1 1 1 1\nnode n0 1 1 1 1\nnode n1 1 1 1 1\n"},
      {"not a number", "graph 1 3 2\nnode n0 1 nan 1 1\nnode n1 1 1 1 1\n"},
      {"unknown node", "graph 1 3 2\nnode n0 1 1 1 1\nnode n9 1 1 1 1\n"},
      {"too few points", "graph 1 3 2\nnode n0 1 1 1 1\nnode n1 1 1 1 1\nedge n0 n1 4 1 1\n"},
      {"node before graph", "node n0 1 1 1 1\nnode n1 1 1 1 1\nedge n0 n1 4 1 1 1 1 1 1 1 1\n"},
      {"empty", ""},
  };
  for (const Bad& b : bad) {
    EXPECT_FALSE(layoutFromDotPlain(b.text, input).has_value()) << b.why;
  }
}

TEST(ReportLayoutTest, DotPlacesEveryNodeWhenInstalled) {
  LayoutInput input;
  for (int v = 0; v < 4; ++v)
    input.nodes.push_back({90, 32});
  input.edges = {{0, 1}, {1, 2}, {2, 0}, {2, 3}, {3, 3}};
  std::string failure;
  const auto layout = dotLayout(input, DotRunLimits{}, failure);
  if (!layout && failure == "dot is not installed") GTEST_SKIP() << failure;
  ASSERT_TRUE(layout.has_value()) << failure;
  for (std::size_t v = 0; v < 4; ++v) {
    for (std::size_t w = v + 1; w < 4; ++w)
      EXPECT_FALSE(overlaps(layout->nodes[v], layout->nodes[w]));
  }
  for (const PlacedEdge& e : layout->edges)
    EXPECT_GE(e.route.size(), 4u);
}

// --- escaping -------------------------------------------------------------

const std::string kHostile = "</script><script>document.body.dataset.pwned='1'</script>";

TEST(ReportTextTest, StoreTextIsEscapedForHtmlAndForInlineScripts) {
  struct Case {
    std::string text;
    std::string html;
  };
  const Case cases[] = {
      {kHostile,
       "&lt;/script&gt;&lt;script&gt;document.body.dataset.pwned=&#39;1&#39;&lt;/script&gt;"},
      {"Tom & \"Jerry\"", "Tom &amp; &quot;Jerry&quot;"},
      {"<img src=x onerror=alert(1)>", "&lt;img src=x onerror=alert(1)&gt;"},
      {"bell\x07 nul", "bell&#xFFFD; nul"},
      {"\xC3\x89"
       "cran\td'accueil\n",
       "\xC3\x89"
       "cran\td&#39;accueil\n"},
      {"", ""},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(escapeHtml(c.text), c.html);
    // As a JSON string inside a script: no character that could end the
    // element, and the same text once parsed.
    const std::string literal = jsonStringLiteral(c.text);
    EXPECT_EQ(literal.find_first_of("<>&"), std::string::npos) << literal;
    EXPECT_EQ(qevr::json::parse(literal).string(), c.text);
  }
  const std::string separators = "{\"a\":\"x\xE2\x80\xA8y\xE2\x80\xA9</script>\"}";
  const std::string safe = scriptSafeJson(separators);
  EXPECT_EQ(safe, "{\"a\":\"x\\u2028y\\u2029\\u003c/script\\u003e\"}");
  EXPECT_EQ(qevr::json::serialize(qevr::json::parse(safe)),
            qevr::json::serialize(qevr::json::parse(separators)));
}

std::size_t occurrences(const std::string& text, const std::string& what) {
  std::size_t count = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
    ++count;
  return count;
}

TEST(ReportTextTest, PageOfHostileTextsKeepsItsOwnThreeScriptsOnly) {
  ReportModel model;
  model.storePath = "/tmp/" + kHostile;
  model.domainLabel = kHostile;
  model.nodes = {{kHostile, 3, false, true}, {"<b>bold</b>", 1, false, false}};
  model.edges = {{0, 1, 2}};
  model.components = {{kHostile, 9, true}};
  model.customEvents = {{"\"><svg onload=alert(1)>", 2, false}};
  model.layout = builtinLayout({{{90, 32}, {90, 32}}, {{0, 1}}});
  model.layoutName = "builtin layered layout";
  model.frustration.emplace(QEVFrustrationLevel::high, std::vector<std::string>{kHostile},
                            std::vector<std::string>{"<i>cause</i>"}, 0.7, QEVRDate{});
  model.sessions = {{QEVRDate{1e300}, NAN, 4, true}};
  const std::string page = renderReportPage(model);

  EXPECT_EQ(page.find(kHostile), std::string::npos);
  EXPECT_EQ(page.find("<b>bold"), std::string::npos);
  EXPECT_EQ(page.find("<svg onload"), std::string::npos);
  EXPECT_EQ(page.find("<i>cause"), std::string::npos);
  EXPECT_NE(page.find("&lt;/script&gt;&lt;script&gt;"), std::string::npos);
  EXPECT_NE(page.find("\\u003c/script\\u003e"), std::string::npos);  // in the script data
  EXPECT_NE(page.find("(invalid date)"), std::string::npos);
  EXPECT_EQ(occurrences(page, "<script"), 3u);
  EXPECT_EQ(occurrences(page, "</script>"), 3u);
  EXPECT_EQ(page.find("http://"), std::string::npos);
  EXPECT_EQ(page.find("https://"), std::string::npos);
}

TEST(ReportTextTest, RecommendationsLinkToTheAnalysesTheyCameFrom) {
  ReportModel model;
  model.intent.emplace("purchase", std::vector<std::string>{}, std::vector<std::string>{"Cart: 4"},
                       0.5, QEVRDate{});
  model.frustration.emplace(QEVFrustrationLevel::high,
                            std::vector<std::string>{"Repeated interaction with pay"},
                            std::vector<std::string>{"Possible friction"}, 0.7, QEVRDate{});
  model.skill.emplace(QEVSkillLevel::beginner, std::vector<std::string>{"Repeated failures"},
                      "decrease", 0.5, QEVRDate{});
  struct Case {
    QEVRecommendationType type;
    std::vector<std::string> evidence;
    std::vector<std::string> sections;
  };
  const Case cases[] = {
      {QEVRecommendationType::gameplay,
       {"Repeated failures", "Repeated interaction with pay"},
       {"skill", "frustration"}},
      {QEVRecommendationType::ui, {"Possible friction"}, {"components", "frustration"}},
      {QEVRecommendationType::feature, {"intent: purchase", "Cart: 4"}, {"intent"}},
      {QEVRecommendationType::navigation, {"unrelated"}, {"flow"}},
      {QEVRecommendationType::diagnostic, {}, {"overview"}},
  };
  for (const Case& c : cases) {
    const QEVRecommendation r(QEVRUUID::random(), c.type, "t", "s", 0.6,
                              QEVRecommendationPriority::high, "r", c.evidence,
                              QEVRecommendationAction::showHelp("help", std::nullopt, std::nullopt),
                              QEVRDate{}, std::nullopt);
    EXPECT_EQ(sourceSectionsOf(r, model), c.sections) << rawValueOf(c.type);
  }
}

// --- the outcomes section -------------------------------------------------

// The page's outcomes section, from its heading to its end.
std::string outcomesSection(const std::string& page) {
  const std::size_t begin = page.find("<section id=\"outcomes\">");
  if (begin == std::string::npos) return "";
  return page.substr(begin, page.find("</section>", begin) - begin);
}

// The table row of the history titled `title` in the outcomes section.
std::string outcomeRow(const std::string& section, const std::string& title) {
  const std::size_t at = section.find("<td>" + title + " ");
  if (at == std::string::npos) return "";
  const std::size_t begin = section.rfind("<tr", at);
  return section.substr(begin, section.find("</tr>", at) - begin);
}

const std::string kCaveat =
    "observed change in these sessions, not a proof that the recommendation caused it";

// Each history alone on a page, as the report measured it: its row shows the
// counts, hold-back and effect; a log that failed says so in words. Improved,
// worse and never applied are in the end-to-end test below.
TEST(ReportOutcomesTest, EachHistoryShowsItsCountsHoldBackAndEffect) {
  using E = QEVRecommendationEffect;
  using S = QEVRecommendationSignal;
  struct Case {
    const char* name;
    std::optional<QEVRecommendationEffectMeasurement> effect;
    bool applied, heldBack;
    std::vector<std::string> shown, notShown;
  };
  auto effect = [](E e, S s, double before, double after) {
    return QEVRecommendationEffectMeasurement{e, s, 4, 5, before, after, {}, {}};
  };
  auto shortcut = effect(E::improved, S::destinationSteps, 4, 1.5);
  shortcut.reachedBefore = 0.5;
  shortcut.reachedAfter = 1.0;
  const Case cases[] = {
      {"too early",
       effect(E::tooEarly, S::repeatedInteractions, 0, 2),
       true,
       true,
       {"tooEarly"},
       {"undo"}},
      {"share",
       effect(E::unchanged, S::featureUse, 0.25, 0.3),
       true,
       true,
       {"unchanged", "25% over 4 sessions before, 30% over 5 after"},
       {"reached in"}},
      {"shortcut", shortcut, true, true, {"reached in 50% of sessions before, 100% after"}, {}},
      {"no figure", {}, true, true, {"no figure to measure"}, {"badge effect"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    QEVRecommendationOutcomeHistory history;
    history.key = kHostile + c.name;
    history.title = c.name;
    history.shownCount = 7;
    history.appliedCount = c.applied ? 2 : 0;
    history.dismissedCount = 3;
    if (c.applied) history.firstAppliedAt = QEVRDate{800000000};
    history.effect = c.effect;
    history.isHeldBack = c.heldBack;
    ReportModel model;
    model.outcomes.histories = {history};
    const std::string page = renderReportPage(model);
    EXPECT_EQ(page.find(kHostile), std::string::npos);
    const std::string row = outcomeRow(outcomesSection(page), c.name);
    ASSERT_NE(row, "") << page;
    EXPECT_NE(row.find("<td class=\"num\">7</td><td class=\"num\">" +
                       std::to_string(history.appliedCount) + "</td><td class=\"num\">3</td>"),
              std::string::npos)
        << row;
    for (const std::string& text : c.shown)
      EXPECT_NE(row.find(text), std::string::npos) << text << "\n" << row;
    for (const std::string& text : c.notShown)
      EXPECT_EQ(row.find(text), std::string::npos) << text << "\n" << row;
  }

  ReportModel model;
  model.outcomes.failure = "format: <Not an outcome log>";
  EXPECT_NE(outcomesSection(renderReportPage(model))
                .find("could not be read: format: &lt;Not an outcome log&gt;</p>"),
            std::string::npos);
}

// --- qevr report end to end -------------------------------------------------

class ReportToolTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    base = simulatedStore("qevr-report", "900", "11");
    scratch = base / "scratch";
  }
  static void TearDownTestSuite() { fs::remove_all(base); }

  static inline fs::path base;
  static inline fs::path scratch;
};

TEST_F(ReportToolTest, PageHasEverySectionFetchesNothingAndLeavesTheStoreAlone) {
  const auto before = listing(base / "data");
  for (const char* layout : {"builtin", "dot"}) {
    SCOPED_TRACE(layout);
    const fs::path page = base / (std::string(layout) + ".html");
    const ToolRun run = runTool({"report", "--data-dir", (base / "data").string(), "-o",
                                 page.string(), "--domain", "game", "--layout", layout},
                                scratch);
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err, "");
    EXPECT_NE(run.out.find("wrote " + page.string()), std::string::npos) << run.out;
    const std::string html = slurp(page);
    for (const char* id :
         {"overview", "sessions", "flow", "components", "behaviour", "intent", "frustration",
          "skill", "recommendations", "outcomes", "report-errors", "report-data", "flow-svg"}) {
      EXPECT_NE(html.find("id=\"" + std::string(id) + "\""), std::string::npos) << id;
    }
    EXPECT_NE(html.find("data-node=\"0\""), std::string::npos);
    EXPECT_NE(html.find("data-edge=\"0\""), std::string::npos);
    EXPECT_NE(html.find("class=\"bar"), std::string::npos);  // a session in the chart
    for (const char* fetch : {"http://", "https://", "src=", "@import", "url(http"}) {
      EXPECT_EQ(html.find(fetch), std::string::npos) << fetch;
    }
    if (std::string(layout) == "builtin") {
      EXPECT_NE(html.find("Laid out with the builtin layered layout."), std::string::npos);
    } else {
      // dot when installed; otherwise the builtin layout, saying why.
      EXPECT_TRUE(html.find("Laid out with the Graphviz dot layout.") != std::string::npos ||
                  html.find("dot is not installed, so the builtin layout was used") !=
                      std::string::npos);
    }
  }
  EXPECT_EQ(listing(base / "data"), before);
}

TEST_F(ReportToolTest, HostileNamesFromTheStoreRenderAsText) {
  const fs::path dataDir = base / "hostile";
  const auto store = openStore(dataDir / "QEVR" / "Memory");
  QEVSessionGraph graph;
  graph.sessionId = QEVRUUID::random();
  graph.startedAt = QEVRDate{800000000};
  graph.endedAt = QEVRDate{800000060};
  graph.duration = 60;
  graph.eventCount = 6;
  graph.screenSequence = {"Home", kHostile, "Home"};
  graph.navigationEdges = {{"Home", kHostile, 2}, {kHostile, "Home", 1}, {std::nullopt, "Home", 1}};
  graph.componentInteractions = {{"<img src=x onerror=alert(1)>", kHostile, 5, 0}};
  graph.customEventCounts = {{"\"'><svg onload=alert(2)>", 1}};
  store->saveSessionGraph(graph);
  QEVUserGraphBuilder user(QEVRUUID::random(), QEVRDate{800000000});
  user.merge(graph);
  store->saveUserGraph(user.build());

  const fs::path page = base / "hostile.html";
  const ToolRun run = runTool(
      {"report", "--data-dir", dataDir.string(), "-o", page.string(), "--layout", "builtin"},
      scratch);
  ASSERT_EQ(run.status, 0) << run.err;
  const std::string html = slurp(page);
  EXPECT_EQ(html.find(kHostile), std::string::npos);
  EXPECT_EQ(html.find("<img"), std::string::npos);
  EXPECT_EQ(html.find("<svg onload"), std::string::npos);
  EXPECT_NE(html.find("&lt;/script&gt;&lt;script&gt;"), std::string::npos);
  EXPECT_EQ(occurrences(html, "<script"), 3u);
  // Three screens: the entry, Home and the hostile one, with all three moves.
  EXPECT_NE(html.find("data-node=\"2\""), std::string::npos);
  EXPECT_EQ(html.find("data-node=\"3\""), std::string::npos);
  EXPECT_NE(html.find("data-edge=\"2\""), std::string::npos);
}

TEST_F(ReportToolTest, LargeStoresAreCutToWhatAPageCanShowWithANote) {
  const fs::path dataDir = base / "large";
  const auto store = openStore(dataDir / "QEVR" / "Memory");
  // 130 sessions over 90 screens, each moving on to the next three.
  for (int s = 0; s < 130; ++s) {
    QEVSessionGraph graph;
    graph.sessionId = QEVRUUID::random();
    graph.startedAt = QEVRDate{800000000.0 + 3600.0 * s};
    graph.eventCount = 10 + s;
    for (int step = 0; step < 3; ++step) {
      const int from = (s + step * 31) % 90;
      graph.screenSequence.push_back("Screen " + std::to_string(from));
      for (int hop = 1; hop <= 3; ++hop) {
        graph.navigationEdges.push_back({"Screen " + std::to_string(from),
                                         "Screen " + std::to_string((from + hop) % 90), 1 + s % 4});
      }
    }
    store->saveSessionGraph(graph);
  }
  const fs::path page = base / "large.html";
  const ToolRun run = runTool(
      {"report", "--data-dir", dataDir.string(), "-o", page.string(), "--layout", "builtin"},
      scratch);
  ASSERT_EQ(run.status, 0) << run.err;
  const std::string html = slurp(page);
  EXPECT_NE(html.find("data-node=\"" + std::to_string(kMaxLayoutNodes - 1) + "\""),
            std::string::npos);
  EXPECT_EQ(html.find("data-node=\"" + std::to_string(kMaxLayoutNodes) + "\""), std::string::npos);
  EXPECT_NE(html.find("less visited screens and"), std::string::npos);
  EXPECT_EQ(html.find("data-edge=\"" + std::to_string(kMaxLayoutEdges) + "\""), std::string::npos);
  EXPECT_NE(html.find("10 older sessions are not charted."), std::string::npos);
  EXPECT_EQ(occurrences(html, "<rect class=\"bar"), 120u);
}

TEST_F(ReportToolTest, FallsBackToTheBuiltinLayoutWhenDotFailsOrIsMissing) {
  struct Case {
    const char* name;
    const char* dotScript;  // empty: no dot on PATH
    std::string note;
  };
  const Case cases[] = {
      {"missing", "", "dot is not installed"},
      {"fails", "#!/bin/sh\nexit 3\n", "dot failed with status 3"},
      {"writes nonsense", "#!/bin/sh\ncat >/dev/null\necho graph 1 x y\n",
       "dot&#39;s output could not be read"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const fs::path bin = base / (std::string("bin-") + c.name);
    fs::create_directories(bin);
    if (*c.dotScript != '\0') {
      std::ofstream(bin / "dot") << c.dotScript;
      fs::permissions(bin / "dot", fs::perms::owner_all);
    }
    const fs::path page = base / (std::string("fallback-") + c.name + ".html");
    const ToolRun run = runTool(
        {"report", "--data-dir", (base / "data").string(), "-o", page.string(), "--layout", "dot"},
        scratch, bin.string());
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.out.find("builtin layered layout"), std::string::npos) << run.out;
    EXPECT_NE(slurp(page).find("Laid out with the builtin layered layout (" + c.note +
                               ", so the builtin layout was used)."),
              std::string::npos);
  }
}

// Outcomes recorded ten days ago over sessions on either side of them: the
// page measures each effect on the store's session graphs, judges hold-back
// at its own time, and reads the log without ever writing the store.
TEST_F(ReportToolTest, OutcomesAreMeasuredOnTheStoredSessionsAndTheLogIsOnlyRead) {
  const QEVRDate now = qevr::now();
  const QEVRDate appliedAt = now.addingSeconds(-10 * 86'400.0);
  const fs::path memory = base / "outcomes" / "QEVR" / "Memory";
  const auto store = openStore(memory);
  // Four sessions before: six failures and two taps on "pay" each; four
  // after: one failure and six taps.
  for (int s = -4; s < 4; ++s) {
    const bool after = s >= 0;
    QEVSessionGraph graph;
    graph.sessionId = QEVRUUID::random();
    graph.startedAt = appliedAt.addingSeconds((s < 0 ? s : s + 1) * 86'400.0);
    graph.endedAt = graph.startedAt->addingSeconds(600);
    graph.eventCount = 20;
    graph.screenSequence = {"Level"};
    graph.customEventCounts = {{"level_fail", after ? 1 : 6}};
    graph.componentInteractions = {{"pay", "Level", after ? 6 : 2, 0}};
    store->saveSessionGraph(graph);
  }
  QEVRecommendationOutcomeLog log;
  log.record(recommendationFor(QEVRecommendationType::gameplay, "Easier levels",
                               QEVRecommendationAction::adjustDifficulty(-0.2, {}, {})),
             QEVRecommendationOutcome::applied, appliedAt);
  log.record(recommendationFor(QEVRecommendationType::ui, "Highlight pay",
                               QEVRecommendationAction::highlightComponent("pay", {})),
             QEVRecommendationOutcome::applied, appliedAt);
  const QEVRecommendation help =
      recommendationFor(QEVRecommendationType::ui, "Help with search",
                        QEVRecommendationAction::showHelp("search", {}, {}));
  for (int day : {3, 2}) {
    log.record(help, QEVRecommendationOutcome::shown, now.addingSeconds(-day * 86'400.0));
    log.record(help, QEVRecommendationOutcome::dismissed, now.addingSeconds(-day * 86'400.0));
  }

  struct Row {
    std::string title;
    std::vector<std::string> shown;
  };
  const struct {
    const char* name;
    std::optional<std::string> log;
    std::vector<std::string> says;
    std::vector<Row> rows;
  } cases[] = {
      {"none", std::nullopt, {"No outcomes are recorded in this store."}, {}},
      {"recorded",
       log.toJSON(),
       {},
       {{"Easier levels",
         {"effect-improved", "failuresAndRetries", "6.00 over 4 sessions before, 1.00 over 4 after",
          "<td>yes</td>"}},
        {"Highlight pay",
         {"effect-worse", "the host should undo it", "repeatedInteractions",
          "1.00 over 4 sessions before, 5.00 over 4 after", "<td>no</td>"}},
        {"Help with search",
         {"<td class=\"num\">2</td><td class=\"num\">0</td><td class=\"num\">2</td>", "not applied",
          "<td>yes</td>"}}}},
      {"damaged",
       R"({"format":"qevr-outcomes/1","histories":[{"key":)",
       {"The outcome log could not be read:"},
       {}},
      {"past its limit",
       std::string(kQEVMemoryMaxOutcomeLogBytes + 1, ' '),
       {"The outcome log could not be read:", "too large"},
       {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove(memory / QEVFileMemoryStore::kOutcomeLogFile);
    if (c.log) writeOutcomeLog(memory, *c.log);
    const auto before = listing(base / "outcomes");
    const fs::path page = base / (std::string("outcomes-") + c.name + ".html");
    const ToolRun run = runTool({"report", "--data-dir", (base / "outcomes").string(), "-o",
                                 page.string(), "--layout", "builtin"},
                                scratch);
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(listing(base / "outcomes"), before);
    const std::string section = outcomesSection(slurp(page));
    ASSERT_NE(section, "");
    EXPECT_NE(section.find(kCaveat), std::string::npos);
    for (const std::string& text : c.says)
      EXPECT_NE(section.find(text), std::string::npos) << text << "\n" << section;
    EXPECT_EQ(occurrences(section, "<tr>") + occurrences(section, "<tr class"),
              c.rows.empty() ? 0u : c.rows.size() + 1);
    for (const Row& row : c.rows) {
      const std::string found = outcomeRow(section, row.title);
      ASSERT_NE(found, "") << row.title << "\n" << section;
      for (const std::string& text : row.shown)
        EXPECT_NE(found.find(text), std::string::npos) << text << "\n" << found;
    }
  }
}

TEST_F(ReportToolTest, BadUsageAndUnreadableStoresFailWithOneLineAndNoPage) {
  const fs::path damaged = copyOfStore(base / "data" / "QEVR" / "Memory", base / "damaged", true);
  const fs::path badGraph = damaged / "QEVR" / "Memory" / "user" / "graph.json";
  const std::string data = (base / "data").string();
  const std::string page = (base / "bad.html").string();
  const std::string insideStore = (base / "data" / "QEVR" / "Memory" / "r.html").string();

  const struct {
    std::vector<std::string> args;
    std::string errorMentions;
  } cases[] = {
      {{"report", "--data-dir", data}, "-o"},
      {{"report", "--data-dir", data, "-o", page, "--layout", "neato"}, "neato"},
      {{"report", "--data-dir", data, "-o", page, "--json"}, "--json"},
      {{"report", "--data-dir", data, "-o", page, "--domain", "boats"}, "boats"},
      {{"report", "--data-dir", (base / "missing").string(), "-o", page}, "missing"},
      {{"report", "--data-dir", damaged.string(), "-o", page}, badGraph.string()},
      {{"report", "--data-dir", data, "-o", insideStore}, "inside the store"},
      {{"report", "-o"}, "-o"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args.back());
    expectOneLineFailure(runTool(c.args, scratch), c.errorMentions);
    EXPECT_FALSE(fs::exists(page));
    EXPECT_FALSE(fs::exists(insideStore));
  }
}

}  // namespace
