#include "Mesh.h"

#include <algorithm>
#include <sstream>

namespace Merivane {

Geometry::AlignedBox Mesh::bounds() const {
  Geometry::AlignedBox box;
  if (vertices.empty()) return box;
  for (int i = 0; i < 3; ++i) box.min[i] = box.max[i] = vertices.front()[i];
  for (const auto& v : vertices)
    for (int i = 0; i < 3; ++i) {
      box.min[i] = std::min<double>(box.min[i], v[i]);
      box.max[i] = std::max<double>(box.max[i], v[i]);
    }
  return box;
}

std::string Mesh::describe() const {
  std::ostringstream s;
  s << (name_.empty() ? "mesh" : name_) << " (" << vertices.size() << " vertices, " << faces.size() << " faces)";
  return s.str();
}

bool Mesh::isValid() const {
  const int n = static_cast<int>(vertices.size());
  for (const auto& f : faces)
    for (int i = 0; i < 3; ++i)
      if (f[i] < 0 || f[i] >= n) return false;
  if (!normals.empty() && normals.size() != vertices.size()) return false;
  if (!colors.empty() && colors.size() != vertices.size()) return false;
  return true;
}

}  // namespace Merivane
