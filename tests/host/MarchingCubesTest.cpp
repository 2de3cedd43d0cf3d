#include <gtest/gtest.h>
#include <omp.h>

#include <Eigen/Geometry>
#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <tuple>

#include "MarchingCubes.h"
#include "Mesh.h"
#include "MeshProcessing.h"

using namespace Merivane;

namespace {

// Signed volume; positive when faces wind counter-clockwise seen from outside.
double signedVolume(const Mesh& m) {
  double v = 0;
  for (const auto& f : m.faces)
    v += m.vertices[f[0]].cast<double>().dot(m.vertices[f[1]].cast<double>().cross(m.vertices[f[2]].cast<double>()));
  return v / 6;
}

// A field that is `inside` at the centre of a ball and crosses `level` on its sphere.
template <typename T>
std::unique_ptr<TypedImage<T>> field(const Eigen::Vector3i& dims, const std::function<double(Eigen::Vector3d)>& f) {
  auto img = TypedImage<T>::zeros(dims, 1);
  for (int z = 0; z < dims[2]; ++z)
    for (int y = 0; y < dims[1]; ++y)
      for (int x = 0; x < dims[0]; ++x) img->setValue(static_cast<T>(f(Eigen::Vector3d(x, y, z))), x, y, z);
  return img;
}

double sphereDistance(const Eigen::Vector3d& p, const Eigen::Vector3d& c, double r) { return (p - c).norm() - r; }
double torusDistance(const Eigen::Vector3d& p, const Eigen::Vector3d& c, double R, double r) {
  const Eigen::Vector3d q = p - c;
  return std::hypot(std::hypot(q.x(), q.y()) - R, q.z()) - r;
}

}  // namespace

// Every pixel type, both sides of the level: a sphere comes out closed, of genus 0, facing
// outwards, with its vertices on the sphere.
class IsosurfaceOfSphere : public testing::TestWithParam<std::tuple<PixelType, bool>> {};

TEST_P(IsosurfaceOfSphere, ClosedOutwardAndOnTheSphere) {
  const auto [type, above] = GetParam();
  const Eigen::Vector3d c(9.3, 10.1, 8.7);
  const double r = 6.2;
  // Inside above the level: 100 - 10 d (clamped to the type); below: 100 + 10 d.
  std::unique_ptr<Mesh> mesh;
  dispatchPixelType(type, [&](auto tag) {
    using T = decltype(tag);
    auto img = field<T>({20, 21, 19}, [&](Eigen::Vector3d p) {
      const double d = sphereDistance(p, c, r);
      return std::round(std::clamp(above ? 100 - 10 * d : 100 + 10 * d, 0.0, 127.0));
    });
    mesh = MarchingCubes::computeIsosurface<T>(img.get(), nullptr, 100.f, above);
  });
  ASSERT_TRUE(mesh);
  EXPECT_TRUE(MeshProcessing::isClosedManifold(*mesh));
  EXPECT_EQ(MeshProcessing::eulerCharacteristic(*mesh), 2);
  EXPECT_NEAR(signedVolume(*mesh), 4.0 / 3.0 * M_PI * r * r * r, 0.03 * 4.0 / 3.0 * M_PI * r * r * r);
  for (const auto& v : mesh->vertices) EXPECT_LT(std::abs(sphereDistance(v.cast<double>(), c, r)), 0.2);
}

INSTANTIATE_TEST_SUITE_P(AllTypes, IsosurfaceOfSphere,
                         testing::Combine(testing::Values(I8, U8, I16, U16, I32, U32, F32, F64), testing::Bool()));

TEST(MarchingCubes, TorusHasEulerCharacteristicZero) {
  auto img = field<float>({30, 30, 14}, [](Eigen::Vector3d p) { return -torusDistance(p, {14.5, 14.5, 6.5}, 8.5, 3.2); });
  auto mesh = MarchingCubes::computeIsosurface(img.get(), nullptr, 0.f, true);
  ASSERT_TRUE(mesh);
  EXPECT_TRUE(MeshProcessing::isClosedManifold(*mesh));
  EXPECT_EQ(MeshProcessing::eulerCharacteristic(*mesh), 0);
}

// Noise has ambiguous faces everywhere; both cells at each face must resolve it alike.
class IsosurfaceOfNoise : public testing::TestWithParam<int> {};

TEST_P(IsosurfaceOfNoise, BinaryNoiseInsideEmptyBorderIsClosedManifold) {
  std::mt19937 rng(GetParam());
  std::bernoulli_distribution on(0.5);
  auto img = TypedImage<unsigned char>::zeros(Eigen::Vector3i(12, 11, 10), 1);
  for (int z = 1; z < 9; ++z)
    for (int y = 1; y < 10; ++y)
      for (int x = 1; x < 11; ++x) img->setValue(on(rng) ? 1 : 0, x, y, z);
  for (bool above : {true, false}) {
    if (!above)  // invert, so that the same voxels are inside below the level
      for (size_t i = 0; i < img->descriptor().pixelCount(); ++i) img->pointer()[i] = 1 - img->pointer()[i];
    auto mesh = MarchingCubes::computeIsosurface(img.get(), nullptr, 0.5f, above);
    ASSERT_TRUE(mesh);
    EXPECT_TRUE(MeshProcessing::isClosedManifold(*mesh)) << "above " << above;
    EXPECT_EQ(MeshProcessing::eulerCharacteristic(*mesh) % 2, 0);
    EXPECT_GT(signedVolume(*mesh), 0);
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, IsosurfaceOfNoise, testing::Values(1, 2, 3, 4, 5));

TEST(MarchingCubes, EveryCubeCaseAloneIsClosedAndFacesOutwards) {
  for (int cas = 1; cas < 255; ++cas) {
    auto img = TypedImage<unsigned char>::zeros(Eigen::Vector3i(4, 4, 4), 1);
    for (int c = 0; c < 8; ++c) img->setValue((cas >> c) & 1, 1 + (c & 1), 1 + ((c >> 1) & 1), 1 + ((c >> 2) & 1));
    auto mesh = MarchingCubes::computeIsosurface(img.get(), nullptr, 0.5f, true);
    ASSERT_TRUE(mesh);
    EXPECT_TRUE(MeshProcessing::isClosedManifold(*mesh)) << "case " << cas;
    EXPECT_GT(signedVolume(*mesh), 0) << "case " << cas;
  }
}

TEST(MarchingCubes, SingleVoxelIsAnOctahedronAtHalfVoxel) {
  auto img = TypedImage<unsigned char>::zeros(Eigen::Vector3i(3, 3, 3), 1);
  img->setValue(1, 1, 1, 1);
  auto mesh = MarchingCubes::computeIsosurface(img.get(), nullptr, 0.5f, true);
  ASSERT_TRUE(mesh);
  EXPECT_EQ(mesh->vertices.size(), 6u);
  EXPECT_EQ(mesh->faces.size(), 8u);
  for (const auto& v : mesh->vertices) EXPECT_NEAR((v - Eigen::Vector3f(1, 1, 1)).norm(), 0.5f, 1e-6f);
}

TEST(MarchingCubes, MaskedVoxelsCountAsOutside) {
  auto img = field<float>({16, 16, 16}, [](Eigen::Vector3d p) { return -sphereDistance(p, {7.5, 7.5, 7.5}, 5); });
  auto mask = TypedImage<unsigned char>::zeros(img->dimensions(), 1);
  for (int z = 0; z < 16; ++z)
    for (int y = 0; y < 16; ++y)
      for (int x = 8; x < 16; ++x) mask->setValue(1, x, y, z);
  auto mesh = MarchingCubes::computeIsosurface(img.get(), mask.get(), 0.f, true);
  ASSERT_TRUE(mesh);
  EXPECT_TRUE(MeshProcessing::isClosedManifold(*mesh));
  for (const auto& v : mesh->vertices) EXPECT_GT(v.x(), 7.f);
}

TEST(MarchingCubes, BadInputGivesNull) {
  auto img = TypedImage<float>::zeros(Eigen::Vector3i(5, 5, 5), 1);
  img->setValue(1, 2, 2, 2);
  auto wrongMask = TypedImage<unsigned char>::zeros(Eigen::Vector3i(5, 5, 4), 1);
  EXPECT_FALSE(MarchingCubes::computeIsosurface<float>(nullptr, nullptr, 0.5f));
  EXPECT_FALSE(MarchingCubes::computeIsosurface(img.get(), wrongMask.get(), 0.5f, true));
  EXPECT_FALSE(MarchingCubes::computeIsosurface(img.get(), nullptr, std::nanf(""), true));
  auto flat = TypedImage<float>::zeros(Eigen::Vector3i(5, 5, 1), 1);
  EXPECT_FALSE(MarchingCubes::computeIsosurface(flat.get(), nullptr, 0.5f, true));
  EXPECT_FALSE(MarchingCubes::computeIsosurface(img.get(), nullptr, 5.f, true));  // nothing above
}

// Depths that straddle the chunk edges of the parallel passes.
class IsosurfaceThreads : public testing::TestWithParam<int> {};

TEST_P(IsosurfaceThreads, SerialEqualsParallel) {
  const int depth = GetParam();
  auto img = field<short>({23, 19, depth}, [&](Eigen::Vector3d p) {
    return 100 * std::sin(0.7 * p.x()) * std::cos(0.5 * p.y()) + 40 * std::sin(0.9 * p.z());
  });
  const int was = omp_get_max_threads();
  omp_set_num_threads(1);
  auto serial = MarchingCubes::computeIsosurface(img.get(), nullptr, 10.f, true);
  omp_set_num_threads(4);
  auto parallel = MarchingCubes::computeIsosurface(img.get(), nullptr, 10.f, true);
  omp_set_num_threads(was);
  ASSERT_TRUE(serial && parallel);
  EXPECT_EQ(serial->vertices, parallel->vertices);
  EXPECT_EQ(serial->faces, parallel->faces);
}

INSTANTIATE_TEST_SUITE_P(Depths, IsosurfaceThreads, testing::Values(2, 7, 9, 10, 33));

TEST(MeshProcessing, MergeCloseVerticesJoinsDuplicatesAndDropsDegenerateFaces) {
  Mesh m;
  m.vertices = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1.001f, 0}};
  m.faces = {{0, 1, 2}, {3, 4, 5}, {1, 3, 4}};
  EXPECT_EQ(MeshProcessing::mergeCloseVertices(m, 0.0, false), 1);
  EXPECT_EQ(m.vertices.size(), 5u);
  EXPECT_EQ(m.faces.size(), 2u);  // {1, 3, 4} collapsed
  EXPECT_TRUE(m.isValid());
  EXPECT_EQ(MeshProcessing::mergeCloseVertices(m, 0.01, true), 1);
  EXPECT_EQ(m.vertices.size(), 4u);
}

TEST(MeshProcessing, SimplifySubdivideSmoothKeepASphereClosed) {
  auto img = field<float>({24, 24, 24}, [](Eigen::Vector3d p) { return -sphereDistance(p, {11.5, 11.5, 11.5}, 8); });
  auto mesh = MarchingCubes::computeIsosurface(img.get(), nullptr, 0.f, true);
  ASSERT_TRUE(mesh);
  const size_t before = mesh->faces.size();
  ASSERT_TRUE(MeshProcessing::simplify(*mesh, before / 4));
  EXPECT_LE(mesh->faces.size(), before / 4);
  EXPECT_TRUE(MeshProcessing::isClosedManifold(*mesh));
  EXPECT_EQ(MeshProcessing::eulerCharacteristic(*mesh), 2);
  const size_t simplified = mesh->faces.size();
  ASSERT_TRUE(MeshProcessing::subdivide(*mesh, 1));
  EXPECT_EQ(mesh->faces.size(), 4 * simplified);
  EXPECT_TRUE(MeshProcessing::isClosedManifold(*mesh));
  ASSERT_TRUE(MeshProcessing::smooth(*mesh, 3));
  EXPECT_TRUE(MeshProcessing::isClosedManifold(*mesh));
  for (const auto& v : mesh->vertices) EXPECT_LT(std::abs(sphereDistance(v.cast<double>(), {11.5, 11.5, 11.5}, 8)), 1.0);
  MeshProcessing::computeVertexNormals(*mesh);
  for (size_t i = 0; i < mesh->vertices.size(); ++i)  // outward on a sphere
    EXPECT_GT(mesh->normals[i].dot((mesh->vertices[i] - Eigen::Vector3f(11.5f, 11.5f, 11.5f)).normalized()), 0.8f);
}

TEST(MeshProcessing, NonManifoldInputIsRefusedBySimplify) {
  Mesh m;
  m.vertices = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, -1, 0}, {0, 0, 1}};
  m.faces = {{0, 1, 2}, {0, 1, 3}, {0, 1, 4}};  // one edge, three faces
  EXPECT_FALSE(MeshProcessing::isClosedManifold(m));
  EXPECT_FALSE(MeshProcessing::simplify(m, 1));
}
