#include "CenterlineExtractionAlgorithm.h"

#include <algorithm>
#include <cmath>
#include <exception>

#include "BasicImageProcessing.h"
#include "CenterlineExtraction.h"
#include "ImageProcessing.h"
#include "Log.h"
#include "PointSet.h"
#include "Progress.h"
#include "SharedImageSet.h"
#include "Spline.h"

namespace Merivane {

namespace {

constexpr const char* kCategory = "Seg.CenterlineExtractionAlgorithm";

// Channel 0 of `mem` as float, with its shift and scale kept.
std::unique_ptr<TypedImage<float>> floatCopy(const MemImage& mem) {
  auto all = ImageProcessing::createFloat(mem, ImageProcessing::None);
  ImageDescriptor d = all->descriptor();
  d.channels = 1;
  d.shift = mem.shift();
  d.scale = mem.scale();
  auto out = TypedImage<float>::create(d);
  const float* src = static_cast<const float*>(all->data());
  const size_t n = d.pixelCount(), c = static_cast<size_t>(mem.channels());
  for (size_t i = 0; i < n; ++i) out->pointer()[i] = src[i * c];
  return out;
}

}  // namespace

CenterlineExtractionAlgorithm::CenterlineExtractionAlgorithm(SharedImage* image) : image_(image) {}
CenterlineExtractionAlgorithm::~CenterlineExtractionAlgorithm() = default;

bool CenterlineExtractionAlgorithm::createCompatible(const DataList& data, Algorithm** algorithm) {
  if (data.size() != 1 && data.size() != 2) return false;
  SharedImageSet* set = data[0] ? data[0]->asImageSet() : nullptr;
  if (!set || set->empty() || !kindMatches(Data::kindVolume, set->kind())) return false;
  const PointSet* points = nullptr;
  if (data.size() == 2) {
    points = data[1] && data[1]->kind() == Data::kindPointSet ? static_cast<const PointSet*>(data[1]) : nullptr;
    if (!points) return false;
  }
  if (algorithm) {
    auto* a = new CenterlineExtractionAlgorithm(set->get(0));
    if (points) a->setInitPoints(points->points());
    *algorithm = a;
  }
  return true;
}

void CenterlineExtractionAlgorithm::setInitPoints(const std::vector<Eigen::Vector3d>& points) {
  initPoints_ = points;
  samples_.clear();
}

void CenterlineExtractionAlgorithm::computeProbability() {
  const MemImage* mem = image_ ? image_->mem() : nullptr;
  if (!mem) return;

  SharedImageSet working;
  {
    auto frame = std::make_shared<SharedImage>(std::shared_ptr<Image>(floatCopy(*mem)));
    frame->setMatrix(image_->matrix());
    working.add(frame);
  }

  if (croppingMargin >= 0.0 && !initPoints_.empty()) {
    const Eigen::Vector3i size = mem->dimensions();
    Eigen::Vector3i lo = Eigen::Vector3i::Constant(std::numeric_limits<int>::max());
    Eigen::Vector3i hi = Eigen::Vector3i::Constant(std::numeric_limits<int>::min());
    for (const Eigen::Vector3d& w : initPoints_) {
      const Eigen::Vector3d v = image_->worldToPixel(w);
      for (int k = 0; k < 3; ++k) {
        const int t = static_cast<int>(std::clamp(v[k] + 0.5, -1e9, 1e9));
        lo[k] = std::min(lo[k], t);
        hi[k] = std::max(hi[k], t);
      }
    }
    Eigen::Vector3i lower, upper;
    for (int k = 0; k < 3; ++k) {
      const double e = croppingMargin * (hi[k] - lo[k]);
      lower[k] = std::max(0, static_cast<int>(std::clamp(lo[k] - e + 0.5, -1e9, 1e9)));
      upper[k] = (size[k] - 1) - std::min(size[k] - 1, static_cast<int>(std::clamp(hi[k] + e + 0.5, -1e9, 1e9)));
    }
    BasicImageProcessing crop(&working);
    crop.setCropParams(lower, upper);
    crop.setCreateNew(false);
    crop.compute();
  }
  {
    const double r = workingResolution;
    BasicImageProcessing resample(&working);
    resample.setResampling(r, r, r);
    resample.setCreateNew(false);
    resample.compute();
  }

  SharedImage* frame = working.get(0);
  auto* window = static_cast<TypedImage<float>*>(frame->mem());
  const double shift = window->shift(), scale = window->scale();
  const double lut0 = minimumLut, lut1 = maximumLut;
  const bool isBright = bright;
  float* p = window->pointer();
  const long n = static_cast<long>(window->descriptor().pixelCount());
#pragma omp parallel for schedule(static) if (n > (1 << 16))
  for (long i = 0; i < n; ++i) {
    const double v = std::clamp(p[i] / scale - shift, std::min(lut0, lut1), std::max(lut0, lut1));
    p[i] = static_cast<float>(isBright ? v : -v);
  }
  window->setShiftScale(0.0, 1.0);
  frame->setDirtyMem();

  auto speed = CenterlineExtraction::speedFromWindow(*window, isotropicConstant);
  if (!speed) return;
  probability_ = std::make_unique<SharedImage>(std::shared_ptr<Image>(std::move(speed)));
  probability_->setMatrix(frame->matrix());
}

void CenterlineExtractionAlgorithm::compute() {
  samples_.clear();
  if (!validateParameters(kCategory)) return;
  const MemImage* mem = image_ ? image_->mem() : nullptr;
  if (!mem || mem->dimension() != 3) {
    LOG_ERROR(kCategory, "The input is not a volume.");
    setStatus(statusInvalidInput);
    return;
  }
  const int count = static_cast<int>(initPoints_.size());
  if (count < 2) {
    LOG_ERROR(kCategory, "The centerline needs at least two initial points, not " << count << ".");
    setStatus(statusIncompleteInput);
    return;
  }
  for (int i = 0; i < count; ++i) {
    const Eigen::Vector3d v = image_->worldToPixel(initPoints_[static_cast<size_t>(i)]);
    const Eigen::Vector3d last = mem->dimensions().cast<double>() - Eigen::Vector3d::Constant(0.5);
    if (!v.allFinite() || (v.array() < -0.5).any() || (v.array() > last.array()).any()) {
      LOG_ERROR(kCategory, "Initial point " << i << " (" << initPoints_[static_cast<size_t>(i)].transpose()
                                            << ") lies outside the image.");
      setStatus(statusInvalidInput);
      return;
    }
  }

  try {
    Progress::Task task(progress_, count, "Computing...");
    computeProbability();
    if (!probability_) {
      LOG_ERROR(kCategory, "No probability map could be computed.");
      setStatus(statusError);
      return;
    }
    const auto& speed = static_cast<const TypedImage<float>&>(*probability_->mem());
    std::vector<Eigen::Vector3d> joined;
    std::vector<float> times;
    for (int i = count - 2; i >= 0; --i) {
      if (task.wasCanceled()) {
        samples_.clear();
        setStatus(statusCanceled);
        return;
      }
      // Points inside the image can fall a fraction of a voxel beyond the cropped and
      // resampled grid's outer centres: they belong to its edge voxels.
      const Eigen::Vector3d last = speed.dimensions().cast<double>() - Eigen::Vector3d::Ones();
      const Eigen::Vector3d seed =
          probability_->worldToPixel(initPoints_[static_cast<size_t>(i)]).cwiseMax(0.0).cwiseMin(last);
      const Eigen::Vector3d target =
          probability_->worldToPixel(initPoints_[static_cast<size_t>(i) + 1]).cwiseMax(0.0).cwiseMin(last);
      task.incrementStep();
      if (computeMode == 0) continue;
      std::vector<Eigen::Vector3d> path;
      const bool traced = computeMode != 1;
      if (!CenterlineExtraction::minimalPath(speed, seed, target, times, traced ? &path : nullptr)) {
        LOG_ERROR(kCategory, "Fast marching from point " << i << " reached no voxel.");
        setStatus(statusError);
        return;
      }
      ImageDescriptor d = speed.descriptor();
      auto action = TypedImage<float>::create(d);
      std::copy(times.begin(), times.end(), action->pointer());
      actionMap_ = std::make_unique<SharedImage>(std::shared_ptr<Image>(std::move(action)));
      actionMap_->setMatrix(probability_->matrix());
      for (size_t j = 1; j < path.size(); ++j) joined.push_back(probability_->pixelToWorld(path[j]));
    }
    if (!joined.empty()) Spline(joined, false).getUniformSamples(centerlineSamples, samples_, 1e-10);
    setStatus(statusSuccess);
    signalOutputChanged.emitSignal();
  } catch (const std::exception& e) {
    samples_.clear();
    LOG_ERROR(kCategory, "Centerline extraction failed: " << e.what());
    setStatus(statusError);
  }
}

std::unique_ptr<SharedImage> CenterlineExtractionAlgorithm::retrieveProbability() { return std::move(probability_); }
std::unique_ptr<SharedImage> CenterlineExtractionAlgorithm::retrieveActionMap() { return std::move(actionMap_); }

OwningDataList CenterlineExtractionAlgorithm::takeOutput() {
  OwningDataList out;
  if (!samples_.empty()) out.add(std::make_unique<PointSet>(samples_, "Centerline"));
  auto wrap = [&](std::unique_ptr<SharedImage> image, const char* name) {
    if (!image) return;
    auto set = std::make_unique<SharedImageSet>(std::shared_ptr<SharedImage>(std::move(image)));
    set->setName(name);
    out.add(std::move(set));
  };
  wrap(retrieveProbability(), "Probability Map");
  wrap(retrieveActionMap(), "Action Map");
  return out;
}

}  // namespace Merivane
