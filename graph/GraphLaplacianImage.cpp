#include "GraphLaplacianImage.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "Log.h"
#include "SharedImage.h"

namespace Merivane {

namespace {

constexpr const char* kCategory = "Seg.GraphLaplacianImage";
constexpr int64_t kMaxNodes = (int64_t(1) << 31) - 1;

// Reads one pixel's channels as single precision.
template <typename T>
struct PixelReader {
  const T* data;
  int channels;
  float diff(int64_t p, int64_t q) const {
    const T* a = data + p * channels;
    const T* b = data + q * channels;
    float d = 0.0f;
    for (int c = 0; c < channels; ++c) d += std::fabs(static_cast<float>(a[c]) - static_cast<float>(b[c]));
    return d;
  }
};

// Minimum and maximum edge difference over the 4- or 6-neighbourhood.
template <typename DiffFn>
void edgeRange(int W, int H, int D, DiffFn diff, float& dmin, float& dmax) {
  float lo = std::numeric_limits<float>::max();
  float hi = std::numeric_limits<float>::lowest();
  const int64_t WH = int64_t(W) * H;
#pragma omp parallel for collapse(2) schedule(static) reduction(min : lo) reduction(max : hi)
  for (int z = 0; z < D; ++z)
    for (int y = 0; y < H; ++y)
      for (int x = 0; x < W; ++x) {
        const int64_t i = x + int64_t(W) * y + WH * z;
        if (x > 0) {
          const float d = diff(i, i - 1);
          lo = std::min(lo, d);
          hi = std::max(hi, d);
        }
        if (y > 0) {
          const float d = diff(i, i - W);
          lo = std::min(lo, d);
          hi = std::max(hi, d);
        }
        if (z > 0) {
          const float d = diff(i, i - WH);
          lo = std::min(lo, d);
          hi = std::max(hi, d);
        }
      }
  dmin = lo;
  dmax = hi;
}

}  // namespace

int64_t GraphLaplacianImage::prepareNodeCount(const MemImage& image) {
  int64_t n = int64_t(image.width()) * image.height() * image.slices();
  if (n >= (int64_t(1) << 31)) {
    LOG_WARN(kCategory, "Maximum matrix size exceeded");
    n = kMaxNodes;
  }
  return n;
}

template <typename WeightFn>
void GraphLaplacianImage::buildGrid(int W, int H, int D, WeightFn weight) {
  const int64_t WH = int64_t(W) * H;
  const int64_t N = WH * D;
  laplacian_.resize(static_cast<Eigen::Index>(N), static_cast<Eigen::Index>(N));
  laplacian_.setZero();
  laplacian_.makeCompressed();

  // Column sizes are known from the position: the neighbours that exist, plus the diagonal.
  auto count = [&](int x, int y, int z) {
    return 1 + (x > 0) + (x < W - 1) + (y > 0) + (y < H - 1) + (z > 0) + (z < D - 1);
  };
  std::vector<int> outer(static_cast<size_t>(N) + 1);
  outer[0] = 0;
#pragma omp parallel for collapse(2) schedule(static)
  for (int z = 0; z < D; ++z)
    for (int y = 0; y < H; ++y)
      for (int x = 0; x < W; ++x) outer[static_cast<size_t>(x + W * y + WH * z) + 1] = count(x, y, z);
  for (size_t i = 1; i < outer.size(); ++i) outer[i] += outer[i - 1];
  const int64_t nnz = outer[static_cast<size_t>(N)];
  laplacian_.resizeNonZeros(static_cast<Eigen::Index>(nnz));
  std::copy(outer.begin(), outer.end(), laplacian_.outerIndexPtr());
  int* inner = laplacian_.innerIndexPtr();
  float* values = laplacian_.valuePtr();

  // Rows of a column ascend: -z, -y, -x, the diagonal, +x, +y, +z. The diagonal is the negated
  // sum of the column's other entries in that order, as a column-wise summation would give.
#pragma omp parallel for collapse(2) schedule(static)
  for (int z = 0; z < D; ++z)
    for (int y = 0; y < H; ++y)
      for (int x = 0; x < W; ++x) {
        const int64_t i = x + int64_t(W) * y + WH * z;
        int k = outer[static_cast<size_t>(i)];
        auto put = [&](int64_t j) {
          inner[k] = static_cast<int>(j);
          values[k] = -weight(i, j);
          ++k;
        };
        if (z > 0) put(i - WH);
        if (y > 0) put(i - W);
        if (x > 0) put(i - 1);
        const int diagonal = k++;
        if (x < W - 1) put(i + 1);
        if (y < H - 1) put(i + W);
        if (z < D - 1) put(i + WH);
        float sum = 0.0f;
        for (int m = outer[static_cast<size_t>(i)]; m < k; ++m)
          if (m != diagonal) sum += values[m];
        inner[diagonal] = static_cast<int>(i);
        values[diagonal] = -sum;
      }
}

void GraphLaplacianImage::generateGraph(SharedImage& image, SharedImage& labels) {
  image_ = &image;
  labels_ = &labels;
  if (image.descriptor().slices() > 1)
    generateGraph3D(&image);
  else
    generateGraph2D(&image);
  generateSeeds(dynamic_cast<TypedImage<unsigned char>*>(labels.mem()));
}

void GraphLaplacianImage::generateGraph2D(SharedImage* image) { generateGraph3D(image); }

void GraphLaplacianImage::generateGraph3D(SharedImage* image) {
  if (!image || !image->mem()) return;
  const MemImage& mem = *image->mem();
  if (prepareNodeCount(mem) >= kMaxNodes) return;
  const int W = mem.width(), H = mem.height(), D = mem.slices();
  // The matrix indexes its entries with 32-bit integers: a grid of more than about 306 million
  // voxels has more entries than that, and is refused before anything overflows.
  const int64_t entries = int64_t(W) * H * D + 2 * (int64_t(W - 1) * H * D + int64_t(W) * (H - 1) * D +
                                                     int64_t(W) * H * (D - 1));
  if (entries > int64_t(std::numeric_limits<int>::max())) {
    LOG_ERROR(kCategory, "An image of " << W << " x " << H << " x " << D << " voxels needs " << entries
                                        << " matrix entries, more than the 32-bit indices can hold");
    laplacian_.resize(0, 0);
    laplacian_.data().squeeze();
    return;
  }
  dispatchPixelType(mem.type(), [&](auto tag) {
    using T = decltype(tag);
    auto* typed = dynamic_cast<const TypedImage<T>*>(&mem);
    if (!typed) return;
    PixelReader<T> reader{typed->pointer(), mem.channels()};
    auto diff = [&](int64_t p, int64_t q) { return reader.diff(p, q); };
    float dmin, dmax;
    edgeRange(W, H, D, diff, dmin, dmax);
    const float beta = computeBeta(dmin, dmax);
    buildGrid(W, H, D, [&](int64_t p, int64_t q) { return computeEdgeWeight(diff(p, q), beta, dmin, 1e-5f); });
  });
}

void GraphLaplacianImage::generateSeeds(TypedImage<unsigned char>* labels) {
  seedValues_.clear();
  seedIndices_.clear();
  unknownIndices_.clear();
  if (!labels) return;
  const int W = labels->width(), H = labels->height(), D = labels->slices();
  const int64_t WH = int64_t(W) * H;
  const int64_t N = WH * D;
  const unsigned char* p = labels->pointer();
  const double scale = labels->scale(), shift = labels->shift();
  const unsigned short object = activeLabel.value();
  const unsigned short background = static_cast<unsigned short>(object + 1);
  const bool edges = imageEdgesAsBackground.value();
  const int C = labels->channels();
  for (int64_t i = 0; i < N; ++i) {
    const unsigned char v = static_cast<unsigned char>(static_cast<int>(p[i * C] / scale - shift + 0.5));
    if (v == object) {
      seedIndices_.push_back(static_cast<uint64_t>(i));
      seedValues_.push_back(1.0f);
    } else if (v == background) {
      seedIndices_.push_back(static_cast<uint64_t>(i));
      seedValues_.push_back(0.0f);
    } else if (edges) {
      // For a 2D image z is 0 everywhere, so every free pixel is on the border.
      const int64_t z = i / WH, r = i % WH, y = r / W, x = r % W;
      if (z == 0 || z == D - 1 || y == 0 || y == H - 1 || x == 0 || x == W - 1) {
        seedIndices_.push_back(static_cast<uint64_t>(i));
        seedValues_.push_back(0.0f);
      } else {
        unknownIndices_.push_back(static_cast<uint64_t>(i));
      }
    } else {
      unknownIndices_.push_back(static_cast<uint64_t>(i));
    }
  }
}

Eigen::VectorXf GraphLaplacianImage::generateVectorFromImage(const SharedImage& source) const {
  const Eigen::Index n = static_cast<Eigen::Index>(unknownIndices_.size());
  Eigen::VectorXf v = Eigen::VectorXf::Zero(n);
  if (!labels_ || !source.img()->compatible(*labels_->img(), true, false, false)) {
    LOG_ERROR(kCategory, "[GraphLaplacianSuperpixels] Image is not compatible");
    return v;
  }
  const MemImage* mem = source.mem();
  if (!mem) return v;
  dispatchPixelType(mem->type(), [&](auto tag) {
    using T = decltype(tag);
    auto* typed = dynamic_cast<const TypedImage<T>*>(mem);
    if (!typed) return;
    const T* p = typed->pointer();
#pragma omp parallel for schedule(static) if (n > 65536)
    for (Eigen::Index k = 0; k < n; ++k) v[k] = static_cast<float>(p[unknownIndices_[static_cast<size_t>(k)]]);
  });
  return v;
}

void GraphLaplacianImage::generateImageFromVector(const Eigen::VectorXf& values, SharedImage& target) const {
  if (static_cast<size_t>(values.size()) != unknownIndices_.size()) {
    LOG_WARN(kCategory, "Problem in vector size");
    return;
  }
  MemImage* mem = target.mem();
  mem->setShiftScale(0.0, 1.0);
  const Eigen::Index nU = values.size();
  const size_t nS = seedIndices_.size();
  if (auto* f = dynamic_cast<TypedImage<float>*>(mem)) {
    float* p = f->pointer();
#pragma omp parallel for schedule(static) if (nU > 65536)
    for (Eigen::Index k = 0; k < nU; ++k) p[unknownIndices_[static_cast<size_t>(k)]] = values[k];
    for (size_t k = 0; k < nS; ++k) p[seedIndices_[k]] = seedValues_[k];
  } else if (auto* u = dynamic_cast<TypedImage<unsigned char>*>(mem)) {
    unsigned char* p = u->pointer();
#pragma omp parallel for schedule(static) if (nU > 65536)
    for (Eigen::Index k = 0; k < nU; ++k) p[unknownIndices_[static_cast<size_t>(k)]] = decide(values[k]);
    for (size_t k = 0; k < nS; ++k) p[seedIndices_[k]] = decide(seedValues_[k]);
  } else {
    LOG_ERROR(kCategory, "Problem with label image");
    return;
  }
  target.setDirtyMem();
}

void GraphLaplacianImageAttenuation::generateGraph2D(SharedImage* image) {
  if (!image || !image->mem()) return;
  const MemImage& mem = *image->mem();
  if (prepareNodeCount(mem) >= kMaxNodes) return;
  const int W = mem.width(), H = mem.height();
  const int64_t N = int64_t(W) * H;
  std::vector<float> A(static_cast<size_t>(N));
  bool read = dispatchPixelType(mem.type(), [&](auto tag) {
    using T = decltype(tag);
    auto* typed = dynamic_cast<const TypedImage<T>*>(&mem);
    if (!typed) return;
    const T* p = typed->pointer();
    for (int64_t i = 0; i < N; ++i) A[static_cast<size_t>(i)] = static_cast<float>(p[i]);
  });
  if (!read) return;
  float imin = std::numeric_limits<float>::max(), imax = std::numeric_limits<float>::lowest();
  for (float v : A) {
    imin = std::min(imin, v);
    imax = std::max(imax, v);
  }
  const float range = imax - imin;
  const float inv = range < 1e-10f ? 1e10f : 1.0f / range;
  const double vp = verticalPenalty.value();
  for (int y = 0; y < H; ++y) {
    const float f = 1.0f - static_cast<float>(std::exp(-vp * static_cast<double>(H - 1 - y) / static_cast<double>(H)));
    for (int x = 0; x < W; ++x) {
      float& a = A[static_cast<size_t>(x + int64_t(W) * y)];
      a = (a - imin) * inv * f;
    }
  }
  const float hp = static_cast<float>(horizontalPenalty.value());
  // Horizontal neighbours differ by one node index, vertical ones by W.
  auto diff = [&](int64_t p, int64_t q) {
    const float d = std::fabs(A[static_cast<size_t>(p)] - A[static_cast<size_t>(q)]);
    return (p - q == 1 || q - p == 1) && W > 1 ? hp + d : d;
  };
  float dmin, dmax;
  edgeRange(W, H, 1, diff, dmin, dmax);
  const float beta = computeBeta(dmin, dmax);
  buildGrid(W, H, 1, [&](int64_t p, int64_t q) { return computeEdgeWeight(diff(p, q), beta, dmin, 1e-5f); });
}

}  // namespace Merivane
