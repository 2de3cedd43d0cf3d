#include "FftConvolution.h"

#include <fftw3.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <vector>

namespace Merivane::Dose {

namespace {

// Planning is not thread-safe in FFTW; execution of a finished plan is.
std::mutex& plannerMutex() {
  static std::mutex m;
  return m;
}

struct Plan {
  fftwf_plan plan = nullptr;
  Plan() = default;
  explicit Plan(fftwf_plan p) : plan(p) {}
  Plan(Plan&& o) noexcept : plan(o.plan) { o.plan = nullptr; }
  Plan& operator=(Plan&& o) noexcept {
    std::swap(plan, o.plan);
    return *this;
  }
  ~Plan() {
    if (plan) {
      std::lock_guard<std::mutex> lock(plannerMutex());
      fftwf_destroy_plan(plan);
    }
  }
};

// Columns along x transformed together in the y and z passes: contiguous in memory, so a
// batch reads whole cache lines.
constexpr int kBatch = 16;

// One real line in FFTW's aligned memory.
struct AlignedLine {
  explicit AlignedLine(int n) : data(fftwf_alloc_real(static_cast<size_t>(n))) {
    if (!data) throw std::bad_alloc();
  }
  ~AlignedLine() { fftwf_free(data); }
  AlignedLine(const AlignedLine&) = delete;
  AlignedLine& operator=(const AlignedLine&) = delete;
  float* data;
};

}  // namespace

struct FftConvolver::Impl {
  Eigen::Vector3i n, maxKernel, m;
  int hx = 0;  // complex values per x line
  size_t spectrumSize = 0;
  fftwf_complex* volume = nullptr;  // spectrum of the volume
  fftwf_complex* work = nullptr;
  bool haveVolume = false;
  Plan r2c, c2r;
  Plan batch[2][2][2];  // [axis y/z][forward/backward][full batch/remainder]

  ~Impl() {
    fftwf_free(volume);
    fftwf_free(work);
  }

  fftwf_complex* at(fftwf_complex* base, int x, int y, int z) const {
    return base + (static_cast<size_t>(z) * m[1] + y) * hx + x;
  }

  void makePlans() {
    std::lock_guard<std::mutex> lock(plannerMutex());
    // Every line and every batch starts on a 32-byte boundary (hx is padded to a multiple of
    // four complex values, batches start at multiples of kBatch, and lines are allocated by
    // FFTW), so the plans may use the SIMD codelets that need aligned data.
    const unsigned flags = FFTW_ESTIMATE;
    AlignedLine line(m[0]);
    r2c = Plan(fftwf_plan_dft_r2c_1d(m[0], line.data, work, flags));
    c2r = Plan(fftwf_plan_dft_c2r_1d(m[0], work, line.data, flags | FFTW_DESTROY_INPUT));
    const int remainder = hx % kBatch;
    for (int axis = 0; axis < 2; ++axis)
      for (int dir = 0; dir < 2; ++dir)
        for (int part = 0; part < 2; ++part) {
          const int count = part == 0 ? std::min(kBatch, hx) : remainder;
          if (count == 0) continue;
          int length = m[axis + 1];
          const int stride = axis == 0 ? hx : hx * m[1];
          batch[axis][dir][part] = Plan(fftwf_plan_many_dft(1, &length, count, work, nullptr, stride, 1, work,
                                                            nullptr, stride, 1, dir == 0 ? FFTW_FORWARD : FFTW_BACKWARD,
                                                            flags));
        }
  }

  // Transforms along y (axis 0) or z (axis 1) the batches of x columns that start in the
  // planes `planes` (z for the y pass, y for the z pass), in place in `data`.
  void batchedPass(fftwf_complex* data, int axis, int dir, const std::vector<int>& planes) {
    const int blocks = (hx + kBatch - 1) / kBatch;
    const long jobs = static_cast<long>(planes.size()) * blocks;
#pragma omp parallel for schedule(static)
    for (long job = 0; job < jobs; ++job) {
      const int plane = planes[static_cast<size_t>(job / blocks)];
      const int x = static_cast<int>(job % blocks) * kBatch;
      const int part = x + kBatch <= hx ? 0 : 1;
      fftwf_complex* p = axis == 0 ? at(data, x, 0, plane) : at(data, x, plane, 0);
      fftwf_execute_dft(batch[axis][dir][part].plan, p, p);
    }
  }

  // Forward 3D transform of a real block `src` (size s, x fastest) placed at the voxel
  // offsets `rows` (y) and `slices` (z) of the transform grid, x at 0 or wrapped by `shiftX`.
  void forward(const float* src, const Eigen::Vector3i& s, const std::vector<int>& ys, const std::vector<int>& zs,
               int shiftX, fftwf_complex* out) {
    const long slices = m[2];
#pragma omp parallel for schedule(static)
    for (long z = 0; z < slices; ++z)
      std::memset(at(out, 0, 0, static_cast<int>(z)), 0, static_cast<size_t>(hx) * m[1] * sizeof(fftwf_complex));
    const long lines = static_cast<long>(s[1]) * s[2];
#pragma omp parallel
    {
      AlignedLine line(m[0]);
#pragma omp for schedule(static)
      for (long l = 0; l < lines; ++l) {
        const int y = static_cast<int>(l % s[1]), z = static_cast<int>(l / s[1]);
        std::fill(line.data, line.data + m[0], 0.0f);
        const float* row = src + static_cast<size_t>(l) * s[0];
        for (int x = 0; x < s[0]; ++x) line.data[((x - shiftX) % m[0] + m[0]) % m[0]] = row[x];
        fftwf_execute_dft_r2c(r2c.plan, line.data, at(out, 0, ys[static_cast<size_t>(y)], zs[static_cast<size_t>(z)]));
      }
    }
    batchedPass(out, 0, 0, zs);
    std::vector<int> all(static_cast<size_t>(m[1]));
    for (int y = 0; y < m[1]; ++y) all[static_cast<size_t>(y)] = y;
    batchedPass(out, 1, 0, all);
  }
};

int FftConvolver::fastSize(int n) {
  if (n <= 1) return 1;
  for (int c = n;; ++c) {
    int r = c;
    for (int f : {2, 3, 5, 7})
      while (r % f == 0) r /= f;
    if (r == 1) return c;
  }
}

FftConvolver::FftConvolver(const Eigen::Vector3i& volumeSize, const Eigen::Vector3i& maxKernelSize)
    : impl_(std::make_unique<Impl>()) {
  Impl& d = *impl_;
  d.n = volumeSize.cwiseMax(1);
  d.maxKernel = maxKernelSize.cwiseMax(1);
  for (int k = 0; k < 3; ++k) d.m[k] = fastSize(d.n[k] + (d.maxKernel[k] - 1) / 2);
  d.hx = (d.m[0] / 2 + 1 + 3) / 4 * 4;  // padded: every x line starts 32-byte aligned
  d.spectrumSize = static_cast<size_t>(d.hx) * d.m[1] * d.m[2];
  d.volume = fftwf_alloc_complex(d.spectrumSize);
  d.work = fftwf_alloc_complex(d.spectrumSize);
  if (!d.volume || !d.work) throw std::bad_alloc();
  d.makePlans();
}

FftConvolver::~FftConvolver() = default;

const Eigen::Vector3i& FftConvolver::transformSize() const { return impl_->m; }

void FftConvolver::setVolume(const float* volume) {
  Impl& d = *impl_;
  std::vector<int> ys(static_cast<size_t>(d.n[1])), zs(static_cast<size_t>(d.n[2]));
  for (int y = 0; y < d.n[1]; ++y) ys[static_cast<size_t>(y)] = y;
  for (int z = 0; z < d.n[2]; ++z) zs[static_cast<size_t>(z)] = z;
  d.forward(volume, d.n, ys, zs, 0, d.volume);
  d.haveVolume = true;
}

bool FftConvolver::convolve(const float* kernel, const Eigen::Vector3i& kernelSize, float* out) {
  Impl& d = *impl_;
  if (!d.haveVolume || !kernel || !out) return false;
  for (int k = 0; k < 3; ++k)
    if (kernelSize[k] <= 0 || kernelSize[k] % 2 == 0 || kernelSize[k] > d.maxKernel[k]) return false;
  const Eigen::Vector3i h = (kernelSize - Eigen::Vector3i::Ones()) / 2;
  // Kernel offset q - h goes to index (q - h) mod m: its centre at the origin.
  auto wrapped = [&](int axis) {
    std::vector<int> idx(static_cast<size_t>(kernelSize[axis]));
    for (int q = 0; q < kernelSize[axis]; ++q)
      idx[static_cast<size_t>(q)] = ((q - h[axis]) % d.m[axis] + d.m[axis]) % d.m[axis];
    return idx;
  };
  const std::vector<int> ys = wrapped(1), zs = wrapped(2);
  d.forward(kernel, kernelSize, ys, zs, h[0], d.work);

  const float scale = 1.0f / (static_cast<float>(d.m[0]) * static_cast<float>(d.m[1]) * static_cast<float>(d.m[2]));
  const long count = static_cast<long>(d.spectrumSize);
  const fftwf_complex* a = d.volume;
  fftwf_complex* b = d.work;
#pragma omp parallel for schedule(static)
  for (long i = 0; i < count; ++i) {
    const float re = a[i][0] * b[i][0] - a[i][1] * b[i][1];
    const float im = a[i][0] * b[i][1] + a[i][1] * b[i][0];
    b[i][0] = re * scale;
    b[i][1] = im * scale;
  }

  // Backwards: z for every column, y only in the kept slices, x only on the kept rows.
  std::vector<int> allY(static_cast<size_t>(d.m[1])), keptZ(static_cast<size_t>(d.n[2]));
  for (int y = 0; y < d.m[1]; ++y) allY[static_cast<size_t>(y)] = y;
  for (int z = 0; z < d.n[2]; ++z) keptZ[static_cast<size_t>(z)] = z;
  d.batchedPass(d.work, 1, 1, allY);
  d.batchedPass(d.work, 0, 1, keptZ);
  const long lines = static_cast<long>(d.n[1]) * d.n[2];
#pragma omp parallel
  {
    AlignedLine line(d.m[0]);
#pragma omp for schedule(static)
    for (long l = 0; l < lines; ++l) {
      const int y = static_cast<int>(l % d.n[1]), z = static_cast<int>(l / d.n[1]);
      fftwf_execute_dft_c2r(d.c2r.plan, d.at(d.work, 0, y, z), line.data);
      std::memcpy(out + static_cast<size_t>(l) * d.n[0], line.data, sizeof(float) * static_cast<size_t>(d.n[0]));
    }
  }
  return true;
}

}  // namespace Merivane::Dose
