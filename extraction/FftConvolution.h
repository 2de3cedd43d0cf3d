#pragma once
// Convolution of one float volume with several kernels by FFT, the volume transformed once.
//
// The result has the volume's size and is the zero-padded ("same") convolution:
//   out(i) = sum_j in(j) * k(i - j + h),  h = (kernel size - 1) / 2 per axis,
// with no wrap-around. The transform size per axis is the smallest product of 2, 3, 5 and 7
// that is at least size + h, which is all a circular convolution needs to leave the kept
// region untouched. The 3D transforms are made of 1D transforms along x (real to complex),
// then y, then z, skipping the lines that are known to be zero (the padding of the volume,
// the empty space round the kernel) and, backwards, the lines outside the kept region.
// Lines run in parallel with OpenMP; each is transformed by the same plan whatever the thread
// count, so results do not depend on it.
#include <Eigen/Core>
#include <memory>

namespace Merivane::Dose {

class FftConvolver {
 public:
  // For volumes of `volumeSize` and odd kernels of at most `maxKernelSize` voxels per axis.
  FftConvolver(const Eigen::Vector3i& volumeSize, const Eigen::Vector3i& maxKernelSize);
  ~FftConvolver();
  FftConvolver(const FftConvolver&) = delete;
  FftConvolver& operator=(const FftConvolver&) = delete;

  // The transform size per axis.
  const Eigen::Vector3i& transformSize() const;

  // Transforms the volume (x fastest, volumeSize voxels).
  void setVolume(const float* volume);
  // out (volumeSize voxels) = the volume convolved with `kernel`; false for a kernel with an
  // even or non-positive size, one beyond maxKernelSize, or before setVolume.
  bool convolve(const float* kernel, const Eigen::Vector3i& kernelSize, float* out);

  // The smallest 2^a 3^b 5^c 7^d >= n.
  static int fastSize(int n);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace Merivane::Dose
