#include "BrainVesselSegmentationAlgorithm.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <vector>

#include "ImageProcessing.h"
#include "Interpolation.h"
#include "Log.h"
#include "MorphologicalOperationsAlgorithm.h"
#include "Progress.h"
#include "SharedImageSet.h"

namespace Merivane {

namespace {

constexpr const char* kCategory = "Seg.BrainVesselSegmentationAlgorithm";

// Channel 0 of `src` in original intensities, sampled at the voxel centres of `ref`'s grid
// through both frames' matrices (trilinear or nearest); 0 outside `src`.
std::vector<float> sampleOnto(const SharedImage& src, const SharedImage& ref, bool nearest) {
  const MemImage* mem = src.mem();
  const Eigen::Vector3i rd = ref.descriptor().dimensions, sd = mem->dimensions();
  std::vector<float> out(ref.descriptor().pixelCount(), 0.0f);
  // Voxel of ref to voxel of src is affine: its columns from four mapped points.
  const Eigen::Vector3d o = src.worldToPixel(ref.pixelToWorld(Eigen::Vector3d::Zero()));
  Eigen::Matrix3d a;
  for (int k = 0; k < 3; ++k) a.col(k) = src.worldToPixel(ref.pixelToWorld(Eigen::Vector3d::Unit(k))) - o;
  const auto& d = mem->descriptor();
  const int c = mem->channels();
  dispatchPixelType(mem->type(), [&](auto tag) {
    using T = decltype(tag);
    const T* p = static_cast<const T*>(mem->data());
    auto read = [&](int x, int y, int z) {
      return static_cast<double>(p[((static_cast<size_t>(z) * sd[1] + y) * sd[0] + x) * c]);
    };
#pragma omp parallel for schedule(static) if (rd[2] >= 9)
    for (int z = 0; z < rd[2]; ++z)
      for (int y = 0; y < rd[1]; ++y)
        for (int x = 0; x < rd[0]; ++x) {
          const Eigen::Vector3d q = o + a * Eigen::Vector3d(x, y, z);
          if ((q.array() < -0.5).any() || (q.array() > sd.cast<double>().array() - 0.5).any()) continue;
          const double pos[3] = {q[0], q[1], q[2]};
          const double v = Interpolation::interpolate(Interpolation::stencil(pos, sd, nearest), read);
          out[(static_cast<size_t>(z) * rd[1] + y) * rd[0] + x] = static_cast<float>(d.toPhysical(v));
        }
  });
  return out;
}

// Sets every background voxel that the image border cannot reach through background (face
// neighbours) to 1: the inside of the mask's closed surfaces.
void fillHoles(TypedImage<unsigned char>& mask) {
  const Eigen::Vector3i d = mask.dimensions();
  const long nx = d[0], ny = d[1], nz = d[2];
  unsigned char* m = mask.pointer();
  std::vector<unsigned char> outside(static_cast<size_t>(nx * ny * nz), 0);
  std::vector<long> queue;
  auto visit = [&](long x, long y, long z) {
    const long i = (z * ny + y) * nx + x;
    if (m[i] || outside[static_cast<size_t>(i)]) return;
    outside[static_cast<size_t>(i)] = 1;
    queue.push_back(i);
  };
  for (long z = 0; z < nz; ++z)
    for (long y = 0; y < ny; ++y)
      for (long x = 0; x < nx; ++x)
        if (x == 0 || y == 0 || z == 0 || x == nx - 1 || y == ny - 1 || z == nz - 1) visit(x, y, z);
  for (size_t head = 0; head < queue.size(); ++head) {
    const long i = queue[head];
    const long z = i / (nx * ny), y = (i / nx) % ny, x = i % nx;
    if (x > 0) visit(x - 1, y, z);
    if (x + 1 < nx) visit(x + 1, y, z);
    if (y > 0) visit(x, y - 1, z);
    if (y + 1 < ny) visit(x, y + 1, z);
    if (z > 0) visit(x, y, z - 1);
    if (z + 1 < nz) visit(x, y, z + 1);
  }
  for (size_t i = 0; i < outside.size(); ++i)
    if (!outside[i]) m[i] = 1;
}

// Perona-Malik diffusion with conductances of the input (edge scale relative to the RMS
// gradient), `iterations` explicit steps of size strength / 6 over the face neighbours with
// no flux across the border, then an unsharp mask of amount `sharpen` clamped to the range of
// each voxel's 3 x 3 x 3 neighbourhood. Every step is a convex combination or a clamp, so the
// values stay within the input's range.
void smoothPreservingEdges(std::vector<float>& u, const Eigen::Vector3i& d, int iterations, double strength,
                           double sharpen) {
  const long nx = d[0], ny = d[1], nz = d[2], sy = nx, sz = nx * ny, n = nx * ny * nz;
  auto at = [&](const std::vector<float>& v, long x, long y, long z) {
    return v[static_cast<size_t>(std::clamp(z, 0L, nz - 1) * sz + std::clamp(y, 0L, ny - 1) * sy +
                                 std::clamp(x, 0L, nx - 1))];
  };
  std::vector<float> g(static_cast<size_t>(n));
  // Per-slice sums added in slice order: the edge scale does not depend on the thread count.
  std::vector<double> sliceSums(static_cast<size_t>(nz), 0.0);
#pragma omp parallel for schedule(static) if (nz >= 9)
  for (long z = 0; z < nz; ++z)
    for (long y = 0; y < ny; ++y)
      for (long x = 0; x < nx; ++x) {
        const double gx = 0.5 * (at(u, x + 1, y, z) - at(u, x - 1, y, z));
        const double gy = 0.5 * (at(u, x, y + 1, z) - at(u, x, y - 1, z));
        const double gz = 0.5 * (at(u, x, y, z + 1) - at(u, x, y, z - 1));
        const double s2 = gx * gx + gy * gy + gz * gz;
        g[static_cast<size_t>(z * sz + y * sy + x)] = static_cast<float>(s2);
        sliceSums[static_cast<size_t>(z)] += s2;
      }
  double sum = 0.0;
  for (double v : sliceSums) sum += v;
  const double k2 = 2.0 * sum / static_cast<double>(n);
  for (float& v : g) v = k2 > 0.0 ? static_cast<float>(std::exp(-v / k2)) : 1.0f;

  const float dt = static_cast<float>(strength / 6.0);
  std::vector<float> next(u.size());
  for (int it = 0; it < iterations; ++it) {
#pragma omp parallel for schedule(static) if (nz >= 9)
    for (long z = 0; z < nz; ++z)
      for (long y = 0; y < ny; ++y)
        for (long x = 0; x < nx; ++x) {
          const long i = z * sz + y * sy + x;
          const float uc = u[static_cast<size_t>(i)], gc = g[static_cast<size_t>(i)];
          float flux = 0.0f;
          auto add = [&](bool inside, long j) {
            if (inside) flux += 0.5f * (gc + g[static_cast<size_t>(j)]) * (u[static_cast<size_t>(j)] - uc);
          };
          add(x > 0, i - 1);
          add(x + 1 < nx, i + 1);
          add(y > 0, i - sy);
          add(y + 1 < ny, i + sy);
          add(z > 0, i - sz);
          add(z + 1 < nz, i + sz);
          next[static_cast<size_t>(i)] = uc + dt * flux;
        }
    u.swap(next);
  }
  if (sharpen <= 0.0) return;
#pragma omp parallel for schedule(static) if (nz >= 9)
  for (long z = 0; z < nz; ++z)
    for (long y = 0; y < ny; ++y)
      for (long x = 0; x < nx; ++x) {
        float lo = at(u, x, y, z), hi = lo;
        double mean = 0.0;
        for (long dz = -1; dz <= 1; ++dz)
          for (long dy = -1; dy <= 1; ++dy)
            for (long dx = -1; dx <= 1; ++dx) {
              const float v = at(u, x + dx, y + dy, z + dz);
              lo = std::min(lo, v);
              hi = std::max(hi, v);
              mean += v;
            }
        const float uc = at(u, x, y, z);
        const double s = uc + sharpen * (uc - mean / 27.0);
        next[static_cast<size_t>(z * sz + y * sy + x)] = std::clamp(static_cast<float>(s), lo, hi);
      }
  u.swap(next);
}

const SharedImageSet* volumeOf(Data* d) {
  SharedImageSet* s = d ? d->asImageSet() : nullptr;
  return s && !s->empty() && kindMatches(Data::kindVolume, s->kind()) ? s : nullptr;
}

}  // namespace

BrainVesselSegmentationAlgorithm::BrainVesselSegmentationAlgorithm(const SharedImageSet* first,
                                                                   const SharedImageSet* second,
                                                                   const SharedImageSet* brainMask,
                                                                   const SharedImageSet* secondMask)
    : first_(first), second_(second), mask_(brainMask), secondMask_(secondMask) {}

BrainVesselSegmentationAlgorithm::~BrainVesselSegmentationAlgorithm() = default;

bool BrainVesselSegmentationAlgorithm::createCompatible(const DataList& data, Algorithm** algorithm) {
  if (data.size() < 3 || data.size() > 4) return false;
  std::vector<const SharedImageSet*> volumes, labels;
  for (Data* d : data.items()) {
    SharedImageSet* s = d ? d->asImageSet() : nullptr;
    if (!s || s->empty()) return false;
    if (s->modality() == Data::LABEL) labels.push_back(s);
    else if (s->modality() == Data::MRI && volumeOf(d)) volumes.push_back(s);
    else return false;
  }
  if (volumes.size() != 2 || labels.empty()) return false;
  if (algorithm)
    *algorithm = new BrainVesselSegmentationAlgorithm(volumes[0], volumes[1], labels[0],
                                                      labels.size() > 1 ? labels[1] : nullptr);
  return true;
}

std::unique_ptr<SharedImage> BrainVesselSegmentationAlgorithm::processBrainMask(const SharedImage& mask,
                                                                                const SharedImage& reference) const {
  const MemImage* mem = mask.mem();
  if (!mem || !reference.mem()) return nullptr;
  auto binary = ImageProcessing::createThresholded(*mem, ImageProcessing::Binary, 0.5);
  auto& typed = static_cast<TypedImage<unsigned char>&>(*binary);
  Morphology::apply(typed, Morphology::Closing, 9);
  fillHoles(typed);
  SharedImage filled{std::shared_ptr<Image>(std::move(binary))};
  filled.setMatrix(mask.matrix());
  const std::vector<float> onGrid = sampleOnto(filled, reference, true);
  ImageDescriptor d = reference.descriptor();
  d.pixelType = U8;
  d.channels = 1;
  d.shift = 0.0;
  d.scale = 1.0;
  auto out = TypedImage<unsigned char>::create(d);
  for (size_t i = 0; i < onGrid.size(); ++i) out->pointer()[i] = onGrid[i] >= 0.5f ? 1 : 0;
  auto result = std::make_unique<SharedImage>(std::shared_ptr<Image>(std::move(out)));
  result->setMatrix(reference.matrix());
  result->setModality(Data::LABEL);
  return result;
}

void BrainVesselSegmentationAlgorithm::compute() {
  output_.reset();
  if (!first_ || !second_ || !mask_ || !first_->get(0) || !second_->get(0) || !mask_->get(0)) {
    LOG_ERROR(kCategory, "Input for vessel segmentation not set");
    setStatus(statusIncompleteInput);
    return;
  }
  if (!validateParameters(kCategory)) return;
  const SharedImage& a = *first_->get(0);
  const SharedImage& b = *second_->get(0);
  if (!a.mem() || !b.mem() || a.mem()->dimension() != 3 || b.mem()->dimension() != 3) {
    LOG_ERROR(kCategory, "Both inputs of the vessel segmentation must be volumes in memory.");
    setStatus(statusInvalidInput);
    return;
  }
  try {
    Progress::Task task(progress_, 4, "Computing Vessel Segmentation...");
    auto brain = processBrainMask(*mask_->get(0), a);
    if (secondMask_ && secondMask_->get(0))
      if (auto other = processBrainMask(*secondMask_->get(0), a)) {
        auto* m = static_cast<TypedImage<unsigned char>*>(brain->mem());
        const auto* o = static_cast<const TypedImage<unsigned char>*>(other->mem());
        for (size_t i = 0; i < m->descriptor().pixelCount(); ++i) m->pointer()[i] |= o->pointer()[i];
      }
    if (!brain) {
      LOG_ERROR(kCategory, "The brain mask has no memory image.");
      setStatus(statusInvalidInput);
      return;
    }
    task.incrementStep();
    if (task.wasCanceled()) return setStatus(statusCanceled);

    const std::vector<float> fa = sampleOnto(a, a, false);
    const std::vector<float> fb = sampleOnto(b, a, false);
    std::vector<float> diff(fa.size());
    for (size_t i = 0; i < fa.size(); ++i) {
      // 8 bits, saturated, then read back as a normalised texture does.
      const float v = std::clamp(std::floor(std::max(fa[i] - fb[i], 0.0f)), 0.0f, 255.0f);
      diff[i] = v / 255.0f;
    }
    task.incrementStep();
    if (task.wasCanceled()) return setStatus(statusCanceled);

    const Eigen::Vector3i dims = a.descriptor().dimensions;
    smoothPreservingEdges(diff, dims, 50, 0.5, 0.5);
    task.incrementStep();
    if (task.wasCanceled()) return setStatus(statusCanceled);

    ImageDescriptor d = a.descriptor();
    d.pixelType = F32;
    d.channels = 1;
    d.shift = 0.0;
    d.scale = 1.0;
    TypedImage<float> smoothed(d, diff.data(), MemImage::Ownership::Borrowed);
    auto normalised = ImageProcessing::createFloat(smoothed, static_cast<ImageProcessing::Normalization>(2));
    auto labels = ImageProcessing::createThresholded(*normalised, ImageProcessing::Binary, threshold);
    auto* l = static_cast<TypedImage<unsigned char>*>(labels.get());
    const auto* m = static_cast<const TypedImage<unsigned char>*>(brain->mem());
    for (size_t i = 0; i < l->descriptor().pixelCount(); ++i) l->pointer()[i] &= m->pointer()[i];
    auto frame = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(labels)));
    frame->setMatrix(a.matrix());
    output_ = std::make_unique<SharedImageSet>(frame);
    output_->setModality(Data::LABEL);
    output_->setName("Vessels");
    task.incrementStep();
    setStatus(statusSuccess);
  } catch (const std::exception& e) {
    output_.reset();
    LOG_ERROR(kCategory, "Vessel segmentation failed: " << e.what());
    setStatus(statusError);
  }
}

OwningDataList BrainVesselSegmentationAlgorithm::takeOutput() {
  OwningDataList out;
  if (output_) out.add(std::move(output_));
  return out;
}

}  // namespace Merivane
