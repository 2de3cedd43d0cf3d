#pragma once
// What the fuzz targets share: the readers take paths, so each input is written to a file in
// a private scratch folder (in memory where /dev/shm exists) and read back through the real
// entry point, extension and all.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "Log.h"

namespace Merivane::Fuzz {

inline const std::string& scratchFolder() {
  static const std::string folder = [] {
    // Warnings about damaged inputs are expected by the thousand; keep the fuzzer's output readable.
    Log::g_globalLevel = Log::Error;
    std::string pattern = (access("/dev/shm", W_OK) == 0 ? std::string("/dev/shm") : std::string("/tmp")) +
                          "/merivane-fuzz-XXXXXX";
    if (!mkdtemp(pattern.data())) {
      std::perror("mkdtemp");
      std::abort();
    }
    return pattern;
  }();
  return folder;
}

// Writes the input to scratch/input.EXT and returns the path.
inline std::string inputFile(const uint8_t* data, size_t size, const std::string& extension) {
  const std::string path = scratchFolder() + "/input" + extension;
  FILE* f = std::fopen(path.c_str(), "wb");
  if (!f || (size > 0 && std::fwrite(data, 1, size, f) != size)) std::abort();
  std::fclose(f);
  return path;
}

}  // namespace Merivane::Fuzz
