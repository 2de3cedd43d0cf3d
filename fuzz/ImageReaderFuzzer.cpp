// One image reader per build of this file: FUZZ_EXTENSION picks it (".nii", ".nrrd", ".mha",
// ".png", ".dcm": a DICOM slice, multi-frame image or Segmentation object). A NIfTI input that starts as gzip is read as ".nii.gz". Every input must come back
// as an image or as null with one "FILE: problem" message; crashes, leaks and sanitizer
// reports are the failures.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "FuzzShim.h"
#include "ImageIO.h"
#include "SharedImageSet.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string extension = FUZZ_EXTENSION;
  if (extension == ".nii" && size >= 2 && data[0] == 0x1f && data[1] == 0x8b) extension = ".nii.gz";
  const std::string path = Merivane::Fuzz::inputFile(data, size, extension);
  std::string error;
  auto image = Merivane::IO::readImage(path, &error);
  if (!image && error.rfind("input", 0) != 0) std::abort();  // every failure names the file
  if (image && image->size() < 1) std::abort();
  if (error.size() > 400) std::abort();  // messages quote short excerpts, never the file
  return 0;
}
