#include "MarchingSquares.h"

#include <array>
#include <cstdint>

namespace Merivane::MarchingSquares {

namespace {

// Edges crossed per case: corner i is (x, y), (x+1, y), (x+1, y+1), (x, y+1) for i = 0..3 and
// edge i joins corner i to corner (i + 1) mod 4. Cases 5 and 10 are decided by the mean.
constexpr std::array<std::array<int8_t, 2>, 16> kCaseEdges = {{{-1, -1}, {0, 3}, {0, 1}, {1, 3},
                                                               {1, 2}, {-1, -1}, {0, 2}, {2, 3},
                                                               {2, 3}, {0, 2}, {-1, -1}, {1, 2},
                                                               {1, 3}, {0, 1}, {0, 3}, {-1, -1}}};

}  // namespace

template <typename T>
void run(T* data, int width, int height, double isoValue, std::vector<Polyline>& out, const Eigen::Vector2d& origin,
         const Eigen::Vector2d& spacing, std::vector<bool>* closed) {
  if (!data || width < 2 || height < 2) return;
  const int w = width, h = height;
  auto v = [&](int x, int y) { return static_cast<double>(data[static_cast<size_t>(y) * w + x]); };

  // Crossing points live on grid edges: horizontal edge (x, y)-(x+1, y) has id y * w + x,
  // vertical edge (x, y)-(x, y+1) has id w * h + y * w + x. Each segment joins two edge ids;
  // an edge id is shared by the (at most two) segments of the cells on either side.
  const size_t edgeCount = 2 * static_cast<size_t>(w) * h;
  std::vector<int32_t> endA(edgeCount, -1), endB(edgeCount, -1);  // segments touching an edge
  std::vector<std::array<int32_t, 2>> segments;
  auto edgeId = [&](int x, int y, int e) -> int32_t {
    switch (e) {
      case 0: return y * w + x;
      case 1: return w * h + y * w + x + 1;
      case 2: return (y + 1) * w + x;
      default: return w * h + y * w + x;
    }
  };
  auto addSegment = [&](int x, int y, int e0, int e1) {
    const int32_t s = static_cast<int32_t>(segments.size());
    const int32_t a = edgeId(x, y, e0), b = edgeId(x, y, e1);
    segments.push_back({a, b});
    for (int32_t id : {a, b}) (endA[id] < 0 ? endA[id] : endB[id]) = s;
  };
  for (int y = 0; y + 1 < h; ++y)
    for (int x = 0; x + 1 < w; ++x) {
      const double c0 = v(x, y), c1 = v(x + 1, y), c2 = v(x + 1, y + 1), c3 = v(x, y + 1);
      const int cas = (c0 > isoValue) | ((c1 > isoValue) << 1) | ((c2 > isoValue) << 2) | ((c3 > isoValue) << 3);
      if (cas == 0 || cas == 15) continue;
      if (cas == 5 || cas == 10) {
        const double mean = (c0 + c1 + c2 + c3) * 0.25;
        if ((cas == 5 && mean > isoValue) || (cas == 10 && isoValue >= mean)) {
          addSegment(x, y, 0, 1);
          addSegment(x, y, 2, 3);
        } else {
          addSegment(x, y, 0, 3);
          addSegment(x, y, 1, 2);
        }
        continue;
      }
      addSegment(x, y, kCaseEdges[cas][0], kCaseEdges[cas][1]);
    }
  if (segments.empty()) return;

  auto point = [&](int32_t id) {
    const bool vertical = id >= w * h;
    const int i = vertical ? id - w * h : id;
    const int x = i % w, y = i / w;
    const int x1 = vertical ? x : x + 1, y1 = vertical ? y + 1 : y;
    const double a = v(x, y), b = v(x1, y1);
    const double t = b != a ? (isoValue - a) / (b - a) : 0.5;
    const Eigen::Vector2d p(x + t * (x1 - x), y + t * (y1 - y));
    return Eigen::Vector2d(origin + p.cwiseProduct(spacing));
  };
  auto other = [&](int32_t edge, int32_t seg) { return endA[edge] == seg ? endB[edge] : endA[edge]; };

  std::vector<char> used(segments.size(), 0);
  std::vector<int32_t> forward, backward;
  for (size_t start = 0; start < segments.size(); ++start) {
    if (used[start]) continue;
    used[start] = 1;
    // Forward from the segment's second end, then backward from its first.
    auto walk = [&](int32_t edge, std::vector<int32_t>& chain) {
      int32_t seg = static_cast<int32_t>(start);
      chain.clear();
      while (true) {
        const int32_t next = other(edge, seg);
        if (next < 0 || used[next]) {
          chain.push_back(edge);
          return next >= 0;  // ran back into the start: closed
        }
        chain.push_back(edge);
        used[next] = 1;
        edge = segments[next][0] == edge ? segments[next][1] : segments[next][0];
        seg = next;
      }
    };
    const bool isClosed = walk(segments[start][1], forward);
    Polyline line;
    // A crossing at a sample that lies on the level is shared by the two edges that meet
    // there (a 0/1 mask traced at 0 puts every point on a background sample): keep it once.
    auto append = [&](int32_t edge) {
      const Eigen::Vector2d p = point(edge);
      if (line.empty() || line.back() != p) line.push_back(p);
    };
    if (isClosed) {
      // The last edge of the walk is the start's first end again.
      line.reserve(forward.size());
      append(segments[start][0]);
      for (size_t i = 0; i + 1 < forward.size(); ++i) append(forward[i]);
      if (line.size() > 1 && line.back() == line.front()) line.pop_back();
    } else {
      walk(segments[start][0], backward);
      line.reserve(forward.size() + backward.size());
      for (auto it = backward.rbegin(); it != backward.rend(); ++it) append(*it);
      for (int32_t e : forward) append(e);
    }
    out.push_back(std::move(line));
    if (closed) closed->push_back(isClosed);
  }
}

template void run<float>(float*, int, int, double, std::vector<Polyline>&, const Eigen::Vector2d&,
                         const Eigen::Vector2d&, std::vector<bool>*);
template void run<const float>(const float*, int, int, double, std::vector<Polyline>&, const Eigen::Vector2d&,
                               const Eigen::Vector2d&, std::vector<bool>*);
template void run<const unsigned char>(const unsigned char*, int, int, double, std::vector<Polyline>&,
                                       const Eigen::Vector2d&, const Eigen::Vector2d&, std::vector<bool>*);
template void run<unsigned char>(unsigned char*, int, int, double, std::vector<Polyline>&, const Eigen::Vector2d&,
                                 const Eigen::Vector2d&, std::vector<bool>*);

}  // namespace Merivane::MarchingSquares
