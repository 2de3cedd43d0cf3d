#include <gtest/gtest.h>

#include <memory>

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
  int warnings;
};

class ParameterConfigure : public testing::TestWithParam<ConfigureCase> {};

TEST_P(ParameterConfigure, ReadsCurrentOrDeprecatedKey) {
  TestKit::LogCapture log;
  Owner o;
  o.configure(&GetParam().input);
  EXPECT_EQ(o.iterations.value(), GetParam().expected);
  EXPECT_EQ(o.changes, GetParam().expected == 200 ? 0 : 1);
  ASSERT_EQ(static_cast<int>(log.lines().size()), GetParam().warnings);
  if (GetParam().warnings) {
    EXPECT_EQ(log.lines()[0].level, Log::Warning);
    EXPECT_EQ(log.lines()[0].category, "Core.Parameter");
    EXPECT_EQ(log.lines()[0].message, "Using deprecated parameter name 'Old Iterations'. Please use: 'Iterations' instead.");
  }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ParameterConfigure,
    testing::Values(ConfigureCase{"current", {{"Iterations", "12"}, {"Unrelated", "x"}}, 12, 0},
                    ConfigureCase{"deprecated", {{"Old Iterations", "33"}}, 33, 1},
                    // The old key first, so that reading in file order would pick it.
                    ConfigureCase{"both", {{"Old Iterations", "33"}, {"Iterations", "44"}}, 44, 0},
                    ConfigureCase{"unreadable", {{"Iterations", "many"}}, 200, 0},
                    ConfigureCase{"sameValue", {{"Iterations", "200"}}, 200, 0}),
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

// Under a sanitizer, a parameter reaching back to its dead owner fails here.
TEST(Parameter, OwnerDestroyedFirstIsNotReachedByLaterParameterDestruction) {
  auto owner = std::make_unique<Configurable>();
  auto p = std::make_unique<Parameter<int>>("x", 1, owner.get());
  owner.reset();
  p.reset();
}

}  // namespace
