#include "FloodFill.h"

#include <omp.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "Image.h"
#include "Log.h"

namespace Merivane::Seg {

namespace {

constexpr int kCancelCheckEvery = 1024;  // runs between looks at the cancel flag

// Row (z, y), columns x0..x1 inclusive, to be scanned for fillable voxels.
struct Span {
  int z, y, x0, x1;
};

struct LabelOnly {
  uint8_t old;
  bool operator()(const uint8_t* labels, size_t i) const { return labels[i] == old; }
};

template <typename T>
struct LabelAndWindow {
  uint8_t old;
  const T* values;
  double low, high;
  bool operator()(const uint8_t* labels, size_t i) const {
    if (labels[i] != old) return false;
    const double v = static_cast<double>(values[i]);
    return v >= low && v <= high;
  }
};

template <typename Fillable>
class Filler {
 public:
  Filler(uint8_t* labels, const Eigen::Vector3i& dims, uint8_t label, Fillable fillable, const FloodFillOptions& o)
      : labels_(labels), w_(dims[0]), h_(dims[1]), d_(dims[2]), label_(label), fillable_(fillable), options_(o) {}

  FloodFillResult run(const Eigen::Vector3i& seed) {
    int slabs = options_.slabs > 0 ? options_.slabs : omp_get_max_threads();
    slabs = std::clamp(slabs, 1, d_);
    slabStart_.resize(slabs + 1);
    for (int k = 0; k <= slabs; ++k) slabStart_[k] = static_cast<int>(static_cast<int64_t>(d_) * k / slabs);

    std::vector<std::vector<Span>> inbox(slabs), down(slabs), up(slabs);
    inbox[slabOf(seed[2])].push_back({seed[2], seed[1], seed[0], seed[0]});
    std::vector<int64_t> filled(slabs, 0);
    std::atomic<bool> stopped{false};
    for (;;) {
      std::vector<int> active;
      for (int k = 0; k < slabs; ++k)
        if (!inbox[k].empty()) active.push_back(k);
      if (active.empty() || stopped.load()) break;
      const int n = static_cast<int>(active.size());
      // Each slab writes only its own slices and its own out boxes, so no locking is needed.
#pragma omp parallel for schedule(dynamic, 1) if (n > 1)
      for (int i = 0; i < n; ++i) {
        const int k = active[i];
        if (!fillSlab(k, inbox[k], down[k], up[k], filled[k])) stopped.store(true);
      }
      for (int k = 0; k < slabs; ++k) inbox[k].clear();
      for (int k = 0; k < slabs; ++k) {
        if (k > 0) inbox[k - 1].insert(inbox[k - 1].end(), down[k].begin(), down[k].end());
        if (k + 1 < slabs) inbox[k + 1].insert(inbox[k + 1].end(), up[k].begin(), up[k].end());
        down[k].clear();
        up[k].clear();
      }
    }
    FloodFillResult result;
    for (int64_t f : filled) result.filled += f;
    result.status = stopped.load() ? FloodFillResult::Canceled : FloodFillResult::Filled;
    return result;
  }

 private:
  int slabOf(int z) const {
    return static_cast<int>(std::upper_bound(slabStart_.begin(), slabStart_.end(), z) - slabStart_.begin()) - 1;
  }
  size_t rowStart(int z, int y) const { return (static_cast<size_t>(z) * h_ + y) * static_cast<size_t>(w_); }

  // Works off the runs handed to slab k. Slices are swept up and down, each filled from its
  // pending runs with a stack of its own before the next: a slice (a few hundred KB) stays in
  // cache while it is filled, and runs for the next slice of the sweep are ready when it
  // comes. Runs crossing into the slab below or above go to the out boxes. False when
  // cancelled.
  bool fillSlab(int k, std::vector<Span>& inbox, std::vector<Span>& down, std::vector<Span>& up, int64_t& filled) {
    const int z0 = slabStart_[k], z1 = slabStart_[k + 1];
    std::vector<std::vector<Span>> pending(static_cast<size_t>(z1 - z0));
    for (const Span& s : inbox) pending[s.z - z0].push_back(s);
    inbox.clear();
    std::vector<Span> stack;
    int sinceCheck = 0;
    int64_t reported = 0;
    auto push = [&](int z, int y, int x0, int x1) {
      if (z < 0 || z >= d_ || y < 0 || y >= h_) return;
      x0 = std::max(x0, 0);
      x1 = std::min(x1, w_ - 1);
      if (x0 > x1) return;
      if (z < z0) down.push_back({z, y, x0, x1});
      else if (z >= z1) up.push_back({z, y, x0, x1});
      else pending[z - z0].push_back({z, y, x0, x1});
    };
    auto fillSlice = [&](int z) -> bool {
      stack.swap(pending[z - z0]);
      while (!stack.empty()) {
        const Span s = stack.back();
        stack.pop_back();
        if (++sinceCheck == kCancelCheckEvery) {
          sinceCheck = 0;
          if (options_.canceled && options_.canceled->load(std::memory_order_relaxed)) return false;
          if (options_.filledSoFar) {
            options_.filledSoFar->fetch_add(filled - reported, std::memory_order_relaxed);
            reported = filled;
          }
        }
        const size_t row = rowStart(s.z, s.y);
        int x = s.x0;
        while (x <= s.x1) {
          if (!fillable_(labels_, row + x)) {
            ++x;
            continue;
          }
          int a = x, b = x;
          while (a > 0 && fillable_(labels_, row + a - 1)) --a;
          while (b + 1 < w_ && fillable_(labels_, row + b + 1)) ++b;
          std::memset(labels_ + row + a, label_, static_cast<size_t>(b - a + 1));
          filled += b - a + 1;
          if (s.y > 0) stack.push_back({s.z, s.y - 1, a, b});
          if (s.y + 1 < h_) stack.push_back({s.z, s.y + 1, a, b});
          for (int dz : {-1, 1}) {
            push(s.z + dz, s.y - 1, a, b);
            push(s.z + dz, s.y + 1, a, b);
            // x±1 of a one-voxel run skips the voxel right above it; longer runs cover it.
            if (a == b) {
              push(s.z + dz, s.y, a - 1, a - 1);
              push(s.z + dz, s.y, a + 1, a + 1);
            } else {
              push(s.z + dz, s.y, a - 1, b + 1);
            }
          }
          x = b + 2;  // b + 1 is not fillable
        }
      }
      return true;
    };
    for (bool any = true; any;) {
      any = false;
      for (int z = z0; z < z1; ++z)
        if (!pending[z - z0].empty()) {
          if (!fillSlice(z)) return false;
          any = true;
        }
      for (int z = z1 - 1; z >= z0; --z)
        if (!pending[z - z0].empty()) {
          if (!fillSlice(z)) return false;
          any = true;
        }
    }
    if (options_.filledSoFar) options_.filledSoFar->fetch_add(filled - reported, std::memory_order_relaxed);
    return true;
  }

  uint8_t* labels_;
  int w_, h_, d_;
  uint8_t label_;
  Fillable fillable_;
  const FloodFillOptions& options_;
  std::vector<int> slabStart_;
};

template <typename Fillable>
FloodFillResult fillWith(uint8_t* labels, const Eigen::Vector3i& dims, const Eigen::Vector3i& seed, uint8_t label,
                         Fillable fillable, const FloodFillOptions& options) {
  const size_t at = (static_cast<size_t>(seed[2]) * dims[1] + seed[1]) * static_cast<size_t>(dims[0]) + seed[0];
  if (!fillable(labels, at)) return {};
  return Filler<Fillable>(labels, dims, label, fillable, options).run(seed);
}

template <typename T>
FloodFillResult fillWindow(uint8_t* labels, const Eigen::Vector3i& dims, const Eigen::Vector3i& seed, uint8_t label,
                           uint8_t old, const FloodFillOptions& o) {
  const auto* values = static_cast<const T*>(o.intensities->data());
  return fillWith(labels, dims, seed, label, LabelAndWindow<T>{old, values, o.low, o.high}, o);
}

}  // namespace

FloodFillResult floodFill(uint8_t* labels, const Eigen::Vector3i& dims, const Eigen::Vector3i& seed, uint8_t label,
                          const FloodFillOptions& options) {
  if (!labels || (dims.array() < 1).any()) return {};
  if ((seed.array() < 0).any() || (seed.array() >= dims.array()).any()) return {};
  const size_t at = (static_cast<size_t>(seed[2]) * dims[1] + seed[1]) * static_cast<size_t>(dims[0]) + seed[0];
  const uint8_t old = labels[at];
  if (old == label) return {};
  const MemImage* in = options.intensities;
  if (!in) return fillWith(labels, dims, seed, label, LabelOnly{old}, options);
  if (in->dimensions() != dims || in->channels() != 1) {
    LOG_WARN("Seg.FloodFill", "intensity image of " << in->dimensions().transpose() << " x " << in->channels()
                                                    << " channels does not fit labels of " << dims.transpose());
    return {};
  }
  switch (in->type()) {
    case I8: return fillWindow<int8_t>(labels, dims, seed, label, old, options);
    case U8: return fillWindow<uint8_t>(labels, dims, seed, label, old, options);
    case I16: return fillWindow<int16_t>(labels, dims, seed, label, old, options);
    case U16: return fillWindow<uint16_t>(labels, dims, seed, label, old, options);
    case I32: return fillWindow<int32_t>(labels, dims, seed, label, old, options);
    case U32: return fillWindow<uint32_t>(labels, dims, seed, label, old, options);
    case F32: return fillWindow<float>(labels, dims, seed, label, old, options);
    case F64: return fillWindow<double>(labels, dims, seed, label, old, options);
    default:
      LOG_WARN("Seg.FloodFill", "intensities of type " << pixelTypeName(in->type()) << " are not supported");
      return {};
  }
}

}  // namespace Merivane::Seg
