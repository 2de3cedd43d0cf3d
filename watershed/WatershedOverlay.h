#pragma once
// The watershed tool's display object: on a slice view it shows the tool's current result in
// the preview colours, leaving the voxels that hold a seed to the seed map's own renderer.
// The result may be cropped or reduced; it is read through its own placement in the world.
// Draws nothing before a result, in a 3D view, or without the programs. GL thread.
#include <Eigen/Core>
#include <memory>
#include <string>
#include <vector>

#include "GlObject.h"

namespace Merivane::Seg {

class WatershedTool;

class WatershedOverlay : public GlObject {
 public:
  explicit WatershedOverlay(const WatershedTool& tool);
  ~WatershedOverlay() override;

  // Colour of each label value (256 entries; value 0 is never drawn).
  void setColors(const std::vector<Eigen::Vector3f>& colors);
  const std::vector<Eigen::Vector3f>& colors() const { return colors_; }
  void releaseGl();

  void draw(const GlView& view) override;
  Geometry::AlignedBox bounds() const override { return {}; }
  std::string typeName() const override { return "WatershedOverlay"; }

 private:
  struct Gl;
  const WatershedTool& tool_;
  std::vector<Eigen::Vector3f> colors_;
  bool colorsChanged_ = true;
  std::unique_ptr<Gl> gl_;
};

}  // namespace Merivane::Seg
