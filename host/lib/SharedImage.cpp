#include "SharedImage.h"

#include <Eigen/Geometry>
#include <Eigen/LU>
#include <stdexcept>

#include "Mask.h"

namespace Merivane {

SharedImage::SharedImage(std::shared_ptr<Image> image) {
  mem_ = std::dynamic_pointer_cast<MemImage>(image);
  if (!mem_) throw std::invalid_argument("SharedImage: only memory images are supported");
}

SharedImage::SharedImage(const ImageDescriptor& descriptor) : mem_(MemImage::create(descriptor)) {
  if (!mem_) throw std::invalid_argument("SharedImage: no memory image of that pixel type");
}

SharedImage::~SharedImage() = default;

const ImageDescriptor& SharedImage::descriptor() const { return mem_->descriptor(); }
Image* SharedImage::img() const { return mem_.get(); }
MemImage* SharedImage::mem() const { return mem_.get(); }
std::shared_ptr<MemImage> SharedImage::sharedMem() const { return mem_; }

void SharedImage::setDirtyMem() {
  memCurrent_ = true;
  glCurrent_ = false;
}

void SharedImage::setDirtyGl() {
  glCurrent_ = true;
  memCurrent_ = false;
}

void SharedImage::update(const MemImage& image) {
  auto copy = std::shared_ptr<MemImage>(image.clone());
  mem_ = std::move(copy);
  setDirtyMem();
}

std::unique_ptr<SharedImage> SharedImage::clone(Flags<CloneOptions> options) const {
  auto copy = std::make_unique<SharedImage>(std::shared_ptr<Image>(mem_->clone()));
  copy->matrix_ = matrix_;
  copy->modality_ = modality_;
  if (!options.test(CloneOptions::SkipMask)) copy->mask_ = mask_;
  return copy;
}

void SharedImage::setSpacing(const Eigen::Vector3d& spacing) { mem_->setSpacing(spacing); }
void SharedImage::setSpacing(const Eigen::Vector3d& spacing, bool isMetric) { mem_->setSpacing(spacing, isMetric); }
void SharedImage::setShiftScale(double shift, double scale) { mem_->setShiftScale(shift, scale); }

Eigen::Vector3d SharedImage::pixelToWorld(const Eigen::Vector3d& v) const {
  const auto& d = descriptor();
  Eigen::Vector3d p = (v - (d.dimensions.cast<double>() * 0.5 - Eigen::Vector3d::Constant(0.5))).cwiseProduct(d.spacing);
  return (matrix_ * p.homogeneous()).hnormalized();
}

Eigen::Vector3d SharedImage::worldToPixel(const Eigen::Vector3d& w) const {
  const auto& d = descriptor();
  Eigen::Vector3d p = (matrix_.inverse() * w.homogeneous()).hnormalized();
  return p.cwiseQuotient(d.spacing) - Eigen::Vector3d::Constant(0.5) + d.dimensions.cast<double>() * 0.5;
}

Eigen::Matrix4d SharedImage::textureToWorldMatrix() const {
  // t in [0, 1] maps to centred image space as p = (t - 0.5) * extent.
  const Eigen::Vector3d e = descriptor().extent();
  Eigen::Matrix4d t = Eigen::Matrix4d::Identity();
  t.diagonal().head<3>() = e;
  t.block<3, 1>(0, 3) = -0.5 * e;
  return matrix_ * t;
}

Eigen::Matrix4d SharedImage::worldToTextureMatrix() const { return textureToWorldMatrix().inverse(); }

Eigen::Matrix4d SharedImage::imageToTextureMatrix() const {
  const Eigen::Vector3d e = descriptor().extent();
  Eigen::Matrix4d t = Eigen::Matrix4d::Identity();
  t.diagonal().head<3>() = e.cwiseInverse();
  t.block<3, 1>(0, 3) = Eigen::Vector3d::Constant(0.5);
  return t;
}

size_t SharedImage::memoryBytes() const { return mem_ ? mem_->byteSize() : 0; }

}  // namespace Merivane
