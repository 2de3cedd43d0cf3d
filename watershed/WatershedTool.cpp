#include "WatershedTool.h"

#include <QObject>

#include <algorithm>
#include <cmath>
#include <vector>

#include "GuiView.h"
#include "Image.h"
#include "ImageComponents.h"
#include "ImageProcessing.h"
#include "LabelDataComponent.h"
#include "LabelMap.h"
#include "Log.h"
#include "Mask.h"
#include "Progress.h"
#include "SharedImageSet.h"
#include "Watershed.h"
#include "WatershedComputer.h"
#include "WatershedOverlay.h"

namespace Merivane::Seg {

namespace {

constexpr const char* kCategory = "WatershedTool";
using U8Image = TypedImage<unsigned char>;

std::unique_ptr<U8Image> asU8(std::unique_ptr<MemImage> image) {
  if (auto* typed = dynamic_cast<U8Image*>(image.get())) {
    image.release();
    return std::unique_ptr<U8Image>(typed);
  }
  return nullptr;
}

// Mean of each f x f x f block (clipped at the far border), one channel.
std::unique_ptr<U8Image> reduceMean(const U8Image& in, int f) {
  const Eigen::Vector3i d = in.descriptor().dimensions;
  const Eigen::Vector3i r((d[0] + f - 1) / f, (d[1] + f - 1) / f, (d[2] + f - 1) / f);
  auto out = U8Image::zeros(r);
  const unsigned char* src = in.pointer();
  unsigned char* dst = out->pointer();
  const int channels = in.descriptor().channels;
#pragma omp parallel for schedule(static)
  for (int z = 0; z < r[2]; ++z)
    for (int y = 0; y < r[1]; ++y)
      for (int x = 0; x < r[0]; ++x) {
        unsigned sum = 0, count = 0;
        for (int k = z * f; k < std::min(d[2], z * f + f); ++k)
          for (int j = y * f; j < std::min(d[1], y * f + f); ++j)
            for (int i = x * f; i < std::min(d[0], x * f + f); ++i, ++count)
              sum += src[((static_cast<size_t>(k) * d[1] + j) * d[0] + i) * channels];
        dst[(static_cast<size_t>(z) * r[1] + y) * r[0] + x] = static_cast<unsigned char>((sum + count / 2) / count);
      }
  return out;
}

// The first seed of each f x f x f block in scan order, of the seeds that `keep` lets through:
// a thin stroke survives the reduction.
template <typename Keep>
std::unique_ptr<U8Image> reduceSeeds(const U8Image& in, int f, Keep keep) {
  const Eigen::Vector3i d = in.descriptor().dimensions;
  const Eigen::Vector3i r((d[0] + f - 1) / f, (d[1] + f - 1) / f, (d[2] + f - 1) / f);
  auto out = U8Image::zeros(r);
  const unsigned char* src = in.pointer();
  unsigned char* dst = out->pointer();
#pragma omp parallel for schedule(static)
  for (int z = 0; z < r[2]; ++z)
    for (int k = z * f; k < std::min(d[2], z * f + f); ++k)
      for (int j = 0; j < d[1]; ++j) {
        const size_t rowStart = (static_cast<size_t>(k) * d[1] + j) * d[0];
        unsigned char* target = dst + (static_cast<size_t>(z) * r[1] + j / f) * r[0];
        for (int i = 0; i < d[0]; ++i) {
          const unsigned char v = src[rowStart + i];
          if (v != 0 && v < 254 && target[i / f] == 0 && keep(rowStart + i, v)) target[i / f] = v;
        }
      }
  return out;
}

// HSL lightness lowered by shift * l / 2, hue and saturation kept.
Eigen::Vector3f darker(const Eigen::Vector3f& rgb, float shift) {
  const float mx = rgb.maxCoeff(), mn = rgb.minCoeff();
  const float l = (mx + mn) * 0.5f;
  float h = 0, s = 0;
  if (mx > mn) {
    const float c = mx - mn;
    s = c / (1.0f - std::abs(2.0f * l - 1.0f));
    if (mx == rgb[0])
      h = std::fmod((rgb[1] - rgb[2]) / c + 6.0f, 6.0f);
    else if (mx == rgb[1])
      h = (rgb[2] - rgb[0]) / c + 2.0f;
    else
      h = (rgb[0] - rgb[1]) / c + 4.0f;
  }
  const float l2 = std::clamp(l - shift * l * 0.5f, 0.0f, 1.0f);
  const float c = (1.0f - std::abs(2.0f * l2 - 1.0f)) * std::min(s, 1.0f);
  const float x = c * (1.0f - std::abs(std::fmod(h, 2.0f) - 1.0f));
  Eigen::Vector3f out;
  switch (static_cast<int>(h) % 6) {
    case 0: out = {c, x, 0}; break;
    case 1: out = {x, c, 0}; break;
    case 2: out = {0, c, x}; break;
    case 3: out = {0, x, c}; break;
    case 4: out = {x, 0, c}; break;
    default: out = {c, 0, x}; break;
  }
  return (out.array() + (l2 - c * 0.5f)).cwiseMax(0.0f).cwiseMin(1.0f);
}

}  // namespace

WatershedTool::WatershedTool(const SharedImageSet& image, SharedImageSet& seeds, DisplayWidgetMultiAdapter& views)
    : image_(image),
      seeds_(seeds),
      views_(views),
      computer_(std::make_unique<WatershedComputer>()),
      previewComputer_(std::make_unique<WatershedComputer>()),
      overlay_(std::make_unique<WatershedOverlay>(*this)),
      guiContext_(std::make_unique<QObject>()) {
  // One seed colour would flood everything with it: stop with CheckFailed instead.
  const auto check = [](const U8Image&, const U8Image& s) { return Watershed::seedsValid(s) ? 0 : 1; };
  computer_->setCheckFunction(check);
  previewComputer_->setCheckFunction(check);
  computer_->stopped.connect(this, [this](WatershedComputer::StopReason r, int) {
    onStopped(false, static_cast<int>(r));
  });
  previewComputer_->stopped.connect(this, [this](WatershedComputer::StopReason r, int) {
    onStopped(true, static_cast<int>(r));
  });
  seeds_.contentChanged.connect(this, [this](int frame) {
    if (enabled_ && !applying_ && frame == seeds_.resolve(-1)) startComputation();
  });
  if (auto* ldc = seeds_.components().get<LabelDataComponent>())
    ldc->changed.connect(this, [this] { recomputePreviewColors(); });
  recomputePreviewColors();
}

WatershedTool::~WatershedTool() {
  disable();
  // The computers' workers end before the tool's members go; posted results die with the
  // context.
  // The quick look's worker starts full runs: it goes first.
  previewComputer_.reset();
  computer_.reset();
  guiContext_.reset();
}

void WatershedTool::enable() {
  if (enabled_) return;
  for (GUI::View* v : views_.views())
    if (v && v->sliceView()) v->view().addObject(overlay_.get());
  enabled_ = true;
  views_.update();
}

void WatershedTool::disable() {
  // The views must never keep a pointer to the overlay.
  for (GUI::View* v : views_.views())
    if (v) v->view().removeObject(overlay_.get());
  if (!enabled_) return;
  enabled_ = false;
  views_.update();
}

void WatershedTool::setMask(ExplicitMask* mask) { mask_ = mask; }

void WatershedTool::setLocking(unsigned char label, bool locked) { locks_.setLocked(label, locked); }

void WatershedTool::setUseWindowLevel(bool use) {
  if (use != useWindowLevel_) sourceCurrent_ = false;
  useWindowLevel_ = use;
}

void WatershedTool::setInputSmoothing(int size) {
  size = std::max(0, size);
  if (size != smoothing_) sourceCurrent_ = false;
  smoothing_ = size;
}

void WatershedTool::setCropRegion(const Eigen::Vector3i& min, const Eigen::Vector3i& max) {
  const Eigen::Vector3i lo = min.cwiseMin(max), hi = min.cwiseMax(max);
  if (lo != cropMin_ || hi != cropMax_) sourceCurrent_ = false;
  cropMin_ = lo;
  cropMax_ = hi;
}

void WatershedTool::setROI(const Eigen::Vector3i& min, const Eigen::Vector3i& max) {
  roiMin_ = min;
  roiMax_ = max;
  computer_->setROI(min, max);
}

void WatershedTool::setPreviewLightnessShift(float shift) {
  lightnessShift_ = std::clamp(shift, 0.0f, 1.0f);
  recomputePreviewColors();
}

void WatershedTool::setPreviewOpacity(float opacity) {
  opacity_ = std::clamp(opacity, 0.0f, 1.0f);
  if (enabled_) views_.update();
}

bool WatershedTool::cropping() const {
  const SharedImage* frame = image_.get(-1);
  if (!frame || cropMin_ == cropMax_) return false;
  const Eigen::Vector3i d = frame->descriptor().dimensions;
  return cropMin_ != Eigen::Vector3i::Zero() || cropMax_ != (d - Eigen::Vector3i::Ones()).eval();
}

bool WatershedTool::sourceStale() const {
  if (!sourceCurrent_ || sourceFrame_ != image_.resolve(-1)) return true;
  if (useWindowLevel_)
    if (const auto* display = image_.components().get<DisplayOptions2d>())
      return display->window != sourceWindow_ || display->level != sourceLevel_;
  return false;
}

void WatershedTool::refreshInputOutput() {
  const SharedImage* frame = image_.get(-1);
  const SharedImage* seedFrame = seeds_.get(-1);
  if (!frame || !seedFrame) return;
  const bool crop = cropping();
  const Eigen::Vector3i dims = frame->descriptor().dimensions;
  const Eigen::Vector3i lo = crop ? cropMin_.cwiseMax(0).cwiseMin(dims - Eigen::Vector3i::Ones()).eval()
                                  : Eigen::Vector3i::Zero().eval();
  const Eigen::Vector3i hi = crop ? cropMax_.cwiseMax(0).cwiseMin(dims - Eigen::Vector3i::Ones()).eval()
                                  : (dims - Eigen::Vector3i::Ones()).eval();
  const Eigen::Vector3i size = hi - lo + Eigen::Vector3i::Ones();
  const long long voxels = static_cast<long long>(size[0]) * size[1] * size[2];
  int factor = 1;
  if (voxels > quickLookVoxels_)
    factor = std::max(2, static_cast<int>(std::ceil(std::cbrt(static_cast<double>(voxels) / kPreviewTarget))));
  previewFactor_ = factor;

  if (sourceStale()) {
    sourceCurrent_ = true;
    sourceFrame_ = image_.resolve(-1);
    double window = 1.0, level = 0.5;
    if (useWindowLevel_) {
      auto* display = const_cast<SharedImageSet&>(image_).components().get<DisplayOptions2d>();
      if (!display) {
        display = const_cast<SharedImageSet&>(image_).components().getOrCreate<DisplayOptions2d>();
        std::tie(display->window, display->level) = Watershed::rangeWindowLevel(*frame->mem());
      }
      window = display->window;
      level = display->level;
    } else {
      std::tie(window, level) = Watershed::rangeWindowLevel(*frame->mem());
    }
    sourceWindow_ = window;
    sourceLevel_ = level;
    // The worker gets a copy of the frame, so that it never reads the user's data.
    std::shared_ptr<const MemImage> copy = frame->mem()->clone();
    const Eigen::Vector3d spacing = frame->descriptor().spacing;
    const int smoothing = smoothing_;
    auto makeSource = [copy, window, level, crop, lo, size, spacing, smoothing](Progress*) -> std::unique_ptr<U8Image> {
      auto source = Watershed::quantizeAndBakeWindowLevel(*copy, window, level);
      if (!source) return nullptr;
      if (crop) source = asU8(ImageProcessing::createCropped(*source, lo, size));
      if (source && smoothing >= 1) {
        const bool volume = source->descriptor().dimensions[2] > 1;
        const double mean = volume ? spacing.sum() / 3.0 : (spacing[0] + spacing[1]) / 2.0;
        Eigen::Vector3i k;
        for (int a = 0; a < 3; ++a) {
          int n = static_cast<int>(mean / spacing[a] * smoothing);
          if (n % 2 == 0) ++n;
          k[a] = std::max(3, n);
        }
        if (!volume) k[2] = 1;
        auto input = source->cloneTyped();
        Filters::boxFilter3d(input.get(), source.get(), k[0], k[1], k[2]);
      }
      return source;
    };
    computer_->setSourceFunc(makeSource);
    if (factor > 1)
      previewComputer_->setSourceFunc([makeSource, factor](Progress* p) -> std::unique_ptr<U8Image> {
        auto full = makeSource(p);
        return full ? reduceMean(*full, factor) : nullptr;
      });
  }

  // Seeds: a copy of the focused seed frame, cropped, without locked labels, cut by the mask.
  const auto* seedImage = dynamic_cast<const U8Image*>(seedFrame->mem());
  if (!seedImage || seedFrame->descriptor().dimensions != dims) {
    LOG_ERROR(kCategory, "The seed map does not fit the image: " << seedFrame->descriptor().dimensions.transpose()
                                                                 << " voxels against " << dims.transpose());
    computer_->setSeedsFunc([](Progress*) { return nullptr; });
    return;
  }
  std::shared_ptr<const U8Image> seedCopy = seedImage->cloneTyped();
  std::shared_ptr<const U8Image> maskCopy;
  if (mask_ && mask_->maskImageTyped().descriptor().dimensions == dims) maskCopy = mask_->maskImageTyped().cloneTyped();
  const LabelLock locks = locks_;
  const bool anyLocked = std::any_of(locks.flags().begin(), locks.flags().end(), [](uint32_t w) { return w != 0; });
  auto makeSeeds = [seedCopy, maskCopy, locks, anyLocked, crop, lo, size](Progress*) -> std::unique_ptr<U8Image> {
    std::unique_ptr<U8Image> seeds = seedCopy->cloneTyped();
    if (anyLocked || maskCopy) {
      unsigned char* s = seeds->pointer();
      const unsigned char* m = maskCopy ? maskCopy->pointer() : nullptr;
      const size_t n = seeds->descriptor().pixelCount();
      for (size_t i = 0; i < n; ++i)
        if ((anyLocked && locks.locked(s[i])) || (m && m[i] == 0)) s[i] = 0;
    }
    if (crop) seeds = asU8(ImageProcessing::createCropped(*seeds, lo, size));
    return seeds;
  };
  // The request a run serves is the one whose seeds it took.
  const int generation = generation_.load();
  computer_->setSeedsFunc([this, makeSeeds, generation](Progress* p) {
    fullServing_.store(generation);
    return makeSeeds(p);
  });
  // The result is cut by the mask too.
  computer_->setPostProcess([maskCopy, crop, lo, size](std::unique_ptr<U8Image>& result) {
    if (!maskCopy) return true;
    auto m = crop ? asU8(ImageProcessing::createCropped(*maskCopy, lo, size)) : maskCopy->cloneTyped();
    if (!m) return false;
    unsigned char* r = result->pointer();
    const unsigned char* mp = m->pointer();
    for (size_t i = 0, n = result->descriptor().pixelCount(); i < n; ++i)
      if (mp[i] == 0) r[i] = 0;
    return true;
  });
  if (factor > 1) {
    // Reduced straight from the copy, leaving out locked and masked seeds on the way.
    previewComputer_->setSeedsFunc([this, seedCopy, maskCopy, locks, anyLocked, crop, lo, size, factor,
                                    generation](Progress*) -> std::unique_ptr<U8Image> {
      previewServing_.store(generation);
      const unsigned char* m = maskCopy ? maskCopy->pointer() : nullptr;
      const auto keep = [&](size_t i, unsigned char v) { return !(anyLocked && locks.locked(v)) && !(m && m[i] == 0); };
      if (!crop) return reduceSeeds(*seedCopy, factor, keep);
      auto cropped = asU8(ImageProcessing::createCropped(*seedCopy, lo, size));
      auto croppedMask = maskCopy ? asU8(ImageProcessing::createCropped(*maskCopy, lo, size)) : nullptr;
      if (!cropped) return nullptr;
      const unsigned char* cm = croppedMask ? croppedMask->pointer() : nullptr;
      return reduceSeeds(*cropped, factor, [&](size_t i, unsigned char v) {
        return !(anyLocked && locks.locked(v)) && !(cm && cm[i] == 0);
      });
    });
  }
}

void WatershedTool::startComputation() {
  ++generation_;
  refreshInputOutput();
  // With a quick look, the full run waits for it, so that the quick look has both cores.
  if (previewFactor_ > 1) {
    fullStartPending_.store(true);
    previewComputer_->start(false);
  } else {
    computer_->start(false);
  }
}

void WatershedTool::abortComputation(bool wait) {
  computer_->cancel(wait);
  previewComputer_->cancel(wait);
}

bool WatershedTool::isIdle() const {
  return computer_->state() != WatershedComputer::State::Running &&
         previewComputer_->state() != WatershedComputer::State::Running;
}

void WatershedTool::onStopped(bool preview, int reason) {
  // Worker thread: take the result under the mutex and leave the rest to the GUI thread.
  if (preview && fullStartPending_.exchange(false)) computer_->start(false);
  if (static_cast<StopReason>(reason) == StopReason::Finished) {
    std::lock_guard lock(tempMutex_);
    if (auto r = (preview ? previewComputer_ : computer_)->getResult(false)) {
      Temp& t = preview ? tempPreview_ : tempFull_;
      t.image = std::move(r);
      t.generation = (preview ? previewServing_ : fullServing_).load();
    }
  }
  QMetaObject::invokeMethod(guiContext_.get(), [this, preview, reason] {
    const auto why = static_cast<StopReason>(reason);
    if (why == StopReason::Finished) moveTempToResult();
    if (!preview) stopped.emitSignal(why);
  }, Qt::QueuedConnection);
}

void WatershedTool::moveTempToResult() {
  Temp full, quick;
  {
    std::lock_guard lock(tempMutex_);
    full = std::move(tempFull_);
    quick = std::move(tempPreview_);
    tempFull_ = {};
    tempPreview_ = {};
  }
  const SharedImage* frame = image_.get(-1);
  if (!frame) return;
  // The newest request wins, the full result on a tie; nothing replaces what is shown by an
  // older request's result, nor a full result by a quick look of the same request.
  const bool fullNew = full.image && (full.generation > shownGeneration_ ||
                                      (full.generation == shownGeneration_ && (!result_ || resultIsPreview_)));
  const bool quickNew = quick.image && quick.generation > shownGeneration_ && (!fullNew || quick.generation > full.generation);
  if (!fullNew && !quickNew) return;
  const bool isPreview = quickNew;
  Temp& chosen = isPreview ? quick : full;
  shownGeneration_ = chosen.generation;
  // The result sits where its voxels lie in the frame: offset by the crop box, and scaled by
  // the reduction of a quick look.
  const Eigen::Vector3i lo = cropping() ? cropMin_ : Eigen::Vector3i::Zero();
  const double f = isPreview ? previewFactor_ : 1.0;
  auto sharedFrame = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(chosen.image)));
  sharedFrame->setSpacing(frame->descriptor().spacing * f);
  // Centred image coordinates: the result's centre goes where it lies in the frame.
  const Eigen::Vector3i rd = sharedFrame->descriptor().dimensions;
  const Eigen::Vector3d centrePixel = lo.cast<double>() + (rd.cast<double>() * f - Eigen::Vector3d::Ones()) * 0.5;
  const Eigen::Vector3d frameCentre = (frame->descriptor().dimensions.cast<double>() - Eigen::Vector3d::Ones()) * 0.5;
  Eigen::Matrix4d m = frame->matrix();
  m.block<3, 1>(0, 3) += frame->pixelToWorld(centrePixel) - frame->pixelToWorld(frameCentre);
  sharedFrame->setMatrix(m);
  sharedFrame->setModality(Data::LABEL);
  result_ = std::make_unique<SharedImageSet>(sharedFrame);
  result_->setModality(Data::LABEL);
  resultIsPreview_ = isPreview;
  if (enabled_) views_.update();
  resultShown.emitSignal(!isPreview);
}

bool WatershedTool::applyResult() {
  // Wait for a run still under way; its result is the one that fits the seeds as they are.
  // A full run that waits for its quick look starts now.
  previewComputer_->cancel(false);
  if (fullStartPending_.exchange(false)) computer_->start(false);
  {
    auto r = computer_->getResult(true);
    std::lock_guard lock(tempMutex_);
    if (r) {
      tempFull_.image = std::move(r);
      tempFull_.generation = fullServing_.load();
    }
  }
  previewComputer_->cancel(true);
  {
    std::lock_guard lock(tempMutex_);
    tempPreview_ = {};
  }
  moveTempToResult();
  if (!result_ || resultIsPreview_) {
    LOG_WARN(kCategory, "There is no watershed result to apply");
    return false;
  }
  SharedImage* target = seeds_.get(-1);
  auto* labels = target ? dynamic_cast<U8Image*>(target->mem()) : nullptr;
  const auto* result = dynamic_cast<const U8Image*>(result_->mem(0));
  if (!labels || !result) return false;
  const Eigen::Vector3i d = labels->descriptor().dimensions;
  const Eigen::Vector3i rd = result->descriptor().dimensions;
  const Eigen::Vector3i lo = cropping() ? cropMin_ : Eigen::Vector3i::Zero();
  const unsigned char* mask =
      mask_ && mask_->maskImageTyped().descriptor().dimensions == d ? mask_->maskImageTyped().pointer() : nullptr;
  unsigned char* out = labels->pointer();
  const unsigned char* in = result->pointer();
  const bool crop = cropping();
#pragma omp parallel for schedule(static)
  for (int z = 0; z < d[2]; ++z)
    for (int y = 0; y < d[1]; ++y)
      for (int x = 0; x < d[0]; ++x) {
        const size_t i = (static_cast<size_t>(z) * d[1] + y) * d[0] + x;
        if (mask && mask[i] == 0) continue;
        const Eigen::Vector3i p = Eigen::Vector3i(x, y, z) - lo;
        const bool inside = (p.array() >= 0).all() && (p.array() < rd.array()).all();
        if (inside)
          out[i] = in[(static_cast<size_t>(p[2]) * rd[1] + p[1]) * rd[0] + p[0]];
        else if (crop)
          out[i] = 0;
      }
  target->setDirtyMem();
  discardResult();
  // Other listeners learn of the change; the seeds now equal the result, so no new run.
  applying_ = true;
  seeds_.contentChanged.emitSignal(seeds_.resolve(-1));
  applying_ = false;
  return true;
}

void WatershedTool::discardResult() {
  {
    std::lock_guard lock(tempMutex_);
    tempFull_ = {};
    tempPreview_ = {};
  }
  result_.reset();
  resultIsPreview_ = false;
  if (enabled_) views_.update();
}

void WatershedTool::removeSeedsFromLabelMap(int label) {
  SharedImage* frame = seeds_.get(-1);
  auto* labels = frame ? dynamic_cast<U8Image*>(frame->mem()) : nullptr;
  if (!labels) return;
  unsigned char* p = labels->pointer();
  for (size_t i = 0, n = labels->descriptor().pixelCount(); i < n; ++i)
    if (p[i] == label) p[i] = 0;
  frame->setDirtyMem();
  seeds_.contentChanged.emitSignal(seeds_.resolve(-1));
}

unsigned char WatershedTool::backgroundLabel() const {
  int label = 2;
  seeds_.properties().param("backgroundLabel", label);
  return static_cast<unsigned char>(std::clamp(label, 1, 253));
}

void WatershedTool::setBackgroundSeeds(SharedImageSet& labels, Progress* progress) {
  SharedImage* frame = seeds_.get(-1);
  const SharedImage* given = labels.get(-1);
  auto* seedImage = frame ? dynamic_cast<U8Image*>(frame->mem()) : nullptr;
  const auto* background = given ? dynamic_cast<const U8Image*>(given->mem()) : nullptr;
  const bool equal = frame && given && frame->descriptor().isApprox(given->descriptor());
  const bool compatible = equal || isCompatibleLabelMap(seeds_, labels, true) == LabelMapCompatibility::Compatible;
  if (!seedImage || !background || !compatible ||
      background->descriptor().dimensions != seedImage->descriptor().dimensions) {
    LOG_ERROR(kCategory, "Cannot set background seeds from incompatible label map");
    return;
  }
  Progress::Task busy;
  if (progress) busy = progress->addBusyIndicator("Converting Background Seeds.");
  const unsigned char value = backgroundLabel();
  unsigned char* s = seedImage->pointer();
  const unsigned char* b = background->pointer();
  const auto n = static_cast<ptrdiff_t>(seedImage->descriptor().pixelCount());
#pragma omp parallel for schedule(static)
  for (ptrdiff_t i = 0; i < n; ++i)
    if (b[i] != 0) s[i] = value;
  frame->setDirtyMem();
  seeds_.contentChanged.emitSignal(seeds_.resolve(-1));
}

void WatershedTool::recomputePreviewColors() {
  auto* ldc = seeds_.components().getOrCreate<LabelDataComponent>(&seeds_);
  std::vector<Eigen::Vector3f> colors(256, Eigen::Vector3f::Zero());
  for (int v = 1; v < 256; ++v) {
    const auto config = ldc->labelConfig(v);
    const Eigen::Vector4d c = config ? config->color : LabelDataComponent::defaultLabelConfig(v).color;
    colors[static_cast<size_t>(v)] = darker(c.head<3>().cast<float>(), lightnessShift_);
  }
  overlay_->setColors(colors);
  if (enabled_) views_.update();
}

}  // namespace Merivane::Seg
