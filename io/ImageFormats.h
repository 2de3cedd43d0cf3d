#pragma once
// The per-format entry points behind ImageIO; each takes one-frame sets.
#include <memory>
#include <string>

#include "ImageIO.h"

namespace Merivane::IO::detail {

std::unique_ptr<SharedImageSet> readNifti(const std::string& path, std::string* error);
bool writeNifti(const SharedImageSet& image, const std::string& path, std::string* error, const WriteOptions& options);
std::unique_ptr<SharedImageSet> readNrrd(const std::string& path, std::string* error);
bool writeNrrd(const SharedImageSet& image, const std::string& path, std::string* error, const WriteOptions& options);
std::unique_ptr<SharedImageSet> readMetaImage(const std::string& path, std::string* error);
bool writeMetaImage(const SharedImageSet& image, const std::string& path, std::string* error,
                    const WriteOptions& options);
std::unique_ptr<SharedImageSet> readPng(const std::string& path, std::string* error);
bool writePng(const SharedImageSet& image, const std::string& path, std::string* error);

}  // namespace Merivane::IO::detail
