#include "MorphologicalInterpolationAlgorithm.h"

#include <Eigen/Geometry>
#include <exception>

#include "ImageResamplingAlgorithm.h"
#include "Log.h"
#include "MorphologicalInterpolation.h"
#include "SharedImageSet.h"

namespace Merivane {

namespace {
constexpr const char* kCategory = "Seg.MorphologicalInterpolationAlgorithm";

using Seg::BinaryMask;

// The mask of a one-channel U8 frame of depth 1 holding only 0 and 1, with at least one 1.
bool toMask(const SharedImage& frame, BinaryMask& mask) {
  const ImageDescriptor& d = frame.descriptor();
  if (d.pixelType != U8 || d.channels != 1 || d.dimensions[2] != 1) return false;
  const MemImage* mem = frame.mem();
  if (!mem) return false;
  mask = BinaryMask(d.dimensions[0], d.dimensions[1]);
  const auto* p = static_cast<const uint8_t*>(mem->data());
  bool any = false;
  for (size_t i = 0; i < mask.pixels.size(); ++i) {
    if (p[i] > 1) return false;
    mask.pixels[i] = p[i];
    any = any || p[i] == 1;
  }
  return any;
}

std::shared_ptr<SharedImage> toFrame(const BinaryMask& mask, const SharedImage& like) {
  ImageDescriptor d(U8, Eigen::Vector3i(mask.width, mask.height, 1), 1);
  d.spacing = like.descriptor().spacing;
  auto img = TypedImage<uint8_t>::create(d);
  std::copy(mask.pixels.begin(), mask.pixels.end(), img->pointer());
  auto frame = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(img)));
  frame->setMatrix(like.matrix());
  return frame;
}

std::unique_ptr<SharedImageSet> toSet(const std::vector<BinaryMask>& masks, const SharedImage& like,
                                      const std::string& name) {
  auto set = std::make_unique<SharedImageSet>();
  for (const BinaryMask& m : masks) set->add(toFrame(m, like));
  set->setModality(Data::LABEL);
  set->setName(name);
  return set;
}

bool isMaskSet(const SharedImageSet* s) {
  return s && s->modality() == Data::LABEL && s->size() == 1 && s->img(0)->dimensions()[2] == 1;
}
}  // namespace

MorphologicalInterpolationAlgorithm::MorphologicalInterpolationAlgorithm(SharedImageSet* first, SharedImageSet* second)
    : first_(first), second_(second) {
  numInterpolations.setLabel("Number of Interpolations");
  morphoKernelSize.setLabel("Kernel Size");
  outputDebug.setLabel("Output Debug");
}

MorphologicalInterpolationAlgorithm::~MorphologicalInterpolationAlgorithm() = default;

bool MorphologicalInterpolationAlgorithm::createCompatible(const DataList& data, Algorithm** algorithm) {
  if (data.size() != 2) return false;
  auto images = data.getImages();
  if (images.size() != 2 || !isMaskSet(images[0]) || !isMaskSet(images[1])) return false;
  if (algorithm) *algorithm = new MorphologicalInterpolationAlgorithm(images[0], images[1]);
  return true;
}

std::shared_ptr<SharedImage> MorphologicalInterpolationAlgorithm::applyDisplacement(std::shared_ptr<SharedImage> image,
                                                                                    Vec3d displacement,
                                                                                    SharedImageSet* reference) {
  if (!image || !reference || reference->empty()) return nullptr;
  // The grid is taken before the matrix changes, since the reference may hold the image itself.
  SharedImageSet grid(std::shared_ptr<SharedImage>(reference->get(-1)->clone()));
  const Eigen::Matrix4d original = image->matrix();
  // Sampling the translated image at a reference point p reads the original at p + displacement.
  Eigen::Matrix4d translation = Eigen::Matrix4d::Identity();
  translation.block<3, 1>(0, 3) = -displacement;
  image->setMatrix(original * translation);
  SharedImageSet moving(image);
  moving.setModality(Data::LABEL);
  ImageResamplingAlgorithm resampling(&moving, &grid);
  resampling.interpolationMode = 0;
  resampling.compute();
  image->setMatrix(original);
  auto out = resampling.takeOutput().extractFirstImage();
  if (resampling.status() != statusSuccess || !out || out->empty()) return nullptr;
  auto frame = out->getShared(0);
  frame->setMatrix(original);
  return frame;
}

MorphologicalInterpolationAlgorithm::InitialIntersection MorphologicalInterpolationAlgorithm::computeInitialIntersection(
    const SharedImage& first, const SharedImage& second) const {
  InitialIntersection result;
  result.displacement = Vec3d::Zero();
  BinaryMask m1, m2;
  Seg::MorphInterpolation::Centre c1, c2;
  if (!toMask(first, m1) || !toMask(second, m2) || m1.width != m2.width || m1.height != m2.height) return result;
  Seg::MorphInterpolation::centreOfMass(m1, c1);
  Seg::MorphInterpolation::centreOfMass(m2, c2);
  const Eigen::Vector3d spacing = first.descriptor().spacing;
  result.displacement = Vec3d((c2.x - c1.x) * spacing[0], (c2.y - c1.y) * spacing[1], 0.0);
  LOG_DEBUG(kCategory, "Initial displacement: " << result.displacement.transpose());
  auto firstCopy = std::shared_ptr<SharedImage>(first.clone());
  SharedImageSet reference(firstCopy);
  result.first = applyDisplacement(firstCopy, -0.5 * result.displacement, &reference);
  result.second = applyDisplacement(std::shared_ptr<SharedImage>(second.clone()), 0.5 * result.displacement, &reference);
  if (!result.first || !result.second) {
    result.first.reset();
    result.second.reset();
    return result;
  }
  result.intersection = std::shared_ptr<SharedImage>(result.first->clone());
  auto* a = static_cast<uint8_t*>(result.intersection->mem()->data());
  const auto* b = static_cast<const uint8_t*>(result.second->mem()->data());
  for (size_t i = 0; i < result.intersection->descriptor().pixelCount(); ++i) a[i] = (a[i] && b[i]) ? 1 : 0;
  result.intersection->setDirtyMem();
  return result;
}

std::unique_ptr<SharedImageSet> MorphologicalInterpolationAlgorithm::interpolate(const SharedImage& first,
                                                                                 const SharedImage& second) {
  BinaryMask m1, m2;
  if (!toMask(first, m1) || !toMask(second, m2) || m1.width != m2.width || m1.height != m2.height) return nullptr;
  Seg::MorphInterpolation::Trace trace;
  const bool debug = outputDebug;
  auto shapes = Seg::MorphInterpolation::interpolate(m1, m2, numInterpolations, morphoKernelSize,
                                                     debug ? &trace : nullptr);
  if (shapes.empty()) return nullptr;
  if (debug) {
    output_.add(toSet({trace.intersection}, first, "Intersection"));
    output_.add(toSet(trace.towardsFirst, first, "Sequence Inter->1"));
    output_.add(toSet(trace.towardsSecond, first, "Sequence Inter->2"));
    output_.add(toSet(trace.firstToSecond, first, "Sequence 1->2"));
  }
  return toSet(shapes, first, "Interpolated");
}

void MorphologicalInterpolationAlgorithm::compute() {
  output_ = OwningDataList();
  if (numInterpolations < 1) return;
  if (!validateParameters(kCategory)) return;
  try {
    if (!isMaskSet(first_) || !isMaskSet(second_)) {
      LOG_ERROR(kCategory, "The input must be two label maps of one 2D image each");
      setStatus(statusInvalidInput);
      return;
    }
    const SharedImage& a = *first_->get(0);
    const SharedImage& b = *second_->get(0);
    if (a.descriptor().dimensions != b.descriptor().dimensions) {
      LOG_ERROR(kCategory, "The input label maps must have the same dimensions");
      setStatus(statusInvalidInput);
      return;
    }
    BinaryMask m;
    if (!toMask(a, m) || !toMask(b, m)) {
      LOG_ERROR(kCategory, "The input label maps must be binary and not empty");
      setStatus(statusInvalidInput);
      return;
    }
    auto result = interpolate(a, b);
    if (!result) {
      output_ = OwningDataList();
      LOG_ERROR(kCategory, "Interpolation produced no shapes");
      setStatus(statusError);
      return;
    }
    output_.add(std::move(result));
    setStatus(statusSuccess);
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& e) {
    output_ = OwningDataList();
    LOG_ERROR(kCategory, "Interpolation failed: " << e.what());
    setStatus(statusError);
  }
}

OwningDataList MorphologicalInterpolationAlgorithm::takeOutput() { return std::move(output_); }

}  // namespace Merivane
