#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "GraphBasedSegmentation.h"
#include "GraphLaplacian.h"
#include "GraphLaplacianAlgorithm.h"
#include "Log.h"
#include "Mesh.h"
#include "MeshProcessing.h"
#include "SharedImageSet.h"
#include "TestSupport.h"

using namespace Merivane;

namespace {

struct Phantom {
  std::unique_ptr<SharedImageSet> image, labels;
  std::vector<unsigned char> truth;
};

// A noisy bright ball (disc in 2D) of radius r in the middle; object seeds at the centre,
// background seeds in the four (eight) corners so that the box holds the whole object.
Phantom makePhantom(int n, int slices, double r, unsigned seed = 5) {
  Phantom p;
  std::mt19937 rng(seed);
  std::normal_distribution<float> noise(0.0f, 0.15f);
  const Eigen::Vector3i dims(n, n, slices);
  auto img = TypedImage<float>::zeros(dims, 1);
  auto lab = TypedImage<unsigned char>::zeros(dims, 1);
  p.truth.resize(static_cast<size_t>(n) * n * slices);
  const double c = (n - 1) / 2.0, cz = (slices - 1) / 2.0;
  for (int z = 0; z < slices; ++z)
    for (int y = 0; y < n; ++y)
      for (int x = 0; x < n; ++x) {
        const double dz = slices > 1 ? z - cz : 0.0;
        const double d = std::sqrt((x - c) * (x - c) + (y - c) * (y - c) + dz * dz);
        const bool inside = d < r;
        img->setValue((inside ? 1.0f : 0.0f) + noise(rng), x, y, z);
        p.truth[(static_cast<size_t>(z) * n + y) * n + x] = inside;
        if (d < 2.0) lab->setValue(1, x, y, z);
        const bool cornerX = x < 2 || x >= n - 2, cornerY = y < 2 || y >= n - 2;
        const bool cornerZ = slices == 1 || z < 2 || z >= slices - 2;
        if (cornerX && cornerY && cornerZ) lab->setValue(2, x, y, z);
      }
  p.image = std::make_unique<SharedImageSet>(std::shared_ptr<Image>(std::move(img)));
  p.labels = std::make_unique<SharedImageSet>(std::shared_ptr<Image>(std::move(lab)));
  p.labels->setModality(Data::LABEL);
  return p;
}

double dice(const TypedImage<unsigned char>& labels, const std::vector<unsigned char>& truth, int object) {
  const unsigned char* l = labels.pointer();
  size_t both = 0, a = 0, b = 0;
  for (size_t i = 0; i < truth.size(); ++i) {
    const bool seg = l[i] == object;
    both += seg && truth[i];
    a += seg;
    b += truth[i];
  }
  return 2.0 * both / double(a + b);
}

}  // namespace

class SegmentsPhantom : public ::testing::TestWithParam<std::tuple<int, int>> {};

TEST_P(SegmentsPhantom, DiceAgainstGroundTruth) {
  const auto [slices, levels] = GetParam();
  Phantom p = makePhantom(slices == 1 ? 64 : 32, slices, slices == 1 ? 18.0 : 9.0);
  TestKit::LogCapture log;
  GraphBasedSegmentation seg(p.image.get(), p.labels.get());
  seg.numLevels = levels;
  seg.autoAccept = true;
  seg.compute();
  ASSERT_EQ(seg.status(), Algorithm::statusSuccess);
  auto* labels = static_cast<TypedImage<unsigned char>*>(p.labels->mem());
  EXPECT_GE(dice(*labels, p.truth, 1), 0.95) << "slices " << slices << ", levels " << levels;
  EXPECT_EQ(log.count(Log::Error), 0);
}

INSTANTIATE_TEST_SUITE_P(TwoAndThreeD, SegmentsPhantom,
                         ::testing::Combine(::testing::Values(1, 32), ::testing::Values(1, 4)));

TEST(GraphBasedSegmentation, OutlineIs255AndTouchingTheBorderWarns) {
  // Object seeds on the left edge, background on the right: the object reaches the border.
  const Eigen::Vector3i dims(16, 8, 1);
  auto img = TestKit::makeImage<float>(dims, [](int x, int, int) { return x < 8 ? 0.0 : 1.0; });
  auto lab = TestKit::makeImage<unsigned char>(dims, [](int x, int, int) { return x == 0 ? 1 : (x == 15 ? 2 : 0); });
  TestKit::LogCapture log;
  GraphBasedSegmentation seg(img.get(), lab.get());
  seg.numLevels = 1;
  seg.verbose = false;
  seg.compute();
  ASSERT_EQ(seg.status(), Algorithm::statusSuccess);
  auto* l = static_cast<TypedImage<unsigned char>*>(lab->mem());
  // The inside column next to the step is the outline; border voxels of the object are 255 too.
  for (int y = 1; y < 7; ++y) EXPECT_EQ(l->value(7, y), 255) << y;
  EXPECT_EQ(l->value(0, 3), 255);
  EXPECT_EQ(l->value(4, 3), 0);
  EXPECT_EQ(l->value(15, 3), 2);
  EXPECT_TRUE(log.contains("The segmentation extends to the border of the image"));

  // Clearing removes exactly the outline.
  seg.clearResult();
  EXPECT_EQ(l->value(7, 3), 0);
  EXPECT_EQ(l->value(15, 3), 2);
}

TEST(GraphBasedSegmentation, ConversionUsesGreaterOrEqualAtOneHalf) {
  // A constant 1D chain of five voxels with opposite seeds: the middle voxel is exactly 0.5.
  const Eigen::Vector3i dims(5, 2, 1);
  auto img = TestKit::makeImage<float>(dims, [](int, int, int) { return 1.0; });
  auto lab = TestKit::makeImage<unsigned char>(dims, [](int x, int, int) { return x == 0 ? 1 : (x == 4 ? 2 : 0); });
  GraphBasedSegmentation seg(img.get(), lab.get());
  seg.numLevels = 1;
  seg.verbose = false;
  seg.solverId = 1;  // exact
  seg.compute();
  ASSERT_EQ(seg.status(), Algorithm::statusSuccess);
  EXPECT_NEAR(static_cast<const TypedImage<float>*>(seg.probability()->mem(0))->value(2, 0), 0.5f, 1e-6f);
  seg.convertToLabels(true);
  auto* l = static_cast<TypedImage<unsigned char>*>(lab->mem());
  // The conversion is v >= 0.5; the graph's own rule would give the background here.
  GraphLaplacianAlgorithm inner(*img->get(), *lab->get());
  EXPECT_EQ(inner.graph().decide(0.5f), 2);
  EXPECT_EQ(l->value(1, 0), 1);
  EXPECT_EQ(l->value(3, 0), 2);

  auto handed = seg.probabilityImage();
  EXPECT_TRUE(handed);
  EXPECT_FALSE(seg.probabilityImage());
  TestKit::LogCapture log;
  seg.convertToLabels(true);
  EXPECT_TRUE(log.contains("Probability map not available - please run the graph algorithm."));
}

TEST(GraphBasedSegmentation, BoxGrowsAsymmetricallyAtTheImageStart) {
  const Eigen::Vector3i dims(40, 40, 1);
  auto img = TestKit::makeImage<float>(dims, [](int, int, int) { return 0.0; });
  // Seeds span x 2..12 and y 20..30.
  auto lab = TestKit::makeImage<unsigned char>(dims, [](int x, int y, int) {
    if (x == 2 && y == 20) return 1;
    if (x == 12 && y == 30) return 2;
    return 0;
  });
  GraphBasedSegmentation seg(img.get(), lab.get());
  seg.numLevels = 1;
  seg.verbose = false;
  seg.prepareForComputation();
  // x: newMin = max(trunc(2 - 10 * 0.2 + 0.5), 0) = 0, newMax = trunc(12 + (12 - 0) * 0.2 + 0.5) = 14.
  // y: newMin = trunc(20 - 2 + 0.5) = 18, newMax = trunc(30 + 12 * 0.2 + 0.5) = 32.
  EXPECT_EQ(seg.cropOffset(), Eigen::Vector3i(0, 18, 0));
  EXPECT_EQ(seg.cropSize(), Eigen::Vector3i(15, 15, 1));
}

TEST(GraphBasedSegmentation, ObjectSeedsOnlyOrNoSeedsMakeNoCrop) {
  const Eigen::Vector3i dims(10, 10, 1);
  auto img = TestKit::makeImage<float>(dims, [](int, int, int) { return 0.0; });
  auto objectOnly = TestKit::makeImage<unsigned char>(dims, [](int x, int y, int) { return x == 5 && y == 5; });
  GraphBasedSegmentation seg(img.get(), objectOnly.get());
  seg.verbose = false;
  seg.prepareForComputation();
  EXPECT_EQ(seg.cropSize(), Eigen::Vector3i::Zero());
  EXPECT_TRUE(seg.innerAlgorithm());

  auto none = TestKit::makeImage<unsigned char>(dims, [](int, int, int) { return 0; });
  GraphBasedSegmentation empty(img.get(), none.get());
  TestKit::LogCapture log;
  empty.compute();
  EXPECT_FALSE(empty.innerAlgorithm());
  EXPECT_NE(empty.status(), Algorithm::statusSuccess);
  EXPECT_EQ(log.count(Log::Error), 1);
}

TEST(GraphBasedSegmentation, CreateCompatibleWantsImageAndU8OneChannelLabels) {
  auto img = TestKit::makeSet(I16, {8, 8, 4});
  auto lab = TestKit::makeSet(U8, {8, 8, 4});
  auto wide = TestKit::makeSet(U16, {8, 8, 4});
  auto small = TestKit::makeSet(U8, {8, 8, 3});
  EXPECT_TRUE(GraphBasedSegmentation::createCompatible(DataList{img.get(), lab.get()}));
  EXPECT_FALSE(GraphBasedSegmentation::createCompatible(DataList{img.get(), wide.get()}));
  EXPECT_FALSE(GraphBasedSegmentation::createCompatible(DataList{img.get(), small.get()}));
  EXPECT_FALSE(GraphBasedSegmentation::createCompatible(DataList{img.get()}));
}

// The driver takes volumes only; a list of 2D images is refused however well it fits otherwise.
class GraphLaplacianCompatible : public testing::TestWithParam<int> {};

TEST_P(GraphLaplacianCompatible, TakesVolumesOnly) {
  const int slices = GetParam();
  auto img = TestKit::makeSet(F32, {8, 8, slices});
  auto lab = TestKit::makeSet(U8, {8, 8, slices});
  auto prior = TestKit::makeSet(F32, {8, 8, slices});
  auto twoChannels = TestKit::makeSet(U8, {8, 8, slices}, 1, 2);
  auto otherPrior = TestKit::makeSet(F32, {8, 7, slices});
  const bool volume = slices > 1;
  Algorithm* a = nullptr;
  EXPECT_EQ(GraphLaplacianAlgorithm::createCompatible(DataList{img.get(), lab.get()}, &a), volume);
  EXPECT_EQ(a != nullptr, volume);
  delete a;
  EXPECT_EQ(GraphLaplacianAlgorithm::createCompatible(DataList{img.get(), lab.get(), prior.get()}, nullptr), volume);
  EXPECT_FALSE(GraphLaplacianAlgorithm::createCompatible(DataList{img.get(), twoChannels.get()}, nullptr));
  EXPECT_FALSE(GraphLaplacianAlgorithm::createCompatible(DataList{img.get(), lab.get(), otherPrior.get()}, nullptr));
  EXPECT_FALSE(GraphLaplacianAlgorithm::createCompatible(DataList{img.get()}, nullptr));
}

INSTANTIATE_TEST_SUITE_P(Slices, GraphLaplacianCompatible, testing::Values(1, 2, 5));

TEST(GraphLaplacianAlgorithm, LevelsWithoutSeedsAreSkipped) {
  // Single-voxel seeds vanish from no level (the label pyramid keeps non-zero values), so use
  // seeds that only the finest level separates: object and background inside one 2x2 block.
  const Eigen::Vector3i dims(32, 32, 1);
  auto img = TestKit::makeImage<float>(dims, [](int x, int, int) { return x < 16 ? 0.0 : 1.0; });
  auto lab = TestKit::makeImage<unsigned char>(dims, [](int x, int y, int) {
    if (x == 2 && y == 2) return 1;
    if (x == 3 && y == 2) return 2;
    return 0;
  });
  GraphLaplacianAlgorithm a(*img->get(), *lab->get());
  Properties p;
  p.setParam("Num Levels", 3);
  a.configure(&p);
  TestKit::LogCapture log;
  a.compute();
  EXPECT_EQ(a.status(), Algorithm::statusSuccess);
  int skipped = 0;
  for (auto& l : log.lines()) skipped += l.message == "Not enough seeds at this level - Skipping";
  EXPECT_EQ(skipped, 2);
  EXPECT_EQ(a.takeOutput().size(), 1);
}

// Below the working resolution e (the spacing, 1 mm, at smoothness 1) the mesh is subdivided once
// per halving of e that the export resolution asks for: each multiplies the faces by 4.
TEST(GraphBasedSegmentation, MeshIsSubdividedOncePerHalvingOfTheResolution) {
  Phantom ball = makePhantom(16, 16, 4.0);
  GraphBasedSegmentation seg(ball.image.get(), ball.labels.get());
  seg.verbose = false;
  seg.compute();
  ASSERT_EQ(seg.status(), Algorithm::statusSuccess);
  auto base = seg.extractSegmentation3D(1.0, 1.0, true);
  ASSERT_TRUE(base);
  const size_t faces = base->faces.size();
  ASSERT_GT(faces, 0u);
  for (const auto& [resolution, halvings] : std::vector<std::pair<double, int>>{{0.6, 1}, {0.25, 2}, {0.05, 5}}) {
    auto mesh = seg.extractSegmentation3D(1.0, resolution, true);
    ASSERT_TRUE(mesh);
    EXPECT_EQ(mesh->faces.size(), faces << (2 * halvings)) << "export resolution " << resolution;
  }
  // Twenty halvings would ask for a trillion faces: refused at once, with one line.
  TestKit::LogCapture log;
  EXPECT_FALSE(seg.extractSegmentation3D(1.0, 1e-6, true));
  EXPECT_EQ(log.count(Log::Error), 1);
  EXPECT_TRUE(log.contains("export resolution"));
}

TEST(GraphBasedSegmentation, ExtractsContoursAndAClosedMeshOfTheObject) {
  Phantom disc = makePhantom(64, 1, 18.0);
  GraphBasedSegmentation seg(disc.image.get(), disc.labels.get());
  seg.verbose = false;
  // Converged well below the default: this checks the geometry of the extraction, and near
  // the default tolerance the outline of this sparsely seeded disc still moves by a pixel.
  seg.solverTolerance = 1e-8;
  seg.compute();
  ASSERT_EQ(seg.status(), Algorithm::statusSuccess);
  auto contours = seg.extractSegmentation2D(1.0, 1.0, true);
  ASSERT_FALSE(contours.empty());
  size_t longest = 0;
  for (auto& c : contours) longest = std::max(longest, c.size());
  // Points every millimetre along the noisy outline of a disc of radius 18 centred in world
  // space: the pixel staircase and the noise make it somewhat longer than the circle.
  EXPECT_GE(static_cast<double>(longest), 2 * M_PI * 18.0 * 0.95);
  EXPECT_LE(static_cast<double>(longest), 2 * M_PI * 18.0 * 1.25);
  for (auto& c : contours)
    if (c.size() == longest) {
      Eigen::Vector3d mean = Eigen::Vector3d::Zero();
      for (auto& p : c) {
        EXPECT_NEAR(p.head<2>().norm(), 18.0, 3.5);
        mean += p / static_cast<double>(c.size());
      }
      EXPECT_LT(mean.norm(), 1.0);
    }

  Phantom ball = makePhantom(32, 32, 9.0);
  GraphBasedSegmentation seg3(ball.image.get(), ball.labels.get());
  seg3.verbose = false;
  seg3.compute();
  ASSERT_EQ(seg3.status(), Algorithm::statusSuccess);
  auto mesh = seg3.extractSegmentation3D(1.0, 0.0, true);
  ASSERT_TRUE(mesh);
  EXPECT_TRUE(MeshProcessing::isClosedManifold(*mesh));
  EXPECT_EQ(MeshProcessing::eulerCharacteristic(*mesh), 2);
  for (auto& v : mesh->vertices) EXPECT_NEAR(v.cast<double>().norm(), 9.0, 2.0);

  TestKit::LogCapture log;
  seg3.probabilityImage();
  EXPECT_FALSE(seg3.extractSegmentation3D(1.0, 0.0, true));
  EXPECT_TRUE(log.contains("No segmentation available"));
}
