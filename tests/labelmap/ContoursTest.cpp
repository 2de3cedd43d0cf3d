#include <gtest/gtest.h>
#include <omp.h>

#include <Eigen/Geometry>
#include <cmath>
#include <cstring>
#include <functional>
#include <set>

#include "ContoursStorageComponent.h"
#include "DataComponent.h"
#include "LabelMapToContoursAlgorithm.h"
#include "Log.h"
#include "Progress.h"
#include "SegAlgorithmFactory.h"
#include "Spline.h"
#include "TestSupport.h"

using namespace Merivane;

namespace {

std::unique_ptr<SharedImageSet> discMap(int frames, const Eigen::Vector2d& c, double r, int label = 3) {
  auto set = TestKit::makeImage<unsigned char>({128, 120, 1}, [&](int x, int y, int) {
    return (Eigen::Vector2d(x, y) - c).norm() <= r ? label : 0;
  });
  for (int f = 1; f < frames; ++f) set->add(std::shared_ptr<SharedImage>(set->get(0)->clone()));
  set->setModality(Data::LABEL);
  return set;
}

// Background pixels with a label pixel among their four neighbours: where the traced curve of
// that label must pass, one control point each.
std::set<std::pair<int, int>> outerRing(const SharedImage& frame, int label) {
  const auto& img = static_cast<const TypedImage<unsigned char>&>(*frame.mem());
  const int w = img.width(), h = img.height();
  std::set<std::pair<int, int>> ring;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      if (img.value(x, y) == label) continue;
      const int n[4][2] = {{x - 1, y}, {x + 1, y}, {x, y - 1}, {x, y + 1}};
      for (const auto& q : n)
        if (q[0] >= 0 && q[1] >= 0 && q[0] < w && q[1] < h && img.value(q[0], q[1]) == label) ring.insert({x, y});
    }
  return ring;
}

// Centred image coordinates to pixels, rounded; -1 where the point is not on a pixel centre.
std::pair<int, int> toPixel(const Eigen::Vector3d& p, const SharedImage& frame) {
  const Eigen::Vector3d d = frame.descriptor().dimensions.cast<double>();
  const Eigen::Vector3d s = frame.descriptor().spacing;
  const double x = p.x() / s.x() + d.x() / 2 - 0.5, y = p.y() / s.y() + d.y() / 2 - 0.5;
  if (std::abs(x - std::round(x)) > 1e-9 || std::abs(y - std::round(y)) > 1e-9 || p.z() != 0) return {-1, -1};
  return {static_cast<int>(std::round(x)), static_cast<int>(std::round(y))};
}

std::unique_ptr<SharedImageSet> labelsFrom(int w, int h, std::function<int(int, int)> f, int frames = 1) {
  auto set = TestKit::makeImage<unsigned char>({w, h, 1}, [&](int x, int y, int) { return f(x, y); });
  for (int i = 1; i < frames; ++i) set->add(std::shared_ptr<SharedImage>(set->get(0)->clone()));
  set->setModality(Data::LABEL);
  return set;
}

Properties contourParams(std::vector<unsigned char> values, int skip, bool reapply) {
  Properties p;
  p.setParam("labelValues", values);
  p.setParam("labelNames", std::vector<std::string>(values.size(), "c"));
  p.setParam("skipFactor", skip);
  p.setParam("reapplySegmentation", reapply);
  return p;
}

Eigen::Matrix4d someMatrix() {
  Eigen::Affine3d t = Eigen::Translation3d(-20, 35, 4) * Eigen::AngleAxisd(0.4, Eigen::Vector3d(0.2, 0.3, 1).normalized());
  return t.matrix();
}

}  // namespace

// With skipFactor 1 the control points are exactly the curve's: one per background pixel that
// touches the label, in centred image coordinates (spacing applied, matrix not), whatever the
// matrix and spacing of the frame. Covers an interior disc, a region cut by the border, and
// pixels joined only at corners.
class ContourPoints : public testing::TestWithParam<std::tuple<int, bool, bool>> {};

TEST_P(ContourPoints, AreTheBackgroundCentresRoundTheLabel) {
  const auto [shape, withMatrix, anisotropic] = GetParam();
  std::function<int(int, int)> f;
  if (shape == 0) f = [](int x, int y) { return std::hypot(x - 20.3, y - 17.8) <= 9.2 ? 3 : 0; };
  if (shape == 1) f = [](int x, int y) { return x <= 4 && y >= 6 && y <= 12 ? 3 : 0; };  // left border
  if (shape == 2) f = [](int x, int y) { return x - y == 2 && x >= 10 && x <= 16 ? 3 : 0; };  // a diagonal
  auto set = labelsFrom(40, 36, f);
  set->get()->setSpacing(anisotropic ? Eigen::Vector3d(0.7, 1.3, 2.0) : Eigen::Vector3d(1, 1, 1));
  if (withMatrix) set->get()->setMatrix(someMatrix());
  LabelMapToContoursAlgorithm a(set.get());
  Properties p = contourParams({3}, 1, false);
  a.configure(&p);
  a.compute();
  ASSERT_EQ(a.status(), Algorithm::statusSuccess);
  auto* storage = set->components().get<Seg::ContoursStorageComponent>();
  ASSERT_TRUE(storage);
  ASSERT_EQ(storage->size(0), 1);  // the diagonal is one region through its corners
  const Seg::Contour& c = *storage->contours(0)[0];
  EXPECT_EQ(c.type, Seg::Contour::Type::ClosedSpline);
  std::set<std::pair<int, int>> got;
  for (const auto& q : c.points) got.insert(toPixel(q, *set->get()));
  EXPECT_EQ(got, outerRing(*set->get(), 3));
  EXPECT_EQ(got.size(), c.points.size());
}

INSTANTIATE_TEST_SUITE_P(ShapesMatrixSpacing, ContourPoints,
                         testing::Combine(testing::Values(0, 1, 2), testing::Bool(), testing::Bool()));

// A checkerboard patch is one region through its corners; its one-pixel holes shrink to points
// and give no contour of their own.
TEST(LabelMapToContours, CheckerboardPatchGivesOneContour) {
  auto set = labelsFrom(30, 30, [](int x, int y) { return (x + y) % 2 == 0 && x >= 10 && x <= 16 && y >= 8 && y <= 14 ? 3 : 0; });
  LabelMapToContoursAlgorithm a(set.get());
  Properties p = contourParams({3}, 1, false);
  a.configure(&p);
  a.compute();
  ASSERT_EQ(a.status(), Algorithm::statusSuccess);
  auto contours = a.takeContours();
  ASSERT_EQ(contours.size(), 1u);
  std::set<std::pair<int, int>> got;
  for (const auto& q : contours[0].points) got.insert(toPixel(q, *set->get()));
  // The outer curve: background pixels touching the patch, none of the holes inside it.
  const auto ring = outerRing(*set->get(), 3);
  for (const auto& px : got) {
    EXPECT_TRUE(ring.count(px));
    EXPECT_TRUE(px.first <= 10 || px.first >= 16 || px.second <= 8 || px.second >= 14);
  }
}

// A disc's contour with points skipped: centred where the disc is in image coordinates, about
// half a pixel outside its edge.
class DiscContour : public testing::TestWithParam<int> {};

TEST_P(DiscContour, CentreAndRadiusInImageCoordinates) {
  const int skip = GetParam();
  const Eigen::Vector2d c(60.3, 57.8);
  const double r = 30.2, spacing = 0.7;
  auto set = discMap(1, c, r);
  set->get()->setSpacing(Eigen::Vector3d(spacing, spacing, 1));
  set->get()->setMatrix(someMatrix());
  LabelMapToContoursAlgorithm a(set.get());
  Properties p = contourParams({3}, skip, false);
  a.configure(&p);
  a.compute();
  ASSERT_EQ(a.status(), Algorithm::statusSuccess);
  auto* storage = set->components().get<Seg::ContoursStorageComponent>();
  ASSERT_TRUE(storage);
  ASSERT_EQ(storage->size(), 1);
  const Spline spline(storage->contours(0)[0]->points, true);
  const auto samples = spline.sampleByLength(720);
  Eigen::Vector3d mean = Eigen::Vector3d::Zero();
  for (const auto& s : samples) mean += s / samples.size();
  const Eigen::Vector3d centre((c.x() - 63.5) * spacing, (c.y() - 59.5) * spacing, 0);
  EXPECT_LT((mean - centre).norm(), 0.25 * spacing);
  for (const auto& s : samples) EXPECT_NEAR((s - centre).norm(), (r + 0.5) * spacing, 0.7 * spacing);
}

INSTANTIATE_TEST_SUITE_P(Skip, DiscContour, testing::Values(1, 3, 5, 8));

// Tracing then repainting gives the label map back: the curve through the background centres
// fills the label's pixels and no more, inside the image and on its border.
class Repainting : public testing::TestWithParam<int> {};

TEST_P(Repainting, KeepsTheLabelMap) {
  std::function<int(int, int)> f;
  if (GetParam() == 0) f = [](int x, int y) { return std::hypot(x - 50.5, y - 61.2) <= 22.4 ? 3 : 0; };
  if (GetParam() == 1) f = [](int x, int y) { return x >= 30 && x <= 45 && y >= 70 ? 3 : 0; };  // bottom border
  if (GetParam() == 2) f = [](int x, int y) { return std::hypot(x, y - 40) <= 12 ? 3 : 0; };    // cut by x = 0
  auto set = labelsFrom(128, 90, f);
  set->get()->setMatrix(someMatrix());
  auto before = set->mem()->clone();
  LabelMapToContoursAlgorithm a(set.get());
  Properties p = contourParams({3}, 1, true);
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
  EXPECT_LE(changed, area / 200) << "of " << area;
}

INSTANTIATE_TEST_SUITE_P(InsideAndOnTheBorder, Repainting, testing::Values(0, 1, 2));

// Repainting paints every contour stored on the frame, not only those of this run.
TEST(LabelMapToContours, RepaintingPaintsTheContoursStoredOnTheFrame) {
  auto set = labelsFrom(40, 40, [](int x, int y) { return std::hypot(x - 10, y - 10) <= 4 ? 3 : 0; });
  auto* storage = set->components().getOrCreate<Seg::ContoursStorageComponent>();
  // A square polyline round pixels 25..30 (centred coordinates: pixel - 19.5).
  storage->add(Seg::Contour(Seg::Contour::Type::ClosedPolyLine, 5, 0,
                            {{4.5, 4.5, 0}, {11.5, 4.5, 0}, {11.5, 11.5, 0}, {4.5, 11.5, 0}}));
  LabelMapToContoursAlgorithm a(set.get());
  Properties p = contourParams({3}, 1, true);
  a.configure(&p);
  a.compute();
  ASSERT_EQ(a.status(), Algorithm::statusSuccess);
  EXPECT_EQ(storage->size(0), 2);
  const auto& img = static_cast<const TypedImage<unsigned char>&>(*set->mem());
  int fives = 0;
  for (int y = 0; y < 40; ++y)
    for (int x = 0; x < 40; ++x) fives += img.value(x, y) == 5;
  EXPECT_EQ(fives, 36);
  EXPECT_EQ(img.value(25, 25), 5);
  EXPECT_EQ(img.value(24, 25), 0);
  EXPECT_EQ(img.value(10, 10), 3);
}

// The margin of a closed contour grows the painted region by a disc of that many pixels.
TEST(Contour, MarginGrowsAClosedContour) {
  auto set = labelsFrom(32, 32, [](int, int) { return 0; });
  // Corners on pixel centres 10 and 20 (centred coordinates: pixel - 15.5); 11..19 inside.
  Seg::Contour c(Seg::Contour::Type::ClosedPolyLine, 7, 0, {{-5.5, -5.5, 0}, {4.5, -5.5, 0}, {4.5, 4.5, 0}, {-5.5, 4.5, 0}});
  auto count = [](const TypedImage<unsigned char>& m) {
    int n = 0;
    for (int y = 0; y < 32; ++y)
      for (int x = 0; x < 32; ++x) n += m.value(x, y) == 7;
    return n;
  };
  auto plain = c.labelMapFromContour(*set);
  ASSERT_TRUE(plain);
  EXPECT_EQ(count(*plain), 81);
  EXPECT_EQ(plain->value(10, 15), 0);
  c.marginOrRadius = 2;
  auto grown = c.labelMapFromContour(*set);
  ASSERT_TRUE(grown);
  EXPECT_EQ(grown->value(9, 15), 7);
  EXPECT_EQ(grown->value(8, 15), 0);
  EXPECT_EQ(grown->value(9, 9), 0);  // a corner rounded by the disc: sqrt(8) > 2 from (11, 11)
  EXPECT_EQ(grown->value(10, 10), 7);
  EXPECT_EQ(grown->value(10, 11), 7);
  // 13 x 13 less the corners the disc does not reach: 3 per corner.
  EXPECT_EQ(count(*grown), 13 * 13 - 4 * 3);
}

// A progress that cancels once the first frame is done.
class CancelAfterFirstStep : public Progress {
 protected:
  void onTaskUpdated(TaskState& task) override {
    if (task.current >= 1) cancelAllTasks();
  }
};

TEST(LabelMapToContours, CancelledRunKeepsTheContoursMadeSoFar) {
  auto set = discMap(3, {40, 40}, 10);
  auto before = set->get(0)->mem()->clone();
  LabelMapToContoursAlgorithm a(set.get());
  CancelAfterFirstStep progress;
  a.setProgress(&progress);
  Properties p = contourParams({3}, 1, true);
  p.setParam("framesBegin", 0);
  p.setParam("framesEnd", 2);
  a.configure(&p);
  a.compute();
  EXPECT_EQ(a.status(), Algorithm::statusSuccess);
  auto* storage = set->components().get<Seg::ContoursStorageComponent>();
  ASSERT_TRUE(storage);
  EXPECT_EQ(storage->size(0), 1);
  EXPECT_EQ(storage->size(1), 0);
  EXPECT_EQ(storage->size(2), 0);
  EXPECT_EQ(a.takeContours().size(), 1u);
  // The repainting stops at once: the map is as it was.
  EXPECT_EQ(std::memcmp(before->data(), set->get(0)->mem()->data(), before->descriptor().byteSize()), 0);
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
