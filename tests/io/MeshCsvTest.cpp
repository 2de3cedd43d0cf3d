#include <gtest/gtest.h>

#include "CsvIO.h"
#include "IoTestUtil.h"
#include "Mesh.h"
#include "MeshIO.h"

using namespace Merivane;

namespace {

// A tetrahedron with normals and colours.
Mesh tetrahedron() {
  Mesh m;
  m.vertices = {{0, 0, 0}, {1.5f, 0, 0}, {0, 2.25f, 0}, {0, 0, -3}};
  m.faces = {{0, 2, 1}, {0, 1, 3}, {0, 3, 2}, {1, 2, 3}};
  for (const auto& v : m.vertices) m.normals.push_back(v.norm() > 0 ? Eigen::Vector3f(v.normalized()) : Eigen::Vector3f(0, 0, 1));
  m.colors = {{1, 0, 0, 1}, {0, 1, 0, 1}, {0, 0, 1, 1}, {1, 1, 1, 0}};
  return m;
}

class MeshRoundTrip : public testing::TestWithParam<const char*> {};

TEST_P(MeshRoundTrip, KeepsVerticesAndFaces) {
  TestKit::ScratchDir dir;
  const Mesh in = tetrahedron();
  const std::string path = dir.file(std::string("tet") + GetParam());
  std::string error;
  ASSERT_TRUE(IO::writeMesh(in, path, &error)) << error;
  auto out = IO::readMesh(path, &error);
  ASSERT_TRUE(out) << error;
  ASSERT_EQ(out->vertices.size(), in.vertices.size());
  ASSERT_EQ(out->faces.size(), in.faces.size());
  // Formats may renumber vertices (STL repeats them per triangle); compare triangles by corners.
  for (size_t f = 0; f < in.faces.size(); ++f) {
    for (int k = 0; k < 3; ++k) {
      const Eigen::Vector3f a = out->vertices[out->faces[f][k]], b = in.vertices[in.faces[f][k]];
      EXPECT_LT((a - b).norm(), 1e-6f) << "face " << f << " corner " << k;
    }
  }
  const std::string ext = GetParam();
  if (ext != ".stl") {
    EXPECT_TRUE(out->hasNormals());
  }
  if (ext == ".ply") {
    ASSERT_TRUE(out->hasColors());
    EXPECT_TRUE(out->colors[3].isApprox(Eigen::Vector4f(1, 1, 1, 0)));
  }
}

INSTANTIATE_TEST_SUITE_P(Formats, MeshRoundTrip, testing::Values(".ply", ".stl", ".obj"));

TEST(MeshIO, ReadsAsciiPlyAndStlAndFansObjPolygons) {
  TestKit::ScratchDir dir;
  TestKit::writeBytes(dir.file("quad.ply"), "ply\nformat ascii 1.0\nelement vertex 4\nproperty float x\nproperty float y\n"
                                            "property float z\nelement face 1\nproperty list uchar int vertex_indices\n"
                                            "end_header\n0 0 0\n1 0 0\n1 1 0\n0 1 0\n4 0 1 2 3\n");
  std::string error;
  auto ply = IO::readMesh(dir.file("quad.ply"), &error);
  ASSERT_TRUE(ply) << error;
  EXPECT_EQ(ply->faces.size(), 2u);
  TestKit::writeBytes(dir.file("tri.stl"), "solid t\nfacet normal 0 0 1\nouter loop\nvertex 0 0 0\nvertex 1 0 0\n"
                                           "vertex 0 1 0\nendloop\nendfacet\nendsolid t\n");
  auto stl = IO::readMesh(dir.file("tri.stl"), &error);
  ASSERT_TRUE(stl) << error;
  EXPECT_EQ(stl->vertices.size(), 3u);
  TestKit::writeBytes(dir.file("pent.obj"), "v 0 0 0\nv 1 0 0\nv 2 1 0\nv 1 2 0\nv 0 1 0\nf 1 2 3 4 -1\n");
  auto obj = IO::readMesh(dir.file("pent.obj"), &error);
  ASSERT_TRUE(obj) << error;
  EXPECT_EQ(obj->faces.size(), 3u);
  EXPECT_EQ(obj->faces[2], Eigen::Vector3i(0, 3, 4));
}

TEST(MeshIO, DamagedFilesAreRefusedWithTheirName) {
  TestKit::ScratchDir dir;
  std::string error;
  const Mesh in = tetrahedron();
  ASSERT_TRUE(IO::writeMesh(in, dir.file("tet.ply"), &error));
  const std::string ply = TestKit::readBytes(dir.file("tet.ply"));
  TestKit::writeBytes(dir.file("cut.ply"), ply.substr(0, ply.size() - 10));
  EXPECT_FALSE(IO::readMesh(dir.file("cut.ply"), &error));
  EXPECT_EQ(error, "cut.ply: data is truncated in element 'face'");
  TestKit::writeBytes(dir.file("bad.obj"), "v 0 0 0\nf 1 2 3\n");
  EXPECT_FALSE(IO::readMesh(dir.file("bad.obj"), &error));
  EXPECT_EQ(error, "bad.obj: line 2: face index '2' out of range (1 vertices so far)");
  TestKit::writeBytes(dir.file("odd.stl"), std::string(90, '\0'));
  EXPECT_FALSE(IO::readMesh(dir.file("odd.stl"), &error));
  EXPECT_EQ(error.rfind("odd.stl: ", 0), 0u);
  Mesh broken = in;
  broken.faces.push_back({0, 1, 9});
  EXPECT_FALSE(IO::writeMesh(broken, dir.file("broken.ply"), &error));
  EXPECT_FALSE(std::filesystem::exists(dir.file("broken.ply")));
}

TEST(CsvIO, QuotesOnlyWhatNeedsItAndParsesBack) {
  const std::vector<IO::CsvRow> rows = {{"plain", "with;separator", "say \"hi\""}, {"", "line\nbreak", "3.5"}};
  const std::string text = IO::csvText({"a", "b", "c"}, rows);
  EXPECT_EQ(text.substr(0, 6), "a;b;c\n");
  EXPECT_NE(text.find("plain;\"with;separator\";\"say \"\"hi\"\"\"\n"), std::string::npos) << text;
  std::vector<IO::CsvRow> back;
  ASSERT_TRUE(IO::parseCsv(text, back));
  ASSERT_EQ(back.size(), 3u);
  EXPECT_EQ(back[1], rows[0]);
  EXPECT_EQ(back[2], rows[1]);
  EXPECT_FALSE(IO::parseCsv("a;\"open", back));
}

}  // namespace
