// Seeds made from drawn shapes, surfaces, binary maps and predictions, checked voxel by voxel
// on small maps.
#include <gtest/gtest.h>

#include <Eigen/Geometry>
#include <cmath>

#include "AlgorithmFactory.h"
#include "FactoryRegistry.h"
#include "InteractiveSegmentationAlgorithm.h"
#include "Log.h"
#include "Mesh.h"
#include "MeshProcessing.h"
#include "MeshSeeds.h"
#include "Parameter.h"
#include "SeedSteps.h"
#include "SharedImageSet.h"
#include "TestSupport.h"

using namespace Merivane;

namespace {

using Labels = TypedImage<unsigned char>;

struct Pair {
  std::unique_ptr<SharedImageSet> image, labels;
  Labels& map() const { return *static_cast<Labels*>(labels->mem()); }
  unsigned char at(int x, int y, int z = 0) const { return map().value(x, y, z); }
};

// An image and a label map filled with `fill`, both of `dims` and `spacing`.
Pair makePair(const Eigen::Vector3i& dims, const Eigen::Vector3d& spacing, int fill) {
  Pair p;
  p.image = TestKit::makeImage<float>(dims, [](int, int, int) { return 0.0; });
  p.labels = TestKit::makeImage<unsigned char>(dims, [fill](int, int, int) { return fill; });
  p.image->get(0)->setSpacing(spacing);
  p.labels->get(0)->setSpacing(spacing);
  p.labels->setModality(Data::LABEL);
  return p;
}

size_t count(const Labels& l, int value) {
  return static_cast<size_t>(std::count(l.pointer(), l.pointer() + l.descriptor().pixelCount(), value));
}

// The surface of the box [lo, hi] in world millimetres, outward facing.
Mesh boxMesh(const Eigen::Vector3d& lo, const Eigen::Vector3d& hi) {
  Mesh m;
  for (int k = 0; k < 8; ++k)
    m.vertices.emplace_back(Eigen::Vector3f(float(k & 1 ? hi[0] : lo[0]), float(k & 2 ? hi[1] : lo[1]),
                                            float(k & 4 ? hi[2] : lo[2])));
  const int quads[6][4] = {{0, 2, 3, 1}, {4, 5, 7, 6}, {0, 1, 5, 4}, {2, 6, 7, 3}, {0, 4, 6, 2}, {1, 3, 7, 5}};
  for (const auto& q : quads) {
    m.faces.emplace_back(q[0], q[1], q[2]);
    m.faces.emplace_back(q[0], q[2], q[3]);
  }
  return m;
}

}  // namespace

TEST(DiameterSeeds, AxisAlignedDiameterGivesTheThinEllipsoidAndTheShell) {
  // 21³ voxels of 1 mm: voxel 10 is the world origin. A diameter of 10 mm along x, R = 5:
  // half extents trunc(5 * 1.4 + 0.5) = 7; object where t² + 20 q² <= 20, background where
  // |d|² >= 35.
  Pair p = makePair({21, 21, 21}, {1, 1, 1}, 7);
  TestKit::LogCapture log;
  InteractiveSegmentationAlgorithm seg(*p.image, p.labels.get());
  seg.convertDiameterToLabels3D({{-5, 0, 0}, {5, 0, 0}}, p.labels->get(0));
  // Object: x from 6 to 14 on the axis (t² <= 20 gives |t| <= 4), and the four face neighbours
  // of the centre (q = 1, t = 0).
  EXPECT_EQ(count(p.map(), 1), 13u);
  for (int x = 6; x <= 14; ++x) EXPECT_EQ(p.at(x, 10, 10), 1) << x;
  EXPECT_EQ(p.at(10, 9, 10), 1);
  EXPECT_EQ(p.at(10, 10, 11), 1);
  EXPECT_EQ(p.at(11, 11, 10), 0);  // q = 1 and t = 1: 21 > 20
  EXPECT_EQ(p.at(15, 10, 10), 0);  // |d|² = 25, inside the shell
  EXPECT_EQ(p.at(16, 10, 10), 2);  // 36
  EXPECT_EQ(p.at(3, 10, 10), 2);
  EXPECT_EQ(p.at(3, 3, 3), 2);     // a corner of the half extents
  EXPECT_EQ(p.at(2, 10, 10), 0);   // beyond them: cleared, not kept
  EXPECT_EQ(p.at(0, 0, 0), 0);
  // The shell: every offset within 7 whose squared length is 35 or more.
  size_t shell = 0;
  for (int z = -7; z <= 7; ++z)
    for (int y = -7; y <= 7; ++y)
      for (int x = -7; x <= 7; ++x) shell += x * x + y * y + z * z >= 35;
  EXPECT_EQ(count(p.map(), 2), shell);
  EXPECT_TRUE(log.lines().empty());
}

TEST(DiameterSeeds, AnisotropicSpacingShortensTheHalfExtentAlongZ) {
  // Spacing 2 mm in z, diameter of 8 mm along z, R = 4: half extents 6, 6 and
  // trunc(trunc(4 / 2) * 1.4 + 0.5) = 3; object where 4 dz² <= 12.8 on the axis only.
  Pair p = makePair({15, 15, 15}, {1, 1, 2}, 0);
  InteractiveSegmentationAlgorithm seg(*p.image, p.labels.get());
  seg.setObjectLabel(4);
  seg.convertDiameterToLabels3D({{0, 0, -4}, {0, 0, 4}}, p.labels->get(0));
  EXPECT_EQ(count(p.map(), 4), 3u);
  for (int z = 6; z <= 8; ++z) EXPECT_EQ(p.at(7, 7, z), 4) << z;
  EXPECT_EQ(p.at(7, 7, 10), 5);  // |d|² = 36 >= 22.4
  EXPECT_EQ(p.at(7, 7, 11), 0);  // beyond the half extent of 3 slices
  EXPECT_EQ(p.at(1, 7, 7), 5);
  EXPECT_EQ(p.at(0, 7, 7), 0);
}

TEST(DiameterSeeds, OtherPointCountsAndSingleSlicesChangeNothing) {
  Pair volume = makePair({9, 9, 9}, {1, 1, 1}, 3);
  InteractiveSegmentationAlgorithm seg(*volume.image, volume.labels.get());
  seg.convertDiameterToLabels3D({{0, 0, 0}}, volume.labels->get(0));
  seg.convertDiameterToLabels3D({{0, 0, 0}, {1, 0, 0}, {2, 0, 0}}, volume.labels->get(0));
  EXPECT_EQ(count(volume.map(), 3), 729u);
  Pair slice = makePair({9, 9, 1}, {1, 1, 1}, 3);
  InteractiveSegmentationAlgorithm flat(*slice.image, slice.labels.get());
  flat.convertDiameterToLabels3D({{-2, 0, 0}, {2, 0, 0}}, slice.labels->get(0));
  EXPECT_EQ(count(slice.map(), 3), 81u);
  // A diameter of length 0 visits its one voxel: object over background there.
  seg.convertDiameterToLabels3D({{0.5, 0.5, 0.5}, {0.5, 0.5, 0.5}}, volume.labels->get(0));
  EXPECT_EQ(count(volume.map(), 1), 1u);
  EXPECT_EQ(volume.at(5, 5, 5), 1);
  EXPECT_EQ(count(volume.map(), 0), 728u);
}

TEST(ContourSeeds, CircleGivesObjectInsideBackgroundOutsideAndAFreeBand) {
  // 24 x 24 pixels of 1 mm; a circle of radius 6.2 mm round the centre, drawn as 48 points;
  // width 3 mm gives a square of radius trunc(1.5 + 0.5) = 2 for erosion and dilation.
  Pair p = makePair({24, 24, 1}, {1, 1, 1}, 9);
  InteractiveSegmentationAlgorithm seg(*p.image, p.labels.get());
  seg.setObjectLabel(3);
  std::vector<Eigen::Vector3d> circle;
  for (int k = 0; k < 48; ++k) {
    const double a = 2 * M_PI * k / 48;
    circle.emplace_back(6.2 * std::cos(a), 6.2 * std::sin(a), 0.0);
  }
  seg.convertContourToLabels2D(circle, p.labels->get(0), 3.0);
  // Row 11 (y = -0.5 mm): inside for x = 6..17. The object needs the 5 x 5 square round it
  // inside (x = 8..15); the background needs it all outside (x <= 3, x >= 20).
  const int expected[24] = {4, 4, 4, 4, 0, 0, 0, 0, 3, 3, 3, 3, 3, 3, 3, 3, 0, 0, 0, 0, 4, 4, 4, 4};
  for (int x = 0; x < 24; ++x) EXPECT_EQ(p.at(x, 11), expected[x]) << x;
  EXPECT_EQ(p.at(11, 11), 3);
  EXPECT_EQ(p.at(0, 0), 4);
  EXPECT_EQ(count(p.map(), 9), 0u);  // cleared first
  // Symmetric: column 11 equals row 11.
  for (int y = 0; y < 24; ++y) EXPECT_EQ(p.at(11, y), expected[y]) << y;
}

TEST(ContourSeeds, TooFewPointsLeaveTheSliceAlone) {
  Pair p = makePair({10, 10, 1}, {1, 1, 1}, 6);
  InteractiveSegmentationAlgorithm seg(*p.image, p.labels.get());
  seg.convertContourToLabels2D({}, p.labels->get(0), 2.0);
  seg.convertContourToLabels2D({{0, 0, 0}, {2, 0, 0}}, p.labels->get(0), 2.0);
  EXPECT_EQ(count(p.map(), 6), 100u);
}

TEST(NarrowBand, BinaryMapOnTheSameGridBySizes) {
  // Two single pixels at (2, 2) and (6, 6) of a 10 x 10 map.
  auto binary = TestKit::makeImage<unsigned char>({10, 10, 1}, [](int x, int y, int) {
    return (x == 2 && y == 2) || (x == 6 && y == 6) ? 255 : 0;
  });
  {
    Pair p = makePair({10, 10, 1}, {1, 1, 1}, 7);
    InteractiveSegmentationAlgorithm seg(*p.image, p.labels.get());
    seg.convertBinaryMapToNarrowBandLabels(binary.get(), 0, 0, nullptr);
    // Sizes 0: the pixels themselves, background elsewhere in their box [2, 6]², the rest kept.
    EXPECT_EQ(p.at(2, 2), 1);
    EXPECT_EQ(p.at(6, 6), 1);
    EXPECT_EQ(p.at(4, 4), 2);
    EXPECT_EQ(p.at(2, 6), 2);
    EXPECT_EQ(p.at(1, 1), 7);
    EXPECT_EQ(p.at(7, 4), 7);
    EXPECT_EQ(count(p.map(), 2), 23u);
  }
  {
    Pair p = makePair({10, 10, 1}, {1, 1, 1}, 7);
    InteractiveSegmentationAlgorithm seg(*p.image, p.labels.get());
    seg.convertBinaryMapToNarrowBandLabels(binary.get(), 1, 1, nullptr);
    // Radius 1: erosion removes single pixels; dilation adds the four neighbours; box [1, 7]².
    EXPECT_EQ(count(p.map(), 1), 0u);
    EXPECT_EQ(p.at(2, 2), 7);  // in the band: kept
    EXPECT_EQ(p.at(1, 2), 7);
    EXPECT_EQ(p.at(1, 1), 2);
    EXPECT_EQ(p.at(4, 4), 2);
    EXPECT_EQ(p.at(7, 7), 2);
    EXPECT_EQ(p.at(0, 0), 7);
    EXPECT_EQ(p.at(8, 8), 7);
    EXPECT_EQ(count(p.map(), 2), 49u - 10u);
  }
}

TEST(NarrowBand, BinaryMapOfACoarserGridIsSampledThroughWorldCoordinates) {
  // A 5 x 5 map of 2 mm covers the 10 x 10 label map of 1 mm; its pixel (1..3, 1..3) block is
  // the label pixels 2..7.
  auto binary = TestKit::makeImage<unsigned char>({5, 5, 1}, [](int x, int y, int) {
    return x >= 1 && x <= 3 && y >= 1 && y <= 3;
  });
  binary->get(0)->setSpacing(Eigen::Vector3d(2, 2, 1));
  Pair p = makePair({10, 10, 1}, {1, 1, 1}, 0);
  InteractiveSegmentationAlgorithm seg(*p.image, p.labels.get());
  seg.convertBinaryMapToNarrowBandLabels(binary.get(), 0, 0, nullptr);
  for (int y = 0; y < 10; ++y)
    for (int x = 0; x < 10; ++x) {
      const bool in = x >= 2 && x <= 7 && y >= 2 && y <= 7;
      EXPECT_EQ(p.at(x, y), in ? 1 : 0) << x << "," << y;
    }
}

class MeshSeedsTest : public ::testing::TestWithParam<bool> {};

TEST_P(MeshSeedsTest, CubeGivesErodedObjectAndBackgroundBeyondTheBand) {
  const bool withHole = GetParam();
  // 32³ voxels of 1 mm, voxel 15.5 at the world origin; the cube of -6..6 mm holds the voxels
  // 10..21. A band of 4 mm: spacing max(1, 1) = 1, r = trunc(2 + 0.5) = 2.
  Pair p = makePair({32, 32, 32}, {1, 1, 1}, 5);
  Mesh cube = boxMesh({-6, -6, -6}, {6, 6, 6});
  if (withHole) cube.faces.pop_back();
  const size_t faces = cube.faces.size();
  TestKit::LogCapture log;
  InteractiveSegmentationAlgorithm seg(*p.image, p.labels.get());
  ASSERT_TRUE(seg.initFromSegmentation(&cube, 4.0));
  EXPECT_EQ(cube.faces.size(), faces) << "the caller's mesh is not closed in place";
  // Object: the voxels whose ball of radius 2 lies in the cube, 12..19.
  EXPECT_EQ(count(p.map(), 1), 512u);
  EXPECT_EQ(p.at(12, 12, 12), 1);
  EXPECT_EQ(p.at(19, 15, 15), 1);
  EXPECT_EQ(p.at(11, 15, 15), 5);  // in the band: kept
  // Background: farther than 2 voxels from the cube, inside the box of the dilation (8..23).
  EXPECT_EQ(p.at(8, 15, 15), 5);  // 2 away
  EXPECT_EQ(p.at(9, 9, 9), 5);    // sqrt(3)
  EXPECT_EQ(p.at(8, 9, 15), 2);   // sqrt(5)
  EXPECT_EQ(p.at(8, 8, 8), 2);
  EXPECT_EQ(p.at(23, 23, 15), 2);
  EXPECT_EQ(p.at(7, 15, 15), 5);  // outside that box: kept
  EXPECT_EQ(p.at(0, 0, 0), 5);
  size_t background = 0;
  for (int z = 8; z <= 23; ++z)
    for (int y = 8; y <= 23; ++y)
      for (int x = 8; x <= 23; ++x) {
        auto out = [](int v) { return v < 10 ? 10 - v : (v > 21 ? v - 21 : 0); };
        background += out(x) * out(x) + out(y) * out(y) + out(z) * out(z) > 4;
      }
  EXPECT_EQ(count(p.map(), 2), background);
}

INSTANTIATE_TEST_SUITE_P(ClosedAndOpen, MeshSeedsTest, ::testing::Bool());

TEST(MeshSeeds, RefusedWithoutMeshLabelsOrCoverage) {
  Pair p = makePair({16, 16, 16}, {1, 1, 1}, 5);
  TestKit::LogCapture log;
  InteractiveSegmentationAlgorithm seg(*p.image, p.labels.get());
  EXPECT_FALSE(seg.initFromSegmentation(nullptr, 4.0));
  Mesh far = boxMesh({100, 100, 100}, {110, 110, 110});
  EXPECT_FALSE(seg.initFromSegmentation(&far, 4.0));
  EXPECT_EQ(count(p.map(), 5), 4096u);
  InteractiveSegmentationAlgorithm noLabels(*p.image, nullptr);
  Mesh cube = boxMesh({-3, -3, -3}, {3, 3, 3});
  EXPECT_FALSE(noLabels.initFromSegmentation(&cube, 4.0));
}

TEST(MeshSeeds, ThickBandRaisesTheSpacingSoTheRadiusStaysAtTwo) {
  // Band 40 mm on 1 mm voxels: spacing 10 mm, r = trunc(2 + 0.5) = 2 voxels of 10 mm.
  Pair p = makePair({40, 40, 40}, {1, 1, 1}, 0);
  InteractiveSegmentationAlgorithm seg(*p.image, p.labels.get());
  Mesh cube = boxMesh({-15, -15, -15}, {15, 15, 15});
  ASSERT_TRUE(seg.initFromSegmentation(&cube, 40.0));
  // Eroding a 30 mm cube by 20 mm leaves nothing; the background lies 20 mm beyond it.
  EXPECT_EQ(count(p.map(), 1), 0u);
  EXPECT_EQ(p.at(19, 19, 19), 0);
}

TEST(MeshRaster, SharedEdgesAndVerticesOnTheRayCountOnce) {
  // A cube whose faces meet exactly at voxel centres: the rays through its edges and corners
  // must not double count. Voxels at 0..10 on a grid of 1, the cube from 2 to 6.
  Mesh cube = boxMesh({2, 2, 2}, {6, 6, 6});
  std::vector<Eigen::Vector3d> v;
  for (const auto& x : cube.vertices) v.push_back(x.cast<double>());
  Seg::internal::RasterGrid grid;
  grid.dimensions = Eigen::Vector3i(11, 11, 11);
  auto map = Seg::internal::rasterizeMesh(v, cube.faces, grid);
  ASSERT_TRUE(map);
  // Rows through the inside are filled between the crossings; each row the cube meets gives a
  // whole run, and rows that only graze it give none or a whole run, never a broken one.
  for (int z = 0; z <= 10; ++z)
    for (int y = 0; y <= 10; ++y) {
      int runs = 0, length = 0;
      for (int x = 0; x <= 10; ++x) {
        const bool set = map->value(x, y, z) != 0;
        length += set;
        if (set && (x == 0 || map->value(x - 1, y, z) == 0)) ++runs;
      }
      ASSERT_LE(runs, 1) << y << "," << z;
      const bool through = y > 2 && y < 6 && z > 2 && z < 6, beside = y < 2 || y > 6 || z < 2 || z > 6;
      if (through || beside) {
        EXPECT_EQ(length, through ? 4 : 0) << y << "," << z;
      }
    }
}

TEST(MeshRaster, ClosingHolesMakesAClosedManifold) {
  Mesh cube = boxMesh({0, 0, 0}, {1, 1, 1});
  cube.faces.erase(cube.faces.begin(), cube.faces.begin() + 2);  // one side open
  EXPECT_FALSE(MeshProcessing::isClosedManifold(cube));
  EXPECT_EQ(Seg::internal::closeHoles(cube), 1);
  EXPECT_TRUE(MeshProcessing::isClosedManifold(cube));
  EXPECT_EQ(cube.vertices.size(), 9u);
  EXPECT_EQ(Seg::internal::closeHoles(cube), 0);
}

namespace {

// A stand-in for the host's model: the image itself is the prediction, and the configuration
// path it was given is kept.
struct FakeModel : Algorithm {
  static inline std::string lastPath;
  SharedImageSet* in;
  Parameter<std::string> configPath{"configPath", "", this};
  explicit FakeModel(SharedImageSet* image) : in(image) {}
  static bool createCompatible(const DataList& data, Algorithm** a) {
    if (data.size() != 1 || !data.getImage()) return false;
    if (a) *a = new FakeModel(data.getImage());
    return true;
  }
  void compute() override {
    lastPath = configPath.value();
    setStatus(statusSuccess);
  }
  OwningDataList takeOutput() override {
    OwningDataList out;
    out.add(in->clone());
    return out;
  }
};

struct FakeMlFactory : AlgorithmFactory {
  FakeMlFactory() : AlgorithmFactory("ML", true) { registerAlgorithm<FakeModel>("MachineLearningModel", "ML;Model"); }
};

}  // namespace

TEST(PredictionSeeds, ModelOutputBecomesANarrowBand) {
  // The "prediction" is a ball of radius 6 (value 1) in a 24³ volume; margins of 2 voxels.
  Pair p = makePair({24, 24, 24}, {1, 1, 1}, 0);
  auto* img = static_cast<TypedImage<float>*>(p.image->mem());
  for (int z = 0; z < 24; ++z)
    for (int y = 0; y < 24; ++y)
      for (int x = 0; x < 24; ++x)
        img->setValue((Eigen::Vector3d(x, y, z) - Eigen::Vector3d::Constant(11.5)).norm() < 6 ? 1.0f : 0.0f, x, y, z);
  TestKit::LogCapture log;
  InteractiveSegmentationAlgorithm seg(*p.image, p.labels.get());
  EXPECT_FALSE(seg.isPredictionAvailable());
  FakeMlFactory factory;
  FactoryRegistry::get().addAlgorithmFactory(&factory);
  EXPECT_TRUE(seg.isPredictionAvailable());
  const bool ok = seg.initFromPrediction("model.json", 2, 2, 0.5f);
  FactoryRegistry::get().removeAlgorithmFactory(&factory);
  ASSERT_TRUE(ok);
  EXPECT_EQ(FakeModel::lastPath, "model.json");
  EXPECT_TRUE(log.contains("Initialized seeds from prediction"));
  EXPECT_EQ(p.at(11, 11, 11), 1);
  EXPECT_EQ(p.at(11, 11, 15), 1);  // 3.5 from the centre: 2.5 inside the border
  EXPECT_EQ(p.at(11, 11, 17), 0);  // on the border: the band
  EXPECT_EQ(p.at(11, 11, 19), 0);  // 1.5 outside: still in the band
  EXPECT_EQ(p.at(4, 4, 11), 2);    // in the box of the dilation, far from the ball
  EXPECT_EQ(p.at(0, 0, 0), 0);     // outside that box
}
