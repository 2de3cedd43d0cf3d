// Vessels from a difference inside a brain mask; the mask's closing and filling; inputs.
#include <gtest/gtest.h>
#include <omp.h>

#include "BrainVesselSegmentationAlgorithm.h"
#include "LabelDataComponent.h"
#include "Log.h"
#include "TestSupport.h"

namespace Merivane {
namespace {

std::unique_ptr<SharedImageSet> mri(double (*f)(int, int, int)) {
  auto s = TestKit::makeImage<unsigned short>({40, 32, 24}, f);
  s->setModality(Data::MRI);
  return s;
}

// A spherical shell of radius 14 round the centre (a brain outline with its inside missing).
std::unique_ptr<SharedImageSet> shellMask() {
  auto s = TestKit::makeImage<unsigned char>({40, 32, 24}, [](int x, int y, int z) {
    const double r = Eigen::Vector3d(x - 20, y - 16, z - 12).norm();
    return r <= 11.0 && r >= 9.0 ? 1 : 0;
  });
  s->setModality(Data::LABEL);
  return s;
}

// With contrast: a tube of +300 along x at y = 16, z = 12 over the whole width.
double withContrast(int x, int y, int z) {
  return 200.0 + 3.0 * TestKit::hashNoise(x, y, z) + ((y - 16) * (y - 16) + (z - 12) * (z - 12) <= 4 ? 300.0 : 0.0);
}
double without(int x, int y, int z) { return 200.0 + 3.0 * TestKit::hashNoise(x + 7, y, z); }

TEST(BrainVesselSegmentation, VesselsOfTheDifferenceInsideTheFilledMask) {
  auto a = mri(withContrast), b = mri(without);
  auto mask = shellMask();
  Algorithm* created = nullptr;
  ASSERT_TRUE(BrainVesselSegmentationAlgorithm::createCompatible(DataList{a.get(), b.get(), mask.get()}, &created));
  std::unique_ptr<Algorithm> algorithm(created);
  algorithm->compute();
  ASSERT_EQ(algorithm->status(), Algorithm::statusSuccess);
  auto out = algorithm->takeOutput().extractFirstImage();
  ASSERT_TRUE(out);
  EXPECT_EQ(out->modality(), Data::LABEL);
  const auto& l = static_cast<const TypedImage<unsigned char>&>(*out->mem());
  ASSERT_EQ(l.dimensions(), Eigen::Vector3i(40, 32, 24));
  // The tube's core inside the mask, including the filled inside of the shell.
  for (int x = 12; x <= 28; ++x) EXPECT_EQ(l.value(x, 16, 12), 1) << x;
  // Outside the mask, and away from the tube, nothing.
  EXPECT_EQ(l.value(2, 16, 12), 0);
  EXPECT_EQ(l.value(37, 16, 12), 0);
  EXPECT_EQ(l.value(20, 16, 5), 0);
  EXPECT_EQ(l.value(20, 8, 12), 0);
}

TEST(BrainVesselSegmentation, SerialEqualsParallel) {
  auto a = mri(withContrast), b = mri(without);
  auto mask = shellMask();
  auto run = [&](int threads) {
    omp_set_num_threads(threads);
    BrainVesselSegmentationAlgorithm algorithm(a.get(), b.get(), mask.get());
    algorithm.threshold = 0.2;
    algorithm.compute();
    EXPECT_EQ(algorithm.status(), Algorithm::statusSuccess);
    auto out = algorithm.takeOutput().extractFirstImage();
    const auto* p = static_cast<const unsigned char*>(out->mem()->data());
    return std::vector<unsigned char>(p, p + out->mem()->descriptor().pixelCount());
  };
  const int threads = omp_get_max_threads();
  const auto serial = run(1), parallel = run(2);
  omp_set_num_threads(threads);
  EXPECT_EQ(serial, parallel);
}

TEST(BrainVesselSegmentation, BrainMaskIsClosedFilledAndOnTheReferenceGrid) {
  auto a = mri(withContrast), b = mri(without);
  auto mask = shellMask();
  BrainVesselSegmentationAlgorithm algorithm(a.get(), b.get(), mask.get());
  // The reference at half the resolution, same world box.
  auto ref = TestKit::makeImage<unsigned short>({20, 16, 12}, [](int, int, int) { return 0; });
  ref->get(0)->setSpacing(Eigen::Vector3d(2, 2, 2));
  auto m = algorithm.processBrainMask(*mask->get(0), *ref->get(0));
  ASSERT_TRUE(m);
  const auto& t = static_cast<const TypedImage<unsigned char>&>(*m->mem());
  ASSERT_EQ(t.dimensions(), Eigen::Vector3i(20, 16, 12));
  EXPECT_EQ(t.value(10, 8, 6), 1);  // the centre, filled
  EXPECT_EQ(t.value(1, 1, 1), 0);
  EXPECT_EQ(m->modality(), Data::LABEL);
}

TEST(BrainVesselSegmentation, InputsAndTheirAbsence) {
  auto a = mri(withContrast), b = mri(without);
  auto mask = shellMask();
  auto ct = TestKit::makeImage<unsigned short>({40, 32, 24}, [](int, int, int) { return 0; });
  ct->setModality(Data::CT);
  EXPECT_FALSE(BrainVesselSegmentationAlgorithm::createCompatible(DataList{a.get(), b.get()}));
  EXPECT_FALSE(BrainVesselSegmentationAlgorithm::createCompatible(DataList{a.get(), ct.get(), mask.get()}));
  EXPECT_TRUE(BrainVesselSegmentationAlgorithm::createCompatible(DataList{a.get(), b.get(), mask.get(), mask.get()}));
  EXPECT_FALSE(
      BrainVesselSegmentationAlgorithm::createCompatible(DataList{a.get(), b.get(), mask.get(), mask.get(), mask.get()}));

  TestKit::LogCapture log;
  BrainVesselSegmentationAlgorithm missing(a.get(), nullptr, mask.get());
  missing.compute();
  EXPECT_EQ(missing.status(), Algorithm::statusIncompleteInput);
  EXPECT_TRUE(log.contains("Input for vessel segmentation not set"));
  EXPECT_EQ(log.count(Log::Error), 1);
  EXPECT_TRUE(missing.takeOutput().empty());
}

}  // namespace
}  // namespace Merivane
