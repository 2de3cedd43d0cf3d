#include "FiducialFile.h"

#include <Eigen/Core>
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <unistd.h>

namespace fs = std::filesystem;

namespace Merivane::FiducialFile {

bool write(const std::string& path, const std::vector<Fiducial>& fiducials, bool withRadius, std::string* error) {
  const std::string name = fs::path(path).filename().string();
  const std::string tmp = path + ".tmp" + std::to_string(::getpid());
  {
    std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
    if (!out) {
      if (error) *error = name + ": cannot be opened for writing";
      return false;
    }
    for (const Fiducial& f : fiducials) {
      out << f.centre[0] << ' ' << f.centre[1] << ' ' << f.centre[2];
      if (withRadius) out << ' ' << f.radius;
      out << '\n';
    }
    out.flush();
    if (!out) {
      out.close();
      std::error_code ec;
      fs::remove(tmp, ec);
      if (error) *error = name + ": write failed";
      return false;
    }
  }
  std::error_code ec;
  fs::rename(tmp, path, ec);
  if (ec) {
    fs::remove(tmp, ec);
    if (error) *error = name + ": cannot be replaced";
    return false;
  }
  return true;
}

std::vector<Fiducial> parse(const std::string& text, double defaultRadius) {
  static const char* const kBlanks = " \t\f\v\r\n";
  std::vector<Fiducial> out;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    const size_t first = line.find_first_not_of(kBlanks);
    if (first == std::string::npos) continue;
    line = line.substr(first, line.find_last_not_of(kBlanks) - first + 1);
    if (line[0] == '#') continue;
    std::istringstream fields(line);
    Fiducial f;
    if (!(fields >> f.centre[0] >> f.centre[1] >> f.centre[2])) continue;
    double r = 0.0;
    f.radius = fields >> r ? r : defaultRadius;
    out.push_back(f);
  }
  return out;
}

std::vector<Fiducial> sortedWithoutOverlaps(std::vector<Fiducial> fiducials) {
  std::stable_sort(fiducials.begin(), fiducials.end(),
                   [](const Fiducial& a, const Fiducial& b) { return a.centre[2] > b.centre[2]; });
  std::vector<Fiducial> kept;
  for (size_t i = 0; i < fiducials.size(); ++i) {
    if (i > 0 && fiducials[i].radius + fiducials[i - 1].radius > (fiducials[i].centre - fiducials[i - 1].centre).norm())
      continue;
    kept.push_back(fiducials[i]);
  }
  return kept;
}

bool read(const std::string& path, double defaultRadius, std::vector<Fiducial>& fiducials, std::string* error) {
  const std::string name = fs::path(path).filename().string();
  std::error_code ec;
  if (!fs::is_regular_file(path, ec)) {
    if (error) *error = name + (fs::exists(path, ec) ? ": is not a regular file" : ": no such file");
    return false;
  }
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    if (error) *error = name + ": cannot be opened";
    return false;
  }
  std::ostringstream text;
  text << in.rdbuf();
  fiducials = parse(text.str(), defaultRadius);
  return true;
}

}  // namespace Merivane::FiducialFile
