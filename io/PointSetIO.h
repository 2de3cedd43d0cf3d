#pragma once
// Point sets as text: one point per line, "x;y;z" in world millimetres, under the header line
// "x;y;z". Reading also takes commas, blanks or tabs between the numbers, lines beginning
// with "#", a header line and blank lines; any further fields on a line are ignored.
#include <memory>
#include <string>

namespace Merivane {
class PointSet;
}

namespace Merivane::IO {

bool isPointSetPath(const std::string& path);
// Null with `error` naming the file and the line when the file cannot be read as points.
std::unique_ptr<PointSet> readPointSet(const std::string& path, std::string* error = nullptr);
// Through a temporary file; `error` names the file.
bool writePointSet(const PointSet& points, const std::string& path, std::string* error = nullptr);

}  // namespace Merivane::IO
