#include "SkinSegmentationAlgorithm.h"

#include <algorithm>
#include <cmath>
#include <exception>

#include "ConnectedComponentsAlgorithm.h"
#include "ImageResamplingAlgorithm.h"
#include "LabelBounds.h"
#include "LabelDataComponent.h"
#include "Log.h"
#include "MorphologicalOperationsAlgorithm.h"
#include "PointCloud.h"
#include "SharedImageSet.h"

namespace Merivane {

namespace {

constexpr const char* kCategory = "Seg.SkinSegmentationAlgorithm";

// Mean of every stored value (all channels) of an 8- or 16-bit image; 30 for other types.
double meanStoredValue(const MemImage& mem) {
  double mean = 30.0;
  const long n = static_cast<long>(mem.descriptor().elementCount());
  if (n == 0) return mean;
  auto sum = [&](auto* p) {
    double s = 0.0;
#pragma omp parallel for schedule(static) reduction(+ : s) if (n > (1 << 16))
    for (long i = 0; i < n; ++i) s += p[i];
    return s;
  };
  if (mem.type() == U8) mean = sum(static_cast<const unsigned char*>(mem.data())) / static_cast<double>(n);
  if (mem.type() == U16) mean = sum(static_cast<const unsigned short*>(mem.data())) / static_cast<double>(n);
  return mean;
}

// A set of one frame holding `image` with `matrix`.
std::unique_ptr<SharedImageSet> wrap(std::unique_ptr<MemImage> image, const Eigen::Matrix4d& matrix) {
  auto frame = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(image)));
  frame->setMatrix(matrix);
  return std::make_unique<SharedImageSet>(frame);
}

// Runs `algorithm` and hands back its first output set; null (with the reason logged) when it
// fails or gives none.
std::unique_ptr<SharedImageSet> firstOutput(Algorithm& algorithm, const char* what) {
  algorithm.compute();
  if (algorithm.status() != Algorithm::statusSuccess) {
    LOG_ERROR(kCategory, what << " failed with status " << algorithm.status() << ".");
    return nullptr;
  }
  std::vector<std::unique_ptr<Data>> items = algorithm.takeOutput().release();
  if (items.empty() || !items.front() || !items.front()->asImageSet()) {
    LOG_ERROR(kCategory, what << " gave no image.");
    return nullptr;
  }
  return std::unique_ptr<SharedImageSet>(static_cast<SharedImageSet*>(items.front().release()));
}

// Sets `labels` to 1 wherever `components` carries a value flagged in `fill`.
void fillComponents(MemImage& labels, const MemImage& components, const std::vector<char>& fill) {
  auto* out = static_cast<unsigned char*>(labels.data());
  const long n = static_cast<long>(labels.descriptor().pixelCount());
  dispatchPixelType(components.type(), [&](auto tag) {
    using T = decltype(tag);
    if constexpr (std::is_integral_v<T>) {
      const T* c = static_cast<const T*>(components.data());
#pragma omp parallel for schedule(static) if (n > (1 << 16))
      for (long i = 0; i < n; ++i) {
        const size_t v = static_cast<size_t>(c[i]);
        if (v < fill.size() && fill[v]) out[i] = 1;
      }
    }
  });
}

}  // namespace

SkinSegmentationAlgorithm::SkinSegmentationAlgorithm(SharedImageSet* image) : image_(image) {}
SkinSegmentationAlgorithm::~SkinSegmentationAlgorithm() = default;

bool SkinSegmentationAlgorithm::createCompatible(const DataList& data, Algorithm** algorithm) {
  if (data.size() != 1) return false;
  SharedImageSet* set = data.getImage(Data::kindVolume, Data::modalityAny);
  if (!set || (set->modality() != Data::CT && set->modality() != Data::MRI)) return false;
  if (algorithm) *algorithm = new SkinSegmentationAlgorithm(set);
  return true;
}

void SkinSegmentationAlgorithm::compute() {
  setStatus(statusError);
  pointCloud_.reset();
  labels_.reset();
  if (!validateParameters(kCategory)) return;
  const MemImage* mem = image_ ? image_->mem(-1) : nullptr;
  if (!mem || mem->type() == F16 || mem->descriptor().pixelCount() == 0) {
    LOG_ERROR(kCategory, "The input has no image in memory to segment.");
    setStatus(statusInvalidInput);
    return;
  }
  try {
    if (run()) {
      setStatus(statusSuccess);
      return;
    }
  } catch (const std::exception& e) {
    LOG_ERROR(kCategory, "Skin segmentation failed: " << e.what());
  }
  labels_.reset();
  pointCloud_.reset();
  setStatus(statusError);
}

bool SkinSegmentationAlgorithm::run() {
  const MemImage& input = *image_->mem(-1);

  if (threshold->has_value())
    usedThreshold_ = *threshold.value();
  else if (image_->modality() == Data::CT)
    usedThreshold_ = -400.0;
  else
    usedThreshold_ = (2.0 * meanStoredValue(input) / 3.0) / input.scale() - input.shift();

  // The working set: the input itself, or a padded copy of every frame.
  std::unique_ptr<SharedImageSet> ownedWorking;
  SharedImageSet* working = image_;
  if (padding) {
    ownedWorking = std::make_unique<SharedImageSet>();
    for (int f = 0; f < image_->size(); ++f) {
      const MemImage* frame = image_->mem(f);
      if (!frame) {
        LOG_ERROR(kCategory, "Frame " << f << " has no image in memory.");
        return false;
      }
      const Eigen::Vector3i p(paddingSize, paddingSize, frame->slices() >= 2 ? paddingSize.value() : 0);
      auto padded = ImageProcessing::createPadded(*frame, paddingMode, p, p);
      if (!padded) {
        LOG_ERROR(kCategory, "Frame " << f << " could not be padded.");
        return false;
      }
      auto shared = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(padded)));
      shared->setMatrix(image_->get(f)->matrix());  // padding is symmetric: the centre stays
      ownedWorking->add(shared);
    }
    ownedWorking->setModality(image_->modality());
    ownedWorking->selection().setFocus(image_->resolve(-1));
    working = ownedWorking.get();
  }

  const bool resample = resampleSpacing > 0.0;
  if (resample) {
    ImageResamplingAlgorithm resampling(working);
    if (resampling.setTargetMinSpacing(resampleSpacing)) {
      auto resampled = firstOutput(resampling, "Resampling");
      if (!resampled) return false;
      ownedWorking = std::move(resampled);
      working = ownedWorking.get();
    }
  }

  const Eigen::Matrix4d workingMatrix = working->matrix();
  auto binary = ImageProcessing::createThresholded(*working->mem(-1), ImageProcessing::BinaryOriginal, usedThreshold_);
  if (!binary) {
    LOG_ERROR(kCategory, "The image could not be thresholded.");
    return false;
  }
  auto binarySet = wrap(std::move(binary), workingMatrix);
  {
    ConnectedComponentsAlgorithm largest(binarySet.get());
    largest.setNumComponents(1);
    largest.setLabelComponents(true);
    labels_ = firstOutput(largest, "Connected components");
  }
  if (!labels_) return false;
  labels_->setMatrix(workingMatrix);
  MemImage& labelImage = *labels_->mem(0);
  {
    const auto* l = static_cast<const unsigned char*>(labelImage.data());
    const size_t n = labelImage.descriptor().pixelCount();
    if (labelImage.type() != U8 || std::none_of(l, l + n, [](unsigned char v) { return v != 0; })) {
      LOG_ERROR(kCategory, "No voxel lies at or above the threshold " << usedThreshold_ << ".");
      return false;
    }
  }
  binarySet.reset();

  if (closingKernelSize > 0) {
    MorphologicalOperationsAlgorithm closing(labels_.get());
    closing.setOpMode(Morphology::Closing);
    closing.setOpSize(closingKernelSize);
    closing.setInPlace(true);
    closing.compute();
    if (closing.status() != statusSuccess) {
      LOG_ERROR(kCategory, "The closing failed with status " << closing.status() << ".");
      return false;
    }
  }

  // Holes: components of the background whose box reaches no side of the image, where the
  // two faces across the stacking axis do not count as sides.
  {
    auto background = labelImage.clone();
    ImageProcessing::computeInverted(*background);
    auto backgroundSet = wrap(std::move(background), workingMatrix);
    ConnectedComponentsAlgorithm all(backgroundSet.get());
    all.setNumComponents(0);
    all.setLabelComponents(true);
    auto components = firstOutput(all, "Labelling the background");
    if (!components) return false;
    const auto bounds = LabelStatistics::computeBounds(*components);
    int stackAxis = 0;
    workingMatrix.block<3, 1>(0, 2).cwiseAbs().maxCoeff(&stackAxis);
    const Eigen::Vector3i dims = labelImage.dimensions();
    std::vector<char> hole(bounds.size(), 0);
    for (size_t v = 1; v < bounds.size(); ++v) {
      if (!bounds[v].count) continue;
      bool outside = false;
      for (int k = 0; k < 3; ++k)
        if (k != stackAxis && (bounds[v].min[k] == 0 || bounds[v].max[k] == dims[k] - 1)) outside = true;
      hole[v] = !outside;
    }
    fillComponents(labelImage, *components->mem(0), hole);
    labels_->get(0)->setDirtyMem();
  }

  if (resample && working != image_ && !labels_->mem(0)->compatible(input, true, true)) {
    ImageResamplingAlgorithm back(labels_.get(), image_);
    auto onInput = firstOutput(back, "Resampling the label map to the input");
    if (!onInput) return false;
    labels_ = std::move(onInput);
  }

  if (mattingKernelSize > 0)
    LOG_INFO(kCategory, "Image matting is not available here; the skin label map stays binary.");

  if (padding) {
    // Back to the input's size, unless resampling has already put the labels on its grid.
    for (int f = 0; f < labels_->size(); ++f) {
      const MemImage* frame = labels_->mem(f);
      const Eigen::Vector3i size = input.dimensions();
      if (frame->dimensions() == size) continue;
      const Eigen::Vector3i offset = (frame->dimensions() - size) / 2;
      auto cropped = ImageProcessing::createCropped(*frame, offset, size);
      if (!cropped) {
        LOG_ERROR(kCategory, "The label map could not be cropped back to the input's size.");
        return false;
      }
      auto shared = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(cropped)));
      shared->setMatrix(labels_->get(f)->matrix());
      shared->setModality(Data::LABEL);
      labels_->replace(f, shared);
    }
  }
  labels_->setModality(Data::LABEL);
  labels_->setName("Skin");
  auto* labelData = labels_->components().getOrCreate<LabelDataComponent>(labels_.get());
  labelData->setLabelName(1, "Skin");
  labelData->setLabelColor(1, Eigen::Vector4d(1.0, 0.7, 0.5, 1.0));

  if (applySubvoxelRefinement) refineSubvoxel();
  return true;
}

void SkinSegmentationAlgorithm::refineSubvoxel() {
  if (!labels_ || !labels_->mem(-1)) return;
  const MemImage& labels = *labels_->mem(-1);
  const Eigen::Vector3i two = Eigen::Vector3i::Constant(2);
  auto padded = ImageProcessing::createPadded(labels, ImageProcessing::Extend, two, two);
  if (!padded) return;
  padded->setSpacing(labels.spacing());
  auto values = ImageProcessing::createFloat(*padded, ImageProcessing::Original);
  auto gradient = ImageProcessing::computeGradient3D(*values);
  if (gradient.size() != 3) return;
  ImageDescriptor d = gradient[0]->descriptor();
  auto magnitude = MemImage::create(d, false);
  float* m = static_cast<float*>(magnitude->data());
  const float* gx = static_cast<const float*>(gradient[0]->data());
  const float* gy = static_cast<const float*>(gradient[1]->data());
  const float* gz = static_cast<const float*>(gradient[2]->data());
  const long n = static_cast<long>(d.pixelCount());
#pragma omp parallel for schedule(static)
  for (long i = 0; i < n; ++i) m[i] = std::sqrt(gx[i] * gx[i] + gy[i] * gy[i] + gz[i] * gz[i]);

  const auto edges = ImageProcessing::computeSubpixelEdgeLocationAndOrientation3D(
      *magnitude, *gradient[0], *gradient[1], *gradient[2], subvoxelRefinementContrast);
  const Eigen::Vector3d size = d.dimensions.cast<double>(), spacing = labels.spacing();
  std::vector<Eigen::Vector3d> points, normals;
  points.reserve(edges.size());
  normals.reserve(edges.size());
  for (const auto& e : edges) {
    points.push_back((e.position - size * 0.5 + Eigen::Vector3d::Constant(0.5)).cwiseProduct(spacing));
    normals.push_back(e.normal);
  }
  pointCloud_ = std::make_unique<PointCloud>(std::move(points), std::move(normals), "Subvoxel Segmentation");
  pointCloud_->setMatrix(image_->get(-1)->matrix());
}

OwningDataList SkinSegmentationAlgorithm::takeOutput() {
  OwningDataList out;
  if (labels_) out.add(std::move(labels_));
  if (pointCloud_) out.add(std::move(pointCloud_));
  return out;
}

}  // namespace Merivane
