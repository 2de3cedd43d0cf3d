#include "LineToIsosurfaceIntersectionAlgorithm.h"

#include <cmath>
#include <exception>
#include <limits>

#include "GeometryLine.h"
#include "Image.h"
#include "Interpolation.h"
#include "Log.h"
#include "PointSet.h"
#include "SharedImage.h"
#include "SharedImageSet.h"

namespace Merivane {

namespace {

// Messages of this algorithm carry no category.
constexpr const char* kCategory = "";

// Channel 0 at a pixel position, trilinear, in original units.
double valueAt(const MemImage& mem, const Eigen::Vector3d& p) {
  const double at[3] = {p[0], p[1], p[2]};
  const Interpolation::Stencil s = Interpolation::stencil(at, mem.dimensions());
  double stored = 0.0;
  dispatchPixelType(mem.type(), [&](auto tag) {
    using T = decltype(tag);
    const auto& im = static_cast<const TypedImage<T>&>(mem);
    stored = Interpolation::interpolate(s, [&](int x, int y, int z) { return static_cast<double>(im.value(x, y, z)); });
  });
  return mem.descriptor().toPhysical(stored);
}

}  // namespace

LineToIsosurfaceIntersectionAlgorithm::LineToIsosurfaceIntersectionAlgorithm(SharedImageSet& image) : image_(&image) {
  thresholdingMode.setAttribute("values", "AboveThenBelow,BelowThenAbove");
}

LineToIsosurfaceIntersectionAlgorithm::~LineToIsosurfaceIntersectionAlgorithm() = default;

bool LineToIsosurfaceIntersectionAlgorithm::createCompatible(const DataList& data, Algorithm** out) {
  if (data.size() != 1 && data.size() != 2) return false;
  const DataList first{data[0]};
  SharedImageSet* set = first.getImage(Data::kindVolumeSet, Data::CT);
  if (!set) set = first.getImage(Data::kindVolume, Data::CT);
  if (!set || set->empty()) return false;
  const PointSet* points = nullptr;
  if (data.size() == 2) {
    if (!data[1] || data[1]->kind() != Data::kindPointSet) return false;
    points = static_cast<const PointSet*>(data[1]);
    if (points->points().size() < 2) return false;
  }
  if (out) {
    auto* a = new LineToIsosurfaceIntersectionAlgorithm(*set);
    if (points) a->setLineInWorldCoordinates(Geometry::LineSegment(points->points()[0], points->points()[1]));
    *out = a;
  }
  return true;
}

void LineToIsosurfaceIntersectionAlgorithm::setLineInPixelCoordinates(const Geometry::LineBase& line) {
  line_ = line.clone();
}

void LineToIsosurfaceIntersectionAlgorithm::setLineInWorldCoordinates(const Geometry::LineBase& line) {
  const SharedImage* frame = image_ ? image_->get() : nullptr;
  if (!frame) return;
  if (const auto* segment = dynamic_cast<const Geometry::LineSegment*>(&line)) {
    setLineInPixelCoordinates(
        Geometry::LineSegment(frame->worldToPixel(segment->start()), frame->worldToPixel(segment->end())));
  } else {
    const Eigen::Vector3d p = frame->worldToPixel(line.point());
    const Eigen::Vector3d q = frame->worldToPixel(line.point() + line.direction());
    setLineInPixelCoordinates(Geometry::Line(p, q - p));
  }
}

std::optional<Eigen::Vector3d> LineToIsosurfaceIntersectionAlgorithm::getIntersectionInWorldCoordinates() const {
  const SharedImage* frame = image_ ? image_->get() : nullptr;
  if (!intersection_ || !frame) return std::nullopt;
  return frame->pixelToWorld(*intersection_);
}

std::optional<std::pair<double, double>> LineToIsosurfaceIntersectionAlgorithm::getIntersectionCylindricalCoordinates()
    const {
  const auto w = getIntersectionInWorldCoordinates();
  if (!w) return std::nullopt;
  return std::make_pair((*w)[2], std::atan2((*w)[1], (*w)[0]));
}

void LineToIsosurfaceIntersectionAlgorithm::compute() {
  setStatus(statusError);
  intersection_.reset();
  if (!validateParameters(kCategory)) return;
  if (!(thresholdingMode.value() >= 0 && thresholdingMode.value() < 2)) {
    LOG_ERROR(kCategory, "Invalid thresholding mode!");
    setStatus(statusInvalidInput);
    return;
  }
  if (!line_) {
    LOG_ERROR(kCategory, "No line was not set");
    setStatus(statusIncompleteInput);
    return;
  }
  const Eigen::Vector3d direction = line_->direction();
  if (direction.isZero(0.0)) {
    LOG_ERROR(kCategory, "Degenerate line: start and end coincide");
    setStatus(statusInvalidInput);
    return;
  }
  const SharedImage* frame = image_ ? image_->get() : nullptr;
  const MemImage* mem = frame ? frame->mem() : nullptr;
  if (!mem || !direction.allFinite() || !line_->point().allFinite()) {
    LOG_ERROR(kCategory, (mem ? "The line is not finite" : "The image has no pixels in memory"));
    setStatus(statusInvalidInput);
    return;
  }

  const Eigen::Vector3d box = mem->dimensions().cast<double>();
  auto inside = [&](const Eigen::Vector3d& p) { return (p.array() >= 0.0).all() && (p.array() <= box.array()).all(); };
  Eigen::Vector3d p = line_->point();
  const Eigen::Vector3d d = direction.normalized();
  double steps = std::trunc(std::min(line_->length(), 2147483647.0));

  if (!inside(p)) {
    LOG_DEBUG(kCategory, "Start lies outside of volume: move to first position within volume");
    std::optional<Eigen::Vector3d> entry;
    if (const auto* segment = dynamic_cast<const Geometry::LineSegment*>(line_.get()))
      entry = Geometry::intersection(Eigen::Vector3d::Zero(), box, *segment);
    else
      entry = Geometry::intersection(Eigen::Vector3d::Zero(), box, Geometry::Line(line_->point(), direction));
    if (!entry) {
      LOG_ERROR(kCategory, "Cannot move: Line does not intersect with volume");
      setStatus(statusInvalidInput);
      return;
    }
    steps -= (*entry - p).norm() - 0.001;
    p = *entry + 0.001 * d;
  }

  const unsigned int needed = minConsecutiveVoxels;
  const bool below = thresholdingMode.value() == AboveThenBelow;
  const double limit = threshold;
  double low = std::numeric_limits<double>::max(), high = std::numeric_limits<double>::min();
  unsigned int count = 0;
  bool walked = false;
  while (steps > 0.0 && inside(p)) {
    walked = true;
    const double v = valueAt(*mem, p);
    low = std::min(low, v);
    high = std::max(high, v);
    if (below ? v < limit : v > limit) {
      if (!intersection_) intersection_ = Eigen::Vector3d(p - d);
      if (++count >= needed) break;
    } else {
      intersection_.reset();
      count = 0;
    }
    steps -= 1.0;
    p += d;
  }

  if (count == needed && intersection_) {
    if (*intersection_ != Eigen::Vector3d(line_->point() - d)) {
      setStatus(statusSuccess);
      return;
    }
    // The first step met the condition: the line began beyond the surface.
  }
  intersection_.reset();
  if (walked) {
    LOG_DEBUG(kCategory, "No intersection found: range of values on path: [" << low << ":" << high << "]");
    setStatus(statusSuccess);
    return;
  }
  LOG_DEBUG(kCategory, "Line does not intersect with volume, but was supposed to");
  setStatus(statusInvalidInput);
}

OwningDataList LineToIsosurfaceIntersectionAlgorithm::takeOutput() {
  OwningDataList out;
  std::vector<Eigen::Vector3d> points;
  if (const auto w = getIntersectionInWorldCoordinates()) points.push_back(*w);
  out.add(std::make_unique<PointSet>(std::move(points), "Intersection"));
  return out;
}

}  // namespace Merivane
