#include "IntensityClusteringAlgorithm.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <exception>
#include <limits>
#include <type_traits>

#include "GuidedFilter.h"
#include "ImageProcessing.h"
#include "Log.h"
#include "SharedImageSet.h"

namespace Merivane {

namespace {
constexpr const char* kCategory = "Seg.IntensityClusteringAlgorithm";
// Voxels per block of the per-voxel path: sums are gathered per block and added in block
// order, so they do not depend on how blocks fall to threads.
constexpr size_t kBlock = size_t{1} << 15;

using Cluster = IntensityClusteringAlgorithm::GaussianCluster;

// The cluster nearest to v by (v - mean)^2 / std^2 in float; the first wins ties, and a
// distance that is NaN never wins.
struct Nearest {
  std::vector<float> mean, var;
  explicit Nearest(const std::vector<Cluster>& clusters) {
    for (const Cluster& c : clusters) {
      mean.push_back(static_cast<float>(c.mean));
      const float s = static_cast<float>(c.std);
      var.push_back(s * s);
    }
  }
  int operator()(float v) const {
    float d = v - mean[0];
    float best = d * d / var[0];
    int index = 0;
    for (size_t k = 1; k < mean.size(); ++k) {
      d = v - mean[k];
      const float dk = d * d / var[k];
      if (dk < best) {
        best = dk;
        index = static_cast<int>(k);
      }
    }
    return index;
  }
};

// Per-cluster count, sum and sum of squared deviations.
struct Sums {
  double count = 0, sum = 0, squares = 0;
};

// New means from the sums; clusters without voxels keep theirs.
void updateMeans(std::vector<Cluster>& clusters, const std::vector<Sums>& sums) {
  for (size_t k = 0; k < clusters.size(); ++k)
    if (sums[k].count > 0) clusters[k].mean = sums[k].sum / sums[k].count;
}
void updateStds(std::vector<Cluster>& clusters, const std::vector<Sums>& sums) {
  for (size_t k = 0; k < clusters.size(); ++k)
    if (sums[k].count > 0) clusters[k].std = std::sqrt(sums[k].squares / sums[k].count);
}

template <typename T>
float physical(T stored, double shift, double scale) {
  return static_cast<float>(static_cast<double>(stored) / scale - shift);
}

// Integers of up to 16 bits: every round works on the histogram of stored values.
template <typename T>
void clusterByHistogram(const T* data, size_t n, double shift, double scale, const unsigned char* mask,
                        unsigned char maskValue, unsigned char base, int iterations, std::vector<Cluster>& clusters,
                        unsigned char* labels) {
  constexpr int kBins = 1 << (8 * sizeof(T));
  constexpr long kOffset = static_cast<long>(std::numeric_limits<T>::min());
  const int threads = n < 65536 ? 1 : omp_get_max_threads();
  std::vector<std::vector<uint64_t>> partial(static_cast<size_t>(threads));
#pragma omp parallel num_threads(threads)
  {
    std::vector<uint64_t>& mine = partial[static_cast<size_t>(omp_get_thread_num())];
    mine.assign(kBins, 0);
#pragma omp for schedule(static)
    for (ptrdiff_t i = 0; i < static_cast<ptrdiff_t>(n); ++i)
      if (!mask || mask[i] == maskValue) ++mine[static_cast<size_t>(static_cast<long>(data[i]) - kOffset)];
  }
  // The distinct values present, with their counts (integers: the merge order is immaterial).
  std::vector<int> bins;
  std::vector<double> counts;
  std::vector<float> values;
  for (int b = 0; b < kBins; ++b) {
    uint64_t c = 0;
    for (const auto& p : partial) c += p[static_cast<size_t>(b)];
    if (c == 0) continue;
    bins.push_back(b);
    counts.push_back(static_cast<double>(c));
    values.push_back(physical(static_cast<T>(b + kOffset), shift, scale));
  }
  std::vector<unsigned char> lut(kBins, 0);
  for (int round = 0; round < iterations; ++round) {
    const Nearest nearest(clusters);
    std::vector<Sums> sums(clusters.size());
    for (size_t j = 0; j < bins.size(); ++j) {
      const int k = nearest(values[j]);
      lut[static_cast<size_t>(bins[j])] = static_cast<unsigned char>(k);
      sums[static_cast<size_t>(k)].count += counts[j];
      sums[static_cast<size_t>(k)].sum += counts[j] * values[j];
    }
    updateMeans(clusters, sums);
    for (size_t j = 0; j < bins.size(); ++j) {
      const size_t k = lut[static_cast<size_t>(bins[j])];
      const double d = values[j] - clusters[k].mean;
      sums[k].squares += counts[j] * d * d;
    }
    updateStds(clusters, sums);
  }
  // The labels of the last assignment.
#pragma omp parallel for schedule(static) if (n >= 65536)
  for (ptrdiff_t i = 0; i < static_cast<ptrdiff_t>(n); ++i)
    labels[i] = (mask && mask[i] != maskValue)
                    ? 0
                    : static_cast<unsigned char>(base + lut[static_cast<size_t>(static_cast<long>(data[i]) - kOffset)]);
}

// Any other pixel type: each round assigns every voxel and gathers the sums per block.
template <typename T>
void clusterByVoxel(const T* data, size_t n, double shift, double scale, const unsigned char* mask,
                    unsigned char maskValue, unsigned char base, int iterations, std::vector<Cluster>& clusters,
                    unsigned char* labels) {
  const size_t K = clusters.size();
  const ptrdiff_t blocks = static_cast<ptrdiff_t>((n + kBlock - 1) / kBlock);
  std::vector<Sums> partial(static_cast<size_t>(blocks) * K);
  const auto combine = [&] {
    std::vector<Sums> sums(K);
    for (ptrdiff_t b = 0; b < blocks; ++b)
      for (size_t k = 0; k < K; ++k) {
        const Sums& p = partial[static_cast<size_t>(b) * K + k];
        sums[k].count += p.count;
        sums[k].sum += p.sum;
        sums[k].squares += p.squares;
      }
    return sums;
  };
  for (int round = 0; round < iterations; ++round) {
    const Nearest nearest(clusters);
    std::fill(partial.begin(), partial.end(), Sums{});
#pragma omp parallel for schedule(static) if (blocks > 1)
    for (ptrdiff_t b = 0; b < blocks; ++b) {
      Sums* s = &partial[static_cast<size_t>(b) * K];
      const size_t end = std::min(n, static_cast<size_t>(b + 1) * kBlock);
      for (size_t i = static_cast<size_t>(b) * kBlock; i < end; ++i) {
        if (mask && mask[i] != maskValue) {
          labels[i] = 0;
          continue;
        }
        const float v = physical(data[i], shift, scale);
        if (v != v) {  // NaN: the first cluster's label, and no part in the statistics
          labels[i] = base;
          continue;
        }
        const int k = nearest(v);
        labels[i] = static_cast<unsigned char>(base + k);
        s[k].count += 1;
        s[k].sum += v;
      }
    }
    std::vector<Sums> sums = combine();
    updateMeans(clusters, sums);
    std::vector<double> means;
    for (const Cluster& c : clusters) means.push_back(c.mean);
#pragma omp parallel for schedule(static) if (blocks > 1)
    for (ptrdiff_t b = 0; b < blocks; ++b) {
      Sums* s = &partial[static_cast<size_t>(b) * K];
      const size_t end = std::min(n, static_cast<size_t>(b + 1) * kBlock);
      for (size_t i = static_cast<size_t>(b) * kBlock; i < end; ++i) {
        if (mask && mask[i] != maskValue) continue;
        const float v = physical(data[i], shift, scale);
        if (v != v) continue;
        const size_t k = static_cast<size_t>(labels[i] - base);
        const double d = v - means[k];
        s[k].squares += d * d;
      }
    }
    sums = combine();
    updateStds(clusters, sums);
  }
}
}  // namespace

IntensityClusteringAlgorithm::IntensityClusteringAlgorithm(SharedImage* image, SharedImage* mask)
    : image_(image), mask_(mask) {
  filterEpsilon.setAttribute("step", "0.01");
  filterEpsilon.setAttribute("decimals", "3");
}

IntensityClusteringAlgorithm::~IntensityClusteringAlgorithm() = default;

bool IntensityClusteringAlgorithm::createCompatible(const DataList& data, Algorithm** algorithm) {
  const auto sets = data.getImages();
  if (data.size() != static_cast<int>(sets.size()) || sets.empty() || sets.size() > 2) return false;
  if (sets[0]->size() == 0 || !sets[0]->get(0)) return false;
  SharedImage* mask = nullptr;
  if (sets.size() == 2) {
    if (sets[1]->size() != sets[0]->size()) return false;
    const Image* a = sets[0]->img(0);
    const Image* b = sets[1]->img(0);
    if (!a || !b || b->type() != U8 || !a->compatible(*b, true)) return false;
    mask = sets[1]->get(0);
  }
  if (algorithm) *algorithm = new IntensityClusteringAlgorithm(sets[0]->get(0), mask);
  return true;
}

void IntensityClusteringAlgorithm::setClusters(const std::vector<std::pair<double, double>>& clusters) {
  std::vector<double> means, stds;
  for (const auto& [m, s] : clusters) {
    means.push_back(m);
    stds.push_back(s);
  }
  clustersMeans = means;
  clustersStd = stds;
}

void IntensityClusteringAlgorithm::setFilterParam(int size, double epsilon) {
  filterSize = size;
  filterEpsilon = epsilon;
}

bool IntensityClusteringAlgorithm::cluster(const MemImage& values, const unsigned char* mask,
                                           unsigned char maskValue, unsigned char base, int iterations,
                                           std::vector<GaussianCluster>& clusters, unsigned char* labels) {
  if (clusters.empty() || values.channels() != 1) return false;
  const size_t n = values.descriptor().elementCount();
  bool done = false;
  dispatchPixelType(values.type(), [&](auto tag) {
    using T = decltype(tag);
    const T* data = static_cast<const T*>(values.data());
    if constexpr (std::is_integral_v<T> && sizeof(T) <= 2)
      clusterByHistogram(data, n, values.shift(), values.scale(), mask, maskValue, base, iterations, clusters, labels);
    else
      clusterByVoxel(data, n, values.shift(), values.scale(), mask, maskValue, base, iterations, clusters, labels);
    done = true;
  });
  return done;
}

void IntensityClusteringAlgorithm::compute() {
  setStatus(statusUnknown);
  try {
    run();
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& e) {
    LOG_ERROR(kCategory, "Intensity clustering failed: " << e.what());
    setStatus(statusError);
  }
}

void IntensityClusteringAlgorithm::run() {
  if (!validateParameters(kCategory)) return;
  const std::vector<double>& means = clustersMeans.value();
  const std::vector<double>& stds = clustersStd.value();
  if (means.empty()) {
    LOG_ERROR(kCategory, "No clusters have been selected.");
    setStatus(statusIncompleteInput);
    return;
  }
  if (stds.size() != means.size()) {
    LOG_ERROR(kCategory, "clustersMeans has " << means.size() << " values but clustersStd " << stds.size());
    setStatus(statusInvalidInput);
    return;
  }
  const MemImage* image = image_ ? image_->mem() : nullptr;
  if (!image || image->channels() != 1) {
    LOG_ERROR(kCategory, (image ? "The image has " + std::to_string(image->channels()) + " channels; clustering needs one"
                                : std::string("The image has no memory copy")));
    setStatus(statusInvalidInput);
    return;
  }
  const unsigned char base = mask_ ? 1 : 0;
  if (means.size() > static_cast<size_t>(256 - base)) {
    LOG_ERROR(kCategory, means.size() << " clusters do not fit into the labels " << int(base) << " to 255");
    setStatus(statusInvalidInput);
    return;
  }
  std::vector<GaussianCluster> clusters;
  for (size_t k = 0; k < means.size(); ++k) clusters.push_back({means[k], stds[k]});

  // The values to cluster: the image itself, or its guided-filtered copy mapped back to
  // the image's intensities through shift and scale.
  const MemImage* values = image;
  std::unique_ptr<MemImage> filtered;
  if (filterSize > 0) {
    double lo = 0, hi = 0;
    dispatchPixelType(image->type(), [&](auto tag) {
      using T = decltype(tag);
      T a{}, b{};
      if (auto* t = dynamic_cast<const TypedImage<T>*>(image); t && t->getRange(a, b)) {
        lo = image->descriptor().toPhysical(static_cast<double>(a));
        hi = image->descriptor().toPhysical(static_cast<double>(b));
      }
    });
    if (lo > hi) std::swap(lo, hi);
    std::unique_ptr<MemImage> unit = ImageProcessing::createFloat(*image, ImageProcessing::MinMax);
    if (unit) filtered = unit->clone();
    GuidedFilter filter;
    filter.setSmoothingKernelSize(filterSize);
    filter.setEpsilon(filterEpsilon);
    if (!unit || !filter.compute(*unit, *filtered)) {
      LOG_ERROR(kCategory, "The guided filter of size " << filterSize.value() << " failed");
      setStatus(statusError);
      return;
    }
    filtered->setShiftScale(-lo, hi > lo ? 1.0 / (hi - lo) : 1.0);
    values = filtered.get();
  }

  // A mask that does not fit the image is dropped; labels then still count from 1.
  const unsigned char* mask = nullptr;
  unsigned char maskValue = 0;
  if (mask_) {
    const auto* m = dynamic_cast<const TypedImage<unsigned char>*>(mask_->mem());
    unsigned char lo = 0;
    if (m && m->channels() == 1 && image->compatible(*m, true) && m->getRange(lo, maskValue))
      mask = m->pointer();
    else
      LOG_WARN(kCategory, "The mask does not fit the image and is not used");
  }

  if (!labels_) {
    ImageDescriptor desc(U8, image->dimensions(), 1);
    desc.spacing = image->spacing();
    desc.isMetric = image->isMetric();
    labels_ = std::make_unique<SharedImage>(std::shared_ptr<Image>(MemImage::create(desc)));
    labels_->setMatrix(image_->matrix());
    labels_->setModality(Data::LABEL);
  }
  auto* out = dynamic_cast<TypedImage<unsigned char>*>(labels_->mem());
  if (!out || out->dimensions() != image->dimensions() || out->channels() != 1) {
    LOG_ERROR(kCategory, "The kept label image does not match the image");
    setStatus(statusInvalidInput);
    return;
  }
  if (!cluster(*values, mask, maskValue, base, nbIterations, clusters, out->pointer())) {
    LOG_ERROR(kCategory, "Images of pixel type " << pixelTypeName(values->type()) << " cannot be clustered");
    setStatus(statusInvalidInput);
    return;
  }
  result_ = clusters;
  LOG_INFO(kCategory, "Final Clusters:");
  for (size_t k = 0; k < clusters.size(); ++k)
    LOG_INFO(kCategory, "Cluster " << k << "th, mean: " << clusters[k].mean << ", std: " << clusters[k].std << ".");
  labels_->setDirtyMem();
  setStatus(statusSuccess);
}

SharedImage* IntensityClusteringAlgorithm::retrieveResult(bool transferOwnership) {
  return transferOwnership ? labels_.release() : labels_.get();
}

OwningDataList IntensityClusteringAlgorithm::takeOutput() {
  OwningDataList out;
  if (!labels_ || status() != statusSuccess) return out;
  auto set = std::make_unique<SharedImageSet>(std::shared_ptr<SharedImage>(labels_.release()));
  set->setModality(Data::LABEL);
  set->setName("Intensity Clusters");
  out.add(std::move(set));
  return out;
}

}  // namespace Merivane
