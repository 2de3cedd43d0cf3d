#pragma once
// The inside of a closed 2D polygon by the even-odd rule, for filling outlines drawn by hand
// into masks. Edges are bucketed by unit bands of y, so a query costs the edges that cross
// its band instead of all of them. A point exactly on an edge may fall either way.
#include <Eigen/Core>
#include <vector>

namespace Merivane {

class PolygonRegion {
 public:
  // The polygon closes from its last point back to its first. Fewer than three points, or
  // any point that is not finite, give an empty region.
  explicit PolygonRegion(const std::vector<Eigen::Vector2d>& points);

  bool empty() const { return edges_.empty(); }
  bool contains(const Eigen::Vector2d& p) const;
  // Bounding box of the polygon (both corners zero when empty).
  const Eigen::Vector2d& min() const { return min_; }
  const Eigen::Vector2d& max() const { return max_; }

 private:
  struct Edge {
    Eigen::Vector2d a, b;
  };
  std::vector<Edge> edges_;
  // Edge indices per band of y: band i covers [min.y + i h, min.y + (i + 1) h).
  std::vector<std::vector<int>> bands_;
  double bandHeight_ = 1.0;
  Eigen::Vector2d min_ = Eigen::Vector2d::Zero();
  Eigen::Vector2d max_ = Eigen::Vector2d::Zero();
};

}  // namespace Merivane
