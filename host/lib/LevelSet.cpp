#include "LevelSet.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>

namespace Merivane::LevelSet {

namespace {

constexpr int32_t kFar = -1;
constexpr int32_t kFrozen = -2;

// Binary min-heap of (time, voxel) whose slots are recorded per voxel in `pos`, so that a
// lowered time moves its entry up in place instead of adding a duplicate.
template <typename T>
class IndexedHeap {
 public:
  explicit IndexedHeap(int32_t* pos) : pos_(pos) {}
  bool empty() const { return keys_.empty(); }
  T topKey() const { return keys_.front(); }
  int64_t topVoxel() const { return voxels_.front(); }

  void push(int64_t voxel, T key) {
    keys_.push_back(key);
    voxels_.push_back(voxel);
    const size_t slot = keys_.size() - 1;
    pos_[voxel] = static_cast<int32_t>(slot);
    up(slot);
  }
  void decrease(int64_t voxel, T key) {
    const size_t slot = static_cast<size_t>(pos_[voxel]);
    keys_[slot] = key;
    up(slot);
  }
  // Removes the top; the caller marks its voxel.
  void pop() {
    const size_t last = keys_.size() - 1;
    if (last > 0) place(0, keys_[last], voxels_[last]);
    keys_.pop_back();
    voxels_.pop_back();
    if (!keys_.empty()) down(0);
  }

 private:
  void place(size_t slot, T key, int64_t voxel) {
    keys_[slot] = key;
    voxels_[slot] = voxel;
    pos_[voxel] = static_cast<int32_t>(slot);
  }
  void up(size_t slot) {
    const T key = keys_[slot];
    const int64_t voxel = voxels_[slot];
    while (slot > 0) {
      const size_t parent = (slot - 1) / 2;
      if (!(key < keys_[parent])) break;
      place(slot, keys_[parent], voxels_[parent]);
      slot = parent;
    }
    place(slot, key, voxel);
  }
  void down(size_t slot) {
    const size_t n = keys_.size();
    const T key = keys_[slot];
    const int64_t voxel = voxels_[slot];
    for (;;) {
      size_t child = 2 * slot + 1;
      if (child >= n) break;
      if (child + 1 < n && keys_[child + 1] < keys_[child]) ++child;
      if (!(keys_[child] < key)) break;
      place(slot, keys_[child], voxels_[child]);
      slot = child;
    }
    place(slot, key, voxel);
  }

  std::vector<T> keys_;
  std::vector<int64_t> voxels_;
  int32_t* pos_;
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

  std::vector<int32_t> pos(static_cast<size_t>(n), kFar);
  IndexedHeap<T> heap(pos.data());
  auto enterable = [&](int64_t v) { return speed[v] > T(0) && (!mask || mask[v]); };

  for (const Eigen::Vector3d& s : seeds) {
    const Eigen::Vector3i v = nearestVoxel(s);
    if (!inside(v, size)) continue;
    const int64_t i = v[0] * sx + v[1] * sy + v[2] * sz;
    if (!enterable(i) || pos[static_cast<size_t>(i)] != kFar) continue;
    times[i] = T(0);
    heap.push(i, T(0));
  }
  const Eigen::Vector3i t = nearestVoxel(target);
  const int64_t targetVoxel = inside(t, size) ? t[0] * sx + t[1] * sy + t[2] * sz : -1;

  // The least frozen neighbour time along one axis (infinity without one).
  auto frozenMin = [&](int64_t v, int64_t c, int64_t nc, int64_t stride) {
    double a = std::numeric_limits<double>::infinity();
    if (c > 0 && pos[static_cast<size_t>(v - stride)] == kFrozen) a = static_cast<double>(times[v - stride]);
    if (c + 1 < nc && pos[static_cast<size_t>(v + stride)] == kFrozen)
      a = std::min(a, static_cast<double>(times[v + stride]));
    return a;
  };

  while (!heap.empty()) {
    const T key = heap.topKey();
    if (limit >= T(0) && key > limit) break;
    const int64_t v = heap.topVoxel();
    heap.pop();
    pos[static_cast<size_t>(v)] = kFrozen;
    if (v == targetVoxel) break;
    const int64_t z = v / sz, y = (v - z * sz) / sy, x = v - z * sz - y * sy;
    const int64_t coord[3] = {x, y, z};
    const int64_t extent[3] = {nx, ny, nz};
    const int64_t stride[3] = {sx, sy, sz};
    for (int axis = 0; axis < 3; ++axis)
      for (int dir = -1; dir <= 1; dir += 2) {
        const int64_t c = coord[axis] + dir;
        if (c < 0 || c >= extent[axis]) continue;
        const int64_t u = v + dir * stride[axis];
        const int32_t state = pos[static_cast<size_t>(u)];
        if (state == kFrozen || !enterable(u)) continue;
        const int64_t uc[3] = {axis == 0 ? c : x, axis == 1 ? c : y, axis == 2 ? c : z};
        double a[3] = {frozenMin(u, uc[0], nx, sx), frozenMin(u, uc[1], ny, sy), frozenMin(u, uc[2], nz, sz)};
        std::sort(a, a + 3);
        const T tu = static_cast<T>(solveUpwind(a[0], a[1], a[2], 1.0 / static_cast<double>(speed[u])));
        if (!(tu < times[u])) continue;
        times[u] = tu;
        if (state == kFar) heap.push(u, tu);
        else heap.decrease(u, tu);
      }
  }
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
