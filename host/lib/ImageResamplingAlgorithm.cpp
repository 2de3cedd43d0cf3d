#include "ImageResamplingAlgorithm.h"

#include <Eigen/LU>
#include <cmath>
#include <limits>

#include "ImageProcessing.h"
#include "Interpolation.h"
#include "Log.h"
#include "SharedImageSet.h"

namespace Merivane {

namespace {

constexpr const char* kCategory = "ImageResamplingAlgorithm";

template <typename T>
T toElement(double v) {
  if constexpr (std::is_integral_v<T>) {
    v = std::round(v);
    v = std::clamp(v, static_cast<double>(std::numeric_limits<T>::lowest()),
                   static_cast<double>(std::numeric_limits<T>::max()));
  }
  return static_cast<T>(v);
}

// Voxel index to centred image coordinates and back, as SharedImage maps them.
Eigen::Matrix4d voxelToImage(const Image& image) {
  Eigen::Matrix4d m = Eigen::Matrix4d::Identity();
  for (int k = 0; k < 3; ++k) {
    m(k, k) = image.spacing()[k];
    m(k, 3) = -(image.dimensions()[k] * 0.5 - 0.5) * image.spacing()[k];
  }
  return m;
}

// `frame` sampled on the grid of `reference`.
std::unique_ptr<MemImage> resampleOnto(const SharedImage& frame, const SharedImage& reference, bool nearest) {
  const MemImage& in = *frame.mem();
  const Image& ref = *reference.img();
  ImageDescriptor d = in.descriptor();
  d.dimensions = ref.dimensions();
  d.spacing = ref.spacing();
  auto out = MemImage::create(d, true);
  const Eigen::Matrix4d toInput =
      voxelToImage(in).inverse() * frame.matrix().inverse() * reference.matrix() * voxelToImage(ref);
  const Eigen::Vector3i dims = in.dimensions(), od = d.dimensions;
  const int C = d.channels;
  dispatchPixelType(in.type(), [&](auto tag) {
    using T = decltype(tag);
    const T* src = static_cast<const T*>(in.data());
    T* dst = static_cast<T*>(out->data());
#pragma omp parallel for schedule(static) if (od[2] >= 9)
    for (int z = 0; z < od[2]; ++z)
      for (int y = 0; y < od[1]; ++y)
        for (int x = 0; x < od[0]; ++x) {
          const Eigen::Vector4d p = toInput * Eigen::Vector4d(x, y, z, 1.0);
          bool inside = true;
          for (int k = 0; k < 3; ++k) inside = inside && p[k] > -0.5 && p[k] < dims[k] - 0.5;
          if (!inside) continue;
          const double q[3] = {p[0], p[1], p[2]};
          const Interpolation::Stencil st = Interpolation::stencil(q, dims, nearest);
          T* o = dst + ((static_cast<size_t>(z) * od[1] + y) * od[0] + x) * C;
          for (int c = 0; c < C; ++c)
            o[c] = toElement<T>(Interpolation::interpolate(st, [&](int ix, int iy, int iz) {
              return static_cast<double>(src[((static_cast<size_t>(iz) * dims[1] + iy) * dims[0] + ix) * C + c]);
            }));
        }
  });
  return out;
}

}  // namespace

ImageResamplingAlgorithm::ImageResamplingAlgorithm(SharedImageSet* input, SharedImageSet* reference)
    : input_(input), reference_(reference) {}

ImageResamplingAlgorithm::~ImageResamplingAlgorithm() = default;

bool ImageResamplingAlgorithm::createCompatible(const DataList& data, Algorithm** algorithm) {
  if (data.size() != 1 && data.size() != 2) return false;
  SharedImageSet* sets[2] = {nullptr, nullptr};
  for (int i = 0; i < data.size(); ++i) {
    sets[i] = data[i] ? data[i]->asImageSet() : nullptr;
    if (!sets[i] || sets[i]->empty()) return false;
  }
  if (algorithm) *algorithm = new ImageResamplingAlgorithm(sets[0], sets[1]);
  return true;
}

bool ImageResamplingAlgorithm::setTargetMinSpacing(double spacing) {
  if (reference_ || !std::isfinite(spacing) || spacing <= 0.0) return false;
  targetMinSpacing_ = spacing;
  return true;
}

void ImageResamplingAlgorithm::compute() {
  setStatus(statusUnknown);
  output_.reset();
  if (!validateParameters(kCategory)) return;
  if (!input_ || input_->empty() || (reference_ && (reference_->empty() || !reference_->img(-1)))) {
    LOG_ERROR(kCategory, "No image to resample.");
    setStatus(statusInvalidInput);
    return;
  }
  if (!reference_ && targetMinSpacing_ <= 0.0) {
    LOG_ERROR(kCategory, "Neither a reference image nor a target spacing is set.");
    setStatus(statusIncompleteInput);
    return;
  }
  const bool labels = input_->modality() == Data::LABEL;
  const bool nearest = labels || interpolationMode == 0;
  std::vector<std::shared_ptr<SharedImage>> frames;
  for (int f = 0; f < input_->size(); ++f) {
    const SharedImage* frame = input_->get(f);
    const MemImage* mem = frame ? frame->mem() : nullptr;
    if (!mem || mem->type() == F16) {
      LOG_ERROR(kCategory, "Frame " << f << " has no memory copy of a known pixel type.");
      setStatus(statusInvalidInput);
      return;
    }
    std::unique_ptr<MemImage> out;
    Eigen::Matrix4d matrix = frame->matrix();
    if (reference_) {
      out = resampleOnto(*frame, *reference_->get(-1), nearest);
      matrix = reference_->get(-1)->matrix();
    } else {
      const Eigen::Vector3d spacing = mem->spacing().cwiseMax(Eigen::Vector3d::Constant(targetMinSpacing_));
      out = ImageProcessing::createResampled(*mem, spacing, nearest);
    }
    if (!out) {
      LOG_ERROR(kCategory, "Frame " << f << " could not be resampled.");
      setStatus(statusError);
      return;
    }
    auto shared = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(out)));
    shared->setMatrix(matrix);
    shared->setModality(input_->modality());
    frames.push_back(std::move(shared));
  }
  if (createNewImage) {
    output_ = std::make_unique<SharedImageSet>();
    output_->add(frames);
    output_->setModality(input_->modality());
    output_->setName(input_->name());
  } else {
    for (int f = 0; f < input_->size(); ++f) input_->replace(f, frames[static_cast<size_t>(f)]);
  }
  setStatus(statusSuccess);
}

OwningDataList ImageResamplingAlgorithm::takeOutput() {
  OwningDataList out;
  if (output_) out.add(std::move(output_));
  return out;
}

}  // namespace Merivane
