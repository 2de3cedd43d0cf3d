#include "Watershed.h"
#include "WatershedQueues.h"

#include <omp.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cmath>
#include <cstring>
#include <exception>
#include <limits>
#include <mutex>

#include "Log.h"
#include "Progress.h"

namespace Merivane::Watershed {

using detail::Queues;

namespace {
constexpr const char* kCategory = "Seg.Watershed";
constexpr unsigned char kQueued = 254;
constexpr unsigned char kLine = 255;

// Entries 0..255 are 0 and entries 256..511 are 0..255, so that for bytes a and b
// table[a - b + 256] = max(a - b, 0): max(a, b) = b + table[a - b + 256] and
// min(a, b) = a - table[a - b + 256], with no branch in the flooding's hot path.
struct ClampTable {
  unsigned char v[512];
  constexpr ClampTable() : v{} {
    for (int i = 256; i < 512; ++i) v[i] = static_cast<unsigned char>(i - 256);
  }
};
constexpr ClampTable kTable;
// kPositive[d] = max(d, 0) for d in [-256, 255].
const unsigned char* const kPositive = kTable.v + 256;

inline bool isLabel(unsigned char v) { return static_cast<unsigned char>(v - 1) < 253; }

// The largest absolute channel difference of two voxels, |x - y| = max - min = y - x + 2 * table.
// C is the channel count when known at compile time, 0 for a count given at run time.
template <int C>
struct Diff {
  const unsigned char* src;
  int channels;

  int operator()(int32_t a, int32_t b) const {
    if constexpr (C == 1) {
      const int x = src[a], y = src[b];
      return y - x + 2 * kPositive[x - y];
    } else {
      const int n = C > 0 ? C : channels;
      const unsigned char* pa = src + static_cast<ptrdiff_t>(a) * n;
      const unsigned char* pb = src + static_cast<ptrdiff_t>(b) * n;
      int d = 0;
      for (int c = 0; c < n; ++c) {
        const int x = pa[c], y = pb[c];
        const int t = y - x + 2 * kPositive[x - y];
        d = t + kPositive[d - t];
      }
      return d;
    }
  }
};

// The labels of up to eight neighbours, one byte each in `packed` (0 in unused bytes): the
// largest label (0 for none), whether another label differs from it, and the unreached
// neighbours among the first `count` as one bit each.
struct Summary {
  unsigned label;
  bool differs;
  unsigned unreached;
};

inline Summary summarize(uint64_t packed, int count) {
#if defined(__SSE2__)
  const __m128i v = _mm_cvtsi64_si128(static_cast<long long>(packed));
  const auto unreached = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, _mm_setzero_si128())));
  const __m128i less1 = _mm_sub_epi8(v, _mm_set1_epi8(1));  // labels become 0..252, 0 becomes 255
  const __m128i isLab = _mm_cmpeq_epi8(_mm_min_epu8(less1, _mm_set1_epi8(static_cast<char>(252))), less1);
  __m128i high = _mm_and_si128(v, isLab);
  // Byte 0 gathers bytes 0..7; what the shifts bring in lands above byte 7 and is never read.
  for (int shift : {32, 16, 8}) high = _mm_max_epu8(high, _mm_srli_epi64(high, shift));
  // The largest label in every byte; a label that is not it differs.
  const __m128i all = _mm_shufflelo_epi16(_mm_unpacklo_epi8(high, high), 0);
  const auto differs = _mm_movemask_epi8(_mm_andnot_si128(_mm_cmpeq_epi8(v, all), isLab)) & 0xFF;
  return {static_cast<unsigned>(_mm_cvtsi128_si32(high)) & 255u, differs != 0, unreached & ((1u << count) - 1)};
#else
  Summary s{0, false, 0};
  unsigned low = 255;
  for (int k = 0; k < count; ++k) {
    const auto v = static_cast<unsigned char>(packed >> (8 * k));
    if (isLabel(v)) {
      s.label = std::max(s.label, static_cast<unsigned>(v));
      low = std::min(low, static_cast<unsigned>(v));
    }
    s.unreached |= static_cast<unsigned>(v == 0) << k;
  }
  s.differs = s.label != 0 && low != s.label;
  return s;
#endif
}

// The region in the image's voxel grid. Positions are relative to its first voxel, with the
// strides of the whole image.
struct Region {
  Eigen::Vector3i size;  // voxels per axis
  int32_t sy;            // stride of y
  int32_t sz;            // stride of z
  bool threeD;           // the image has more than one slice: z has a shell and neighbours
};

// Steps 2 to 6 of the flooding: frame, initial queue, priority flood. False when cancelled.
template <int C, bool ThreeD>
bool flood(const unsigned char* src, int channels, unsigned char* lab, const Region& r, Progress* progress) {
  const int dx = r.size[0], dy = r.size[1], dz = r.size[2];
  const int32_t sy = r.sy, sz = r.sz;
  constexpr int K = ThreeD ? 6 : 4;
  // Neighbour order -x, +x, -y, +y, -z, +z decides ties between equal priorities.
  const int32_t off[6] = {-1, 1, -sy, sy, ThreeD ? -sz : 0, ThreeD ? sz : 0};
  const Diff<C> diff{src, channels};

  // The frame stands in for every bounds test below: no interior voxel has a neighbour outside.
  for (int z = 0; z < dz; ++z)
    for (int y = 0; y < dy; ++y) {
      unsigned char* row = lab + static_cast<ptrdiff_t>(z) * sz + static_cast<ptrdiff_t>(y) * sy;
      if ((ThreeD && (z == 0 || z == dz - 1)) || y == 0 || y == dy - 1) {
        std::memset(row, kLine, static_cast<size_t>(dx));
      } else {
        row[0] = kLine;
        row[dx - 1] = kLine;
      }
    }

  Queues queues(static_cast<size_t>(dx) * static_cast<size_t>(dy) * static_cast<size_t>(dz));
  int64_t pushed = 0;
  int64_t popped = 0;
  const int zBegin = ThreeD ? 1 : 0;
  const int zEnd = ThreeD ? dz - 1 : dz;
  // Only voxels next to a label are queued; a row-wide test that the compiler vectorises finds
  // them, so that the per-voxel work is spent near the seeds only.
  std::vector<unsigned char> nearLabel(static_cast<size_t>(dx));
  for (int z = zBegin; z < zEnd; ++z)
    for (int y = 1; y < dy - 1; ++y) {
      unsigned char* row = lab + (z * sz + y * sy);
      for (int x = 1; x < dx - 1; ++x)
        row[x] = row[x] >= kQueued ? 0 : row[x];  // left-overs of an earlier run count as unreached
      for (int x = 1; x < dx - 1; ++x) {
        bool any = isLabel(row[x - 1]) | isLabel(row[x + 1]) | isLabel(row[x - sy]) | isLabel(row[x + sy]);
        if constexpr (ThreeD) any |= isLabel(row[x - sz]) | isLabel(row[x + sz]);
        nearLabel[x] = any;
      }
      for (int x = 1; x < dx - 1; ++x) {
        if (!nearLabel[x] || row[x] != 0) continue;
        const int32_t p = z * sz + y * sy + x;
        int best = 255;
        for (int k = 0; k < K; ++k)
          if (isLabel(lab[p + off[k]])) best = best - kPositive[best - diff(p, p + off[k])];
        queues.ensureFree(1);
        queues.push(best, p);
        lab[p] = kQueued;
        ++pushed;
      }
    }

  // Cache lines of a voxel's neighbourhood: its own row, its neighbours across rows and slices,
  // and the ring beyond them. Voxels some pops ahead need the first `near` of them. A neighbour
  // pushed below the active priority is popped at once, and it often pushes one of its own
  // neighbours below again, so it gets the whole ring at its push. The ring reaches two steps
  // beyond the region's interior, possibly outside the image: these addresses are only fetched
  // from, never read, and are formed as integers.
  const auto lines = [&] {
    const ptrdiff_t y = sy, z = sz;
    if constexpr (ThreeD)
      return std::array<ptrdiff_t, 13>{0, -y, y, -z, z, -2 * y, 2 * y, -2 * z, 2 * z, -y - z, -y + z, y - z, y + z};
    else
      return std::array<ptrdiff_t, 5>{0, -y, y, -2 * y, 2 * y};
  }();
  const auto fetch = [](const unsigned char* base, ptrdiff_t offset) {
    __builtin_prefetch(reinterpret_cast<const void*>(reinterpret_cast<uintptr_t>(base) + static_cast<uintptr_t>(offset)));
  };
  const ptrdiff_t stride = C > 0 ? C : channels;
  constexpr size_t near = ThreeD ? 5 : 3;
  // Neighbour offsets by bit of the packed neighbourhood below; bit 1 is the voxel itself.
  const int32_t bitOff[7] = {-1, 0, 1, -sy, sy, ThreeD ? -sz : 0, ThreeD ? sz : 0};

  Progress::Task task(progress, 105, "Computing...");
  int active = 0;
  int countdown = 1000;
  int shown = 0;
  for (;;) {
    if (queues.empty(active)) {
      // Every push lowers `active` to its priority, so the queues below it are empty already and
      // the walk from 0 can start here.
      while (active < 256 && queues.empty(active)) ++active;
      if (active == 256) break;
    }
    if (progress && --countdown == 0) {
      shown = std::max(shown, static_cast<int>(100 * popped / pushed));
      task.setCurrentStep(shown);
      if (task.wasCanceled()) return false;
      countdown = 1000;
    }
    const int32_t p = queues.pop(active);
    ++popped;
    queues.ensureFree(K);
    // The flooding order hops across the volume; fetching the neighbourhood of a voxel some pops
    // ahead hides most of the cache misses.
    if (const int32_t ahead = queues.lookAhead(active); ahead >= 0) {
      for (size_t k = 0; k < near; ++k) {
        fetch(lab, ahead + lines[k]);
        fetch(src, (ahead + lines[k]) * stride);
      }
    }

    // The row's three bytes -x, the voxel itself (queued, so neither a label nor unreached) and
    // +x come in one load; the byte after them lies in the image, since p is an interior voxel.
    const unsigned char* at = lab + p;
    uint32_t row;
    std::memcpy(&row, at - 1, 4);
    uint64_t packed = (row & 0xFFFFFFu) | static_cast<uint64_t>(at[-sy]) << 24 | static_cast<uint64_t>(at[sy]) << 32;
    if constexpr (ThreeD) packed |= static_cast<uint64_t>(at[-sz]) << 40 | static_cast<uint64_t>(at[sz]) << 48;
    auto [label, differs, unreached] = summarize(packed, K + 1);
    if (differs) {
      lab[p] = kLine;  // a line neighbours two labels and floods nothing
      continue;
    }
    lab[p] = static_cast<unsigned char>(label);

    for (; unreached != 0; unreached &= unreached - 1) {
      const int32_t q = p + bitOff[std::countr_zero(unreached)];
      const int t = diff(p, q);
      queues.push(t, q);
      if (t < active) {
        // Popped next, unforeseen by the look-ahead.
        for (const ptrdiff_t o : lines) {
          fetch(lab, q + o);
          fetch(src, (q + o) * stride);
        }
      }
      lab[q] = kQueued;  // label on push, not on pop: each voxel enters a queue once
      ++pushed;
      active = active - kPositive[active - t];
    }
  }
  task.setCurrentStep(100);
  return !task.wasCanceled();
}

#if defined(__SSE2__)
// Whether the 16 bytes at `at` all hold labels.
inline bool allLabels16(const unsigned char* at) {
  const __m128i less1 = _mm_sub_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(at)), _mm_set1_epi8(1));
  const __m128i isLab = _mm_cmpeq_epi8(_mm_min_epu8(less1, _mm_set1_epi8(static_cast<char>(252))), less1);
  return _mm_movemask_epi8(isLab) == 0xFFFF;
}

// The block search of resolve() for one channel when the columns x - 1 .. x + 1 lie in the
// region. Each row of the block (`rows`: offsets of row starts, z then y, two to nine of them)
// fills one 32-bit lane with x - 1, x, x + 1 and a masked-off fourth byte. A key
// difference << 6 | byte position ranks the labelled voxels, so that the smallest key is the
// most similar voxel and, on a tie, the first in z, y, x order. The byte reads stay inside
// the image: the fourth byte of a row lies before the start of the last row, which is read
// from x - 2 instead.
inline unsigned char blockSearch(const unsigned char* lab, const unsigned char* src, int32_t p, int x,
                                 const int32_t* rows, int rowCount) {
  alignas(16) uint32_t labels[12] = {};
  alignas(16) uint32_t values[12] = {};
  const int last = rowCount - 1;
  for (int k = 0; k < last; ++k) {
    std::memcpy(&labels[k], lab + rows[k] + x - 1, 4);
    std::memcpy(&values[k], src + rows[k] + x - 1, 4);
  }
  std::memcpy(&labels[last], lab + rows[last] + x - 2, 4);
  std::memcpy(&values[last], src + rows[last] + x - 2, 4);
  labels[last] >>= 8;
  values[last] >>= 8;

  const __m128i zero = _mm_setzero_si128();
  const __m128i centre = _mm_set1_epi8(static_cast<char>(src[p]));
  const __m128i none = _mm_set1_epi16(0x7FFF);
  __m128i best = none;
  for (int v = 0; v < 3; ++v) {
    const __m128i l =
        _mm_and_si128(_mm_load_si128(reinterpret_cast<const __m128i*>(labels) + v), _mm_set1_epi32(0x00FFFFFF));
    const __m128i s = _mm_load_si128(reinterpret_cast<const __m128i*>(values) + v);
    const __m128i d = _mm_sub_epi8(_mm_max_epu8(s, centre), _mm_min_epu8(s, centre));
    const __m128i less1 = _mm_sub_epi8(l, _mm_set1_epi8(1));
    const __m128i isLab = _mm_cmpeq_epi8(_mm_min_epu8(less1, _mm_set1_epi8(static_cast<char>(252))), less1);
    const __m128i position =
        _mm_add_epi16(_mm_set_epi16(7, 6, 5, 4, 3, 2, 1, 0), _mm_set1_epi16(static_cast<short>(16 * v)));
    for (int half = 0; half < 2; ++half) {
      const __m128i d16 = half ? _mm_unpackhi_epi8(d, zero) : _mm_unpacklo_epi8(d, zero);
      const __m128i lab16 = half ? _mm_unpackhi_epi8(isLab, isLab) : _mm_unpacklo_epi8(isLab, isLab);
      const __m128i key =
          _mm_or_si128(_mm_slli_epi16(d16, 6), _mm_add_epi16(position, _mm_set1_epi16(static_cast<short>(8 * half))));
      best = _mm_min_epi16(best, _mm_or_si128(_mm_and_si128(lab16, key), _mm_andnot_si128(lab16, none)));
    }
  }
  best = _mm_min_epi16(best, _mm_shuffle_epi32(best, 0x4E));
  best = _mm_min_epi16(best, _mm_shuffle_epi32(best, 0xB1));
  best = _mm_min_epi16(best, _mm_shufflelo_epi16(best, 0xB1));
  const int key = _mm_cvtsi128_si32(best) & 0xFFFF;
  return key == 0x7FFF ? 0 : reinterpret_cast<const unsigned char*>(labels)[key & 63];
}
#endif

struct Fix {
  int32_t pos;
  unsigned char label;
};

// Step 7: every voxel of the region without a label takes the label of the most similar voxel
// of its 3x3x3 block (the first one in z, y, x order on a tie), decided on the state after the
// flooding. Decisions go to per-thread lists first and are written afterwards, so that no
// voxel sees another's decision and the result does not depend on the thread count.
template <int C>
void resolve(const unsigned char* src, int channels, unsigned char* lab, const Region& r) {
  const int dx = r.size[0], dy = r.size[1], dz = r.size[2];
  const int32_t sy = r.sy, sz = r.sz;
  const Diff<C> diff{src, channels};
  const int threads = std::max(1, omp_get_max_threads());
  const size_t voxels = static_cast<size_t>(dx) * static_cast<size_t>(dy) * static_cast<size_t>(dz);

  std::vector<std::vector<Fix>> lists(static_cast<size_t>(threads));
  try {
    // Address space only: a list touches the pages its decisions fill.
    for (auto& l : lists) l.reserve(voxels / static_cast<size_t>(threads));
  } catch (const std::exception&) {
    // The lists then grow as they go.
  }
  std::exception_ptr failure;
  std::mutex failureMutex;

#pragma omp parallel num_threads(threads)
  {
    std::vector<Fix>& mine = lists[static_cast<size_t>(omp_get_thread_num())];
#pragma omp for schedule(static)
    for (int z = 0; z < dz; ++z) {
      try {
        for (int y = 0; y < dy; ++y) {
          // The rows of the block, clipped to the region, in z, y order.
          int32_t rows[9];
          int rowCount = 0;
          for (int zz = std::max(z - 1, 0); zz <= std::min(z + 1, dz - 1); ++zz)
            for (int yy = std::max(y - 1, 0); yy <= std::min(y + 1, dy - 1); ++yy) rows[rowCount++] = zz * sz + yy * sy;
          const int32_t row = z * sz + y * sy;
          for (int x = 0; x < dx; ++x) {
            const int32_t p = row + x;
#if defined(__SSE2__)
            if (x + 16 <= dx && allLabels16(lab + p)) {
              x += 15;
              continue;
            }
#endif
            if (isLabel(lab[p])) continue;
            // The most similar labelled voxel, the first one on a tie; 0 when there is none.
            int best = 256;
            unsigned label = 0;
            auto consider = [&](int32_t q) {
              const unsigned v = lab[q];
              const int d = isLabel(static_cast<unsigned char>(v)) ? diff(p, q) : 256;
              label = d < best ? v : label;
              best = d < best ? d : best;
            };
#if defined(__SSE2__)
            if (C == 1 && x > 0 && x < dx - 1 && rowCount >= 2) {
              mine.push_back({p, blockSearch(lab, src, p, x, rows, rowCount)});
              continue;
            }
#endif
            if (x > 0 && x < dx - 1) {
              for (int k = 0; k < rowCount; ++k) {
                consider(rows[k] + x - 1);
                consider(rows[k] + x);
                consider(rows[k] + x + 1);
              }
            } else {
              for (int k = 0; k < rowCount; ++k)
                for (int xx = std::max(x - 1, 0); xx <= std::min(x + 1, dx - 1); ++xx) consider(rows[k] + xx);
            }
            mine.push_back({p, static_cast<unsigned char>(label)});
          }
        }
      } catch (...) {
        // Nothing may leave the parallel region; the first failure is raised after it.
        std::lock_guard lock(failureMutex);
        if (!failure) failure = std::current_exception();
      }
    }
  }
  if (failure) std::rethrow_exception(failure);

#pragma omp parallel for schedule(static) num_threads(threads)
  for (int t = 0; t < threads; ++t)
    for (const Fix& f : lists[static_cast<size_t>(t)]) lab[f.pos] = f.label;
}

template <int C>
bool runChannels(const unsigned char* src, int channels, unsigned char* lab, const Region& r, Progress* progress) {
  const bool done =
      r.threeD ? flood<C, true>(src, channels, lab, r, progress) : flood<C, false>(src, channels, lab, r, progress);
  if (!done) return false;
  resolve<C>(src, channels, lab, r);
  return true;
}

template <typename T>
void quantize(const T* in, unsigned char* out, int64_t n, double scale, double shift, double low, double factor) {
#pragma omp parallel for schedule(static)
  for (int64_t i = 0; i < n; ++i) {
    const double v = (static_cast<double>(in[i]) / scale - shift - low) * factor;
    // Written so that NaN lands on 255 with the values at or above the top.
    if (!(v < 1.0))
      out[i] = 255;
    else if (v <= 0.0)
      out[i] = 0;
    else
      out[i] = static_cast<unsigned char>(v * 255.0);
  }
}
}  // namespace

uint32_t allocWSNodes(std::vector<WSNode>& nodes) {
  const size_t old = nodes.size();
  const size_t first = old == 0 ? 1 : old;
  const size_t grown = std::max<size_t>(old + old / 2, 128);
  nodes.resize(grown);
  // Late growths run to tens of megabytes of fresh pages; both cores share the first touch.
  const auto last = static_cast<int64_t>(grown) - 1;
#pragma omp parallel for schedule(static) if (last - static_cast<int64_t>(first) > (int64_t(1) << 20))
  for (int64_t i = static_cast<int64_t>(first); i < last; ++i) nodes[static_cast<size_t>(i)].next = static_cast<uint32_t>(i + 1);
  nodes[grown - 1].next = 0;
  if (old == 0) nodes[0] = {0, 0};
  return static_cast<uint32_t>(first);
}

bool run(const TypedImage<unsigned char>& source, TypedImage<unsigned char>& seeds, Progress* progress,
         Eigen::Vector3i roiMin, Eigen::Vector3i roiMax) {
  const Eigen::Vector3i dims = seeds.dimensions();
  if (source.dimensions() != dims || seeds.channels() != 1) {
    LOG_ERROR(kCategory, "Source of " << dims.transpose() << " voxels and " << source.channels()
                                      << " channels does not fit seeds of " << seeds.dimensions().transpose()
                                      << " voxels and " << seeds.channels() << " channels");
    return false;
  }
  if (dims.minCoeff() <= 0) return true;

  Eigen::Vector3i begin = Eigen::Vector3i::Zero();
  Eigen::Vector3i end = dims;
  if (roiMin != roiMax) {
    for (int i = 0; i < 3; ++i) {
      begin[i] = std::max(std::min(roiMin[i], roiMax[i]), 0);
      end[i] = std::min(std::max(roiMin[i], roiMax[i]), dims[i] - 1) + 1;
    }
  }
  if ((end - begin).minCoeff() <= 0) return true;  // the bounds miss the image

  Region r;
  r.size = end - begin;
  r.threeD = dims[2] > 1;
  const int64_t sy = dims[0];
  const int64_t sz = static_cast<int64_t>(dims[0]) * dims[1];
  const int64_t span = (r.size[2] - 1) * sz + (r.size[1] - 1) * sy + r.size[0];
  if (span > std::numeric_limits<int32_t>::max() || (r.threeD && sz > std::numeric_limits<int32_t>::max())) {
    LOG_ERROR(kCategory, "Region of " << r.size.transpose() << " voxels is too large to flood");
    return false;
  }
  r.sy = static_cast<int32_t>(sy);
  r.sz = static_cast<int32_t>(sz);

  const int channels = source.channels();
  const size_t base = seeds.index(begin[0], begin[1], begin[2]);
  unsigned char* lab = seeds.pointer() + base;
  const unsigned char* src = source.pointer() + base * static_cast<size_t>(channels);
  switch (channels) {
    case 1: return runChannels<1>(src, channels, lab, r, progress);
    case 3: return runChannels<3>(src, channels, lab, r, progress);
    default: return runChannels<0>(src, channels, lab, r, progress);
  }
}

std::unique_ptr<TypedImage<unsigned char>> quantizeAndBakeWindowLevel(const MemImage& image, double window,
                                                                      double level) {
  ImageDescriptor d = image.descriptor();
  d.pixelType = U8;
  d.shift = 0.0;
  d.scale = 1.0;
  std::unique_ptr<TypedImage<unsigned char>> out;
  const double low = level - 0.5 * window;
  const double factor = 1.0 / window;
  const auto n = static_cast<int64_t>(image.descriptor().elementCount());
  dispatchPixelType(image.type(), [&](auto tag) {
    using T = decltype(tag);
    out = std::make_unique<TypedImage<unsigned char>>(d, nullptr, MemImage::Ownership::Owned, false);
    quantize(static_cast<const T*>(image.data()), out->pointer(), n, image.scale(), image.shift(), low, factor);
  });
  return out;
}

std::pair<double, double> rangeWindowLevel(const MemImage& frame) {
  double min = 0.0, max = 1.0;
  dispatchPixelType(frame.type(), [&](auto tag) {
    using T = decltype(tag);
    T lo, hi;
    if (const auto* typed = dynamic_cast<const TypedImage<T>*>(&frame); typed && typed->getRange(lo, hi)) {
      min = static_cast<double>(lo);
      max = static_cast<double>(hi);
    }
  });
  const double lo = frame.descriptor().toPhysical(min);
  const double hi = frame.descriptor().toPhysical(max);
  return {hi - lo, (hi + lo) * 0.5};
}

bool seedsValid(const TypedImage<unsigned char>& seeds) {
  const unsigned char* p = seeds.pointer();
  const size_t n = seeds.descriptor().elementCount();
  unsigned char first = 0;
  for (size_t i = 0; i < n; ++i) {
    if (!isLabel(p[i])) continue;
    if (first == 0)
      first = p[i];
    else if (p[i] != first)
      return true;
  }
  return false;
}

}  // namespace Merivane::Watershed
