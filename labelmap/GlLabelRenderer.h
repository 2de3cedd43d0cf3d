#pragma once
// Label overlays for slice views. GlLabelRenderer paints each label in its colour at an
// opacity, with label 0 transparent; GlIsolineRenderer paints only the outlines of the labels,
// a fixed number of screen pixels wide. Both draw the slice the view shows, nothing in other
// views, and live on the GL thread.
#include <memory>
#include <string>
#include <vector>

#include <Eigen/Core>

#include "GlObject.h"

namespace Merivane {

class SharedImage;
class LabelDataComponent;

namespace internal {
struct LabelProgramState;
}

class GlLabelRenderer : public GlObject {
 public:
  explicit GlLabelRenderer(const SharedImage* labelMap = nullptr);
  ~GlLabelRenderer() override;

  const SharedImage* labelMap() const { return labelMap_; }
  void setLabelMap(const SharedImage* labelMap);
  const LabelDataComponent* labelDataComponent() const { return ldc_; }
  // The colours then follow the component's (read at each draw when they changed).
  void setLabelDataComponent(const LabelDataComponent* ldc) { ldc_ = ldc; }
  const std::vector<Eigen::Vector3f>& colors() const { return colors_; }
  // One colour per label value; an empty list is refused and the old colours stay.
  void setColors(const std::vector<Eigen::Vector3f>& colors);
  double opacity() const { return opacity_; }
  void setOpacity(double opacity) { opacity_ = opacity; }
  // Builds the colour texture now (done by draw when the colours changed).
  void updateColorTexture();

  void draw(const GlView& view) override;
  Geometry::AlignedBox bounds() const override;
  std::string typeName() const override { return "GlLabelRenderer"; }

 private:
  const SharedImage* labelMap_ = nullptr;
  const LabelDataComponent* ldc_ = nullptr;
  std::vector<Eigen::Vector3f> colors_;
  double opacity_ = 1.0;
  bool colorsChanged_ = true;
  std::unique_ptr<internal::LabelProgramState> gl_;
};

class GlIsolineRenderer : public GlObject {
 public:
  explicit GlIsolineRenderer(const SharedImage* labelMap = nullptr);
  ~GlIsolineRenderer() override;

  const SharedImage* labelMap() const { return labelMap_; }
  // Only unsigned byte label maps are kept; others are refused with one error line.
  void setLabelMap(const SharedImage* labelMap);
  const LabelDataComponent* labelDataComponent() const { return ldc_; }
  void setLabelDataComponent(const LabelDataComponent* ldc) { ldc_ = ldc; }
  const std::vector<Eigen::Vector4f>& colors() const { return colors_; }
  void setColors(const std::vector<Eigen::Vector4f>& colors);
  double thicknessPx() const { return thicknessPx_; }
  void setThicknessPx(double px) { thicknessPx_ = px; }
  bool isMatrixIgnored() const { return ignoreMatrix_; }
  void setIgnoreMatrix(bool ignore) { ignoreMatrix_ = ignore; }
  void updateColorTexture();
  // A world box outside which the map is known to hold only 0 (a brush stencil round its
  // stroke): drawing then covers that box and the line width round it, not the whole slice.
  void setRegion(const Geometry::AlignedBox& box) {
    region_ = box;
    hasRegion_ = true;
  }
  void clearRegion() { hasRegion_ = false; }

  void draw(const GlView& view) override;
  Geometry::AlignedBox bounds() const override;
  std::string typeName() const override { return "GlIsolineRenderer"; }

 private:
  const SharedImage* labelMap_ = nullptr;
  const LabelDataComponent* ldc_ = nullptr;
  std::vector<Eigen::Vector4f> colors_;
  double thicknessPx_ = 2.0;
  bool ignoreMatrix_ = false;
  bool hasRegion_ = false;
  Geometry::AlignedBox region_;
  bool colorsChanged_ = true;
  std::unique_ptr<internal::LabelProgramState> gl_;
};

}  // namespace Merivane
