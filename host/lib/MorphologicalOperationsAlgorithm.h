#pragma once
// Binary morphology of label images with a Euclidean ball: the structuring element of size r
// is every voxel offset d with |d|^2 <= r^2, in voxels (spacing is not taken into account).
// Size 1 is the face cross (6 neighbours, 4 in a 2D image), size 2 adds the edge and corner
// neighbours, and so on. Size 0 changes nothing.
//
// Labels: every non-zero value counts as foreground. Dilation gives each background voxel
// within r of a labelled voxel the label of the nearest one (ties between labels at the same
// distance are broken by a fixed scan order, the same on every run and thread count);
// labelled voxels keep their value. Erosion sets to 0 every labelled voxel within r of a
// background voxel; touching labels do not erode each other. Outside the image counts as
// background for dilation and as foreground for erosion, so the image border neither grows
// nor erodes anything. Opening is erosion then dilation, closing dilation then erosion.
// Radii beyond the image's diagonal act like it; the largest radius taken is 65534.
//
// Method: squared Euclidean distances to the nearest feature voxel (labelled voxels for
// dilation, background voxels for erosion) by three separable passes along x, y and z, each a
// 1D minimum of (distance so far + offset^2), carrying the label of the nearest feature
// along. Distances beyond r are cut to r^2 + 1 since they never matter; for r up to 16 the
// y and z passes take the minimum over the 2r + 1 offsets directly, above that the lower
// envelope of parabolas (Felzenszwalb and Huttenlocher), which costs O(1) per voxel for any r.
// Only the box that the result can differ in is visited: the labelled voxels' bounding box,
// grown by r for dilation and by 1 for erosion. Lines run in parallel; each result voxel comes
// from a fixed sequence of operations, so results do not depend on the number of threads.
//
// Integer pixel types, one channel. Float images are refused.
#include <memory>

#include "Algorithm.h"
#include "Image.h"
#include "Parameter.h"

namespace Merivane {

class SharedImageSet;

namespace Morphology {

enum Operation : int { Dilation = 0, Erosion = 1, Opening = 2, Closing = 3 };

// In place on channel 0 of a one-channel integer image; false (and nothing changed) for a
// float or multi-channel image, a negative radius or an unknown operation.
bool apply(MemImage& image, Operation op, int radius);
inline bool dilate(MemImage& image, int radius) { return apply(image, Dilation, radius); }
inline bool erode(MemImage& image, int radius) { return apply(image, Erosion, radius); }

}  // namespace Morphology

class MorphologicalOperationsAlgorithm : public Algorithm {
 public:
  explicit MorphologicalOperationsAlgorithm(SharedImageSet* image);
  ~MorphologicalOperationsAlgorithm() override;
  // One non-empty image set whose frames have one channel of an integer type.
  static bool createCompatible(const DataList& data, Algorithm** algorithm = nullptr);

  void setOpMode(int mode) { opMode = mode; }
  void setOpSize(int size) { opSize = size; }
  void setInPlace(bool on) { inPlace = on; }

  // Every frame of the set: in place, or into a new set that takeOutput() hands out.
  void compute() override;
  OwningDataList takeOutput() override;

  // 0 dilation, 1 erosion, 2 opening, 3 closing.
  Parameter<int> opMode{"opMode", 0, this, ParameterRange{0, 3}};
  // Radius of the ball in voxels.
  Parameter<int> opSize{"opSize", 1, this, ParameterRange{0, 65534}};
  // Change the input's frames (true) or give a changed copy (false).
  Parameter<bool> inPlace{"inPlace", true, this};

 private:
  SharedImageSet* image_;
  std::unique_ptr<SharedImageSet> output_;
};

}  // namespace Merivane
