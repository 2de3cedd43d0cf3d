#pragma once
// Helpers shared by the benchmark programs: peak memory of a section and phantoms.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

namespace Merivane::Bench {

// Resets the kernel's peak-RSS mark of this process (Linux 4.0 and later).
inline void resetPeakMemory() {
  if (std::FILE* f = std::fopen("/proc/self/clear_refs", "w")) {
    std::fputs("5", f);
    std::fclose(f);
  }
}

// Peak resident memory since the last reset, in MiB.
inline double peakMemoryMiB() {
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line))
    if (line.rfind("VmHWM:", 0) == 0) return std::stod(line.substr(6)) / 1024.0;
  return 0.0;
}

inline double currentMemoryMiB() {
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line))
    if (line.rfind("VmRSS:", 0) == 0) return std::stod(line.substr(6)) / 1024.0;
  return 0.0;
}

}  // namespace Merivane::Bench
