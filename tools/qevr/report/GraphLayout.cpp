#include "GraphLayout.h"

#include <QEVRPlatform/Process.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <numeric>
#include <sstream>

namespace report {

namespace {

constexpr double kMargin = 24;
constexpr double kLayerGap = 72;  // room for the weights written on edges
constexpr double kNodeGap = 36;
constexpr double kLoopReach = 40;  // how far loops and back edges swing out
constexpr double kPixelsPerInch = 72;

// A caller's box size, made safe: a NaN or absurd width would otherwise
// leak into every coordinate after it.
double sanitisedExtent(double value, double fallback) {
  if (!std::isfinite(value) || value < 1) return fallback;
  return std::min(value, 1000.0);
}

Point bezierPoint(const Point& p0, const Point& p1, const Point& p2, const Point& p3, double t) {
  const double u = 1 - t;
  const double a = u * u * u, b = 3 * u * u * t, c = 3 * u * t * t, d = t * t * t;
  return {a * p0.x + b * p1.x + c * p2.x + d * p3.x, a * p0.y + b * p1.y + c * p2.y + d * p3.y};
}

// The middle of the middle segment: on the curve, and away from both ends
// where arrowheads and boxes are.
Point labelPoint(const std::vector<Point>& route) {
  if (route.size() < 4) return route.empty() ? Point{} : route.front();
  const std::size_t segments = (route.size() - 1) / 3;
  const std::size_t s = segments / 2;
  return bezierPoint(route[3 * s], route[3 * s + 1], route[3 * s + 2], route[3 * s + 3], 0.5);
}

// Edges whose ends are in adjacent layers and cross, given each node's
// position within its layer.
std::size_t crossingsBetween(const std::vector<std::pair<std::size_t, std::size_t>>& pairs,
                             const std::vector<std::size_t>& position) {
  std::size_t count = 0;
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    for (std::size_t j = i + 1; j < pairs.size(); ++j) {
      const auto [a1, b1] = pairs[i];
      const auto [a2, b2] = pairs[j];
      const bool upperOrder = position[a1] < position[a2];
      const bool lowerOrder = position[b1] < position[b2];
      if (position[a1] != position[a2] && position[b1] != position[b2] &&
          upperOrder != lowerOrder) {
        ++count;
      }
    }
  }
  return count;
}

}  // namespace

GraphLayout builtinLayout(const LayoutInput& input) {
  const std::size_t n = input.nodes.size();
  const std::size_t m = input.edges.size();
  GraphLayout layout;
  layout.nodes.resize(n);
  layout.edges.resize(m);

  auto valid = [&](const LayoutEdge& e) { return e.from < n && e.to < n; };
  std::vector<std::vector<std::size_t>> outgoing(n);  // edge indices, self-loops left out
  for (std::size_t e = 0; e < m; ++e) {
    const LayoutEdge& edge = input.edges[e];
    if (valid(edge) && edge.from != edge.to) outgoing[edge.from].push_back(e);
  }

  // Cycle breaking by distance from the start: a breadth-first search from
  // the nodes in input order gives every node a depth, and only the edges
  // that lead one step deeper take part in the layering. Every other edge
  // (back to a shallower node, or across to one as deep) is set aside and
  // drawn beside the boxes. Unlike a depth-first search this keeps a
  // strongly connected flow, where every screen leads to every other,
  // shallow and wide instead of stretching it into one long chain.
  std::vector<char> reversed(m, 0);
  {
    constexpr std::size_t unseen = static_cast<std::size_t>(-1);
    std::vector<std::size_t> depth(n, unseen);
    std::vector<std::size_t> queue;
    for (std::size_t root = 0; root < n; ++root) {
      if (depth[root] != unseen) continue;
      depth[root] = 0;
      queue.assign(1, root);
      for (std::size_t head = 0; head < queue.size(); ++head) {
        const std::size_t v = queue[head];
        for (std::size_t e : outgoing[v]) {
          const std::size_t w = input.edges[e].to;
          if (depth[w] == unseen) {
            depth[w] = depth[v] + 1;
            queue.push_back(w);
          }
        }
      }
    }
    for (std::size_t e = 0; e < m; ++e) {
      const LayoutEdge& edge = input.edges[e];
      if (!valid(edge) || edge.from == edge.to) continue;
      reversed[e] = depth[edge.to] != depth[edge.from] + 1 ? 1 : 0;
    }
  }

  // Longest-path layering over the edges kept, in topological order.
  std::vector<std::vector<std::size_t>> down(n), up(n);  // neighbours along the kept edges
  std::vector<std::size_t> indegree(n, 0);
  for (std::size_t e = 0; e < m; ++e) {
    const LayoutEdge& edge = input.edges[e];
    if (!valid(edge) || edge.from == edge.to || reversed[e]) continue;
    down[edge.from].push_back(edge.to);
    up[edge.to].push_back(edge.from);
    ++indegree[edge.to];
  }
  std::vector<std::size_t> layerOf(n, 0);
  {
    std::vector<std::size_t> ready;
    for (std::size_t v = 0; v < n; ++v)
      if (indegree[v] == 0) ready.push_back(v);
    for (std::size_t head = 0; head < ready.size(); ++head) {
      const std::size_t v = ready[head];
      for (std::size_t w : down[v]) {
        layerOf[w] = std::max(layerOf[w], layerOf[v] + 1);
        if (--indegree[w] == 0) ready.push_back(w);
      }
    }
  }
  const std::size_t layerCount = n == 0 ? 0 : *std::max_element(layerOf.begin(), layerOf.end()) + 1;
  std::vector<std::vector<std::size_t>> layers(layerCount);
  for (std::size_t v = 0; v < n; ++v)
    layers[layerOf[v]].push_back(v);

  // Barycentre sweeps: each node moves toward the mean position of its
  // neighbours in the layers already placed. The best order seen is kept,
  // because a sweep can make things worse on small graphs.
  std::vector<std::size_t> position(n, 0);
  auto renumber = [&] {
    for (const auto& layer : layers)
      for (std::size_t i = 0; i < layer.size(); ++i)
        position[layer[i]] = i;
  };
  std::vector<std::pair<std::size_t, std::size_t>> adjacentPairs;
  for (std::size_t a = 0; a < n; ++a)
    for (std::size_t b : down[a])
      if (layerOf[b] == layerOf[a] + 1) adjacentPairs.emplace_back(a, b);
  auto totalCrossings = [&] {
    std::size_t total = 0;
    for (std::size_t l = 0; l + 1 < layerCount; ++l) {
      std::vector<std::pair<std::size_t, std::size_t>> between;
      for (const auto& p : adjacentPairs)
        if (layerOf[p.first] == l) between.push_back(p);
      total += crossingsBetween(between, position);
    }
    return total;
  };
  auto sweep = [&](std::size_t l, const std::vector<std::vector<std::size_t>>& neighbours) {
    std::vector<std::pair<double, std::size_t>> keyed;
    for (std::size_t v : layers[l]) {
      double sum = 0;
      std::size_t count = 0;
      for (std::size_t u : neighbours[v]) {
        sum += static_cast<double>(position[u]);
        ++count;
      }
      keyed.emplace_back(
          count ? sum / static_cast<double>(count) : static_cast<double>(position[v]), v);
    }
    std::stable_sort(keyed.begin(), keyed.end(),
                     [](const auto& x, const auto& y) { return x.first < y.first; });
    for (std::size_t i = 0; i < keyed.size(); ++i)
      layers[l][i] = keyed[i].second;
    renumber();
  };
  renumber();
  auto best = layers;
  std::size_t fewest = totalCrossings();
  for (int round = 0; round < 4 && fewest > 0; ++round) {
    for (std::size_t l = 1; l < layerCount; ++l)
      sweep(l, up);
    for (std::size_t l = layerCount; l-- > 1;)
      sweep(l - 1, down);
    const std::size_t now = totalCrossings();
    if (now < fewest) {
      fewest = now;
      best = layers;
    }
  }
  layers = best;
  renumber();

  // Coordinates: layers top to bottom, each centred on the widest.
  std::vector<double> widths(n), heights(n);
  for (std::size_t v = 0; v < n; ++v) {
    widths[v] = sanitisedExtent(input.nodes[v].width, 80);
    heights[v] = sanitisedExtent(input.nodes[v].height, 28);
  }
  double widest = 0;
  std::vector<double> layerWidth(layerCount, 0), layerHeight(layerCount, 0);
  for (std::size_t l = 0; l < layerCount; ++l) {
    for (std::size_t v : layers[l]) {
      layerWidth[l] += widths[v];
      layerHeight[l] = std::max(layerHeight[l], heights[v]);
    }
    layerWidth[l] += kNodeGap * static_cast<double>(layers[l].size() - 1);
    widest = std::max(widest, layerWidth[l]);
  }
  // Loops and back edges swing out beside the boxes; leave them room on
  // both sides.
  bool swingsOut = false;
  for (std::size_t e = 0; e < m; ++e) {
    const LayoutEdge& edge = input.edges[e];
    swingsOut |= valid(edge) && (edge.from == edge.to || reversed[e]);
  }
  const double sideRoom = swingsOut ? 2 * kLoopReach : 0;
  // Edges between boxes of one layer arc over it; the top layer needs room
  // above it for them.
  bool arcsOverTop = false;
  for (std::size_t e = 0; e < m; ++e) {
    const LayoutEdge& edge = input.edges[e];
    arcsOverTop |=
        valid(edge) && edge.from != edge.to && layerOf[edge.from] == 0 && layerOf[edge.to] == 0;
  }
  double y = kMargin + (arcsOverTop ? kLoopReach : 0);
  for (std::size_t l = 0; l < layerCount; ++l) {
    double x = kMargin + sideRoom + (widest - layerWidth[l]) / 2;
    for (std::size_t v : layers[l]) {
      layout.nodes[v] = {x, y + (layerHeight[l] - heights[v]) / 2, widths[v], heights[v], l};
      x += widths[v] + kNodeGap;
    }
    y += layerHeight[l] + (l + 1 < layerCount ? kLayerGap : 0);
  }

  const double middle = kMargin + sideRoom + widest / 2;
  for (std::size_t e = 0; e < m; ++e) {
    const LayoutEdge& edge = input.edges[e];
    if (!valid(edge)) continue;
    const PlacedNode& s = layout.nodes[edge.from];
    const PlacedNode& t = layout.nodes[edge.to];
    PlacedEdge& placed = layout.edges[e];
    placed.reversed = reversed[e] != 0;
    if (edge.from == edge.to) {
      const Point a{s.x + s.width, s.y + s.height * 0.3}, b{s.x + s.width, s.y + s.height * 0.7};
      placed.route = {a, {a.x + kLoopReach, s.y - 6}, {b.x + kLoopReach, s.y + s.height + 6}, b};
    } else if (!placed.reversed) {
      const Point a{s.x + s.width / 2, s.y + s.height}, b{t.x + t.width / 2, t.y};
      const double dy = (b.y - a.y) / 2;
      placed.route = {a, {a.x, a.y + dy}, {b.x, b.y - dy}, b};
    } else if (s.layer == t.layer) {
      const Point a{s.x + s.width / 2, s.y}, b{t.x + t.width / 2, t.y};
      const double lift = kLoopReach * 1.2;
      placed.route = {a, {a.x, std::min(a.y, b.y) - lift}, {b.x, std::min(a.y, b.y) - lift}, b};
    } else {
      // Back up the layers beside the boxes, on the side of the graph the
      // edge starts on, clear of the forward edges that leave from the
      // bottom.
      const double span = static_cast<double>(std::min<std::size_t>(s.layer - t.layer, 4));
      const double swing = kLoopReach * (0.75 + 0.25 * span);
      if (s.x + s.width / 2 >= middle) {
        const Point a{s.x + s.width, s.y + s.height / 2}, b{t.x + t.width, t.y + t.height / 2};
        const double reach = std::max(a.x, b.x) + swing;
        placed.route = {a, {reach, a.y}, {reach, b.y}, b};
      } else {
        const Point a{s.x, s.y + s.height / 2}, b{t.x, t.y + t.height / 2};
        const double reach = std::min(a.x, b.x) - swing;
        placed.route = {a, {reach, a.y}, {reach, b.y}, b};
      }
    }
    placed.labelAt = labelPoint(placed.route);
  }

  layout.width = n == 0 ? 0 : kMargin * 2 + widest + 2 * sideRoom;
  layout.height = n == 0 ? 0 : y + kMargin;
  return layout;
}

std::string dotSourceFor(const LayoutInput& input) {
  std::ostringstream dot;
  dot.imbue(std::locale::classic());
  dot << "digraph flow {\n"
         "  graph [rankdir=TB, nodesep=0.5, ranksep=0.9];\n"
         "  node [shape=box, fixedsize=true, label=\"\"];\n";
  for (std::size_t v = 0; v < input.nodes.size(); ++v) {
    dot << "  n" << v << " [width=" << sanitisedExtent(input.nodes[v].width, 80) / kPixelsPerInch
        << ", height=" << sanitisedExtent(input.nodes[v].height, 28) / kPixelsPerInch << "];\n";
  }
  for (const LayoutEdge& e : input.edges) {
    if (e.from < input.nodes.size() && e.to < input.nodes.size())
      dot << "  n" << e.from << " -> n" << e.to << ";\n";
  }
  dot << "}\n";
  return dot.str();
}

namespace {

// Whitespace-separated words of one line; dot quotes labels, but the names
// and numbers read here are never quoted.
std::vector<std::string_view> wordsOf(std::string_view line) {
  std::vector<std::string_view> words;
  std::size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && (line[i] == ' ' || line[i] == '\t' || line[i] == '\r'))
      ++i;
    const std::size_t start = i;
    while (i < line.size() && line[i] != ' ' && line[i] != '\t' && line[i] != '\r')
      ++i;
    if (i > start) words.push_back(line.substr(start, i - start));
  }
  return words;
}

std::optional<double> numberOf(std::string_view word) {
  double value = 0;
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
  if (error != std::errc() || end != word.data() + word.size() || !std::isfinite(value))
    return std::nullopt;
  return value;
}

std::optional<std::size_t> nodeIndexOf(std::string_view name, std::size_t count) {
  if (name.size() < 2 || name[0] != 'n') return std::nullopt;
  std::size_t value = 0;
  const auto [end, error] = std::from_chars(name.data() + 1, name.data() + name.size(), value);
  if (error != std::errc() || end != name.data() + name.size() || value >= count)
    return std::nullopt;
  return value;
}

}  // namespace

std::optional<GraphLayout> layoutFromDotPlain(std::string_view plain, const LayoutInput& input) {
  const std::size_t n = input.nodes.size();
  GraphLayout layout;
  layout.nodes.resize(n);
  layout.edges.resize(input.edges.size());
  std::vector<char> placed(n, 0);
  std::vector<char> routed(input.edges.size(), 0);
  double heightInches = -1;
  std::size_t start = 0;
  while (start < plain.size()) {
    std::size_t end = plain.find('\n', start);
    if (end == std::string_view::npos) end = plain.size();
    const std::vector<std::string_view> w = wordsOf(plain.substr(start, end - start));
    start = end + 1;
    if (w.empty()) continue;
    if (w[0] == "graph") {
      if (w.size() < 4) return std::nullopt;
      const auto width = numberOf(w[2]), height = numberOf(w[3]);
      if (!width || !height || *width < 0 || *height < 0) return std::nullopt;
      layout.width = *width * kPixelsPerInch;
      layout.height = *height * kPixelsPerInch;
      heightInches = *height;
    } else if (w[0] == "node") {
      if (w.size() < 6 || heightInches < 0) return std::nullopt;
      const auto v = nodeIndexOf(w[1], n);
      const auto x = numberOf(w[2]), y = numberOf(w[3]);
      if (!v || !x || !y || placed[*v]) return std::nullopt;
      placed[*v] = 1;
      const double width = sanitisedExtent(input.nodes[*v].width, 80);
      const double height = sanitisedExtent(input.nodes[*v].height, 28);
      layout.nodes[*v] = {*x * kPixelsPerInch - width / 2,
                          (heightInches - *y) * kPixelsPerInch - height / 2, width, height, 0};
    } else if (w[0] == "edge") {
      if (w.size() < 4 || heightInches < 0) return std::nullopt;
      const auto from = nodeIndexOf(w[1], n), to = nodeIndexOf(w[2], n);
      const auto count = numberOf(w[3]);
      if (!from || !to || !count || *count < 1 || *count > 10000 ||
          w.size() < 4 + 2 * static_cast<std::size_t>(*count))
        return std::nullopt;
      std::vector<Point> route;
      for (std::size_t i = 0; i < static_cast<std::size_t>(*count); ++i) {
        const auto x = numberOf(w[4 + 2 * i]), y = numberOf(w[5 + 2 * i]);
        if (!x || !y) return std::nullopt;
        route.push_back({*x * kPixelsPerInch, (heightInches - *y) * kPixelsPerInch});
      }
      if (route.size() % 3 != 1) return std::nullopt;
      // Parallel edges come out in input order; give each the first
      // matching input edge not yet routed.
      for (std::size_t e = 0; e < input.edges.size(); ++e) {
        if (!routed[e] && input.edges[e].from == *from && input.edges[e].to == *to) {
          routed[e] = 1;
          layout.edges[e].labelAt = labelPoint(route);
          layout.edges[e].route = std::move(route);
          break;
        }
      }
    } else if (w[0] == "stop") {
      break;
    }
  }
  if (std::find(placed.begin(), placed.end(), 0) != placed.end()) return std::nullopt;
  for (std::size_t e = 0; e < input.edges.size(); ++e) {
    const LayoutEdge& edge = input.edges[e];
    if (edge.from < n && edge.to < n && !routed[e]) return std::nullopt;
  }
  return layout;
}

std::optional<GraphLayout> dotLayout(const LayoutInput& input, const DotRunLimits& limits,
                                     std::string& failure) {
  const qevr::ProcessResult run = qevr::runProcess("dot", {"-Tplain"}, dotSourceFor(input),
                                                   {limits.timeout, limits.maxOutputBytes});
  if (!run.status) {
    failure = run.failure;
    return std::nullopt;
  }
  if (*run.status != 0) {
    failure = "dot failed with status " + std::to_string(*run.status);
    return std::nullopt;
  }
  auto layout = layoutFromDotPlain(run.output, input);
  if (!layout) failure = "dot's output could not be read";
  return layout;
}

}  // namespace report
