#pragma once
// The threshold tool's display object: on a slice view it colours the voxels of the slice
// that the tool's range selects (see ThresholdTool), in one colour at an opacity. It reads the
// textures of the tool's image and label map as they are (the frame in focus), and keeps only
// its programs, one per view type and form of image, which releaseGl() frees. Draws nothing
// without a target or in a 3D view. GL thread.
#include <Eigen/Core>
#include <memory>
#include <string>

#include "GlObject.h"

namespace Merivane {
class Properties;
}

namespace Merivane::Seg {

class ThresholdTool;

class ThresholdOverlay : public GlObject {
 public:
  explicit ThresholdOverlay(const ThresholdTool& tool);
  ~ThresholdOverlay() override;

  // Reads "thresholdingColorOverlay": the preview colour as RGB or RGBA (0 to 1).
  void configure(const Properties* p);
  // RGBA, 0 to 1; the alpha is the preview's opacity (0.7 unless set).
  const Eigen::Vector4f& color() const { return color_; }
  void setColor(const Eigen::Vector4f& color) { color_ = color; }
  void releaseGl();

  void draw(const GlView& view) override;
  Geometry::AlignedBox bounds() const override { return {}; }
  std::string typeName() const override { return "ThresholdOverlay"; }

 private:
  struct Gl;
  const ThresholdTool& tool_;
  Eigen::Vector4f color_ = Eigen::Vector4f(1.0f, 0.35f, 0.0f, 0.7f);
  std::unique_ptr<Gl> gl_;
};

}  // namespace Merivane::Seg
