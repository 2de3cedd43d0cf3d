#include "LevelSet.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdlib>
#include <cstring>

#include <sys/mman.h>
#include <vector>
#include <cmath>
#include <cstdint>
#include <limits>

namespace Merivane::LevelSet {

namespace {

// Monotone priority queue of (time, voxel): a radix heap over the bit patterns of non-negative
// doubles, which order as the values do. Fast marching only ever pushes times at or above the
// last one taken, which is all a radix heap asks; each entry moves down at most 64 buckets in
// its life, and a bucket is a contiguous array, so the queue stays in cache where a binary
// heap of a large band would miss on every level. Entries of one key come out last in, first
// out, the same on every run. A lowered time pushes a fresh entry; stale ones are skipped.
class RadixQueue {
 public:
  struct Entry {
    uint64_t key;
    uint32_t voxel;
  };
  static uint64_t keyOf(double t) {
    uint64_t k;
    std::memcpy(&k, &t, sizeof k);
    return k;
  }
  bool empty() const { return size_ == 0; }
  void push(uint64_t key, uint32_t voxel) {
    buckets_[bucket(key)].push_back({key, voxel});
    ++size_;
  }
  // The least entry; call only when not empty.
  Entry pop() {
    if (buckets_[0].empty()) {
      int i = 1;
      while (buckets_[i].empty()) ++i;
      auto& from = buckets_[i];
      uint64_t least = from.front().key;
      for (const Entry& e : from) least = std::min(least, e.key);
      last_ = least;
      for (const Entry& e : from) buckets_[bucket(e.key)].push_back(e);
      from.clear();
    }
    const Entry e = buckets_[0].back();
    buckets_[0].pop_back();
    --size_;
    return e;
  }
  uint64_t last() const { return last_; }

 private:
  int bucket(uint64_t key) const { return key == last_ ? 0 : 64 - std::countl_zero(key ^ last_); }
  std::array<std::vector<Entry>, 65> buckets_;
  uint64_t last_ = 0;
  size_t size_ = 0;
};

// An uninitialised array on 2 MiB pages where the system grants them: the march jumps between
// slices a whole plane apart, and with 4 KiB pages nearly every such step misses the TLB.
template <typename E>
class HugeArray {
 public:
  explicit HugeArray(size_t count) : bytes_((count * sizeof(E) + kHuge - 1) / kHuge * kHuge) {
    data_ = static_cast<E*>(std::aligned_alloc(kHuge, bytes_));
#ifdef MADV_HUGEPAGE
    if (data_) madvise(data_, bytes_, MADV_HUGEPAGE);
#endif
  }
  ~HugeArray() { std::free(data_); }
  HugeArray(const HugeArray&) = delete;
  HugeArray& operator=(const HugeArray&) = delete;
  E* data() { return data_; }
  E& operator[](size_t i) { return data_[i]; }

 private:
  static constexpr size_t kHuge = size_t(2) << 20;
  size_t bytes_;
  E* data_ = nullptr;
};

// Root of sum_k (t - a_k)^2 = f^2 over the smallest a_k that stay below t (a sorted
// ascending, infinite entries unused): the upwind update of first-order fast marching.
inline double solveUpwind(double a0, double a1, double a2, double f) {
  double t = a0 + f;
  if (t <= a1) return t;
  const double d = a0 - a1;
  t = 0.5 * (a0 + a1 + std::sqrt(std::max(0.0, 2.0 * f * f - d * d)));
  if (t <= a2) return t;
  const double s = a0 + a1 + a2;
  const double q = a0 * a0 + a1 * a1 + a2 * a2;
  return (s + std::sqrt(std::max(0.0, s * s - 3.0 * (q - f * f)))) / 3.0;
}

bool inside(const Eigen::Vector3i& v, const int* size) {
  return v[0] >= 0 && v[1] >= 0 && v[2] >= 0 && v[0] < size[0] && v[1] < size[1] && v[2] < size[2];
}

Eigen::Vector3i nearestVoxel(const Eigen::Vector3d& p) {
  if (!p.allFinite()) return Eigen::Vector3i::Constant(-1);
  // Halves round up, as the crop boxes of the callers do.
  const Eigen::Vector3d c = (p.array() + 0.5).floor().cwiseMax(-2.0).cwiseMin(2.0e9);
  return c.cast<int>();
}

}  // namespace

template <typename T>
void FastMarching3D(T* times, int* size, const std::vector<Eigen::Vector3d>& seeds, T* speed,
                    const Eigen::Vector3d& target, T limit, unsigned char* mask) {
  if (!times || !size || !speed || size[0] <= 0 || size[1] <= 0 || size[2] <= 0) return;
  const int64_t nx = size[0], ny = size[1], nz = size[2];
  const int64_t sx = 1, sy = nx, sz = nx * ny;
  const int64_t n = nx * ny * nz;
  std::fill(times, times + n, std::numeric_limits<T>::infinity());
  // Heap slots are 32-bit; a band cannot outgrow a grid of that many voxels.
  if (n >= std::numeric_limits<int32_t>::max()) return;

  // Everything the march reads about a voxel sits in one cell of 8 bytes (for float times),
  // so that visiting a neighbour costs one cache line rather than one per array: the march is
  // bound by memory latency, as its front wanders over the whole volume. The slowness 1 / speed
  // carries the state: positive while far or in the band, negative once frozen, 0 when the
  // voxel cannot be entered.
  struct Cell {
    T time;
    float slowness;
    bool frozen() const { return slowness < 0.0f; }
    bool open() const { return slowness > 0.0f; }
  };
  HugeArray<Cell> cells(static_cast<size_t>(n));
#pragma omp parallel for schedule(static) if (n > 65536)
  for (int64_t i = 0; i < n; ++i) {
    const bool in = speed[i] > T(0) && (!mask || mask[i]);
    const float f = in ? static_cast<float>(1.0 / static_cast<double>(speed[i])) : 0.0f;
    // A speed so high that its slowness rounds to 0 still lets the front in.
    cells[static_cast<size_t>(i)] = {std::numeric_limits<T>::infinity(),
                                     in ? std::max(f, std::numeric_limits<float>::denorm_min()) : 0.0f};
  }
  Cell* c = cells.data();
  if (!c) return;
  RadixQueue queue;

  for (const Eigen::Vector3d& s : seeds) {
    const Eigen::Vector3i v = nearestVoxel(s);
    if (!inside(v, size)) continue;
    const int64_t i = v[0] * sx + v[1] * sy + v[2] * sz;
    if (!c[i].open() || c[i].time == T(0)) continue;
    c[i].time = T(0);
    queue.push(RadixQueue::keyOf(0.0), static_cast<uint32_t>(i));
  }
  const Eigen::Vector3i t = nearestVoxel(target);
  const int64_t targetVoxel = inside(t, size) ? t[0] * sx + t[1] * sy + t[2] * sz : -1;

  // The least frozen neighbour time along one axis (infinity without one).
  auto frozenMin = [&](int64_t v, int64_t coord, int64_t extent, int64_t stride) {
    double a = std::numeric_limits<double>::infinity();
    if (coord > 0 && c[v - stride].frozen()) a = static_cast<double>(c[v - stride].time);
    if (coord + 1 < extent && c[v + stride].frozen()) a = std::min(a, static_cast<double>(c[v + stride].time));
    return a;
  };

  while (!queue.empty()) {
    const RadixQueue::Entry top = queue.pop();
    const int64_t v = top.voxel;
    Cell& cv = c[v];
    if (cv.frozen() || top.key != RadixQueue::keyOf(static_cast<double>(cv.time))) continue;  // stale
    // Past the limit: this voxel and all later ones keep their tentative times.
    if (limit >= T(0) && cv.time > limit) break;
    cv.slowness = -cv.slowness;
    if (v == targetVoxel) break;
    // 32-bit division: the grid has fewer than 2^31 voxels, and this runs once per voxel.
    const auto v32 = static_cast<uint32_t>(v);
    const int64_t z = v32 / static_cast<uint32_t>(sz);
    const auto rest = static_cast<uint32_t>(v32 - z * sz);
    const int64_t y = rest / static_cast<uint32_t>(sy), x = rest - y * sy;
    const int64_t coord[3] = {x, y, z};
    const int64_t extent[3] = {nx, ny, nz};
    const int64_t stride[3] = {sx, sy, sz};
    for (int axis = 0; axis < 3; ++axis)
      for (int dir = -1; dir <= 1; dir += 2) {
        const int64_t cc = coord[axis] + dir;
        if (cc < 0 || cc >= extent[axis]) continue;
        const int64_t u = v + dir * stride[axis];
        Cell& cu = c[u];
        if (!cu.open()) continue;
        const int64_t uc[3] = {axis == 0 ? cc : x, axis == 1 ? cc : y, axis == 2 ? cc : z};
        double a[3] = {frozenMin(u, uc[0], nx, sx), frozenMin(u, uc[1], ny, sy), frozenMin(u, uc[2], nz, sz)};
        // Three values in order by a fixed network of swaps.
        if (a[1] < a[0]) std::swap(a[0], a[1]);
        if (a[2] < a[1]) std::swap(a[1], a[2]);
        if (a[1] < a[0]) std::swap(a[0], a[1]);
        // A new time never lies below the one just frozen, save for rounding; the queue needs that.
        const T tu = std::max(static_cast<T>(solveUpwind(a[0], a[1], a[2], static_cast<double>(cu.slowness))), cv.time);
        if (!(tu < cu.time)) continue;
        cu.time = tu;
        queue.push(RadixQueue::keyOf(static_cast<double>(tu)), static_cast<uint32_t>(u));
      }
  }
#pragma omp parallel for schedule(static) if (n > 65536)
  for (int64_t i = 0; i < n; ++i) times[i] = c[i].time;
}

template <typename T>
void TracePath3DDiscrete(T* times, int* size, const Eigen::Vector3d& start, const Eigen::Vector3d& end,
                         std::vector<Eigen::Vector3d>& path) {
  path.clear();
  if (!times || !size || size[0] <= 0 || size[1] <= 0 || size[2] <= 0) return;
  Eigen::Vector3i cur = nearestVoxel(end);
  if (!inside(cur, size)) return;
  const Eigen::Vector3i goal = nearestVoxel(start);
  const int64_t nx = size[0], ny = size[1];
  auto index = [&](const Eigen::Vector3i& v) { return v[0] + nx * (v[1] + ny * static_cast<int64_t>(v[2])); };
  const int64_t maxSteps = nx * ny * static_cast<int64_t>(size[2]);
  path.push_back(cur.cast<double>());
  // Unit slopes of the 26 steps: the steepest descent divides the drop by the step's length,
  // so that a diagonal step must fall further than a face step to be taken.
  const double invLength[4] = {0.0, 1.0, 1.0 / std::sqrt(2.0), 1.0 / std::sqrt(3.0)};
  for (int64_t step = 0; step < maxSteps && cur != goal; ++step) {
    const double here = static_cast<double>(times[index(cur)]);
    double best = 0.0;
    Eigen::Vector3i next = cur;
    // Fixed neighbour order: ties go to the first one met, the same on every run.
    for (int dz = -1; dz <= 1; ++dz)
      for (int dy = -1; dy <= 1; ++dy)
        for (int dx = -1; dx <= 1; ++dx) {
          const Eigen::Vector3i u = cur + Eigen::Vector3i(dx, dy, dz);
          if (u == cur || !inside(u, size)) continue;
          const double tu = static_cast<double>(times[index(u)]);
          if (!(tu < here)) continue;
          // An infinite time here has every finite neighbour infinitely far below.
          const double slope = std::isinf(here) ? std::numeric_limits<double>::max() - tu
                                                : (here - tu) * invLength[std::abs(dx) + std::abs(dy) + std::abs(dz)];
          if (slope > best) {
            best = slope;
            next = u;
          }
        }
    if (next == cur) break;
    cur = next;
    path.push_back(cur.cast<double>());
  }
}

template void FastMarching3D<float>(float*, int*, const std::vector<Eigen::Vector3d>&, float*, const Eigen::Vector3d&,
                                    float, unsigned char*);
template void FastMarching3D<double>(double*, int*, const std::vector<Eigen::Vector3d>&, double*,
                                     const Eigen::Vector3d&, double, unsigned char*);
template void TracePath3DDiscrete<float>(float*, int*, const Eigen::Vector3d&, const Eigen::Vector3d&,
                                         std::vector<Eigen::Vector3d>&);
template void TracePath3DDiscrete<double>(double*, int*, const Eigen::Vector3d&, const Eigen::Vector3d&,
                                          std::vector<Eigen::Vector3d>&);

}  // namespace Merivane::LevelSet
