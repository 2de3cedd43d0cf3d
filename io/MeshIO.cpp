#include "MeshIO.h"

#include <Eigen/Geometry>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <map>
#include <sstream>
#include <tuple>

#include "InputChecks.h"
#include "IoUtil.h"
#include "Mesh.h"

namespace Merivane::IO {

using namespace detail;

namespace {

template <typename T>
void put(std::string& out, T v) {
  out.append(reinterpret_cast<const char*>(&v), sizeof(T));
}

std::string plyBytes(const Mesh& mesh) {
  std::ostringstream h;
  h << "ply\nformat binary_little_endian 1.0\ncomment MerivaneSeg\n";
  h << "element vertex " << mesh.vertices.size() << "\nproperty float x\nproperty float y\nproperty float z\n";
  if (mesh.hasNormals()) h << "property float nx\nproperty float ny\nproperty float nz\n";
  if (mesh.hasColors()) h << "property uchar red\nproperty uchar green\nproperty uchar blue\nproperty uchar alpha\n";
  h << "element face " << mesh.faces.size() << "\nproperty list uchar int vertex_indices\nend_header\n";
  std::string out = h.str();
  for (size_t i = 0; i < mesh.vertices.size(); ++i) {
    for (int k = 0; k < 3; ++k) put(out, mesh.vertices[i][k]);
    if (mesh.hasNormals())
      for (int k = 0; k < 3; ++k) put(out, mesh.normals[i][k]);
    if (mesh.hasColors())
      for (int k = 0; k < 4; ++k)
        put(out, static_cast<unsigned char>(std::lround(std::clamp(mesh.colors[i][k], 0.0f, 1.0f) * 255.0f)));
  }
  for (const auto& f : mesh.faces) {
    put(out, static_cast<unsigned char>(3));
    for (int k = 0; k < 3; ++k) put(out, static_cast<int32_t>(f[k]));
  }
  return out;
}

std::string stlBytes(const Mesh& mesh) {
  std::string out(80, '\0');
  std::memcpy(out.data(), "MerivaneSeg binary STL", 22);
  put(out, static_cast<uint32_t>(mesh.faces.size()));
  for (const auto& f : mesh.faces) {
    const Eigen::Vector3f a = mesh.vertices[f[0]], b = mesh.vertices[f[1]], c = mesh.vertices[f[2]];
    Eigen::Vector3f n = (b - a).cross(c - a);
    if (n.norm() > 0) n.normalize();
    for (int k = 0; k < 3; ++k) put(out, n[k]);
    for (const auto* v : {&a, &b, &c})
      for (int k = 0; k < 3; ++k) put(out, (*v)[k]);
    put(out, static_cast<uint16_t>(0));
  }
  return out;
}

std::string objText(const Mesh& mesh) {
  std::ostringstream s;
  s.precision(9);
  s << "# MerivaneSeg\n";
  for (const auto& v : mesh.vertices) s << "v " << v[0] << " " << v[1] << " " << v[2] << "\n";
  const bool normals = mesh.hasNormals();
  if (normals)
    for (const auto& n : mesh.normals) s << "vn " << n[0] << " " << n[1] << " " << n[2] << "\n";
  for (const auto& f : mesh.faces) {
    s << "f";
    for (int k = 0; k < 3; ++k) {
      s << " " << f[k] + 1;
      if (normals) s << "//" << f[k] + 1;
    }
    s << "\n";
  }
  return s.str();
}

// Merges corners with equal coordinates, as STL repeats them per triangle.
struct VertexMerger {
  std::map<std::tuple<float, float, float>, int> index;
  Mesh* mesh;
  int add(const Eigen::Vector3f& v) {
    auto [it, inserted] = index.emplace(std::make_tuple(v[0], v[1], v[2]), static_cast<int>(mesh->vertices.size()));
    if (inserted) mesh->vertices.push_back(v);
    return it->second;
  }
};

bool readStl(const std::string& bytes, Mesh& mesh, std::string& why) {
  VertexMerger merge{{}, &mesh};
  if (bytes.size() >= 84) {
    uint32_t n;
    std::memcpy(&n, bytes.data() + 80, 4);
    if (84 + static_cast<size_t>(n) * 50 == bytes.size()) {
      for (uint32_t t = 0; t < n; ++t) {
        const char* p = bytes.data() + 84 + static_cast<size_t>(t) * 50 + 12;
        Eigen::Vector3i face;
        for (int c = 0; c < 3; ++c) {
          float v[3];
          std::memcpy(v, p + c * 12, 12);
          face[c] = merge.add(Eigen::Vector3f(v[0], v[1], v[2]));
        }
        mesh.faces.push_back(face);
      }
      return true;
    }
  }
  if (bytes.compare(0, 5, "solid") != 0) {
    why = "neither a binary STL of consistent length nor an ascii STL";
    return false;
  }
  std::istringstream in(bytes);
  std::string word;
  std::vector<int> corners;
  while (in >> word) {
    if (word == "vertex") {
      Eigen::Vector3f v;
      if (!(in >> v[0] >> v[1] >> v[2])) {
        why = "malformed vertex line";
        return false;
      }
      corners.push_back(merge.add(v));
    } else if (word == "endloop") {
      if (corners.size() != 3) {
        why = "a facet without three vertices";
        return false;
      }
      mesh.faces.emplace_back(corners[0], corners[1], corners[2]);
      corners.clear();
    }
  }
  return true;
}

// The leading whole number of an OBJ corner field ("12", "-3/4/5"); false when there is none
// or it does not fit in 64 bits.
bool objIndex(const char* first, const char* last, long long& out) {
  const auto [end, ec] = std::from_chars(first, last, out);
  return ec == std::errc() && end != first && (end == last || *end == '/');
}

bool readObj(const std::string& bytes, Mesh& mesh, std::string& why) {
  std::istringstream in(bytes);
  std::string line;
  std::vector<Eigen::Vector3f> normals;
  std::vector<int> normalOf;
  int lineNo = 0;
  while (std::getline(in, line)) {
    ++lineNo;
    std::istringstream l(line);
    std::string tag;
    l >> tag;
    if (tag == "v") {
      Eigen::Vector3f v;
      if (!(l >> v[0] >> v[1] >> v[2])) {
        why = "line " + std::to_string(lineNo) + ": malformed vertex";
        return false;
      }
      mesh.vertices.push_back(v);
    } else if (tag == "vn") {
      Eigen::Vector3f v;
      if (!(l >> v[0] >> v[1] >> v[2])) {
        why = "line " + std::to_string(lineNo) + ": malformed normal";
        return false;
      }
      normals.push_back(v);
    } else if (tag == "f") {
      std::vector<int> idx;
      std::string corner;
      while (l >> corner) {
        // Indices count from 1; negative ones count back from the last vertex so far.
        const long long count = static_cast<long long>(mesh.vertices.size());
        long long n = 0;
        const bool parsed = objIndex(corner.data(), corner.data() + corner.size(), n);
        const long long i = n < 0 ? count + n : n - 1;
        if (!parsed || n == 0 || i < 0 || i >= count) {
          why = "line " + std::to_string(lineNo) + ": face index '" + excerpt(corner) + "' out of range (" +
                std::to_string(count) + " vertices so far)";
          return false;
        }
        idx.push_back(static_cast<int>(i));
        const size_t slash = corner.rfind('/');
        long long nn = 0;
        if (slash != std::string::npos && corner.find('/') != slash && slash + 1 < corner.size() &&
            objIndex(corner.data() + slash + 1, corner.data() + corner.size(), nn)) {
          if (nn > 0 && nn <= static_cast<long long>(normals.size())) {
            normalOf.resize(mesh.vertices.size(), -1);
            normalOf[static_cast<size_t>(i)] = static_cast<int>(nn - 1);
          }
        }
      }
      if (idx.size() < 3) {
        why = "line " + std::to_string(lineNo) + ": a face needs three corners";
        return false;
      }
      for (size_t k = 1; k + 1 < idx.size(); ++k) mesh.faces.emplace_back(idx[0], idx[k], idx[k + 1]);
    }
  }
  if (!normals.empty() && normalOf.size() == mesh.vertices.size()) {
    mesh.normals.assign(mesh.vertices.size(), Eigen::Vector3f::Zero());
    for (size_t i = 0; i < normalOf.size(); ++i)
      if (normalOf[i] >= 0) mesh.normals[i] = normals[static_cast<size_t>(normalOf[i])];
  }
  return true;
}

bool readPly(const std::string& bytes, Mesh& mesh, std::string& why) {
  const size_t end = bytes.find("end_header\n");
  if (bytes.compare(0, 4, "ply\n") != 0 || end == std::string::npos) {
    why = "not a PLY file (no 'ply' magic or no end_header)";
    return false;
  }
  std::istringstream h(bytes.substr(0, end));
  std::string line, format;
  struct Element {
    std::string name;
    size_t count = 0;
    std::vector<std::pair<std::string, std::string>> props;  // name, type ("list" for the face list)
  };
  std::vector<Element> elements;
  while (std::getline(h, line)) {
    std::istringstream l(line);
    std::string w;
    l >> w;
    if (w == "format") l >> format;
    else if (w == "element") {
      Element e;
      l >> e.name >> e.count;
      if (e.count > 100000000) {
        why = "element count too large";
        return false;
      }
      elements.push_back(e);
    } else if (w == "property" && !elements.empty()) {
      std::string type, name;
      l >> type;
      if (type == "list") {
        std::string countType, itemType;
        l >> countType >> itemType >> name;
        elements.back().props.emplace_back(name, "list:" + countType + ":" + itemType);
      } else {
        l >> name;
        elements.back().props.emplace_back(name, type);
      }
    }
  }
  const bool ascii = format == "ascii";
  if (!ascii && format != "binary_little_endian") {
    why = "unsupported PLY format '" + excerpt(format) + "'";
    return false;
  }
  size_t pos = end + 11;
  std::istringstream text(ascii ? bytes.substr(pos) : std::string());
  auto sizeOf = [](const std::string& t) -> int {
    if (t == "char" || t == "uchar" || t == "int8" || t == "uint8") return 1;
    if (t == "short" || t == "ushort" || t == "int16" || t == "uint16") return 2;
    if (t == "int" || t == "uint" || t == "float" || t == "int32" || t == "uint32" || t == "float32") return 4;
    if (t == "double" || t == "float64") return 8;
    return 0;
  };
  bool truncated = false;
  auto readValue = [&](const std::string& t) -> double {
    if (ascii) {
      double v = 0;
      if (!(text >> v)) truncated = true;
      return v;
    }
    const int s = sizeOf(t);
    if (s == 0 || pos + static_cast<size_t>(s) > bytes.size()) {
      truncated = true;
      return 0;
    }
    const char* p = bytes.data() + pos;
    pos += static_cast<size_t>(s);
    if (t == "char" || t == "int8") return static_cast<signed char>(*p);
    if (t == "uchar" || t == "uint8") return static_cast<unsigned char>(*p);
    if (t == "short" || t == "int16") { int16_t v; std::memcpy(&v, p, 2); return v; }
    if (t == "ushort" || t == "uint16") { uint16_t v; std::memcpy(&v, p, 2); return v; }
    if (t == "int" || t == "int32") { int32_t v; std::memcpy(&v, p, 4); return v; }
    if (t == "uint" || t == "uint32") { uint32_t v; std::memcpy(&v, p, 4); return v; }
    if (t == "float" || t == "float32") { float v; std::memcpy(&v, p, 4); return v; }
    double v; std::memcpy(&v, p, 8); return v;
  };
  for (const auto& e : elements) {
    const bool isVertex = e.name == "vertex", isFace = e.name == "face";
    bool hasN = false, hasC = false;
    for (const auto& [n, t] : e.props) {
      hasN = hasN || n == "nx";
      hasC = hasC || n == "red";
    }
    if (e.props.empty() && e.count > 0) {
      why = "element '" + excerpt(e.name) + "' has no properties";
      return false;
    }
    for (size_t i = 0; i < e.count && !truncated; ++i) {
      Eigen::Vector3f v(0, 0, 0), nrm(0, 0, 0);
      Eigen::Vector4f c(1, 1, 1, 1);
      for (const auto& [n, t] : e.props) {
        if (t.rfind("list:", 0) == 0) {
          const size_t c2 = t.find(':', 5);
          const std::string countType = t.substr(5, c2 - 5), itemType = t.substr(c2 + 1);
          const double count = readValue(countType);
          if (!(count >= 0 && count <= 1000)) {
            why = "bad face size";
            return false;
          }
          std::vector<int> idx;
          for (int k = 0; k < static_cast<int>(count); ++k) {
            const double index = readValue(itemType);
            if (!(index >= 0 && index < 2147483647.0)) {
              why = "bad vertex index";
              return false;
            }
            idx.push_back(static_cast<int>(index));
          }
          if (isFace && (n == "vertex_indices" || n == "vertex_index"))
            for (size_t k = 1; k + 1 < idx.size(); ++k) mesh.faces.emplace_back(idx[0], idx[k], idx[k + 1]);
          continue;
        }
        const double val = readValue(t);
        if (!isVertex) continue;
        if (n == "x") v[0] = static_cast<float>(val);
        else if (n == "y") v[1] = static_cast<float>(val);
        else if (n == "z") v[2] = static_cast<float>(val);
        else if (n == "nx") nrm[0] = static_cast<float>(val);
        else if (n == "ny") nrm[1] = static_cast<float>(val);
        else if (n == "nz") nrm[2] = static_cast<float>(val);
        else if (n == "red") c[0] = static_cast<float>(val / 255.0);
        else if (n == "green") c[1] = static_cast<float>(val / 255.0);
        else if (n == "blue") c[2] = static_cast<float>(val / 255.0);
        else if (n == "alpha") c[3] = static_cast<float>(val / 255.0);
      }
      if (isVertex) {
        mesh.vertices.push_back(v);
        if (hasN) mesh.normals.push_back(nrm);
        if (hasC) mesh.colors.push_back(c);
      }
    }
    if (truncated) {
      why = "data is truncated in element '" + excerpt(e.name) + "'";
      return false;
    }
  }
  if (!mesh.isValid()) {
    why = "a face refers to a vertex that does not exist";
    return false;
  }
  return true;
}

}  // namespace

bool isMeshPath(const std::string& path) {
  const std::string p = toLower(path);
  return endsWith(p, ".ply") || endsWith(p, ".stl") || endsWith(p, ".obj");
}

std::unique_ptr<Mesh> readMesh(const std::string& path, std::string* error) {
  std::string bytes;
  if (!readFileBytes(path, bytes, error)) return nullptr;
  auto mesh = std::make_unique<Mesh>();
  const std::string p = toLower(path);
  std::string why;
  bool ok = false;
  try {
    if (endsWith(p, ".ply")) ok = readPly(bytes, *mesh, why);
    else if (endsWith(p, ".stl")) ok = readStl(bytes, *mesh, why);
    else if (endsWith(p, ".obj")) ok = readObj(bytes, *mesh, why);
    else why = "unsupported mesh type (known: .ply, .stl, .obj)";
  } catch (const std::exception& e) {
    why = e.what();
    ok = false;
  }
  if (!ok) {
    if (error) *error = baseName(path) + ": " + why;
    return nullptr;
  }
  const std::string name = baseName(path);
  mesh->setName(name.substr(0, name.find('.')));
  return mesh;
}

bool writeMesh(const Mesh& mesh, const std::string& path, std::string* error) {
  if (!mesh.isValid()) {
    if (error) *error = baseName(path) + ": the mesh refers to vertices that do not exist";
    return false;
  }
  const std::string p = toLower(path);
  std::string bytes;
  if (endsWith(p, ".ply")) bytes = plyBytes(mesh);
  else if (endsWith(p, ".stl")) bytes = stlBytes(mesh);
  else if (endsWith(p, ".obj")) bytes = objText(mesh);
  else {
    if (error) *error = baseName(path) + ": unsupported mesh type (known: .ply, .stl, .obj)";
    return false;
  }
  return writeFileAtomically(path, bytes, error);
}

}  // namespace Merivane::IO
