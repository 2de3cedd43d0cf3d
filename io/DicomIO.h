#pragma once
// DICOM series in, DICOM Segmentation objects in and out.
//
// A path names a folder (searched with its subfolders) or one file; a file of a single-frame
// series stands for all files of its series in its folder, a multi-frame file for itself.
// Slices are ordered by their position along the normal of their orientation; the slice step
// comes from the positions, not from SliceThickness. Rescale slope and intercept become the
// image's shift and scale (stored = (physical + shift) * scale); slices with differing rescale
// values are converted to physical F32 values. Every set read from a series carries a
// DicomSeriesComponent.
//
// Segmentation objects are binary: one segment per label value, named and coloured from the
// LabelDataComponent (the colour as CIELab). A label map on the grid of its reference series
// refers to each slice's instance; without a reference a standalone object is written, in a
// study of its own. Reading one back gives a label map on the grid of its frames, or on that of
// a reference image, which must then be the series the object refers to.
//
// Readers never throw; on failure they return null and `error` names the file or folder and the
// problem.
#include <memory>
#include <string>
#include <vector>

namespace Merivane {
class SharedImageSet;
class DicomSeriesComponent;
}

namespace Merivane::IO {

struct DicomSeriesInfo {
  std::string seriesInstanceUid;
  std::string modality;
  std::string description;
  int seriesNumber = 0;
  int width = 0, height = 0, slices = 0;  // slices: frames of all its files
  int files = 0;
};

// True for a folder, a name ending in .dcm, or a file with the DICM mark at byte 128.
bool isDicomPath(const std::string& path);

// The image series in a folder (or the series of a file), ordered by series number. False with
// `error` when the folder holds none or cannot be read.
bool listDicomSeries(const std::string& path, std::vector<DicomSeriesInfo>& series, std::string* error = nullptr);

// Reads one series: the one with `seriesUid`, or the only one when it is empty (several give
// an error that lists them). A Segmentation object is read as by readDicomSegmentation.
std::unique_ptr<SharedImageSet> readDicomSeries(const std::string& path, const std::string& seriesUid = "",
                                                std::string* error = nullptr);

// Writes a label map (one frame, U8) as a binary Segmentation object; one without labels gets
// an empty segment for label 1, as the object needs one. `reference` (or else
// the label map's own DicomSeriesComponent) names the source series; null writes a standalone
// object.
bool writeDicomSegmentation(const SharedImageSet& labels, const std::string& path,
                            const DicomSeriesComponent* reference, std::string* error = nullptr);

// Reads a Segmentation object as a label map. With `reference`, the label map takes its grid,
// and a segmentation that refers to another series, or whose frames do not fit the grid, is
// refused.
std::unique_ptr<SharedImageSet> readDicomSegmentation(const std::string& path, const SharedImageSet* reference = nullptr,
                                                      std::string* error = nullptr);

}  // namespace Merivane::IO
