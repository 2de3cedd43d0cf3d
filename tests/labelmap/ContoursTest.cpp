#include <gtest/gtest.h>
#include <omp.h>

#include <Eigen/Geometry>
#include <cmath>

#include "ContoursStorageComponent.h"
#include "DataComponent.h"
#include "LabelMapToContoursAlgorithm.h"
#include "Log.h"
#include "MarchingSquares.h"
#include "SegAlgorithmFactory.h"
#include "Spline.h"
#include "TestSupport.h"

using namespace Merivane;

namespace {

std::vector<MarchingSquares::Polyline> trace(const std::vector<float>& v, int w, int h, double iso,
                                             std::vector<bool>* closed = nullptr) {
  std::vector<MarchingSquares::Polyline> out;
  MarchingSquares::run<const float>(v.data(), w, h, iso, out, Eigen::Vector2d::Zero(), Eigen::Vector2d::Ones(), closed);
  return out;
}

std::unique_ptr<SharedImageSet> discMap(int frames, const Eigen::Vector2d& c, double r, int label = 3) {
  auto set = TestKit::makeImage<unsigned char>({128, 120, 1}, [&](int x, int y, int) {
    return (Eigen::Vector2d(x, y) - c).norm() <= r ? label : 0;
  });
  for (int f = 1; f < frames; ++f) set->add(std::shared_ptr<SharedImage>(set->get(0)->clone()));
  set->setModality(Data::LABEL);
  return set;
}

Eigen::Matrix4d someMatrix() {
  Eigen::Affine3d t = Eigen::Translation3d(-20, 35, 4) * Eigen::AngleAxisd(0.4, Eigen::Vector3d(0.2, 0.3, 1).normalized());
  return t.matrix();
}

}  // namespace

TEST(MarchingSquares, DegenerateGridsGiveNothing) {
  EXPECT_TRUE(trace({0, 1, 0}, 3, 1, 0.5).empty());
  EXPECT_TRUE(trace({0, 1, 0}, 1, 3, 0.5).empty());
  EXPECT_TRUE(trace(std::vector<float>(16, 0.f), 4, 4, 0.5).empty());
  EXPECT_TRUE(trace(std::vector<float>(16, 1.f), 4, 4, 0.5).empty());
}

TEST(MarchingSquares, SinglePixelIsClosedDiamondOfFourPoints) {
  std::vector<float> v(25, 0.f);
  v[2 * 5 + 2] = 1.f;
  std::vector<bool> closed;
  auto lines = trace(v, 5, 5, 0.5, &closed);
  ASSERT_EQ(lines.size(), 1u);
  ASSERT_EQ(lines[0].size(), 4u);
  EXPECT_TRUE(closed[0]);
  for (const auto& p : lines[0]) EXPECT_NEAR((p - Eigen::Vector2d(2, 2)).norm(), 0.5, 1e-12);
}

TEST(MarchingSquares, OriginSpacingAndInterpolation) {
  // A ramp along x crosses 0.25 a quarter of the way from sample 0 to sample 1.
  std::vector<float> v = {0, 1, 2, 0, 1, 2};
  std::vector<MarchingSquares::Polyline> out;
  std::vector<bool> closed;
  MarchingSquares::run<float>(v.data(), 3, 2, 0.25, out, Eigen::Vector2d(10, 20), Eigen::Vector2d(2, 3), &closed);
  ASSERT_EQ(out.size(), 1u);
  EXPECT_FALSE(closed[0]);
  ASSERT_EQ(out[0].size(), 2u);
  for (const auto& p : out[0]) EXPECT_DOUBLE_EQ(p.x(), 10 + 0.25 * 2);
}

// Cases 5 and 10 on a 2 x 2 grid: the mean against the level decides which corners join.
class AmbiguousCell : public testing::TestWithParam<std::tuple<bool, double>> {};

TEST_P(AmbiguousCell, MeanDecidesTheJoin) {
  const auto [case5, iso] = GetParam();
  // Corners 0..3 are (0,0), (1,0), (1,1), (0,1); case 5 lifts corners 0 and 2.
  std::vector<float> v = case5 ? std::vector<float>{1, 0, 0, 1} : std::vector<float>{0, 1, 1, 0};
  auto lines = trace(v, 2, 2, iso);
  ASSERT_EQ(lines.size(), 2u);
  const double mean = 0.5;
  // Joined above-corners (centre above) cut off the two low corners.
  const bool cutLow = case5 ? mean > iso : !(iso >= mean);
  const Eigen::Vector2d lowCorner = case5 ? Eigen::Vector2d(1, 0) : Eigen::Vector2d(0, 0);
  const Eigen::Vector2d highCorner = case5 ? Eigen::Vector2d(0, 0) : Eigen::Vector2d(1, 0);
  // Some segment has both ends next to the cut corner.
  auto cuts = [&](const Eigen::Vector2d& corner) {
    for (const auto& l : lines)
      if ((l[0] - corner).norm() < 0.8 && (l[1] - corner).norm() < 0.8) return true;
    return false;
  };
  EXPECT_EQ(cuts(lowCorner), cutLow);
  EXPECT_EQ(cuts(highCorner), !cutLow);
}

INSTANTIATE_TEST_SUITE_P(Cases, AmbiguousCell, testing::Combine(testing::Bool(), testing::Values(0.3, 0.5, 0.7)));

// A disc's contour: one closed spline (every skipFactor-th point, averaged) whose length is within 1 % of 2 pi r,
// centred where the disc is in world coordinates, with and without a matrix.
class DiscContour : public testing::TestWithParam<std::tuple<bool, int>> {};

TEST_P(DiscContour, LengthAndCentreInWorld) {
  const auto [withMatrix, skip] = GetParam();
  const Eigen::Vector2d c(60.3, 57.8);
  const double r = 30.2, spacing = 0.7;
  auto set = discMap(1, c, r);
  set->get()->setSpacing(Eigen::Vector3d(spacing, spacing, 1));
  if (withMatrix) set->get()->setMatrix(someMatrix());
  LabelMapToContoursAlgorithm a(set.get());
  Properties p;
  p.setParam("labelValues", std::vector<unsigned char>{3});
  p.setParam("labelNames", std::vector<std::string>{"disc"});
  p.setParam("skipFactor", skip);
  p.setParam("reapplySegmentation", false);
  a.configure(&p);
  a.compute();
  ASSERT_EQ(a.status(), Algorithm::statusSuccess);
  auto* storage = set->components().get<Seg::ContoursStorageComponent>();
  ASSERT_TRUE(storage);
  ASSERT_EQ(storage->size(), 1);
  const Seg::Contour& contour = *storage->contours(0)[0];
  EXPECT_EQ(contour.name, "disc");
  EXPECT_EQ(contour.labelValue, 3);
  EXPECT_EQ(contour.type, Seg::Contour::Type::ClosedSpline);
  const Spline spline(contour.points, true);
  EXPECT_NEAR(spline.length(), 2 * M_PI * r * spacing, 0.01 * 2 * M_PI * r * spacing);
  const auto samples = spline.sampleByLength(720);
  Eigen::Vector3d mean = Eigen::Vector3d::Zero();
  for (const auto& s : samples) mean += s / samples.size();
  const Eigen::Vector3d centre = set->get()->pixelToWorld(Eigen::Vector3d(c.x(), c.y(), 0));
  EXPECT_LT((mean - centre).norm(), 0.25 * spacing);
  for (const auto& s : samples) EXPECT_NEAR((s - centre).norm(), r * spacing, 0.7 * spacing);
}

INSTANTIATE_TEST_SUITE_P(MatrixAndSkip, DiscContour, testing::Combine(testing::Bool(), testing::Values(3, 5, 8)));

TEST(LabelMapToContours, RepaintingFromContoursKeepsTheLabelMap) {
  auto set = discMap(1, {50.5, 61.2}, 22.4);
  set->get()->setMatrix(someMatrix());
  auto before = set->mem()->clone();
  LabelMapToContoursAlgorithm a(set.get());
  Properties p;
  p.setParam("labelValues", std::vector<unsigned char>{3});
  p.setParam("skipFactor", 2);
  a.configure(&p);
  a.compute();
  ASSERT_EQ(a.status(), Algorithm::statusSuccess);
  const auto* b = static_cast<const unsigned char*>(before->data());
  const auto* after = static_cast<const unsigned char*>(set->mem()->data());
  int changed = 0, area = 0;
  for (size_t i = 0; i < before->descriptor().pixelCount(); ++i) {
    changed += b[i] != after[i];
    area += b[i] != 0;
  }
  EXPECT_LT(changed, area / 100);
}

TEST(LabelMapToContours, SelectionFramesSkipFactorAndLabelZero) {
  auto set = discMap(4, {40, 40}, 10);
  set->selection().setSelected({1, 2});
  LabelMapToContoursAlgorithm a(set.get());
  Properties p;
  p.setParam("labelValues", std::vector<unsigned char>{0, 3});
  p.setParam("labelNames", std::vector<std::string>{"none", "disc"});
  p.setParam("skipFactor", 0);
  p.setParam("createNewImage", true);
  a.configure(&p);
  a.compute();
  ASSERT_EQ(a.status(), Algorithm::statusSuccess);
  EXPECT_EQ(a.skipFactor.value(), 1);
  auto out = a.takeOutput();
  auto clone = out.extractFirstImage();
  ASSERT_TRUE(clone);
  EXPECT_FALSE(set->components().get<Seg::ContoursStorageComponent>());  // the clone got them
  auto* storage = clone->components().get<Seg::ContoursStorageComponent>();
  ASSERT_TRUE(storage);
  EXPECT_EQ(storage->size(0), 0);
  EXPECT_EQ(storage->size(1), 1);
  EXPECT_EQ(storage->size(2), 1);
  EXPECT_EQ(storage->size(3), 0);
}

TEST(LabelMapToContours, BadParametersGiveStatusAndOneLine) {
  auto set = discMap(1, {40, 40}, 10);
  auto runWith = [&](const Properties& p, const char* message) {
    TestKit::LogCapture log;
    LabelMapToContoursAlgorithm a(set.get());
    a.configure(&p);
    a.compute();
    EXPECT_EQ(a.status(), Algorithm::statusInvalidInput) << message;
    EXPECT_EQ(log.count(Log::Error) + log.count(Log::Warning), 1) << message;
    EXPECT_TRUE(log.contains(message)) << message;
    EXPECT_FALSE(set->components().get<Seg::ContoursStorageComponent>());
  };
  runWith(Properties{}, "At least one label value needs to be set.");
  Properties mismatch;
  mismatch.setParam("labelValues", std::vector<unsigned char>{3, 4});
  runWith(mismatch, "Inconsistent parameters.");
  Properties absent;
  absent.setParam("labelValues", std::vector<unsigned char>{9});
  runWith(absent, "No contours could be created.");
  auto volume = TestKit::makeSet(U8, {8, 8, 8});
  volume->setModality(Data::LABEL);
  EXPECT_FALSE(LabelMapToContoursAlgorithm::createCompatible(DataList{volume.get()}));
  EXPECT_TRUE(LabelMapToContoursAlgorithm::createCompatible(DataList{set.get()}));
}

TEST(LabelMapToContours, SerialEqualsParallel) {
  auto set = TestKit::makeImage<unsigned char>({97, 83, 1}, [](int x, int y, int) {
    return ((x / 9) * 7 + (y / 11) * 3 + (x * y) % 5 / 4) % 10;
  });
  set->setModality(Data::LABEL);
  LabelMapToContoursAlgorithm a(set.get());
  a.skipFactor = 2;
  std::vector<unsigned char> all;
  for (int v = 1; v < 10; ++v) all.push_back(static_cast<unsigned char>(v));
  const int was = omp_get_max_threads();
  omp_set_num_threads(1);
  auto serial = a.createContoursFromLabelMap(*set, {0, 0}, all);
  omp_set_num_threads(4);
  auto parallel = a.createContoursFromLabelMap(*set, {0, 0}, all);
  omp_set_num_threads(was);
  ASSERT_GT(serial.size(), 9u);
  EXPECT_EQ(serial, parallel);
}

TEST(ContoursStorage, FramesGrowAndCountsAnswerOutsideTheRange) {
  Seg::ContoursStorageComponent s;
  s.add(Seg::Contour(Seg::Contour::Type::ClosedSpline, 2, 5, {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}));
  EXPECT_EQ(s.size(5), 1);
  EXPECT_EQ(s.size(3), 0);
  EXPECT_EQ(s.size(), 1);
  EXPECT_FALSE(s.hasContours(17));
  EXPECT_FALSE(s.hasContours(-1));
  EXPECT_TRUE(s.hasContours(5));
  EXPECT_FALSE(s.hasContours(5, Seg::Contour::CreationMode::Manual));
  EXPECT_EQ(s.filterContours(Seg::Contour::CreationMode::Computed).size(), 1u);
  EXPECT_FALSE(s.remove(5, 1));
  EXPECT_TRUE(s.remove(5, 0));
  EXPECT_EQ(s.size(), 0);
}

TEST(ContoursStorage, SavedAndRestoredThroughPropertiesText) {
  Seg::ContoursStorageComponent s;
  Seg::Contour open(Seg::Contour::Type::OpenPolyline, 4, 2, {{1.5, -2.25, 0}, {3, 4, 0.125}}, Seg::Contour::CreationMode::Manual);
  open.marginOrRadius = 7;
  open.adaptiveness = 30;
  open.name = "vessel";
  open.displayConfiguration.setParam("lineWidth", 2.5);
  s.add(open);
  s.add(Seg::Contour(Seg::Contour::Type::ClosedSpline, 1, 0, {{0.1, 0.2, 0}, {5, 0.2, 0}, {2, 3.3, 0}}));
  Properties saved("ContoursStorageComponent");
  s.configuration(&saved);
  std::string text;
  ASSERT_TRUE(PropertiesIO::saveToString(saved, PropertiesIO::Format::Xml, text));
  auto loaded = PropertiesIO::loadFromString(text, PropertiesIO::Format::Xml);
  ASSERT_TRUE(loaded);
  std::unique_ptr<DataComponentBase> restored;
  {
    SegAlgorithmFactory factory;  // registers the component by id, and takes it back when gone
    restored = DataComponentFactory::get().create("ContoursStorageComponent");
  }
  EXPECT_FALSE(DataComponentFactory::get().has("ContoursStorageComponent"));
  ASSERT_TRUE(restored);
  restored->configure(loaded.get());
  EXPECT_TRUE(restored->equals(s));
  auto* r = dynamic_cast<Seg::ContoursStorageComponent*>(restored.get());
  ASSERT_TRUE(r);
  ASSERT_EQ(r->size(2), 1);
  EXPECT_EQ(r->contours(2)[0]->name, "vessel");
  EXPECT_EQ(r->contours(2)[0]->displayConfiguration.paramOr("lineWidth", 0.0), 2.5);
  EXPECT_FALSE(r->contours(0)[0]->marginOrRadius.has_value());
}

TEST(ContoursStorage, CopiesAreDeepAndEqualityIgnoresName) {
  Seg::ContoursStorageComponent a;
  a.add(Seg::Contour(Seg::Contour::Type::ClosedPolyLine, 1, 0, {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}));
  Seg::ContoursStorageComponent b(a);
  b.contours(0)[0]->name = "renamed";
  EXPECT_TRUE(a == b);
  b.contours(0)[0]->points[0].x() = 9;
  EXPECT_FALSE(a == b);
  EXPECT_EQ(a.contours(0)[0]->points[0].x(), 0);
}

TEST(ContoursStorage, UnknownTypeTextGivesPolylineAndOneWarning) {
  TestKit::LogCapture log;
  EXPECT_EQ(Seg::Contour::stringToType("Wobbly Curve"), Seg::Contour::Type::ClosedPolyLine);
  EXPECT_EQ(log.count(Log::Warning), 1);
  EXPECT_EQ(Seg::Contour::typeToString(Seg::Contour::Type::OpenSpline), "Open Spline");
  EXPECT_EQ(Seg::Contour::typeToString(static_cast<Seg::Contour::Type>(42)), "Closed PolyLine");
  EXPECT_EQ(log.count(Log::Warning), 2);
}

TEST(Spline, ClosedCircleLengthAndArcLengthSampling) {
  std::vector<Eigen::Vector3d> pts;
  for (int i = 0; i < 24; ++i) pts.emplace_back(5 * std::cos(i * M_PI / 12), 5 * std::sin(i * M_PI / 12), 0);
  Spline s(pts, true);
  EXPECT_NEAR(s.length(), 2 * M_PI * 5, 1e-3 * 2 * M_PI * 5);
  const auto samples = s.sampleByLength(10);
  for (size_t i = 0; i < samples.size(); ++i) {
    EXPECT_NEAR(samples[i].norm(), 5, 1e-2);
    EXPECT_NEAR((samples[(i + 1) % 10] - samples[i]).norm(), 2 * 5 * std::sin(M_PI / 10), 1e-2);
  }
  EXPECT_NEAR((s.pointAtLength(s.length() + 1) - s.pointAtLength(1)).norm(), 0, 1e-9);
  EXPECT_EQ(s.getApproximateClosedSpline(4).numberOfPoints(), 6);
  EXPECT_EQ(Spline().length(), 0);
}
