#include "FiducialExtractionAlgorithm.h"

#include <omp.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <exception>
#include <limits>
#include <optional>
#include <random>
#include <unordered_map>

#include "FiducialFile.h"
#include "GeometryFit.h"
#include "Image.h"
#include "ImageGradients.h"
#include "ImageProcessing.h"
#include "Log.h"
#include "PointSet.h"
#include "SharedImage.h"
#include "SharedImageSet.h"

namespace Merivane {

namespace {

constexpr const char* kCategory = "Seg.FiducialExtractionAlgorithm";
constexpr int kRounds = 70;

struct SliceCandidate {
  uint16_t x, y;
  float score;
};

// Region edge length in pixels: the millimetres over the spacing, made odd, plus a margin of
// two pixels each side for the gradient and the edge test; never much larger than the image.
int regionSize(double mm, double spacing, int imageSize) {
  const double n = std::ceil(mm / spacing);
  int w = n > imageSize ? imageSize : static_cast<int>(n);
  if (w % 2 == 0) ++w;
  return w + 4;
}

int roundIndex(double v) { return static_cast<int>(std::clamp(v + 0.5, -1e9, 1e9)); }

// A uniform draw in [0, 1) from two 32-bit outputs, the first the low half.
double canonical(std::mt19937& rng) {
  const double lo = rng(), hi = rng();
  const double u = (hi * 4294967296.0 + lo) * 5.42101086242752217e-20;  // 2^-64
  return std::min(u, 0.9999999999999999);
}

// Random-sample consensus shared by the circle and the sphere: N is the dimension.
template <int N, typename Fit>
double ransacFit(const std::vector<Eigen::Matrix<double, N, 1>>& points, Eigen::Matrix<double, N, 1>& centre,
                 double& radius, std::vector<Eigen::Matrix<double, N, 1>>& inliers, double inlierThreshold,
                 double diameter, Fit fit) {
  using V = Eigen::Matrix<double, N, 1>;
  std::mt19937 rng(0);
  size_t bestCount = 0;
  double bestResidual = std::numeric_limits<double>::infinity();
  V bestCentre = V::Zero();
  double bestRadius = 0.0;
  std::vector<V> best;
  const bool fixed = diameter >= 0.0;
  const double radiusIn = fixed ? 0.5 * diameter : 1.0;
  const size_t n = points.size();
  std::vector<V> sample(N + 1), current;
  for (int round = 0; round < kRounds && n > 0; ++round) {
    for (int k = 0; k <= N; ++k)
      sample[static_cast<size_t>(k)] = points[static_cast<size_t>(canonical(rng) * static_cast<double>(n - 1))];
    V c = V::Zero();
    double r = radiusIn;
    bool hold = fixed;
    if (fit(sample, c, r, &hold, nullptr) != 0) return -1.0;
    current.clear();
    for (const V& p : points)
      if (inlierThreshold > std::abs((p - c).norm() - r)) current.push_back(p);
    if (current.size() <= bestCount) continue;
    V c2 = c;
    double r2 = radiusIn, residual = 0.0;
    hold = fixed;
    if (fit(current, c2, r2, &hold, &residual) != 0) return -1.0;
    bestCentre = c2;
    bestRadius = r2;
    bestResidual = residual;
    bestCount = current.size();
    best.swap(current);
  }
  centre = bestCentre;
  radius = bestRadius;
  inliers = std::move(best);
  return bestResidual;
}

// Keeps candidates in order unless an earlier kept one lies within `reach` on every axis; a
// grid of cells one reach wide makes this linear. `stop` ends the walk at the first
// candidate it returns true for.
template <int N, typename Pos, typename Stop>
std::vector<size_t> suppress(size_t count, Pos pos, const Eigen::Matrix<int, N, 1>& reach, Stop stop) {
  std::vector<size_t> kept;
  std::unordered_map<uint64_t, std::vector<size_t>> cells;
  auto key = [](const Eigen::Matrix<long long, N, 1>& c) {
    uint64_t h = 0;
    for (int k = 0; k < N; ++k) h = h * 1000003ull + static_cast<uint64_t>(c[k] + (1ll << 30));
    return h;
  };
  for (size_t i = 0; i < count; ++i) {
    if (stop(i)) break;
    const Eigen::Matrix<int, N, 1> p = pos(i);
    Eigen::Matrix<long long, N, 1> cell;
    for (int k = 0; k < N; ++k) cell[k] = static_cast<long long>(std::floor(double(p[k]) / (reach[k] + 1)));
    bool near = false;
    Eigen::Matrix<long long, N, 1> o = Eigen::Matrix<long long, N, 1>::Constant(-1);
    while (!near) {
      auto it = cells.find(key(cell + o));
      if (it != cells.end()) {
        for (size_t j : it->second) {
          const Eigen::Matrix<int, N, 1> q = pos(j);
          if (((p - q).array().abs() <= reach.array()).all()) {
            near = true;
            break;
          }
        }
      }
      int k = 0;
      while (k < N && ++o[k] > 1) o[k++] = -1;
      if (k == N) break;
    }
    if (near) continue;
    kept.push_back(i);
    cells[key(cell)].push_back(i);
  }
  return kept;
}

// A copy of a box of channel 0 of `src` starting at `origin`; reads outside repeat the edge.
std::unique_ptr<TypedImage<unsigned short>> copyRegion(const TypedImage<unsigned short>& src, const Vec3i& origin,
                                                       const Vec3i& size) {
  ImageDescriptor d(U16, size, 1);
  d.spacing = src.spacing();
  d.shift = src.shift();
  d.scale = src.scale();
  auto out = TypedImage<unsigned short>::create(d);
  const Vec3i last = src.dimensions() - Vec3i::Ones();
  for (int z = 0; z < size[2]; ++z)
    for (int y = 0; y < size[1]; ++y)
      for (int x = 0; x < size[0]; ++x)
        out->setValue(src.value(std::clamp(origin[0] + x, 0, last[0]), std::clamp(origin[1] + y, 0, last[1]),
                                std::clamp(origin[2] + z, 0, last[2])),
                      x, y, z);
  return out;
}

// Confirms the candidates on all threads and appends the confirmed fiducials in the
// candidates' order. An abort keeps what was confirmed before the first candidate left
// undone and clears the request; an allocation failure on any thread is raised here.
template <typename Candidates, typename Confirm, typename Fiducial>
void confirmAll(const Candidates& candidates, Confirm& confirm, std::atomic<bool>& abort,
                std::vector<Fiducial>& fiducials) {
  std::vector<std::optional<Fiducial>> found(candidates.size());
  std::vector<char> done(candidates.size(), 0);
  std::atomic<bool> failed{false};
#pragma omp parallel for schedule(dynamic) if (candidates.size() > 1)
  for (long i = 0; i < static_cast<long>(candidates.size()); ++i) {
    if (abort.load(std::memory_order_relaxed) || failed.load(std::memory_order_relaxed)) continue;
    try {
      found[static_cast<size_t>(i)] = confirm(candidates[static_cast<size_t>(i)]);
      done[static_cast<size_t>(i)] = 1;
    } catch (...) {
      failed = true;
    }
  }
  if (failed) throw std::bad_alloc();
  for (size_t i = 0; i < found.size(); ++i) {
    if (!done[i]) {
      abort = false;
      break;
    }
    if (found[i]) fiducials.push_back(*found[i]);
  }
}

}  // namespace

FiducialExtractionAlgorithm::FiducialExtractionAlgorithm(SharedImage const* image, Mode mode) : image_(image) {
  modeKey = static_cast<int>(mode);
}

FiducialExtractionAlgorithm::~FiducialExtractionAlgorithm() = default;

bool FiducialExtractionAlgorithm::createCompatible(const DataList& data, Algorithm** out) {
  if (data.size() != 1 || !data[0]) return false;
  SharedImageSet* set = data[0]->asImageSet();
  if (!set || set->empty() || !kindMatches(Data::kindVolume, set->kind())) return false;
  const MemImage* mem = set->mem(0);
  if (!mem || mem->type() != U16) return false;
  if (out) *out = new FiducialExtractionAlgorithm(set->get(0), Mode3D);
  return true;
}

void FiducialExtractionAlgorithm::setMinContrast(double v) {
  if (v == contrast.value() || !(v >= 0.0 && v <= 1.0)) return;
  contrast = v;
  signalParametersChanged.emitSignal();
}

void FiducialExtractionAlgorithm::setMode(Mode m) {
  if (static_cast<int>(m) == modeKey.value()) return;
  modeKey = static_cast<int>(m);
  signalParametersChanged.emitSignal();
}

void FiducialExtractionAlgorithm::configure(const Properties* properties) {
  if (!properties) return;
  Algorithm::configure(properties);
  signalParametersChanged.emitSignal();
}

std::unique_ptr<TypedImage<unsigned short>> FiducialExtractionAlgorithm::getSliceImage(int sliceIndex, Vec3i& size,
                                                                                      Vec3i& axes, Vec3d& spacing) {
  const MemImage* mem = image_ ? image_->mem() : nullptr;
  if (!mem || mem->type() != U16) return nullptr;
  const auto& vol = static_cast<const TypedImage<unsigned short>&>(*mem);
  size = mem->dimensions();
  Eigen::Matrix3d r = image_->matrix().topLeftCorner<3, 3>();
  for (int k = 0; k < 3; ++k)
    if (r.col(k).norm() > 0.0) r.col(k).normalize();
  const bool axial = r(2, 2) > 0.99;
  if (axial) {
    axes = Vec3i(0, 1, 2);
  } else if (-r(1, 2) > 0.99 && -r(2, 0) > 0.99 && r(0, 1) > 0.99) {
    axes = Vec3i(-2, 0, -1);
  } else {
    LOG_ERROR(kCategory, "Image orientation not supported");
    return nullptr;
  }
  for (int k = 0; k < 3; ++k) spacing[k] = mem->spacing()[std::abs(axes[k])];
  const int normal = std::abs(axes[2]);
  if (sliceIndex < 0 || sliceIndex >= size[normal]) return nullptr;
  const int w = size[0], h = size[1], d = size[2];
  std::unique_ptr<TypedImage<unsigned short>> out;
  if (axial) {
    out = TypedImage<unsigned short>::create(Vec3i(w, h, 1), 1);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) out->setValue(vol.value(x, y, sliceIndex), x, y);
  } else {
    out = TypedImage<unsigned short>::create(Vec3i(d, w, 1), 1);
    for (int x = 0; x < w; ++x)
      for (int z = 0; z < d; ++z) out->setValue(vol.value(x, sliceIndex, z), d - 1 - z, x);
  }
  out->setSpacing(Vec3d(spacing[0], spacing[1], spacing[2]));
  out->setShiftScale(vol.shift(), vol.scale());
  return out;
}

Vec3d FiducialExtractionAlgorithm::slice2vol(const Vec3d& p, const Vec3i& axes, const Vec3i& size) {
  Vec3d v = Vec3d::Zero();
  for (int k = 0; k < 3; ++k) {
    const int axis = std::abs(axes[k]);
    v[axis] = axes[k] < 0 ? size[axis] - 1 - p[k] : p[k];
  }
  return v;
}

void FiducialExtractionAlgorithm::detectFiducials2D(int sliceIndex, std::vector<Vec3d>& positions,
                                                    std::vector<double>* scores) {
  positions.clear();
  if (scores) scores->clear();
  if (abort_.load(std::memory_order_relaxed)) return;
  Vec3i size, axes;
  Vec3d sp;
  auto img = getSliceImage(sliceIndex, size, axes, sp);
  if (!img) return;
  const double d = diameter;
  const int w = img->width(), h = img->height();
  int kw = static_cast<int>(std::ceil(1.2 * d / sp[0])), kh = static_cast<int>(std::ceil(1.2 * d / sp[1]));
  if (kw % 2 == 0) ++kw;
  if (kh % 2 == 0) ++kh;
  // No pixel would be scanned: skip the kernel and the gradient.
  if (kw >= w || kh >= h) return;
  const int hx = kw / 2, hy = kh / 2;

  // The ring's outward unit vectors, in pixel units. Every other kernel entry is zero.
  struct RingTap {
    int offset;
    float a, b;
  };
  std::vector<RingTap> ring;
  for (int dy = -hy; dy <= hy; ++dy)
    for (int dx = -hx; dx <= hx; ++dx) {
      const double r = std::hypot(dx * sp[0], dy * sp[1]);
      if (!(0.45 * d < r && r < 0.55 * d)) continue;
      const double len = std::hypot(dx, dy);
      ring.push_back({dy * w + dx, static_cast<float>(dx / len), static_cast<float>(dy / len)});
    }

  const Vec3i dims(w, h, 1);
  auto gx = TypedImage<float>::create(dims, 1), gy = TypedImage<float>::create(dims, 1);
  ImageProcessing::computeGradient2D<unsigned short>(img.get(), gx.get(), gy.get());
  float* px = gx->pointer();
  float* py = gy->pointer();
  const long n = static_cast<long>(w) * h;
  float largest = 0.0f;
  for (long i = 0; i < n; ++i) largest = std::max(largest, std::hypot(px[i], py[i]));
  const double minContrast = contrast;
  auto magnitude = std::vector<float>(static_cast<size_t>(n));
  // The ring rewards gradients pointing outwards from its centre, so the gradient is taken
  // downhill here: on a bright marker it then points away from the marker's centre.
#pragma omp parallel for schedule(static) if (h >= 64)
  for (int y = 0; y < h; ++y) {
    for (long i = static_cast<long>(y) * w; i < static_cast<long>(y + 1) * w; ++i) {
      const float m = std::hypot(px[i], py[i]);
      if (!(largest > 0.0f) || minContrast > m / largest) {
        px[i] = py[i] = 0.0f;
        magnitude[static_cast<size_t>(i)] = 0.0f;
      } else {
        px[i] = -px[i] / largest;
        py[i] = -py[i] / largest;
        magnitude[static_cast<size_t>(i)] = std::hypot(px[i], py[i]);
      }
    }
  }
  if (abort_.load(std::memory_order_relaxed)) return;

  // Off the ring every entry adds (1 - |g|) * 0.2 * f: summed, that is 0.2 f (off-ring count
  // - sum of |g| over the window + sum of |g| on the ring), with the window sum from a table
  // of prefix sums. Only the ring taps are visited per pixel.
  const double f = static_cast<float>(static_cast<double>(ring.size()) / (static_cast<double>(kw) * kh));
  const double kernelPixels = static_cast<double>(kw) * kh;
  const double offRing = kernelPixels - static_cast<double>(ring.size());
  std::vector<double> table(static_cast<size_t>(w + 1) * (h + 1), 0.0);
  for (int y = 0; y < h; ++y) {
    double row = 0.0;
    for (int x = 0; x < w; ++x) {
      row += magnitude[static_cast<size_t>(y) * w + x];
      table[static_cast<size_t>(y + 1) * (w + 1) + x + 1] = table[static_cast<size_t>(y) * (w + 1) + x + 1] + row;
    }
  }
  auto boxSum = [&](int x0, int y0, int x1, int y1) {  // inclusive corners
    const size_t s = static_cast<size_t>(w + 1);
    return table[(y1 + 1) * s + x1 + 1] - table[y0 * s + x1 + 1] - table[(y1 + 1) * s + x0] + table[y0 * s + x0];
  };
  std::vector<SliceCandidate> candidates;
  const unsigned short* pixels = img->pointer();
  for (int y = hy; y < h - hy - 1; y += 2) {
    for (int x = hx; x < w - hx - 1; x += 2) {
      const long c = static_cast<long>(y) * w + x;
      if (pixels[c] == 0) continue;
      double ringSum = 0.0, ringMagnitude = 0.0;
      for (const RingTap& t : ring) {
        const long i = c + t.offset;
        ringSum += std::max(0.0f, t.a * px[i] + t.b * py[i]);
        ringMagnitude += magnitude[static_cast<size_t>(i)];
      }
      const double window = boxSum(x - hx, y - hy, x + hx, y + hy);
      const double sum = ringSum + 0.2 * f * (offRing - (window - ringMagnitude));
      candidates.push_back({static_cast<uint16_t>(x), static_cast<uint16_t>(y), static_cast<float>(sum / kernelPixels)});
    }
  }
  if (candidates.empty()) return;
  std::stable_sort(candidates.begin(), candidates.end(),
                   [](const SliceCandidate& a, const SliceCandidate& b) { return a.score > b.score; });

  const int nx = static_cast<int>(std::ceil(0.5 * d / sp[0])), ny = static_cast<int>(std::ceil(0.5 * d / sp[1]));
  const double cut = static_cast<double>(candidates.front().score) * scoreThreshold.value();
  const std::vector<size_t> kept = suppress<2>(
      candidates.size(), [&](size_t i) { return Eigen::Vector2i(candidates[i].x, candidates[i].y); },
      Eigen::Vector2i(nx, ny), [&](size_t i) { return cut > candidates[i].score; });
  const int normal = std::abs(axes[2]);
  for (size_t i : kept) {
    if (scores) scores->push_back(candidates[i].score);
    Vec3d v = slice2vol(Vec3d(candidates[i].x, candidates[i].y, 0.0), axes, size);
    v[normal] = sliceIndex;
    positions.push_back(v);
  }
}

void FiducialExtractionAlgorithm::detectFiducials3D(std::vector<Vec3d>& positions) {
  positions.clear();
  if (abort_.load(std::memory_order_relaxed)) return;
  if (sliceSphere) {
    detectFiducials2D(slice, positions, nullptr);
    return;
  }
  Vec3i size, axes;
  Vec3d sp;
  if (!getSliceImage(0, size, axes, sp)) return;
  const int slices = size[std::abs(axes[2])];
  const int step = std::max(1, sliceStep.value());
  const int count = (slices + step - 1) / step;

  struct Found {
    Vec3d position;
    double score;
  };
  std::vector<std::vector<Found>> perThread(static_cast<size_t>(std::max(1, omp_get_max_threads())));
  std::atomic<bool> failed{false};
  // Contiguous shares of the slice list, so that joining the shares in thread order gives
  // slice order whatever the number of threads.
#pragma omp parallel num_threads(static_cast<int>(perThread.size()))
  {
    const int t = omp_get_thread_num(), teams = omp_get_num_threads();
    const int base = count / teams, extra = count % teams;
    const int begin = t * base + std::min(t, extra), end = begin + base + (t < extra ? 1 : 0);
    std::vector<Vec3d> pos;
    std::vector<double> sc;
    try {
      for (int i = begin; i < end; ++i) {
        if (abort_.load(std::memory_order_relaxed) || failed.load(std::memory_order_relaxed)) break;
        detectFiducials2D(i * step, pos, &sc);
        for (size_t k = 0; k < pos.size(); ++k) perThread[static_cast<size_t>(t)].push_back({pos[k], sc[k]});
      }
    } catch (...) {
      failed = true;  // nothing may leave the parallel region
    }
  }
  if (failed) throw std::bad_alloc();
  if (abort_.load(std::memory_order_relaxed)) return;
  std::vector<Found> all;
  for (auto& v : perThread) all.insert(all.end(), v.begin(), v.end());
  std::stable_sort(all.begin(), all.end(), [](const Found& a, const Found& b) { return a.score > b.score; });

  const Vec3d spacing = image_->mem()->spacing();
  Eigen::Vector3i reach;
  for (int k = 0; k < 3; ++k) reach[k] = static_cast<int>(std::ceil(0.5 * diameter / spacing[k]));
  const std::vector<size_t> kept = suppress<3>(
      all.size(), [&](size_t i) { return Eigen::Vector3i(all[i].position.cast<int>()); }, reach,
      [](size_t) { return false; });
  for (size_t i : kept) positions.push_back(all[i].position);
}

void FiducialExtractionAlgorithm::measureValueRange() {
  valueLow_ = 0.0;
  valueSpan_ = 1.0;
  const MemImage* mem = image_ ? image_->mem() : nullptr;
  if (!mem || mem->type() != U16) return;
  const auto& vol = static_cast<const TypedImage<unsigned short>&>(*mem);
  const size_t n = vol.descriptor().pixelCount(), c = static_cast<size_t>(vol.channels());
  unsigned short lo = 65535, hi = 0;
  const unsigned short* p = vol.pointer();
#pragma omp parallel for schedule(static) reduction(min : lo) reduction(max : hi) if (n > (1u << 20))
  for (long i = 0; i < static_cast<long>(n); ++i) {
    lo = std::min(lo, p[static_cast<size_t>(i) * c]);
    hi = std::max(hi, p[static_cast<size_t>(i) * c]);
  }
  if (n == 0) return;
  const double a = vol.descriptor().toPhysical(lo), b = vol.descriptor().toPhysical(hi);
  valueLow_ = std::min(a, b);
  valueSpan_ = std::abs(b - a) > 0.0 ? std::abs(b - a) : 1.0;
}

namespace {

// A region as floats on the scale of the whole volume's value range: "contrast" is then the
// smallest gradient, as a fraction of that range per pixel, that counts as an edge.
std::unique_ptr<TypedImage<float>> toUnitRange(const TypedImage<unsigned short>& region, double low, double span) {
  std::unique_ptr<MemImage> f = ImageProcessing::createFloat(region, ImageProcessing::Original);
  auto* typed = static_cast<TypedImage<float>*>(f.get());
  float* p = typed->pointer();
  for (size_t i = 0, n = typed->descriptor().pixelCount(); i < n; ++i)
    p[i] = static_cast<float>((p[i] - low) / span);
  typed->setShiftScale(0.0, 1.0);
  f.release();
  return std::unique_ptr<TypedImage<float>>(typed);
}

}  // namespace

void FiducialExtractionAlgorithm::computeFiducial2D(const Vec3d& clicked, double roi) {
  Vec3i size, axes;
  Vec3d sp;
  auto sliceImg = getSliceImage(slice, size, axes, sp);
  if (!sliceImg) return;
  measureValueRange();
  std::vector<Vec3i> candidates;
  if (globalDetection) {
    std::vector<Vec3d> found;
    detectFiducials2D(slice, found, nullptr);
    for (const Vec3d& p : found) candidates.emplace_back(roundIndex(p[0]), roundIndex(p[1]), roundIndex(p[2]));
  } else {
    const Vec3d p = image_->worldToPixel(clicked);
    candidates.emplace_back(roundIndex(p[0]), roundIndex(p[1]), roundIndex(p[2]));
  }
  const int w = regionSize(roi, sp[0], sliceImg->width()), h = regionSize(roi, sp[1], sliceImg->height());
  const int hw = w / 2, hh = h / 2;
  LOG_INFO(kCategory, candidates.size() << " detection candidates");
  fiducials_.clear();

  const double fitDiameter = fixedDiameter ? diameter.value() : -1.0;
  const double threshold = std::min(sp[0], sp[1]);
  const float edgeThreshold = static_cast<float>(contrast.value());
  const double coverage = minCoverage;
  const int normal = std::abs(axes[2]);
  auto confirm = [&](const Vec3i& cand) -> std::optional<Fiducial> {
    // The candidate in slice coordinates.
    Vec3d s;
    for (int k = 0; k < 3; ++k) {
      const int axis = std::abs(axes[k]);
      s[k] = axes[k] < 0 ? size[axis] - 1 - cand[axis] : cand[axis];
    }
    const Vec3i origin(static_cast<int>(s[0]) - hw, static_cast<int>(s[1]) - hh, 0);
    auto region = copyRegion(*sliceImg, origin, Vec3i(w, h, 1));
    auto values = toUnitRange(*region, valueLow_, valueSpan_);
    const Vec3i dims(w, h, 1);
    auto gx = TypedImage<float>::create(dims, 1), gy = TypedImage<float>::create(dims, 1);
    auto mag = TypedImage<float>::create(dims, 1);
    ImageProcessing::computeGradient2D<float>(values.get(), gx.get(), gy.get());
    for (size_t i = 0, n = static_cast<size_t>(w) * h; i < n; ++i)
      mag->pointer()[i] = std::hypot(gx->pointer()[i], gy->pointer()[i]);
    std::vector<std::pair<Vec2d, Vec2d>> edges;
    ImageProcessing::computeSubpixelEdgeLocationAndOrientation2D(mag.get(), gx.get(), gy.get(), edgeThreshold, edges);
    const Vec2d centre(w / 2.0, h / 2.0);
    std::vector<Vec2d> world;
    double z = 0.0;
    for (const auto& [p, o] : edges) {
      const Vec2d u = p - centre;
      const double len = u.norm();
      if (!(len > 0.0) || !(o.dot(u / len) < 0.0)) continue;
      Vec3d v = slice2vol(Vec3d(p[0] + origin[0], p[1] + origin[1], 0.0), axes, size);
      v[normal] = s[2];
      const Vec3d q = image_->pixelToWorld(v);
      world.emplace_back(q[0], q[1]);
      z = q[2];
    }
    if (world.size() < 10) return std::nullopt;
    Vec3d fit;
    std::vector<Vec2d> inliers;
    if (fitCircleToPointCloud(world, fit, inliers, threshold, fitDiameter) < 0.0) return std::nullopt;
    int bins[16] = {};
    for (const Vec2d& p : inliers) {
      double angle = std::atan2(p[1] - fit[1], p[0] - fit[0]) * 180.0 / M_PI;
      if (angle < 0.0) angle += 360.0;
      ++bins[std::clamp(static_cast<int>(angle / 22.5), 0, 15)];
    }
    const int empty = static_cast<int>(std::count_if(std::begin(bins), std::end(bins), [](int b) { return b < 2; }));
    if (coverage > (16 - empty) * 0.0625) return std::nullopt;
    return Fiducial{Vec3d(fit[0], fit[1], z), fit[2]};
  };
  confirmAll(candidates, confirm, abort_, fiducials_);
}

void FiducialExtractionAlgorithm::computeFiducial3D(const Vec3d& clicked, double roi) {
  const MemImage* mem = image_ ? image_->mem() : nullptr;
  if (!mem || mem->type() != U16) return;
  const auto& vol = static_cast<const TypedImage<unsigned short>&>(*mem);
  measureValueRange();
  std::vector<Vec3i> candidates;
  if (globalDetection) {
    std::vector<Vec3d> found;
    detectFiducials3D(found);
    for (const Vec3d& p : found) candidates.emplace_back(roundIndex(p[0]), roundIndex(p[1]), roundIndex(p[2]));
  } else {
    const Vec3d p = image_->worldToPixel(clicked);
    candidates.emplace_back(roundIndex(p[0]), roundIndex(p[1]), roundIndex(p[2]));
  }
  const Vec3d sp = vol.spacing();
  Vec3i rs;
  for (int k = 0; k < 3; ++k) rs[k] = regionSize(roi, sp[k], vol.dimensions()[k]);
  const Vec3i half = rs / 2;
  LOG_INFO(kCategory, candidates.size() << " detection candidates");
  fiducials_.clear();

  const double fitDiameter = fixedDiameter ? diameter.value() : -1.0;
  const double threshold = sp.minCoeff();
  const float edgeThreshold = static_cast<float>(contrast.value());
  const double coverage = minCoverage;
  auto confirm = [&](const Vec3i& cand) -> std::optional<Fiducial> {
    const Vec3i origin = cand - half;
    auto region = copyRegion(vol, origin, rs);
    auto values = toUnitRange(*region, valueLow_, valueSpan_);
    auto gx = TypedImage<float>::create(rs, 1), gy = TypedImage<float>::create(rs, 1);
    auto gz = TypedImage<float>::create(rs, 1), mag = TypedImage<float>::create(rs, 1);
    ImageProcessing::computeGradient3D<float>(values.get(), gx.get(), gy.get(), gz.get());
    for (size_t i = 0, n = mag->descriptor().pixelCount(); i < n; ++i)
      mag->pointer()[i] = std::sqrt(gx->pointer()[i] * gx->pointer()[i] + gy->pointer()[i] * gy->pointer()[i] +
                                    gz->pointer()[i] * gz->pointer()[i]);
    std::vector<std::pair<Vec3d, Vec3d>> edges;
    ImageProcessing::computeSubpixelEdgeLocationAndOrientation3D(mag.get(), gx.get(), gy.get(), gz.get(),
                                                                 edgeThreshold, edges);
    const Vec3d centre = rs.cast<double>() / 2.0;
    std::vector<Vec3d> world;
    for (const auto& [p, o] : edges) {
      const Vec3d u = p - centre;
      const double len = u.norm();
      if (!(len > 0.0) || !(o.dot(u / len) < 0.0)) continue;
      world.push_back(image_->pixelToWorld(p + origin.cast<double>()));
    }
    if (world.size() < 16) return std::nullopt;
    Eigen::Vector4d fit;
    std::vector<Vec3d> inliers;
    if (fitSphereToPointCloud(world, fit, inliers, threshold, fitDiameter) < 0.0) return std::nullopt;
    // Both angles share dx, so only half of the 256 cells can ever be reached: hence 2 n.
    bool cells[16][16] = {};
    for (const Vec3d& p : inliers) {
      const Vec3d q = p - fit.head<3>();
      double a = std::atan2(q[1], q[0]) * 180.0 / M_PI, b = std::atan2(q[2], q[0]) * 180.0 / M_PI;
      if (a < 0.0) a += 360.0;
      if (b < 0.0) b += 360.0;
      cells[std::clamp(static_cast<int>(b / 22.5), 0, 15)][std::clamp(static_cast<int>(a / 22.5), 0, 15)] = true;
    }
    int covered = 0;
    for (auto& row : cells) covered += static_cast<int>(std::count(std::begin(row), std::end(row), true));
    if (coverage > 2.0 * covered / 256.0) return std::nullopt;
    return Fiducial{Vec3d(fit.head<3>()), fit[3]};
  };
  confirmAll(candidates, confirm, abort_, fiducials_);
}

double FiducialExtractionAlgorithm::fitCircleToPointCloud(const std::vector<Vec2d>& points, Vec3d& centreAndRadius,
                                                          std::vector<Vec2d>& inliers, double inlierThreshold,
                                                          double diameter) {
  Vec2d c = Vec2d::Zero();
  double r = 0.0;
  const double residual = ransacFit<2>(points, c, r, inliers, inlierThreshold, diameter,
                                       [](const std::vector<Vec2d>& p, Vec2d& centre, double& radius, bool* fixed,
                                          double* res) { return Geometry::fitCircle(p, centre, radius, fixed, res, false); });
  if (residual < 0.0) return -1.0;
  centreAndRadius = Vec3d(c[0], c[1], r);
  return residual;
}

double FiducialExtractionAlgorithm::fitSphereToPointCloud(const std::vector<Vec3d>& points,
                                                          Eigen::Vector4d& centreAndRadius, std::vector<Vec3d>& inliers,
                                                          double inlierThreshold, double diameter) {
  Vec3d c = Vec3d::Zero();
  double r = 0.0;
  const double residual = ransacFit<3>(points, c, r, inliers, inlierThreshold, diameter,
                                       [](const std::vector<Vec3d>& p, Vec3d& centre, double& radius, bool* fixed,
                                          double* res) { return Geometry::fitSphere(p, centre, radius, fixed, res); });
  if (residual < 0.0) return -1.0;
  centreAndRadius = Eigen::Vector4d(c[0], c[1], c[2], r);
  return residual;
}

void FiducialExtractionAlgorithm::compute() {
  setStatus(statusSuccess);
  const MemImage* mem = image_ ? image_->mem() : nullptr;
  if (!mem || mem->type() != U16) {
    LOG_ERROR(kCategory, "Cannot measure cube. Input volume does not exist or does not have required type");
    setStatus(statusInvalidInput);
    return;
  }
  if (!validateParameters(kCategory)) return;
  if (mode() == Mode2D) {
    Vec3i size, axes;
    Vec3d sp;
    // The orientation is checked (and reported) by the slice access itself.
    if (getSliceImage(0, size, axes, sp) && (slice < 0 || slice >= size[std::abs(axes[2])])) {
      LOG_ERROR(kCategory, "slice must lie in 0.." << size[std::abs(axes[2])] - 1 << ", not " << slice.value());
      setStatus(statusInvalidInput);
      return;
    }
  }
  abort_ = false;
  const auto start = std::chrono::steady_clock::now();
  fiducials_.clear();
  try {
    if (mode() == Mode2D)
      computeFiducial2D(point, roiSize);
    else
      computeFiducial3D(point, roiSize);
  } catch (const std::exception& e) {
    fiducials_.clear();
    LOG_ERROR(kCategory, "Fiducial extraction failed: " << e.what());
    setStatus(statusError);
    return;
  }
  const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  LOG_INFO(kCategory, "Fiducial extraction took " << ms << " ms");
  signalOutputChanged.emitSignal();
}

OwningDataList FiducialExtractionAlgorithm::takeOutput() {
  OwningDataList out;
  std::vector<Eigen::Vector3d> centres;
  std::vector<double> radii;
  for (const Fiducial& f : FiducialFile::sortedWithoutOverlaps(fiducials_)) {
    centres.push_back(f.centre);
    radii.push_back(f.radius);
  }
  auto set = std::make_unique<PointSet>(std::move(centres), "Fiducials");
  set->components().add(std::make_unique<FiducialRadiiComponent>(std::move(radii)));
  out.add(std::move(set));
  return out;
}

}  // namespace Merivane
