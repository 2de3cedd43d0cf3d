#pragma once
// The threshold tool: previews a range of intensities as a coloured overlay on the slice
// views and, on demand, writes that range into a label map on the graphics card.
//
// The range is given in original values (stored / scale - shift) or in stored values; both
// ends are included. Apply runs one fragment program per frame ("MerivaneSeg/
// ThresholdToolApply.frag") over the whole texture: a voxel whose image value lies in the
// range, which the mask admits and whose current label is not locked takes the active label;
// every other voxel keeps its label. The preview ("MerivaneSeg/ThresholdToolPreview.frag",
// drawn by ThresholdOverlay) reads the same values with the same comparisons, so it shows
// exactly the voxels an apply would write on the slice shown.
//
// Ranges are compared in the units programs see (GlUtils::storageToNormalized). For integer
// images the ends are first rounded inwards to whole stored values and widened by half a step,
// so that rounding in single precision can never move a whole value across an end; 32-bit
// integer images are compared with single precision (24 bits). Float images compare in single
// precision.
//
// Without views the tool applies without a preview. GUI thread, with the GL context available.
// The views must outlive the tool; the image, label map and mask must stay alive while set.
#include <memory>
#include <utility>

#include "LabelLock.h"
#include "Signal.h"

namespace Merivane {
class DisplayWidgetMultiAdapter;
class GlMask;
class SharedImageSet;
struct ImageDescriptor;
}  // namespace Merivane

namespace Merivane::Seg {

class ThresholdOverlay;

class ThresholdTool : public SignalReceiver {
 public:
  // On the views of a display; the overlay is created when the adapter has views.
  explicit ThresholdTool(DisplayWidgetMultiAdapter& views);
  // Without views: applies only.
  ThresholdTool();
  ~ThresholdTool() override;
  ThresholdTool(const ThresholdTool&) = delete;
  ThresholdTool& operator=(const ThresholdTool&) = delete;

  // Both or neither. The label map's frames pair with the image's by index; it must be U8 with
  // one channel and its focused frame must have the focused image frame's dimensions. A refused
  // pair logs one line in "ThresholdTool" and changes nothing.
  void setTargetLabelMap(const SharedImageSet* image, SharedImageSet* labelMap);
  const SharedImageSet* image() const { return image_; }
  SharedImageSet* labelMap() const { return labelMap_; }

  // A range with low above high selects nothing; NaN ends are refused (one log line).
  void setRangeStorage(double low, double high);
  void setRangeOriginal(double low, double high);
  double low() const { return low_; }
  double high() const { return high_; }
  bool isRangeOriginal() const { return rangeIsOriginal_; }

  void setActiveLabel(unsigned char label);
  unsigned char activeLabel() const { return activeLabel_; }
  // A locked label keeps its voxels, in the preview and in the result.
  void setPreserveLabel(unsigned char label, bool preserve);
  const LabelLock& labelLock() const { return lock_; }
  // Only voxels the mask admits are written (not owned; null: all voxels).
  void setMask(GlMask* mask);
  GlMask* mask() const { return mask_; }

  // Shows the preview on every slice view, and takes it off again.
  void enable();
  void disable();
  bool isEnabled() const { return enabled_; }
  // Redraws the views when the tool is enabled and has views.
  void updatePreview();

  // Writes the range into frame `frame` of the label map, or into every frame for -1.
  // Frames without an image or a label frame, or whose label frame does not fit, are skipped.
  // Returns the number of frames written.
  int apply(int frame = -1);

  // The range for a frame of descriptor `d`, as the programs compare it.
  std::pair<float, float> normalizedRange(const ImageDescriptor& d) const;

  ThresholdOverlay* overlay() const { return overlay_.get(); }
  DisplayWidgetMultiAdapter& views() const { return *adapter_; }

 private:
  struct Gl;
  void setRange(double low, double high, bool original);

  std::unique_ptr<DisplayWidgetMultiAdapter> ownAdapter_;
  DisplayWidgetMultiAdapter* adapter_;
  const SharedImageSet* image_ = nullptr;
  SharedImageSet* labelMap_ = nullptr;
  GlMask* mask_ = nullptr;
  bool enabled_ = false;
  bool rangeIsOriginal_ = true;
  double low_ = 0.0, high_ = 0.0;
  unsigned char activeLabel_ = 1;
  LabelLock lock_;
  std::unique_ptr<ThresholdOverlay> overlay_;
  std::unique_ptr<Gl> gl_;
};

}  // namespace Merivane::Seg
