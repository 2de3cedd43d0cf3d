#pragma once
// Shows a label map as outlines: owns a GlIsolineRenderer on the map's focus frame and keeps its
// colours those of the map's label component. Computing does nothing; the panel puts the
// renderer into the slice views.
#include <memory>
#include <vector>

#include <Eigen/Core>

#include "Algorithm.h"
#include "Signal.h"

namespace Merivane {

class SharedImageSet;
class LabelDataComponent;
class GlIsolineRenderer;

class LabelMapIsolineRenderer : public Algorithm, public SignalReceiver {
 public:
  explicit LabelMapIsolineRenderer(SharedImageSet* labelMap);
  ~LabelMapIsolineRenderer() override;

  // One set of one frame, modality LABEL, unsigned byte.
  static bool createCompatible(const DataList& data, Algorithm** algorithm);

  void compute() override { setStatus(statusSuccess); }
  SharedImageSet* image() const { return labelMap_; }
  GlIsolineRenderer* renderer() const { return renderer_.get(); }
  // The component's colours, one per label value (256).
  static std::vector<Eigen::Vector4f> getColormapFromLDC(LabelDataComponent* ldc);

 private:
  SharedImageSet* labelMap_;
  LabelDataComponent* ldc_ = nullptr;
  std::unique_ptr<GlIsolineRenderer> renderer_;
};

}  // namespace Merivane
