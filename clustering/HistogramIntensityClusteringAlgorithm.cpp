#include "HistogramIntensityClusteringAlgorithm.h"

#include <Eigen/Core>
#include <algorithm>
#include <cmath>
#include <exception>
#include <numeric>

#include "Curve.h"
#include "ImageComponents.h"
#include "ImageMath.h"
#include "Log.h"
#include "SharedImageSet.h"

namespace Merivane {

namespace {
constexpr const char* kCategory = "Seg.HistogramIntensityClusteringAlgorithm";

// A one-dimensional float data object over the bins, named `name`.
std::unique_ptr<SharedImageSet> binsAsData(const std::vector<double>& values, const char* name) {
  const int n = static_cast<int>(values.size());
  auto img = TypedImage<float>::zeros(Eigen::Vector3i(std::max(n, 1), 1, 1), 1);
  for (int i = 0; i < n; ++i) img->pointer()[i] = static_cast<float>(values[static_cast<size_t>(i)]);
  auto set = std::make_unique<SharedImageSet>(std::shared_ptr<Image>(std::move(img)));
  set->setName(name);
  return set;
}
}  // namespace

HistogramIntensityClusteringAlgorithm::HistogramIntensityClusteringAlgorithm(SharedImageSet& image)
    : image_(&image) {
  clusterSizeRatio.setAttribute("decimals", "4");
  binSizeRatio.setAttribute("decimals", "6");
  const auto [lo, hi] = HistogramDataComponent::of(image).minmaxOriginal();
  minValHisto.setDefaultValue(lo);
  minValHisto = lo;
  maxValHisto.setDefaultValue(hi);
  maxValHisto = hi;
}

HistogramIntensityClusteringAlgorithm::~HistogramIntensityClusteringAlgorithm() = default;

bool HistogramIntensityClusteringAlgorithm::createCompatible(const DataList& data, Algorithm** algorithm) {
  if (data.size() != 1) return false;
  SharedImageSet* set = data[0]->asImageSet();
  if (!set || set->size() != 1) return false;
  if (algorithm) *algorithm = new HistogramIntensityClusteringAlgorithm(*set);
  return true;
}

void HistogramIntensityClusteringAlgorithm::foldRange(std::vector<float>& h, int lo, int hi) {
  const int n = static_cast<int>(h.size());
  if (n == 0) return;
  // lo may equal n (the range clamp allows it); it folds onto the last bin then.
  lo = std::clamp(lo, 0, n - 1);
  hi = std::clamp(hi, 0, n - 1);
  if (lo > 0) {
    float sum = 0.0f;
    for (int i = 0; i < lo; ++i) sum += std::exchange(h[static_cast<size_t>(i)], 0.0f);
    h[static_cast<size_t>(lo)] += sum;
  }
  if (hi < n - 1) {
    float sum = 0.0f;
    for (int i = hi + 1; i < n; ++i) sum += std::exchange(h[static_cast<size_t>(i)], 0.0f);
    h[static_cast<size_t>(hi)] += sum;
  }
}

std::vector<double> HistogramIntensityClusteringAlgorithm::smooth(const std::vector<float>& h, int r,
                                                                  double zeroBelow) {
  const int n = static_cast<int>(h.size());
  std::vector<double> prefix(static_cast<size_t>(n) + 1, 0.0);
  for (int i = 0; i < n; ++i) prefix[static_cast<size_t>(i) + 1] = prefix[static_cast<size_t>(i)] + h[static_cast<size_t>(i)];
  std::vector<double> s(static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) {
    const int a = std::max(0, i - r), b = std::min(n - 1, i + r);
    double v = (prefix[static_cast<size_t>(b) + 1] - prefix[static_cast<size_t>(a)]) / (b - a + 1);
    if (zeroBelow > v) v = 0.0;
    s[static_cast<size_t>(i)] = v;
  }
  return s;
}

std::vector<double> HistogramIntensityClusteringAlgorithm::spline(const std::vector<double>& s, int r) {
  const int n = static_cast<int>(s.size());
  std::vector<double> kx, ky, at(static_cast<size_t>(n));
  for (int i = 0; i < n; i += std::max(r, 1)) {
    kx.push_back(i);
    ky.push_back(s[static_cast<size_t>(i)]);
  }
  std::iota(at.begin(), at.end(), 0.0);
  return Curve(kx, ky).evaluate(at);
}

std::vector<HistogramIntensityClusteringAlgorithm::Cluster> HistogramIntensityClusteringAlgorithm::findClusters(
    const std::vector<double>& y, double minClusterMass, double minMaxRatio, double c, double dMax, double b) {
  std::vector<Cluster> clusters;
  const int n = static_cast<int>(y.size());
  if (n < 3) return clusters;
  const auto Y = [&y](int i) { return y[static_cast<size_t>(i)]; };
  double acc = 0.0, peak = 0.0;
  int dir = +1;
  for (int i = 0; i + 1 <= n - 2; ++i) {
    acc += Y(i);
    // A cluster too small so far cannot close; no direction is tracked meanwhile.
    if (minClusterMass > acc) continue;
    // Over a plateau, look for the first bin that differs. Plateau bins are added here and
    // again when the scan reaches them.
    double d = Y(i + 1) - Y(i);
    int j = i + 1;
    while (d == 0.0 && j < n - 1) {
      acc += Y(j);
      ++j;
      d = Y(j) - Y(j - 1);
    }
    const int m = i + j - 1;  // m / 2 is the centre of the step or plateau
    const double centre = Y(m / 2);
    bool found = false;
    if (d < 0.0) {
      if (dir == +1) {
        dir = -1;
        peak = std::max(peak, centre);
      } else if (dir != -1) {
        dir = 0;
      }
    } else {
      if (dir == -1) {
        const double q = peak / centre;  // a valley at 0 passes any ratio
        if (q > minMaxRatio)
          found = true;
        else
          dir = +1;
      } else if (dir != +1) {
        dir = 0;
      }
    }
    if (!found) continue;
    LOG_DEBUG(kCategory, "Found minima at index : " << m * 0.5);
    const double v = (m * 0.5 / n) * (dMax - c) + c;
    clusters.push_back({clusters.empty() ? c - 1.0 : clusters.back().upper, v, acc, 0.0});
    peak = 0.0;
    acc = 0.0;
    dir = +1;
  }
  if (clusters.empty()) return clusters;
  // A last hump too small to stand alone joins the cluster before it.
  if (minClusterMass > acc) {
    acc += clusters.back().mass;
    clusters.pop_back();
    if (clusters.empty()) return clusters;
  }
  clusters.push_back({clusters.back().upper, b, acc, 0.0});
  return clusters;
}

void HistogramIntensityClusteringAlgorithm::compute() {
  setStatus(statusError);
  clusters_.clear();
  byMass_.clear();
  histogram_.reset();
  smooth_.reset();
  spline_.reset();
  labels_.reset();
  try {
    run();
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& e) {
    LOG_ERROR(kCategory, "Histogram clustering failed: " << e.what());
    setStatus(statusError);
    labels_.reset();
  }
}

void HistogramIntensityClusteringAlgorithm::run() {
  if (!validateParameters(kCategory)) return;
  const MemImage* frame = image_ ? image_->mem(-1) : nullptr;
  if (!frame) {
    LOG_ERROR(kCategory, "The image has no frame in memory");
    setStatus(statusInvalidInput);
    return;
  }
  const double voxels = static_cast<double>(frame->descriptor().elementCount());

  // 1. Histogram over the frame's present range.
  HistogramDataComponent& hc = HistogramDataComponent::of(*image_);
  const auto [a, b] = hc.minmaxOriginal();
  const auto [c, d] = hc.minmax();
  const std::vector<double> counts = hc.derivedHistogram(0, hc.maxNumBuckets(0) / underSamplingSkip, Vec2d(c, d));
  if (counts.empty()) {
    LOG_INFO(kCategory, "No histogram of the image (range " << c << " to " << d << "): no intensity clusters");
    return;
  }
  std::vector<float> h(counts.begin(), counts.end());
  const int n = static_cast<int>(h.size());

  // 2. Everything outside [minValHisto, maxValHisto] onto the two boundary bins.
  const double w = (b - a) / n;
  const auto bin = [&](double v) { return static_cast<int>(std::clamp(std::round((v - a) / w), 0.0, double(n))); };
  foldRange(h, bin(minValHisto), bin(maxValHisto));
  histogram_ = binsAsData(std::vector<double>(h.begin(), h.end()), "Histogram");

  // 4, 5. Moving average, then the spline through every r-th bin.
  const std::vector<double> s = smooth(h, smoothRadius, voxels * binSizeRatio);
  smooth_ = binsAsData(s, "Histogram smooth");
  const std::vector<double> y = spline(s, smoothRadius);
  spline_ = binsAsData(y, "Histogram spline");

  // 6-10. Valleys.
  clusters_ = findClusters(y, voxels * clusterSizeRatio, minMaxRatio, c, d, b);
  if (clusters_.empty()) {
    LOG_INFO(kCategory, "The histogram has no valley that splits it: no intensity clusters");
    return;
  }
  byMass_.resize(clusters_.size());
  std::iota(byMass_.begin(), byMass_.end(), 0);
  std::stable_sort(byMass_.begin(), byMass_.end(),
                   [this](int i, int j) { return clusters_[static_cast<size_t>(i)].mass > clusters_[static_cast<size_t>(j)].mass; });

  label(*frame);
  setStatus(statusSuccess);
}

void HistogramIntensityClusteringAlgorithm::label(const MemImage& frame) {
  // 12. A U8 label map on the input's grid, one channel per input channel.
  ImageDescriptor desc = frame.descriptor();
  desc.pixelType = U8;
  desc.shift = 0.0;
  desc.scale = 1.0;
  auto labels = std::make_unique<SharedImageSet>();
  for (int i = 0; i < image_->size(); ++i) {
    auto frameLabels = std::make_shared<SharedImage>(std::shared_ptr<Image>(MemImage::create(desc)));
    frameLabels->setMatrix(image_->get(i)->matrix());
    labels->add(frameLabels);
  }
  labels->setModality(Data::LABEL);
  labels->setName(image_->name().empty() ? "Intensity Clusters" : image_->name() + " Intensity Clusters");

  // 13. Strict comparisons: a voxel on a boundary keeps 0. Ranks are the intensity order.
  // Frames on the graphics card are labelled there; frames in memory by the processor.
  namespace IM = ImageMath;
  const auto evaluate = [this](auto&& out, auto&& img) {
    for (size_t k = 0; k < clusters_.size(); ++k) {
      const Cluster& cl = clusters_[k];
      const auto inside = ((img > cl.lower) && (img < cl.upper)).template cast<int>();
      if (k == 0)
        out = IM::Scalar<int>(0) + 0 * inside;
      else
        out = out + static_cast<int>(k) * inside;
    }
  };
  for (const Cluster& cl : clusters_)
    LOG_INFO(kCategory, "Creating label for range [" << cl.lower << ", " << cl.upper << "]");
  for (int i = 0; i < image_->size(); ++i) {
    SharedImage& source = *image_->get(i);
    SharedImage& target = *labels->get(i);
    if (source.hasGl() && !source.hasMem()) {
      evaluate(IM::makeArray(target), IM::makeArray(source));
      continue;
    }
    auto* out = dynamic_cast<TypedImage<unsigned char>*>(target.mem());
    MemImage* in = source.mem();
    if (!out || !in) continue;
    dispatchPixelType(in->type(), [&](auto tag) {
      using T = decltype(tag);
      if (auto* typed = dynamic_cast<TypedImage<T>*>(in)) evaluate(IM::makeArray(*out), IM::makeArray(*typed));
    });
    target.setDirtyMem();
  }
  labels_ = std::move(labels);
}

OwningDataList HistogramIntensityClusteringAlgorithm::takeOutput() {
  OwningDataList out;
  if (debugOutput) {
    if (histogram_) out.add(std::move(histogram_));
    if (smooth_) out.add(std::move(smooth_));
    if (spline_) out.add(std::move(spline_));
  }
  if (labels_) out.add(std::move(labels_));
  return out;
}

}  // namespace Merivane
