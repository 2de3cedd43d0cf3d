#include "GraphBasedSegmentation.h"

#include <Eigen/Geometry>
#include <Eigen/LU>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>

#include "GraphLaplacianAlgorithm.h"
#include "GraphLaplacianIds.h"
#include "ImageComponents.h"
#include "ImageProcessing.h"
#include "Interpolation.h"
#include "LabelMap.h"
#include "Log.h"
#include "SegmentationSteps.h"
#include "SharedImageSet.h"

namespace Merivane {

namespace {

constexpr const char* kCategory = "Seg.GraphBasedSegmentation";
using Clock = std::chrono::steady_clock;
double msSince(Clock::time_point t) { return std::chrono::duration<double, std::milli>(Clock::now() - t).count(); }

// The matrix of a crop: the box's centre moves by (offset + size / 2 - dims / 2) voxels.
Eigen::Matrix4d croppedMatrix(const Eigen::Matrix4d& m, const Eigen::Vector3i& dims, const Eigen::Vector3d& spacing,
                              const Eigen::Vector3i& offset, const Eigen::Vector3i& size) {
  const Eigen::Vector3d shift =
      (offset.cast<double>() + 0.5 * size.cast<double>() - 0.5 * dims.cast<double>()).cwiseProduct(spacing);
  Eigen::Matrix4d t = Eigen::Matrix4d::Identity();
  t.block<3, 1>(0, 3) = shift;
  return m * t;
}

std::shared_ptr<SharedImage> cloneFrame(const SharedImage& frame, const Eigen::Matrix4d& matrix) {
  auto copy = std::make_shared<SharedImage>(std::shared_ptr<Image>(frame.mem()->clone()));
  copy->setMatrix(matrix);
  return copy;
}

// Linear sample of channel 0 at a continuous pixel position, clamped to the image.
float sampleLinear(const TypedImage<float>& img, const Eigen::Vector3d& p) {
  const double q[3] = {p[0], p[1], p[2]};
  return static_cast<float>(Interpolation::interpolate(
      Interpolation::stencil(q, img.dimensions()), [&](int x, int y, int z) { return img.value(x, y, z); }));
}

}  // namespace

GraphBasedSegmentation::GraphBasedSegmentation(SharedImageSet* images, SharedImageSet* labels, SharedImageSet* priors)
    : images_(images), labels_(labels), priors_(priors) {
  currentObjectLabels_.assign(images_ ? static_cast<size_t>(images_->size()) : 0, 1);
  // Label maps with a scale are brought to plain values: round(value / scale).
  if (labels_) {
    for (int i = 0; i < labels_->size(); ++i) {
      SharedImage* frame = labels_->get(i);
      MemImage* m = frame->mem();
      if (m->scale() == 1.0) continue;
      const double scale = m->scale();
      dispatchPixelType(m->type(), [&](auto tag) {
        using T = decltype(tag);
        T* p = static_cast<T*>(m->data());
        const size_t n = m->descriptor().elementCount();
        for (size_t k = 0; k < n; ++k) p[k] = static_cast<T>(static_cast<long long>(p[k] / scale + 0.5));
      });
      m->setShiftScale(m->shift(), 1.0);
      frame->setDirtyMem();
    }
  }
}

GraphBasedSegmentation::~GraphBasedSegmentation() = default;

bool GraphBasedSegmentation::createCompatible(const DataList& data, Algorithm** algorithm) {
  if (data.size() != 2) return false;
  auto images = data.getImages();
  if (images.size() != 2) return false;
  const Image* image = images[0]->img(-1);
  const Image* labels = images[1]->img(-1);
  if (!image || !labels) return false;
  if (labels->channels() != 1 || labels->type() != U8) return false;
  if (!image->compatible(*labels, true, false, true)) return false;
  if (algorithm) *algorithm = new GraphBasedSegmentation(images[0], images[1], nullptr);
  return true;
}

int GraphBasedSegmentation::focus() const { return images_ ? images_->selection().focus() : 0; }

void GraphBasedSegmentation::setSuperpixelsConfiguration(const Properties* properties) {
  superpixelsConfig_ = properties ? std::make_unique<Properties>(*properties) : nullptr;
}

int GraphBasedSegmentation::currentObjectLabel(int index) const {
  if (index < 0 || index >= static_cast<int>(currentObjectLabels_.size())) return 0;
  return currentObjectLabels_[static_cast<size_t>(index)];
}

void GraphBasedSegmentation::setCurrentObjectLabel(int label, int index) {
  if (index < 0 || index >= static_cast<int>(currentObjectLabels_.size())) return;
  currentObjectLabels_[static_cast<size_t>(index)] = label;
}

uint64_t GraphBasedSegmentation::memoryEstimation(int level) const {
  return algorithm_ ? algorithm_->memoryEstimation(level) : 0;
}

GraphBasedSegmentation::BoxDecision GraphBasedSegmentation::computeBox(int index, bool& reuse) {
  auto* lab = dynamic_cast<const TypedImage<unsigned char>*>(labels_->get(index)->mem());
  if (!lab) return BoxDecision::Abort;
  const TypedImage<unsigned char>* prev = nullptr;
  if (outputLabels_ && outputLabels_->size() == labels_->size())
    prev = dynamic_cast<const TypedImage<unsigned char>*>(outputLabels_->mem(index));
  const Seg::internal::SeedBox box = Seg::internal::seedBox(*lab, prev, currentObjectLabel(index), boxMargin);
  if (!box.anySeeds) return BoxDecision::Abort;
  if (!box.crop) return BoxDecision::NoCrop;

  const Eigen::Vector3i d = lab->dimensions(), &offset = box.offset, &size = box.size;
  if (verbose) {
    const double fraction = double(size[0]) * size[1] * size[2] / (double(d[0]) * d[1] * d[2]);
    LOG_INFO(kCategory, "Cropping offset [" << offset[0] << ", " << offset[1] << ", " << offset[2] << "], size ["
                                            << size[0] << ", " << size[1] << ", " << size[2] << "], "
                                            << static_cast<int>(100 * fraction) << "% of image");
  }
  if (offset == cropOffset_ && size == cropSize_ && workingImage_ && workingLabels_) {
    reuse = true;
  } else {
    cropOffset_ = offset;
    cropSize_ = size;
  }
  return BoxDecision::Crop;
}

void GraphBasedSegmentation::clampToWindow(SharedImage& image, double window, double level) const {
  MemImage* m = image.mem();
  const double shift = m->shift(), scale = m->scale();
  const double lo = (level - window / 2 + shift) * scale;
  const double hi = (level + window / 2 + shift) * scale;
  dispatchPixelType(m->type(), [&](auto tag) {
    using T = decltype(tag);
    auto saturate = [](double v) {
      const double a = static_cast<double>(std::numeric_limits<T>::lowest());
      const double b = static_cast<double>(std::numeric_limits<T>::max());
      return static_cast<T>(std::clamp(v, a, b));
    };
    const T tlo = saturate(lo), thi = saturate(hi);
    T* p = static_cast<T*>(m->data());
    const ptrdiff_t n = static_cast<ptrdiff_t>(m->descriptor().elementCount());
#pragma omp parallel for schedule(static) if (n > 262144)
    for (ptrdiff_t i = 0; i < n; ++i) p[i] = std::max(std::min(p[i], thi), tlo);
  });
  image.setDirtyMem();
}

void GraphBasedSegmentation::prepareForComputation() {
  if (!images_ || !labels_) return;
  const int i = focus();
  SharedImage* imageFrame = images_->get(i);
  SharedImage* labelFrame = labels_->get(i);
  if (!imageFrame || !labelFrame) return;
  const auto& id = imageFrame->descriptor();
  if (id.elementCount() / static_cast<size_t>(id.channels) != labelFrame->descriptor().elementCount()) return;

  bool crop = false, reuse = false;
  if (autoCrop) {
    const BoxDecision decision = computeBox(i, reuse);
    if (decision == BoxDecision::Abort) return;
    crop = decision == BoxDecision::Crop;
  }

  // A display window other than the one the working image was clamped to needs a new one.
  double window = 0, level = 0;
  bool clamp = false;
  if (clipToDisplayWindow) {
    if (auto* d2 = images_->components().get<DisplayOptions2d>()) {
      window = d2->window;
      level = d2->level;
      clamp = true;
    } else if (auto* d3 = images_->components().get<DisplayOptions3d>()) {
      window = d3->window;
      level = d3->level;
      clamp = true;
    }
    if (clamp && (window != displayWindow_ || level != displayLevel_)) reuse = false;
  }

  // The working copy of a frame: its crop, taken straight from the frame, or a clone.
  auto working = [&](const SharedImage& f) {
    if (crop) {
      if (std::unique_ptr<MemImage> cropped = ImageProcessing::createCropped(*f.mem(), cropOffset_, cropSize_)) {
        auto copy = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(cropped)));
        copy->setMatrix(
            croppedMatrix(f.matrix(), f.descriptor().dimensions, f.descriptor().spacing, cropOffset_, cropSize_));
        return copy;
      }
    }
    return cloneFrame(f, f.matrix());
  };
  auto labels = working(*labelFrame);
  if (algorithm_ && reuse) {
    // Same box, same image: the algorithm keeps its image (and its kept solution) and takes
    // the new seeds.
    algorithm_->updateLabels(*labels);
  } else {
    auto image = working(*imageFrame);
    std::shared_ptr<SharedImage> prior;
    if (priors_ && priors_->get(i)) prior = working(*priors_->get(i));
    if (clamp && (window != displayWindow_ || level != displayLevel_)) {
      displayWindow_ = window;
      displayLevel_ = level;
      clampToWindow(*image, window, level);
    }
    if (smoothing > 0) Filters::boxFilter3d(imageFrame->mem(), image->mem(), smoothing, smoothing, smoothing);
    algorithm_ = std::make_unique<GraphLaplacianAlgorithm>(*image, *labels, prior.get());
    workingImage_ = image;
    workingPrior_ = prior;
  }
  workingLabels_ = labels;
}

bool GraphBasedSegmentation::drawOutline(int index) {
  auto* prob = dynamic_cast<const TypedImage<float>*>(probability_->mem(0));
  auto* lab = dynamic_cast<TypedImage<unsigned char>*>(labels_->mem(index));
  if (!prob || !lab) return false;
  return Seg::internal::drawOutline(*prob, *lab, cropOffset_, cropSize_);
}

void GraphBasedSegmentation::compute() {
  if (!validateParameters(kCategory)) return;
  if (images_ && labels_ && images_->get(focus()) && labels_->get(focus()) &&
      !Seg::overlapsInWorld(*images_->get(focus()), *labels_->get(focus()))) {
    LOG_ERROR(kCategory, "The label map lies outside the image in world space: "
                             << Seg::describeWorldExtents(*images_->get(focus()), *labels_->get(focus())));
    setStatus(statusInvalidInput);
    return;
  }
  const auto total = Clock::now();
  auto step = Clock::now();
  prepareForComputation();
  if (verbose) LOG_INFO(kCategory, "[GraphBasedSegmentation] Prepare " << msSince(step) << " ms");
  if (!images_ || !labels_ || !images_->get(focus()) || !labels_->get(focus())) {
    LOG_ERROR(kCategory, "Image or label map missing");
    setStatus(statusIncompleteInput);
    return;
  }
  const int i = focus();
  const auto& id = images_->get(i)->descriptor();
  const size_t imageCount = id.elementCount() / static_cast<size_t>(id.channels);
  const size_t labelCount = labels_->get(i)->descriptor().elementCount();
  if (labelCount != imageCount) {
    LOG_ERROR(kCategory, labelCount << " different from " << imageCount);
    setStatus(statusInvalidInput);
    return;
  }
  if (!algorithm_) {
    LOG_ERROR(kCategory, "No seeds of label " << currentObjectLabel(i) << " or " << currentObjectLabel(i) + 1
                                              << " in the label map");
    setStatus(statusIncompleteInput);
    return;
  }

  Properties p;
  p.setParam("Graph Type", static_cast<int>(useSuperpixels ? GraphType::Superpixels : GraphType::Image));
  if (useSuperpixels && superpixelsConfig_) p.copyFrom(*superpixelsConfig_);
  p.setParam("Active Label", currentObjectLabel(i));
  p.setParam("Solver ID", solverId.value());
  p.setParam("Solver Iterations", solverIterations.value());
  p.setParam("Adaptiveness", adaptiveness.value());
  p.setParam("Solver Tolerance (Log)", std::log10(solverTolerance.value()));
  p.setParam("Num Levels", numLevels.value());
  p.setParam("Min Level", minLevel.value());
  p.setParam("Prior Weight", priorWeight.value());
  p.setParam("Re-Use Solution", true);
  p.setParam("Verbose", verbose.value());

  step = Clock::now();
  algorithm_->setProgress(progress_);
  algorithm_->configure(&p);
  algorithm_->compute();
  OwningDataList output = algorithm_->takeOutput();
  if (verbose) LOG_INFO(kCategory, "[GraphBasedSegmentation] Segmentation " << msSince(step) << " ms");
  auto result = output.extractFirstImage();
  if (!result || !result->get(0)) {
    // The inner algorithm has said what went wrong, in one line; its status stands.
    if (algorithm_->status() != statusSuccess) {
      setStatus(algorithm_->status());
      return;
    }
    LOG_ERROR(kCategory, "Error in graph segmentation");
    setStatus(statusError);
    return;
  }

  // Map the box result back into a full-size probability image through world coordinates.
  step = Clock::now();
  SharedImage* labelFrame = labels_->get(i);
  auto full = ImageProcessing::createFloat(*labelFrame->mem(), ImageProcessing::Original);
  auto* fullTyped = static_cast<TypedImage<float>*>(full.get());
  const SharedImage& out = *result->get(0);
  auto* outTyped = dynamic_cast<const TypedImage<float>*>(out.mem());
  if (outTyped) {
    // pixel of the label map -> world -> pixel of the result, as one affine map.
    const Eigen::Vector3d o0 = out.worldToPixel(labelFrame->pixelToWorld(Eigen::Vector3d::Zero()));
    const Eigen::Vector3d ox = out.worldToPixel(labelFrame->pixelToWorld(Eigen::Vector3d::UnitX())) - o0;
    const Eigen::Vector3d oy = out.worldToPixel(labelFrame->pixelToWorld(Eigen::Vector3d::UnitY())) - o0;
    const Eigen::Vector3d oz = out.worldToPixel(labelFrame->pixelToWorld(Eigen::Vector3d::UnitZ())) - o0;
    const Eigen::Vector3i o = cropOffset_, s = cropSize_;
    // A result on the box's own grid (computed at full resolution, or brought up to it) is
    // copied row by row; only another grid needs sampling.
    const Eigen::Vector3d start = o0 + o[0] * ox + o[1] * oy + o[2] * oz;
    const bool sameGrid = (ox - Eigen::Vector3d::UnitX()).norm() < 1e-9 && (oy - Eigen::Vector3d::UnitY()).norm() < 1e-9 &&
                          (oz - Eigen::Vector3d::UnitZ()).norm() < 1e-9 && start.norm() < 1e-9 &&
                          outTyped->dimensions() == s && outTyped->channels() == 1;
    if (sameGrid) {
#pragma omp parallel for schedule(static)
      for (int z = 0; z < s[2]; ++z)
        for (int y = 0; y < s[1]; ++y)
          std::copy_n(&outTyped->pointer()[outTyped->index(0, y, z)], s[0],
                      &fullTyped->pointer()[fullTyped->index(o[0], o[1] + y, o[2] + z)]);
    } else {
#pragma omp parallel for schedule(static)
    for (int z = o[2]; z < o[2] + s[2]; ++z)
      for (int y = o[1]; y < o[1] + s[1]; ++y)
        for (int x = o[0]; x < o[0] + s[0]; ++x)
          fullTyped->setValue(sampleLinear(*outTyped, o0 + x * ox + y * oy + z * oz), x, y, z);
    }
  }
  probability_ = std::make_unique<SharedImageSet>(std::shared_ptr<Image>(std::move(full)));
  probability_->setMatrix(labelFrame->matrix());
  probability_->setName("Probability");
  if (verbose) LOG_INFO(kCategory, "[GraphBasedSegmentation] Map to full label map " << msSince(step) << " ms");

  step = Clock::now();
  const bool border = drawOutline(i);
  if (autoAccept) convertToLabels(true);
  labelFrame->setDirtyMem();
  if (border)
    LOG_WARN(kCategory, "The segmentation extends to the border of the image. More seeds might be required to "
                        "increase the size of the bounding box.");
  if (verbose) {
    LOG_INFO(kCategory, "[GraphBasedSegmentation] Draw contour " << msSince(step) << " ms");
    LOG_INFO(kCategory, "[GraphBasedSegmentation] Segmentation computed in " << msSince(total) / 1000.0 << "s");
  }
  setStatus(statusSuccess);
}

OwningDataList GraphBasedSegmentation::takeOutput() {
  OwningDataList out;
  if (exportProbability && probability_) out.add(probability_->clone());
  return out;
}

void GraphBasedSegmentation::clearResult() {
  if (!labels_) return;
  SharedImage* frame = labels_->get(focus());
  if (!frame) return;
  if (auto* lab = dynamic_cast<TypedImage<unsigned char>*>(frame->mem())) {
    unsigned char* l = lab->pointer();
    const size_t n = lab->descriptor().elementCount();
    for (size_t k = 0; k < n; ++k)
      if (l[k] == 255) l[k] = 0;
  }
  frame->setDirtyMem();
}

std::unique_ptr<SharedImageSet> GraphBasedSegmentation::probabilityImage() { return std::move(probability_); }

void GraphBasedSegmentation::convertToLabels(bool clearOutside) {
  if (!probability_) {
    LOG_ERROR(kCategory, "Probability map not available - please run the graph algorithm.");
    return;
  }
  const int i = focus();
  auto* prob = dynamic_cast<const TypedImage<float>*>(probability_->mem(0));
  SharedImage* frame = labels_ ? labels_->get(i) : nullptr;
  auto* lab = frame ? dynamic_cast<TypedImage<unsigned char>*>(frame->mem()) : nullptr;
  if (!prob || !lab) return;
  const TypedImage<unsigned char>* prev = nullptr;
  if (outputLabels_ && outputLabels_->size() == labels_->size())
    prev = dynamic_cast<const TypedImage<unsigned char>*>(outputLabels_->mem(i));
  Seg::internal::convertToLabels(*prob, *lab, prev, currentObjectLabel(i), cropOffset_, cropSize_, clearOutside);
  frame->setDirtyMem();
  outputLabels_ = labels_->clone();
}

}  // namespace Merivane
