#include <gtest/gtest.h>

#include <string>

#include "GraphBasedSegmentation.h"
#include "GraphLaplacianAlgorithm.h"
#include "Log.h"
#include "SharedImageSet.h"
#include "TestSupport.h"

using namespace Merivane;

namespace {

// A bright half and a dark half with one seed in each, 12 x 12 x 4.
struct Scene {
  Scene() {
    image = TestKit::makeImage<float>({12, 12, 4}, [](int x, int, int) { return x < 6 ? 10.0f : 50.0f; });
    labels = TestKit::makeImage<unsigned char>({12, 12, 4}, [](int x, int y, int z) {
      if (y != 6 || z != 2) return 0;
      return x == 2 ? 1 : (x == 9 ? 2 : 0);
    });
    labels->setModality(Data::LABEL);
  }
  std::unique_ptr<SharedImageSet> image, labels;
};

enum class Which { Segmentation, Laplacian };

struct Bad {
  Which which;
  const char* key;
  const char* value;
  const char* message;  // the one error line
};

void PrintTo(const Bad& b, std::ostream* os) { *os << b.key << "=" << b.value; }

std::unique_ptr<Algorithm> make(Which which, Scene& s) {
  std::unique_ptr<Algorithm> a;
  if (which == Which::Segmentation)
    a = std::make_unique<GraphBasedSegmentation>(s.image.get(), s.labels.get());
  else
    a = std::make_unique<GraphLaplacianAlgorithm>(*s.image->get(0), *s.labels->get(0));
  Properties p{{"Verbose", "false"}, {"Export Probability", "true"}};
  a->configure(&p);
  return a;
}

const char* category(Which which) {
  return which == Which::Segmentation ? "Seg.GraphBasedSegmentation" : "Seg.GraphLaplacianAlgorithm";
}

// The algorithm configured with one setting and run, its log lines from the run alone.
template <typename Which>
auto runWith(Which which, const std::string& key, const std::string& value, Scene& s, TestKit::LogCapture& log) {
  auto a = make(which, s);
  Properties p{{key, value}};
  a->configure(&p);
  log.clear();
  a->compute();
  return a;
}

class GraphParameterRefused : public testing::TestWithParam<Bad> {};

TEST_P(GraphParameterRefused, InvalidInputNoOutputAndOneLineNamingKeyAndValue) {
  Scene s;
  TestKit::LogCapture log;
  auto a = runWith(GetParam().which, GetParam().key, GetParam().value, s, log);
  EXPECT_EQ(a->status(), Algorithm::statusInvalidInput);
  EXPECT_EQ(a->takeOutput().size(), 0);
  ASSERT_EQ(log.count(Log::Error), 1);
  EXPECT_EQ(log.count(Log::Warning), 0);
  EXPECT_EQ(log.lines()[0].category, category(GetParam().which));
  EXPECT_EQ(log.lines()[0].message, GetParam().message);
  // Nothing ran: no outline was drawn into the label map.
  const auto* l = static_cast<const unsigned char*>(s.labels->mem(0)->data());
  for (size_t i = 0; i < 12 * 12 * 4; ++i) ASSERT_NE(l[i], 255) << "voxel " << i;
}

constexpr Which G = Which::Segmentation;
constexpr Which L = Which::Laplacian;

INSTANTIATE_TEST_SUITE_P(
    Values, GraphParameterRefused,
    testing::Values(
        Bad{G, "Solver ID", "-1", "Solver ID must lie in 0..7, not -1"},
        Bad{G, "Solver ID", "8", "Solver ID must lie in 0..7, not 8"},
        Bad{G, "Solver Iterations", "0", "Solver Iterations must be at least 1, not 0"},
        Bad{G, "Adaptiveness", "-100", "Adaptiveness must lie in 0..1000000, not -100"},
        Bad{G, "Adaptiveness", "nan", "Adaptiveness must lie in 0..1000000, not nan"},
        Bad{G, "Adaptiveness", "inf", "Adaptiveness must lie in 0..1000000, not inf"},
        Bad{G, "Solver Tolerance", "nan", "Solver Tolerance must lie in 1e-38..1, not nan"},
        Bad{G, "Solver Tolerance", "0", "Solver Tolerance must lie in 1e-38..1, not 0"},
        Bad{G, "Solver Tolerance", "2", "Solver Tolerance must lie in 1e-38..1, not 2"},
        Bad{G, "Num Levels", "-3", "Num Levels must be at least 1, not -3"},
        Bad{G, "Num Levels", "0", "Num Levels must be at least 1, not 0"},
        Bad{G, "Min Level", "0", "Min Level must be at least 1, not 0"},
        Bad{G, "Prior Weight", "-1", "Prior Weight must be at least 0, not -1"},
        Bad{L, "Solver Iterations", "0", "Solver Iterations must be at least 1, not 0"},
        Bad{L, "Solver Tolerance (Log)", "1", "Solver Tolerance (Log) must lie in -38..0, not 1"},
        Bad{L, "Solver Tolerance (Log)", "-39", "Solver Tolerance (Log) must lie in -38..0, not -39"},
        Bad{L, "Num Levels", "0", "Num Levels must be at least 1, not 0"},
        Bad{L, "Min Level", "-2", "Min Level must be at least 1, not -2"},
        Bad{L, "Prior Weight", "nan", "Prior Weight must be at least 0, not nan"},
        // The graph's own settings are checked by the algorithm that owns the graph.
        Bad{L, "Adaptiveness", "-100", "Adaptiveness must lie in 0..1000000, not -100"},
        Bad{L, "Adaptiveness", "nan", "Adaptiveness must lie in 0..1000000, not nan"},
        Bad{L, "Active Label", "0", "Active Label must lie in 1..253, not 0"},
        Bad{L, "Active Label", "254", "Active Label must lie in 1..253, not 254"}),
    [](const auto& info) {
      std::string n = std::string(info.param.which == G ? "Seg_" : "Laplacian_") + info.param.key + "_" + info.param.value;
      for (char& c : n)
        if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
      return n;
    });

struct Edge {
  Which which;
  const char* key;
  const char* value;
};

void PrintTo(const Edge& e, std::ostream* os) { *os << e.key << "=" << e.value; }

class GraphParameterAccepted : public testing::TestWithParam<Edge> {};

TEST_P(GraphParameterAccepted, RangeEndsRunToAResult) {
  Scene s;
  TestKit::LogCapture log;
  auto a = runWith(GetParam().which, GetParam().key, GetParam().value, s, log);
  EXPECT_EQ(a->status(), Algorithm::statusSuccess);
  EXPECT_EQ(log.count(Log::Error), 0);
  EXPECT_EQ(a->takeOutput().size(), 1);
}

INSTANTIATE_TEST_SUITE_P(
    Values, GraphParameterAccepted,
    testing::Values(Edge{G, "Solver ID", "0"}, Edge{G, "Solver ID", "7"}, Edge{G, "Solver Iterations", "1"},
                    Edge{G, "Adaptiveness", "0"}, Edge{G, "Solver Tolerance", "1"}, Edge{G, "Num Levels", "1"},
                    Edge{G, "Min Level", "1"}, Edge{L, "Solver Tolerance (Log)", "0"},
                    Edge{L, "Active Label", "1"}, Edge{L, "Adaptiveness", "0"}, Edge{L, "Num Levels", "1"}),
    [](const auto& info) {
      std::string n = std::string(info.param.which == G ? "Seg_" : "Laplacian_") + info.param.key + "_" + info.param.value;
      for (char& c : n)
        if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
      return n;
    });

// Above the levels made, the coarsest level is computed; a warning says which.
// Four slices make one level, whatever is asked.
TEST(GraphParameters, MinLevelAboveTheLevelsMadeWarnsAndComputesTheCoarsest) {
  for (Which which : {G, L}) {
    Scene s;
    auto a = make(which, s);
    Properties p{{"Min Level", "50"}, {"Num Levels", "2"}};
    a->configure(&p);
    TestKit::LogCapture log;
    a->compute();
    EXPECT_EQ(a->status(), Algorithm::statusSuccess);
    EXPECT_EQ(log.count(Log::Error), 0);
    ASSERT_EQ(log.count(Log::Warning, "Seg.GraphLaplacianAlgorithm"), 1);
    for (const auto& line : log.lines()) {
      if (line.level == Log::Warning) {
        EXPECT_EQ(line.message, "Min Level 50 is above the levels made (1); computing level 1 instead");
      }
    }
  }
}

// The settings of the graph in use are checked, those of other graph classes do not exist.
TEST(GraphParameters, PenaltyOfTheAttenuationGraphMustBeFinite) {
  Scene s;
  auto a = make(L, s);
  Properties p{{"Graph Type", "2"}, {"Horizontal penalty", "inf"}};
  a->configure(&p);
  TestKit::LogCapture log;
  a->compute();
  EXPECT_EQ(a->status(), Algorithm::statusInvalidInput);
  ASSERT_EQ(log.count(Log::Error), 1);
  EXPECT_EQ(log.lines()[0].message, "Horizontal penalty must be a finite number, not inf");
}

// An out-of-table id given to the inner algorithm directly is the solve's own error.
TEST(GraphParameters, UnknownSolverIdOfTheLaplacianAlgorithmStaysASolveError) {
  Scene s;
  auto a = make(L, s);
  Properties p{{"Solver ID", "9"}};
  a->configure(&p);
  TestKit::LogCapture log;
  a->compute();
  EXPECT_EQ(a->status(), Algorithm::statusError);
  EXPECT_TRUE(log.contains("Incorrect solver ID"));
}

// The 12 x 12 x 4 mm label map moved in world space: it must share some volume with the image;
// the grids are paired voxel by voxel, so a partial overlap is the caller's business.
class GraphLabelMapPlacement
    : public testing::TestWithParam<std::tuple<Which, std::tuple<Eigen::Vector3d, bool>>> {};

TEST_P(GraphLabelMapPlacement, LabelMapOutsideTheImageInWorldIsRefused) {
  const Which which = std::get<0>(GetParam());
  const auto [shift, accepted] = std::get<1>(GetParam());
  Scene s;
  Eigen::Matrix4d m = Eigen::Matrix4d::Identity();
  m.block<3, 1>(0, 3) = shift;
  s.labels->get(0)->setMatrix(m);
  auto a = make(which, s);
  TestKit::LogCapture log;
  a->compute();
  if (accepted) {
    EXPECT_EQ(a->status(), Algorithm::statusSuccess);
    return;
  }
  EXPECT_EQ(a->status(), Algorithm::statusInvalidInput);
  EXPECT_EQ(a->takeOutput().size(), 0);
  ASSERT_EQ(log.count(Log::Error), 1);
  EXPECT_EQ(log.lines()[0].category, category(which));
  EXPECT_NE(log.lines()[0].message.find("The label map lies outside the image in world space: label map spans x"),
            std::string::npos)
      << log.lines()[0].message;
}

INSTANTIATE_TEST_SUITE_P(
    Shifts, GraphLabelMapPlacement,
    testing::Combine(testing::Values(G, L),
                     testing::Values(std::tuple{Eigen::Vector3d(11, 0, 0), true}, std::tuple{Eigen::Vector3d(0, -11, 3), true},
                                     std::tuple{Eigen::Vector3d(12, 0, 0), false},
                                     std::tuple{Eigen::Vector3d(0, 0, 4), false},
                                     std::tuple{Eigen::Vector3d(100, 100, 100), false})));

}  // namespace
