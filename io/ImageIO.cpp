#include "ImageIO.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>

#include "DicomIO.h"
#include "ImageFormats.h"
#include "InputChecks.h"
#include "IoUtil.h"
#include "LabelDataComponent.h"
#include "SharedImageSet.h"

namespace Merivane::IO {

using namespace detail;

std::string imageExtensionOf(const std::string& path) {
  const std::string p = toLower(path);
  for (const char* ext : {".nii.gz", ".nii", ".nrrd", ".nhdr", ".mha", ".mhd", ".png", ".seg.dcm", ".dcm"})
    if (endsWith(p, ext)) return ext;
  return "";
}

ImageFormat imageFormatOf(const std::string& path) {
  const std::string ext = imageExtensionOf(path);
  if (ext == ".nii" || ext == ".nii.gz") return ImageFormat::Nifti;
  if (ext == ".nrrd" || ext == ".nhdr") return ImageFormat::Nrrd;
  if (ext == ".mha" || ext == ".mhd") return ImageFormat::MetaImage;
  if (ext == ".png") return ImageFormat::Png;
  if (ext == ".seg.dcm" || ext == ".dcm") return ImageFormat::Dicom;
  std::error_code ec;
  if (ext.empty() && (std::filesystem::is_directory(path, ec) || isDicomPath(path))) return ImageFormat::Dicom;
  return ImageFormat::Unknown;
}

std::unique_ptr<SharedImageSet> readImage(const std::string& path, std::string* error) {
  // A folder is a DICOM series; the DICOM reader names its own problems.
  if (imageFormatOf(path) == ImageFormat::Dicom) return readDicomSeries(path, "", error);
  if (const std::string why = whyNotReadable(path); !why.empty()) {
    if (error) *error = baseName(path) + ": " + why;
    return nullptr;
  }
  try {
    switch (imageFormatOf(path)) {
      case ImageFormat::Nifti: return readNifti(path, error);
      case ImageFormat::Nrrd: return readNrrd(path, error);
      case ImageFormat::MetaImage: return readMetaImage(path, error);
      case ImageFormat::Png: return readPng(path, error);
      case ImageFormat::Dicom:
      case ImageFormat::Unknown: break;
    }
  } catch (const std::bad_alloc&) {
    if (error) *error = baseName(path) + ": not enough memory for the image its header describes";
    return nullptr;
  } catch (const std::exception& e) {
    if (error) *error = baseName(path) + ": " + e.what();
    return nullptr;
  }
  if (error) *error = baseName(path) + ": unsupported file type (known: .nii, .nii.gz, .nrrd, .nhdr, .mha, .mhd, .png, .dcm or a DICOM folder)";
  return nullptr;
}

bool writeImage(const SharedImageSet& image, const std::string& path, std::string* error,
                const WriteOptions& options) {
  if (image.size() != 1 || !image.mem(0)) {
    if (error)
      *error = baseName(path) + ": can write a set of exactly one frame, this one has " + std::to_string(image.size());
    return false;
  }
  try {
    switch (imageFormatOf(path)) {
      case ImageFormat::Nifti: return writeNifti(image, path, error, options);
      case ImageFormat::Nrrd: return writeNrrd(image, path, error, options);
      case ImageFormat::MetaImage: return writeMetaImage(image, path, error, options);
      case ImageFormat::Png: return writePng(image, path, error);
      case ImageFormat::Dicom: return writeDicomSegmentation(image, path, options.dicomReference, error);
      case ImageFormat::Unknown: break;
    }
  } catch (const std::exception& e) {
    if (error) *error = baseName(path) + ": " + e.what();
    return false;
  }
  if (error) *error = baseName(path) + ": unsupported file type for writing";
  return false;
}

bool markAsLabelMap(SharedImageSet& image, std::string* error) {
  for (int i = 0; i < image.size(); ++i) {
    SharedImage* frame = image.get(i);
    const MemImage* m = frame->mem();
    if (!m || m->channels() != 1) {
      if (error) *error = image.name() + ": a label map has one channel";
      return false;
    }
    if (m->type() == U8) continue;
    auto u8 = TypedImage<unsigned char>::create(m->descriptor().dimensions, 1);
    u8->setSpacing(m->spacing(), m->isMetric());
    bool fits = true;
    dispatchPixelType(m->type(), [&](auto tag) {
      using T = decltype(tag);
      const T* p = static_cast<const T*>(m->data());
      const size_t n = m->descriptor().pixelCount();
      for (size_t k = 0; k < n && fits; ++k) {
        const double v = static_cast<double>(p[k]);
        fits = v >= 0 && v <= 255 && v == std::floor(v);
        if (fits) u8->pointer()[k] = static_cast<unsigned char>(v);
      }
    });
    if (!fits) {
      if (error) *error = image.name() + ": values outside 0..255 or not whole numbers cannot be labels";
      return false;
    }
    frame->update(*u8);
    frame->setDirtyMem();
  }
  image.setModality(Data::LABEL);
  image.components().getOrCreate<LabelDataComponent>(&image)->detectLabels(image);
  return true;
}

}  // namespace Merivane::IO
