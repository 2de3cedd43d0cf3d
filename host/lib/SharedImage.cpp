#include "SharedImage.h"

#include <limits>

#include <Eigen/Geometry>
#include <Eigen/LU>
#include <stdexcept>

#include "Mask.h"
#include "TextureBackend.h"

namespace Merivane {

SharedImage::SharedImage(std::shared_ptr<Image> image) {
  mem_ = std::dynamic_pointer_cast<MemImage>(image);
  if (mem_) return;
  TextureBackend* backend = TextureBackend::installed();
  if (image && backend && backend->asTexture(image.get())) {
    gl_ = std::move(image);
    memCurrent_ = false;
    glCurrent_ = true;
    return;
  }
  throw std::invalid_argument("SharedImage: only memory images and textures are supported");
}

SharedImage::SharedImage(const ImageDescriptor& descriptor) : mem_(MemImage::create(descriptor)) {
  if (!mem_) throw std::invalid_argument("SharedImage: no memory image of that pixel type");
}

SharedImage::~SharedImage() = default;

const ImageDescriptor& SharedImage::descriptor() const { return img()->descriptor(); }
Image* SharedImage::img() const {
  // The current copy: after update(GlImage) the memory copy may be stale and of another shape.
  if (mem_ && (memCurrent_ || !gl_)) return mem_.get();
  return gl_ ? gl_.get() : mem_.get();
}

MemImage* SharedImage::mem() const { return sharedMem().get(); }

std::shared_ptr<MemImage> SharedImage::sharedMem() const {
  if (memCurrent_ && mem_) return mem_;
  if (!gl_ || !glCurrent_) return mem_;
  TextureBackend* backend = TextureBackend::installed();
  if (!backend) return nullptr;
  std::shared_ptr<MemImage> target = mem_;
  if (!target || !target->descriptor().isApprox(gl_->descriptor(), ImageDescriptor::Comparison::All))
    target = std::shared_ptr<MemImage>(MemImage::create(gl_->descriptor(), false));
  if (!target || !backend->download(*gl_, *target)) return nullptr;
  mem_ = std::move(target);
  memCurrent_ = true;
  return mem_;
}

GlImage* SharedImage::gl() const {
  TextureBackend* backend = TextureBackend::installed();
  if (!backend) return nullptr;
  if (glCurrent_ && gl_) return backend->asTexture(gl_.get());
  if (!mem_ || !memCurrent_) return nullptr;
  std::shared_ptr<Image> texture = backend->upload(*mem_, gl_);
  if (!texture) return nullptr;
  gl_ = std::move(texture);
  glCurrent_ = true;
  return backend->asTexture(gl_.get());
}

void SharedImage::setDirtyMem() {
  if (!mem_) sharedMem();
  memCurrent_ = true;
  glCurrent_ = false;
}

void SharedImage::setDirtyGl() {
  if (!gl_) gl();
  glCurrent_ = gl_ != nullptr;
  memCurrent_ = !glCurrent_;
}

void SharedImage::setDirtyGl(const Eigen::Vector3i& min, const Eigen::Vector3i& max) {
  TextureBackend* backend = TextureBackend::installed();
  if (backend && gl_ && glCurrent_ && mem_ && memCurrent_ &&
      mem_->descriptor().isApprox(gl_->descriptor(), ImageDescriptor::Comparison::All) &&
      backend->download(*gl_, *mem_, min, max))
    return;
  setDirtyGl();
}

void SharedImage::update(const MemImage& image) {
  auto copy = std::shared_ptr<MemImage>(image.clone());
  mem_ = std::move(copy);
  setDirtyMem();
}

void SharedImage::update(const GlImage& image) {
  TextureBackend* backend = TextureBackend::installed();
  if (!backend) return;
  std::shared_ptr<Image> copy = backend->copy(image);
  if (!copy) return;
  gl_ = std::move(copy);
  glCurrent_ = true;
  memCurrent_ = false;
}

std::unique_ptr<SharedImage> SharedImage::clone(Flags<CloneOptions> options) const {
  std::unique_ptr<SharedImage> copy;
  if (auto m = sharedMem()) {
    copy = std::make_unique<SharedImage>(std::shared_ptr<Image>(m->clone()));
  } else {
    TextureBackend* backend = TextureBackend::installed();
    GlImage* source = backend && gl_ ? backend->asTexture(gl_.get()) : nullptr;
    std::shared_ptr<Image> texture = source ? backend->copy(*source) : nullptr;
    if (!texture) throw std::runtime_error("SharedImage: frame has no readable copy");
    copy = std::make_unique<SharedImage>(std::move(texture));
  }
  copy->matrix_ = matrix_;
  copy->modality_ = modality_;
  if (!options.test(CloneOptions::SkipMask)) copy->mask_ = mask_;
  return copy;
}

void SharedImage::setSpacing(const Eigen::Vector3d& spacing) {
  if (mem_) mem_->setSpacing(spacing);
  if (gl_) gl_->setSpacing(spacing);
}
void SharedImage::setSpacing(const Eigen::Vector3d& spacing, bool isMetric) {
  if (mem_) mem_->setSpacing(spacing, isMetric);
  if (gl_) gl_->setSpacing(spacing, isMetric);
}
void SharedImage::setShiftScale(double shift, double scale) {
  if (mem_) mem_->setShiftScale(shift, scale);
  if (gl_) gl_->setShiftScale(shift, scale);
}

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

Geometry::AlignedBox SharedImage::worldBounds() const {
  const Eigen::Matrix4d t = textureToWorldMatrix();
  Eigen::Vector3d lo = Eigen::Vector3d::Constant(std::numeric_limits<double>::infinity()), hi = -lo;
  for (int c = 0; c < 8; ++c) {
    const Eigen::Vector4d p = t * Eigen::Vector4d(c & 1, (c >> 1) & 1, (c >> 2) & 1, 1);
    lo = lo.cwiseMin(p.head<3>());
    hi = hi.cwiseMax(p.head<3>());
  }
  Geometry::AlignedBox box;
  for (int i = 0; i < 3; ++i) {
    box.min[static_cast<size_t>(i)] = lo[i];
    box.max[static_cast<size_t>(i)] = hi[i];
  }
  return box;
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
