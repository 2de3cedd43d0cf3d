#include "MeshSeeds.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <map>
#include <utility>

#include "Mesh.h"

namespace Merivane::Seg::internal {

namespace {

using Vec2 = Eigen::Vector2d;

// The edge function of the point p against the edge a -> b, with the endpoints taken in a
// fixed order so that the two faces sharing an edge get exactly opposite values, and zeros
// broken by moving p to (p.y + eps, p.z + eps²). Returns +1 or -1; 0 only for a point edge.
int edgeSign(const Vec2& a, const Vec2& b, const Vec2& p) {
  const bool swap = b[0] < a[0] || (b[0] == a[0] && b[1] < a[1]);
  const Vec2& u = swap ? b : a;
  const Vec2& v = swap ? a : b;
  const double e = (v[0] - u[0]) * (p[1] - u[1]) - (v[1] - u[1]) * (p[0] - u[0]);
  int s = 0;
  if (e > 0)
    s = 1;
  else if (e < 0)
    s = -1;
  else if (v[1] != u[1])
    s = v[1] - u[1] > 0 ? -1 : 1;
  else if (v[0] != u[0])
    s = v[0] - u[0] > 0 ? 1 : -1;
  return swap ? -s : s;
}

}  // namespace

int closeHoles(Mesh& mesh) {
  // Directed edges of the faces; a boundary edge has no face on its other side.
  std::map<std::pair<int, int>, int> directed;
  for (const auto& f : mesh.faces)
    for (int k = 0; k < 3; ++k) ++directed[{f[k], f[(k + 1) % 3]}];
  std::multimap<int, int> boundary;  // start -> end of each boundary edge
  for (const auto& [edge, count] : directed)
    if (!directed.count({edge.second, edge.first})) boundary.emplace(edge.first, edge.second);

  int loops = 0;
  while (!boundary.empty()) {
    std::vector<int> loop;
    auto it = boundary.begin();
    const int start = it->first;
    int current = start;
    while (it != boundary.end()) {
      loop.push_back(current);
      const int next = it->second;
      boundary.erase(it);
      current = next;
      if (current == start) break;
      it = boundary.find(current);
    }
    if (loop.size() < 2) continue;
    Eigen::Vector3f centre = Eigen::Vector3f::Zero();
    for (int v : loop) centre += mesh.vertices[static_cast<size_t>(v)];
    centre /= static_cast<float>(loop.size());
    const int c = static_cast<int>(mesh.vertices.size());
    mesh.vertices.push_back(centre);
    if (!mesh.normals.empty()) mesh.normals.push_back(Eigen::Vector3f::Zero());
    if (!mesh.colors.empty()) mesh.colors.push_back(mesh.colors[static_cast<size_t>(loop.front())]);
    // The loop follows its faces' edges; the fan uses them backwards, as a neighbour would.
    for (size_t k = 0; k < loop.size(); ++k) {
      const int a = loop[k], b = loop[(k + 1) % loop.size()];
      mesh.faces.emplace_back(b, a, c);
    }
    ++loops;
  }
  return loops;
}

std::unique_ptr<TypedImage<unsigned char>> rasterizeMesh(const std::vector<Eigen::Vector3d>& vertices,
                                                         const std::vector<Eigen::Vector3i>& faces,
                                                         const RasterGrid& grid) {
  const Eigen::Vector3i d = grid.dimensions;
  auto out = TypedImage<unsigned char>::zeros(d, 1);
  out->setSpacing(grid.spacing);
  // Vertices in voxel units of the grid.
  std::vector<Eigen::Vector3d> v(vertices.size());
  for (size_t i = 0; i < vertices.size(); ++i) v[i] = (vertices[i] - grid.origin).cwiseQuotient(grid.spacing);

  // Crossings of the ray of each row (y, z) with the surface, as x positions. Faces are walked
  // in order, so each row's list does not depend on the thread count.
  std::vector<std::vector<double>> rows(static_cast<size_t>(d[1]) * d[2]);
  const int nv = static_cast<int>(v.size());
  for (const auto& f : faces) {
    if (f[0] < 0 || f[1] < 0 || f[2] < 0 || f[0] >= nv || f[1] >= nv || f[2] >= nv) continue;
    const Eigen::Vector3d &a = v[static_cast<size_t>(f[0])], &b = v[static_cast<size_t>(f[1])],
                          &c = v[static_cast<size_t>(f[2])];
    const Vec2 A(a[1], a[2]), B(b[1], b[2]), C(c[1], c[2]);
    const double area = (B[0] - A[0]) * (C[1] - A[1]) - (B[1] - A[1]) * (C[0] - A[0]);
    if (area == 0.0) continue;  // seen edge-on
    const int y0 = std::max(static_cast<int>(std::ceil(std::min({A[0], B[0], C[0]}))), 0);
    const int y1 = std::min(static_cast<int>(std::floor(std::max({A[0], B[0], C[0]}))), d[1] - 1);
    const int z0 = std::max(static_cast<int>(std::ceil(std::min({A[1], B[1], C[1]}))), 0);
    const int z1 = std::min(static_cast<int>(std::floor(std::max({A[1], B[1], C[1]}))), d[2] - 1);
    for (int z = z0; z <= z1; ++z)
      for (int y = y0; y <= y1; ++y) {
        const Vec2 p(y, z);
        const int sa = edgeSign(B, C, p), sb = edgeSign(C, A, p), sc = edgeSign(A, B, p);
        if (sa == 0 || sa != sb || sb != sc) continue;
        // Barycentric weights from the exact edge functions (their signs already agree).
        const double wa = (C[0] - B[0]) * (p[1] - B[1]) - (C[1] - B[1]) * (p[0] - B[0]);
        const double wb = (A[0] - C[0]) * (p[1] - C[1]) - (A[1] - C[1]) * (p[0] - C[0]);
        const double wc = (B[0] - A[0]) * (p[1] - A[1]) - (B[1] - A[1]) * (p[0] - A[0]);
        const double sum = wa + wb + wc;
        const double x = sum != 0.0 ? (wa * a[0] + wb * b[0] + wc * c[0]) / sum : (a[0] + b[0] + c[0]) / 3.0;
        rows[static_cast<size_t>(z) * d[1] + y].push_back(x);
      }
  }

  unsigned char* o = out->pointer();
  const int rowCount = d[1] * d[2];
  // Each row writes only its own voxels.
#pragma omp parallel for schedule(dynamic, 64)
  for (int r = 0; r < rowCount; ++r) {
    std::vector<double>& xs = rows[static_cast<size_t>(r)];
    if (xs.empty()) continue;
    std::sort(xs.begin(), xs.end());
    // Voxel x is inside when an odd number of crossings lie at or before it.
    size_t passed = 0;
    for (int x = 0; x < d[0]; ++x) {
      while (passed < xs.size() && xs[passed] <= x) ++passed;
      if (passed % 2 == 1) o[static_cast<int64_t>(r) * d[0] + x] = 1;
    }
  }
  return out;
}

}  // namespace Merivane::Seg::internal
