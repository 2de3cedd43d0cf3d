#include "LabelToMeshAlgorithm.h"

#include <omp.h>

#include <Eigen/Geometry>
#include <Eigen/LU>
#include <algorithm>
#include <array>
#include <limits>
#include <mutex>

#include "LabelDataComponent.h"
#include "Log.h"
#include "MarchingCubes.h"
#include "Mesh.h"
#include "MeshProcessing.h"
#include "Progress.h"
#include "SharedImageSet.h"

namespace Merivane {

namespace {

constexpr const char* kCategory = "Seg.LabelToMeshAlgorithm";

// Box filter of radius r along each axis in turn (running sums). At the image border the box
// is clipped and the mean taken over the voxels it still holds.
void boxFilter(TypedImage<float>& img, int r) {
  const Eigen::Vector3i d = img.dimensions();
  for (int axis = 0; axis < 3; ++axis) {
    const int n = d[axis];
    const long stride = axis == 0 ? 1 : (axis == 1 ? d[0] : static_cast<long>(d[0]) * d[1]);
    const int u = axis == 0 ? 1 : 0, v = axis == 2 ? 1 : 2;
    const int nu = d[u], nv = d[v];
    const long su = u == 0 ? 1 : d[0];
    const long sv = v == 1 ? d[0] : static_cast<long>(d[0]) * d[1];
    float* base = img.pointer();
#pragma omp parallel if (static_cast<long>(nu) * nv * n > (1 << 16))
    {
      std::vector<float> line(static_cast<size_t>(n));
#pragma omp for schedule(static)
      for (int j = 0; j < nv; ++j)
        for (int i = 0; i < nu; ++i) {
          float* p = base + i * su + j * sv;
          for (int k = 0; k < n; ++k) line[k] = p[k * stride];
          // The window [k - r, k + r] within [0, n - 1].
          double sum = 0;
          for (int k = 0; k <= std::min(r, n - 1); ++k) sum += line[k];
          for (int k = 0; k < n; ++k) {
            const int lo = std::max(k - r, 0), hi = std::min(k + r, n - 1);
            p[k * stride] = static_cast<float>(sum / (hi - lo + 1));
            if (k + r + 1 < n) sum += line[k + r + 1];
            if (k - r >= 0) sum -= line[k - r];
          }
        }
    }
  }
}

// A value on the outside of the level, preferably 0, representable in T.
template <typename T>
T outsideValue(float iso, bool above) {
  const double lo = static_cast<double>(std::numeric_limits<T>::lowest()), hi = static_cast<double>(std::numeric_limits<T>::max());
  double v = 0;
  if (above ? v > iso : v < iso) v = above ? std::floor(iso) - 1 : std::ceil(iso) + 1;
  return static_cast<T>(std::clamp(v, lo, hi));
}

// The image grown by one voxel on every side, the ring filled with `ring`.
template <typename T>
std::unique_ptr<TypedImage<T>> padded(const TypedImage<T>& in, T ring) {
  ImageDescriptor d = in.descriptor();
  d.dimensions = in.dimensions() + Eigen::Vector3i::Constant(2);
  d.channels = 1;
  auto out = TypedImage<T>::create(d);
  out->fill(ring);
  const int w = in.width(), h = in.height(), s = in.slices(), c = in.channels();
  for (int z = 0; z < s; ++z)
    for (int y = 0; y < h; ++y) {
      const T* src = in.pointer() + in.index(0, y, z);
      T* dst = out->pointer() + out->index(1, y + 1, z + 1);
      for (int x = 0; x < w; ++x) dst[x] = src[x * c];
    }
  return out;
}

struct LabelBox {
  Eigen::Vector3i lo = Eigen::Vector3i::Constant(std::numeric_limits<int>::max());
  Eigen::Vector3i hi = Eigen::Vector3i::Constant(-1);
  bool present() const { return hi[0] >= 0; }
  void grow(const LabelBox& o) {
    lo = lo.cwiseMin(o.lo);
    hi = hi.cwiseMax(o.hi);
  }
};

// Bounding boxes of every value 1..255 of a one-channel U8 volume.
std::array<LabelBox, 256> labelBoxes(const TypedImage<unsigned char>& img) {
  std::array<LabelBox, 256> boxes;
  const int w = img.width(), h = img.height(), s = img.slices(), c = img.channels();
  std::mutex m;
#pragma omp parallel if (s >= 9)
  {
    std::array<LabelBox, 256> local;
#pragma omp for schedule(static)
    for (int z = 0; z < s; ++z)
      for (int y = 0; y < h; ++y) {
        const unsigned char* row = img.pointer() + img.index(0, y, z);
        for (int x = 0; x < w; ++x) {
          const unsigned char v = row[x * c];
          if (!v) continue;
          LabelBox& b = local[v];
          b.lo = b.lo.cwiseMin(Eigen::Vector3i(x, y, z));
          b.hi = b.hi.cwiseMax(Eigen::Vector3i(x, y, z));
        }
      }
    std::lock_guard<std::mutex> lock(m);
    for (int v = 1; v < 256; ++v)
      if (local[v].present()) boxes[v].grow(local[v]);
  }
  return boxes;
}

// The sub-volume [lo, hi] of channel 0 of `in`, converted by f.
template <typename TOut, typename TIn, typename F>
std::unique_ptr<TypedImage<TOut>> cut(const TypedImage<TIn>& in, const Eigen::Vector3i& lo, const Eigen::Vector3i& hi,
                                      F f) {
  ImageDescriptor d = in.descriptor();
  d.pixelType = Utils::pixelTypeId<TOut>();
  d.dimensions = hi - lo + Eigen::Vector3i::Ones();
  d.channels = 1;
  d.shift = 0;
  d.scale = 1;
  auto out = TypedImage<TOut>::create(d);
  const int c = in.channels();
  TOut* dst = out->pointer();
  for (int z = lo[2]; z <= hi[2]; ++z)
    for (int y = lo[1]; y <= hi[1]; ++y) {
      const TIn* src = in.pointer() + in.index(lo[0], y, z);
      for (int x = 0; x < d.dimensions[0]; ++x) *dst++ = f(src[x * c]);
    }
  return out;
}

}  // namespace

// The shared tail of both modes: `region` is the part of the input starting at voxel `lo`.
struct LabelToMeshRegion {
  static std::unique_ptr<Mesh> extract(const LabelToMeshAlgorithm& a, const SharedImage& frame, const MemImage& region,
                                       Eigen::Vector3i lo, float iso, const TypedImage<unsigned char>* mask) {
    const bool above = a.thresholdAbove;
    const MemImage* work = &region;
    std::unique_ptr<MemImage> smoothed, pad;
    std::unique_ptr<TypedImage<unsigned char>> padMask;
    if (a.smoothing > 0) {
      const int k = 2 * a.smoothing + 1;
      LOG_DEBUG(kCategory, "Smoothing with a kernel size of " << k);
      ImageDescriptor d = region.descriptor();
      d.pixelType = F32;
      d.channels = 1;
      auto f = TypedImage<float>::create(d);
      dispatchPixelType(region.type(), [&](auto tag) {
        using T = decltype(tag);
        const auto& t = static_cast<const TypedImage<T>&>(region);
        for (size_t i = 0; i < region.descriptor().pixelCount(); ++i)
          f->pointer()[i] = static_cast<float>(t.pointer()[i * region.channels()]);
      });
      boxFilter(*f, a.smoothing);
      smoothed = std::move(f);
      work = smoothed.get();
    }
    if (a.closeHoles) {
      LOG_DEBUG(kCategory, "Closing holes at image boundaries.");
      dispatchPixelType(work->type(), [&](auto tag) {
        using T = decltype(tag);
        pad = padded(static_cast<const TypedImage<T>&>(*work), outsideValue<T>(iso, above));
      });
      if (mask) padMask = padded(*mask, static_cast<unsigned char>(0));
      work = pad.get();
      mask = padMask.get();
      lo -= Eigen::Vector3i::Ones();
    }
    auto mesh = MarchingCubes::computeIsosurface(work, mask, iso, above, lo);
    if (!mesh) return nullptr;

    // Centred pixel space of the whole frame, then the frame's matrix.
    const Eigen::Vector3d centre = frame.descriptor().dimensions.cast<double>() * 0.5 - Eigen::Vector3d::Constant(0.5);
    const Eigen::Vector3d spacing = frame.descriptor().spacing;
    const Eigen::Matrix4d m = frame.matrix();
    const Eigen::Vector3d offset = -centre;
    for (auto& v : mesh->vertices) {
      const Eigen::Vector3d p = (v.cast<double>() + offset).cwiseProduct(spacing);
      v = (m.topLeftCorner<3, 3>() * p + m.topRightCorner<3, 1>()).cast<float>();
    }
    // A mirroring matrix or spacing turns the winding inside out: turn it back.
    if (m.topLeftCorner<3, 3>().determinant() * spacing.prod() < 0)
      for (auto& f : mesh->faces) std::swap(f[1], f[2]);
    MeshProcessing::computeVertexNormals(*mesh);
    return mesh;
  }
};

LabelToMeshAlgorithm::LabelToMeshAlgorithm(const SharedImageSet* image, const SharedImageSet* mask)
    : image_(image), mask_(mask) {
  closeHoles.setLabel("Close Mesh Holes at Image Boundaries");
  if (image_ && image_->modality() == Data::LABEL) labelMapMode = true;
}

LabelToMeshAlgorithm::~LabelToMeshAlgorithm() = default;

bool LabelToMeshAlgorithm::createCompatible(const DataList& data, Algorithm** algorithm) {
  if (data.size() != 1) return false;
  SharedImageSet* set = data.getImage(Data::kindVolume);
  if (!set || set->empty()) return false;
  if (algorithm) *algorithm = new LabelToMeshAlgorithm(set, nullptr);
  return true;
}

void LabelToMeshAlgorithm::configuration(Properties* properties) const {
  if (!properties) return;
  labelMapMode.configuration(properties);
  isoValue.configuration(properties);
  thresholdAbove.configuration(properties);
  targetLabels.configuration(properties);
}

std::unique_ptr<Mesh> LabelToMeshAlgorithm::extractMesh(const MemImage* image, float iso,
                                                        const TypedImage<unsigned char>* mask) const {
  if (!image || !image_ || !image_->get()) return nullptr;
  return LabelToMeshRegion::extract(*this, *image_->get(), *image, Eigen::Vector3i::Zero(), iso, mask);
}

void LabelToMeshAlgorithm::compute() {
  meshes_.clear();
  setStatus(statusError);
  if (!validateParameters(kCategory)) return;
  const SharedImage* frame = image_ ? image_->get() : nullptr;
  const MemImage* mem = frame ? frame->mem() : nullptr;
  if (!mem || mem->dimension() != 3) {
    LOG_ERROR(kCategory, "The input is not a volume.");
    setStatus(statusInvalidInput);
    return;
  }
  const TypedImage<unsigned char>* mask = nullptr;
  if (mask_) {
    const MemImage* m = mask_->get() ? mask_->get()->mem() : nullptr;
    mask = dynamic_cast<const TypedImage<unsigned char>*>(m);
    if (!mask || mask->dimensions() != mem->dimensions()) {
      LOG_ERROR(kCategory, "Mask supplied is not unsigned char or its dimensions are different from the label map.");
      setStatus(statusInvalidInput);
      return;
    }
  }
  const double shift = mem->shift(), scale = mem->scale();
  const auto* labelData = image_->components().get<LabelDataComponent>();
  Progress::Task task(progress_, 100, "Computing...");

  try {
    if (!labelMapMode) {
      const float level = static_cast<float>((isoValue + shift) * scale);
      auto mesh = extractMesh(mem, level, mask);
      if (!mesh) {
        LOG_ERROR(kCategory, "Could not extract mesh.");
        return;
      }
      mesh->setName(image_->name() + " Mesh");
      meshes_.push_back(std::move(mesh));
      setStatus(statusSuccess);
      return;
    }

    const auto* labels = dynamic_cast<const TypedImage<unsigned char>*>(mem);
    if (image_->modality() != Data::LABEL || !labels) {
      LOG_ERROR(kCategory, "Label Map Mode is not available for this input");
      setStatus(statusInvalidInput);
      return;
    }
    if (shift != 0 || scale != 1)
      LOG_WARN(kCategory, "Algorithm works in label map mode but input image has non-identity shift/scale which will "
                          "not be considered.");

    const auto boxes = labelBoxes(*labels);
    std::vector<int> values;
    for (int v = 1; v < 256; ++v) {
      if (!boxes[v].present()) continue;
      const auto& wanted = targetLabels.value();
      if (!wanted.empty() && std::find(wanted.begin(), wanted.end(), static_cast<unsigned char>(v)) == wanted.end())
        continue;
      values.push_back(v);
    }
    const int n = static_cast<int>(values.size());
    std::vector<std::unique_ptr<Mesh>> slots(static_cast<size_t>(n));
    std::mutex progressMutex;
    int done = 0;
    // The box filter reads r voxels beyond a voxel that the surface may cross, and those are
    // within r of the label: a margin of 2 r + 1 keeps the crop's clipped edges out of reach.
    const int margin = 2 * smoothing + 1;
    const Eigen::Vector3i last = mem->dimensions() - Eigen::Vector3i::Ones();
    // One label per iteration; a single label leaves the threads to marching cubes instead.
#pragma omp parallel for schedule(dynamic, 1) if (n > 1)
    for (int i = 0; i < n; ++i) {
      if (task.wasCanceled()) continue;
      const int label = values[i];
      try {
        const Eigen::Vector3i lo = (boxes[label].lo - Eigen::Vector3i::Constant(margin)).cwiseMax(0);
        const Eigen::Vector3i hi = (boxes[label].hi + Eigen::Vector3i::Constant(margin)).cwiseMin(last);
        const unsigned char l = static_cast<unsigned char>(label);
        auto binary = cut<unsigned char>(*labels, lo, hi, [l](unsigned char v) -> unsigned char { return v == l; });
        std::unique_ptr<TypedImage<unsigned char>> maskCut;
        if (mask) maskCut = cut<unsigned char>(*mask, lo, hi, [](unsigned char v) { return v; });
        auto mesh = LabelToMeshRegion::extract(*this, *frame, *binary, lo, 0.5f, maskCut.get());
        if (!mesh) {
          LOG_ERROR(kCategory, "Could not extract mesh for label " << label << ".");
        } else {
          std::string name = "Mesh " + std::to_string(label);
          if (labelData)
            if (auto cfg = labelData->labelConfig(label); cfg && !cfg->name.empty()) name = cfg->name;
          mesh->setName(name);
          slots[i] = std::move(mesh);
        }
      } catch (const std::exception& e) {
        LOG_ERROR(kCategory, "Could not extract mesh for label " << label << ": " << e.what());
      }
      std::lock_guard<std::mutex> lock(progressMutex);
      ++done;
      task.setNumSteps(n);
      task.setCurrentStep(done);
    }
    if (task.wasCanceled()) {
      setStatus(statusCanceled);
      return;
    }
    for (auto& m : slots)
      if (m) meshes_.push_back(std::move(m));
    setStatus(statusSuccess);
  } catch (const std::exception& e) {
    meshes_.clear();
    LOG_ERROR(kCategory, "Mesh extraction failed: " << e.what());
    setStatus(statusError);
  }
}

OwningDataList LabelToMeshAlgorithm::takeOutput() {
  OwningDataList out;
  for (auto& m : meshes_) out.add(std::move(m));
  meshes_.clear();
  return out;
}

}  // namespace Merivane
