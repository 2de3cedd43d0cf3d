#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <cstring>
#include <random>

#include "GraphLaplacianAlgorithm.h"
#include "InteractiveSegmentationAlgorithm.h"
#include "InteractiveSegmentationWatershedAlgorithm.h"
#include "Log.h"
#include "Mesh.h"
#include "SharedImageSet.h"
#include "InteractiveTestKit.h"
#include "TestSupport.h"

using namespace Merivane;
using namespace Merivane::InteractiveTestKit;


TEST(InteractiveSegmentation, PaintedSeedsSegmentTheBallAndAcceptWritesTheObject) {
  Phantom p(false);
  TestKit::LogCapture log;
  InteractiveSegmentationAlgorithm seg(*p.image, p.labels.get());
  seg.compute();
  ASSERT_EQ(seg.status(), Algorithm::statusSuccess) << (log.lines().empty() ? "" : log.lines().back().message);
  EXPECT_TRUE(seg.hasSegmentationToAccept());
  // The run only draws the outline; accept turns the probabilities into labels.
  EXPECT_GT(std::count(p.map().pointer(), p.map().pointer() + N * N * N, 255), 0);
  seg.acceptSegmentation();
  EXPECT_GE(dice(p.map(), p.truth, 1), 0.95);
  // Everything is decided: L in the object, L + 1 everywhere else.
  for (int k = 0; k < N * N * N; ++k) ASSERT_TRUE(p.map().pointer()[k] == 1 || p.map().pointer()[k] == 2) << k;
  // The one info line of a run, and nothing above it.
  EXPECT_EQ(log.count(Log::Warning) + log.count(Log::Error), 0);
  EXPECT_TRUE(log.contains("Segmentation computed in "));
}

TEST(InteractiveSegmentation, CorrectionStrokeChangesTheResultAndWarmStartsTheReRun) {
  Phantom p;
  TestKit::LogCapture log;
  InteractiveSegmentationAlgorithm seg(*p.image, p.labels.get());
  seg.compute();
  ASSERT_EQ(seg.status(), Algorithm::statusSuccess);
  EXPECT_FALSE(seg.lastRunWarmStarted());
  ASSERT_LT(objectShare(seg, p.bump), 0.1) << "the first run should leave the unseeded bump out";

  // An object stroke in the bump, inside the seeds' box: the next run reuses the solution.
  const auto stroke = paintBumpStroke(p.map(), 1);
  auto corrected = p.labels->clone();
  const GraphLaplacianAlgorithm* inner = seg.innerAlgorithm();
  seg.compute();
  EXPECT_EQ(seg.innerAlgorithm(), inner) << "the box is unchanged, so the inner algorithm stays";
  ASSERT_EQ(seg.status(), Algorithm::statusSuccess);
  EXPECT_TRUE(seg.lastRunWarmStarted());
  const std::vector<int> warm = seg.lastLevelIterations();
  EXPECT_GT(objectShare(seg, p.bump), 0.8) << "the stroke should bring the bump into the object";
  EXPECT_EQ(objectShare(seg, stroke), 1.0);

  // The same seeds from scratch: the same answer, with more iterations.
  InteractiveSegmentationAlgorithm cold(*p.image, corrected.get());
  cold.compute();
  ASSERT_EQ(cold.status(), Algorithm::statusSuccess);
  EXPECT_FALSE(cold.lastRunWarmStarted());
  const std::vector<int> fresh = cold.lastLevelIterations();
  // The re-run solves the finest level alone, from the kept solution.
  ASSERT_EQ(warm.size(), 1u);
  EXPECT_LT(total(warm), total(fresh)) << "warm " << ::testing::PrintToString(warm) << ", cold "
                                       << ::testing::PrintToString(fresh);
  EXPECT_LT(warm.back(), fresh.back());
  const auto* a = static_cast<const TypedImage<float>*>(seg.probability()->mem(0));
  const auto* b = static_cast<const TypedImage<float>*>(cold.probability()->mem(0));
  int differing = 0;
  for (int k = 0; k < N * N * N; ++k) differing += (a->pointer()[k] >= 0.5f) != (b->pointer()[k] >= 0.5f);
  EXPECT_LE(differing, 20) << "warm and cold runs solve the same system to 1e-5";
}

TEST(InteractiveSegmentation, RunsForceTheInteractiveSolverSettings) {
  Phantom p;
  TestKit::LogCapture log;
  InteractiveSegmentationAlgorithm seg(*p.image, p.labels.get());
  Properties config;
  config.setParam("Solver ID", 2);
  config.setParam("Solver Iterations", 3);
  config.setParam("Solver Tolerance", 0.5);
  seg.configure(&config);
  seg.autoCrop = false;
  EXPECT_TRUE(seg.labelsGiven());
  seg.compute();
  ASSERT_EQ(seg.status(), Algorithm::statusSuccess);
  EXPECT_EQ(seg.solverId.value(), 4);
  EXPECT_EQ(seg.solverIterations.value(), 500);
  EXPECT_DOUBLE_EQ(seg.solverTolerance.value(), 1e-5);
  EXPECT_TRUE(seg.autoCrop);
  EXPECT_FALSE(seg.verbose.value());
}

TEST(InteractiveSegmentation, AcceptAndContinueMovesToTheNextObjectLabel) {
  Phantom p;
  TestKit::LogCapture log;
  InteractiveSegmentationAlgorithm seg(*p.image, p.labels.get());
  seg.compute();
  ASSERT_EQ(seg.status(), Algorithm::statusSuccess);
  auto acceptedOnly = p.labels->clone();
  EXPECT_EQ(seg.acceptSegmentationAndContinue(), 2);
  EXPECT_EQ(seg.objectLabel(), 2);
  EXPECT_FALSE(seg.hasSegmentationToAccept());
  // The accepted object stays at 1, its background is free again.
  size_t ones = 0;
  for (int k = 0; k < N * N * N; ++k) {
    const unsigned char v = p.map().pointer()[k];
    ASSERT_TRUE(v == 0 || v == 1) << k;
    ones += v == 1;
  }
  EXPECT_GT(ones, 4000u);

  // The second object is the bump: seeds 2 inside it, 3 round it.
  std::vector<unsigned char> before(p.map().pointer(), p.map().pointer() + N * N * N);
  const Eigen::Vector3d bc = kCentre + Eigen::Vector3d(13, 0, 0);
  for (int z = 0; z < N; ++z)
    for (int y = 0; y < N; ++y)
      for (int x = 0; x < N; ++x) {
        const double d = (Eigen::Vector3d(x, y, z) - bc).norm();
        if (d < 1.5 && p.map().value(x, y, z) == 0) p.map().setValue(2, x, y, z);
        if (d > 8.0 && d < 9.0 && p.map().value(x, y, z) == 0) p.map().setValue(3, x, y, z);
      }
  seg.compute();
  ASSERT_EQ(seg.status(), Algorithm::statusSuccess) << log.lines().back().message;
  seg.acceptSegmentation();
  size_t bumpHits = 0, bumpSize = 0;
  for (int k = 0; k < N * N * N; ++k) {
    const unsigned char v = p.map().pointer()[k];
    ASSERT_TRUE(v >= 1 && v <= 3) << k;
    // The first object keeps its label wherever the second run reached.
    if (before[k] == 1) {
      ASSERT_EQ(v, 1) << k;
    }
    bumpSize += p.bump[k];
    bumpHits += p.bump[k] && v == 2;
  }
  EXPECT_GT(double(bumpHits) / double(bumpSize), 0.6);
  // After the second accept the next object would be 3 with background 4.
  EXPECT_EQ(seg.acceptSegmentationAndContinue(), 3);
}

TEST(InteractiveSegmentation, AcceptAndContinueWithoutAResultRefuses) {
  Phantom p;
  TestKit::LogCapture log;
  InteractiveSegmentationAlgorithm seg(*p.image, p.labels.get());
  auto before = p.labels->clone();
  EXPECT_EQ(seg.acceptSegmentationAndContinue(), 0);
  EXPECT_EQ(log.count(Log::Error), 1);
  EXPECT_EQ(seg.objectLabel(), 1);
  EXPECT_TRUE(std::equal(p.map().pointer(), p.map().pointer() + N * N * N,
                         static_cast<Labels*>(before->mem())->pointer()));
}

TEST(InteractiveSegmentation, StatisticsOfARunAreThoseOfItsAccept) {
  // A 2D step image: left half 10 with noise-free values, right half 30.
  auto image = TestKit::makeImage<float>({20, 10, 1}, [](int x, int, int) { return x < 10 ? 10.0 : 30.0; });
  image->get(0)->setSpacing(Eigen::Vector3d(0.5, 2.0, 3.0));
  auto labels = TestKit::makeImage<unsigned char>({20, 10, 1}, [](int x, int, int) {
    return x == 2 ? 1 : (x == 17 ? 2 : 0);
  });
  labels->get(0)->setSpacing(Eigen::Vector3d(0.5, 2.0, 3.0));
  labels->setModality(Data::LABEL);
  TestKit::LogCapture log;
  InteractiveSegmentationAlgorithm seg(*image, labels.get());
  EXPECT_TRUE(seg.getStatistics(nullptr).empty());
  // Before a run: the seeds themselves, 10 pixels each of 0.5 * 2 * 3 = 3 mm².
  auto seeds = seg.getStatistics(labels->get(0));
  ASSERT_EQ(seeds.size(), 2u);
  EXPECT_DOUBLE_EQ(seeds[0][0], 30.0);
  EXPECT_DOUBLE_EQ(seeds[0][1], 10.0);
  EXPECT_DOUBLE_EQ(seeds[0][2], 0.0);
  EXPECT_DOUBLE_EQ(seeds[1][3], 30.0);
  seg.compute();
  ASSERT_EQ(seg.status(), Algorithm::statusSuccess);
  const auto run = seg.getStatistics(labels->get(0));
  seg.acceptSegmentation();
  const auto accepted = seg.getStatistics(labels->get(0));
  ASSERT_EQ(run.size(), 2u);
  EXPECT_EQ(run, accepted);
  EXPECT_DOUBLE_EQ(accepted[0][0], 100 * 3.0);  // the left half
  EXPECT_DOUBLE_EQ(accepted[0][1], 10.0);
  EXPECT_DOUBLE_EQ(accepted[1][4], 30.0);
}

TEST(InteractiveSegmentation, ExportsAndLabelsCreatedForAnImageAlone) {
  Phantom p;
  TestKit::LogCapture log;
  InteractiveSegmentationAlgorithm seg(*p.image, nullptr);
  EXPECT_EQ(seg.labels(), nullptr);
  EXPECT_FALSE(seg.labelsGiven());
  seg.compute();  // nothing to work on: a warning, nothing else
  EXPECT_EQ(seg.status(), Algorithm::statusUnknown);
  SharedImageSet* labels = seg.createLabels();
  ASSERT_NE(labels, nullptr);
  EXPECT_EQ(seg.labels(), labels);
  EXPECT_EQ(labels->modality(), Data::LABEL);
  ASSERT_EQ(labels->mem(0)->dimensions(), Eigen::Vector3i(N, N, N));
  // Paint the phantom's seeds into it and run.
  std::copy(p.map().pointer(), p.map().pointer() + N * N * N, static_cast<Labels*>(labels->mem(0))->pointer());
  seg.compute();
  ASSERT_EQ(seg.status(), Algorithm::statusSuccess);
  auto mesh = seg.extractSegmentation3D(20, 2.0, true);
  ASSERT_TRUE(mesh);
  EXPECT_GT(mesh->faces.size(), 100u);
  auto exported = seg.exportLabelMap();
  ASSERT_TRUE(exported);
  EXPECT_EQ(exported->name(), "Labels");
  EXPECT_NE(exported->mem(0), labels->mem(0));
  // The prediction path is there only when the host has a model.
  EXPECT_FALSE(seg.isPredictionAvailable());
  EXPECT_FALSE(seg.initFromPrediction("model.cfg", 10, 10, 0.5f));
}

// Failure paths: one line, a status, and the label map as it was.
struct FailureCase {
  const char* name;
  int status;
  int level;
  const char* text;
};

class InteractiveSegmentationFailure : public ::testing::TestWithParam<FailureCase> {};

TEST_P(InteractiveSegmentationFailure, ReportsOnceAndLeavesTheLabelsAlone) {
  const FailureCase c = GetParam();
  const std::string name = c.name;
  Phantom p;
  std::unique_ptr<SharedImageSet> labels;
  if (name == "no seeds") {
    labels = TestKit::makeImage<unsigned char>({N, N, N}, [](int, int, int) { return 0; });
  } else if (name == "object only") {
    labels = TestKit::makeImage<unsigned char>({N, N, N}, [](int x, int y, int z) {
      return x == 23 && y == 23 && z == 23 ? 1 : 0;
    });
  } else if (name == "background only") {
    labels = TestKit::makeImage<unsigned char>({N, N, N}, [](int x, int, int) { return x == 0 ? 2 : 0; });
  } else if (name == "other grid") {
    labels = TestKit::makeImage<unsigned char>({N, N, N / 2}, [](int x, int, int) { return x < 3 ? 2 : 1; });
  } else if (name == "wrong pixel type") {
    labels = TestKit::makeImage<unsigned short>({N, N, N}, [](int x, int, int) { return x < 3 ? 2 : (x == 23); });
  } else if (name == "no free voxel") {
    labels = TestKit::makeImage<unsigned char>({N, N, N}, [](int x, int, int) { return x < 24 ? 1 : 2; });
  }
  labels->setModality(Data::LABEL);
  // The list is refused by the factory rule where the label map does not fit the image.
  const bool fits = name != "other grid" && name != "wrong pixel type";
  EXPECT_EQ(InteractiveSegmentationAlgorithm::createCompatible(DataList{p.image.get(), labels.get()}), fits);
  EXPECT_EQ(InteractiveSegmentationWatershedAlgorithm::createCompatible(DataList{p.image.get(), labels.get()}), fits);
  const auto before = labels->clone();
  TestKit::LogCapture log;
  InteractiveSegmentationAlgorithm seg(*p.image, labels.get());
  seg.compute();
  EXPECT_EQ(seg.status(), c.status);
  EXPECT_FALSE(seg.hasSegmentationToAccept());
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].level, c.level);
  EXPECT_NE(log.lines()[0].message.find(c.text), std::string::npos) << log.lines()[0].message;
  const MemImage* a = labels->mem(0);
  const MemImage* b = before->mem(0);
  EXPECT_EQ(std::memcmp(a->data(), b->data(), a->byteSize()), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Inputs, InteractiveSegmentationFailure,
    ::testing::Values(FailureCase{"no seeds", Algorithm::statusIncompleteInput, Log::Error, "No seeds of label 1 or 2"},
                      FailureCase{"object only", Algorithm::statusIncompleteInput, Log::Error, "none of label 2"},
                      FailureCase{"background only", Algorithm::statusIncompleteInput, Log::Error, "none of label 1"},
                      FailureCase{"other grid", Algorithm::statusInvalidInput, Log::Error, "differs from the image"},
                      FailureCase{"wrong pixel type", Algorithm::statusInvalidInput, Log::Error, "unsigned 8-bit"},
                      FailureCase{"no free voxel", Algorithm::statusError, Log::Warning, "No unlabeled pixels"}),
    [](const auto& info) {
      std::string n = info.param.name;
      std::replace(n.begin(), n.end(), ' ', '_');
      return n;
    });

TEST(InteractiveSegmentation, NoFreeVoxelGivesTheInvertedMapAndNothingToAccept) {
  auto image = TestKit::makeImage<float>({8, 8, 1}, [](int x, int, int) { return x; });
  auto labels = TestKit::makeImage<unsigned char>({8, 8, 1}, [](int x, int, int) { return x < 4 ? 1 : 2; });
  labels->setModality(Data::LABEL);
  TestKit::LogCapture log;
  InteractiveSegmentationAlgorithm seg(*image, labels.get());
  seg.compute();
  EXPECT_EQ(seg.status(), Algorithm::statusError);
  ASSERT_TRUE(seg.probability());
  const auto* p = static_cast<const TypedImage<float>*>(seg.probability()->mem(0));
  EXPECT_EQ(p->value(0, 0, 0), 2.0f);  // label 1 of the range 1..2 inverted
  EXPECT_EQ(p->value(7, 0, 0), 1.0f);
  EXPECT_FALSE(seg.hasSegmentationToAccept());
}

class InteractiveThreads : public ::testing::TestWithParam<bool> {};

TEST_P(InteractiveThreads, ResultsDoNotDependOnTheThreadCount) {
  const bool watershed = GetParam();
  auto run = [&](int threads) {
    const int was = omp_get_max_threads();
    omp_set_num_threads(threads);
    Phantom p;
    TestKit::LogCapture log;
    std::unique_ptr<InteractiveSegmentationAlgorithm> seg =
        watershed ? std::make_unique<InteractiveSegmentationWatershedAlgorithm>(*p.image, p.labels.get())
                  : std::make_unique<InteractiveSegmentationAlgorithm>(*p.image, p.labels.get());
    seg->compute();
    EXPECT_EQ(seg->status(), Algorithm::statusSuccess);
    // A correction and a warm re-run, then the accept.
    paintBumpStroke(p.map(), 1);
    seg->compute();
    EXPECT_EQ(seg->status(), Algorithm::statusSuccess);
    const auto* prob = static_cast<const TypedImage<float>*>(seg->probability()->mem(0));
    std::vector<float> probabilities(prob->pointer(), prob->pointer() + N * N * N);
    seg->acceptSegmentation();
    std::vector<unsigned char> labels(p.map().pointer(), p.map().pointer() + N * N * N);
    const std::vector<int> iterations = seg->lastLevelIterations();
    omp_set_num_threads(was);
    return std::make_tuple(probabilities, labels, iterations);
  };
  const auto one = run(1), two = run(2);
  EXPECT_TRUE(std::get<0>(one) == std::get<0>(two));
  EXPECT_TRUE(std::get<1>(one) == std::get<1>(two));
  EXPECT_EQ(std::get<2>(one), std::get<2>(two));
}

INSTANTIATE_TEST_SUITE_P(RandomWalkAndWatershed, InteractiveThreads, ::testing::Bool());

TEST(InteractiveWatershed, PaintedSeedsSegmentTheBallAndTheCycleWorksAsAfterARandomWalk) {
  Phantom p(false);
  TestKit::LogCapture log;
  InteractiveSegmentationWatershedAlgorithm seg(*p.image, p.labels.get());
  // The solver settings are not the watershed's business.
  seg.solverIterations = 7;
  seg.compute();
  ASSERT_EQ(seg.status(), Algorithm::statusSuccess) << (log.lines().empty() ? "" : log.lines().back().message);
  EXPECT_EQ(seg.solverIterations.value(), 7);
  EXPECT_TRUE(seg.lastLevelIterations().empty());
  // A hard result: every probability in the box is 0 or 1, and the outline is drawn.
  const auto* prob = static_cast<const TypedImage<float>*>(seg.probability()->mem(0));
  for (int k = 0; k < N * N * N; ++k) {
    const float v = prob->pointer()[k];
    ASSERT_TRUE(v == 0.0f || v == 1.0f || p.map().pointer()[k] == v) << k;
  }
  EXPECT_GT(std::count(p.map().pointer(), p.map().pointer() + N * N * N, 255), 0);
  const auto stats = seg.getStatistics(p.labels->get(0));
  ASSERT_EQ(stats.size(), 2u);
  seg.acceptSegmentation();
  EXPECT_GE(dice(p.map(), p.truth, 1), 0.95);
  EXPECT_DOUBLE_EQ(stats[0][0], double(std::count(p.map().pointer(), p.map().pointer() + N * N * N, 1)));
  EXPECT_EQ(seg.acceptSegmentationAndContinue(), 2);
  EXPECT_EQ(log.count(Log::Warning) + log.count(Log::Error), 0);
}

TEST(InteractiveWatershed, ObjectSeedsAloneFloodTheWholeImage) {
  auto image = TestKit::makeImage<float>({12, 12, 1}, [](int x, int, int) { return x; });
  auto labels = TestKit::makeImage<unsigned char>({12, 12, 1}, [](int x, int y, int) { return x == 5 && y == 5; });
  labels->setModality(Data::LABEL);
  TestKit::LogCapture log;
  InteractiveSegmentationWatershedAlgorithm seg(*image, labels.get());
  seg.autoAccept = true;
  seg.compute();
  ASSERT_EQ(seg.status(), Algorithm::statusSuccess);
  // Everything is the object, and it touches the border.
  const auto* l = static_cast<const Labels*>(labels->mem());
  EXPECT_EQ(std::count(l->pointer(), l->pointer() + 144, 1), 144);
  EXPECT_TRUE(log.contains("extends to the border"));
}

TEST(InteractiveWatershed, RefusesLikeTheRandomWalkWithTheLabelsUntouched) {
  Phantom p(false);
  auto empty = TestKit::makeImage<unsigned char>({N, N, N}, [](int, int, int) { return 0; });
  auto wrongType = TestKit::makeImage<float>({N, N, N}, [](int x, int, int) { return x < 3 ? 2 : 1; });
  for (SharedImageSet* labels : {empty.get(), wrongType.get()}) {
    const auto before = labels->clone();
    TestKit::LogCapture log;
    InteractiveSegmentationWatershedAlgorithm seg(*p.image, labels);
    seg.compute();
    EXPECT_EQ(seg.status(), Algorithm::statusInvalidInput);
    EXPECT_EQ(log.count(Log::Error), 1);
    EXPECT_EQ(std::memcmp(labels->mem(0)->data(), before->mem(0)->data(), labels->mem(0)->byteSize()), 0);
    EXPECT_FALSE(seg.hasSegmentationToAccept());
  }
}
