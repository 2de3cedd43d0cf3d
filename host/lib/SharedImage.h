#pragma once
// One frame in up to two representations, memory and texture, kept in step lazily through
// dirty flags, with its descriptor, mask and image-to-world matrix. Image space is centred:
// pixel v maps to p = (v - (size * 0.5 - 0.5)) * spacing, then through the matrix.
#include <Eigen/Core>
#include <memory>

#include "Data.h"
#include "Flags.h"
#include "Image.h"

namespace Merivane {

class GlImage;
class Mask;

class SharedImage {
 public:
  enum class CloneOptions : uint32_t { None = 0, SkipMask = 1 };

  // Wraps a MemImage or, when the GL layer is loaded, a GlImage.
  explicit SharedImage(std::shared_ptr<Image> image);
  explicit SharedImage(const ImageDescriptor& descriptor);
  ~SharedImage();
  SharedImage(const SharedImage&) = delete;
  SharedImage& operator=(const SharedImage&) = delete;

  const ImageDescriptor& descriptor() const;
  // Whichever copy exists, without transfer.
  Image* img() const;
  // The memory copy, downloaded first when only the texture is current; null when neither
  // exists or the download fails.
  MemImage* mem() const;
  std::shared_ptr<MemImage> sharedMem() const;
  // The texture copy, uploaded first when the memory copy is newer; null when there is no
  // texture path (no GL context, or a pixel type or channel count textures cannot hold).
  // Transfers run on the GL context's thread.
  GlImage* gl() const;
  bool hasMem() const { return mem_ && memCurrent_; }
  bool hasGl() const { return gl_ && glCurrent_; }

  // The memory copy was written: the texture is stale.
  void setDirtyMem();
  // The texture was written: the memory copy is stale.
  void setDirtyGl();
  // The texture was written inside the voxel box from `min` (inclusive) to `max`
  // (exclusive) only. When the memory copy was current, that box is read back into it and
  // both copies stay current: a small edit of a large texture costs a small transfer.
  // Otherwise the same as setDirtyGl().
  void setDirtyGl(const Eigen::Vector3i& min, const Eigen::Vector3i& max);
  void update(const MemImage& image);
  void update(const GlImage& image);

  std::unique_ptr<SharedImage> clone(Flags<CloneOptions> options = {}) const;

  const Eigen::Matrix4d& matrix() const { return matrix_; }
  void setMatrix(const Eigen::Matrix4d& m) { matrix_ = m; }
  const std::shared_ptr<Mask>& mask() const { return mask_; }
  void setMask(std::shared_ptr<Mask> mask) { mask_ = std::move(mask); }
  Data::Modality modality() const { return modality_; }
  void setModality(Data::Modality m) { modality_ = m; }
  void setSpacing(const Eigen::Vector3d& spacing);
  void setSpacing(const Eigen::Vector3d& spacing, bool isMetric);
  void setShiftScale(double shift, double scale);

  Eigen::Vector3d pixelToWorld(const Eigen::Vector3d& pixel) const;
  Eigen::Vector3d worldToPixel(const Eigen::Vector3d& world) const;
  // From centred image space in millimetres to world, and the texture forms for shaders
  // (texture coordinates run from 0 to 1 over the image).
  Eigen::Matrix4d imageToWorldMatrix() const { return matrix_; }
  Eigen::Matrix4d textureToWorldMatrix() const;
  Eigen::Matrix4d worldToTextureMatrix() const;
  // The world box round the image's eight outer corners.
  Geometry::AlignedBox worldBounds() const;
  Eigen::Matrix4d imageToTextureMatrix() const;

  // Bytes held by the memory copy.
  size_t memoryBytes() const;

 private:
  // Both copies are mutable: mem() and gl() are const but transfer lazily. The descriptor of
  // whichever copy exists is the frame's; setters keep both in step.
  mutable std::shared_ptr<MemImage> mem_;
  mutable std::shared_ptr<Image> gl_;
  mutable bool memCurrent_ = true;
  mutable bool glCurrent_ = false;
  Eigen::Matrix4d matrix_ = Eigen::Matrix4d::Identity();
  std::shared_ptr<Mask> mask_;
  Data::Modality modality_ = Data::modalityAny;
};

}  // namespace Merivane
