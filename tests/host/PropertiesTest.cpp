#include <gtest/gtest.h>

#include <Eigen/Core>
#include <bit>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

#include "InputChecks.h"
#include "Properties.h"

namespace PropTest {
enum class Shape { Circle = 3, Square = 7 };
}

template <>
struct Merivane::PropertiesDetail::EnumText<PropTest::Shape> {
  static constexpr std::array<std::pair<PropTest::Shape, const char*>, 2> entries{
      {{PropTest::Shape::Circle, "circle"}, {PropTest::Shape::Square, "square"}}};
};

namespace {

using namespace Merivane;
using PropTest::Shape;
namespace fs = std::filesystem;
constexpr auto Xml = PropertiesIO::Format::Xml;
constexpr double kInf = std::numeric_limits<double>::infinity();

std::string save(const Properties& p) {
  std::string text;
  EXPECT_TRUE(PropertiesIO::saveToString(p, Xml, text));
  return text;
}

std::unique_ptr<Properties> load(const std::string& text) {
  std::string error;
  auto p = PropertiesIO::loadFromString(text, Xml, &error);
  EXPECT_TRUE(p) << error << "\n" << text;
  return p;
}

// Writes `value` as T, goes through the text form and reads it back as U.
template <typename U, typename T>
U roundTripAs(const T& value) {
  Properties p("root");
  p.setParam("key", value);
  auto loaded = load(save(p));
  U out{};
  if (loaded) {
    EXPECT_TRUE(loaded->param("key", out)) << *loaded->rawParam("key");
  }
  return out;
}
template <typename T>
T roundTrip(const T& value) {
  return roundTripAs<T>(value);
}

TEST(Properties, ScalarAndCompoundValuesSurviveTextRoundTrip) {
  EXPECT_EQ(roundTrip(true), true);
  EXPECT_EQ(roundTrip(false), false);
  EXPECT_EQ(roundTrip(std::numeric_limits<int>::min()), std::numeric_limits<int>::min());
  EXPECT_EQ(roundTrip<unsigned char>(255), 255);
  EXPECT_EQ(roundTrip<unsigned short>(65535), 65535);
  EXPECT_EQ(roundTrip(Shape::Square), Shape::Square);
  EXPECT_EQ(roundTrip(Shape::Circle), Shape::Circle);

  const Eigen::Matrix<int, 2, 1> vi(-4, 17);
  EXPECT_EQ(roundTrip(vi), vi);
  const Eigen::Vector3d v3(0.1, -0.0, 1e-300);
  EXPECT_EQ(roundTrip(v3), v3);
  Eigen::Matrix4d m;
  for (int i = 0; i < 16; ++i) m(i / 4, i % 4) = (i - 7) / 3.0;  // a transposed read would differ
  EXPECT_EQ(roundTrip(m), m);

  EXPECT_EQ(roundTrip(std::optional<double>()), std::nullopt);
  EXPECT_EQ(roundTrip(std::optional<double>(0.0)), 0.0);
  EXPECT_EQ(roundTrip(std::optional<int>()), std::nullopt);
  EXPECT_EQ(roundTrip(std::optional<int>(-3)), -3);

  const std::vector<unsigned char> bytes{0, 1, 127, 255};
  EXPECT_EQ(roundTrip(bytes), bytes);
  const std::vector<int> ints{-1, 0, 2147483647};
  EXPECT_EQ(roundTrip(ints), ints);
  EXPECT_EQ(roundTrip(std::vector<int>{}), std::vector<int>{});
  EXPECT_EQ(roundTrip(std::vector<std::string>{}), std::vector<std::string>{});
  EXPECT_EQ(roundTrip(std::vector<std::string>{""}), std::vector<std::string>{""});
}

class DoubleRoundTrip : public testing::TestWithParam<double> {};

// Bit equality: -0.0 == 0.0 would hide a lost sign.
TEST_P(DoubleRoundTrip, KeepsEveryBitAsDoubleAndAsFloat) {
  const double v = GetParam();
  const double back = roundTrip(v);
  const float f = static_cast<float>(v), fb = roundTrip(f);
  if (std::isnan(v)) {
    EXPECT_TRUE(std::isnan(back) && std::isnan(fb));
    return;
  }
  EXPECT_EQ(std::bit_cast<uint64_t>(back), std::bit_cast<uint64_t>(v)) << back;
  EXPECT_EQ(std::bit_cast<uint32_t>(fb), std::bit_cast<uint32_t>(f)) << fb;
}

INSTANTIATE_TEST_SUITE_P(Values, DoubleRoundTrip,
                         testing::Values(0.0, -0.0, 0.1, 1.0 / 3.0, -2.5, 1e-300, 4.9e-324, 1e300,
                                         std::numeric_limits<double>::max(), kInf, -kInf,
                                         std::numeric_limits<double>::quiet_NaN(), 123456789.125));

class StringRoundTrip : public testing::TestWithParam<std::string> {};

TEST_P(StringRoundTrip, KeepsTextExactlyAloneAndInsideAList) {
  EXPECT_EQ(roundTrip(GetParam()), GetParam());
  const std::vector<std::string> list{"a", GetParam(), "", "z"};
  EXPECT_EQ(roundTrip(list), list);
}

INSTANTIATE_TEST_SUITE_P(Texts, StringRoundTrip,
                         testing::Values("", " ", "two words", "  lead and trail  ", "say \"hi\"", "it's",
                                         "a<b && c>d", "&amp; literal", "line1\nline2\n", "\n lead", "tab\there",
                                         "cr\r\nlf", "back\\slash\\", "\"", "\\\"", "\xC3\xBCnicode \xC2\xB5m"));

TEST(Properties, TextFormIsReadableAndReadsAcrossTypes) {
  Properties p{{"byNumber", "7"}, {"byName", "circle"}};
  p.setParam("m", Eigen::Matrix2i{{1, 2}, {3, 4}});
  p.setParam("shape", Shape::Square);
  EXPECT_EQ(*p.rawParam("m"), "1 2 3 4");
  EXPECT_EQ(*p.rawParam("shape"), "square");
  p.setParam("int", 7);
  p.setParam("double", 2.0);
  EXPECT_EQ(p.paramOr("int", 0.0), 7.0);
  EXPECT_EQ(p.paramOr("int", 0.0f), 7.0f);
  EXPECT_EQ(p.paramOr("double", 0), 2);
  EXPECT_EQ(p.paramOr<unsigned char>("double", 0), 2);
  EXPECT_EQ(roundTripAs<double>(42), 42.0);
  EXPECT_EQ(roundTripAs<int>(2.0), 2);
  EXPECT_EQ(p.paramOr("byNumber", Shape::Circle), Shape::Square);
  EXPECT_EQ(p.paramOr("byName", Shape::Square), Shape::Circle);
}

// A failed read must leave the caller's value alone, whatever the target type.
template <typename T>
void expectRefusedAndUntouched(const Properties& p, const char* key, T sentinel) {
  T out = sentinel;
  EXPECT_FALSE(p.param(key, out)) << key;
  EXPECT_TRUE(out == sentinel) << key;
}

TEST(Properties, FailedReadReturnsFalseAndKeepsOut) {
  const Properties p{{"word", "abc"},     {"big", "300"},     {"neg", "-1"},   {"huge", "3000000000"},
                     {"two", "1.5 2.5"}, {"mixed", "1 x 3"}, {"empty", ""},   {"five", "5"},
                     {"vast", "1e40"},   {"-vast", "-1e39"}};
  expectRefusedAndUntouched(p, "missing", 5);
  expectRefusedAndUntouched(p, "missing", std::string("keep"));
  expectRefusedAndUntouched(p, "missing", std::optional<int>(4));
  expectRefusedAndUntouched(p, "word", 5);
  expectRefusedAndUntouched(p, "word", 0.5);
  expectRefusedAndUntouched(p, "word", true);
  expectRefusedAndUntouched(p, "word", std::optional<int>(4));
  expectRefusedAndUntouched(p, "word", Shape::Square);
  expectRefusedAndUntouched(p, "five", Shape::Square);  // a number that names no entry
  expectRefusedAndUntouched(p, "empty", 5);
  expectRefusedAndUntouched(p, "empty", 0.5);
  expectRefusedAndUntouched<unsigned char>(p, "big", 9);
  expectRefusedAndUntouched<unsigned short>(p, "neg", 9);
  expectRefusedAndUntouched(p, "huge", 9);
  expectRefusedAndUntouched(p, "two", Eigen::Vector3d(1, 2, 3));
  expectRefusedAndUntouched(p, "mixed", std::vector<int>{8, 9});
  expectRefusedAndUntouched(p, "vast", 2.0f);  // beyond float, though a double holds it
  expectRefusedAndUntouched(p, "-vast", 2.0f);
  double d = 0;
  EXPECT_TRUE(p.param("vast", d));
  EXPECT_EQ(d, 1e40);
  // The edges of float's range still read: its largest value, and infinity written as such.
  const Properties edge{{"max", PropertiesDetail::toText(std::numeric_limits<float>::max())}, {"inf", "inf"}};
  float f = 0;
  EXPECT_TRUE(edge.param("max", f));
  EXPECT_EQ(f, std::numeric_limits<float>::max());
  EXPECT_TRUE(edge.param("inf", f));
  EXPECT_EQ(f, std::numeric_limits<float>::infinity());
}

Properties richTree() {
  Properties root("root & <co>");
  root.setParam("plain", 1);
  root.setParam("key with \"quotes\" & <brackets>", std::string("v"));
  root.setParam("with default", 0.5, 1.5);
  root.setRawParam("empty default", "x", "");
  root.setParamType("with default", PropertiesDetail::ParamType::Slider);
  root.setParamAttributes("plain", {{"min", "0"}, {"label", "A \"quoted\" label"}, {"z", ""}});
  for (int i = 0; i < 3; ++i) {
    root.addSubProperties("item")->setParam("index", i);
    root.addSubProperties("other")->setParam("index", 10 + i);
  }
  root.subProperties("item")->addSubProperties("")->setParam("deep", std::string("  "));
  return root;
}

TEST(Properties, WholeTreeRoundTripIsExactAndStable) {
  const Properties tree = richTree();
  const std::string text = save(tree);
  auto loaded = load(text);
  ASSERT_TRUE(loaded);
  EXPECT_TRUE(*loaded == tree) << text;
  EXPECT_EQ(save(*loaded), text);
  // An empty default is kept apart from no default at all.
  ASSERT_NE(loaded->rawDefault("empty default"), nullptr);
  EXPECT_EQ(*loaded->rawDefault("empty default"), "");
  EXPECT_EQ(loaded->rawDefault("plain"), nullptr);
  EXPECT_EQ(loaded->paramType("with default"), PropertiesDetail::ParamType::Slider);
  EXPECT_EQ(loaded->attribute("plain", "label"), "A \"quoted\" label");

  // Lists are sub-nodes sharing a name, interleaved here with another list.
  auto items = loaded->subPropertiesNamed("item");
  ASSERT_EQ(items.size(), 3u);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(items[i]->paramOr("index", -1), i);
  ASSERT_EQ(loaded->subProperties().size(), 6u);
  EXPECT_EQ(loaded->subProperties()[1]->paramOr("index", -1), 10);

  auto empty = load(save(Properties()));
  ASSERT_TRUE(empty);
  EXPECT_TRUE(*empty == Properties());
}

struct Malformed {
  const char* what;
  const char* text;
  int line;
};

class MalformedText : public testing::TestWithParam<Malformed> {};

TEST_P(MalformedText, IsRefusedWithItsLine) {
  std::string error;
  EXPECT_EQ(PropertiesIO::loadFromString(GetParam().text, Xml, &error), nullptr);
  EXPECT_NE(error.find("line " + std::to_string(GetParam().line) + ":"), std::string::npos) << error;
}

#define DECL "<?xml version=\"1.0\"?>\n"
#define ROOT "<properties name=\"r\">\n"
#define END "</properties>"
INSTANTIATE_TEST_SUITE_P(
    Cases, MalformedText,
    testing::Values(Malformed{"unclosed", DECL ROOT "  <param name=\"a\" value=\"1\">\n" END, 4},
                    Malformed{"truncated", DECL ROOT "  <param name=\"a\" value=\"1\"/>", 3},
                    Malformed{"unknownElement", DECL ROOT "  <param name=\"a\" value=\"1\"/>\n  <thing/>\n" END, 4},
                    Malformed{"nodeWithoutName", ROOT "<properties name=\"ok\"/>\n\n<properties>\n" END "\n" END, 4},
                    Malformed{"paramWithoutName", ROOT "<param value=\"1\"/>\n" END, 2},
                    Malformed{"paramWithoutValue",
                              DECL ROOT "  <properties name=\"c\">\n    <param name=\"a\" value=\"1\"/>\n"
                                        "    <param name=\"b\"/>\n  " END "\n" END,
                              5},
                    Malformed{"attrWithoutName", ROOT "<param name=\"a\" value=\"1\">\n<attr value=\"x\"/>\n</param>\n" END, 3},
                    Malformed{"typeNotANumber", ROOT "\n<param name=\"a\" value=\"1\" type=\"big\"/>\n" END, 3},
                    // Lines count in the raw text: CR LF endings and line breaks inside values.
                    Malformed{"crlf", "<properties name=\"r\">\r\n<param name=\"a\" value=\"1\"/>\r\n<bad/>\r\n" END, 3},
                    Malformed{"breakInValue", ROOT "<param name=\"a\" value=\"x\r\ny\nz\"/>\n<bad/>\n" END, 5},
                    Malformed{"wrongRoot", "\n\n<props name=\"r\"/>", 3}),
    [](const testing::TestParamInfo<Malformed>& info) { return std::string(info.param.what); });
#undef DECL
#undef ROOT
#undef END

class PropertiesFile : public testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() / ("merivane_props_" + std::to_string(::getpid()) + "_" +
                                        testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(dir_);
    fs::create_directories(dir_);
  }
  void TearDown() override { fs::remove_all(dir_); }
  fs::path dir_;
};

TEST_F(PropertiesFile, SaveReplacesExistingFileAndLeavesNoTemporary) {
  const std::string path = (dir_ / "settings.xml").string();
  Properties p = richTree();
  ASSERT_TRUE(PropertiesIO::saveToFile(p, path));
  p.setParam("plain", 2);
  std::string error;
  ASSERT_TRUE(PropertiesIO::saveToFile(p, path, &error)) << error;
  EXPECT_EQ(std::distance(fs::directory_iterator(dir_), fs::directory_iterator()), 1);
  auto loaded = PropertiesIO::loadFromFile(path, &error);
  ASSERT_TRUE(loaded) << error;
  EXPECT_TRUE(*loaded == p);
}

TEST_F(PropertiesFile, FailedSaveLeavesNothingAndNamesTheFile) {
  const std::string inMissingDir = (dir_ / "nope" / "settings.xml").string();
  std::string error;
  EXPECT_FALSE(PropertiesIO::saveToFile(richTree(), inMissingDir, &error));
  EXPECT_NE(error.find(inMissingDir), std::string::npos) << error;
  EXPECT_FALSE(fs::exists(dir_ / "nope"));
  // A directory in the way: writing the temporary works, the rename cannot.
  const std::string blocked = (dir_ / "blocked").string();
  fs::create_directory(blocked);
  error.clear();
  EXPECT_FALSE(PropertiesIO::saveToFile(richTree(), blocked, &error));
  EXPECT_NE(error.find(blocked), std::string::npos) << error;
  EXPECT_FALSE(fs::exists(blocked + ".tmp"));
  EXPECT_TRUE(fs::is_empty(blocked));
}

TEST_F(PropertiesFile, LoadErrorNamesTheFileAndLine) {
  std::string error;
  const std::string missing = (dir_ / "missing.xml").string();
  EXPECT_EQ(PropertiesIO::loadFromFile(missing, &error), nullptr);
  EXPECT_NE(error.find(missing), std::string::npos) << error;

  const std::string broken = (dir_ / "broken.xml").string();
  std::ofstream(broken) << "<properties name=\"r\">\n<bogus/>\n</properties>\n";
  error.clear();
  EXPECT_EQ(PropertiesIO::loadFromFile(broken, &error), nullptr);
  EXPECT_NE(error.find(broken), std::string::npos) << error;
  EXPECT_NE(error.find("line 2"), std::string::npos) << error;
}

TEST_F(PropertiesFile, DirectoryFifoAndDeviceAreNamedForWhatTheyAre) {
  const std::string fifo = (dir_ / "pipe.xml").string();
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const std::pair<std::string, std::string> cases[] = {{dir_.string(), "is a directory"},
                                                       {".", "is a directory"},
                                                       {fifo, "is not a regular file"},
                                                       {"/dev/zero", "is not a regular file"},
                                                       {(dir_ / "none.xml").string(), "no such file"}};
  for (const auto& [path, problem] : cases) {
    std::string error;
    EXPECT_EQ(PropertiesIO::loadFromFile(path, &error), nullptr) << path;
    EXPECT_EQ(error, path + ": " + problem);
  }
}

// Nesting of 20,000 levels once overflowed the stack of the recursive reader.
class DeepNesting : public testing::TestWithParam<int> {};

TEST_P(DeepNesting, IsReadUpToTheLimitAndRefusedBeyondIt) {
  const int depth = GetParam();
  std::string text;
  for (int i = 0; i < depth; ++i) text += "<properties name=\"n\">\n";
  for (int i = 0; i < depth; ++i) text += "</properties>\n";
  std::string error;
  auto p = PropertiesIO::loadFromString(text, Xml, &error);
  if (depth <= 100) {
    ASSERT_TRUE(p) << error;
    int levels = 1;
    for (const Properties* q = p.get(); !q->subProperties().empty(); q = q->subProperties().front()) ++levels;
    EXPECT_EQ(levels, depth);
  } else {
    EXPECT_EQ(p, nullptr);
    EXPECT_EQ(error, "line 101: <properties> nested deeper than 100 levels");
  }
}

INSTANTIATE_TEST_SUITE_P(Depths, DeepNesting, testing::Values(1, 100, 101, 20000, 200000));

TEST(Properties, MessagesQuoteNamesAsShortEscapedExcerpts) {
  const std::string name = "\x1b[31m" + std::string(5000, 'x');
  std::string error;
  EXPECT_EQ(PropertiesIO::loadFromString("<properties name=\"r\"><param name=\"" + name + "\"/></properties>", Xml, &error),
            nullptr);
  EXPECT_EQ(error, "line 1: <param name=\"\\x1B[31mxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx...\"> without a value attribute");
  const std::string tag(5000, 't');
  EXPECT_EQ(PropertiesIO::loadFromString("<properties name=\"r\"><" + tag + "/></properties>", Xml, &error), nullptr);
  EXPECT_EQ(error, "line 1: unknown element <" + tag.substr(0, 40) + "...>");
}

struct Excerpt {
  std::string in;
  size_t limit;
  std::string out;
};

class ExcerptText : public testing::TestWithParam<Excerpt> {};

TEST_P(ExcerptText, KeepsPrintableAsciiEscapesTheRestAndCuts) {
  EXPECT_EQ(excerpt(GetParam().in, GetParam().limit), GetParam().out);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ExcerptText,
    testing::Values(Excerpt{"plain text", 40, "plain text"}, Excerpt{"", 40, ""},
                    Excerpt{"abcdef", 3, "abc..."}, Excerpt{"abc", 3, "abc"},
                    Excerpt{"\x1b[2J\n", 40, "\\x1B[2J\\x0A"}, Excerpt{std::string("a\0b", 3), 40, "a\\x00b"},
                    Excerpt{"back\\slash", 40, "back\\x5Cslash"}, Excerpt{"\xc3\xa9", 40, "\\xC3\\xA9"}));

TEST(Properties, CopyFromTakesOnlyWhatThePredicateSelects) {
  Properties source{{"alpha", "1"}, {"beta", "2"}};
  source.setParamAttributes("alpha", {{"min", "0"}});
  source.addSubProperties("alphaChild");
  source.addSubProperties("betaChild");
  Properties target{{"alpha", "100"}, {"beta", "200"}};
  target.setParamAttributes("alpha", {{"label", "mine"}});
  auto startsWithA = [](std::string_view key) { return key.starts_with("alpha"); };

  Properties paramsOnly = target;
  paramsOnly.copyFrom(source, Properties::CopyOptions::Params, startsWithA);
  EXPECT_EQ(paramsOnly.paramOr("alpha", 0), 1);
  EXPECT_EQ(paramsOnly.paramOr("beta", 0), 200);
  EXPECT_EQ(paramsOnly.attribute("alpha", "label"), "mine");  // attributes were not asked for
  EXPECT_TRUE(paramsOnly.subProperties().empty());

  target.copyFrom(source, Properties::CopyOptions::All, startsWithA);
  EXPECT_EQ(target.paramOr("alpha", 0), 1);
  EXPECT_EQ(target.paramOr("beta", 0), 200);
  EXPECT_EQ(target.attribute("alpha", "min"), "0");
  ASSERT_EQ(target.subProperties().size(), 1u);
  EXPECT_EQ(target.subProperties()[0]->name(), "alphaChild");
}

}  // namespace
