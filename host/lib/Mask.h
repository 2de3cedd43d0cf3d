#pragma once
// Masks say per pixel whether it counts. Any mask renders to an ExplicitMask, a U8 image in
// which non-zero pixels count.
#include <Eigen/Core>
#include <memory>

#include "Image.h"

namespace Merivane {

class SharedImage;
class ExplicitMask;

class Mask {
 public:
  enum CreateOption : int { DeepCopy = 0, ShallowCopy = 1 };
  virtual ~Mask();
  // Whether pixel (x, y, z) of `image` counts.
  virtual bool included(int x, int y, int z, const SharedImage& image) const = 0;
  virtual bool requiresPixelValue() const { return false; }
  // Renders to an explicit mask of the image's size.
  virtual std::unique_ptr<ExplicitMask> createExplicitMask(const SharedImage& image,
                                                           CreateOption option = DeepCopy) const;
};

class ExplicitMask : public Mask {
 public:
  explicit ExplicitMask(std::shared_ptr<TypedImage<unsigned char>> image) : image_(std::move(image)) {}
  ExplicitMask(const Eigen::Vector3i& dimensions);

  bool included(int x, int y, int z, const SharedImage&) const override;
  std::unique_ptr<ExplicitMask> createExplicitMask(const SharedImage& image, CreateOption option) const override;
  TypedImage<unsigned char>& maskImageTyped() { return *image_; }
  const TypedImage<unsigned char>& maskImageTyped() const { return *image_; }

  // Non-zero pixels of the first channel count.
  static std::unique_ptr<ExplicitMask> convert(const MemImage& image);

 private:
  std::shared_ptr<TypedImage<unsigned char>> image_;
};

// Excludes the pixels whose first channel equals one intensity.
class IntensityMask : public Mask {
 public:
  IntensityMask(PixelType type, float maskedValue) : type_(type), value_(maskedValue) {}
  IntensityMask(const Image& image, float maskedValue) : type_(image.type()), value_(maskedValue) {}
  bool included(int x, int y, int z, const SharedImage& image) const override;
  bool requiresPixelValue() const override { return true; }
  float maskedValue() const { return value_; }
  PixelType type() const { return type_; }

 private:
  PixelType type_;
  float value_;
};

// Excludes a border of given width on the low and high side of each axis.
class CroppingMask : public Mask {
 public:
  explicit CroppingMask(const Eigen::Vector3i& dimensions) : dims_(dimensions) {}
  void setBorder(const Eigen::Vector3i& low, const Eigen::Vector3i& high) {
    low_ = low;
    high_ = high;
  }
  bool included(int x, int y, int z, const SharedImage&) const override;
  std::unique_ptr<ExplicitMask> createExplicitMask(const SharedImage& image, CreateOption option) const override;
  std::unique_ptr<ExplicitMask> createExplicitMask() const;

 private:
  Eigen::Vector3i dims_;
  Eigen::Vector3i low_ = Eigen::Vector3i::Zero();
  Eigen::Vector3i high_ = Eigen::Vector3i::Zero();
};

}  // namespace Merivane
