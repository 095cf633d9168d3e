// Positions for a small directed graph: boxes for the nodes, cubic Bézier
// routes for the edges, in pixels with the origin at the top left.
//
// Two sources give the same result type: our own layered layout, always
// available, and Graphviz `dot` run as a child process when it is installed.
// Neither keeps state; any thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace report {

struct Point {
  double x = 0;
  double y = 0;
};

struct LayoutNode {
  double width = 0;  // box size the caller wants, in pixels
  double height = 0;
};

struct LayoutEdge {
  std::size_t from = 0;  // indices into the node list
  std::size_t to = 0;
};

struct LayoutInput {
  std::vector<LayoutNode> nodes;
  std::vector<LayoutEdge> edges;
};

struct PlacedNode {
  double x = 0;  // top-left corner of the box
  double y = 0;
  double width = 0;
  double height = 0;
  std::size_t layer = 0;  // rank from the top; 0 for layouts that do not say
};

struct PlacedEdge {
  // 1 + 3k points: a start and k cubic segments (two controls, one end).
  std::vector<Point> route;
  Point labelAt;  // where the edge's weight is written
  // Set aside to break cycles (builtin layout): it runs back up the
  // layers or across one, and is drawn beside or above the boxes.
  bool reversed = false;
};

struct GraphLayout {
  std::vector<PlacedNode> nodes;  // same order as the input
  std::vector<PlacedEdge> edges;  // same order as the input
  double width = 0;
  double height = 0;
};

// Longest-path layering after breaking cycles by breadth-first distance from
// the nodes in input order (so put the starting node first), then
// barycentre sweeps over the layers to reduce crossings. Self-loops are
// drawn as loops beside their node. Edges with an index out of range are
// given an empty route. Linear in the edges per sweep; callers bound the
// input (see kMaxLayoutNodes).
GraphLayout builtinLayout(const LayoutInput& input);

// The report never lays out more than this many nodes or edges.
inline constexpr std::size_t kMaxLayoutNodes = 60;
inline constexpr std::size_t kMaxLayoutEdges = 200;

// The DOT text for `input`: nodes "n0", "n1", ... with fixed sizes in
// inches, so `dot` places boxes of exactly the caller's size.
std::string dotSourceFor(const LayoutInput& input);

// Reads `dot -Tplain` output for a graph made by dotSourceFor. Absent when
// the text does not describe every node, or describes one twice, or has a
// number that is not finite.
std::optional<GraphLayout> layoutFromDotPlain(std::string_view plain, const LayoutInput& input);

struct DotRunLimits {
  std::chrono::milliseconds timeout{10000};
  std::size_t maxOutputBytes = 4 * 1024 * 1024;
};

// Runs `dot -Tplain` from PATH with the graph on standard input. Absent,
// with the reason in `failure`, when dot is not installed, exits with an
// error, is killed at the timeout, writes more than the limit or writes
// something layoutFromDotPlain cannot read. Ignores SIGPIPE in this process
// so that a dot that exits early cannot kill the caller.
std::optional<GraphLayout> dotLayout(const LayoutInput& input, const DotRunLimits& limits,
                                     std::string& failure);

}  // namespace report
