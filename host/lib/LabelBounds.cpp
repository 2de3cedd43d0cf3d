#include "LabelBounds.h"

#include <algorithm>
#include <type_traits>

#include "Image.h"
#include "SharedImageSet.h"

namespace Merivane::LabelStatistics {

namespace {

void merge(LabelBounds& into, const LabelBounds& b) {
  if (!b.count) return;
  if (!into.count) {
    into = b;
    return;
  }
  into.min = into.min.cwiseMin(b.min);
  into.max = into.max.cwiseMax(b.max);
  into.count += b.count;
}

}  // namespace

std::vector<LabelBounds> computeBounds(const SharedImageSet& labels) {
  std::vector<LabelBounds> result;
  const MemImage* mem = labels.mem(-1);
  if (!mem || mem->type() == F32 || mem->type() == F64) return result;
  const Eigen::Vector3i dims = mem->dimensions();
  const int c = mem->channels();
  dispatchPixelType(mem->type(), [&](auto tag) {
    using T = decltype(tag);
    if constexpr (std::is_integral_v<T>) {
      const T* p = static_cast<const T*>(mem->data());
      const long n = static_cast<long>(mem->descriptor().pixelCount());
      long top = 0;
      for (long i = 0; i < n; ++i) top = std::max(top, static_cast<long>(p[i * c]));
      if (top > (1L << 24)) return;
      result.assign(static_cast<size_t>(top) + 1, LabelBounds{});
      // Slabs of slices into their own tables, merged afterwards: min, max and sums do not
      // depend on the order of the merge.
#pragma omp parallel if (dims[2] >= 9)
      {
        std::vector<LabelBounds> local(result.size());
#pragma omp for schedule(static)
        for (int z = 0; z < dims[2]; ++z)
          for (int y = 0; y < dims[1]; ++y) {
            const T* row = p + (static_cast<size_t>(z) * dims[1] + y) * dims[0] * c;
            for (int x = 0; x < dims[0]; ++x) {
              const long v = static_cast<long>(row[static_cast<size_t>(x) * c]);
              if (v < 0) continue;
              LabelBounds& b = local[static_cast<size_t>(v)];
              const Eigen::Vector3i q(x, y, z);
              if (!b.count) {
                b.min = b.max = q;
              } else {
                b.min = b.min.cwiseMin(q);
                b.max = b.max.cwiseMax(q);
              }
              ++b.count;
            }
          }
#pragma omp critical(LabelBoundsMerge)
        for (size_t v = 0; v < local.size(); ++v) merge(result[v], local[v]);
      }
    }
  });
  return result;
}

}  // namespace Merivane::LabelStatistics
