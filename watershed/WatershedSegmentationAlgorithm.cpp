#include "WatershedSegmentationAlgorithm.h"

#include <algorithm>
#include <atomic>
#include <exception>

#include "ImageComponents.h"
#include "LabelMap.h"
#include "Log.h"
#include "SharedImageSet.h"
#include "Watershed.h"
#include "WatershedComputer.h"

namespace Merivane {

namespace {
constexpr const char* kCategory = "Seg.WatershedSegmentationAlgorithm";

// Window and level from the display options, else spanning the frame's stored range.
std::pair<double, double> windowLevel(const SharedImageSet& set, const MemImage& frame) {
  if (const auto* display = set.components().get<DisplayOptions2d>()) return {display->window, display->level};
  return Watershed::rangeWindowLevel(frame);
}

// A function that hands out `image` once, without copying it.
WatershedComputer::ImageFunc handOver(std::unique_ptr<TypedImage<unsigned char>> image) {
  auto holder = std::make_shared<std::unique_ptr<TypedImage<unsigned char>>>(std::move(image));
  return [holder](Progress*) { return std::move(*holder); };
}

const char* reasonText(int reason) {
  switch (static_cast<WatershedComputer::StopReason>(reason)) {
    case WatershedComputer::StopReason::NoSource: return "no source image";
    case WatershedComputer::StopReason::NoSeeds: return "no seeds";
    case WatershedComputer::StopReason::Incompatible: return "image and label map do not match";
    case WatershedComputer::StopReason::CheckFailed: return "check failed";
    case WatershedComputer::StopReason::Cancelled: return "cancelled";
    case WatershedComputer::StopReason::PostProcessFailed: return "post-processing failed";
    case WatershedComputer::StopReason::Finished: return "finished without a result";
  }
  return "stopped for an unknown reason";
}
}  // namespace

WatershedSegmentationAlgorithm::WatershedSegmentationAlgorithm(SharedImageSet* image, SharedImageSet* labelMap)
    : image_(image), labelMap_(labelMap) {}

WatershedSegmentationAlgorithm::~WatershedSegmentationAlgorithm() = default;

bool WatershedSegmentationAlgorithm::createCompatible(const DataList& data, Algorithm** algorithm) {
  const auto sets = data.getImages();
  if (data.size() != 2 || sets.size() != 2) return false;
  SharedImageSet* image = sets[0];
  SharedImageSet* labels = sets[1];
  if (image->size() == 0 || image->size() != labels->size()) return false;
  for (int i = 0; i < image->size(); ++i) {
    const Image* a = image->img(i);
    const Image* b = labels->img(i);
    if (!a || !b || b->type() != U8 || !a->compatible(*b, true, false, true)) return false;
  }
  if (algorithm) *algorithm = new WatershedSegmentationAlgorithm(image, labels);
  return true;
}

void WatershedSegmentationAlgorithm::compute() {
  setStatus(statusUnknown);
  output_.reset();
  try {
    computeFocused();
  } catch (const std::exception& e) {
    LOG_ERROR(kCategory, "Watershed segmentation failed: " << e.what());
    setStatus(statusError);
  } catch (...) {
    LOG_ERROR(kCategory, "Watershed segmentation failed with an unknown exception");
    setStatus(statusError);
  }
}

void WatershedSegmentationAlgorithm::computeFocused() {
  if (!validateParameters(kCategory)) return;
  if (!image_ || !labelMap_) {
    LOG_ERROR(kCategory, "Image or label map missing");
    setStatus(statusInvalidInput);
    return;
  }
  const int focus = image_->selection().focus();
  const MemImage* frame = image_->mem(focus);
  if (!frame) {
    LOG_ERROR(kCategory, "Image has no frame " << focus);
    setStatus(statusInvalidInput);
    return;
  }
  const auto [window, level] = windowLevel(*image_, *frame);
  std::unique_ptr<TypedImage<unsigned char>> source = Watershed::quantizeAndBakeWindowLevel(*frame, window, level);
  if (!source) {
    LOG_ERROR(kCategory, "Image of pixel type " << pixelTypeName(frame->type()) << " cannot be quantised");
    setStatus(statusInvalidInput);
    return;
  }
  auto* seeds = dynamic_cast<TypedImage<unsigned char>*>(labelMap_->mem(focus));
  if (!seeds) {
    LOG_ERROR(kCategory, "Label map has no U8 frame " << focus);
    setStatus(statusInvalidInput);
    return;
  }
  if (!Seg::overlapsInWorld(*image_->get(focus), *labelMap_->get(focus))) {
    LOG_ERROR(kCategory, "The label map lies outside the image in world space: "
                             << Seg::describeWorldExtents(*image_->get(focus), *labelMap_->get(focus)));
    setStatus(statusInvalidInput);
    return;
  }
  // Without a marker the flooding would end with every voxel at 0.
  const unsigned char* s = seeds->pointer();
  const size_t n = seeds->descriptor().elementCount();
  if (std::none_of(s, s + n, [](unsigned char v) { return v >= 1 && v <= 253; })) {
    LOG_ERROR(kCategory, "The label map holds no marker (a label from 1 to 253) to flood from");
    setStatus(statusInvalidInput);
    return;
  }

  std::atomic<int> reason{-1};
  std::unique_ptr<TypedImage<unsigned char>> result;
  {
    WatershedComputer computer(progress_);
    computer.stopped.connect([&reason](WatershedComputer::StopReason r, int) { reason = static_cast<int>(r); });
    // The computer's tasks see a cancel of ours only when they start; this passes one on mid-run.
    computer.progressChanged.connect([this, &computer](int, int) {
      if (progress_ && progress_->isCanceled()) computer.cancel(false);
    });
    computer.setSourceFunc(handOver(std::move(source)));
    computer.setSeedsFunc(handOver(seeds->cloneTyped()));
    computer.start(true);
    result = computer.getResult(true);
  }  // joined: `stopped` has been told
  if (!result) {
    LOG_ERROR(kCategory, "Watershed gave no result: " << reasonText(reason.load()));
    return;
  }

  if (!createNewLabels) {
    labelMap_->get(focus)->update(*result);
    setStatus(statusSuccess);
    signalOutputChanged.emitSignal();
    return;
  }
  std::unique_ptr<SharedImageSet> labels = labelMap_->clone();
  labels->get(focus)->update(*result);
  output_ = std::move(labels);
  setStatus(statusSuccess);
}

OwningDataList WatershedSegmentationAlgorithm::takeOutput() {
  OwningDataList out;
  if (output_) out.add(std::move(output_));
  return out;
}

}  // namespace Merivane
