#pragma once
// The fiducial text file: one fiducial per line, the centre's world coordinates "x y z"
// separated by single blanks and, optionally, the radius as a fourth number. Reading trims
// blanks, tabs, form feeds, vertical tabs, carriage returns and newlines from each line,
// skips lines that begin with "#" and lines that do not start with three numbers.
#include <string>
#include <vector>

#include "DataComponent.h"
#include "FiducialExtractionAlgorithm.h"

namespace Merivane {

// The radii of the fiducials whose centres a point set holds, in the same order.
class FiducialRadiiComponent : public DataComponent<FiducialRadiiComponent> {
 public:
  FiducialRadiiComponent() = default;
  explicit FiducialRadiiComponent(std::vector<double> radii) : radii(std::move(radii)) {}
  std::string id() const override { return "FiducialRadii"; }
  bool operator==(const FiducialRadiiComponent& o) const { return radii == o.radii; }

  std::vector<double> radii;
};

namespace FiducialFile {

using Fiducial = FiducialExtractionAlgorithm::Fiducial;

// One line per fiducial in the stream's default number format; with `withRadius` the radius
// follows the centre. Written to a temporary name and renamed, so that a failed write leaves
// any earlier file in place. False with `error` naming the file.
bool write(const std::string& path, const std::vector<Fiducial>& fiducials, bool withRadius,
           std::string* error = nullptr);

// The fiducials of a file; a line of three numbers gets `defaultRadius`. False with `error`
// naming the file when it cannot be read.
bool read(const std::string& path, double defaultRadius, std::vector<Fiducial>& fiducials,
          std::string* error = nullptr);

// The same on text already in memory.
std::vector<Fiducial> parse(const std::string& text, double defaultRadius);

// The list as the fiducial panel keeps it: sorted by centre z, descending (stable), and
// without any fiducial that overlaps its predecessor in that order (the sum of the two radii
// exceeds the distance of the centres). The predecessor counts whether it was kept or not,
// so only neighbours in z order are compared.
std::vector<Fiducial> sortedWithoutOverlaps(std::vector<Fiducial> fiducials);

}  // namespace FiducialFile

}  // namespace Merivane
