#pragma once
// Post-processing of one label of a label map, in place: smoothing, hole filling, removal of
// small components, dilation, erosion, and a refinement that lets the label snap to edges of
// the image by a watershed.
//
// Every operation runs per frame (the focused one, or a range set by setAffectedFrames) on a
// binary copy of the affected label (255 where the map holds it, 0 elsewhere) and merges the
// result back: inside the mask (all voxels without one) and where the current label is not
// locked, a voxel that the result holds gets the affected label, and a voxel that held it and
// is no longer held goes to 0. Locked labels are thus never overwritten nor erased; a label
// next to the affected one is overwritten by growth unless it is locked. A frame where the
// label does not occur is left alone.
//
//   Seg::LabelMapRefinement refine(&image, labelMap);   // the image only for imageBasedRefinement
//   refine.setAffectedLabel(3);
//   refine.lockLabel(5, true);                          // label 5 keeps its voxels
//   refine.fillHoles();
//   refine.removeSmallComponents(std::nullopt, 50);     // drop components of fewer than 50 voxels
//   refine.dilate(12);                                  // three steps: 5, 5 and 2 voxels
//   refine.imageBasedRefinement(3);                     // snap to edges within about 3 voxels
//
// Failures (no label frame, a frame that is not U8 with one channel, no image for the
// image-based refinement, no GL context for Gaussian smoothing) are logged and skip the frame
// in question; nothing is thrown. GUI thread; Gaussian smoothing runs on the GL thread.
#include <functional>
#include <optional>
#include <vector>

#include "LabelLock.h"

namespace Merivane {
class ExplicitMask;
class SharedImageSet;
}  // namespace Merivane

namespace Merivane::Seg {

class LabelMapRefinement {
 public:
  enum SmoothingMode : int { Gaussian = 0, Median = 1 };

  // `image` may be null; only imageBasedRefinement needs it. Both must outlive this object.
  LabelMapRefinement(const SharedImageSet* image, SharedImageSet& labelMap);

  void setAffectedLabel(unsigned char label) { label_ = label; }
  unsigned char affectedLabel() const { return label_; }
  void lockLabel(unsigned char label, bool locked) { lock_.setLocked(label, locked); }
  bool isLocked(unsigned char label) const { return lock_.locked(label); }
  const LabelLock& labelLock() const { return lock_; }

  // Voxels outside are never changed. Kept only when it has the dimensions of the focused
  // label frame (logged otherwise); null means none. Not owned.
  void setMask(ExplicitMask* mask);
  ExplicitMask* mask() const { return mask_; }

  // first = -1: the focused frame (always accepted). Otherwise frames [first, last): first must
  // be a frame of the map, last above first and at most the number of frames. A refused range
  // is logged in "LabelMapRefinement", returns false and keeps the range as it was.
  bool setAffectedFrames(int first, int last);
  int firstFrame() const { return first_; }
  int lastFrame() const { return last_; }

  // Gaussian: GlSmoothingFilter with a kernel of 2 * size + 1 taps (sigma derived from the
  // size), then the voxels above 128 form the label. Median: a voxel belongs to the label
  // when more than half of the window of edge 2 * half + 1 (half = 1 below size 2, else
  // size / 2; in the plane for a 2D image, along the row for a one-row image) does, the
  // window clipped to the image but the threshold that of the whole window.
  void smooth(int size, SmoothingMode mode);
  // Background voxels of the label's bounding box that the box's outer faces cannot reach
  // through background (face neighbours) join the label.
  void fillHoles();
  // ConnectedComponentsAlgorithm on the label: at most numComponents largest, none below
  // minSize voxels (no limit where not given).
  void removeSmallComponents(std::optional<int> numComponents, std::optional<unsigned long> minSize);
  void keepNLargestComponents(int n) { removeSmallComponents(n, std::nullopt); }
  // MorphologicalOperationsAlgorithm (a Euclidean ball) in steps of at most 5 voxels; a size of
  // 0 or below changes nothing.
  void morphoOp(bool dilate, int size);
  void dilate(int size) { morphoOp(true, size); }
  void erode(int size) { morphoOp(false, size); }
  // Watershed of the image from the label eroded by `size` (foreground seeds) and the rest of
  // the map eroded by `size` (background seeds): the label's border moves to the strongest
  // edge within a band of about 2 * size voxels round it. Needs the image.
  void imageBasedRefinement(int size);

  // Voxels of the label map that the last operation changed, over all its frames.
  size_t changedVoxels() const { return changed_; }
  // The sizes of the runs a morphological operation of `size` is split into: {5, 5, 2} for 12.
  static std::vector<int> morphoSteps(int size);
  // The value of the background seeds in imageBasedRefinement: 253, or 252 when 253 is the
  // affected label (a watershed tells seeds apart by value only).
  unsigned char backgroundSeedValue() const { return label_ == 253 ? 252 : 253; }

 private:
  using Operation = std::function<bool(SharedImageSet& work, int frame)>;
  std::vector<int> frames() const;
  // The outer frame: working copy, operation, merge with "foreground" meaning above
  // `foregroundAbove`.
  void runOnLabels(const Operation& op, unsigned char foregroundAbove);
  template <typename Foreground>
  size_t merge(unsigned char* out, size_t n, const unsigned char* mask, Foreground foreground) const;
  const unsigned char* maskFor(int frame) const;

  const SharedImageSet* image_;
  SharedImageSet& labelMap_;
  ExplicitMask* mask_ = nullptr;
  unsigned char label_ = 0;
  int first_ = -1, last_ = 0;
  LabelLock lock_;
  size_t changed_ = 0;
};

}  // namespace Merivane::Seg
