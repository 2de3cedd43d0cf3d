#include "MeshProcessing.h"

#include <OpenMesh/Core/Mesh/TriMesh_ArrayKernelT.hh>
#include <OpenMesh/Tools/Decimater/DecimaterT.hh>
#include <OpenMesh/Tools/Decimater/ModQuadricT.hh>
#include <OpenMesh/Tools/Smoother/JacobiLaplaceSmootherT.hh>
#include <OpenMesh/Tools/Subdivider/Uniform/LoopT.hh>

#include <Eigen/Geometry>
#include <algorithm>
#include <cmath>
#include <numeric>
#include <unordered_map>
#include <vector>

#include "Mesh.h"

namespace Merivane::MeshProcessing {

namespace {

using OMesh = OpenMesh::TriMesh_ArrayKernelT<>;

// False when a face cannot be added (an edge with more than two faces, a flipped face).
bool toOpenMesh(const Mesh& in, OMesh& out) {
  if (!in.isValid()) return false;
  std::vector<OMesh::VertexHandle> vh;
  vh.reserve(in.vertices.size());
  for (const auto& v : in.vertices) vh.push_back(out.add_vertex(OMesh::Point(v.x(), v.y(), v.z())));
  for (const auto& f : in.faces) {
    if (f[0] == f[1] || f[1] == f[2] || f[0] == f[2]) continue;
    if (!out.add_face(vh[f[0]], vh[f[1]], vh[f[2]]).is_valid()) return false;
  }
  return true;
}

void fromOpenMesh(OMesh& in, Mesh& out, bool normals) {
  in.garbage_collection();
  out.vertices.clear();
  out.faces.clear();
  out.colors.clear();
  out.vertices.reserve(in.n_vertices());
  for (auto v : in.vertices()) {
    const auto& p = in.point(v);
    out.vertices.emplace_back(p[0], p[1], p[2]);
  }
  out.faces.reserve(in.n_faces());
  for (auto f : in.faces()) {
    Eigen::Vector3i tri;
    int i = 0;
    for (auto v : in.fv_range(f)) tri[i++] = v.idx();
    out.faces.push_back(tri);
  }
  out.normals.clear();
  if (normals) computeVertexNormals(out);
}

// Directed edge key: (from, to) packed into 64 bits.
uint64_t edgeKey(int a, int b) { return (static_cast<uint64_t>(static_cast<uint32_t>(a)) << 32) | static_cast<uint32_t>(b); }

}  // namespace

namespace Cleaning {

int mergeCloseVertices(Mesh& mesh, double tolerance, bool removeUnused) {
  const int n = static_cast<int>(mesh.vertices.size());
  if (n == 0) return 0;
  // Sort along x; candidates for a merge lie within `tolerance` in x.
  std::vector<int> order(n);
  std::iota(order.begin(), order.end(), 0);
  std::sort(order.begin(), order.end(), [&](int a, int b) {
    const auto& p = mesh.vertices[a];
    const auto& q = mesh.vertices[b];
    if (p.x() != q.x()) return p.x() < q.x();
    if (p.y() != q.y()) return p.y() < q.y();
    if (p.z() != q.z()) return p.z() < q.z();
    return a < b;
  });
  std::vector<int> target(n);
  std::iota(target.begin(), target.end(), 0);
  const double tol2 = tolerance * tolerance;
  int merged = 0;
  for (int i = 0; i < n; ++i) {
    const int a = order[i];
    if (target[a] != a) continue;
    for (int j = i + 1; j < n; ++j) {
      const int b = order[j];
      if (mesh.vertices[b].x() - mesh.vertices[a].x() > tolerance) break;
      if (target[b] != b) continue;
      if ((mesh.vertices[b] - mesh.vertices[a]).cast<double>().squaredNorm() <= tol2) {
        target[b] = a;  // equal positions sort by index, so `a` is the first of them
        ++merged;
      }
    }
  }
  // Chains resolve to their representative.
  for (int i = 0; i < n; ++i)
    while (target[target[i]] != target[i]) target[i] = target[target[i]];
  if (merged > 0) {
    std::vector<Eigen::Vector3i> faces;
    faces.reserve(mesh.faces.size());
    for (auto f : mesh.faces) {
      for (int k = 0; k < 3; ++k) f[k] = target[f[k]];
      if (f[0] != f[1] && f[1] != f[2] && f[0] != f[2]) faces.push_back(f);
    }
    mesh.faces.swap(faces);
  }
  if (removeUnused || merged > 0) {
    std::vector<int> used(n, 0);
    for (const auto& f : mesh.faces)
      for (int k = 0; k < 3; ++k) used[f[k]] = 1;
    if (!removeUnused)
      for (int i = 0; i < n; ++i) used[i] = used[i] || target[i] == i;
    std::vector<int> remap(n, -1);
    int m = 0;
    for (int i = 0; i < n; ++i)
      if (used[i]) remap[i] = m++;
    if (m != n) {
      auto compact = [&](auto& vec) {
        if (vec.size() != static_cast<size_t>(n)) return;
        for (int i = 0; i < n; ++i)
          if (remap[i] >= 0) vec[remap[i]] = vec[i];
        vec.resize(m);
      };
      compact(mesh.vertices);
      compact(mesh.normals);
      compact(mesh.colors);
      for (auto& f : mesh.faces)
        for (int k = 0; k < 3; ++k) f[k] = remap[f[k]];
    }
  }
  return merged;
}

}  // namespace Cleaning

void computeVertexNormals(Mesh& mesh) {
  std::vector<Eigen::Vector3d> acc(mesh.vertices.size(), Eigen::Vector3d::Zero());
  for (const auto& f : mesh.faces) {
    const Eigen::Vector3d a = mesh.vertices[f[0]].cast<double>(), b = mesh.vertices[f[1]].cast<double>(),
                          c = mesh.vertices[f[2]].cast<double>();
    const Eigen::Vector3d n = (b - a).cross(c - a);  // length is twice the area
    for (int k = 0; k < 3; ++k) acc[f[k]] += n;
  }
  mesh.normals.resize(mesh.vertices.size());
  for (size_t i = 0; i < acc.size(); ++i) {
    const double len = acc[i].norm();
    mesh.normals[i] = len > 0 ? Eigen::Vector3f((acc[i] / len).cast<float>()) : Eigen::Vector3f::Zero();
  }
}

bool simplify(Mesh& mesh, size_t targetFaces) {
  if (mesh.faces.size() <= targetFaces) return true;
  OMesh om;
  if (!toOpenMesh(mesh, om)) return false;
  OpenMesh::Decimater::DecimaterT<OMesh> decimater(om);
  OpenMesh::Decimater::ModQuadricT<OMesh>::Handle quadric;
  decimater.add(quadric);
  if (!decimater.initialize()) return false;
  decimater.decimate_to_faces(0, targetFaces);
  fromOpenMesh(om, mesh, mesh.hasNormals());
  return true;
}

bool subdivide(Mesh& mesh, int iterations) {
  if (iterations <= 0) return true;
  OMesh om;
  if (!toOpenMesh(mesh, om)) return false;
  OpenMesh::Subdivider::Uniform::LoopT<OMesh> loop;
  if (!loop.attach(om)) return false;
  const bool ok = loop(static_cast<size_t>(iterations));
  loop.detach();
  if (!ok) return false;
  fromOpenMesh(om, mesh, mesh.hasNormals());
  return true;
}

bool smooth(Mesh& mesh, int iterations) {
  if (iterations <= 0) return true;
  OMesh om;
  if (!toOpenMesh(mesh, om)) return false;
  // The smoother also reads the vertex count of the original, so it runs on the converted copy.
  const bool hadNormals = mesh.hasNormals();
  {
    OpenMesh::Smoother::JacobiLaplaceSmootherT<OMesh> smoother(om);
    smoother.initialize(OpenMesh::Smoother::JacobiLaplaceSmootherT<OMesh>::Tangential_and_Normal,
                        OpenMesh::Smoother::JacobiLaplaceSmootherT<OMesh>::C0);
    smoother.smooth(static_cast<unsigned int>(iterations));
  }
  // Faces and vertex numbering are untouched: copy positions back only, keeping colours.
  if (om.n_vertices() != mesh.vertices.size()) return false;
  for (auto v : om.vertices()) {
    const auto& p = om.point(v);
    mesh.vertices[v.idx()] = Eigen::Vector3f(p[0], p[1], p[2]);
  }
  if (hadNormals) computeVertexNormals(mesh);
  return true;
}

bool isClosedManifold(const Mesh& mesh) {
  if (!mesh.isValid() || mesh.faces.empty()) return false;
  std::unordered_map<uint64_t, int> directed;
  directed.reserve(mesh.faces.size() * 3);
  for (const auto& f : mesh.faces)
    for (int k = 0; k < 3; ++k) {
      const int a = f[k], b = f[(k + 1) % 3];
      if (a == b) return false;
      if (++directed[edgeKey(a, b)] > 1) return false;  // same direction twice: non-manifold or flipped
    }
  for (const auto& [key, count] : directed) {
    const int a = static_cast<int>(key >> 32), b = static_cast<int>(key & 0xffffffffu);
    if (!directed.count(edgeKey(b, a))) return false;
  }
  return true;
}

double Statistics::computeVolume(const Mesh& mesh) {
  if (!mesh.isValid() || mesh.faces.empty()) return 0.0;
  // Relative to the first vertex rather than the origin: the same sum, without the
  // cancellation of large terms far from the origin.
  const Eigen::Vector3d o = mesh.vertices.front().cast<double>();
  double sixTimes = 0.0;
  for (const auto& f : mesh.faces) {
    const Eigen::Vector3d a = mesh.vertices[static_cast<size_t>(f[0])].cast<double>() - o;
    const Eigen::Vector3d b = mesh.vertices[static_cast<size_t>(f[1])].cast<double>() - o;
    const Eigen::Vector3d c = mesh.vertices[static_cast<size_t>(f[2])].cast<double>() - o;
    sixTimes += a.dot(b.cross(c));
  }
  return sixTimes / 6.0;
}

long eulerCharacteristic(const Mesh& mesh) {
  std::unordered_map<uint64_t, int> edges;
  for (const auto& f : mesh.faces)
    for (int k = 0; k < 3; ++k) {
      const int a = std::min(f[k], f[(k + 1) % 3]), b = std::max(f[k], f[(k + 1) % 3]);
      edges[edgeKey(a, b)] = 1;
    }
  std::vector<char> used(mesh.vertices.size(), 0);
  for (const auto& f : mesh.faces)
    for (int k = 0; k < 3; ++k) used[f[k]] = 1;
  const long v = std::count(used.begin(), used.end(), 1);
  return v - static_cast<long>(edges.size()) + static_cast<long>(mesh.faces.size());
}

}  // namespace Merivane::MeshProcessing
