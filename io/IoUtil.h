#pragma once
// Helpers shared by the format readers and writers of this folder; not part of the public
// interface.
#include <Eigen/Core>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Data.h"
#include "Image.h"

namespace Merivane {
class SharedImageSet;
}

namespace Merivane::IO::detail {

// The file name without its folders, for messages.
std::string baseName(const std::string& path);
// A reader's failure: sets `error` to "FILE: problem" and yields no image.
struct ReadFailure {
  std::string file;
  std::string* error;
  std::unique_ptr<SharedImageSet> operator()(const std::string& what) const;
};

// The whole file, or false with `error` naming the file and the problem ("is a directory",
// "is not a regular file", "no such file").
bool readFileBytes(const std::string& path, std::string& out, std::string* error);

// A temporary name beside `path` that keeps its extension (libraries choose the format by it)
// and carries the writer's process id: ".STEM.tmpPID-N.EXT". The first call for a folder
// removes the temporaries there whose process no longer runs (a killed run's leftovers).
std::string temporaryPathFor(const std::string& path);
// Removes our temporaries in `folder` whose writing process is gone; returns how many.
int removeStaleTemporaries(const std::string& folder);
// Writes `bytes` to a temporary name and renames it to `path`.
bool writeFileAtomically(const std::string& path, const std::string& bytes, std::string* error);
// Renames a finished temporary file into place, or removes it on failure.
bool commitTemporary(const std::string& tmp, const std::string& path, std::string* error);

// gzip (and zlib) streams. inflate detects the header; `expected` bytes are required exactly
// when it is not zero. Bytes after the stream are refused ("trailing data"), except further
// gzip members.
bool inflateBytes(const char* data, size_t size, std::string& out, size_t expected, std::string* error);
// gzip when `gzipHeader`, zlib otherwise.
bool deflateBytes(const void* data, size_t size, std::string& out, bool gzipHeader);

void swapBytes(void* data, size_t count, int elementSize);

std::string trim(const std::string& s);
std::string toLower(std::string s);
bool endsWith(const std::string& s, const std::string& suffix);
// Blank-separated numbers; false when any token is not a number.
bool parseNumbers(const std::string& text, std::vector<double>& out);

// Our matrix maps centred image millimetres to world; the formats give world from voxel index.
//   affine = matrix * scale(spacing) * translate(-(size * 0.5 - 0.5))
// Spacing is the length of each affine column; a zero column keeps `fallbackSpacing`.
Eigen::Matrix4d matrixFromIndexAffine(const Eigen::Matrix4d& affine, const Eigen::Vector3i& dims,
                                      Eigen::Vector3d& spacing, const Eigen::Vector3d& fallbackSpacing);
Eigen::Matrix4d indexAffineFromMatrix(const Eigen::Matrix4d& matrix, const Eigen::Vector3i& dims,
                                      const Eigen::Vector3d& spacing);

// Modality names as the files carry them ("CT", "LABEL", ...); modalityAny for unknown text.
const char* modalityName(Data::Modality m);
Data::Modality modalityFromName(const std::string& name);

// The key-value fields that carry what the pixel formats lack: "Modality", "Label<N>_Name",
// "Label<N>_Color" (r g b a in [0, 1]) and "ShiftScale" (shift scale).
std::vector<std::pair<std::string, std::string>> metadataOf(const SharedImageSet& set);
// Applies those fields; a one-channel U8 image marked LABEL becomes a label map.
void applyMetadata(SharedImageSet& set, const std::map<std::string, std::string>& fields);

// One frame with its matrix, as the readers return it.
std::unique_ptr<SharedImageSet> makeSet(std::shared_ptr<MemImage> image, const Eigen::Matrix4d& matrix,
                                        const std::string& path);

}  // namespace Merivane::IO::detail
