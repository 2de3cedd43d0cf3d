#pragma once
// The host's basic whole-frame operations on an image set, set up once and applied to every
// frame: cropping by voxel counts and isotropic or anisotropic resampling. In place (the set's
// frames are replaced, matrices adjusted so that every voxel keeps its world position) or
// into a new set that takeOutput() hands out.
#include <Eigen/Core>
#include <memory>

namespace Merivane {

class SharedImageSet;

class BasicImageProcessing {
 public:
  // The host's operation codes.
  enum Operation : int { None = 0, Resampling = 1, Cropping = 6 };

  explicit BasicImageProcessing(SharedImageSet* images);
  ~BasicImageProcessing();

  // Removes lower[k] voxels at the low and upper[k] at the high end of axis k.
  void setCropParams(const Eigen::Vector3i& lower, const Eigen::Vector3i& upper);
  // New spacing in millimetres over the same extent (trilinear; nearest for label maps).
  void setResampling(double sx, double sy, double sz);
  void setCreateNew(bool createNew) { createNew_ = createNew; }
  int operation() const { return operation_; }

  // False, with the set unchanged, for no operation, a crop that leaves no voxel, a spacing
  // that is not positive, or a frame without memory.
  bool compute();
  std::unique_ptr<SharedImageSet> takeOutput();

 private:
  SharedImageSet* images_;
  Operation operation_ = None;
  Eigen::Vector3i lower_ = Eigen::Vector3i::Zero();
  Eigen::Vector3i upper_ = Eigen::Vector3i::Zero();
  Eigen::Vector3d spacing_ = Eigen::Vector3d::Ones();
  bool createNew_ = true;
  std::unique_ptr<SharedImageSet> output_;
};

}  // namespace Merivane
