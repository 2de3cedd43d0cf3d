#pragma once
// Halved copies of an image down to a coarsest level: level 0 is the image itself (not a
// copy), each further level halves every axis longer than one voxel. Intensities are averaged
// over 2 x 2 (x 2) blocks; label images take the most frequent non-zero value of a block.
// propagateUp brings a level's content into the next finer one.
#include <memory>
#include <vector>

namespace Merivane {

class SharedImage;

class ImagePyramid {
 public:
  // `isLabel` selects the label rules; the two other flags are kept for callers and have no
  // effect: levels always keep the geometry of the image and are always filled.
  ImagePyramid(SharedImage* image, bool isLabel, bool keepGeometry = true, bool fill = true);
  ~ImagePyramid();
  ImagePyramid(const ImagePyramid&) = delete;
  ImagePyramid& operator=(const ImagePyramid&) = delete;

  // Builds up to `levels` levels in all and returns how many exist; 0 without an image. A level
  // is not made when it would bring an axis longer than one voxel below 4 voxels.
  int createLevels(int levels);
  int numLevels() const;
  // Null for a level that does not exist.
  SharedImage* level(int index) const;
  // Level `index` resampled into level `index - 1` (linear, or nearest for labels).
  void propagateUp(int index);

 private:
  SharedImage* base_;
  bool isLabel_;
  std::vector<std::unique_ptr<SharedImage>> levels_;  // levels 1 and coarser
};

}  // namespace Merivane
