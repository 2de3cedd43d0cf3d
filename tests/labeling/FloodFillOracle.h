#pragma once
// A voxel-by-voxel breadth-first flood fill over the labeling tool's neighbourhood, the
// oracle of the run-based fill.
#include <Eigen/Core>
#include <cstdint>
#include <deque>
#include <vector>

namespace Merivane::Seg::Reference {

using Volume = std::vector<uint8_t>;

// The four in-plane face neighbours and the eight edge neighbours across z; no pure z.
inline const int kOffsets[12][3] = {{-1, 0, -1}, {-1, 0, 1}, {-1, -1, 0}, {-1, 1, 0}, {0, 0, -1}, {0, 0, 1},
                             {0, -1, 0},  {0, 1, 0},  {1, 0, -1},  {1, 0, 1},  {1, -1, 0}, {1, 1, 0}};  // (z, y, x)

inline Volume bfsOracle(Volume v, const Eigen::Vector3i& n, const Eigen::Vector3i& seed, uint8_t label,
                 const std::vector<float>* intensity = nullptr, double lo = 0, double hi = 0) {
  auto at = [&](int x, int y, int z) { return (static_cast<size_t>(z) * n[1] + y) * n[0] + x; };
  const uint8_t old = v[at(seed[0], seed[1], seed[2])];
  auto ok = [&](size_t i) {
    return v[i] == old && (!intensity || ((*intensity)[i] >= lo && (*intensity)[i] <= hi));
  };
  if (old == label || !ok(at(seed[0], seed[1], seed[2]))) return v;
  std::deque<Eigen::Vector3i> queue{seed};
  v[at(seed[0], seed[1], seed[2])] = label;
  while (!queue.empty()) {
    const Eigen::Vector3i p = queue.front();
    queue.pop_front();
    for (const auto& o : kOffsets) {
      const Eigen::Vector3i q(p[0] + o[2], p[1] + o[1], p[2] + o[0]);
      if ((q.array() < 0).any() || (q.array() >= n.array()).any()) continue;
      const size_t i = at(q[0], q[1], q[2]);
      if (!ok(i)) continue;
      v[i] = label;
      queue.push_back(q);
    }
  }
  return v;
}

}  // namespace Merivane::Seg::Reference
