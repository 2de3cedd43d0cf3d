#include "PositionLookups.h"

#include <cmath>
#include <limits>
#include <vector>

#include "GlView.h"
#include "GuiView.h"
#include "Image.h"
#include "SharedImage.h"

namespace Merivane::Seg {

namespace {
constexpr int kHitSearchRadiusPx = 5;
}

Eigen::Vector3d getPixelCoordinatesAt(const SharedImage* image, const GlView& view, const Eigen::Vector3d& world) {
  const Eigen::Vector3d none = Eigen::Vector3d::Constant(std::numeric_limits<double>::quiet_NaN());
  if (!image || !world.allFinite()) return none;
  const Eigen::Vector3d half = Eigen::Vector3d::Constant(0.5);
  if (!dynamic_cast<const GlVolumeView*>(&view)) return image->worldToPixel(world) + half;
  const Eigen::Vector2d pixel = view.viewState().project(world).head<2>();
  const std::optional<Eigen::Vector3d> hit = view.firstHitpointLocation(pixel, kHitSearchRadiusPx);
  if (!hit) return none;
  Eigen::Vector3d d = *hit - world;
  const double length = d.norm();
  if (length > 0) d /= length;
  return image->worldToPixel(*hit + d) + half;
}

std::optional<unsigned char> getValueAt(const SharedImage* image, const GlView& view, const Eigen::Vector3d& world) {
  if (!image) return std::nullopt;
  const auto* typed = dynamic_cast<const TypedImage<unsigned char>*>(image->mem());
  if (!typed || typed->descriptor().channels < 1) return std::nullopt;
  const Eigen::Vector3d p = getPixelCoordinatesAt(image, view, world);
  if (!p.allFinite()) return std::nullopt;
  const Eigen::Vector3i dims = typed->descriptor().dimensions;
  // Truncation towards zero would fold (-1, 0) onto voxel 0, so test the sign first.
  if ((p.array() < 0.0).any()) return std::nullopt;
  const Eigen::Vector3d limit = dims.cast<double>();
  if ((p.array() >= limit.array()).any()) return std::nullopt;
  const Eigen::Vector3i v = p.cast<int>();
  return typed->pointer()[typed->index(v[0], v[1], v[2], 0)];
}

std::optional<Eigen::Vector3d> getIntersection(const DisplayWidgetMultiAdapter& views) {
  std::vector<Slice> slices;
  for (const GlSliceView* v : views.sliceViews()) slices.push_back(v->slice().slice());
  if (slices.size() < 3) return std::nullopt;
  const std::optional<Line3> line = slices[0].intersect(slices[1]);
  if (!line) return std::nullopt;
  return slices[2].intersect(*line);
}

}  // namespace Merivane::Seg
