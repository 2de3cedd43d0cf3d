#pragma once
// The stroke engine of label editing: turns a pen stroke, given as straight segments in
// world millimetres, into a change of one U8 label map on the graphics card.
//
// A stroke runs four fragment programs (served by the resource system as
// "MerivaneSeg/LabelPainter*.frag"):
//   brush      weight of each voxel in the spacing-corrected capsule round each segment,
//              optionally pulled to image edges (adaptiveness), into the stencil;
//   (smooth)   for adaptive strokes, a Gaussian of the stencil and the centre line redrawn;
//   threshold  the stencil to 0/1, optionally clipped to one slice of a plane;
//   merge      the stencil into the label map, sparing locked labels and masked voxels.
// Every pass after the brush runs on the box of voxels that the stroke can reach, and
// results are copied back box by box, so the cost of a pointer step follows the brush, not
// the volume. The label map stays resident as a texture between strokes; when its memory
// copy was current, only the changed box is read back into it.
//
// No view, no events, no undo: the caller owns the label map and records its history. All
// GL work runs on the GL context's thread; the painter may be driven from any one thread.
// Failures return false with one log line in the category "LabelPainter" and leave the label
// map as it was; they never throw.
#include <Eigen/Core>
#include <memory>
#include <optional>
#include <vector>

#include "LabelLock.h"
#include "Signal.h"

namespace Merivane {
class GlImage;
class Mask;
class SharedImage;
class SharedImageSet;
}  // namespace Merivane

namespace Merivane::Seg {

class LabelPainter {
 public:
  struct Segment {
    Eigen::Vector3d from = Eigen::Vector3d::Zero();
    Eigen::Vector3d to = Eigen::Vector3d::Zero();
  };

  LabelPainter();
  ~LabelPainter();
  LabelPainter(const LabelPainter&) = delete;
  LabelPainter& operator=(const LabelPainter&) = delete;

  // Binds an input image and its label map, or unbinds with (nullptr, nullptr). A refused
  // pair (one pointer null, dimensions or spacing differ, not a LABEL U8 one-channel map)
  // logs a warning, changes nothing and returns false.
  bool setCurrent(const SharedImageSet* input, SharedImageSet* labelMap);
  const SharedImageSet* input() const { return input_; }
  SharedImageSet* labelMap() const { return labelMap_; }

  // One segment; see paintSegments.
  bool paint(const Eigen::Vector3d& from, const Eigen::Vector3d& to, bool erase = false, bool previewOnly = false,
             std::optional<Eigen::Vector3d> sliceNormal = std::nullopt);
  // Paints the union of the segments' brushes with label() (or erases, which sets unlocked
  // labels under the stroke to 0). True when at least one segment touched the image.
  // previewOnly stops before the merge: the label map stays untouched and only the stencil
  // holds the stroke. With sliceNormal (ignored on one-slice images) only voxels within half
  // a voxel of the plane through the first point are painted.
  bool paintSegments(const std::vector<Segment>& segments, bool erase = false, bool previewOnly = false,
                     std::optional<Eigen::Vector3d> sliceNormal = std::nullopt);
  // Clears the stencil unless it is already clear or does not exist.
  void clearStencil();

  // The last stroke as 0/1 (null until the first stroke); previews and isolines show it.
  SharedImage* stencil() const { return stencil_.get(); }
  bool stencilIsClear() const { return stencilClear_; }

  void setLabel(int label);
  int label() const { return label_; }
  void setRadiusPixels(float radius);  // in units of the smallest voxel edge
  void setRadiusMM(float radius);      // in world millimetres
  // The radius in either unit; the unit not set is converted through the input's smallest
  // spacing (0 without an input).
  float radiusPixels() const;
  float radiusMM() const;
  bool isRadiusInMM() const { return radiusInMM_; }
  void setAdaptiveness(float adaptiveness);  // clamped to [0, 1]; 0 is a plain disc or ball
  float adaptiveness() const { return adaptiveness_; }
  void setIgnoreMatrix(bool ignore);  // world points are image-centred, the matrix is not applied
  bool isMatrixIgnored() const { return ignoreMatrix_; }
  void setFilter(bool filter);  // smooth the stencil of an adaptive stroke
  bool filter() const { return filter_; }
  // Let the adaptive brush read a denoised copy of the input (edge-preserving diffusion),
  // made on the first stroke after the input or its focus changed and kept while they stay.
  void setFilterInput(bool filterInput);
  bool filterInput() const { return filterInput_; }
  // Diffusion steps of that copy, 0 to 1000 (0 copies the input); a new count drops the copy.
  void setFilterInputIterations(int iterations);
  int filterInputIterations() const { return filterInputIterations_; }
  // The denoised copy the brush reads; null while filter input is off or before the stroke
  // that makes it. GL thread only.
  const GlImage* filteredInput() const;
  void setFilterKernelSize(int size);
  int filterKernelSize() const { return filterKernelSize_; }
  void setUseWindowLevel(bool use);  // the adaptive brush sees the input through its window
  bool useWindowLevel() const { return useWindowLevel_; }
  void setSampleOnPath(bool sample);  // reference intensity along the path, else at the end point
  bool sampleOnPath() const { return sampleOnPath_; }
  void setPreserveLabel(unsigned char label, bool preserve);
  bool preserveLabel(unsigned char label) const { return lock_.locked(label); }
  const LabelLock& labelLock() const { return lock_; }

  // The painter's own mask (not owned; its non-zero voxels may be painted); it takes
  // precedence over the input frame's mask. A mask whose contents change must be set again.
  void setMask(const Mask* mask);
  const Mask* mask() const { return mask_; }

  // Voxel box (min inclusive, max exclusive) that the last successful merge could change;
  // empty before the first.
  const Eigen::Vector3i& lastBoxMin() const { return lastBoxMin_; }
  const Eigen::Vector3i& lastBoxMax() const { return lastBoxMax_; }

  Signal<> stencilAboutToBeReplaced;
  Signal<> stencilReplaced;
  Signal<> settingsChanged;

 private:
  struct Gl;
  void replaceStencil(std::unique_ptr<SharedImage> stencil);
  void dropFilterCaches();
  void dropFilteredInput();
  void createFilterInputProgram();

  const SharedImageSet* input_ = nullptr;
  SharedImageSet* labelMap_ = nullptr;
  const Mask* mask_ = nullptr;
  std::unique_ptr<SharedImage> stencil_;
  bool stencilClear_ = false;

  int label_ = 1;
  float radiusPixels_ = 5.0f;
  bool radiusInPixels_ = true;
  float radiusMM_ = 0.0f;
  bool radiusInMM_ = false;
  float adaptiveness_ = 0.0f;
  bool ignoreMatrix_ = false;
  bool filter_ = true;
  bool filterInput_ = false;
  int filterInputIterations_ = 50;
  int filterKernelSize_ = 9;
  bool useWindowLevel_ = true;
  bool sampleOnPath_ = true;
  LabelLock lock_;
  Eigen::Vector3i lastBoxMin_ = Eigen::Vector3i::Zero();
  Eigen::Vector3i lastBoxMax_ = Eigen::Vector3i::Zero();

  std::unique_ptr<Gl> gl_;
};

}  // namespace Merivane::Seg
