#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <random>

#include "LabelMapInterpolationAlgorithm.h"
#include "Log.h"
#include "MorphologicalInterpolation.h"
#include "MorphologicalInterpolationAlgorithm.h"
#include "TestSupport.h"

using namespace Merivane;
using Seg::BinaryMask;
namespace MI = Seg::MorphInterpolation;

namespace {

BinaryMask disc(int w, int h, double cx, double cy, double r) {
  BinaryMask m(w, h);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) m.at(x, y) = (x - cx) * (x - cx) + (y - cy) * (y - cy) <= r * r;
  return m;
}

struct Shape {
  double cx = 0, cy = 0, radius = 0;
  long long area = 0;
};

// Centroid and equivalent radius of the pixels for which `in` holds.
template <typename F>
Shape measure(int w, int h, F in) {
  Shape s;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      if (in(x, y)) {
        s.cx += x;
        s.cy += y;
        ++s.area;
      }
  if (s.area) {
    s.cx /= s.area;
    s.cy /= s.area;
  }
  s.radius = std::sqrt(s.area / M_PI);
  return s;
}

Shape measure(const BinaryMask& m) {
  return measure(m.width, m.height, [&](int x, int y) { return m.at(x, y) != 0; });
}

std::unique_ptr<SharedImageSet> maskSet(const BinaryMask& m, PixelType type = U8, int channels = 1) {
  auto set = TestKit::makeSet(type, {m.width, m.height, 1}, 1, channels);
  auto* p = static_cast<uint8_t*>(set->mem(0)->data());
  if (type == U8)
    for (size_t i = 0; i < m.pixels.size(); ++i) p[i * channels] = m.pixels[i];
  set->setModality(Data::LABEL);
  return set;
}

std::vector<uint8_t> bytes(const SharedImageSet& s) {
  std::vector<uint8_t> out;
  for (int i = 0; i < s.size(); ++i) {
    const auto* p = static_cast<const uint8_t*>(s.mem(i)->data());
    out.insert(out.end(), p, p + s.mem(i)->descriptor().elementCount());
  }
  return out;
}

}  // namespace

// ---- the mask interpolation core ----

TEST(MorphInterpolation, DiscToShiftedLargerDiscGivesDiscsInBetweenInOrder) {
  const BinaryMask a = disc(64, 64, 16, 32, 6), b = disc(64, 64, 44, 32, 12);
  for (int count : {1, 3, 5}) {
    SCOPED_TRACE(count);
    const auto shapes = MI::interpolate(a, b, count, 3);
    ASSERT_EQ(static_cast<int>(shapes.size()), count);
    double lastX = 16, lastR = 6;
    for (int k = 0; k < count; ++k) {
      const Shape s = measure(shapes[static_cast<size_t>(k)]);
      const double t = (k + 1.0) / (count + 1);
      EXPECT_NEAR(s.cy, 32, 0.75) << k;               // on the line between the centres
      EXPECT_NEAR(s.cx, 16 + 28 * t, 2.5) << k;       // evenly spaced from first to second
      EXPECT_GT(s.cx, lastX) << k;
      EXPECT_GT(s.radius, 6 - 0.5) << k;
      EXPECT_LT(s.radius, 12 + 0.5) << k;
      EXPECT_GE(s.radius, lastR - 0.5) << k;          // growing from the small disc to the large
      lastX = s.cx;
      lastR = s.radius;
    }
  }
  const Shape median = measure(MI::interpolate(a, b, 1, 3)[0]);
  EXPECT_NEAR(median.cx, 30, 1.0);
  EXPECT_NEAR(median.radius, 9, 1.0);
}

TEST(MorphInterpolation, IdenticalMasksGiveTheMaskEverywhere) {
  BinaryMask m = disc(40, 30, 12, 14, 7);
  for (int x = 20; x < 35; ++x) m.at(x, 14) = 1;  // a thin arm: not a convex shape
  for (int count : {1, 2, 4}) {
    MI::Trace trace;
    const auto shapes = MI::interpolate(m, m, count, 3, &trace);
    ASSERT_EQ(static_cast<int>(shapes.size()), count);
    for (const auto& s : shapes) EXPECT_EQ(s, m);
    EXPECT_EQ(trace.displacementX, 0);
    EXPECT_EQ(trace.displacementY, 0);
    EXPECT_EQ(trace.towardsFirst.size(), 1u);  // the first growth step already fills the mask
  }
}

TEST(MorphInterpolation, DisjointBlobsMeetThroughCentreAlignment) {
  const BinaryMask a = disc(60, 60, 10, 10, 5), b = disc(60, 60, 48, 50, 5);
  MI::Trace trace;
  const auto shapes = MI::interpolate(a, b, 1, 2, &trace);
  ASSERT_EQ(shapes.size(), 1u);
  EXPECT_EQ(trace.displacementX, 38);
  EXPECT_EQ(trace.displacementY, 40);
  const Shape s = measure(shapes[0]);
  EXPECT_NEAR(s.cx, 29, 1.0);
  EXPECT_NEAR(s.cy, 30, 1.0);
  EXPECT_NEAR(s.radius, 5, 0.6);
}

TEST(MorphInterpolation, UnmatchedBlobShrinksToItsCentreInsteadOfVanishing) {
  BinaryMask a = disc(64, 40, 20, 20, 6);
  BinaryMask b = disc(64, 40, 20, 20, 6);
  const BinaryMask extra = disc(64, 40, 50, 20, 4);
  for (size_t i = 0; i < b.pixels.size(); ++i) b.pixels[i] |= extra.pixels[i];
  MI::Trace trace;
  const auto shapes = MI::interpolate(a, b, 1, 3, &trace);
  ASSERT_EQ(shapes.size(), 1u);
  // The extra blob's centre joins the intersection and the first shifted mask.
  bool centreInIntersection = false;
  for (int y = 0; y < 40; ++y)
    for (int x = 40; x < 64; ++x)
      if (trace.intersection.at(x, y)) {
        centreInIntersection = true;
        EXPECT_EQ(trace.shiftedFirst.at(x, y), 1);
      }
  EXPECT_TRUE(centreInIntersection);
  // The median keeps the extra blob instead of losing it.
  long long right = 0;
  for (int y = 0; y < 40; ++y)
    for (int x = 40; x < 64; ++x) right += shapes[0].at(x, y);
  EXPECT_GT(right, 0);
}

TEST(MorphInterpolation, MedianPathShapeIsEquallyFarFromBothMasks) {
  const BinaryMask a = disc(50, 50, 18, 25, 5), b = disc(50, 50, 30, 25, 11);
  MI::Trace trace;
  MI::interpolate(a, b, 1, 2, &trace);
  ASSERT_EQ(trace.firstToSecond.size(), trace.differences.size());
  // Brute force over the stored path: the reported differences and the first minimum.
  long long best = -1;
  int bestN = -1;
  for (size_t n = 0; n < trace.firstToSecond.size(); ++n) {
    long long d1 = 0, d2 = 0;
    for (size_t i = 0; i < a.pixels.size(); ++i) {
      d1 += (trace.firstToSecond[n].pixels[i] != 0) != (trace.shiftedFirst.pixels[i] != 0);
      d2 += (trace.firstToSecond[n].pixels[i] != 0) != (trace.shiftedSecond.pixels[i] != 0);
    }
    EXPECT_EQ(trace.differences[n], std::llabs(d1 - d2)) << n;
    if (best < 0 || std::llabs(d1 - d2) < best) {
      best = std::llabs(d1 - d2);
      bestN = static_cast<int>(n);
    }
  }
  EXPECT_EQ(trace.median, bestN);
  // The path starts with the whole first mask and ends with the whole second one.
  for (size_t i = 0; i < a.pixels.size(); ++i) {
    if (trace.shiftedFirst.pixels[i]) EXPECT_TRUE(trace.firstToSecond.front().pixels[i]) << i;
    if (trace.shiftedSecond.pixels[i]) EXPECT_TRUE(trace.firstToSecond.back().pixels[i]) << i;
  }
}

// The fast shift against the host's resampling onto the reference grid.
TEST(MorphInterpolation, ShiftMatchesResamplingOfTranslatedImage) {
  std::mt19937 rng(7);
  for (int trial = 0; trial < 6; ++trial) {
    BinaryMask m(23, 17);
    for (auto& p : m.pixels) p = (rng() % 3) == 0;
    const double spacing[2] = {trial % 2 ? 0.5 : 1.0, trial % 3 ? 2.0 : 1.0};
    const double sx = static_cast<int>(rng() % 21) / 2.0 - 5, sy = static_cast<int>(rng() % 17) / 2.0 - 4;
    auto set = maskSet(m);
    set->mem(0)->setSpacing(Eigen::Vector3d(spacing[0], spacing[1], 1.0));
    auto frame = set->getShared(0);
    const Eigen::Matrix4d before = frame->matrix();
    auto moved = MorphologicalInterpolationAlgorithm::applyDisplacement(
        frame, Vec3d(sx * spacing[0], sy * spacing[1], 0.0), set.get());
    ASSERT_TRUE(moved);
    EXPECT_EQ(frame->matrix(), before);
    const BinaryMask expected = MI::shifted(m, sx, sy);
    const auto* p = static_cast<const uint8_t*>(moved->mem()->data());
    EXPECT_EQ(std::vector<uint8_t>(p, p + m.pixels.size()), expected.pixels) << sx << " " << sy;
  }
  // Sign: an argument v moves the content by -v.
  BinaryMask dot(5, 1);
  dot.at(2, 0) = 1;
  EXPECT_EQ(MI::shifted(dot, 1, 0).at(1, 0), 1);
}

// ---- the two-mask algorithm ----

TEST(MorphologicalInterpolationAlgorithm, DebugOutputsStandInFrontOfTheInterpolatedSet) {
  auto a = maskSet(disc(32, 32, 10, 16, 4)), b = maskSet(disc(32, 32, 20, 16, 6));
  Algorithm* raw = nullptr;
  ASSERT_TRUE(MorphologicalInterpolationAlgorithm::createCompatible(DataList{a.get(), b.get()}, &raw));
  std::unique_ptr<MorphologicalInterpolationAlgorithm> alg(static_cast<MorphologicalInterpolationAlgorithm*>(raw));
  alg->numInterpolations = 3;
  alg->outputDebug = true;
  alg->compute();
  ASSERT_EQ(alg->status(), Algorithm::statusSuccess);
  auto sets = alg->takeOutput().extractAllImages();
  ASSERT_EQ(sets.size(), 5u);
  const char* names[] = {"Intersection", "Sequence Inter->1", "Sequence Inter->2", "Sequence 1->2", "Interpolated"};
  for (size_t i = 0; i < 5; ++i) {
    EXPECT_EQ(sets[i]->name(), names[i]);
    EXPECT_EQ(sets[i]->modality(), Data::LABEL);
  }
  EXPECT_EQ(sets[4]->size(), 3);
  // The record of the first step agrees with the shift of the core.
  auto init = alg->computeInitialIntersection(*a->get(0), *b->get(0));
  ASSERT_TRUE(init.intersection);
  EXPECT_DOUBLE_EQ(init.displacement[0], 10.0);
  const auto* p = static_cast<const uint8_t*>(sets[0]->mem(0)->data());
  const auto* q = static_cast<const uint8_t*>(init.intersection->mem()->data());
  EXPECT_EQ(std::vector<uint8_t>(p, p + 32 * 32), std::vector<uint8_t>(q, q + 32 * 32));
}

struct BadMasks {
  const char* what;
  std::function<std::unique_ptr<SharedImageSet>()> second;
};

class MorphologicalInterpolationBadInput : public testing::TestWithParam<int> {};

TEST_P(MorphologicalInterpolationBadInput, GivesStatusOneLogLineNoOutputAndLeavesInputs) {
  auto a = maskSet(disc(20, 20, 10, 10, 4));
  std::unique_ptr<SharedImageSet> b;
  switch (GetParam()) {
    case 0: {  // not binary
      BinaryMask m = disc(20, 20, 10, 10, 4);
      m.at(10, 10) = 2;
      b = maskSet(m);
      break;
    }
    case 1: b = maskSet(BinaryMask(20, 20)); break;           // empty
    case 2: b = maskSet(disc(21, 20, 10, 10, 4)); break;      // another grid
    case 3: b = maskSet(disc(20, 20, 10, 10, 4), U16); break; // wrong pixel type
    case 4: b = maskSet(disc(20, 20, 10, 10, 4), U8, 2); break;  // two channels
  }
  const auto before = bytes(*b);
  MorphologicalInterpolationAlgorithm alg(a.get(), b.get());
  TestKit::LogCapture log;
  alg.compute();
  EXPECT_NE(alg.status(), Algorithm::statusSuccess);
  EXPECT_EQ(log.count(Log::Error), 1);
  EXPECT_EQ(log.count(Log::Error, "Seg.MorphologicalInterpolationAlgorithm"), 1);
  EXPECT_TRUE(alg.takeOutput().empty());
  EXPECT_EQ(bytes(*b), before);
}
INSTANTIATE_TEST_SUITE_P(Cases, MorphologicalInterpolationBadInput, testing::Range(0, 5));

// ---- the label-map algorithm ----

namespace {

// A label volume with the given discs painted on given slices.
struct Painted {
  int z, label;
  double cx, cy, r;
};
std::unique_ptr<SharedImageSet> volume(Eigen::Vector3i dims, const std::vector<Painted>& discs) {
  auto set = TestKit::makeImage<uint8_t>(dims, [&](int x, int y, int z) {
    int v = 0;
    for (const auto& d : discs)
      if (d.z == z && (x - d.cx) * (x - d.cx) + (y - d.cy) * (y - d.cy) <= d.r * d.r) v = std::max(v, d.label);
    return v;
  });
  set->setModality(Data::LABEL);
  return set;
}

// The same discs as a stack of 2D frames.
std::unique_ptr<SharedImageSet> stack(Eigen::Vector3i dims, const std::vector<Painted>& discs) {
  auto vol = volume(dims, discs);
  auto set = std::make_unique<SharedImageSet>();
  const auto* p = static_cast<const uint8_t*>(vol->mem(0)->data());
  for (int z = 0; z < dims[2]; ++z) {
    auto f = TypedImage<uint8_t>::zeros(Eigen::Vector3i(dims[0], dims[1], 1));
    std::copy(p + z * dims[0] * dims[1], p + (z + 1) * dims[0] * dims[1], f->pointer());
    set->add(std::shared_ptr<Image>(std::move(f)));
  }
  set->setModality(Data::LABEL);
  return set;
}

std::unique_ptr<SharedImageSet> run(SharedImageSet& labels, int perStep = 1, int* status = nullptr) {
  LabelMapInterpolationAlgorithm alg(&labels);
  alg.numInterpolationsPerStep = perStep;
  alg.compute();
  if (status) *status = alg.status();
  return alg.takeOutput().extractFirstImage();
}

uint8_t at(const SharedImageSet& s, int x, int y, int z) {
  if (s.size() > 1) return static_cast<const uint8_t*>(s.mem(z)->data())[y * s.img(z)->dimensions()[0] + x];
  const auto d = s.img(0)->dimensions();
  return static_cast<const uint8_t*>(s.mem(0)->data())[(static_cast<size_t>(z) * d[1] + y) * d[0] + x];
}

}  // namespace

class LabelMapInterpolationLayout : public testing::TestWithParam<bool> {};  // stack of 2D frames or volume

TEST_P(LabelMapInterpolationLayout, ShiftedDiscsFillEveryFrameInBetween) {
  const bool asStack = GetParam();
  const Eigen::Vector3i dims(56, 40, 17);
  const std::vector<Painted> discs{{2, 1, 14, 20, 5}, {14, 1, 38, 20, 10}};
  auto labels = asStack ? stack(dims, discs) : volume(dims, discs);
  const auto before = bytes(*labels);
  auto out = run(*labels, asStack ? 2 : 1);
  ASSERT_TRUE(out);
  EXPECT_EQ(out->name(), "Interpolation");
  EXPECT_EQ(out->modality(), Data::LABEL);
  EXPECT_EQ(bytes(*labels), before);
  double lastX = 14, lastR = 5;
  for (int z = 0; z < dims[2]; ++z) {
    const Shape s = measure(dims[0], dims[1], [&](int x, int y) { return at(*out, x, y, z) == 1; });
    if (z < 2 || z > 14) {
      EXPECT_EQ(s.area, 0) << z;
      continue;
    }
    const double t = (z - 2) / 12.0;
    EXPECT_NEAR(s.cy, 20, 0.75) << z;
    EXPECT_NEAR(s.cx, 14 + 24 * t, 2.5) << z;
    EXPECT_GE(s.cx, lastX - 0.25) << z;
    EXPECT_GE(s.radius, lastR - 0.6) << z;
    EXPECT_LE(s.radius, 10.6) << z;
    lastX = s.cx;
    lastR = s.radius;
  }
}

TEST_P(LabelMapInterpolationLayout, IdenticalSlicesGiveTheSameSliceAndLabelsAreIndependent) {
  const bool asStack = GetParam();
  const Eigen::Vector3i dims(48, 48, 12);
  auto make = [&](const std::vector<Painted>& d) { return asStack ? stack(dims, d) : volume(dims, d); };
  const std::vector<Painted> one{{1, 1, 14, 14, 6}, {9, 1, 14, 14, 6}};
  const std::vector<Painted> two{{1, 2, 32, 30, 4}, {9, 2, 36, 34, 8}};
  std::vector<Painted> both = one;
  both.insert(both.end(), two.begin(), two.end());
  auto l1 = make(one), l2 = make(two), l12 = make(both);
  auto o1 = run(*l1), o2 = run(*l2), o12 = run(*l12);
  ASSERT_TRUE(o1 && o2 && o12);
  for (int z = 0; z < dims[2]; ++z)
    for (int y = 0; y < dims[1]; ++y)
      for (int x = 0; x < dims[0]; ++x) {
        const uint8_t a = at(*o1, x, y, z), b = at(*o2, x, y, z);
        ASSERT_EQ(at(*o12, x, y, z), std::max(a, b)) << x << " " << y << " " << z;
        if (z >= 1 && z <= 9) ASSERT_EQ(a, at(*l1, x, y, 1)) << x << " " << y << " " << z;
      }
}

TEST_P(LabelMapInterpolationLayout, OneFrameGapAndSeveralFramesPerStepFillEverything) {
  const bool asStack = GetParam();
  const Eigen::Vector3i dims(30, 30, 14);
  const std::vector<Painted> discs{{1, 3, 12, 15, 5}, {3, 3, 16, 15, 5}, {12, 3, 15, 15, 7}};
  auto labels = asStack ? stack(dims, discs) : volume(dims, discs);
  for (int perStep : {1, 3, 20}) {
    auto out = run(*labels, perStep);
    ASSERT_TRUE(out);
    for (int z = 1; z <= 12; ++z) {
      const Shape s = measure(dims[0], dims[1], [&](int x, int y) { return at(*out, x, y, z) == 3; });
      EXPECT_GT(s.area, 50) << "frame " << z << " perStep " << perStep;
    }
    const Shape mid = measure(dims[0], dims[1], [&](int x, int y) { return at(*out, x, y, 2) == 3; });
    EXPECT_NEAR(mid.cx, 14, 1.0);
  }
}

INSTANTIATE_TEST_SUITE_P(StackAndVolume, LabelMapInterpolationLayout, testing::Bool());

TEST(LabelMapInterpolation, StackAndVolumeAgree) {
  const Eigen::Vector3i dims(40, 36, 19);
  const std::vector<Painted> discs{{1, 1, 10, 12, 4}, {9, 1, 25, 20, 8}, {17, 1, 12, 24, 6},
                                   {3, 2, 30, 8, 3},  {17, 2, 30, 26, 6}};
  auto v = volume(dims, discs), s = stack(dims, discs);
  auto ov = run(*v), os = run(*s);
  ASSERT_TRUE(ov && os);
  EXPECT_EQ(bytes(*ov), bytes(*os));
}

TEST(LabelMapInterpolation, LabelsDoNotDependOnThreadCount) {
  const Eigen::Vector3i dims(50, 44, 33);
  std::vector<Painted> discs;
  for (int z = 1; z < 33; z += 7) {
    discs.push_back({z, 1, 12.0 + z / 2.0, 14, 4.0 + z % 5});
    discs.push_back({z, 2, 34, 30.0 - z / 3.0, 6.0 - z % 3});
    if (z % 2) discs.push_back({z, 3, 20, 30, 3});
  }
  auto labels = volume(dims, discs);
  const int was = omp_get_max_threads();
  omp_set_num_threads(1);
  auto serial = run(*labels, 2);
  omp_set_num_threads(2);
  auto parallel = run(*labels, 2);
  omp_set_num_threads(was);
  ASSERT_TRUE(serial && parallel);
  EXPECT_EQ(bytes(*serial), bytes(*parallel));
}

class LabelMapInterpolationBadInput : public testing::TestWithParam<int> {};

TEST_P(LabelMapInterpolationBadInput, GivesStatusOneErrorLineAndLeavesInputAsItWas) {
  std::unique_ptr<SharedImageSet> labels;
  bool compatible = false;
  switch (GetParam()) {
    case 0:  // one annotated slice only
      labels = volume({20, 20, 8}, {{3, 1, 10, 10, 4}});
      compatible = true;
      break;
    case 1: {  // frames on another grid
      labels = stack({20, 20, 4}, {{0, 1, 10, 10, 4}, {3, 1, 10, 10, 4}});
      labels->add(std::shared_ptr<Image>(TypedImage<uint8_t>::zeros(Eigen::Vector3i(21, 20, 1))));
      break;
    }
    case 2:  // two channels
      labels = TestKit::makeSet(U8, {20, 20, 6}, 1, 2);
      labels->setModality(Data::LABEL);
      break;
    case 3:  // wrong pixel type
      labels = TestKit::makeSet(U16, {20, 20, 6});
      labels->setModality(Data::LABEL);
      break;
    case 4:  // a single 2D frame
      labels = volume({20, 20, 1}, {{0, 1, 10, 10, 4}});
      break;
  }
  EXPECT_EQ(LabelMapInterpolationAlgorithm::createCompatible(DataList{labels.get()}), compatible);
  const auto before = bytes(*labels);
  LabelMapInterpolationAlgorithm alg(labels.get());
  TestKit::LogCapture log;
  alg.compute();
  EXPECT_NE(alg.status(), Algorithm::statusSuccess);
  EXPECT_EQ(log.count(Log::Error), 1);
  EXPECT_EQ(log.count(Log::Error, "Seg.LabelMapInterpolationAlgorithm"), 1);
  EXPECT_TRUE(alg.takeOutput().empty());
  EXPECT_EQ(bytes(*labels), before);
}
INSTANTIATE_TEST_SUITE_P(Cases, LabelMapInterpolationBadInput, testing::Range(0, 5));
