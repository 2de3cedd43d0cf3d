#include "ApplyMaskAlgorithm.h"

#include <cstring>

#include "ImageProcessing.h"
#include "LabelBounds.h"
#include "Log.h"
#include "SharedImageSet.h"

namespace Merivane {

namespace {
constexpr const char* kCategory = "ApplyMaskAlgorithm";
}

ApplyMaskAlgorithm::ApplyMaskAlgorithm(SharedImageSet* image, SharedImageSet* mask) : image_(image), mask_(mask) {}
ApplyMaskAlgorithm::~ApplyMaskAlgorithm() = default;

bool ApplyMaskAlgorithm::createCompatible(const DataList& data, Algorithm** algorithm) {
  if (data.size() != 2 || !data[0] || !data[1]) return false;
  SharedImageSet* image = data[0]->asImageSet();
  SharedImageSet* mask = data[1]->asImageSet();
  if (!image || !mask || image->empty() || mask->empty()) return false;
  if (algorithm) *algorithm = new ApplyMaskAlgorithm(image, mask);
  return true;
}

void ApplyMaskAlgorithm::compute() {
  setStatus(statusUnknown);
  output_.reset();
  std::vector<std::shared_ptr<SharedImage>> frames;
  for (int f = 0; f < image_->size(); ++f) {
    const MemImage* mem = image_->mem(f);
    const MemImage* mask = mask_->mem(mask_->size() == 1 ? 0 : f);
    if (!mem || !mask || mask->channels() != 1 || mask->dimensions() != mem->dimensions() || mem->type() == F16 ||
        mask->type() == F16) {
      LOG_ERROR(kCategory, "Frame " << f << " and its mask do not match.");
      setStatus(statusInvalidInput);
      return;
    }
    std::unique_ptr<MemImage> copy;
    MemImage* target = const_cast<MemImage*>(mem);
    if (createNewImage || cropAutomatically) {
      copy = mem->clone();
      target = copy.get();
    }
    const long n = static_cast<long>(mem->descriptor().pixelCount());
    const size_t px = static_cast<size_t>(mem->channels()) * static_cast<size_t>(mem->typeSize());
    auto* bytes = static_cast<unsigned char*>(target->data());
    dispatchPixelType(mask->type(), [&](auto tag) {
      using M = decltype(tag);
      const M* m = static_cast<const M*>(mask->data());
#pragma omp parallel for schedule(static) if (n > (1 << 16))
      for (long i = 0; i < n; ++i)
        if (m[i] == M(0)) std::memset(bytes + static_cast<size_t>(i) * px, 0, px);
    });
    if (!copy) {
      image_->get(f)->setDirtyMem();
      continue;
    }
    Eigen::Matrix4d matrix = image_->get(f)->matrix();
    if (cropAutomatically) {
      SharedImageSet maskFrame(mask_->getShared(mask_->size() == 1 ? 0 : f));
      const auto bounds = LabelStatistics::computeBounds(maskFrame);
      Eigen::Vector3i lo = mem->dimensions(), hi = Eigen::Vector3i::Constant(-1);
      for (size_t v = 1; v < bounds.size(); ++v)
        if (bounds[v].count) {
          lo = lo.cwiseMin(bounds[v].min);
          hi = hi.cwiseMax(bounds[v].max);
        }
      if ((hi.array() >= lo.array()).all()) {
        auto cropped = ImageProcessing::createCropped(*copy, lo, hi - lo + Eigen::Vector3i::Ones());
        if (cropped) {
          // The box's centre becomes the image's centre.
          Eigen::Matrix4d shift = Eigen::Matrix4d::Identity();
          shift.topRightCorner<3, 1>() = ((lo + hi).cast<double>() * 0.5 -
                                          (mem->dimensions().cast<double>() * 0.5 - Eigen::Vector3d::Constant(0.5)))
                                             .cwiseProduct(mem->spacing());
          matrix = matrix * shift;
          copy = std::move(cropped);
        }
      }
    }
    auto frame = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(copy)));
    frame->setMatrix(matrix);
    frames.push_back(std::move(frame));
  }
  if (!frames.empty() && createNewImage) {
    output_ = std::make_unique<SharedImageSet>();
    output_->add(frames);
    output_->setModality(image_->modality());
    output_->setName(image_->name());
  } else if (!frames.empty()) {
    for (int f = 0; f < image_->size(); ++f) image_->replace(f, frames[static_cast<size_t>(f)]);
  }
  setStatus(statusSuccess);
}

OwningDataList ApplyMaskAlgorithm::takeOutput() {
  OwningDataList out;
  if (output_) out.add(std::move(output_));
  return out;
}

}  // namespace Merivane
