#include "InteractiveSegmentationWatershedAlgorithm.h"

#include "ImageProcessing.h"
#include "Log.h"
#include "SharedImageSet.h"
#include "WatershedSegmentationAlgorithm.h"

namespace Merivane {

namespace {
constexpr const char* kCategory = "Seg.InteractiveSegmentationWatershedAlgorithm";
}

InteractiveSegmentationWatershedAlgorithm::InteractiveSegmentationWatershedAlgorithm(SharedImageSet& image,
                                                                                     SharedImageSet* labels,
                                                                                     SharedImageSet* priors)
    : InteractiveSegmentationAlgorithm(image, labels, priors) {}

InteractiveSegmentationWatershedAlgorithm::~InteractiveSegmentationWatershedAlgorithm() = default;

bool InteractiveSegmentationWatershedAlgorithm::createCompatible(const DataList& data, Algorithm** algorithm) {
  SharedImageSet *image = nullptr, *labels = nullptr;
  if (!compatibleInputs(data, image, labels)) return false;
  if (algorithm) *algorithm = new InteractiveSegmentationWatershedAlgorithm(*image, labels, nullptr);
  return true;
}

void InteractiveSegmentationWatershedAlgorithm::compute() {
  if (!labels_) {
    LOG_WARN(kCategory, "No label map: paint seeds into one, or give one with the image");
    return;
  }
  Progress::Task task(progress_, 100, "Computing...");
  prepareForComputation();
  const int i = focus();
  if (!checkInputs(i)) return;

  WatershedSegmentationAlgorithm watershed(images_, labels_);
  watershed.createNewLabels = true;
  watershed.setProgress(progress_);
  watershed.compute();
  std::unique_ptr<SharedImageSet> flooded = watershed.takeOutput().extractFirstImage();
  const auto* result = flooded ? dynamic_cast<const TypedImage<unsigned char>*>(flooded->mem(i)) : nullptr;
  if (!result) {
    // The watershed has said why in its own line.
    setStatus(watershed.status() > 0 ? watershed.status() : statusError);
    return;
  }
  task.setCurrentStep(70);

  SharedImage* labelFrame = labels_->get(i);
  auto full = ImageProcessing::createFloat(*labelFrame->mem(), ImageProcessing::Original);
  auto* p = static_cast<TypedImage<float>*>(full.get());
  const Eigen::Vector3i d = p->dimensions();
  const Eigen::Vector3i o = cropOffset_, s = cropSize_;
  const int L = objectLabel();
  const unsigned char* r = result->pointer();
  float* out = p->pointer();
  // Only the object's region counts; the flooding's grid is the label map's, voxel for voxel.
  // Each z writes only slice z.
#pragma omp parallel for schedule(static)
  for (int z = o[2]; z < o[2] + s[2]; ++z)
    for (int y = o[1]; y < o[1] + s[1]; ++y)
      for (int x = o[0]; x < o[0] + s[0]; ++x) {
        const int64_t k = x + int64_t(d[0]) * (y + int64_t(d[1]) * z);
        out[k] = r[k] == L ? 1.0f : 0.0f;
      }
  probability_ = std::make_unique<SharedImageSet>(std::shared_ptr<Image>(std::move(full)));
  probability_->setMatrix(labelFrame->matrix());
  probability_->setName("Probability");
  task.setCurrentStep(90);

  const bool border = drawOutline(i);
  setStatus(statusSuccess);
  if (autoAccept) convertToLabels(true);
  labelFrame->setDirtyMem();
  if (border)
    LOG_WARN(kCategory, "The segmentation extends to the border of the image. More seeds might be required to "
                        "increase the size of the bounding box.");
}

}  // namespace Merivane
