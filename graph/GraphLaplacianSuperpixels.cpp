#include "GraphLaplacianSuperpixels.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "Log.h"
#include "SharedImage.h"
#include "SharedImageSet.h"
#include "SuperpixelsAlgorithm.h"

namespace Merivane {

namespace {

constexpr const char* kCategory = "Seg.GraphLaplacianSuperpixels";

// Mean over channels of the absolute feature differences.
float featureDifference(const Superpixel& a, const Superpixel& b) {
  const size_t C = a.features.size();
  if (C == 0) return 0.0f;
  float d = 0.0f;
  for (size_t c = 0; c < C; ++c) d += std::fabs(a.features[c] - b.features[c]);
  return d / static_cast<float>(C);
}

}  // namespace

GraphLaplacianSuperpixels::GraphLaplacianSuperpixels() = default;
GraphLaplacianSuperpixels::~GraphLaplacianSuperpixels() = default;

int GraphLaplacianSuperpixels::unknownOfSuperpixel(int superpixel) const {
  auto it = unknownOfSuperpixel_.find(superpixel);
  return it == unknownOfSuperpixel_.end() ? -1 : it->second;
}

void GraphLaplacianSuperpixels::clearGraph() {
  superpixelMap_.reset();
  superpixels_.clear();
  laplacian_.resize(0, 0);
  laplacian_.data().squeeze();
  seedValues_.clear();
  seedIndices_.clear();
  unknownIndices_.clear();
  unknownOfSuperpixel_.clear();
}

bool GraphLaplacianSuperpixels::computeSuperpixels(SharedImage& image, SharedImage& labels) {
  image_ = &image;
  labels_ = &labels;
  clearGraph();
  SuperpixelsAlgorithm algorithm(&image);
  Properties p;
  p.setParam("Random indices", false);
  p.setParam("Verbose", false);
  p.setParam("Number of superpixels", superpixelsNumber.value());
  p.setParam("Adaptiveness", superpixelsAdaptiveness.value());
  p.setParam("Number of iterations", superpixelsIterations.value());
  algorithm.configure(&p);
  algorithm.compute();
  OwningDataList out = algorithm.takeOutput();
  auto set = out.extractFirstImage();
  if (set && set->get(0)) superpixelMap_ = std::dynamic_pointer_cast<TypedImage<int>>(set->get(0)->sharedMem());
  if (!superpixelMap_) {
    LOG_ERROR(kCategory, "Error in superpixels algorithm");
    return false;
  }
  superpixels_ = algorithm.superpixels();
  return true;
}

std::vector<std::vector<int>> GraphLaplacianSuperpixels::neighbourSets() const {
  const TypedImage<int>& m = *superpixelMap_;
  const int W = m.width(), H = m.height(), D = m.slices();
  const int64_t WH = int64_t(W) * H, R = int64_t(H) * D;
  const int* s = m.pointer();
  // Pairs per fixed slab of rows, consecutive repeats dropped; sorted and made unique after.
  const int slabs = static_cast<int>(std::clamp<int64_t>(R, 1, 64));
  std::vector<std::vector<uint64_t>> slabPairs(static_cast<size_t>(slabs));
#pragma omp parallel for schedule(dynamic)
  for (int k = 0; k < slabs; ++k) {
    auto& out = slabPairs[static_cast<size_t>(k)];
    auto add = [&](int a, int b) {
      if (a == b) return;
      const uint64_t key = (uint64_t(uint32_t(std::min(a, b))) << 32) | uint32_t(std::max(a, b));
      if (out.empty() || out.back() != key) out.push_back(key);
    };
    for (int64_t r = R * k / slabs; r < R * (k + 1) / slabs; ++r) {
      const int y = static_cast<int>(r % H), z = static_cast<int>(r / H);
      for (int x = 0; x < W; ++x) {
        const int64_t i = r * W + x;
        if (x < W - 1) add(s[i], s[i + 1]);
        if (y < H - 1) add(s[i], s[i + W]);
        if (D > 1 && z < D - 1) add(s[i], s[i + WH]);
      }
    }
  }
  std::vector<uint64_t> pairs;
  for (auto& v : slabPairs) pairs.insert(pairs.end(), v.begin(), v.end());
  std::sort(pairs.begin(), pairs.end());
  pairs.erase(std::unique(pairs.begin(), pairs.end()), pairs.end());
  std::vector<std::vector<int>> neighbours(superpixels_.size());
  const int K = static_cast<int>(superpixels_.size());
  for (uint64_t key : pairs) {
    const int a = static_cast<int>(key >> 32), b = static_cast<int>(key & 0xffffffffu);
    if (a < 0 || b < 0 || a >= K || b >= K) continue;
    neighbours[static_cast<size_t>(a)].push_back(b);
    neighbours[static_cast<size_t>(b)].push_back(a);
  }
  // Keys ascend by (a, b), so b's list of smaller a comes in order before its larger ones.
  for (auto& n : neighbours) std::sort(n.begin(), n.end());
  return neighbours;
}

template <typename WeightFn>
void GraphLaplacianSuperpixels::insertEdges(const std::vector<std::vector<int>>& neighbours, WeightFn weight) {
  const int K = static_cast<int>(neighbours.size());
  laplacian_.resize(K, K);
  laplacian_.setZero();
  Eigen::VectorXi room(K);
  for (int i = 0; i < K; ++i) room[i] = static_cast<int>(neighbours[static_cast<size_t>(i)].size()) + 1;
  laplacian_.reserve(room);
  for (int i = 0; i < K; ++i)
    for (int j : neighbours[static_cast<size_t>(i)]) {
      if (j <= i) continue;
      const float w = weight(i, j);
      laplacian_.insert(i, j) = -w;
      laplacian_.insert(j, i) = -w;
    }
  fillLaplacianDiagonal();
  laplacian_.makeCompressed();
}

void GraphLaplacianSuperpixels::generateGraph(SharedImage& image, SharedImage& labels) {
  if (!computeSuperpixels(image, labels)) return;
  const auto neighbours = neighbourSets();
  const int K = static_cast<int>(superpixels_.size());
  float dmax = std::numeric_limits<float>::lowest();
  for (int i = 0; i < K; ++i)
    for (int j : neighbours[static_cast<size_t>(i)])
      if (j > i) dmax = std::max(dmax, featureDifference(superpixels_[static_cast<size_t>(i)], superpixels_[static_cast<size_t>(j)]));
  // No floor here: a flat image (dmax 0) has no scale to relate differences to.
  const float beta = static_cast<float>(adaptiveness.value()) / dmax;
  insertEdges(neighbours, [&](int i, int j) {
    return computeEdgeWeight(featureDifference(superpixels_[static_cast<size_t>(i)], superpixels_[static_cast<size_t>(j)]),
                             beta, 0.0f, 1e-5f);
  });
  generateSeeds(dynamic_cast<TypedImage<unsigned char>*>(labels.mem()));
}

void GraphLaplacianSuperpixels::generateSeeds(TypedImage<unsigned char>* labels) {
  if (!superpixelMap_) {
    LOG_ERROR(kCategory, "No superpixels map available");
    return;
  }
  seedValues_.clear();
  seedIndices_.clear();
  unknownIndices_.clear();
  unknownOfSuperpixel_.clear();
  const int K = static_cast<int>(superpixels_.size());
  std::vector<unsigned char> seed(static_cast<size_t>(K), 0);
  const int64_t N = static_cast<int64_t>(superpixelMap_->descriptor().pixelCount());
  if (labels && static_cast<int64_t>(labels->descriptor().pixelCount()) == N) {
    const unsigned char* p = labels->pointer();
    const int* s = superpixelMap_->pointer();
    const int C = labels->channels();
    const double scale = labels->scale(), shift = labels->shift();
    // The largest label wins, so the partial maxima merge in any order.
#pragma omp parallel if (N > 65536)
    {
      std::vector<unsigned char> local(static_cast<size_t>(K), 0);
#pragma omp for schedule(static)
      for (int64_t i = 0; i < N; ++i) {
        const unsigned char v = static_cast<unsigned char>(static_cast<int>(p[i * C] / scale - shift));
        const int k = s[i];
        if (v >= 1 && v <= 254 && k >= 0 && k < K) local[static_cast<size_t>(k)] = std::max(local[static_cast<size_t>(k)], v);
      }
#pragma omp critical
      for (int k = 0; k < K; ++k) seed[static_cast<size_t>(k)] = std::max(seed[static_cast<size_t>(k)], local[static_cast<size_t>(k)]);
    }
  } else if (labels) {
    LOG_ERROR(kCategory, "The seed image does not have the size of the superpixel map");
  }
  const unsigned short object = activeLabel.value();
  for (int k = 0; k < K; ++k) {
    const unsigned char v = seed[static_cast<size_t>(k)];
    if (v >= 1 && v <= 254) {
      seedIndices_.push_back(static_cast<uint64_t>(k));
      seedValues_.push_back(v == object ? 1.0f : 0.0f);
    } else {
      unknownOfSuperpixel_[k] = static_cast<int>(unknownIndices_.size());
      unknownIndices_.push_back(static_cast<uint64_t>(k));
    }
  }
}

Eigen::VectorXf GraphLaplacianSuperpixels::generateVectorFromImage(const SharedImage& source) const {
  const Eigen::Index nU = static_cast<Eigen::Index>(unknownIndices_.size());
  Eigen::VectorXf v = Eigen::VectorXf::Zero(nU);
  if (!superpixelMap_ || !source.img() || !source.img()->compatible(*superpixelMap_, true, true, false)) {
    LOG_ERROR(kCategory, "[GraphLaplacianSuperpixels] Image is not compatible");
    return v;
  }
  const MemImage* mem = source.mem();
  if (!mem) return v;
  const int* s = superpixelMap_->pointer();
  const int64_t N = static_cast<int64_t>(superpixelMap_->descriptor().pixelCount());
  const int C = mem->channels();
  const int K = static_cast<int>(superpixels_.size());
  // Position among the unknowns per superpixel, -1 for seeds, as a flat table for the scan.
  std::vector<int> place(static_cast<size_t>(K), -1);
  for (const auto& [k, u] : unknownOfSuperpixel_) place[static_cast<size_t>(k)] = u;
  dispatchPixelType(mem->type(), [&](auto tag) {
    using T = decltype(tag);
    const T* p = static_cast<const T*>(mem->data());
    // In scan order, so the last pixel of a superpixel sets its value.
    for (int64_t i = 0; i < N; ++i) {
      const int k = s[i];
      if (k < 0 || k >= K) continue;
      const int u = place[static_cast<size_t>(k)];
      if (u >= 0) v[u] = static_cast<float>(p[i * C]);
    }
  });
  return v;
}

void GraphLaplacianSuperpixels::generateImageFromVector(const Eigen::VectorXf& values, SharedImage& target) const {
  if (static_cast<size_t>(values.size()) != unknownIndices_.size()) {
    LOG_WARN(kCategory, "Problem in vector size");
    return;
  }
  MemImage* mem = target.mem();
  if (!mem || !superpixelMap_ || mem->descriptor().pixelCount() != superpixelMap_->descriptor().pixelCount()) {
    LOG_ERROR(kCategory, "Problem with label image");
    return;
  }
  const int K = static_cast<int>(superpixels_.size());
  std::vector<float> value(static_cast<size_t>(K), 0.0f);
  for (size_t k = 0; k < unknownIndices_.size(); ++k) value[unknownIndices_[k]] = values[static_cast<Eigen::Index>(k)];
  for (size_t k = 0; k < seedIndices_.size(); ++k) value[seedIndices_[k]] = seedValues_[k];
  mem->setShiftScale(0.0, 1.0);
  const int* s = superpixelMap_->pointer();
  const int64_t N = static_cast<int64_t>(mem->descriptor().pixelCount());
  const int C = mem->channels();
  auto at = [&](int64_t i) {
    const int k = s[i];
    return k >= 0 && k < K ? value[static_cast<size_t>(k)] : 0.0f;
  };
  if (auto* f = dynamic_cast<TypedImage<float>*>(mem)) {
    float* p = f->pointer();
#pragma omp parallel for schedule(static) if (N > 65536)
    for (int64_t i = 0; i < N; ++i) p[i * C] = at(i);
  } else if (auto* u = dynamic_cast<TypedImage<unsigned char>*>(mem)) {
    unsigned char* p = u->pointer();
#pragma omp parallel for schedule(static) if (N > 65536)
    for (int64_t i = 0; i < N; ++i) p[i * C] = decide(at(i));
  } else {
    LOG_ERROR(kCategory, "Problem with label image");
    return;
  }
  target.setDirtyMem();
}

void GraphLaplacianSuperpixelsAttenuation::generateGraph(SharedImage& image, SharedImage& labels) {
  if (!computeSuperpixels(image, labels)) return;
  const int K = static_cast<int>(superpixels_.size());
  float fmin = std::numeric_limits<float>::max(), fmax = std::numeric_limits<float>::lowest();
  for (const Superpixel& sp : superpixels_)
    for (float f : sp.features) fmin = std::min(fmin, f), fmax = std::max(fmax, f);
  const float range = fmax - fmin;
  const float inv = range < 1e-10f ? 1e10f : 1.0f / range;
  const auto& desc = image.descriptor();
  const double H = desc.height(), sy = desc.spacing[1];
  const double vp = verticalPenalty.value();
  // Features rescaled to 0..1 and attenuated with the depth of the superpixel's centre.
  std::vector<Superpixel> attenuated = superpixels_;
  for (Superpixel& sp : attenuated) {
    const double y = sp.center[1] / sy + H * 0.5 - 0.5;
    const float f = 1.0f - static_cast<float>(std::exp(-vp * (H - 1.0 - y) / H));
    for (float& v : sp.features) v = (v - fmin) * inv * f;
  }
  const float hp = static_cast<float>(horizontalPenalty.value());
  auto difference = [&](int i, int j) {
    const Superpixel& a = attenuated[static_cast<size_t>(i)];
    const Superpixel& b = attenuated[static_cast<size_t>(j)];
    const float dx = std::fabs(static_cast<float>(a.center[0] - b.center[0]));
    const float dy = std::fabs(static_cast<float>(a.center[1] - b.center[1]));
    // Coinciding centres have no direction, and pay no penalty.
    const float penalty = dx + dy > 0.0f ? hp * dx / (dx + dy) : 0.0f;
    return penalty + featureDifference(a, b);
  };
  const auto neighbours = neighbourSets();
  float dmin = std::numeric_limits<float>::max(), dmax = std::numeric_limits<float>::lowest();
  for (int i = 0; i < K; ++i)
    for (int j : neighbours[static_cast<size_t>(i)])
      if (j > i) {
        const float d = difference(i, j);
        dmin = std::min(dmin, d);
        dmax = std::max(dmax, d);
      }
  const float beta = static_cast<float>(adaptiveness.value()) / (dmax - dmin);
  insertEdges(neighbours, [&](int i, int j) { return computeEdgeWeight(difference(i, j), beta, dmin, 1e-5f); });
  generateSeeds(dynamic_cast<TypedImage<unsigned char>*>(labels.mem()));
}

}  // namespace Merivane
