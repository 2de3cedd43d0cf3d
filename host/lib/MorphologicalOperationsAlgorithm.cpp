#include "MorphologicalOperationsAlgorithm.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <exception>
#include <limits>
#include <type_traits>
#include <vector>

#include "Log.h"
#include "Progress.h"
#include "SharedImageSet.h"

namespace Merivane {

namespace Morphology {

namespace {

constexpr int kWindowedMaxRadius = 16;  // above this the y and z passes use the parabola envelope
constexpr int64_t kParallelVoxels = 1 << 15;
constexpr double kMaxRadius = 65534;  // keeps r^2 + 1 and the sums of the passes inside 32 bits

struct Box {
  Eigen::Vector3i lo, hi;  // [lo, hi)
  Eigen::Vector3i size() const { return hi - lo; }
  int64_t count() const { return size().cast<int64_t>().prod(); }
};

// The bounding box of the non-zero voxels; false when there are none.
template <typename T>
bool nonZeroBox(const T* p, const Eigen::Vector3i& d, Box& box) {
  const int nz = d[2];
  std::vector<Box> perSlice(static_cast<size_t>(nz));
  std::vector<char> any(static_cast<size_t>(nz), 0);
#pragma omp parallel for schedule(static) if (static_cast<int64_t>(d.prod()) >= kParallelVoxels)
  for (int z = 0; z < nz; ++z) {
    Box b{Eigen::Vector3i(d[0], d[1], z), Eigen::Vector3i(-1, -1, z + 1)};
    bool found = false;
    for (int y = 0; y < d[1]; ++y) {
      const T* row = p + (static_cast<size_t>(z) * d[1] + y) * static_cast<size_t>(d[0]);
      int first = -1, last = -1;
      for (int x = 0; x < d[0]; ++x)
        if (row[x] != T(0)) {
          if (first < 0) first = x;
          last = x;
        }
      if (first < 0) continue;
      found = true;
      b.lo[0] = std::min(b.lo[0], first);
      b.hi[0] = std::max(b.hi[0], last + 1);
      b.lo[1] = std::min(b.lo[1], y);
      b.hi[1] = y + 1;
    }
    perSlice[static_cast<size_t>(z)] = b;
    any[static_cast<size_t>(z)] = found;
  }
  bool found = false;
  for (int z = 0; z < nz; ++z) {
    if (!any[static_cast<size_t>(z)]) continue;
    const Box& b = perSlice[static_cast<size_t>(z)];
    if (!found) {
      box = b;
      found = true;
    } else {
      box.lo = box.lo.cwiseMin(b.lo);
      box.hi = box.hi.cwiseMax(b.hi);
    }
  }
  return found;
}

// Lower envelope of the parabolas y = f[q] + (p - q)^2 over the entries below `cap`, evaluated
// at every p and cut at `cap`; the label of the winning q goes along.
template <typename T, bool Labels>
void envelope1D(const uint32_t* f, const T* lab, int n, uint32_t cap, uint32_t* outD, T* outL, std::vector<int>& v,
                std::vector<double>& zb) {
  v.resize(static_cast<size_t>(n));
  zb.resize(static_cast<size_t>(n));
  int k = -1;
  for (int q = 0; q < n; ++q) {
    if (f[q] >= cap) continue;
    const double fq = static_cast<double>(f[q]) + static_cast<double>(q) * q;
    double s = -std::numeric_limits<double>::infinity();
    while (k >= 0) {
      const int p = v[static_cast<size_t>(k)];
      s = (fq - (static_cast<double>(f[p]) + static_cast<double>(p) * p)) / (2.0 * (q - p));
      if (s <= zb[static_cast<size_t>(k)])
        --k;
      else
        break;
    }
    ++k;
    v[static_cast<size_t>(k)] = q;
    zb[static_cast<size_t>(k)] = k == 0 ? -std::numeric_limits<double>::infinity() : s;
  }
  if (k < 0) {
    std::fill(outD, outD + n, cap);
    return;
  }
  int j = 0;
  for (int p = 0; p < n; ++p) {
    while (j < k && zb[static_cast<size_t>(j) + 1] < p) ++j;
    const int q = v[static_cast<size_t>(j)];
    const uint64_t dd = static_cast<uint64_t>(static_cast<int64_t>(p - q) * (p - q)) + f[q];
    outD[p] = dd < cap ? static_cast<uint32_t>(dd) : cap;
    if constexpr (Labels) outL[p] = lab[q];
  }
}

// Squared distance (cut at cap = r^2 + 1) from every voxel of the box to the nearest feature
// voxel of the box, and with Labels the feature's value.
template <typename T, bool Labels>
void distances(const T* img, const Eigen::Vector3i& d, const Box& box, int r, bool featureIsNonZero,
               std::vector<uint32_t>& D, std::vector<T>& L) {
  const Eigen::Vector3i b = box.size();
  const int bx = b[0], by = b[1], bz = b[2];
  const int64_t n = box.count();
  const uint32_t cap = static_cast<uint32_t>(static_cast<uint64_t>(r) * r + 1);
  const bool parallel = n >= kParallelVoxels;
  D.assign(static_cast<size_t>(n), cap);
  if constexpr (Labels) L.assign(static_cast<size_t>(n), T(0));
  auto at = [&](int x, int y, int z) { return (static_cast<size_t>(z) * by + y) * static_cast<size_t>(bx) + x; };

  // x: distance to the nearest feature on the row, from the left and then from the right
  // (the left one wins a tie).
  const int64_t rows = static_cast<int64_t>(by) * bz;
#pragma omp parallel for schedule(static) if (parallel)
  for (int64_t row = 0; row < rows; ++row) {
    const int y = static_cast<int>(row % by), z = static_cast<int>(row / by);
    const T* src = img + (static_cast<size_t>(box.lo[2] + z) * d[1] + (box.lo[1] + y)) * static_cast<size_t>(d[0]) +
                   box.lo[0];
    uint32_t* out = D.data() + at(0, y, z);
    T* outL = Labels ? L.data() + at(0, y, z) : nullptr;
    const uint32_t far = static_cast<uint32_t>(r) + 1;
    uint32_t dist = far;
    T label = T(0);
    for (int x = 0; x < bx; ++x) {
      const bool feature = (src[x] != T(0)) == featureIsNonZero;
      if (feature) {
        dist = 0;
        label = src[x];
      } else if (dist < far) {
        ++dist;
      }
      out[x] = dist;
      if constexpr (Labels) outL[x] = label;
    }
    dist = far;
    for (int x = bx - 1; x >= 0; --x) {
      const bool feature = (src[x] != T(0)) == featureIsNonZero;
      if (feature) {
        dist = 0;
        label = src[x];
      } else if (dist < far) {
        ++dist;
      }
      if (dist < out[x]) {
        out[x] = dist;
        if constexpr (Labels) outL[x] = label;
      }
    }
    for (int x = 0; x < bx; ++x) out[x] = out[x] <= static_cast<uint32_t>(r) ? out[x] * out[x] : cap;
  }

  // One pass along y (within each slice) or z (within each xz plane): a line of `len` values
  // with stride `stride` between neighbours, x running fastest inside each line group.
  const bool windowed = r <= kWindowedMaxRadius;
  auto pass = [&](int len, int groups, auto base, size_t stride) {
    if (len <= 1) return;
#pragma omp parallel if (parallel)
    {
      std::vector<uint32_t> tmp(static_cast<size_t>(len) * bx);
      std::vector<T> tmpL(Labels ? static_cast<size_t>(len) * bx : 0);
      std::vector<uint32_t> lineD(static_cast<size_t>(len)), outD(static_cast<size_t>(len));
      std::vector<T> lineL(static_cast<size_t>(len)), outLine(static_cast<size_t>(len));
      std::vector<int> v;
      std::vector<double> zb;
#pragma omp for schedule(static)
      for (int g = 0; g < groups; ++g) {
        const size_t first = base(g);
        for (int i = 0; i < len; ++i) {
          std::copy_n(D.data() + first + i * stride, bx, tmp.data() + static_cast<size_t>(i) * bx);
          if constexpr (Labels) std::copy_n(L.data() + first + i * stride, bx, tmpL.data() + static_cast<size_t>(i) * bx);
        }
        if (windowed) {
          for (int i = 0; i < len; ++i) {
            uint32_t* out = D.data() + first + i * stride;
            T* outL = Labels ? L.data() + first + i * stride : nullptr;
            for (int o = 1; o <= r; ++o) {
              const uint32_t w = static_cast<uint32_t>(o * o);
              for (int sign = -1; sign <= 1; sign += 2) {
                const int j = i + sign * o;
                if (j < 0 || j >= len) continue;
                const uint32_t* src = tmp.data() + static_cast<size_t>(j) * bx;
                const T* srcL = Labels ? tmpL.data() + static_cast<size_t>(j) * bx : nullptr;
                for (int x = 0; x < bx; ++x) {
                  const uint32_t c = src[x] + w;
                  if (c < out[x]) {
                    out[x] = c;
                    if constexpr (Labels) outL[x] = srcL[x];
                  }
                }
              }
            }
            for (int x = 0; x < bx; ++x) out[x] = std::min(out[x], cap);
          }
        } else {
          for (int x = 0; x < bx; ++x) {
            for (int i = 0; i < len; ++i) {
              lineD[static_cast<size_t>(i)] = tmp[static_cast<size_t>(i) * bx + x];
              if constexpr (Labels) lineL[static_cast<size_t>(i)] = tmpL[static_cast<size_t>(i) * bx + x];
            }
            envelope1D<T, Labels>(lineD.data(), lineL.data(), len, cap, outD.data(), outLine.data(), v, zb);
            for (int i = 0; i < len; ++i) {
              D[first + i * stride + x] = outD[static_cast<size_t>(i)];
              if constexpr (Labels) L[first + i * stride + x] = outLine[static_cast<size_t>(i)];
            }
          }
        }
      }
    }
  };
  // y within each slice z: lines start at (0, 0, z), neighbours one row apart.
  pass(by, bz, [&](int z) { return at(0, 0, z); }, static_cast<size_t>(bx));
  // z within each plane y: lines start at (0, y, 0), neighbours one slice apart.
  pass(bz, by, [&](int y) { return at(0, y, 0); }, static_cast<size_t>(bx) * by);
}

template <typename T>
void dilateTyped(T* img, const Eigen::Vector3i& d, int r) {
  Box box;
  if (r <= 0 || !nonZeroBox(img, d, box)) return;
  box.lo = Eigen::Vector3i((box.lo.array() - r).cwiseMax(0));
  box.hi = Eigen::Vector3i((box.hi.array() + r).cwiseMin(d.array()));
  std::vector<uint32_t> D;
  std::vector<T> L;
  distances<T, true>(img, d, box, r, true, D, L);
  const uint32_t r2 = static_cast<uint32_t>(r) * static_cast<uint32_t>(r);
  const Eigen::Vector3i b = box.size();
  const int64_t rows = static_cast<int64_t>(b[1]) * b[2];
#pragma omp parallel for schedule(static) if (box.count() >= kParallelVoxels)
  for (int64_t row = 0; row < rows; ++row) {
    const int y = static_cast<int>(row % b[1]), z = static_cast<int>(row / b[1]);
    T* dst = img + (static_cast<size_t>(box.lo[2] + z) * d[1] + (box.lo[1] + y)) * static_cast<size_t>(d[0]) +
             box.lo[0];
    const size_t o = static_cast<size_t>(row) * b[0];
    for (int x = 0; x < b[0]; ++x)
      if (dst[x] == T(0) && D[o + x] <= r2) dst[x] = L[o + x];
  }
}

template <typename T>
void erodeTyped(T* img, const Eigen::Vector3i& d, int r) {
  Box box;
  if (r <= 0 || !nonZeroBox(img, d, box)) return;
  // The ring of background round the labels' box holds the nearest background voxel of
  // everything inside; the image border, where the ring is cut off, erodes nothing.
  box.lo = Eigen::Vector3i((box.lo.array() - 1).cwiseMax(0));
  box.hi = Eigen::Vector3i((box.hi.array() + 1).cwiseMin(d.array()));
  std::vector<uint32_t> D;
  std::vector<T> unused;
  distances<T, false>(img, d, box, r, false, D, unused);
  const uint32_t r2 = static_cast<uint32_t>(r) * static_cast<uint32_t>(r);
  const Eigen::Vector3i b = box.size();
  const int64_t rows = static_cast<int64_t>(b[1]) * b[2];
#pragma omp parallel for schedule(static) if (box.count() >= kParallelVoxels)
  for (int64_t row = 0; row < rows; ++row) {
    const int y = static_cast<int>(row % b[1]), z = static_cast<int>(row / b[1]);
    T* dst = img + (static_cast<size_t>(box.lo[2] + z) * d[1] + (box.lo[1] + y)) * static_cast<size_t>(d[0]) +
             box.lo[0];
    const size_t o = static_cast<size_t>(row) * b[0];
    for (int x = 0; x < b[0]; ++x)
      if (dst[x] != T(0) && D[o + x] <= r2) dst[x] = T(0);
  }
}

}  // namespace

bool apply(MemImage& image, Operation op, int radius) {
  if (radius < 0 || image.channels() != 1 || op < Dilation || op > Closing) return false;
  const Eigen::Vector3i d = image.dimensions();
  // No two voxels lie further apart than the diagonal: larger radii act like it, and the
  // squared distances stay far from overflowing.
  const double diagonal = std::sqrt((d.cast<double>().array() - 1).square().sum());
  const int r = static_cast<int>(std::min<double>({static_cast<double>(radius), std::ceil(diagonal) + 1, kMaxRadius}));
  bool ok = false;
  dispatchPixelType(image.type(), [&](auto tag) {
    using T = decltype(tag);
    if constexpr (std::is_integral_v<T>) {
      T* p = static_cast<T*>(image.data());
      switch (op) {
        case Dilation: dilateTyped(p, d, r); break;
        case Erosion: erodeTyped(p, d, r); break;
        case Opening:
          erodeTyped(p, d, r);
          dilateTyped(p, d, r);
          break;
        case Closing:
          dilateTyped(p, d, r);
          erodeTyped(p, d, r);
          break;
      }
      ok = true;
    }
  });
  return ok;
}

}  // namespace Morphology

namespace {
constexpr const char* kCategory = "MorphologicalOperationsAlgorithm";

bool integerOneChannel(const Image* img) {
  if (!img || img->channels() != 1) return false;
  switch (img->type()) {
    case I8: case U8: case I16: case U16: case I32: case U32: return true;
    default: return false;
  }
}
}  // namespace

MorphologicalOperationsAlgorithm::MorphologicalOperationsAlgorithm(SharedImageSet* image) : image_(image) {
  opMode.setLabel("Operation (0 dilation, 1 erosion, 2 opening, 3 closing)");
  opSize.setLabel("Radius in voxels");
  inPlace.setLabel("In place");
}

MorphologicalOperationsAlgorithm::~MorphologicalOperationsAlgorithm() = default;

bool MorphologicalOperationsAlgorithm::createCompatible(const DataList& data, Algorithm** algorithm) {
  SharedImageSet* set = data.getImage();
  if (data.size() != 1 || !set || set->empty()) return false;
  for (int i = 0; i < set->size(); ++i)
    if (!integerOneChannel(set->img(i))) return false;
  if (algorithm) *algorithm = new MorphologicalOperationsAlgorithm(set);
  return true;
}

void MorphologicalOperationsAlgorithm::compute() {
  setStatus(statusUnknown);
  output_.reset();
  if (!validateParameters(kCategory)) return;
  if (!image_ || image_->empty()) {
    LOG_ERROR(kCategory, "No image to process.");
    setStatus(statusInvalidInput);
    return;
  }
  for (int f = 0; f < image_->size(); ++f)
    if (!integerOneChannel(image_->img(f))) {
      LOG_ERROR(kCategory, "Frame " << f << " is not a one-channel integer image.");
      setStatus(statusInvalidInput);
      return;
    }
  try {
    std::unique_ptr<SharedImageSet> copy;
    SharedImageSet* target = image_;
    if (!inPlace) {
      for (int f = 0; f < image_->size(); ++f) image_->mem(f);  // current memory copies to clone
      copy = image_->clone();
      target = copy.get();
    }
    for (int f = 0; f < target->size(); ++f) {
      if (progress_ && progress_->isCanceled()) {
        setStatus(statusCanceled);
        return;
      }
      MemImage* mem = target->mem(f);
      if (!mem || !Morphology::apply(*mem, static_cast<Morphology::Operation>(opMode.value()), opSize)) {
        LOG_ERROR(kCategory, "Frame " << f << " could not be processed.");
        setStatus(statusError);
        return;
      }
      target->get(f)->setDirtyMem();
    }
    output_ = std::move(copy);
    setStatus(statusSuccess);
    if (inPlace) signalOutputChanged.emitSignal();
  } catch (const std::exception& e) {
    LOG_ERROR(kCategory, "Morphological operation failed: " << e.what());
    setStatus(statusError);
  }
}

OwningDataList MorphologicalOperationsAlgorithm::takeOutput() {
  OwningDataList out;
  if (output_) out.add(std::move(output_));
  return out;
}

}  // namespace Merivane
