#pragma once
// Connected components of the non-zero voxels of an image, with face connectivity: four
// neighbours in a 2D image, six in a volume (a one-row image has two). Components are found
// on runs of non-zero voxels along x with a union-find whose root is always the smallest run
// index, so that the result does not depend on the order of the unions nor on the number of
// threads: component i is the one whose first voxel in scan order (x fastest, then y, then z)
// comes i-th.
//
// Selection: components of fewer than `minSize` voxels are dropped, and of the rest at most
// `numComponents` are kept, the largest first; between components of equal size the one whose
// first voxel comes earlier in scan order wins. 0 for either means no limit.
//
// Output (ConnectedComponentsAlgorithm): one image set with one frame per input frame, same
// grid and matrix, modality LABEL. With "labelComponents" (the default) each kept component
// carries its rank, 1 for the largest, 2 for the next and so on, in U8 when at most 255 are
// kept, else U16, else U32. With it off the output is the binary mask of the kept components,
// 255 inside and 0 elsewhere, always U8.
#include <cstdint>
#include <memory>
#include <vector>

#include "Algorithm.h"
#include "Image.h"
#include "Parameter.h"

namespace Merivane {

class SharedImageSet;

namespace ConnectedComponents {

// The components of one image. Cheap to keep: it holds runs, not a label per voxel.
class Labeling {
 public:
  // Channel 0 of any pixel type; a voxel is foreground when it is not 0 (NaN included).
  static Labeling compute(const MemImage& image);

  size_t componentCount() const { return sizes_.size(); }
  // Voxel counts, in scan order of the components' first voxels.
  const std::vector<uint64_t>& sizes() const { return sizes_; }
  // Per component its rank among the kept ones (1 = largest), or 0 when it is dropped.
  std::vector<uint32_t> select(int numComponents, uint64_t minSize) const;
  // Writes value[component] over each component's voxels into channel 0 of `out` (same
  // dimensions as the image, integer type, one channel); other voxels become 0.
  void paint(MemImage& out, const std::vector<uint32_t>& valuePerComponent) const;
  // The component of every voxel, -1 for background (for tests and small images).
  std::vector<int64_t> componentImage() const;

 private:
  struct Run {
    int32_t x0, x1;  // [x0, x1)
  };
  Eigen::Vector3i dims_ = Eigen::Vector3i::Zero();
  std::vector<Run> runs_;
  std::vector<int64_t> rowStart_;      // first run of row y + z * height; one entry more
  std::vector<uint32_t> component_;    // per run
  std::vector<uint64_t> sizes_;
};

}  // namespace ConnectedComponents

class ConnectedComponentsAlgorithm : public Algorithm {
 public:
  explicit ConnectedComponentsAlgorithm(SharedImageSet* image);
  ~ConnectedComponentsAlgorithm() override;
  // One non-empty image set whose frames have one channel.
  static bool createCompatible(const DataList& data, Algorithm** algorithm = nullptr);

  void setNumComponents(int n) { numComponents = n; }
  void setMinSize(unsigned long voxels) { minSize = voxels; }
  void setLabelComponents(bool on) { labelComponents = on; }

  void compute() override;
  OwningDataList takeOutput() override;

  Parameter<int> numComponents{"numComponents", 0, this, ParameterRange::atLeast(0)};  // 0: all
  Parameter<unsigned long> minSize{"minSize", 0, this};                                // 0: no limit
  Parameter<bool> labelComponents{"labelComponents", true, this};  // false: binary mask 255/0

 private:
  SharedImageSet* image_;
  std::unique_ptr<SharedImageSet> output_;
};

}  // namespace Merivane
