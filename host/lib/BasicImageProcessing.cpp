#include "BasicImageProcessing.h"

#include <vector>

#include "ImageProcessing.h"
#include "SharedImageSet.h"

namespace Merivane {

BasicImageProcessing::BasicImageProcessing(SharedImageSet* images) : images_(images) {}
BasicImageProcessing::~BasicImageProcessing() = default;

void BasicImageProcessing::setCropParams(const Eigen::Vector3i& lower, const Eigen::Vector3i& upper) {
  operation_ = Cropping;
  lower_ = lower;
  upper_ = upper;
}

void BasicImageProcessing::setResampling(double sx, double sy, double sz) {
  operation_ = Resampling;
  spacing_ = Eigen::Vector3d(sx, sy, sz);
}

bool BasicImageProcessing::compute() {
  output_.reset();
  if (!images_ || images_->empty() || operation_ == None) return false;
  std::vector<std::shared_ptr<SharedImage>> frames;
  for (int i = 0; i < images_->size(); ++i) {
    const SharedImage* frame = images_->get(i);
    const MemImage* mem = frame ? frame->mem() : nullptr;
    if (!mem) return false;
    std::unique_ptr<MemImage> result;
    Eigen::Matrix4d matrix = frame->matrix();
    if (operation_ == Cropping) {
      const Eigen::Vector3i size = mem->dimensions() - lower_ - upper_;
      if ((lower_.array() < 0).any() || (upper_.array() < 0).any() || (size.array() < 1).any()) return false;
      result = ImageProcessing::createCropped(*mem, lower_, size);
      // Image space is centred: the kept box's centre moves by half the difference of the cuts.
      const Eigen::Vector3d shift = (lower_ - upper_).cast<double>().cwiseProduct(mem->spacing()) * 0.5;
      matrix.topRightCorner<3, 1>() += matrix.topLeftCorner<3, 3>() * shift;
    } else {
      result = ImageProcessing::createResampled(*mem, spacing_, images_->modality() == Data::LABEL);
    }
    if (!result) return false;
    auto replacement = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(result)));
    replacement->setMatrix(matrix);
    replacement->setModality(frame->modality());
    replacement->setMask(frame->mask());
    frames.push_back(std::move(replacement));
  }
  if (createNew_) {
    output_ = std::make_unique<SharedImageSet>();
    output_->add(frames);
    output_->setModality(images_->modality());
    output_->setName(images_->name());
  } else {
    for (int i = 0; i < static_cast<int>(frames.size()); ++i) images_->replace(i, frames[static_cast<size_t>(i)]);
  }
  return true;
}

std::unique_ptr<SharedImageSet> BasicImageProcessing::takeOutput() { return std::move(output_); }

}  // namespace Merivane
