#include <gtest/gtest.h>
#include <omp.h>

#include <Eigen/Geometry>
#include <cmath>
#include <functional>

#include "LabelDataComponent.h"
#include "LabelToMeshAlgorithm.h"
#include "Log.h"
#include "Mesh.h"
#include "MeshProcessing.h"
#include "TestSupport.h"

using namespace Merivane;

namespace {

using Shape = std::function<bool(const Eigen::Vector3d&)>;

Shape ball(Eigen::Vector3d c, double r) {
  return [=](const Eigen::Vector3d& p) { return (p - c).norm() <= r; };
}
Shape ring(Eigen::Vector3d c, double R, double r) {
  return [=](const Eigen::Vector3d& p) {
    const Eigen::Vector3d q = p - c;
    return std::hypot(std::hypot(q.x(), q.y()) - R, q.z()) <= r;
  };
}

// A label map painting each shape with its label (later shapes win).
std::unique_ptr<SharedImageSet> labelMap(const Eigen::Vector3i& dims, const std::vector<std::pair<int, Shape>>& shapes) {
  auto set = TestKit::makeImage<unsigned char>(dims, [&](int x, int y, int z) {
    int v = 0;
    for (const auto& [label, inside] : shapes)
      if (inside(Eigen::Vector3d(x, y, z))) v = label;
    return v;
  });
  set->setModality(Data::LABEL);
  return set;
}

std::vector<std::unique_ptr<Mesh>> run(SharedImageSet* set, const Properties& config = {}, int* status = nullptr,
                                       const SharedImageSet* mask = nullptr) {
  LabelToMeshAlgorithm a(set, mask);
  a.configure(&config);
  a.compute();
  if (status) *status = a.status();
  std::vector<std::unique_ptr<Mesh>> out;
  for (auto& d : a.takeOutput().release()) out.emplace_back(static_cast<Mesh*>(d.release()));
  return out;
}

Eigen::Matrix4d someMatrix() {
  Eigen::Affine3d t = Eigen::Translation3d(12, -40, 7.5) * Eigen::AngleAxisd(0.6, Eigen::Vector3d(1, 2, 0.5).normalized());
  return t.matrix();
}

}  // namespace

// Spheres (genus 0) and tori (genus 1) land in world coordinates within half a voxel of the
// object, with and without a matrix and anisotropic spacing; the meshes are closed manifolds.
class LabelMeshPlacement : public testing::TestWithParam<std::tuple<bool, bool>> {};

TEST_P(LabelMeshPlacement, ClosedManifoldWithinHalfVoxelOfObject) {
  const auto [torus, withMatrix] = GetParam();
  const Eigen::Vector3d c(15.2, 14.7, 10.4);
  auto set = labelMap({32, 30, 22}, {{3, torus ? ring(c, 9, 3.5) : ball(c, 8.3)}});
  set->get()->setSpacing(Eigen::Vector3d(0.7, 0.8, 1.3));
  if (withMatrix) set->get()->setMatrix(someMatrix());
  auto meshes = run(set.get());
  ASSERT_EQ(meshes.size(), 1u);
  const Mesh& m = *meshes[0];
  EXPECT_EQ(m.name(), "Mesh 3");
  EXPECT_TRUE(MeshProcessing::isClosedManifold(m));
  EXPECT_EQ(MeshProcessing::eulerCharacteristic(m), torus ? 0 : 2);
  ASSERT_TRUE(m.hasNormals());
  for (size_t i = 0; i < m.vertices.size(); ++i) {
    // Back to pixels through the frame's own inverse mapping.
    const Eigen::Vector3d p = set->get()->worldToPixel(m.vertices[i].cast<double>());
    const Eigen::Vector3d q = p - c;
    const double d = torus ? std::hypot(std::hypot(q.x(), q.y()) - 9, q.z()) - 3.5 : q.norm() - 8.3;
    EXPECT_LT(std::abs(d), 0.5 + 1e-3) << "vertex " << i;
  }
}

INSTANTIATE_TEST_SUITE_P(ShapesAndMatrices, LabelMeshPlacement, testing::Combine(testing::Bool(), testing::Bool()));

TEST(LabelToMesh, MirroringMatrixKeepsNormalsOutward) {
  auto set = labelMap({20, 20, 20}, {{1, ball({9.5, 9.5, 9.5}, 6)}});
  Eigen::Matrix4d mirror = Eigen::Matrix4d::Identity();
  mirror(0, 0) = -1;
  set->get()->setMatrix(mirror);
  auto meshes = run(set.get());
  ASSERT_EQ(meshes.size(), 1u);
  const Mesh& m = *meshes[0];
  const Eigen::Vector3f centre = set->get()->pixelToWorld(Eigen::Vector3d(9.5, 9.5, 9.5)).cast<float>();
  for (size_t i = 0; i < m.vertices.size(); ++i) EXPECT_GT(m.normals[i].dot(m.vertices[i] - centre), 0);
}

// The per-label meshes of a map of several labels (each cut from its own box) equal those
// of maps holding that label alone, and those of the whole volume binarised.
class LabelMeshPerLabel : public testing::TestWithParam<std::tuple<int, bool>> {};

TEST_P(LabelMeshPerLabel, MultiLabelEqualsSingleLabelAndWholeVolume) {
  const auto [smoothing, closeHoles] = GetParam();
  const std::vector<std::pair<int, Shape>> shapes = {
      {2, ball({8, 9, 8}, 5)},
      {7, ring({24, 20, 12}, 6, 2.5)},
      {9, [](const Eigen::Vector3d& p) { return p.x() >= 25 && p.y() < 6; }},  // touches three borders
      {200, ball({12, 24, 18}, 3)}};
  auto all = labelMap({34, 30, 24}, shapes);
  all->get()->setSpacing(Eigen::Vector3d(1.0, 0.9, 1.7));
  all->get()->setMatrix(someMatrix());
  Properties config;
  config.setParam("Smoothing", smoothing);
  config.setParam("closeHolesAtImageBoundaries", closeHoles);
  auto meshes = run(all.get(), config);
  ASSERT_EQ(meshes.size(), shapes.size());
  for (size_t i = 0; i < shapes.size(); ++i) {
    auto single = labelMap({34, 30, 24}, {shapes[i]});
    single->get()->setSpacing(all->get()->descriptor().spacing);
    single->get()->setMatrix(all->get()->matrix());
    auto alone = run(single.get(), config);
    ASSERT_EQ(alone.size(), 1u);
    EXPECT_EQ(meshes[i]->vertices, alone[0]->vertices) << "label " << shapes[i].first;
    EXPECT_EQ(meshes[i]->faces, alone[0]->faces) << "label " << shapes[i].first;

    // The whole volume, binarised, through the public one-surface path.
    LabelToMeshAlgorithm whole(all.get());
    whole.configure(&config);
    auto binary = TestKit::makeImage<unsigned char>({34, 30, 24}, [&](int x, int y, int z) {
      return static_cast<const TypedImage<unsigned char>*>(all->mem())->value(x, y, z) == shapes[i].first;
    });
    auto reference = whole.extractMesh(binary->mem(), 0.5f, nullptr);
    ASSERT_TRUE(reference);
    EXPECT_EQ(meshes[i]->vertices, reference->vertices) << "label " << shapes[i].first;
    EXPECT_EQ(meshes[i]->faces, reference->faces) << "label " << shapes[i].first;
    if (closeHoles) {
      EXPECT_TRUE(MeshProcessing::isClosedManifold(*meshes[i]));
    }
  }
}

INSTANTIATE_TEST_SUITE_P(SmoothingAndPadding, LabelMeshPerLabel,
                         testing::Combine(testing::Values(0, 1, 2), testing::Bool()));

TEST(LabelToMesh, BorderObjectIsOpenWithoutPadding) {
  auto set = labelMap({12, 12, 12}, {{1, [](const Eigen::Vector3d& p) { return p.x() < 4; }}});
  Properties open;
  open.setParam("closeHolesAtImageBoundaries", false);
  auto closed = run(set.get());
  auto opened = run(set.get(), open);
  ASSERT_EQ(closed.size(), 1u);
  ASSERT_EQ(opened.size(), 1u);
  EXPECT_TRUE(MeshProcessing::isClosedManifold(*closed[0]));
  EXPECT_FALSE(MeshProcessing::isClosedManifold(*opened[0]));
}

// Smoothing at the image border averages over the part of the box inside the image. A layer
// of 3 on one face of the volume, radius 1: the face voxels read 3 / 2 and their neighbours
// 3 / 3, so the level 1.2 lies 0.6 voxels in from the face (a repeated border would give 0.8).
class LabelMeshBorderSmoothing : public testing::TestWithParam<std::tuple<int, bool>> {};

TEST_P(LabelMeshBorderSmoothing, ClippedBoxAtTheFace) {
  const auto [axis, farSide] = GetParam();
  const Eigen::Vector3i dims(7, 6, 5);
  auto set = TestKit::makeImage<float>(dims, [&](int x, int y, int z) {
    const int c = Eigen::Vector3i(x, y, z)[axis];
    return c == (farSide ? dims[axis] - 1 : 0) ? 3.0f : 0.0f;
  });
  Properties config;
  config.setParam("Iso-Value", 1.2);
  config.setParam("Smoothing", 1);
  config.setParam("closeHolesAtImageBoundaries", false);
  auto meshes = run(set.get(), config);
  ASSERT_EQ(meshes.size(), 1u);
  ASSERT_FALSE(meshes[0]->vertices.empty());
  const double voxel = farSide ? dims[axis] - 1 - 0.6 : 0.6;
  const double expected = voxel - (dims[axis] * 0.5 - 0.5);
  for (const auto& v : meshes[0]->vertices) EXPECT_NEAR(v[axis], expected, 1e-5);
}

INSTANTIATE_TEST_SUITE_P(AxesAndSides, LabelMeshBorderSmoothing,
                         testing::Combine(testing::Values(0, 1, 2), testing::Bool()));

TEST(LabelToMesh, TargetLabelsNamesAndEmptyMaps) {
  auto set = labelMap({16, 16, 16}, {{4, ball({5, 5, 5}, 3)}, {6, ball({11, 11, 11}, 3)}});
  auto* labels = set->components().getOrCreate<LabelDataComponent>(set.get());
  labels->setLabelName(6, "Liver");
  Properties only6;
  only6.setParam("Target Labels", std::vector<unsigned char>{6, 9});  // 9 is absent
  auto meshes = run(set.get(), only6);
  ASSERT_EQ(meshes.size(), 1u);
  EXPECT_EQ(meshes[0]->name(), "Liver");

  auto empty = labelMap({8, 8, 8}, {});
  int status = -1;
  EXPECT_TRUE(run(empty.get(), {}, &status).empty());
  EXPECT_EQ(status, Algorithm::statusSuccess);
}

TEST(LabelToMesh, IsoValueModeUsesShiftScaleAndBothSides) {
  // Stored = (physical + 1000) * 0.5; a ball of physical 200 in -100.
  auto set = TestKit::makeImage<float>({18, 18, 18}, [](int x, int y, int z) {
    const double d = (Eigen::Vector3d(x, y, z) - Eigen::Vector3d(8.5, 8.5, 8.5)).norm();
    return ((d < 5 ? 200.0 : -100.0) + 1000) * 0.5;
  });
  set->get()->setShiftScale(1000, 0.5);
  set->setName("ct");
  Properties above;
  above.setParam("Iso-Value", 50.0);
  auto a = run(set.get(), above);
  ASSERT_EQ(a.size(), 1u);
  EXPECT_EQ(a[0]->name(), "ct Mesh");
  EXPECT_TRUE(MeshProcessing::isClosedManifold(*a[0]));
  Properties below = above;
  below.setParam("Threshold Above Iso-Value", false);
  auto b = run(set.get(), below);
  ASSERT_EQ(b.size(), 1u);
  // Below the level the inside is everything but the ball: the outer box and the ball's hole.
  EXPECT_TRUE(MeshProcessing::isClosedManifold(*b[0]));
  EXPECT_GT(b[0]->vertices.size(), a[0]->vertices.size());
}

TEST(LabelToMesh, FailurePathsSetStatusAndLogOneLine) {
  auto set = labelMap({10, 10, 10}, {{1, ball({5, 5, 5}, 3)}});
  {
    TestKit::LogCapture log;
    auto wrongMask = TestKit::makeSet(U8, {10, 10, 9});
    int status = -1;
    EXPECT_TRUE(run(set.get(), {}, &status, wrongMask.get()).empty());
    EXPECT_EQ(status, Algorithm::statusInvalidInput);
    EXPECT_EQ(log.count(Log::Error), 1);
    EXPECT_TRUE(log.contains("Mask supplied is not unsigned char"));
  }
  {
    TestKit::LogCapture log;
    auto ct = TestKit::makeSet(U16, {10, 10, 10});
    Properties labelMode;
    labelMode.setParam("Label Map Mode", true);
    int status = -1;
    EXPECT_TRUE(run(ct.get(), labelMode, &status).empty());
    EXPECT_EQ(status, Algorithm::statusInvalidInput);
    EXPECT_TRUE(log.contains("Label Map Mode is not available for this input"));
  }
  {
    TestKit::LogCapture log;
    Properties bad;
    bad.setParam("Smoothing", -1);
    int status = -1;
    EXPECT_TRUE(run(set.get(), bad, &status).empty());
    EXPECT_EQ(status, Algorithm::statusInvalidInput);
    EXPECT_EQ(log.count(Log::Error), 1);
  }
  auto flat = TestKit::makeSet(U8, {10, 10, 1});
  EXPECT_FALSE(LabelToMeshAlgorithm::createCompatible(DataList{flat.get()}));
  EXPECT_FALSE(LabelToMeshAlgorithm::createCompatible(DataList{set.get(), set.get()}));
  EXPECT_TRUE(LabelToMeshAlgorithm::createCompatible(DataList{set.get()}));
}

TEST(LabelToMesh, MaskLimitsTheMeshes) {
  auto set = labelMap({16, 16, 16}, {{1, ball({7.5, 7.5, 7.5}, 5)}});
  auto mask = TestKit::makeImage<unsigned char>({16, 16, 16}, [](int x, int, int) { return x >= 8; });
  auto meshes = run(set.get(), {}, nullptr, mask.get());
  ASSERT_EQ(meshes.size(), 1u);
  EXPECT_TRUE(MeshProcessing::isClosedManifold(*meshes[0]));
  // Centred pixel space: the cut between masked pixel 7 and pixel 8 lies at x = 0.
  for (const auto& v : meshes[0]->vertices) EXPECT_GT(v.x(), -1e-3f);
}

TEST(LabelToMesh, SerialEqualsParallel) {
  std::vector<std::pair<int, Shape>> shapes;
  for (int i = 0; i < 9; ++i) shapes.push_back({i + 1, ball({4.0 + 3 * i, 10.0 + (i % 3), 9.0 + (i % 2)}, 2.5 + 0.3 * i)});
  auto set = labelMap({33, 22, 20}, shapes);
  const int was = omp_get_max_threads();
  omp_set_num_threads(1);
  auto serial = run(set.get());
  omp_set_num_threads(4);
  auto parallel = run(set.get());
  omp_set_num_threads(was);
  ASSERT_EQ(serial.size(), parallel.size());
  for (size_t i = 0; i < serial.size(); ++i) {
    EXPECT_EQ(serial[i]->vertices, parallel[i]->vertices);
    EXPECT_EQ(serial[i]->faces, parallel[i]->faces);
    EXPECT_EQ(serial[i]->name(), parallel[i]->name());
  }
}

// The enclosed volume of a surface: an exact box, far from the origin, either winding; and the
// label mesh of a ball against the voxels it encloses.
TEST(MeshVolume, BoxesGiveTheirVolumeSignedByWindingAndBallsTheirVoxelCount) {
  Mesh box;
  const Eigen::Vector3f o(1000.0f, -2000.0f, 500.0f), e(2.0f, 3.0f, 4.0f);
  for (int k = 0; k < 8; ++k) box.vertices.push_back(o + Eigen::Vector3f(k & 1 ? e.x() : 0, k & 2 ? e.y() : 0, k & 4 ? e.z() : 0));
  // Outward winding: x-, x+, y-, y+, z-, z+.
  box.faces = {{0, 4, 6}, {0, 6, 2}, {1, 3, 7}, {1, 7, 5}, {0, 1, 5}, {0, 5, 4},
               {2, 6, 7}, {2, 7, 3}, {0, 2, 3}, {0, 3, 1}, {4, 5, 7}, {4, 7, 6}};
  ASSERT_TRUE(MeshProcessing::isClosedManifold(box));
  EXPECT_NEAR(MeshProcessing::Statistics::computeVolume(box), 24.0, 1e-9);
  for (auto& f : box.faces) std::swap(f[1], f[2]);
  EXPECT_NEAR(MeshProcessing::Statistics::computeVolume(box), -24.0, 1e-9);
  EXPECT_EQ(MeshProcessing::Statistics::computeVolume(Mesh{}), 0.0);

  auto map = labelMap({32, 32, 32}, {{1, ball({15.5, 15.5, 15.5}, 10)}});
  const auto* v = static_cast<const TypedImage<unsigned char>*>(map->mem());
  double voxels = 0;
  for (size_t i = 0; i < v->descriptor().pixelCount(); ++i) voxels += v->pointer()[i] == 1;
  auto meshes = run(map.get());
  ASSERT_EQ(meshes.size(), 1u);
  EXPECT_NEAR(MeshProcessing::Statistics::computeVolume(*meshes[0]), voxels, voxels * 0.05);
}
