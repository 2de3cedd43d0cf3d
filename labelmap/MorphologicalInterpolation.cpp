#include "MorphologicalInterpolation.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "ConnectedComponentsAlgorithm.h"
#include "Image.h"
#include "Log.h"

namespace Merivane::Seg::MorphInterpolation {

namespace {
constexpr const char* kCategory = "Seg.MorphologicalInterpolationAlgorithm";
constexpr int kUnreached = std::numeric_limits<int>::max();

size_t countSet(const BinaryMask& m) {
  return static_cast<size_t>(std::count_if(m.pixels.begin(), m.pixels.end(), [](uint8_t v) { return v != 0; }));
}

// The component of each pixel, -1 for background, with face connectivity.
std::vector<int64_t> components(const BinaryMask& m, size_t& count) {
  TypedImage<uint8_t> image(Eigen::Vector3i(m.width, m.height, 1), 1, const_cast<uint8_t*>(m.pixels.data()),
                            MemImage::Ownership::Borrowed, false);
  const auto labeling = ConnectedComponents::Labeling::compute(image);
  count = labeling.componentCount();
  return labeling.componentImage();
}

// Rounded centre of mass of every component.
std::vector<Centre> componentCentres(const std::vector<int64_t>& comp, size_t count, int width) {
  std::vector<double> sx(count, 0.0), sy(count, 0.0), n(count, 0.0);
  for (size_t i = 0; i < comp.size(); ++i) {
    if (comp[i] < 0) continue;
    const size_t c = static_cast<size_t>(comp[i]);
    sx[c] += static_cast<double>(i % width);
    sy[c] += static_cast<double>(i / width);
    n[c] += 1.0;
  }
  std::vector<Centre> out(count);
  for (size_t c = 0; c < count; ++c)
    out[c] = {static_cast<int>(sx[c] / n[c] + 0.5), static_cast<int>(sy[c] / n[c] + 0.5)};
  return out;
}

// Half-widths of the rows of the disc |d|^2 <= r^2, for dy = -r..r.
std::vector<int> discRows(int radius) {
  std::vector<int> rows(2 * static_cast<size_t>(radius) + 1);
  for (int dy = -radius; dy <= radius; ++dy) {
    int hw = static_cast<int>(std::sqrt(static_cast<double>(radius) * radius - static_cast<double>(dy) * dy));
    while (static_cast<long long>(hw + 1) * (hw + 1) + static_cast<long long>(dy) * dy <=
           static_cast<long long>(radius) * radius)
      ++hw;
    while (hw > 0 && static_cast<long long>(hw) * hw + static_cast<long long>(dy) * dy > static_cast<long long>(radius) * radius)
      --hw;
    rows[static_cast<size_t>(dy + radius)] = hw;
  }
  return rows;
}

// Geodesic growth of `seeds` inside `target`: step[p] is the first k at which pixel p belongs to
// D_k = dilate(D_{k-1}) AND target, with D_0 = seeds; kUnreached if never. Returns the number
// of steps until D_k holds the whole target, or until growth stops (at least 1, since the
// first step is always taken). A pixel's disc only needs spreading in the step after it
// arrives: the discs of older pixels were spread before and their pixels are already taken.
int grow(const BinaryMask& seeds, const BinaryMask& target, const std::vector<int>& disc, std::vector<int>& step) {
  const int w = target.width, h = target.height;
  const int r = static_cast<int>(disc.size() / 2);
  step.assign(target.pixels.size(), kUnreached);
  const size_t targetCount = countSet(target);
  std::vector<int> frontier, next;
  for (size_t i = 0; i < seeds.pixels.size(); ++i)
    if (seeds.pixels[i]) frontier.push_back(static_cast<int>(i));
  size_t reached = 0;
  int k = 0;
  for (;;) {
    ++k;
    next.clear();
    for (int p : frontier) {
      const int x = p % w, y = p / w;
      for (int dy = std::max(-r, -y); dy <= std::min(r, h - 1 - y); ++dy) {
        const int hw = disc[static_cast<size_t>(dy + r)];
        const int x0 = std::max(0, x - hw), x1 = std::min(w - 1, x + hw);
        const size_t row = static_cast<size_t>(y + dy) * w;
        for (int qx = x0; qx <= x1; ++qx) {
          const size_t q = row + qx;
          if (target.pixels[q] && step[q] == kUnreached) {
            step[q] = k;
            next.push_back(static_cast<int>(q));
          }
        }
      }
    }
    if (k > 1 && next.empty()) return k - 1;  // the rest of the target is out of reach
    reached += next.size();
    if (reached >= targetCount) return k;
    frontier.swap(next);
  }
}

// Pixels whose step is at most `last`.
BinaryMask threshold(const std::vector<int>& step, int last, int w, int h) {
  BinaryMask m(w, h);
  for (size_t i = 0; i < step.size(); ++i) m.pixels[i] = step[i] <= last ? 1 : 0;
  return m;
}

struct Path {
  int lengthA = 0, lengthB = 0;
  int length() const { return std::max(lengthA, lengthB); }  // shapes 0..length()
  int lastA(int n) const { return std::max(lengthA - 1 - n, 0) + 1; }
  int lastB(int n) const { return std::min(n, lengthB - 1) + 1; }
};

BinaryMask pathShape(const Path& path, const std::vector<int>& stepA, const std::vector<int>& stepB, int n, int w,
                     int h) {
  const int la = path.lastA(n), lb = path.lastB(n);
  BinaryMask m(w, h);
  for (size_t i = 0; i < stepA.size(); ++i) m.pixels[i] = (stepA[i] <= la || stepB[i] <= lb) ? 1 : 0;
  return m;
}

}  // namespace

bool centreOfMass(const BinaryMask& mask, Centre& centre) {
  double sx = 0.0, sy = 0.0, n = 0.0;
  for (int y = 0; y < mask.height; ++y)
    for (int x = 0; x < mask.width; ++x)
      if (mask.at(x, y)) {
        sx += x;
        sy += y;
        n += 1.0;
      }
  if (n == 0.0) return false;
  centre = {static_cast<int>(sx / n + 0.5), static_cast<int>(sy / n + 0.5)};
  return true;
}

BinaryMask shifted(const BinaryMask& mask, double shiftX, double shiftY) {
  auto sources = [](int size, double shift) {
    std::vector<int> src(static_cast<size_t>(size), -1);
    for (int i = 0; i < size; ++i) {
      const double p = i + shift;
      if (p > -0.5 && p < size - 0.5) src[static_cast<size_t>(i)] = std::clamp(static_cast<int>(std::lround(p)), 0, size - 1);
    }
    return src;
  };
  const std::vector<int> sx = sources(mask.width, shiftX), sy = sources(mask.height, shiftY);
  BinaryMask out(mask.width, mask.height);
  for (int y = 0; y < mask.height; ++y) {
    if (sy[static_cast<size_t>(y)] < 0) continue;
    for (int x = 0; x < mask.width; ++x)
      if (sx[static_cast<size_t>(x)] >= 0) out.at(x, y) = mask.at(sx[static_cast<size_t>(x)], sy[static_cast<size_t>(y)]) ? 1 : 0;
  }
  return out;
}

std::vector<BinaryMask> interpolate(const BinaryMask& first, const BinaryMask& second, int count, int radius,
                                    Trace* trace) {
  std::vector<BinaryMask> out;
  if (count < 1 || radius < 1 || first.width != second.width || first.height != second.height) return out;
  if (first.pixels.size() != static_cast<size_t>(first.width) * first.height || second.pixels.size() != first.pixels.size())
    return out;
  const int w = first.width, h = first.height;
  Centre c1, c2;
  if (!centreOfMass(first, c1) || !centreOfMass(second, c2)) return out;
  // A disc wider than the image's diagonal reaches no further than the diagonal.
  radius = std::min(radius, static_cast<int>(std::ceil(std::hypot(w, h))) + 1);
  const std::vector<int> disc = discRows(radius);

  // Both masks meet halfway between their centres.
  const int dx = c2.x - c1.x, dy = c2.y - c1.y;
  LOG_DEBUG(kCategory, "Initial displacement: " << dx << " " << dy << " 0");
  BinaryMask s1 = shifted(first, -0.5 * dx, -0.5 * dy);
  BinaryMask s2 = shifted(second, 0.5 * dx, 0.5 * dy);
  BinaryMask inter(w, h);
  for (size_t i = 0; i < inter.pixels.size(); ++i) inter.pixels[i] = (s1.pixels[i] && s2.pixels[i]) ? 1 : 0;

  // A component without a partner on the other side would be lost; it shrinks to its centre.
  size_t n1 = 0, n2 = 0;
  const std::vector<int64_t> comp1 = components(s1, n1), comp2 = components(s2, n2);
  std::vector<uint8_t> matched1(n1, 0), matched2(n2, 0);
  for (size_t i = 0; i < comp1.size(); ++i)
    if (comp1[i] >= 0 && comp2[i] >= 0) matched1[static_cast<size_t>(comp1[i])] = matched2[static_cast<size_t>(comp2[i])] = 1;
  const std::vector<Centre> centres1 = componentCentres(comp1, n1, w), centres2 = componentCentres(comp2, n2, w);
  for (size_t c = 0; c < n1; ++c)
    if (!matched1[c]) inter.at(centres1[c].x, centres1[c].y) = s2.at(centres1[c].x, centres1[c].y) = 1;
  for (size_t c = 0; c < n2; ++c)
    if (!matched2[c]) inter.at(centres2[c].x, centres2[c].y) = s1.at(centres2[c].x, centres2[c].y) = 1;

  std::vector<int> stepA, stepB;
  Path path;
  path.lengthA = grow(inter, s1, disc, stepA);
  path.lengthB = grow(inter, s2, disc, stepB);
  const int N = path.length();

  // Differing pixels of path shape n against each shifted mask, from the pixel counts per pair
  // of steps: shape n holds the pixels with stepA <= lastA(n) or stepB <= lastB(n), so what it
  // leaves out of a class of pixels is the count with both steps beyond those bounds.
  const int da = path.lengthA + 3, db = path.lengthB + 3;
  auto bin = [](int s, int length) { return s == kUnreached ? length + 1 : s; };
  std::vector<long long> suffix(static_cast<size_t>(3) * da * db, 0);  // classes: first only, second only, both
  long long total[3] = {0, 0, 0};
  for (size_t i = 0; i < s1.pixels.size(); ++i) {
    const int cls = (s1.pixels[i] ? 1 : 0) + (s2.pixels[i] ? 2 : 0) - 1;
    if (cls < 0) continue;  // in neither mask: neither growth reaches it
    ++total[cls];
    ++suffix[(static_cast<size_t>(cls) * da + bin(stepA[i], path.lengthA)) * db + bin(stepB[i], path.lengthB)];
  }
  for (int cls = 0; cls < 3; ++cls) {
    long long* s = suffix.data() + static_cast<size_t>(cls) * da * db;
    for (int a = da - 2; a >= 0; --a)
      for (int b = db - 1; b >= 0; --b) s[a * db + b] += s[(a + 1) * db + b];
    for (int a = 0; a < da; ++a)
      for (int b = db - 2; b >= 0; --b) s[a * db + b] += s[a * db + b + 1];
  }
  auto inside = [&](int cls, int n) {
    const long long* s = suffix.data() + static_cast<size_t>(cls) * da * db;
    return total[cls] - s[(path.lastA(n) + 1) * db + path.lastB(n) + 1];
  };
  long long bestDiff = std::numeric_limits<long long>::max();
  int best = 0;
  for (int n = 0; n <= N; ++n) {
    const long long in1 = inside(0, n), in2 = inside(1, n), in12 = inside(2, n);
    const long long d1 = (total[0] - in1) + (total[2] - in12) + in2;
    const long long d2 = (total[1] - in2) + (total[2] - in12) + in1;
    const long long diff = d1 > d2 ? d1 - d2 : d2 - d1;
    LOG_DEBUG(kCategory, "n = " << n << " / diff = " << diff);
    if (trace) trace->differences.push_back(diff);
    if (diff < bestDiff) {
      bestDiff = diff;
      best = n;
    }
  }

  // Frames from the first mask to the second: the first half walks the path from its start to
  // the median and moves back towards the first mask, the second half from the median on.
  const int half = count / 2;
  for (int i = 1; i <= half; ++i) {
    const double t = static_cast<double>(i) / (half + 1);
    const int index = std::min(static_cast<int>(t * best + 0.5), N);
    out.push_back(shifted(pathShape(path, stepA, stepB, index, w, h), (1 - t) * 0.5 * dx, (1 - t) * 0.5 * dy));
  }
  if (count % 2 == 1) out.push_back(pathShape(path, stepA, stepB, best, w, h));
  for (int i = 1; i <= half; ++i) {
    const double t = static_cast<double>(i) / (half + 1);
    const int index = std::min(static_cast<int>(t * (N - best) + 0.5) + best, N);
    out.push_back(shifted(pathShape(path, stepA, stepB, index, w, h), -0.5 * t * dx, -0.5 * t * dy));
  }

  if (trace) {
    trace->displacementX = dx;
    trace->displacementY = dy;
    trace->median = best;
    for (int j = 0; j < path.lengthA; ++j) trace->towardsFirst.push_back(threshold(stepA, j + 1, w, h));
    for (int j = 0; j < path.lengthB; ++j) trace->towardsSecond.push_back(threshold(stepB, j + 1, w, h));
    for (int n = 0; n <= N; ++n) trace->firstToSecond.push_back(pathShape(path, stepA, stepB, n, w, h));
    trace->shiftedFirst = std::move(s1);
    trace->shiftedSecond = std::move(s2);
    trace->intersection = std::move(inter);
  }
  return out;
}

}  // namespace Merivane::Seg::MorphInterpolation
