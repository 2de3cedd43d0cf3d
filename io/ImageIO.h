#pragma once
// Reading and writing images and label maps by file extension:
//   .nii .nii.gz      NIfTI-1 and NIfTI-2 (nifticlib)
//   .nrrd .nhdr       NRRD, raw, ascii or gzip data (attached or detached)
//   .mha .mhd         MetaImage (attached or detached, optionally zlib-compressed)
//   .png              2D frames, 8 or 16 bits, 1 to 4 channels
//   .dcm, a folder    DICOM series (see DicomIO.h); label maps are written as Segmentation
//                     objects (.seg.dcm), other images cannot be written as DICOM
// World coordinates are LPS millimetres (as DICOM); NIfTI's RAS is converted on the way in
// and out. A file read as a label map (header marks it, U8, one channel) has modality LABEL
// and a LabelDataComponent with the names and colours that the file carries.
// Readers never throw; on failure they return null and `error` names the file and the problem.
// Writers write to a temporary name beside the target and rename it when complete.
#include <memory>
#include <string>

namespace Merivane {
class SharedImageSet;
class DicomSeriesComponent;
}

namespace Merivane::IO {

enum class ImageFormat { Unknown, Nifti, Nrrd, MetaImage, Png, Dicom };

struct WriteOptions {
  bool compress = true;  // gzip NRRD data and zlib MetaImage data; .nii.gz is always compressed
  int niftiVersion = 0;  // 1 or 2; 0 picks NIfTI-2 only when a size exceeds NIfTI-1's limits
  // The series a DICOM Segmentation object refers to; null: the label map's own record, if any.
  const DicomSeriesComponent* dicomReference = nullptr;
};

// By extension; a folder, or a file with the DICOM mark and no known extension, is DICOM.
ImageFormat imageFormatOf(const std::string& path);
// The extension of a path as the formats name it: ".nii.gz", ".nrrd", ".seg.dcm", ...; empty
// if unknown.
std::string imageExtensionOf(const std::string& path);

// A DICOM folder with several series is refused; readDicomSeries picks one.
std::unique_ptr<SharedImageSet> readImage(const std::string& path, std::string* error = nullptr);
// Writes one-frame sets; a set of several frames is refused (write the frames one by one).
bool writeImage(const SharedImageSet& image, const std::string& path, std::string* error = nullptr,
                const WriteOptions& options = {});

// Turns a one-channel image into a label map: U8 as it is, other integer types when every
// value lies in 0..255. False with `error` otherwise.
bool markAsLabelMap(SharedImageSet& image, std::string* error = nullptr);

}  // namespace Merivane::IO
