#pragma once
// Edge-preserving smoothing by a guided filter (He, Sun and Tang): within each box of the
// kernel size the output is the linear function a * guide + b that best fits the input, with
// a shrunk towards 0 by the regularisation epsilon; a and b are then averaged over the boxes
// that cover each voxel. Boxes are clipped at the image border. With the input as its own
// guide, flat regions (variance well below epsilon) are smoothed and edges (variance well
// above) kept. Volumes use cubic boxes, 2D images square ones. Runs on the processor.
namespace Merivane {

class MemImage;

class GuidedFilter {
 public:
  // Box edge length in voxels (odd sizes centre the box).
  void setSmoothingKernelSize(int size) { size_ = size; }
  void setEpsilon(double epsilon) { epsilon_ = epsilon; }
  // One-channel guide of the input's dimensions; null makes the input its own guide.
  void setGuide(const MemImage* guide) { guide_ = guide; }

  // Filters a one-channel image into `out` (same dimensions, any pixel type). False, with
  // `out` untouched, for a size below 1, other dimensions or several channels.
  bool compute(const MemImage& in, MemImage& out) const;

 private:
  int size_ = 3;
  double epsilon_ = 0.01;
  const MemImage* guide_ = nullptr;
};

}  // namespace Merivane
