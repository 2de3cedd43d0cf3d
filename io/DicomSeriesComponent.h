#pragma once
// Who an image set came from in DICOM terms: the study, series and frame of reference of the
// series it was read from, and the SOP instance of each slice (index z). A Segmentation object
// written for a label map on the same grid refers to these, slice by slice. Algorithms do not
// carry it to their outputs; the command line hands the input's record to the writer.
#include <string>
#include <vector>

#include "DataComponent.h"

namespace Merivane {

class DicomSeriesComponent : public DataComponent<DicomSeriesComponent> {
 public:
  std::string id() const override { return "DicomSeriesComponent"; }
  void configure(const Properties* properties) override;
  void configuration(Properties* properties) const override;
  bool operator==(const DicomSeriesComponent& o) const = default;

  // Patient and study attributes, copied into derived objects so that they file with the source.
  std::string patientName;
  std::string patientId;
  std::string patientBirthDate;
  std::string patientSex;
  std::string studyInstanceUid;
  std::string studyDate;
  std::string studyTime;
  std::string studyId;
  std::string accessionNumber;
  std::string referringPhysician;

  std::string seriesInstanceUid;
  std::string frameOfReferenceUid;
  std::string modality;        // as the files give it: "CT", "MR", ...
  std::string sopClassUid;     // of the slices
  // One per slice, in slice order; empty where a slice has no instance of its own (frames of a
  // multi-frame file share the file's, with frameNumbers telling them apart).
  std::vector<std::string> sopInstanceUids;
  std::vector<int> frameNumbers;  // 1-based frame of each slice in its instance; 0 for single-frame files

  // The grid of the series: slice size, row and column directions (LPS), and the position of
  // the first voxel of each slice (x y z per slice), in millimetres.
  int columns = 0, rows = 0;
  std::vector<double> orientation;
  std::vector<double> slicePositions;
};

}  // namespace Merivane
