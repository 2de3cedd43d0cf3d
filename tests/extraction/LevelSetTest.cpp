// Fast marching against exact distances and a Dijkstra bound; the discrete descent.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <queue>
#include <vector>

#include "LevelSet.h"
#include "TestSupport.h"

namespace Merivane {
namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();

struct Grid {
  int size[3];
  long count() const { return static_cast<long>(size[0]) * size[1] * size[2]; }
  long index(int x, int y, int z) const { return (static_cast<long>(z) * size[1] + y) * size[0] + x; }
};

std::vector<float> march(Grid g, std::vector<float> speed, const Eigen::Vector3d& seed,
                         const Eigen::Vector3d& target = Eigen::Vector3d::Constant(-10), float limit = -1.0f,
                         unsigned char* mask = nullptr) {
  std::vector<float> t(static_cast<size_t>(g.count()));
  LevelSet::FastMarching3D<float>(t.data(), g.size, {seed}, speed.data(), target, limit, mask);
  return t;
}

// Shortest paths over face neighbours, a step into voxel v costing 1 / speed(v): fast
// marching's update never exceeds this one-neighbour update, so its times lie below.
std::vector<double> dijkstra(Grid g, const std::vector<float>& speed, const Eigen::Vector3i& seed) {
  std::vector<double> d(static_cast<size_t>(g.count()), std::numeric_limits<double>::infinity());
  using Item = std::pair<double, long>;
  std::priority_queue<Item, std::vector<Item>, std::greater<>> q;
  d[static_cast<size_t>(g.index(seed[0], seed[1], seed[2]))] = 0;
  q.push({0.0, g.index(seed[0], seed[1], seed[2])});
  while (!q.empty()) {
    auto [dv, v] = q.top();
    q.pop();
    if (dv > d[static_cast<size_t>(v)]) continue;
    const int x = static_cast<int>(v % g.size[0]), y = static_cast<int>((v / g.size[0]) % g.size[1]),
              z = static_cast<int>(v / (static_cast<long>(g.size[0]) * g.size[1]));
    const int n[6][3] = {{-1, 0, 0}, {1, 0, 0}, {0, -1, 0}, {0, 1, 0}, {0, 0, -1}, {0, 0, 1}};
    for (const auto& o : n) {
      const int a = x + o[0], b = y + o[1], c = z + o[2];
      if (a < 0 || b < 0 || c < 0 || a >= g.size[0] || b >= g.size[1] || c >= g.size[2]) continue;
      const long u = g.index(a, b, c);
      const double du = dv + 1.0 / speed[static_cast<size_t>(u)];
      if (du < d[static_cast<size_t>(u)]) {
        d[static_cast<size_t>(u)] = du;
        q.push({du, u});
      }
    }
  }
  return d;
}

TEST(FastMarching, ConstantSpeedGivesDistanceWithinTheFirstOrderError) {
  Grid g{{41, 41, 41}};
  const double speed = 2.0;
  const auto t = march(g, std::vector<float>(static_cast<size_t>(g.count()), static_cast<float>(speed)),
                       Eigen::Vector3d(20, 20, 20));
  double worst = 0;
  for (int z = 0; z < 41; ++z)
    for (int y = 0; y < 41; ++y)
      for (int x = 0; x < 41; ++x) {
        const double r = Eigen::Vector3d(x - 20, y - 20, z - 20).norm();
        const double tv = t[static_cast<size_t>(g.index(x, y, z))];
        // Along the axes the scheme is exact; elsewhere it only ever overestimates.
        if ((x == 20) + (y == 20) + (z == 20) >= 2) {
          EXPECT_NEAR(tv, r / speed, 1e-5) << x << " " << y << " " << z;
        }
        EXPECT_GE(tv, r / speed - 1e-5);
        if (r >= 10) worst = std::max(worst, (tv - r / speed) / (r / speed));
      }
  // The first-order scheme from a point source is known to overshoot most along the space
  // diagonals, by about a tenth at these distances (the error decays like log(r) / r).
  EXPECT_LT(worst, 0.13);
}

TEST(FastMarching, TimesLieBetweenEuclideanAndDijkstraBounds) {
  Grid g{{18, 15, 12}};
  std::vector<float> speed(static_cast<size_t>(g.count()));
  for (int z = 0; z < 12; ++z)
    for (int y = 0; y < 15; ++y)
      for (int x = 0; x < 18; ++x)
        speed[static_cast<size_t>(g.index(x, y, z))] = static_cast<float>(0.6 + 0.4 * TestKit::hashNoise(x, y, z));
  const Eigen::Vector3i seed(3, 7, 5);
  const auto t = march(g, speed, seed.cast<double>());
  const auto d = dijkstra(g, speed, seed);
  for (int z = 0; z < 12; ++z)
    for (int y = 0; y < 15; ++y)
      for (int x = 0; x < 18; ++x) {
        const size_t i = static_cast<size_t>(g.index(x, y, z));
        EXPECT_LE(t[i], d[i] * (1 + 1e-5) + 1e-5);
        EXPECT_GE(t[i], (Eigen::Vector3i(x, y, z) - seed).cast<double>().norm() / 1.0 - 1e-4);
      }
}

TEST(FastMarching, StoppingAtTheTargetKeepsTheTimesAlreadyFrozen) {
  Grid g{{30, 20, 20}};
  std::vector<float> speed(static_cast<size_t>(g.count()));
  for (long i = 0; i < g.count(); ++i) speed[static_cast<size_t>(i)] = static_cast<float>(1.0 + 0.5 * std::sin(i * 0.37));
  const Eigen::Vector3d seed(2, 10, 10), target(12, 10, 10);
  const auto full = march(g, speed, seed);
  const auto early = march(g, speed, seed, target);
  const float tt = full[static_cast<size_t>(g.index(12, 10, 10))];
  EXPECT_EQ(early[static_cast<size_t>(g.index(12, 10, 10))], tt);
  int unreached = 0;
  for (size_t i = 0; i < full.size(); ++i) {
    if (full[i] <= tt) {
      EXPECT_EQ(early[i], full[i]);
    }
    if (std::isinf(early[i])) ++unreached;
  }
  EXPECT_GT(unreached, 0);
  EXPECT_TRUE(std::isinf(early[static_cast<size_t>(g.index(29, 19, 19))]));
}

TEST(FastMarching, LimitStopsTheFront) {
  Grid g{{25, 25, 25}};
  std::vector<float> speed(static_cast<size_t>(g.count()), 1.0f);
  const auto full = march(g, speed, Eigen::Vector3d(12, 12, 12));
  const auto limited = march(g, speed, Eigen::Vector3d(12, 12, 12), Eigen::Vector3d::Constant(-5), 5.0f);
  for (size_t i = 0; i < full.size(); ++i) {
    if (full[i] <= 5.0f) {
      EXPECT_EQ(limited[i], full[i]);
    } else {
      EXPECT_GT(limited[i], 5.0f);
    }
  }
}

TEST(FastMarching, WallsOfZeroSpeedAndMaskedVoxelsAreGoneAround) {
  Grid g{{21, 21, 1}};
  std::vector<float> speed(static_cast<size_t>(g.count()), 1.0f);
  std::vector<unsigned char> mask(static_cast<size_t>(g.count()), 1);
  // A wall at x = 10 with a gap at y = 20; half of it by speed 0, half by the mask.
  for (int y = 0; y < 20; ++y) {
    if (y < 10) speed[static_cast<size_t>(g.index(10, y, 0))] = 0.0f;
    else mask[static_cast<size_t>(g.index(10, y, 0))] = 0;
  }
  const auto t = march(g, speed, Eigen::Vector3d(5, 0, 0), Eigen::Vector3d::Constant(-5), -1.0f, mask.data());
  EXPECT_TRUE(std::isinf(t[static_cast<size_t>(g.index(10, 5, 0))]));
  EXPECT_TRUE(std::isinf(t[static_cast<size_t>(g.index(10, 15, 0))]));
  // Round the wall's end: no shorter than the two straight legs through (10, 20).
  EXPECT_GT(t[static_cast<size_t>(g.index(15, 0, 0))], 2 * std::sqrt(25.0 + 400.0) - 1e-3);
  EXPECT_TRUE(std::isfinite(t[static_cast<size_t>(g.index(15, 0, 0))]));
}

TEST(FastMarching, SeedsOutsideTheGridReachNothing) {
  Grid g{{5, 5, 5}};
  const auto t = march(g, std::vector<float>(125, 1.0f), Eigen::Vector3d(-3, 2, 2));
  for (float v : t) EXPECT_EQ(v, kInf);
}

TEST(TracePath, DescendsFromTheEndToTheStartThroughDecreasingTimes) {
  Grid g{{30, 24, 16}};
  std::vector<float> speed(static_cast<size_t>(g.count()));
  for (int z = 0; z < 16; ++z)
    for (int y = 0; y < 24; ++y)
      for (int x = 0; x < 30; ++x)
        speed[static_cast<size_t>(g.index(x, y, z))] = static_cast<float>(0.5 + 0.45 * TestKit::hashNoise(x, y, z));
  const Eigen::Vector3d start(3, 4, 2), end(26, 19, 12);
  auto t = march(g, speed, start);
  std::vector<Eigen::Vector3d> path;
  LevelSet::TracePath3DDiscrete<float>(t.data(), g.size, start, end, path);
  ASSERT_GE(path.size(), 24u);
  EXPECT_EQ(path.front(), end);
  EXPECT_EQ(path.back(), start);
  for (size_t i = 1; i < path.size(); ++i) {
    EXPECT_LE((path[i] - path[i - 1]).cwiseAbs().maxCoeff(), 1.0);
    const auto at = [&](const Eigen::Vector3d& p) {
      return t[static_cast<size_t>(g.index(static_cast<int>(p[0]), static_cast<int>(p[1]), static_cast<int>(p[2])))];
    };
    EXPECT_LT(at(path[i]), at(path[i - 1]));
  }
}

TEST(TracePath, StraightValleyGivesTheStraightLine) {
  Grid g{{40, 9, 9}};
  std::vector<float> speed(static_cast<size_t>(g.count()), 0.05f);
  for (int x = 0; x < 40; ++x) speed[static_cast<size_t>(g.index(x, 4, 4))] = 1.0f;
  auto t = march(g, speed, Eigen::Vector3d(2, 4, 4));
  std::vector<Eigen::Vector3d> path;
  LevelSet::TracePath3DDiscrete<float>(t.data(), g.size, Eigen::Vector3d(2, 4, 4), Eigen::Vector3d(37.2, 3.8, 4.1), path);
  ASSERT_EQ(path.size(), 36u);
  for (size_t i = 0; i < path.size(); ++i) EXPECT_EQ(path[i], Eigen::Vector3d(37.0 - i, 4, 4));
}

TEST(TracePath, EndOutsideTheGridGivesNoPath) {
  Grid g{{4, 4, 4}};
  std::vector<float> t(64, 1.0f);
  std::vector<Eigen::Vector3d> path{Eigen::Vector3d::Zero()};
  LevelSet::TracePath3DDiscrete<float>(t.data(), g.size, Eigen::Vector3d(0, 0, 0), Eigen::Vector3d(9, 0, 0), path);
  EXPECT_TRUE(path.empty());
}

}  // namespace
}  // namespace Merivane
