#include "ReportPage.h"

#include "HtmlText.h"

#include <QEVRPlatform/Json.h>

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <locale>
#include <sstream>

namespace report {

namespace {

// Numbers in SVG and CSS must not depend on the user's locale.
std::string fixed(double value, int digits = 1) {
  std::ostringstream text;
  text.imbue(std::locale::classic());
  text << std::fixed << std::setprecision(digits) << (std::isfinite(value) ? value : 0.0);
  return text.str();
}

std::string percent(double confidence) {
  return fixed(confidence * 100, 0) + "%";
}

// Dates come from files; one out of range must not stop the page.
std::string dateText(const std::optional<QEVRDate>& date) {
  if (!date) return "-";
  try {
    std::string text = qevr::formatISO8601(*date);
    text[10] = ' ';
    text.pop_back();  // the trailing "Z": the header says UTC
    return text;
  } catch (const std::exception&) {
    return "(invalid date)";
  }
}

std::string durationText(const std::optional<double>& seconds) {
  if (!seconds || !std::isfinite(*seconds)) return "-";
  if (std::fabs(*seconds) < 120) return fixed(*seconds, 1) + " s";
  if (std::fabs(*seconds) < 7200) return fixed(*seconds / 60, 1) + " min";
  return fixed(*seconds / 3600, 1) + " h";
}

std::string bytesText(std::uint64_t bytes) {
  if (bytes < 1024) return std::to_string(bytes) + " B";
  if (bytes < std::uint64_t{1024} * 1024)
    return fixed(static_cast<double>(bytes) / 1024, 1) + " KiB";
  return fixed(static_cast<double>(bytes) / (1024 * 1024), 1) + " MiB";
}

// At most `limit` code points, an ellipsis marking a cut.
std::string shortened(std::string_view text, std::size_t limit) {
  std::size_t seen = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if ((static_cast<unsigned char>(text[i]) & 0xC0) == 0x80) continue;
    if (seen++ == limit) return std::string(text.substr(0, i)) + "\u2026";
  }
  return std::string(text);
}

constexpr std::size_t kLabelLimit = 28;

const char* sectionTitle(std::string_view id) {
  if (id == "overview") return "Overview";
  if (id == "sessions") return "Sessions";
  if (id == "flow") return "Screen flow";
  if (id == "components") return "Components";
  if (id == "behaviour") return "Behaviour";
  if (id == "intent") return "Intent";
  if (id == "frustration") return "Frustration";
  if (id == "skill") return "Skill";
  return "Report";
}

bool contains(const std::vector<std::string>& lines, const std::string& line) {
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

void list(std::ostringstream& page, const std::vector<std::string>& items) {
  if (items.empty()) {
    page << "<p class=\"muted\">none</p>\n";
    return;
  }
  page << "<ul>";
  for (const std::string& item : items)
    page << "<li>" << escapeHtml(item) << "</li>";
  page << "</ul>\n";
}

void confidenceMeter(std::ostringstream& page, double confidence) {
  page << "<span class=\"meter\" title=\"confidence\"><span style=\"width:"
       << fixed(std::clamp(confidence, 0.0, 1.0) * 100, 0) << "%\"></span></span> "
       << percent(confidence);
}

void countTable(std::ostringstream& page, const std::vector<ReportCount>& rows, std::size_t leftOut,
                const char* what) {
  if (rows.empty()) {
    page << "<p class=\"muted\">No " << what << " recorded.</p>\n";
    return;
  }
  std::int64_t most = 1;
  for (const ReportCount& row : rows)
    most = std::max(most, row.count);
  page << "<table class=\"counts\"><tbody>\n";
  for (const ReportCount& row : rows) {
    page << "<tr" << (row.hotSpot ? " class=\"hot\"" : "") << "><th>" << escapeHtml(row.name)
         << (row.hotSpot ? " <span class=\"badge hot\">hot spot</span>" : "")
         << "</th><td class=\"bar\"><span style=\"width:"
         << fixed(100.0 * static_cast<double>(std::max<std::int64_t>(row.count, 0)) /
                      static_cast<double>(most),
                  1)
         << "%\"></span></td><td class=\"num\">" << row.count << "</td></tr>\n";
  }
  page << "</tbody></table>\n";
  if (leftOut > 0) {
    page << "<p class=\"note\">" << leftOut << " less used " << what << " are not listed.</p>\n";
  }
}

void sessionsChart(std::ostringstream& page, const ReportModel& model) {
  const auto& sessions = model.sessions;
  if (sessions.empty()) {
    page << "<p class=\"muted\">No sessions are kept in this store.</p>\n";
    return;
  }
  constexpr double width = 860, height = 170, left = 48, bottom = 40, top = 12;
  std::int64_t most = 1;
  std::size_t rebuilt = 0;
  for (const ReportSession& s : sessions) {
    most = std::max(most, s.eventCount);
    rebuilt += s.rebuiltFromEvents;
  }
  const double slot = std::min(60.0, (width - left - 8) / static_cast<double>(sessions.size()));
  const double plot = height - bottom - top;
  page << "<svg class=\"chart\" viewBox=\"0 0 " << fixed(width, 0) << " " << fixed(height, 0)
       << "\" role=\"img\" aria-label=\"events per session, oldest first\">\n"
       << "<line class=\"axis\" x1=\"" << fixed(left) << "\" y1=\"" << fixed(height - bottom)
       << "\" x2=\"" << fixed(width - 4) << "\" y2=\"" << fixed(height - bottom) << "\"/>\n"
       << "<text class=\"tick\" x=\"" << fixed(left - 6) << "\" y=\"" << fixed(top + 4)
       << "\" text-anchor=\"end\">" << most << "</text>\n"
       << "<text class=\"tick\" x=\"" << fixed(left - 6) << "\" y=\"" << fixed(height - bottom)
       << "\" text-anchor=\"end\">0</text>\n";
  // A date label is about 70 px wide; label only as many bars as fit.
  const std::size_t labelEvery = static_cast<std::size_t>(std::ceil(76 / slot));
  for (std::size_t i = 0; i < sessions.size(); ++i) {
    const ReportSession& s = sessions[i];
    const double barHeight = plot * static_cast<double>(std::max<std::int64_t>(s.eventCount, 0)) /
                             static_cast<double>(most);
    const double x = left + slot * static_cast<double>(i) + slot * 0.15;
    page << "<rect class=\"" << (s.rebuiltFromEvents ? "bar rebuilt" : "bar") << "\" x=\""
         << fixed(x) << "\" y=\"" << fixed(height - bottom - barHeight) << "\" width=\""
         << fixed(std::max(slot * 0.7, 1.0)) << "\" height=\"" << fixed(barHeight) << "\"><title>"
         << escapeHtml(dateText(s.startedAt)) << ": " << s.eventCount << " events, "
         << escapeHtml(durationText(s.durationSeconds))
         << (s.rebuiltFromEvents ? " (rebuilt from events)" : "") << "</title></rect>\n";
    if (i % labelEvery == 0) {
      page << "<text class=\"tick\" x=\"" << fixed(x + slot * 0.35) << "\" y=\""
           << fixed(height - bottom + 16) << "\" text-anchor=\"middle\">"
           << escapeHtml(s.startedAt ? dateText(s.startedAt).substr(5, 11)
                                     : "#" + std::to_string(i + 1))
           << "</text>\n";
    }
  }
  page << "<text class=\"tick\" x=\"" << fixed(left) << "\" y=\"" << fixed(height - 4)
       << "\">events per session, oldest first</text>\n</svg>\n";
  page << "<p class=\"note\">" << sessions.size()
       << (sessions.size() == 1 ? " session" : " sessions");
  if (rebuilt > 0) {
    page << "; " << rebuilt
         << " of them (lighter bars) have no session graph in memory and were rebuilt from "
            "their stored events";
  }
  page << ".";
  if (model.sessionsLeftOut > 0) {
    page << " " << model.sessionsLeftOut << " older sessions are not charted.";
  }
  page << "</p>\n";
}

void flowGraph(std::ostringstream& page, const ReportModel& model) {
  page << "<p class=\"layout\" id=\"layout-used\">Laid out with the "
       << escapeHtml(model.layoutName)
       << (model.layoutNote.empty() ? "" : " (" + escapeHtml(model.layoutNote) + ")") << ".</p>\n";
  if (model.nodes.empty()) {
    page << "<p class=\"muted\">No screens recorded.</p>\n";
    return;
  }
  const GraphLayout& layout = model.layout;
  std::int64_t heaviest = 1;
  for (const FlowEdge& e : model.edges)
    heaviest = std::max(heaviest, e.count);
  // Small graphs are drawn larger, so a three-screen flow is still legible.
  const double zoom = layout.width > 0 ? std::clamp(640 / layout.width, 1.0, 1.6) : 1.0;
  // A margin round the drawing: dot's bounding box ends at the outlines'
  // centres, which would clip half of each border.
  constexpr double pad = 8;
  page << "<svg id=\"flow-svg\" class=\"flow\" viewBox=\"" << -pad << " " << -pad << " "
       << fixed(layout.width + 2 * pad) << " " << fixed(layout.height + 2 * pad) << "\" width=\""
       << fixed((layout.width + 2 * pad) * zoom) << "\" height=\""
       << fixed((layout.height + 2 * pad) * zoom)
       << "\" role=\"img\" aria-label=\"screen flow\">\n<defs><marker id=\"arrow\" "
          "viewBox=\"0 0 10 10\" refX=\"9\" refY=\"5\" markerUnits=\"userSpaceOnUse\" "
          "markerWidth=\"11\" markerHeight=\"11\" orient=\"auto\"><path d=\"M0,0 L10,5 L0,10 "
          "z\"/></marker></defs>\n";
  for (std::size_t e = 0; e < model.edges.size() && e < layout.edges.size(); ++e) {
    const PlacedEdge& placed = layout.edges[e];
    if (placed.route.size() < 4) continue;
    const FlowEdge& edge = model.edges[e];
    page << "<g class=\"edge\" data-edge=\"" << e << "\"><path d=\"M" << fixed(placed.route[0].x)
         << "," << fixed(placed.route[0].y);
    for (std::size_t i = 1; i + 2 < placed.route.size(); i += 3) {
      page << " C" << fixed(placed.route[i].x) << "," << fixed(placed.route[i].y) << " "
           << fixed(placed.route[i + 1].x) << "," << fixed(placed.route[i + 1].y) << " "
           << fixed(placed.route[i + 2].x) << "," << fixed(placed.route[i + 2].y);
    }
    page << "\" stroke-width=\""
         << fixed(1.2 + 3.0 * static_cast<double>(edge.count) / static_cast<double>(heaviest))
         << "\" marker-end=\"url(#arrow)\"><title>" << escapeHtml(model.nodes[edge.from].label)
         << " \u2192 " << escapeHtml(model.nodes[edge.to].label) << ": " << edge.count
         << "</title></path><text class=\"weight\" x=\"" << fixed(placed.labelAt.x) << "\" y=\""
         << fixed(placed.labelAt.y + 4) << "\" text-anchor=\"middle\">" << edge.count
         << "</text></g>\n";
  }
  for (std::size_t v = 0; v < model.nodes.size() && v < layout.nodes.size(); ++v) {
    const FlowNode& node = model.nodes[v];
    const PlacedNode& box = layout.nodes[v];
    std::string kind = "node";
    if (node.isEntry) kind += " entry";
    if (node.hotSpot) kind += " hot";
    page << "<g class=\"" << kind << "\" data-node=\"" << v << "\" tabindex=\"0\"><rect x=\""
         << fixed(box.x) << "\" y=\"" << fixed(box.y) << "\" width=\"" << fixed(box.width)
         << "\" height=\"" << fixed(box.height) << "\" rx=\"6\"/><text x=\""
         << fixed(box.x + box.width / 2) << "\" y=\"" << fixed(box.y + box.height / 2 + 4)
         << "\" text-anchor=\"middle\">" << escapeHtml(shortened(node.label, kLabelLimit))
         << "</text><title>" << escapeHtml(node.label) << ": " << node.visits
         << " visits</title></g>\n";
  }
  page << "</svg>\n<p id=\"flow-info\" class=\"note\">Select a screen to see its moves.</p>\n";
  if (model.nodesLeftOut > 0 || model.edgesLeftOut > 0) {
    page << "<p class=\"note cut\">This store is large: " << model.nodesLeftOut
         << " less visited screens and " << model.edgesLeftOut
         << " weaker moves are left out of the graph.</p>\n";
  }
}

void recommendations(std::ostringstream& page, const ReportModel& model) {
  if (model.recommendations.empty()) {
    page << "<p class=\"muted\">No recommendations for this store.</p>\n";
    return;
  }
  page << "<ol class=\"recommendations grid\">\n";
  int rank = 0;
  for (const ReportRecommendation& item : model.recommendations) {
    const QEVRecommendation& r = item.recommendation;
    qevr::json::Writer action;
    r.action().encode(action);
    page << "<li class=\"card\"><h3>" << ++rank << ". " << escapeHtml(r.title())
         << " <span class=\"badge\">" << rawValueOf(r.type())
         << "</span> <span class=\"badge priority-" << rawValueOf(r.priority()) << "\">"
         << rawValueOf(r.priority()) << "</span></h3>\n<p>" << escapeHtml(r.summary())
         << "</p>\n<p><b>Why:</b> " << escapeHtml(r.reason()) << "</p>\n<p><b>Confidence:</b> ";
    confidenceMeter(page, r.confidence());
    page << "</p>\n<p><b>Evidence:</b></p>";
    list(page, r.evidence());
    page << "<p><b>Action:</b> <code>" << escapeHtml(action.take()) << "</code></p>\n"
         << "<p class=\"from\"><b>From:</b> ";
    for (std::size_t i = 0; i < item.sources.size(); ++i) {
      page << (i ? " \u00B7 " : "") << "<a href=\"#" << escapeHtml(item.sources[i]) << "\">"
           << sectionTitle(item.sources[i]) << "</a>";
    }
    page << "</p></li>\n";
  }
  page << "</ol>\n";
}

// A figure's mean; shares as percentages.
std::string figureText(QEVRecommendationSignal signal, double value) {
  return signal == QEVRecommendationSignal::featureUse ? percent(value) : fixed(value, 2);
}

const char* signalText(QEVRecommendationSignal signal) {
  switch (signal) {
    case QEVRecommendationSignal::repeatedInteractions:
      return "repeated interactions per session";
    case QEVRecommendationSignal::failuresAndRetries:
      return "failures and retries per session";
    case QEVRecommendationSignal::featureUse:
      return "sessions using the feature";
    case QEVRecommendationSignal::destinationSteps:
      return "screens before the destination";
  }
  return "";
}

void effectCell(std::ostringstream& page, const QEVRecommendationOutcomeHistory& history) {
  if (!history.firstAppliedAt) {
    page << "<span class=\"muted\">not applied</span>";
    return;
  }
  if (!history.effect) {
    page << "<span class=\"muted\">applied " << escapeHtml(dateText(history.firstAppliedAt))
         << "; this action has no figure to measure</span>";
    return;
  }
  const QEVRecommendationEffectMeasurement& m = *history.effect;
  page << "<span class=\"badge effect-" << rawValueOf(m.effect) << "\">" << rawValueOf(m.effect)
       << "</span>";
  if (m.effect == QEVRecommendationEffect::worse) {
    page << " <b class=\"undo\">worse since applied: the host should undo it</b>";
  }
  page << "<br>" << rawValueOf(m.signal) << " (" << signalText(m.signal)
       << "): " << figureText(m.signal, m.before) << " over " << m.sessionsBefore
       << " sessions before, " << figureText(m.signal, m.after) << " over " << m.sessionsAfter
       << " after";
  if (m.reachedBefore && m.reachedAfter) {
    page << "; reached in " << percent(*m.reachedBefore) << " of sessions before, "
         << percent(*m.reachedAfter) << " after";
  }
  page << "<br><span class=\"note\">applied " << escapeHtml(dateText(history.firstAppliedAt))
       << " UTC</span>";
}

void outcomes(std::ostringstream& page, const ReportOutcomes& log) {
  page << "<p class=\"note\">What the host did with each recommendation. An effect compares "
          "this user's sessions before the advice was first applied with those after: it is an "
          "observed change in these sessions, not a proof that the recommendation caused it, "
          "since anything else that changed in between shows up too.</p>\n";
  if (log.failure) {
    page << "<p class=\"cut\">The outcome log could not be read: " << escapeHtml(*log.failure)
         << "</p>\n";
    return;
  }
  if (log.histories.empty()) {
    page << "<p class=\"muted\">No outcomes are recorded in this store.</p>\n";
    return;
  }
  page << "<table class=\"outcomes\"><thead><tr><th>Recommendation</th><th>Shown</th>"
          "<th>Applied</th><th>Dismissed</th><th>Held back</th><th>Effect</th></tr></thead>"
          "<tbody>\n";
  for (const QEVRecommendationOutcomeHistory& h : log.histories) {
    const bool worse = h.effect && h.effect->effect == QEVRecommendationEffect::worse;
    page << "<tr" << (worse ? " class=\"worse\"" : "") << "><td>" << escapeHtml(h.title)
         << " <span class=\"badge\">" << rawValueOf(h.type) << "</span><br><code>"
         << escapeHtml(h.key) << "</code></td><td class=\"num\">" << h.shownCount
         << "</td><td class=\"num\">" << h.appliedCount << "</td><td class=\"num\">"
         << h.dismissedCount << "</td><td>" << (h.isHeldBack ? "yes" : "no") << "</td><td>";
    effectCell(page, h);
    page << "</td></tr>\n";
  }
  page << "</tbody></table>\n";
}

// The data the page's script needs, as script-safe JSON.
std::string scriptData(const ReportModel& model) {
  std::string json = "{\"nodes\":[";
  for (std::size_t v = 0; v < model.nodes.size(); ++v) {
    json += (v ? "," : "") + std::string("{\"label\":") + jsonStringLiteral(model.nodes[v].label) +
            ",\"visits\":" + std::to_string(model.nodes[v].visits) + "}";
  }
  json += "],\"edges\":[";
  for (std::size_t e = 0; e < model.edges.size(); ++e) {
    json += (e ? "," : "") + std::string("{\"from\":") + std::to_string(model.edges[e].from) +
            ",\"to\":" + std::to_string(model.edges[e].to) +
            ",\"count\":" + std::to_string(model.edges[e].count) + "}";
  }
  json += "]}";
  return scriptSafeJson(json);
}

constexpr const char* kStyle = R"(
body{font:14px/1.45 system-ui,-apple-system,"Segoe UI",sans-serif;margin:0;color:#1d2430;background:#f4f6f9}
header{background:#1f3a5f;color:#fff;padding:18px 28px}header h1{margin:0 0 4px;font-size:22px}
header p{margin:0;opacity:.85}header code{background:rgba(255,255,255,.15);color:#fff}main{max-width:1180px;margin:0 auto;padding:12px 24px 40px}
section{background:#fff;border-radius:8px;box-shadow:0 1px 3px rgba(0,0,0,.12);padding:14px 20px;margin:16px 0}
h2{font-size:18px;margin:4px 0 10px}h3{font-size:15px;margin:0 0 6px}nav a{color:#cfe0ff;margin-right:12px}
.cards{display:flex;flex-wrap:wrap;gap:12px}.cards div{background:#eef2f8;border-radius:6px;padding:8px 14px;min-width:120px}
.cards b{display:block;font-size:20px}.muted{color:#7a8494}.note{color:#55606f;font-size:13px}.cut{color:#9a5a00}
.chart{width:100%;max-width:860px}.chart .bar{fill:#3d7bd9}.chart .rebuilt{fill:#9dbdf0}.axis{stroke:#888}
.tick{font-size:11px;fill:#55606f}.flow{max-width:100%;height:auto}.edge path{fill:none;stroke:#7b8799}
.edge .weight{font-size:12px;fill:#1d2430;paint-order:stroke;stroke:#fff;stroke-width:4px}
.node rect{fill:#e7f0ff;stroke:#3d7bd9;stroke-width:1.5}.node text{font-size:12px;fill:#12233d}
.node.entry rect{fill:#f1f1f1;stroke:#999;stroke-dasharray:4 3}.node.hot rect{fill:#ffe3dc;stroke:#d24a2a}
.node{cursor:pointer}.edge.dim{opacity:.15}.edge.active path{stroke:#d27a00}.node.active rect{stroke-width:3}
marker path{fill:#7b8799}.layout{font-weight:600}
table.counts{border-collapse:collapse;width:100%;max-width:720px}.counts th{text-align:left;font-weight:500;padding:3px 8px 3px 0;width:40%}
.counts td.bar{width:50%}.counts td.bar span{display:block;height:10px;background:#3d7bd9;border-radius:3px}
.counts tr.hot td.bar span{background:#d24a2a}.num{text-align:right;font-variant-numeric:tabular-nums}
.badge{display:inline-block;font-size:11px;padding:1px 7px;border-radius:9px;background:#e4e8ee;color:#333;vertical-align:middle}
.badge.hot,.priority-critical{background:#d24a2a;color:#fff}.priority-high{background:#f0a030;color:#fff}
.level{font-size:18px;font-weight:600}.meter{display:inline-block;width:90px;height:8px;background:#e4e8ee;border-radius:4px;vertical-align:middle}
.meter span{display:block;height:8px;background:#2f9e6a;border-radius:4px}
.card{margin:0 0 12px;padding:10px 14px;border:1px solid #dde3ea;border-radius:6px}.card p{margin:4px 0}
code{font-size:12px;background:#f3f4f6;padding:1px 4px;border-radius:3px;word-break:break-all}
.grid{display:grid;grid-template-columns:repeat(auto-fit,minmax(250px,1fr));gap:0 16px}
.grid>section{margin:8px 0}section ul{margin:2px 0 6px;padding-left:20px}section h3{margin-top:8px}
ol.recommendations{list-style:none;padding:0;grid-template-columns:repeat(auto-fit,minmax(520px,1fr))}
.hotspots td,.hotspots th,.outcomes td,.outcomes th{padding:4px 10px 4px 0;text-align:left;vertical-align:top}
.outcomes{border-collapse:collapse;width:100%}.outcomes tbody tr{border-top:1px solid #e4e8ee}
.outcomes tr.worse{background:#fff1ee}.undo{color:#b02a10}.effect-improved{background:#2f9e6a;color:#fff}
.effect-worse{background:#d24a2a;color:#fff}#report-errors:empty{display:none}
#report-errors{color:#b00;background:#fee;padding:8px}
)";

// Installed first, so that a failure anywhere later is written into the
// page where a test or a reader sees it.
constexpr const char* kErrorCapture = R"(
(function () {
  var box = document.getElementById('report-errors');
  function record(text) { box.textContent += text + '\n'; }
  window.addEventListener('error', function (e) { record('error: ' + e.message); });
  window.addEventListener('unhandledrejection', function (e) { record('rejection: ' + e.reason); });
  var original = console.error;
  console.error = function () {
    record('console.error: ' + Array.prototype.join.call(arguments, ' '));
    return original.apply(console, arguments);
  };
})();
)";

constexpr const char* kScript = R"(
(function () {
  var data = JSON.parse(document.getElementById('report-data').textContent);
  var svg = document.getElementById('flow-svg');
  var info = document.getElementById('flow-info');
  function select(index) {
    var node = data.nodes[index];
    var moves = [];
    svg.querySelectorAll('[data-edge]').forEach(function (el) {
      var e = data.edges[Number(el.getAttribute('data-edge'))];
      var touches = e.from === index || e.to === index;
      el.classList.toggle('active', touches);
      el.classList.toggle('dim', !touches);
      if (touches) {
        moves.push(data.nodes[e.from].label + ' \u2192 ' + data.nodes[e.to].label + ' (' + e.count + ')');
      }
    });
    svg.querySelectorAll('[data-node]').forEach(function (el) {
      el.classList.toggle('active', Number(el.getAttribute('data-node')) === index);
    });
    info.textContent = node.label + ': ' + node.visits + ' visits' +
        (moves.length ? '; moves: ' + moves.join(', ') : '; no recorded moves');
  }
  if (svg) {
    svg.querySelectorAll('[data-node]').forEach(function (el) {
      var index = Number(el.getAttribute('data-node'));
      el.addEventListener('click', function () { select(index); });
      el.addEventListener('keydown', function (ev) { if (ev.key === 'Enter') select(index); });
    });
  }
  document.body.setAttribute('data-report-nodes', String(data.nodes.length));
  document.body.setAttribute('data-report-ms', String(Math.round(performance.now())));
  document.body.setAttribute('data-report-ready', 'yes');
})();
)";

}  // namespace

std::vector<std::string> sourceSectionsOf(const QEVRecommendation& recommendation,
                                          const ReportModel& model) {
  std::vector<std::string> sections;
  auto add = [&](const char* id) {
    if (!contains(sections, id)) sections.emplace_back(id);
  };
  switch (recommendation.type()) {
    case QEVRecommendationType::gameplay:
      add("skill");
      break;
    case QEVRecommendationType::navigation:
      add("flow");
      break;
    case QEVRecommendationType::feature:
      add("intent");
      break;
    case QEVRecommendationType::ui:
      add("components");
      break;
    case QEVRecommendationType::personalization:
      add("behaviour");
      break;
    case QEVRecommendationType::diagnostic:
      add("overview");
      break;
  }
  for (const std::string& line : recommendation.evidence()) {
    if (model.intent && (line == "intent: " + model.intent->primaryIntent ||
                         contains(model.intent->evidence, line)))
      add("intent");
    if (model.frustration && (contains(model.frustration->signals, line) ||
                              contains(model.frustration->likelyCauses, line)))
      add("frustration");
    if (model.skill && contains(model.skill->evidence, line)) add("skill");
    if (model.behavior && (contains(model.behavior->dominantScreens, line) ||
                           contains(model.behavior->dominantActions, line) ||
                           contains(model.behavior->behaviorPatterns, line)))
      add("behaviour");
  }
  return sections;
}

std::string renderReportPage(const ReportModel& model) {
  const QEVMemoryIntelligenceSnapshot& snapshot = model.snapshot;
  std::ostringstream page;
  page << "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
       << "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; "
          "style-src 'unsafe-inline'; script-src 'unsafe-inline'; img-src data:\">\n"
       << "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
       << "<title>QEVR report</title>\n<style>" << kStyle << "</style></head>\n<body>\n"
       << "<pre id=\"report-errors\"></pre>\n<script>" << kErrorCapture << "</script>\n"
       << "<header><h1>What QEVR knows about this user</h1><p>Store <code>"
       << escapeHtml(model.storePath) << "</code> \u00B7 generated "
       << escapeHtml(dateText(model.generatedAt)) << " UTC \u00B7 domain "
       << escapeHtml(model.domainLabel) << "</p>\n<nav><a href=\"#overview\">Overview</a>"
       << "<a href=\"#sessions\">Sessions</a><a href=\"#flow\">Screen flow</a>"
       << "<a href=\"#components\">Components</a><a href=\"#behaviour\">Behaviour</a><a "
          "href=\"#intent\">Intent</a>"
       << "<a href=\"#frustration\">Frustration</a><a href=\"#skill\">Skill</a>"
       << "<a href=\"#recommendations\">Recommendations</a><a href=\"#outcomes\">Outcomes</a>"
       << "</nav></header>\n<main>\n";

  page << "<section id=\"overview\"><h2>Overview</h2><div class=\"cards\">"
       << "<div><b>" << snapshot.totalSessions << "</b>sessions</div>"
       << "<div><b>" << snapshot.totalEvents << "</b>events</div>"
       << "<div><b>" << escapeHtml(durationText(snapshot.averageSessionDuration))
       << "</b>average session</div>"
       << "<div><b>" << escapeHtml(bytesText(model.diskUsageBytes)) << "</b>on disk</div></div>\n"
       << "<p class=\"note\">Memory's own counts, as the analyses see them. Time window: "
       << escapeHtml(dateText(snapshot.timeWindowStart)) << " to "
       << escapeHtml(dateText(snapshot.timeWindowEnd)) << ".</p></section>\n";

  page << "<section id=\"sessions\"><h2>Sessions over time</h2>\n";
  sessionsChart(page, model);
  page << "</section>\n";

  page << "<section id=\"flow\"><h2>Screen flow</h2>\n";
  flowGraph(page, model);
  page << "</section>\n";

  page << "<div class=\"grid\"><section id=\"components\"><h2>Most used components</h2>\n";
  countTable(page, model.components, model.componentsLeftOut, "components");
  page << "</section><section id=\"events\"><h2>Custom events</h2>\n";
  countTable(page, model.customEvents, model.customEventsLeftOut, "custom events");
  page << "</section></div>\n";

  page << "<div class=\"grid\"><section id=\"behaviour\"><h2>Behaviour</h2>\n";
  if (model.behavior) {
    page << "<p>" << escapeHtml(model.behavior->summary) << "</p><p>Confidence ";
    confidenceMeter(page, model.behavior->confidence);
    page << "</p><h3>Dominant screens</h3>";
    list(page, model.behavior->dominantScreens);
    page << "<h3>Dominant actions</h3>";
    list(page, model.behavior->dominantActions);
    page << "<h3>Patterns</h3>";
    list(page, model.behavior->behaviorPatterns);
  } else {
    page << "<p class=\"muted\">The behaviour summary could not be computed.</p>\n";
  }
  page << "</section><section id=\"intent\"><h2>Intent</h2>\n";
  if (model.intent) {
    page << "<p class=\"level\">" << escapeHtml(model.intent->primaryIntent)
         << "</p><p>Confidence ";
    confidenceMeter(page, model.intent->confidence);
    page << "</p><h3>Also</h3>";
    list(page, model.intent->secondaryIntents);
    page << "<h3>Evidence</h3>";
    list(page, model.intent->evidence);
  } else {
    page << "<p class=\"muted\">The intent analysis could not be computed.</p>\n";
  }
  page << "</section>\n";

  page << "<section id=\"frustration\"><h2>Frustration hot spots</h2>\n";
  if (model.frustration) {
    const QEVFrustrationAnalysis& f = *model.frustration;
    page << "<p class=\"level\">Level " << rawValueOf(f.level) << "</p><p>Confidence ";
    confidenceMeter(page, f.confidence);
    page << "</p>\n";
    if (f.signals.empty()) {
      page << "<p class=\"muted\">No frustration signals.</p>\n";
    } else {
      page << "<table class=\"hotspots\"><thead><tr><th>Signal</th><th>Likely cause</th></tr>"
              "</thead><tbody>\n";
      for (std::size_t i = 0; i < f.signals.size(); ++i) {
        page << "<tr><td>" << escapeHtml(f.signals[i]) << "</td><td>"
             << escapeHtml(i < f.likelyCauses.size() ? f.likelyCauses[i] : "-") << "</td></tr>\n";
      }
      page << "</tbody></table>\n";
    }
  } else {
    page << "<p class=\"muted\">The frustration analysis could not be computed.</p>\n";
  }
  page << "</section>\n";

  page << "<section id=\"skill\"><h2>Skill</h2>\n";
  if (model.skill) {
    page << "<p class=\"level\">" << rawValueOf(model.skill->skillLevel) << "</p><p>Difficulty: "
         << escapeHtml(model.skill->recommendedDifficultyAdjustment.value_or("-"))
         << "</p><p>Confidence ";
    confidenceMeter(page, model.skill->confidence);
    page << "</p><h3>Evidence</h3>";
    list(page, model.skill->evidence);
  } else {
    page << "<p class=\"muted\">The skill analysis could not be computed.</p>\n";
  }
  page << "</section></div>\n";

  page << "<section id=\"recommendations\"><h2>Recommendations</h2>\n";
  recommendations(page, model);
  page << "</section>\n";

  page << "<section id=\"outcomes\"><h2>Outcomes</h2>\n";
  outcomes(page, model.outcomes);
  page << "</section>\n</main>\n";

  page << "<script type=\"application/json\" id=\"report-data\">" << scriptData(model)
       << "</script>\n<script>" << kScript << "</script>\n</body></html>\n";
  return page.str();
}

}  // namespace report
