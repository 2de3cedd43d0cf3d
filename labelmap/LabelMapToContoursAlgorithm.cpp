#include "LabelMapToContoursAlgorithm.h"

#include <Eigen/Geometry>
#include <algorithm>
#include <array>
#include <map>

#include "ContoursStorageComponent.h"
#include "Log.h"
#include "MarchingSquares.h"
#include "Progress.h"
#include "SharedImageSet.h"
#include "Spline.h"

namespace Merivane {

namespace {

constexpr const char* kCategory = "LabelMapToContoursAlgorithm";

struct Box {
  int x0 = 1 << 30, y0 = 1 << 30, x1 = -1, y1 = -1;
  bool present() const { return x1 >= 0; }
};

}  // namespace

LabelMapToContoursAlgorithm::LabelMapToContoursAlgorithm(SharedImageSet* labelMap) : labelMap_(labelMap) {}
LabelMapToContoursAlgorithm::~LabelMapToContoursAlgorithm() = default;

bool LabelMapToContoursAlgorithm::createCompatible(const DataList& data, Algorithm** algorithm) {
  if (data.size() != 1) return false;
  SharedImageSet* set = data.getImage();
  if (!set || set->empty() || set->modality() != Data::LABEL) return false;
  const Data::Kind k = set->kind();
  if (k != Data::kindImage && k != Data::kindImageSet) return false;
  if (algorithm) *algorithm = new LabelMapToContoursAlgorithm(set);
  return true;
}

std::vector<Seg::Contour> LabelMapToContoursAlgorithm::createContoursFromLabelMap(
    const SharedImageSet& labelMap, std::pair<int, int> frames, const std::vector<unsigned char>& values) {
  std::vector<Seg::Contour> result;
  Progress::Task task(progress_, std::max(frames.second - frames.first, 1), "Generating Contours..");
  const int skip = std::max(1, skipFactor.value());
  const bool refineSpline = refine;
  std::vector<int> labels;
  for (unsigned char v : values)
    if (v != 0 && std::find(labels.begin(), labels.end(), v) == labels.end()) labels.push_back(v);

  for (int f = frames.first; f <= frames.second; ++f) {
    if (task.wasCanceled()) break;
    const SharedImage* frame = labelMap.get(f);
    const auto* img = frame ? dynamic_cast<const TypedImage<unsigned char>*>(frame->mem()) : nullptr;
    if (!img) continue;
    const int w = img->width(), h = img->height(), c = img->channels();
    const Eigen::Vector2d spacing = frame->descriptor().spacing.head<2>();
    // Centred image coordinates: the frame's centre at 0, millimetres along its axes.
    const Eigen::Vector2d origin =
        -(Eigen::Vector2d(w, h) * 0.5 - Eigen::Vector2d::Constant(0.5)).cwiseProduct(spacing);

    // Bounding boxes of every value in one pass.
    std::array<Box, 256> boxes;
    for (int y = 0; y < h; ++y) {
      const unsigned char* row = img->pointer() + img->index(0, y);
      for (int x = 0; x < w; ++x) {
        Box& b = boxes[row[x * c]];
        b.x0 = std::min(b.x0, x);
        b.x1 = std::max(b.x1, x);
        b.y0 = std::min(b.y0, y);
        b.y1 = std::max(b.y1, y);
      }
    }
    const int n = static_cast<int>(labels.size());
    std::vector<std::vector<Seg::Contour>> perLabel(static_cast<size_t>(n));
#pragma omp parallel for schedule(dynamic, 1) if (n > 1)
    for (int li = 0; li < n; ++li) {
      const int label = labels[li];
      const Box& b = boxes[label];
      if (!b.present()) continue;
      try {
        // The label's box and a ring of background round it, within the frame: every cell
        // the curve crosses, so the polylines are those of the whole frame. A region on the
        // frame's border gives an open polyline there, which the closed spline joins up.
        const int x0 = std::max(b.x0 - 1, 0), y0 = std::max(b.y0 - 1, 0);
        const int cw = std::min(b.x1 + 1, w - 1) - x0 + 1, ch = std::min(b.y1 + 1, h - 1) - y0 + 1;
        std::vector<unsigned char> mask(static_cast<size_t>(cw) * ch, 0);
        for (int y = b.y0; y <= b.y1; ++y) {
          const unsigned char* row = img->pointer() + img->index(0, y);
          unsigned char* out = mask.data() + static_cast<size_t>(y - y0) * cw - x0;
          for (int x = b.x0; x <= b.x1; ++x) out[x] = row[x * c] == label;
        }
        // Traced at 0, the curve runs through the centres of the outermost background pixels,
        // and pixels of the label that touch at a corner belong to one curve.
        std::vector<MarchingSquares::Polyline> lines;
        const Eigen::Vector2d cropOrigin = origin + Eigen::Vector2d(x0, y0).cwiseProduct(spacing);
        MarchingSquares::run<const unsigned char>(mask.data(), cw, ch, 0.0, lines, cropOrigin, spacing);
        for (const auto& line : lines) {
          // A hole of one or two pixels shrinks to a point or a stroke, which encloses nothing.
          if (line.size() < 3) continue;
          std::vector<Eigen::Vector3d> pts;
          pts.reserve(line.size());
          for (const auto& p : line) pts.emplace_back(p.x(), p.y(), 0.0);
          std::vector<Eigen::Vector3d> points =
              Spline(std::move(pts), true).getApproximateClosedSpline(skip, refineSpline).points();
          LOG_DEBUG(kCategory, "Contour with " << points.size() << " points was created.");
          perLabel[li].emplace_back(Seg::Contour::Type::ClosedSpline, label, f, std::move(points));
        }
      } catch (const std::exception& e) {  // nothing may leave the parallel region
        LOG_ERROR(kCategory, "Could not trace label " << label << ": " << e.what());
        perLabel[li].clear();
      }
    }
    for (auto& list : perLabel)
      for (auto& contour : list) result.push_back(std::move(contour));
    task.incrementStep();
  }
  LOG_INFO(kCategory, result.size() << " contours were created.");
  return result;
}

bool LabelMapToContoursAlgorithm::mergeContoursAndApply(const std::vector<Seg::Contour*>& contours,
                                                        SharedImageSet& labelMap, int frame) {
  SharedImage* target = labelMap.get(frame);
  auto* img = target ? dynamic_cast<TypedImage<unsigned char>*>(target->mem()) : nullptr;
  if (!img) return false;
  for (const Seg::Contour* c : contours) {
    if (!c) continue;
    Seg::Contour onFrame = *c;
    onFrame.frame = frame;
    auto painted = onFrame.labelMapFromContour(labelMap);
    if (!painted) continue;
    const size_t n = painted->descriptor().pixelCount();
    const int ch = img->channels();
    for (size_t i = 0; i < n; ++i)
      if (painted->pointer()[i]) img->pointer()[i * ch] = painted->pointer()[i];
  }
  target->setDirtyMem();
  return true;
}

void LabelMapToContoursAlgorithm::compute() {
  contours_.clear();
  annotations_.clear();
  clone_.reset();
  setStatus(statusError);
  if (!validateParameters(kCategory)) return;
  if (!labelMap_ || labelMap_->empty()) {
    LOG_ERROR(kCategory, "No label map.");
    setStatus(statusInvalidInput);
    return;
  }
  if (labelValues->empty()) {
    LOG_ERROR(kCategory, "At least one label value needs to be set.");
    setStatus(statusInvalidInput);
    return;
  }
  if (labelNames->size() != labelValues->size()) {
    LOG_ERROR(kCategory, "Inconsistent parameters. The label values and label names are of different sizes.");
    setStatus(statusInvalidInput);
    return;
  }
  std::pair<int, int> frames;
  if (0 <= framesBegin && framesBegin <= framesEnd) {
    frames = {framesBegin, framesEnd};
  } else {
    const Selection& sel = labelMap_->selection();
    frames = sel.empty() ? std::pair{sel.focus(), sel.focus()} : std::pair{sel.firstSelected(), sel.lastSelected()};
  }
  if (frames.first < 0 || frames.second >= labelMap_->size()) {
    LOG_ERROR(kCategory, "Frames " << frames.first << " to " << frames.second << " are outside the label map of "
                                   << labelMap_->size() << " frames.");
    setStatus(statusInvalidInput);
    return;
  }
  if (skipFactor < 2) skipFactor = 1;

  // A cancelled extraction ends with the contours of the frames done so far, and they are
  // kept like those of a full run.
  std::vector<Seg::Contour> contours;
  try {
    contours = createContoursFromLabelMap(*labelMap_, frames, labelValues);
  } catch (const std::exception& e) {
    LOG_ERROR(kCategory, "Contour extraction failed: " << e.what());
    return;
  }
  if (contours.empty()) {
    LOG_WARN(kCategory, "No contours could be created. Did you choose appropriate label values? Is the skip factor "
                        "too high?");
    setStatus(statusInvalidInput);
    return;
  }

  SharedImageSet* target = labelMap_;
  if (createNewImage) {
    clone_ = labelMap_->clone();
    target = clone_.get();
  }
  auto* storage = target->components().getOrCreate<Seg::ContoursStorageComponent>();
  std::map<int, std::string> names;
  for (size_t i = 0; i < labelValues->size(); ++i) names[labelValues.value()[i]] = labelNames.value()[i];
  for (auto& c : contours) {
    c.name = names[c.labelValue];
    if (annotationMode)
      annotations_.push_back(c);
    else
      storage->add(c);
  }

  if (reapplySegmentation) {
    // Every contour stored on the frame is painted, those of earlier runs and edits included.
    Progress::Task task(progress_, frames.second - frames.first + 1, "Applying contours to labelmap");
    for (int f = frames.first; f <= frames.second; ++f) {
      if (task.wasCanceled()) break;
      mergeContoursAndApply(storage->contours(f), *target, f);
      task.incrementStep();
    }
  }
  contours_ = std::move(contours);
  setStatus(statusSuccess);
}

OwningDataList LabelMapToContoursAlgorithm::takeOutput() {
  OwningDataList out;
  if (clone_) out.add(std::move(clone_));
  return out;
}

}  // namespace Merivane
