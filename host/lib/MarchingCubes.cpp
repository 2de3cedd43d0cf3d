#include "MarchingCubes.h"

#include <omp.h>

#include <Eigen/Geometry>
#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

#include "Mesh.h"

namespace Merivane::MarchingCubes {

namespace {

// Corner i of a cell sits at (i & 1, (i >> 1) & 1, (i >> 2) & 1).
constexpr int cornerOffset(int corner, int axis) { return (corner >> axis) & 1; }

struct CubeEdge {
  int corner;  // the end with the lower coordinate
  int axis;
};

// The triangle table, built once from the faces of the cube rather than typed in: on each
// face the crossing points are joined so that every corner above the iso-value is cut off on
// its own side. Two cells sharing a face see the same four corners and join the same points,
// so no hole opens between them. The joined pieces form closed loops round the cube. A loop
// is fanned from one of its points unless every fan would draw a diagonal between two points
// of one face (possible only next to an ambiguous face): the cell across that face could draw
// the same diagonal, and the edge would then have four triangles. Such a loop gets a centre
// vertex instead, and every edge of the surface keeps exactly two triangles.
struct Tables {
  static constexpr int kMaxTriangles = 12;
  std::array<CubeEdge, 12> edges{};
  // Vertex slots 0..11 are cube edges, 12 + k the centre of loop k.
  std::array<std::array<signed char, 3 * kMaxTriangles>, 256> triangles{};
  std::array<unsigned char, 256> triangleCount{};
  std::array<unsigned char, 256> centreCount{};
  std::array<std::array<uint16_t, 4>, 256> centreLoops{};  // edge bit masks of the centred loops

  Tables() {
    int n = 0;
    for (int c = 0; c < 8; ++c)
      for (int a = 0; a < 3; ++a)
        if (!((c >> a) & 1)) edges[n++] = {c, a};
    auto edgeOf = [&](int c0, int c1) {
      const int lo = std::min(c0, c1), axisBit = c0 ^ c1;
      for (int e = 0; e < 12; ++e)
        if (edges[e].corner == lo && (1 << edges[e].axis) == axisBit) return e;
      return -1;
    };
    // Faces: corners counter-clockwise seen from outside the cell.
    std::array<std::array<int, 4>, 6> faces{};
    std::array<uint16_t, 6> faceEdges{};
    int f = 0;
    for (int d = 0; d < 3; ++d)
      for (int side = 0; side < 2; ++side) {
        const int u = (d + 1) % 3, v = (d + 2) % 3;
        std::vector<std::pair<double, int>> byAngle;
        for (int c = 0; c < 8; ++c) {
          if (cornerOffset(c, d) != side) continue;
          double cu = cornerOffset(c, u) - 0.5, cv = cornerOffset(c, v) - 0.5;
          if (side == 0) std::swap(cu, cv);  // outward normal is -d: mirror the frame
          byAngle.push_back({std::atan2(cv, cu), c});
        }
        std::sort(byAngle.begin(), byAngle.end());
        for (int k = 0; k < 4; ++k) faces[f][k] = byAngle[k].second;
        for (int k = 0; k < 4; ++k) faceEdges[f] |= static_cast<uint16_t>(1u << edgeOf(faces[f][k], faces[f][(k + 1) % 4]));
        ++f;
      }
    auto shareFace = [&](int e0, int e1) {
      for (uint16_t m : faceEdges)
        if ((m >> e0 & 1) && (m >> e1 & 1)) return true;
      return false;
    };
    for (int cas = 0; cas < 256; ++cas) {
      auto above = [&](int c) { return (cas >> c) & 1; };
      std::array<int, 12> next;
      next.fill(-1);
      for (const auto& face : faces)
        for (int k = 0; k < 4; ++k) {
          const int ck = face[k], ck1 = face[(k + 1) % 4];
          if (!above(ck) || above(ck1)) continue;
          // Leaving the above region at edge k: walk back over above corners to where we entered.
          int j = k;
          while (above(face[(j + 3) % 4])) j = (j + 3) % 4;
          const int entry = edgeOf(face[(j + 3) % 4], face[j]);
          next[entry] = edgeOf(ck, ck1);
        }
      std::array<bool, 12> used{};
      int t = 0, centres = 0;
      auto addTriangle = [&](int a, int b, int c) {
        triangles[cas][3 * t] = static_cast<signed char>(a);
        triangles[cas][3 * t + 1] = static_cast<signed char>(b);
        triangles[cas][3 * t + 2] = static_cast<signed char>(c);
        ++t;
      };
      for (int start = 0; start < 12; ++start) {
        if (next[start] < 0 || used[start]) continue;
        std::vector<int> loop;
        for (int e = start; !used[e]; e = next[e]) {
          used[e] = true;
          loop.push_back(e);
        }
        const int m = static_cast<int>(loop.size());
        int apex = -1;
        for (int a = 0; a < m && apex < 0; ++a) {
          bool ok = true;
          for (int i = 2; i + 1 < m && ok; ++i) ok = !shareFace(loop[a], loop[(a + i) % m]);
          if (ok) apex = a;
        }
        if (apex >= 0) {
          for (int i = 1; i + 1 < m; ++i) addTriangle(loop[apex], loop[(apex + i) % m], loop[(apex + i + 1) % m]);
        } else {
          uint16_t mask = 0;
          for (int e : loop) mask |= static_cast<uint16_t>(1u << e);
          centreLoops[cas][centres] = mask;
          for (int i = 0; i < m; ++i) addTriangle(loop[i], loop[(i + 1) % m], 12 + centres);
          ++centres;
        }
      }
      triangleCount[cas] = static_cast<unsigned char>(t);
      centreCount[cas] = static_cast<unsigned char>(centres);
    }
    // Orientation: in case 1 (corner 0 alone above) the normal must point away from corner 0,
    // towards lower values. Flip every triangle if the loops came out the other way round.
    auto mid = [&](int e) {
      Eigen::Vector3d p;
      for (int a = 0; a < 3; ++a) p[a] = cornerOffset(edges[e].corner, a) + (a == edges[e].axis ? 0.5 : 0.0);
      return p;
    };
    const auto& t1 = triangles[1];
    const Eigen::Vector3d nrm = (mid(t1[1]) - mid(t1[0])).cross(mid(t1[2]) - mid(t1[0]));
    if (nrm.dot(Eigen::Vector3d(1, 1, 1)) < 0)
      for (auto& tri : triangles)
        for (int i = 0; i < kMaxTriangles; ++i) std::swap(tri[3 * i + 1], tri[3 * i + 2]);
  }
};

const Tables& tables() {
  static const Tables t;
  return t;
}

template <typename T>
class Extractor {
 public:
  Extractor(const TypedImage<T>& image, const TypedImage<unsigned char>* mask, float iso, bool above,
            const Eigen::Vector3i& origin)
      : data_(image.pointer()),
        mask_(mask ? mask->pointer() : nullptr),
        w_(image.width()),
        h_(image.height()),
        d_(image.slices()),
        channels_(image.channels()),
        maskChannels_(mask ? mask->channels() : 1),
        iso_(iso),
        above_(above),
        origin_(origin) {}

  std::unique_ptr<Mesh> run() {
    const size_t plane = static_cast<size_t>(w_) * h_;
    std::vector<size_t> vertexCount(d_ + 1, 0), faceCount(d_ + 1, 0), centreCount(d_ + 1, 0);
    const int threads = d_ >= 9 ? omp_get_max_threads() : 1;
    const Tables& tab = tables();

    // Pass 1: count the vertices owned by each point plane and the triangles of each cell layer.
#pragma omp parallel num_threads(threads)
    {
      std::vector<unsigned char> c0(plane), c1(plane);
#pragma omp for schedule(static)
      for (int z = 0; z < d_; ++z) {
        classify(z, c0);
        if (z + 1 < d_) classify(z + 1, c1);
        size_t verts = 0, tris = 0, centres = 0;
        for (int y = 0; y < h_; ++y)
          for (int x = 0; x < w_; ++x) {
            const size_t i = static_cast<size_t>(y) * w_ + x;
            if (x + 1 < w_) verts += c0[i] != c0[i + 1];
            if (y + 1 < h_) verts += c0[i] != c0[i + w_];
            if (z + 1 < d_) verts += c0[i] != c1[i];
          }
        if (z + 1 < d_)
          for (int y = 0; y + 1 < h_; ++y)
            for (int x = 0; x + 1 < w_; ++x) {
              const int cas = caseOf(c0, c1, x, y);
              tris += tab.triangleCount[cas];
              centres += tab.centreCount[cas];
            }
        vertexCount[z + 1] = verts;
        faceCount[z + 1] = tris;
        centreCount[z + 1] = centres;
      }
    }
    for (int z = 0; z < d_; ++z) {
      vertexCount[z + 1] += vertexCount[z];
      faceCount[z + 1] += faceCount[z];
      centreCount[z + 1] += centreCount[z];
    }
    if (faceCount[d_] == 0) return nullptr;

    auto mesh = std::make_unique<Mesh>();
    // Loop centres follow the edge vertices, layer by layer.
    const size_t edgeVertices = vertexCount[d_];
    mesh->vertices.resize(edgeVertices + centreCount[d_]);
    mesh->faces.resize(faceCount[d_]);

    // Pass 2: each thread takes a run of layers; vertex numbers are canonical (plane, row,
    // column, axis), so a plane's numbers come out the same whichever thread computes them,
    // and only the plane's own layer writes its vertices.
    const int chunks = threads;
#pragma omp parallel for schedule(static, 1) num_threads(threads)
    for (int chunk = 0; chunk < chunks; ++chunk) {
      const int zBegin = static_cast<int>(static_cast<long>(d_) * chunk / chunks);
      const int zEnd = static_cast<int>(static_cast<long>(d_) * (chunk + 1) / chunks);
      if (zBegin >= zEnd) continue;
      // Classes of planes z, z + 1 and z + 2 roll through three buffers.
      std::vector<unsigned char> a(plane), b(plane), c(plane);
      std::vector<int> ia(3 * plane, -1), ib(3 * plane, -1);
      classify(zBegin, a);
      if (zBegin + 1 < d_) classify(zBegin + 1, b);
      for (int z = zBegin; z < zEnd; ++z) {
        const bool hasNext = z + 1 < d_, hasNextNext = z + 2 < d_;
        if (hasNextNext) classify(z + 2, c);
        if (z == zBegin) number(z, a, hasNext ? &b : nullptr, ia, vertexCount[z], mesh.get(), true);
        if (hasNext) {
          // Plane z + 1 is written by this chunk only when it is the chunk's own plane.
          number(z + 1, b, hasNextNext ? &c : nullptr, ib, vertexCount[z + 1], mesh.get(), z + 1 < zEnd);
          emitLayer(z, a, b, ia, ib, mesh.get(), faceCount[z], edgeVertices + centreCount[z]);
        }
        std::swap(a, b);
        std::swap(b, c);
        std::swap(ia, ib);
      }
    }
    return mesh;
  }

 private:
  bool aboveAt(size_t i) const {
    if (mask_ && !mask_[i * maskChannels_]) return !above_;
    const float v = static_cast<float>(data_[i * channels_]);
    return above_ ? v > iso_ : !(v < iso_);
  }
  void classify(int z, std::vector<unsigned char>& out) const {
    const size_t base = static_cast<size_t>(z) * w_ * h_;
    for (size_t i = 0; i < out.size(); ++i) out[i] = aboveAt(base + i);
  }
  int caseOf(const std::vector<unsigned char>& c0, const std::vector<unsigned char>& c1, int x, int y) const {
    const size_t i = static_cast<size_t>(y) * w_ + x;
    return c0[i] | (c0[i + 1] << 1) | (c0[i + w_] << 2) | (c0[i + w_ + 1] << 3) | (c1[i] << 4) | (c1[i + 1] << 5) |
           (c1[i + w_] << 6) | (c1[i + w_ + 1] << 7);
  }
  float value(size_t i) const { return static_cast<float>(data_[i * channels_]); }
  float interpolate(size_t a, size_t b) const {
    const float va = value(a), vb = value(b);
    float t = 0.5f;
    if (va != vb) {
      const float s = (iso_ - va) / (vb - va);
      if (s >= 0.f && s <= 1.f) t = s;  // masked corners may not straddle the level
    }
    // Off the corners, so that the vertices round one corner stay distinct.
    return std::clamp(t, 1e-4f, 1.f - 1e-4f);
  }
  // Numbers the crossings owned by plane z (and writes their positions when `write`).
  void number(int z, const std::vector<unsigned char>& c0, const std::vector<unsigned char>* c1, std::vector<int>& idx,
              size_t first, Mesh* mesh, bool write) const {
    const size_t plane = static_cast<size_t>(w_) * h_, base = plane * z;
    int n = static_cast<int>(first);
    for (int y = 0; y < h_; ++y)
      for (int x = 0; x < w_; ++x) {
        const size_t i = static_cast<size_t>(y) * w_ + x;
        const size_t nb[3] = {i + 1, i + w_, i};
        const bool ok[3] = {x + 1 < w_ && c0[i] != c0[i + 1], y + 1 < h_ && c0[i] != c0[i + w_],
                            c1 && c0[i] != (*c1)[i]};
        for (int a = 0; a < 3; ++a) {
          if (!ok[a]) {
            idx[3 * i + a] = -1;
            continue;
          }
          idx[3 * i + a] = n;
          if (write) {
            const size_t other = a == 2 ? base + plane + i : base + nb[a];
            const float t = interpolate(base + i, other);
            Eigen::Vector3f p = (Eigen::Vector3i(x, y, z) + origin_).cast<float>();
            p[a] += t;
            mesh->vertices[n] = p;
          }
          ++n;
        }
      }
  }
  void emitLayer(int z, const std::vector<unsigned char>& c0, const std::vector<unsigned char>& c1,
                 const std::vector<int>& i0, const std::vector<int>& i1, Mesh* mesh, size_t first,
                 size_t firstCentre) const {
    const Tables& tab = tables();
    size_t f = first;
    for (int y = 0; y + 1 < h_; ++y)
      for (int x = 0; x + 1 < w_; ++x) {
        const int cas = caseOf(c0, c1, x, y);
        const int nt = tab.triangleCount[cas];
        if (!nt) continue;
        int vert[12];
        for (int e = 0; e < 12; ++e) {
          const auto& ce = tab.edges[e];
          const int px = x + cornerOffset(ce.corner, 0), py = y + cornerOffset(ce.corner, 1);
          const auto& ids = cornerOffset(ce.corner, 2) ? i1 : i0;
          vert[e] = ids[3 * (static_cast<size_t>(py) * w_ + px) + ce.axis];
        }
        int slot[16];
        std::copy(vert, vert + 12, slot);
        for (int k = 0; k < tab.centreCount[cas]; ++k) {
          // The mean of the loop's points, placed as the points themselves are.
          Eigen::Vector3f sum = Eigen::Vector3f::Zero();
          int count = 0;
          for (int e = 0; e < 12; ++e) {
            if (!(tab.centreLoops[cas][k] >> e & 1)) continue;
            const auto& ce = tab.edges[e];
            Eigen::Vector3i p(x + cornerOffset(ce.corner, 0), y + cornerOffset(ce.corner, 1), z + cornerOffset(ce.corner, 2));
            const size_t ia = (static_cast<size_t>(p[2]) * h_ + p[1]) * w_ + p[0];
            Eigen::Vector3i q = p;
            ++q[ce.axis];
            const size_t ib = (static_cast<size_t>(q[2]) * h_ + q[1]) * w_ + q[0];
            Eigen::Vector3f pos = (p + origin_).cast<float>();
            pos[ce.axis] += interpolate(ia, ib);
            sum += pos;
            ++count;
          }
          mesh->vertices[firstCentre] = sum / static_cast<float>(count);
          slot[12 + k] = static_cast<int>(firstCentre++);
        }
        const auto& tri = tab.triangles[cas];
        for (int t = 0; t < nt; ++t) {
          // Below the level the inside is the other region: wind the other way.
          if (above_)
            mesh->faces[f++] = Eigen::Vector3i(slot[tri[3 * t]], slot[tri[3 * t + 1]], slot[tri[3 * t + 2]]);
          else
            mesh->faces[f++] = Eigen::Vector3i(slot[tri[3 * t]], slot[tri[3 * t + 2]], slot[tri[3 * t + 1]]);
        }
      }
  }

  const T* data_;
  const unsigned char* mask_;
  int w_, h_, d_, channels_, maskChannels_;
  float iso_;
  bool above_;
  Eigen::Vector3i origin_;
};

}  // namespace

template <typename T>
std::unique_ptr<Mesh> computeIsosurface(const TypedImage<T>* image, const TypedImage<unsigned char>* mask,
                                        float isoValue, bool thresholdAbove, const Eigen::Vector3i& origin) {
  if (!image || !image->pointer() || !std::isfinite(isoValue)) return nullptr;
  if (image->width() < 2 || image->height() < 2 || image->slices() < 2) return nullptr;
  if (mask && (mask->dimensions() != image->dimensions() || !mask->pointer())) return nullptr;
  return Extractor<T>(*image, mask, isoValue, thresholdAbove, origin).run();
}

std::unique_ptr<Mesh> computeIsosurface(const MemImage* image, const TypedImage<unsigned char>* mask, float isoValue,
                                        bool thresholdAbove, const Eigen::Vector3i& origin) {
  std::unique_ptr<Mesh> result;
  if (!image) return result;
  dispatchPixelType(image->type(), [&](auto tag) {
    using T = decltype(tag);
    result = computeIsosurface<T>(dynamic_cast<const TypedImage<T>*>(image), mask, isoValue, thresholdAbove, origin);
  });
  return result;
}

#define MERIVANE_MC_INSTANTIATE(T)                                                                     \
  template std::unique_ptr<Mesh> computeIsosurface<T>(const TypedImage<T>*, const TypedImage<unsigned char>*, \
                                                      float, bool, const Eigen::Vector3i&);
MERIVANE_MC_INSTANTIATE(char)
MERIVANE_MC_INSTANTIATE(unsigned char)
MERIVANE_MC_INSTANTIATE(short)
MERIVANE_MC_INSTANTIATE(unsigned short)
MERIVANE_MC_INSTANTIATE(int)
MERIVANE_MC_INSTANTIATE(unsigned int)
MERIVANE_MC_INSTANTIATE(float)
MERIVANE_MC_INSTANTIATE(double)
#undef MERIVANE_MC_INSTANTIATE

}  // namespace Merivane::MarchingCubes
