#include "InputChecks.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace Merivane {

std::string whyNotReadable(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) return "no such file";
    return std::string("cannot open (") + std::strerror(errno) + ")";
  }
  if (S_ISDIR(st.st_mode)) return "is a directory";
  // FIFOs block and devices never end (/dev/zero): only regular files are inputs.
  if (!S_ISREG(st.st_mode)) return "is not a regular file";
  return {};
}

bool readRegularFile(const std::string& path, std::string& out, std::string& why) {
  out.clear();
  why = whyNotReadable(path);
  if (!why.empty()) return false;
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) {
    why = std::string("cannot open (") + std::strerror(errno) + ")";
    return false;
  }
  char buffer[1 << 16];
  size_t got;
  while ((got = std::fread(buffer, 1, sizeof(buffer), f)) > 0) out.append(buffer, got);
  const bool failed = std::ferror(f) != 0;
  const int readErrno = errno;
  std::fclose(f);
  if (failed) {
    why = std::string("read error (") + std::strerror(readErrno) + ")";
    out.clear();
    return false;
  }
  return true;
}

std::string excerpt(std::string_view text, size_t limit) {
  std::string out;
  const size_t n = std::min(text.size(), limit);
  for (size_t i = 0; i < n; ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c >= 0x20 && c < 0x7f && c != '\\') {
      out += static_cast<char>(c);
    } else {
      char hex[8];
      std::snprintf(hex, sizeof(hex), "\\x%02X", c);
      out += hex;
    }
  }
  if (text.size() > limit) out += "...";
  return out;
}

}  // namespace Merivane
