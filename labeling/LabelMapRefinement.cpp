#include "LabelMapRefinement.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <deque>
#include <memory>

#include "ConnectedComponentsAlgorithm.h"
#include "GlContext.h"
#include "GlImage.h"
#include "GlSmoothingFilter.h"
#include "ImageComponents.h"
#include "Log.h"
#include "Mask.h"
#include "MorphologicalOperationsAlgorithm.h"
#include "SharedImageSet.h"
#include "WatershedSegmentationAlgorithm.h"

namespace Merivane::Seg {

namespace {

constexpr const char* kCategory = "LabelMapRefinement";
constexpr int kMaxMorphoStep = 5;
using U8Image = TypedImage<unsigned char>;

// The tight box [lo, hi) round the non-zero voxels; false when there are none.
bool minimumBoundingBox(const U8Image& img, Eigen::Vector3i& lo, Eigen::Vector3i& hi) {
  const Eigen::Vector3i d = img.dimensions();
  lo = d;
  hi = Eigen::Vector3i::Zero();
  const unsigned char* p = img.pointer();
  bool any = false;
  for (int z = 0; z < d[2]; ++z)
    for (int y = 0; y < d[1]; ++y) {
      const unsigned char* row = p + (static_cast<size_t>(z) * d[1] + y) * static_cast<size_t>(d[0]);
      for (int x = 0; x < d[0]; ++x)
        if (row[x]) {
          any = true;
          lo = lo.cwiseMin(Eigen::Vector3i(x, y, z));
          hi = hi.cwiseMax(Eigen::Vector3i(x + 1, y + 1, z + 1));
        }
    }
  return any;
}

U8Image* typed(SharedImageSet& set) { return dynamic_cast<U8Image*>(set.mem()); }

// Runs a morphological operation in place, in steps of at most kMaxMorphoStep voxels.
bool morphology(SharedImageSet& set, bool dilate, int size) {
  MorphologicalOperationsAlgorithm algorithm(&set);
  algorithm.setOpMode(dilate ? 0 : 1);
  algorithm.setInPlace(true);
  for (int step : LabelMapRefinement::morphoSteps(size)) {
    algorithm.setOpSize(step);
    algorithm.compute();
    if (algorithm.status() != Algorithm::statusSuccess) return false;
  }
  return true;
}

// A binary median: more than half of the window (edge 2 * half + 1 along the image's axes
// of extent, clipped to the image) set. Only the foreground's box can change.
void medianFilter(U8Image& img, int size) {
  Eigen::Vector3i lo, hi;
  if (!minimumBoundingBox(img, lo, hi)) return;
  const Eigen::Vector3i d = img.dimensions();
  const int half = size < 2 ? 1 : size / 2;
  const int dims = img.descriptor().dimension();
  const Eigen::Vector3i h(half, dims >= 2 ? half : 0, dims == 3 ? half : 0);
  const long threshold = static_cast<long>(std::trunc(std::pow(2.0 * half + 1.0, dims) * 0.5));
  // Counts over the box grown by the window (clipped), as an integral image with a zero
  // border at the low side: S(x, y, z) is the count in [glo, glo + (x, y, z)).
  const Eigen::Vector3i glo = (lo - h).cwiseMax(Eigen::Vector3i::Zero());
  const Eigen::Vector3i ghi = (hi + h).cwiseMin(d);
  const Eigen::Vector3i n = ghi - glo + Eigen::Vector3i::Ones();
  std::vector<uint32_t> S(static_cast<size_t>(n.cast<int64_t>().prod()), 0);
  auto s = [&](int x, int y, int z) -> uint32_t& {
    return S[(static_cast<size_t>(z) * n[1] + y) * static_cast<size_t>(n[0]) + x];
  };
  for (int z = 1; z < n[2]; ++z)
    for (int y = 1; y < n[1]; ++y) {
      uint32_t rowSum = 0;
      for (int x = 1; x < n[0]; ++x) {
        rowSum += img.value(glo[0] + x - 1, glo[1] + y - 1, glo[2] + z - 1) ? 1u : 0u;
        s(x, y, z) = rowSum + s(x, y - 1, z) + s(x, y, z - 1) - s(x, y - 1, z - 1);
      }
    }
  // The integral holds the unchanged image: writing into img below reads nothing back.
  const Eigen::Vector3i box = hi - lo;
  const long rows = static_cast<long>(box[1]) * box[2];
#pragma omp parallel for schedule(static) if (static_cast<long>(box.prod()) >= 32768)
  for (long r = 0; r < rows; ++r) {
    const int y = lo[1] + static_cast<int>(r % box[1]), z = lo[2] + static_cast<int>(r / box[1]);
    // Window [v - h, v + h] clipped to the image, in integral coordinates (exclusive high).
    const int y0 = std::max(y - h[1], 0) - glo[1], y1 = std::min(y + h[1] + 1, d[1]) - glo[1];
    const int z0 = std::max(z - h[2], 0) - glo[2], z1 = std::min(z + h[2] + 1, d[2]) - glo[2];
    for (int x = lo[0]; x < hi[0]; ++x) {
      const int x0 = std::max(x - h[0], 0) - glo[0], x1 = std::min(x + h[0] + 1, d[0]) - glo[0];
      const long count = static_cast<long>(s(x1, y1, z1)) - s(x0, y1, z1) - s(x1, y0, z1) - s(x1, y1, z0) +
                         s(x0, y0, z1) + s(x0, y1, z0) + s(x1, y0, z0) - s(x0, y0, z0);
      img.setValue(count > threshold ? 255 : 0, x, y, z);
    }
  }
}

// Background of the foreground's box that its outer faces cannot reach becomes foreground.
void fillHolesIn(U8Image& img) {
  Eigen::Vector3i lo, hi;
  if (!minimumBoundingBox(img, lo, hi)) return;
  const Eigen::Vector3i b = hi - lo;
  std::vector<unsigned char> reached(static_cast<size_t>(b.cast<int64_t>().prod()), 0);
  auto local = [&](const Eigen::Vector3i& p) {
    return (static_cast<size_t>(p[2]) * b[1] + p[1]) * static_cast<size_t>(b[0]) + p[0];
  };
  auto background = [&](const Eigen::Vector3i& p) { return img.value(lo[0] + p[0], lo[1] + p[1], lo[2] + p[2]) == 0; };
  // The box's faces along the axes the image extends in: a 2D image's box is a rectangle.
  const bool alongY = img.height() > 1, alongZ = img.slices() > 1;
  std::deque<Eigen::Vector3i> queue;
  for (int z = 0; z < b[2]; ++z)
    for (int y = 0; y < b[1]; ++y)
      for (int x = 0; x < b[0]; ++x) {
        const bool face = x == 0 || x == b[0] - 1 || (alongY && (y == 0 || y == b[1] - 1)) ||
                          (alongZ && (z == 0 || z == b[2] - 1));
        const Eigen::Vector3i p(x, y, z);
        if (face && background(p)) {
          reached[local(p)] = 1;
          queue.push_back(p);
        }
      }
  const int axes = img.slices() > 1 ? 3 : 2;  // four neighbours in a 2D image, six in a volume
  while (!queue.empty()) {
    const Eigen::Vector3i p = queue.front();
    queue.pop_front();
    for (int a = 0; a < axes; ++a)
      for (int step : {-1, 1}) {
        Eigen::Vector3i q = p;
        q[a] += step;
        if (q[a] < 0 || q[a] >= b[a]) continue;
        const size_t i = local(q);
        if (reached[i] || !background(q)) continue;
        reached[i] = 1;
        queue.push_back(q);
      }
  }
  for (int z = 0; z < b[2]; ++z)
    for (int y = 0; y < b[1]; ++y)
      for (int x = 0; x < b[0]; ++x) {
        const Eigen::Vector3i p(x, y, z);
        if (!reached[local(p)] && background(p)) img.setValue(255, lo[0] + x, lo[1] + y, lo[2] + z);
      }
}

}  // namespace

LabelMapRefinement::LabelMapRefinement(const SharedImageSet* image, SharedImageSet& labelMap)
    : image_(image), labelMap_(labelMap) {}

std::vector<int> LabelMapRefinement::morphoSteps(int size) {
  std::vector<int> steps;
  for (int left = size; left > 0; left -= kMaxMorphoStep) steps.push_back(std::min(left, kMaxMorphoStep));
  return steps;
}

void LabelMapRefinement::setMask(ExplicitMask* mask) {
  mask_ = nullptr;
  if (!mask) return;
  const SharedImage* focused = labelMap_.get();
  if (!focused || !mask->maskImageTyped().compatible(*focused->img(), true, true, true)) {
    LOG_WARN(kCategory, "The mask does not fit the label map; refinement goes on without a mask");
    return;
  }
  mask_ = mask;
}

bool LabelMapRefinement::setAffectedFrames(int first, int last) {
  if (first == -1) {
    first_ = -1;
    last_ = last;
    return true;
  }
  const int frames = labelMap_.size();
  if (first < 0 || first >= frames) {
    LOG_ERROR(kCategory, "Invalid frame range, firstFrame is outside of the frame range");
    return false;
  }
  if (last <= first) {
    LOG_ERROR(kCategory, "Invalid frame range, lastFrame must be bigger than firstFrame");
    return false;
  }
  if (last > frames) {
    LOG_ERROR(kCategory, "Invalid frame range, lastFrame is outside of the frame range");
    return false;
  }
  first_ = first;
  last_ = last;
  return true;
}

std::vector<int> LabelMapRefinement::frames() const {
  if (first_ == -1) return {std::max(0, labelMap_.resolve(-1))};
  std::vector<int> out;
  for (int f = first_; f < std::min(last_, labelMap_.size()); ++f) out.push_back(f);
  return out;
}

const unsigned char* LabelMapRefinement::maskFor(int frame) const {
  const SharedImage* target = labelMap_.get(frame);
  if (!mask_ || !target) return nullptr;
  const U8Image& m = mask_->maskImageTyped();
  if (m.channels() != 1 || !m.compatible(*target->img(), true, true, true)) {
    LOG_WARN(kCategory, "The mask does not fit frame " << frame << " of the label map; it is left out there");
    return nullptr;
  }
  return m.pointer();
}

// Writes the label where `foreground(i)` says so and clears it where the label was and no
// longer is, inside the mask and never on a locked label; returns the voxels changed.
template <typename Foreground>
size_t LabelMapRefinement::merge(unsigned char* out, size_t n, const unsigned char* mask, Foreground foreground) const {
  size_t changed = 0;
  for (size_t i = 0; i < n; ++i) {
    if (mask && !mask[i]) continue;
    const unsigned char current = out[i];
    if (lock_.locked(current)) continue;
    if (foreground(i)) {
      if (current != label_) {
        out[i] = label_;
        ++changed;
      }
    } else if (current == label_) {
      out[i] = 0;
      ++changed;
    }
  }
  return changed;
}

void LabelMapRefinement::runOnLabels(const Operation& op, unsigned char foregroundAbove) {
  changed_ = 0;
  for (int f : frames()) {
    SharedImage* frame = labelMap_.get(f);
    auto* labels = frame ? dynamic_cast<U8Image*>(labelMap_.mem(f)) : nullptr;
    if (!labels || labels->channels() != 1) {
      LOG_ERROR(kCategory, "Frame " << f << " of the label map is missing or not a one-channel U8 image; skipped");
      continue;
    }
    const unsigned char* mask = maskFor(f);
    const size_t n = labels->descriptor().pixelCount();
    const unsigned char* p = labels->pointer();
    auto work = U8Image::zeros(labels->descriptor());
    size_t count = 0;
    for (size_t i = 0; i < n; ++i)
      if (p[i] == label_) {
        work->pointer()[i] = 255;
        ++count;
      }
    if (count == 0) continue;
    SharedImageSet set(std::shared_ptr<Image>(std::move(work)));
    set.get()->setMatrix(frame->matrix());
    if (!op(set, f)) continue;
    const U8Image* result = typed(set);
    if (!result || result->dimensions() != labels->dimensions()) {
      LOG_ERROR(kCategory, "Frame " << f << ": the operation gave no usable result; skipped");
      continue;
    }
    const unsigned char* w = result->pointer();
    unsigned char* out = labels->pointer();
    const size_t changed = merge(out, n, mask, [&](size_t i) { return w[i] > foregroundAbove; });
    if (changed) frame->setDirtyMem();
    changed_ += changed;
  }
}

void LabelMapRefinement::smooth(int size, SmoothingMode mode) {
  if (mode == Median) {
    runOnLabels(
        [size](SharedImageSet& work, int) {
          U8Image* img = typed(work);
          if (!img) return false;
          medianFilter(*img, size);
          work.get()->setDirtyMem();
          return true;
        },
        128);
    return;
  }
  if (mode != Gaussian) {
    runOnLabels(
        [](SharedImageSet&, int) {
          LOG_ERROR(kCategory, "Invalid Smoothing mode");
          return false;
        },
        128);
    return;
  }
  // One filter for the whole call, made at the first frame, freed on the GL thread.
  std::unique_ptr<GlSmoothingFilter> filter;
  runOnLabels(
      [&](SharedImageSet& work, int frame) {
        if (!GL::Context::available()) {
          LOG_ERROR(kCategory, "Gaussian smoothing needs an OpenGL context; frame " << frame << " skipped");
          return false;
        }
        bool ok = false;
        GL::runOnGlThread([&] {
          // GlSmoothingFilter derives sigma from the kernel size (0.3 * (half - 1) + 0.8).
          if (!filter) filter = std::make_unique<GlSmoothingFilter>(2 * std::max(size, 0) + 1);
          GlImage* in = work.gl();
          if (!in) return;
          GlImage out(in->descriptor(), in->internalFormat());
          if (!filter->compute(*in, out)) return;
          ok = in->update(out);
          if (ok) work.get()->setDirtyGl();
        });
        if (!ok) LOG_ERROR(kCategory, "Gaussian smoothing failed on frame " << frame);
        return ok;
      },
      128);
  if (filter) GL::runOnGlThread([&] { filter.reset(); });
}

void LabelMapRefinement::fillHoles() {
  runOnLabels(
      [](SharedImageSet& work, int) {
        U8Image* img = typed(work);
        if (!img) return false;
        fillHolesIn(*img);
        work.get()->setDirtyMem();
        return true;
      },
      0);
}

void LabelMapRefinement::removeSmallComponents(std::optional<int> numComponents, std::optional<unsigned long> minSize) {
  runOnLabels(
      [&](SharedImageSet& work, int frame) {
        ConnectedComponentsAlgorithm components(&work);
        if (numComponents) components.setNumComponents(std::max(0, *numComponents));
        if (minSize) components.setMinSize(*minSize);
        components.setLabelComponents(false);
        components.compute();
        std::unique_ptr<SharedImageSet> kept = components.takeOutput().extractFirstImage();
        const MemImage* mem = kept && !kept->empty() ? kept->mem() : nullptr;
        U8Image* img = typed(work);
        if (!mem || !img || mem->byteSize() != img->byteSize()) {
          LOG_ERROR(kCategory, "Connected components gave no result for frame " << frame);
          return false;
        }
        std::memcpy(img->pointer(), mem->data(), img->byteSize());
        work.get()->setDirtyMem();
        return true;
      },
      0);
}

void LabelMapRefinement::morphoOp(bool dilate, int size) {
  changed_ = 0;
  if (size <= 0) return;
  runOnLabels(
      [&](SharedImageSet& work, int frame) {
        if (morphology(work, dilate, size)) return true;
        LOG_ERROR(kCategory, "The morphological operation failed on frame " << frame);
        return false;
      },
      0);
}

void LabelMapRefinement::imageBasedRefinement(int size) {
  changed_ = 0;
  if (!image_) {
    LOG_ERROR("LabelmapRefinement", "imageBaseRefinement can only be executed when an image is set");
    return;
  }
  const unsigned char background = backgroundSeedValue();
  for (int f : frames()) {
    SharedImage* frame = labelMap_.get(f);
    auto* labels = frame ? dynamic_cast<U8Image*>(labelMap_.mem(f)) : nullptr;
    if (!labels || labels->channels() != 1) {
      LOG_ERROR(kCategory, "Frame " << f << " of the label map is missing or not a one-channel U8 image; skipped");
      continue;
    }
    std::shared_ptr<SharedImage> imageFrame = image_->getShared(f);
    if (!imageFrame || imageFrame->descriptor().dimensions != labels->dimensions()) {
      LOG_ERROR(kCategory, "Frame " << f << ": the image has no frame of the label map's size; skipped");
      continue;
    }
    // 1. Seeds: the label, and everything else as background.
    const size_t n = labels->descriptor().pixelCount();
    const unsigned char* p = labels->pointer();
    auto foregroundSeeds = U8Image::zeros(labels->descriptor());
    auto backgroundSeeds = U8Image::zeros(labels->descriptor());
    size_t count = 0;
    for (size_t i = 0; i < n; ++i) {
      if (p[i] == label_) {
        foregroundSeeds->pointer()[i] = label_;
        ++count;
      } else {
        backgroundSeeds->pointer()[i] = background;
      }
    }
    if (count == 0) continue;
    // 2. Both eroded by `size`, which leaves a band of unknown voxels round the old border.
    SharedImageSet fg(std::shared_ptr<Image>(std::move(foregroundSeeds)));
    SharedImageSet bg(std::shared_ptr<Image>(std::move(backgroundSeeds)));
    if (!morphology(fg, false, size) || !morphology(bg, false, size)) {
      LOG_ERROR(kCategory, "Eroding the seeds failed on frame " << f);
      continue;
    }
    // 3. One seed image; background wins where both are set.
    U8Image* seeds = typed(fg);
    const unsigned char* b = typed(bg)->pointer();
    for (size_t i = 0; i < n; ++i)
      if (b[i]) seeds->pointer()[i] = b[i];
    fg.get()->setDirtyMem();
    fg.get()->setMatrix(frame->matrix());
    fg.setModality(Data::LABEL);
    // 4. The watershed of the image's frame from the seeds, in place.
    SharedImageSet source(imageFrame);
    if (const auto* display = image_->components().get<DisplayOptions2d>())
      source.components().add(std::make_unique<DisplayOptions2d>(*display));
    WatershedSegmentationAlgorithm watershed(&source, &fg);
    watershed.createNewLabels = false;
    watershed.compute();
    const U8Image* result = typed(fg);
    if (watershed.status() != Algorithm::statusSuccess || !result) {
      LOG_ERROR(kCategory, "The watershed failed on frame " << f << "; skipped");
      continue;
    }
    // 5. Merge under the mask and the locks.
    const unsigned char* mask = maskFor(f);
    const unsigned char* w = result->pointer();
    unsigned char* out = labels->pointer();
    const size_t changed = merge(out, n, mask, [&](size_t i) { return w[i] == label_; });
    if (changed) frame->setDirtyMem();
    changed_ += changed;
  }
}

}  // namespace Merivane::Seg
