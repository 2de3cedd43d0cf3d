#include <gtest/gtest.h>

#include <memory>

#include "Algorithm.h"
#include "Log.h"
#include "Parameter.h"
#include "TestSupport.h"

namespace {

using namespace Merivane;

struct Owner : Configurable {
  Owner() {
    iterations.addDeprecatedName("Old Iterations");
    iterations.changed.connect([this] { ++changes; });
  }
  Parameter<int> iterations{"Iterations", 200, this};
  Parameter<double> weight{"Weight", 0.5, this};
  Parameter<std::vector<int>> sizes{"Sizes", {1, 2}, this};
  int changes = 0;
};

struct ConfigureCase {
  const char* what;
  Properties input;
  int expected;
  const char* warning;  // the one warning expected, or null
};

class ParameterConfigure : public testing::TestWithParam<ConfigureCase> {};

TEST_P(ParameterConfigure, ReadsCurrentOrDeprecatedKey) {
  TestKit::LogCapture log;
  Owner o;
  o.configure(&GetParam().input);
  EXPECT_EQ(o.iterations.value(), GetParam().expected);
  EXPECT_EQ(o.changes, GetParam().expected == 200 ? 0 : 1);
  ASSERT_EQ(log.lines().size(), GetParam().warning ? 1u : 0u);
  if (GetParam().warning) {
    EXPECT_EQ(log.lines()[0].level, Log::Warning);
    EXPECT_EQ(log.lines()[0].category, "Core.Parameter");
    EXPECT_EQ(log.lines()[0].message, GetParam().warning);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ParameterConfigure,
    testing::Values(
        ConfigureCase{"current", {{"Iterations", "12"}, {"Unrelated", "x"}}, 12, nullptr},
        ConfigureCase{"deprecated", {{"Old Iterations", "33"}}, 33,
                      "Using deprecated parameter name 'Old Iterations'. Please use: 'Iterations' instead."},
        // The old key first, so that reading in file order would pick it.
        ConfigureCase{"both", {{"Old Iterations", "33"}, {"Iterations", "44"}}, 44, nullptr},
        ConfigureCase{"unreadable", {{"Iterations", "many"}}, 200, "'Iterations' cannot be read from 'many'; keeping 200"},
        ConfigureCase{"unreadableOldKey", {{"Old Iterations", "3 4"}}, 200,
                      "'Old Iterations' cannot be read from '3 4'; keeping 200"},
        ConfigureCase{"beyondInt", {{"Iterations", "99999999999"}}, 200,
                      "'Iterations' cannot be read from '99999999999'; keeping 200"},
        ConfigureCase{"sameValue", {{"Iterations", "200"}}, 200, nullptr}),
    [](const auto& info) { return std::string(info.param.what); });

TEST(Parameter, NullConfigurationDoesNothing) {
  Owner o;
  o.configure(nullptr);
  o.iterations.configure(nullptr);
  o.iterations.configuration(nullptr);
  EXPECT_EQ(o.iterations.value(), 200);
  EXPECT_EQ(o.changes, 0);
}

TEST(Parameter, ChangedFiresOnlyForADifferentValueAndDefaultsReset) {
  Owner o;
  o.iterations = 200;
  o.configureDefaults();
  EXPECT_EQ(o.changes, 0);
  o.iterations = 201;
  o.iterations = 201;
  EXPECT_EQ(o.changes, 1);

  Properties p{{"Weight", "9"}, {"Sizes", ""}};
  o.configure(&p);
  ASSERT_TRUE(o.sizes->empty());
  o.configureDefaults();
  EXPECT_EQ(o.iterations.value(), 200);
  EXPECT_EQ(o.weight.value(), 0.5);
  EXPECT_EQ(o.sizes.value(), (std::vector<int>{1, 2}));
  EXPECT_EQ(o.changes, 2);
}

TEST(Parameter, ConfigurationWritesValueDefaultRangeAndLabel) {
  Owner o;
  o.iterations = 5;
  o.iterations.setRange(1, 1000);
  o.weight.setLabel("Blend weight");
  o.weight.setParamType(PropertiesDetail::ParamType::Slider);
  o.sizes.setPassDefault(false);
  Properties p;
  o.configuration(&p);

  EXPECT_EQ(*p.rawParam("Iterations"), "5");
  ASSERT_NE(p.rawDefault("Iterations"), nullptr);
  EXPECT_EQ(*p.rawDefault("Iterations"), "200");
  EXPECT_EQ(p.attribute("Iterations", "min"), "1");
  EXPECT_EQ(p.attribute("Iterations", "max"), "1000");
  EXPECT_EQ(p.attribute("Iterations", "label"), "");
  EXPECT_EQ(p.attribute("Weight", "label"), "Blend weight");
  EXPECT_EQ(p.paramType("Weight"), PropertiesDetail::ParamType::Slider);
  EXPECT_EQ(*p.rawParam("Sizes"), "1 2");
  EXPECT_EQ(p.rawDefault("Sizes"), nullptr);

  // What one object writes, another reads back to the same state.
  Owner other;
  other.configure(&p);
  Properties again;
  other.configuration(&again);
  EXPECT_EQ(other.iterations.value(), 5);
  EXPECT_EQ(*again.rawParam("Weight"), *p.rawParam("Weight"));
}

TEST(Parameter, DestroyedParameterLeavesItsOwnersList) {
  Configurable owner;
  Parameter<int> stays{"stays", 1, &owner};
  auto goes = std::make_unique<Parameter<int>>("goes", 2, &owner);
  ASSERT_EQ(owner.parameters().size(), 2u);
  goes.reset();
  ASSERT_EQ(owner.parameters().size(), 1u);
  EXPECT_EQ(owner.parameters()[0], &stays);
  // Each of these would reach the dead parameter if it were still listed.
  Properties p{{"goes", "5"}, {"stays", "6"}};
  owner.configure(&p);
  owner.configureDefaults();
  Properties out;
  owner.configuration(&out);
  EXPECT_EQ(out.paramKeys(), std::vector<std::string>{"stays"});
}

// Ranges as the algorithms declare them: closed, open above, and none (finite only).
struct Ranged : Algorithm {
  Parameter<int> levels{"Num Levels", 4, this, ParameterRange::atLeast(1)};
  Parameter<unsigned short> solver{"Solver ID", 4, this, {0, 7}};
  Parameter<double> tolerance{"Solver Tolerance", 1e-5, this, {1e-38, 1}};
  Parameter<float> weight{"Weight", 1.0f, this};
  Parameter<bool> flag{"Flag", false, this};
  Parameter<std::string> path{"Path", "", this};
  void compute() override {
    if (!validateParameters("Test.Ranged")) return;
    setStatus(statusSuccess);
  }
};

struct RangeCase {
  const char* key;
  const char* text;
  const char* error;  // the one error line, or null when the value is accepted
};

void PrintTo(const RangeCase& c, std::ostream* os) { *os << c.key << "=" << c.text; }

class ParameterRangeCheck : public testing::TestWithParam<RangeCase> {};

TEST_P(ParameterRangeCheck, OutOfRangeGivesInvalidInputAndOneLineNamingKeyAndValue) {
  TestKit::LogCapture log;
  Ranged a;
  Properties p{{GetParam().key, GetParam().text}};
  a.configure(&p);
  ASSERT_EQ(log.lines().size(), 0u) << "the text itself reads";
  a.compute();
  if (!GetParam().error) {
    EXPECT_EQ(a.status(), Algorithm::statusSuccess);
    EXPECT_EQ(log.lines().size(), 0u);
    return;
  }
  EXPECT_EQ(a.status(), Algorithm::statusInvalidInput);
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].level, Log::Error);
  EXPECT_EQ(log.lines()[0].category, "Test.Ranged");
  EXPECT_EQ(log.lines()[0].message, GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(
    Bounds, ParameterRangeCheck,
    testing::Values(RangeCase{"Num Levels", "1", nullptr}, RangeCase{"Num Levels", "1000000", nullptr},
                    RangeCase{"Num Levels", "0", "Num Levels must be at least 1, not 0"},
                    RangeCase{"Num Levels", "-3", "Num Levels must be at least 1, not -3"},
                    RangeCase{"Solver ID", "0", nullptr}, RangeCase{"Solver ID", "7", nullptr},
                    RangeCase{"Solver ID", "8", "Solver ID must lie in 0..7, not 8"},
                    RangeCase{"Solver Tolerance", "1", nullptr}, RangeCase{"Solver Tolerance", "1e-38", nullptr},
                    RangeCase{"Solver Tolerance", "0", "Solver Tolerance must lie in 1e-38..1, not 0"},
                    RangeCase{"Solver Tolerance", "1.5", "Solver Tolerance must lie in 1e-38..1, not 1.5"},
                    RangeCase{"Solver Tolerance", "nan", "Solver Tolerance must lie in 1e-38..1, not nan"},
                    RangeCase{"Weight", "-5", nullptr},
                    RangeCase{"Weight", "nan", "Weight must be a finite number, not nan"},
                    RangeCase{"Weight", "-inf", "Weight must be a finite number, not -inf"},
                    RangeCase{"Flag", "true", nullptr}, RangeCase{"Path", "nan", nullptr}),
    [](const auto& info) {
      std::string n = std::string(info.param.key) + "_" + info.param.text;
      for (char& c : n)
        if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
      return n;
    });

TEST(Parameter, OnlyTheFirstBadValueIsReported) {
  TestKit::LogCapture log;
  Ranged a;
  a.levels = 0;
  a.solver = 9;
  a.compute();
  EXPECT_EQ(a.status(), Algorithm::statusInvalidInput);
  EXPECT_EQ(log.count(Log::Error), 1);
}

TEST(Parameter, UnreadableTextKeepsTheValueWithOneWarningPerKey) {
  TestKit::LogCapture log;
  Ranged a;
  Properties p{{"Solver ID", "abc"}, {"Flag", "maybe"}, {"Num Levels", "2"}, {"Solver Tolerance", ""}};
  a.configure(&p);
  EXPECT_EQ(a.solver.value(), 4);
  EXPECT_FALSE(a.flag.value());
  EXPECT_EQ(a.levels.value(), 2);
  EXPECT_EQ(a.tolerance.value(), 1e-5);
  EXPECT_EQ(log.count(Log::Warning, "Core.Parameter"), 3);
  EXPECT_TRUE(log.contains("'Solver ID' cannot be read from 'abc'; keeping 4"));
  EXPECT_TRUE(log.contains("'Flag' cannot be read from 'maybe'; keeping false"));
  EXPECT_TRUE(a.solver.canRead("7"));
  EXPECT_FALSE(a.solver.canRead("-1"));
  EXPECT_FALSE(a.flag.canRead("maybe"));
}

TEST(Parameter, DeclaredRangeIsWrittenAsMinAndMaxAttributes) {
  Ranged a;
  Properties p;
  a.configuration(&p);
  EXPECT_EQ(p.attribute("Solver ID", "min"), "0");
  EXPECT_EQ(p.attribute("Solver ID", "max"), "7");
  EXPECT_EQ(p.attribute("Num Levels", "min"), "1");
  EXPECT_EQ(p.attribute("Num Levels", "max"), "");
  EXPECT_EQ(p.attribute("Weight", "min"), "");
}

// Under a sanitizer, a parameter reaching back to its dead owner fails here.
TEST(Parameter, OwnerDestroyedFirstIsNotReachedByLaterParameterDestruction) {
  auto owner = std::make_unique<Configurable>();
  auto p = std::make_unique<Parameter<int>>("x", 1, owner.get());
  owner.reset();
  p.reset();
}

}  // namespace
