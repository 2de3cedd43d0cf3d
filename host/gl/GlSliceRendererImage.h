#pragma once
// Draws an image on a slice view's plane in grey (or colour for three and four channels) with
// a window and level in physical units; in a 3D view it draws the image on the plane of a
// slice view it is told about. Voxels are shown as they are (nearest sampling).
#include <memory>
#include <string>

#include "GlObject.h"

namespace Merivane {

class SharedImage;
class GlSlice;
class GlImage;

class GlSliceRendererImage : public GlObject {
 public:
  explicit GlSliceRendererImage(SharedImage* image = nullptr);
  ~GlSliceRendererImage() override;

  SharedImage* image() const { return image_; }
  void setImage(SharedImage* image);
  double window() const { return window_; }
  double level() const { return level_; }
  void setWindowLevel(double window, double level);
  // A window over the image's value range (2nd to 98th percentile of a sample for volumes).
  void autoWindowLevel();
  bool ignoreMatrix() const { return ignoreMatrix_; }
  void setIgnoreMatrix(bool ignore) { ignoreMatrix_ = ignore; }
  double opacity() const { return opacity_; }
  void setOpacity(double opacity) { opacity_ = opacity; }
  // The plane drawn in views other than slice views; null draws nothing there.
  void setPlane(const GlSlice* plane) { plane_ = plane; }

  void draw(const GlView& view) override;
  Geometry::AlignedBox bounds() const override;
  std::string typeName() const override { return "GlSliceRendererImage"; }

 private:
  struct Gl;
  SharedImage* image_ = nullptr;
  const GlSlice* plane_ = nullptr;
  double window_ = 1.0, level_ = 0.5, opacity_ = 1.0;
  bool ignoreMatrix_ = false;
  std::unique_ptr<Gl> gl_;
};

}  // namespace Merivane
