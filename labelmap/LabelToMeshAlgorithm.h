#pragma once
// Triangle meshes from a volume. Iso-value mode extracts one isosurface of any scalar volume;
// label map mode one closed mesh per label, labels in parallel. Preparation per surface:
// optional box smoothing (through float), a one-voxel ring of background round the image so
// that objects touching its border come out closed, marching cubes, then vertices mapped to
// world coordinates (centred pixel space, spacing, the frame's matrix) and vertex normals.
//
// In label map mode each label is cut out of its own bounding box (grown by the smoothing
// radius and one voxel), not from a copy of the whole volume; the box holds every cell the
// surface crosses, so the mesh is the one the whole volume would give.
#include <memory>
#include <vector>

#include "Algorithm.h"
#include "Image.h"
#include "Parameter.h"

namespace Merivane {

class Mesh;
class SharedImageSet;

class LabelToMeshAlgorithm : public Algorithm {
 public:
  LabelToMeshAlgorithm(const SharedImageSet* image, const SharedImageSet* mask = nullptr);
  ~LabelToMeshAlgorithm() override;
  // Exactly one data item, a 3D image set.
  static bool createCompatible(const DataList& data, Algorithm** algorithm = nullptr);

  void compute() override;
  OwningDataList takeOutput() override;
  // Writes "Label Map Mode", "Iso-Value", "Threshold Above Iso-Value" and "Target Labels".
  void configuration(Properties* properties) const override;

  // One isosurface of `image` (a frame shaped like the input's) in world coordinates, with
  // the current smoothing, padding and side settings; null when the surface is empty.
  std::unique_ptr<Mesh> extractMesh(const MemImage* image, float isoValue, const TypedImage<unsigned char>* mask) const;

  // The meshes of the last compute(), in label order.
  const std::vector<std::unique_ptr<Mesh>>& meshes() const { return meshes_; }

  Parameter<bool> labelMapMode{"Label Map Mode", false, this};
  Parameter<std::vector<unsigned char>> targetLabels{"Target Labels", {}, this};  // empty: all labels
  Parameter<bool> thresholdAbove{"Threshold Above Iso-Value", true, this};
  Parameter<double> isoValue{"Iso-Value", 0.5, this};  // in original intensities
  // Box radius in voxels, 0..1000; the kernel is 2 s + 1 wide.
  Parameter<int> smoothing{"Smoothing", 0, this, {0, 1000}};
  Parameter<bool> closeHoles{"closeHolesAtImageBoundaries", true, this};

 private:
  const SharedImageSet* image_;
  const SharedImageSet* mask_;
  std::vector<std::unique_ptr<Mesh>> meshes_;
};

}  // namespace Merivane
