#include "LabelMapInterpolationAlgorithm.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <exception>
#include <sstream>
#include <utility>
#include <vector>

#include "Log.h"
#include "MorphologicalInterpolation.h"
#include "Progress.h"
#include "SharedImageSet.h"

namespace Merivane {

namespace {
constexpr const char* kCategory = "Seg.LabelMapInterpolationAlgorithm";

using Seg::BinaryMask;

// Frames of a label map seen as 2D images: frame i has its pixel (u, v) at
// base[i] + u * strideU + v * strideV.
struct FrameSet {
  int width = 0, height = 0;
  std::ptrdiff_t strideU = 1, strideV = 0;
  std::vector<uint8_t*> base;

  int size() const { return static_cast<int>(base.size()); }
  void gather(int i, std::vector<uint8_t>& out) const {
    out.resize(static_cast<size_t>(width) * height);
    const uint8_t* b = base[static_cast<size_t>(i)];
    for (int v = 0; v < height; ++v) {
      const uint8_t* row = b + v * strideV;
      uint8_t* o = out.data() + static_cast<size_t>(v) * width;
      if (strideU == 1) std::memcpy(o, row, static_cast<size_t>(width));
      else
        for (int u = 0; u < width; ++u) o[u] = row[u * strideU];
    }
  }
  void scatter(int i, const std::vector<uint8_t>& in) const {
    uint8_t* b = base[static_cast<size_t>(i)];
    for (int v = 0; v < height; ++v) {
      uint8_t* row = b + v * strideV;
      const uint8_t* s = in.data() + static_cast<size_t>(v) * width;
      if (strideU == 1) std::memcpy(row, s, static_cast<size_t>(width));
      else
        for (int u = 0; u < width; ++u) row[u * strideU] = s[u];
    }
  }
};

// Frames along `axis` of an X x Y x Z volume.
FrameSet volumeFrames(uint8_t* data, int X, int Y, int Z, int axis) {
  FrameSet f;
  const std::ptrdiff_t sx = 1, sy = X, sz = static_cast<std::ptrdiff_t>(X) * Y;
  const int n = axis == 0 ? X : axis == 1 ? Y : Z;
  const std::ptrdiff_t step = axis == 0 ? sx : axis == 1 ? sy : sz;
  if (axis == 0) f = {Y, Z, sy, sz, {}};
  else if (axis == 1) f = {X, Z, sx, sz, {}};
  else f = {X, Y, sx, sy, {}};
  for (int i = 0; i < n; ++i) f.base.push_back(data + i * step);
  return f;
}

// Which frames along each axis of a volume are labelled: an interior pixel of the frame is
// non-zero and so is one of its four in-plane neighbours. One pass in memory order.
std::array<std::vector<uint8_t>, 3> labelledVolumeFrames(const uint8_t* v, int X, int Y, int Z) {
  std::array<std::vector<uint8_t>, 3> labelled{std::vector<uint8_t>(static_cast<size_t>(X), 0),
                                               std::vector<uint8_t>(static_cast<size_t>(Y), 0),
                                               std::vector<uint8_t>(static_cast<size_t>(Z), 0)};
  const std::ptrdiff_t sy = X, sz = static_cast<std::ptrdiff_t>(X) * Y;
#pragma omp parallel
  {
    std::array<std::vector<uint8_t>, 3> local = labelled;
#pragma omp for schedule(static)
    for (int z = 0; z < Z; ++z)
      for (int y = 0; y < Y; ++y) {
        const uint8_t* row = v + z * sz + y * sy;
        for (int x = 0; x < X; ++x) {
          if (!row[x]) continue;
          const bool xn = (x > 0 && row[x - 1]) || (x + 1 < X && row[x + 1]);
          const bool yn = (y > 0 && row[x - sy]) || (y + 1 < Y && row[x + sy]);
          const bool zn = (z > 0 && row[x - sz]) || (z + 1 < Z && row[x + sz]);
          const bool ix = x > 0 && x < X - 1, iy = y > 0 && y < Y - 1, iz = z > 0 && z < Z - 1;
          if (ix && iy && (xn || yn)) local[2][static_cast<size_t>(z)] = 1;
          if (ix && iz && (xn || zn)) local[1][static_cast<size_t>(y)] = 1;
          if (iy && iz && (yn || zn)) local[0][static_cast<size_t>(x)] = 1;
        }
      }
#pragma omp critical(labelMapInterpolationFrames)
    for (int a = 0; a < 3; ++a)
      for (size_t i = 0; i < labelled[a].size(); ++i) labelled[a][i] |= local[a][i];
  }
  return labelled;
}

// Frames of a stack with any non-zero interior pixel.
std::vector<uint8_t> labelledStackFrames(const FrameSet& set) {
  std::vector<uint8_t> labelled(static_cast<size_t>(set.size()), 0);
  std::vector<uint8_t> buf;
  for (int i = 0; i < set.size(); ++i) {
    set.gather(i, buf);
    for (int v = 1; v + 1 < set.height && !labelled[static_cast<size_t>(i)]; ++v)
      for (int u = 1; u + 1 < set.width; ++u)
        if (buf[static_cast<size_t>(v) * set.width + u]) {
          labelled[static_cast<size_t>(i)] = 1;
          break;
        }
  }
  return labelled;
}

std::vector<std::pair<int, int>> gapsBetween(const std::vector<uint8_t>& labelled) {
  std::vector<std::pair<int, int>> pairs;
  int previous = -1;
  for (int i = 0; i < static_cast<int>(labelled.size()); ++i) {
    if (!labelled[static_cast<size_t>(i)]) continue;
    if (previous >= 0 && i - previous > 1) pairs.emplace_back(previous, i);
    previous = i;
  }
  return pairs;
}

// Fills the gap (a, b) of `set` and every smaller gap it leaves, on the calling thread. Only
// frames strictly between a and b are written.
void fillGap(const FrameSet& set, int a, int b, int perStep, int radius) {
  std::vector<std::pair<int, int>> work{{a, b}};
  std::vector<uint8_t> fa, fb;
  std::vector<std::vector<uint8_t>> placed;
  std::vector<int> positions;
  BinaryMask m1(set.width, set.height), m2(set.width, set.height);
  while (!work.empty()) {
    const auto [lo, hi] = work.back();
    work.pop_back();
    LOG_DEBUG(kCategory, "Interpolating between " << lo << " and " << hi);
    const int K = std::min(hi - lo - 1, perStep);
    // Spread evenly and rounded to the nearest frame; with K < hi - lo the step is at least one
    // frame, so the positions are distinct and lie strictly inside the gap.
    positions.clear();
    for (int k = 1; k <= K; ++k)
      positions.push_back(lo + static_cast<int>((2LL * k * (hi - lo) + (K + 1)) / (2LL * (K + 1))));
    set.gather(lo, fa);
    set.gather(hi, fb);
    std::array<bool, 256> inA{}, inB{};
    for (uint8_t v : fa) inA[v] = true;
    for (uint8_t v : fb) inB[v] = true;
    placed.resize(static_cast<size_t>(K));
    for (int k = 0; k < K; ++k) set.gather(positions[static_cast<size_t>(k)], placed[static_cast<size_t>(k)]);
    for (int label = 1; label < 256; ++label) {
      if (!inA[label] || !inB[label]) continue;
      LOG_DEBUG(kCategory, "Interpolating label " << label);
      for (size_t i = 0; i < fa.size(); ++i) {
        m1.pixels[i] = fa[i] == label;
        m2.pixels[i] = fb[i] == label;
      }
      const auto shapes = Seg::MorphInterpolation::interpolate(m1, m2, K, radius);
      for (size_t k = 0; k < shapes.size() && k < placed.size(); ++k) {
        const auto& s = shapes[k].pixels;
        auto& out = placed[k];
        const uint8_t value = static_cast<uint8_t>(label);
        for (size_t i = 0; i < s.size(); ++i)
          if (s[i] && out[i] < value) out[i] = value;
      }
    }
    for (int k = 0; k < K; ++k) set.scatter(positions[static_cast<size_t>(k)], placed[static_cast<size_t>(k)]);
    int previous = lo;
    for (int p : positions) {
      if (p - previous > 1) work.emplace_back(previous, p);
      previous = p;
    }
    if (hi - previous > 1) work.emplace_back(previous, hi);
  }
}

std::string describePairs(const std::vector<std::pair<int, int>>& pairs) {
  std::ostringstream s;
  for (size_t i = 0; i < pairs.size(); ++i) s << (i ? ", " : "") << pairs[i].first << " -> " << pairs[i].second;
  return s.str();
}

// Fills every gap of one set in parallel; false when canceled.
bool fillSet(const FrameSet& set, const std::vector<std::pair<int, int>>& pairs, int perStep, int radius,
             Progress::Task& task) {
  std::atomic<bool> canceled{false};
  std::atomic<bool> failed{false};
  std::exception_ptr error;
  const int n = static_cast<int>(pairs.size());
#pragma omp parallel for schedule(dynamic, 1)
  for (int i = 0; i < n; ++i) {
    if (canceled.load(std::memory_order_relaxed) || failed.load(std::memory_order_relaxed)) continue;
    if (task.wasCanceled()) {
      canceled = true;
      continue;
    }
    try {
      fillGap(set, pairs[static_cast<size_t>(i)].first, pairs[static_cast<size_t>(i)].second, perStep, radius);
    } catch (...) {  // nothing may leave the parallel region
#pragma omp critical(labelMapInterpolationError)
      if (!error) error = std::current_exception();
      failed = true;
    }
  }
  if (error) std::rethrow_exception(error);
  return !canceled;
}

bool validInput(const SharedImageSet* labels, std::string& why) {
  if (!labels || labels->empty()) {
    why = "No label map given";
    return false;
  }
  if (labels->modality() != Data::LABEL) {
    why = "The input is not a label map";
    return false;
  }
  const Eigen::Vector3i dims = labels->img(0)->dimensions();
  for (int i = 0; i < labels->size(); ++i) {
    const ImageDescriptor& d = labels->get(i)->descriptor();
    if (d.pixelType != U8 || d.channels > 1) {
      why = "Frame " + std::to_string(i) + " is not a one-channel U8 image";
      return false;
    }
    if (d.dimensions != dims) {
      why = "The frames of the label map do not share one grid";
      return false;
    }
  }
  if (labels->size() == 1 && dims[2] > 1) return true;
  if (labels->size() >= 2 && dims[2] == 1) return true;
  why = labels->size() == 1 ? "A single 2D frame has nothing to interpolate" : "Only one 3D frame is supported";
  return false;
}
}  // namespace

LabelMapInterpolationAlgorithm::LabelMapInterpolationAlgorithm(SharedImageSet* labels) : labels_(labels) {
  numInterpolationsPerStep.setLabel("Iterations per step");
  morphoKernelSize.setLabel("Kernel Size");
}

LabelMapInterpolationAlgorithm::~LabelMapInterpolationAlgorithm() = default;

bool LabelMapInterpolationAlgorithm::createCompatible(const DataList& data, Algorithm** algorithm) {
  if (data.size() != 1) return false;
  SharedImageSet* labels = data.getImage();
  std::string why;
  if (!labels || !validInput(labels, why)) return false;
  if (algorithm) *algorithm = new LabelMapInterpolationAlgorithm(labels);
  return true;
}

void LabelMapInterpolationAlgorithm::compute() {
  output_.reset();
  if (!validateParameters(kCategory)) return;
  std::string why;
  if (!validInput(labels_, why)) {
    LOG_ERROR(kCategory, why);
    setStatus(statusInvalidInput);
    return;
  }
  Progress::Task task(progress_, 100, "Computing...");
  try {
    const int perStep = numInterpolationsPerStep, radius = morphoKernelSize;
    const bool volume = labels_->size() == 1;
    auto result = labels_->clone();
    bool anyPair = false;
    task.setCurrentStep(10);
    if (volume) {
      const Eigen::Vector3i dims = labels_->img(0)->dimensions();
      const int X = dims[0], Y = dims[1], Z = dims[2];
      const size_t n = static_cast<size_t>(X) * Y * Z;
      const auto* input = static_cast<const uint8_t*>(labels_->mem(0)->data());
      const auto labelled = labelledVolumeFrames(input, X, Y, Z);
      auto* merged = static_cast<uint8_t*>(result->mem(0)->data());
      std::vector<uint8_t> work;
      for (int axis = 0; axis < 3; ++axis) {
        const auto pairs = gapsBetween(labelled[static_cast<size_t>(axis)]);
        if (pairs.empty()) {
          LOG_INFO(kCategory, "No frame to interpolate in axis " << axis << " (need at least two labelled frames)");
        } else {
          LOG_INFO(kCategory, "List of frames to be interpolated in axis " << axis << ": " << describePairs(pairs));
          anyPair = true;
          work.assign(input, input + n);
          if (!fillSet(volumeFrames(work.data(), X, Y, Z, axis), pairs, perStep, radius, task)) {
            setStatus(statusCanceled);
            return;
          }
          // Each axis only adds to the input, so the highest label per voxel merges them.
#pragma omp parallel for schedule(static)
          for (std::ptrdiff_t i = 0; i < static_cast<std::ptrdiff_t>(n); ++i) merged[i] = std::max(merged[i], work[i]);
        }
        task.setCurrentStep(10 + 85 * (axis + 1) / 3);
      }
      result->get(0)->setDirtyMem();
    } else {
      FrameSet set;
      set.width = labels_->img(0)->dimensions()[0];
      set.height = labels_->img(0)->dimensions()[1];
      set.strideU = 1;
      set.strideV = set.width;
      for (int i = 0; i < result->size(); ++i) set.base.push_back(static_cast<uint8_t*>(result->mem(i)->data()));
      const auto pairs = gapsBetween(labelledStackFrames(set));
      if (pairs.empty()) {
        LOG_INFO(kCategory, "No frame to interpolate in axis 0 (need at least two labelled frames)");
      } else {
        LOG_INFO(kCategory, "List of frames to be interpolated in axis 0: " << describePairs(pairs));
        anyPair = true;
        if (!fillSet(set, pairs, perStep, radius, task)) {
          setStatus(statusCanceled);
          return;
        }
        for (int i = 0; i < result->size(); ++i) result->get(i)->setDirtyMem();
      }
      task.setCurrentStep(95);
    }
    if (!anyPair) {
      LOG_ERROR(kCategory, "Nothing to interpolate: the label map needs two labelled frames with a gap between them");
      setStatus(statusIncompleteInput);
      return;
    }
    task.setCurrentStep(95);
    result->setName("Interpolation");
    result->setModality(Data::LABEL);
    output_ = std::move(result);
    task.setCurrentStep(100);
    setStatus(statusSuccess);
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& e) {
    output_.reset();
    LOG_ERROR(kCategory, "Interpolation failed: " << e.what());
    setStatus(statusError);
  }
}

OwningDataList LabelMapInterpolationAlgorithm::takeOutput() {
  OwningDataList out;
  if (output_) out.add(std::move(output_));
  return out;
}

}  // namespace Merivane
