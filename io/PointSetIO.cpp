#include "PointSetIO.h"

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "CsvIO.h"
#include "InputChecks.h"
#include "PointSet.h"

namespace fs = std::filesystem;

namespace Merivane::IO {

namespace {

// The numbers at the start of a line, fields split at ';', ',', blanks or tabs.
std::vector<double> leadingNumbers(const std::string& line, bool& allNumbers) {
  std::vector<double> out;
  allNumbers = true;
  std::string token;
  std::string normalised = line;
  for (char& c : normalised)
    if (c == ';' || c == ',' || c == '\t' || c == '\r') c = ' ';
  std::istringstream words(normalised);
  while (words >> token) {
    char* end = nullptr;
    const double v = std::strtod(token.c_str(), &end);
    if (end == token.c_str() || *end != '\0' || !std::isfinite(v)) {
      allNumbers = false;
      break;
    }
    out.push_back(v);
  }
  return out;
}

}  // namespace

bool isPointSetPath(const std::string& path) {
  std::string ext = fs::path(path).extension().string();
  for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return ext == ".csv";
}

std::unique_ptr<PointSet> readPointSet(const std::string& path, std::string* error) {
  std::string text, why;
  const std::string name = fs::path(path).filename().string();
  if (!readRegularFile(path, text, why)) {
    if (error) *error = name + ": " + why;
    return nullptr;
  }
  auto set = std::make_unique<PointSet>();
  set->setName(fs::path(path).stem().string());
  std::istringstream lines(text);
  std::string line;
  int number = 0;
  bool sawPoint = false;
  while (std::getline(lines, line)) {
    ++number;
    const size_t first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos || line[first] == '#') continue;
    bool allNumbers = false;
    const std::vector<double> v = leadingNumbers(line, allNumbers);
    if (v.size() < 3) {
      // A header line before the first point.
      if (!sawPoint && !allNumbers && v.empty()) continue;
      if (error) *error = name + ": line " + std::to_string(number) + " is not a point: '" + excerpt(line) + "'";
      return nullptr;
    }
    sawPoint = true;
    set->points().emplace_back(v[0], v[1], v[2]);
  }
  return set;
}

bool writePointSet(const PointSet& points, const std::string& path, std::string* error) {
  std::vector<CsvRow> rows;
  rows.reserve(points.points().size());
  for (const auto& p : points.points()) {
    CsvRow row;
    for (int k = 0; k < 3; ++k) {
      std::ostringstream s;
      s.precision(10);
      s << p[k];
      row.push_back(s.str());
    }
    rows.push_back(std::move(row));
  }
  return writeCsvFile(path, {"x", "y", "z"}, rows, error);
}

}  // namespace Merivane::IO
