#include "InteractiveSegmentationAlgorithm.h"

#include <Eigen/Geometry>
#include <Eigen/LU>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>

#include "FactoryRegistry.h"
#include "GraphLaplacianAlgorithm.h"
#include "ImageProcessing.h"
#include "LabelMap.h"
#include "LabelingAlgorithm.h"
#include "Log.h"
#include "Mesh.h"
#include "MeshProcessing.h"
#include "MeshSeeds.h"
#include "SeedSteps.h"
#include "SegmentationSteps.h"
#include "SharedImageSet.h"
#include "Spline.h"

namespace Merivane {

namespace {

constexpr const char* kCategory = "Seg.InteractiveSegmentationAlgorithm";

struct SeedScan {
  bool free = false, object = false, background = false;
};

SeedScan scanSeeds(const TypedImage<unsigned char>& labels, int L) {
  SeedScan s;
  const unsigned char* l = labels.pointer();
  const size_t n = labels.descriptor().pixelCount();
  for (size_t i = 0; i < n && !(s.free && s.object && s.background); ++i) {
    s.free |= l[i] == 0;
    s.object |= l[i] == L;
    s.background |= l[i] == L + 1;
  }
  return s;
}

TypedImage<unsigned char>* u8Frame(SharedImage* frame) {
  auto* typed = frame ? dynamic_cast<TypedImage<unsigned char>*>(frame->mem()) : nullptr;
  return typed && typed->channels() == 1 ? typed : nullptr;
}

std::string dimsText(const Eigen::Vector3i& d) {
  return std::to_string(d[0]) + " x " + std::to_string(d[1]) + " x " + std::to_string(d[2]);
}

// Non-zero voxels of channel 0 of any image, as a 0/1 map with its spacing.
std::unique_ptr<TypedImage<unsigned char>> nonZeroMask(const MemImage& image) {
  auto out = TypedImage<unsigned char>::zeros(image.dimensions(), 1);
  out->setSpacing(image.spacing(), image.isMetric());
  unsigned char* o = out->pointer();
  const size_t n = image.descriptor().pixelCount();
  const size_t c = static_cast<size_t>(image.channels());
  dispatchPixelType(image.type(), [&](auto tag) {
    using T = decltype(tag);
    const T* p = static_cast<const T*>(image.data());
    for (size_t i = 0; i < n; ++i) o[i] = p[i * c] != T(0);
  });
  return out;
}

}  // namespace

InteractiveSegmentationAlgorithm::InteractiveSegmentationAlgorithm(SharedImageSet& image, SharedImageSet* labels,
                                                                   SharedImageSet* priors)
    : GraphBasedSegmentation(&image, labels, priors),
      labelsGiven_(labels != nullptr),
      labeling_(std::make_unique<LabelingAlgorithm>(&image, labels)) {
  verbose = false;
  prepareForComputation();
}

InteractiveSegmentationAlgorithm::~InteractiveSegmentationAlgorithm() = default;

bool InteractiveSegmentationAlgorithm::compatibleInputs(const DataList& data, SharedImageSet*& image,
                                                        SharedImageSet*& labels) {
  const auto sets = data.getImages();
  if (data.size() < 1 || data.size() > 2 || static_cast<int>(sets.size()) != data.size()) return false;
  image = sets[0];
  labels = sets.size() == 2 ? sets[1] : nullptr;
  if (image->empty()) return false;
  if (!labels) return true;
  if (labels->size() != image->size()) return false;
  for (int i = 0; i < image->size(); ++i) {
    const Image* a = image->img(i);
    const Image* b = labels->img(i);
    if (!a || !b || b->channels() != 1 || b->type() != U8 || !a->compatible(*b, true, false, true)) return false;
  }
  return true;
}

bool InteractiveSegmentationAlgorithm::createCompatible(const DataList& data, Algorithm** algorithm) {
  SharedImageSet *image = nullptr, *labels = nullptr;
  if (!compatibleInputs(data, image, labels)) return false;
  if (algorithm) *algorithm = new InteractiveSegmentationAlgorithm(*image, labels, nullptr);
  return true;
}

void InteractiveSegmentationAlgorithm::setLabels(SharedImageSet* labels) {
  if (labels == labels_) return;
  labels_ = labels;
  labeling_->setLabelMap(labels);
  // Boxes, working copies and results belong to the old label map.
  algorithm_.reset();
  workingImage_.reset();
  workingLabels_.reset();
  workingPrior_.reset();
  probability_.reset();
  outputLabels_.reset();
  cropOffset_.setZero();
  cropSize_.setZero();
  if (ownedLabels_ && ownedLabels_.get() != labels) ownedLabels_.reset();
}

SharedImageSet* InteractiveSegmentationAlgorithm::createLabels() {
  auto created = Seg::createCompatibleLabelMap(*images_);
  if (!created) return nullptr;
  created->selection().setFocus(images_->selection().focus());
  SharedImageSet* raw = created.get();
  setLabels(raw);
  ownedLabels_ = std::move(created);
  return raw;
}

void InteractiveSegmentationAlgorithm::prepareForComputation() {
  if (images_ && labels_) {
    const int i = focus();
    // The memory copies are what the preparation reads; painting may have left the textures newer.
    if (SharedImage* f = images_->get(i)) f->mem();
    auto* lab = u8Frame(labels_->get(i));
    // Without a seed the preparation changes nothing, so an inner algorithm of earlier seeds would
    // outlive them.
    if (lab && !outputLabels_) {
      const SeedScan s = scanSeeds(*lab, objectLabel());
      if (!s.object && !s.background) algorithm_.reset();
    }
  }
  GraphBasedSegmentation::prepareForComputation();
  if (algorithm_) algorithm_->setKeepResultForWarmStart(true);
  // Seeds that make no crop (no background yet, or all in one line) leave the working copies
  // at full size and the stored box as it was, possibly empty; the result covers the whole
  // map, so its mapping, outline and accept must too.
  SharedImage* labelFrame = labels_ ? labels_->get(focus()) : nullptr;
  if (workingLabels_ && labelFrame && workingLabels_->descriptor().dimensions == labelFrame->descriptor().dimensions) {
    cropOffset_.setZero();
    cropSize_ = labelFrame->descriptor().dimensions;
  }
}

bool InteractiveSegmentationAlgorithm::checkInputs(int i) {
  SharedImage* imageFrame = images_ ? images_->get(i) : nullptr;
  SharedImage* labelFrame = labels_ ? labels_->get(i) : nullptr;
  if (!imageFrame || !labelFrame || !imageFrame->mem()) {
    LOG_ERROR(kCategory, "The image or the label map has no frame " << i);
    setStatus(statusIncompleteInput);
    return false;
  }
  const ImageDescriptor& ld = labelFrame->descriptor();
  if (ld.pixelType != U8 || ld.channels != 1 || !u8Frame(labelFrame)) {
    LOG_ERROR(kCategory, "The label map must hold one channel of unsigned 8-bit values, not "
                             << ld.channels << " channel(s) of " << pixelTypeName(ld.pixelType));
    setStatus(statusInvalidInput);
    return false;
  }
  if (ld.dimensions != imageFrame->descriptor().dimensions) {
    LOG_ERROR(kCategory, "The label map's grid of " << dimsText(ld.dimensions) << " voxels differs from the image's of "
                                                     << dimsText(imageFrame->descriptor().dimensions));
    setStatus(statusInvalidInput);
    return false;
  }
  return true;
}

void InteractiveSegmentationAlgorithm::compute() {
  if (!labels_) {
    LOG_WARN(kCategory, "No label map: paint seeds into one, or give one with the image");
    return;
  }
  const int i = focus();
  if (!checkInputs(i)) return;
  setStatus(statusSuccess);
  lastWarmStarted_ = false;
  lastLevelIterations_.clear();
  SharedImage* labelFrame = labels_->get(i);
  const auto* lab = u8Frame(labelFrame);
  const int L = objectLabel();
  const SeedScan seeds = scanSeeds(*lab, L);

  if (!seeds.free) {
    // Nothing to decide: the "probability" is the inverted label map, and there is nothing to accept.
    LOG_WARN(kCategory, "No unlabeled pixels");
    auto inverted = ImageProcessing::createFloat(*labelFrame->mem(), ImageProcessing::Original);
    auto* f = static_cast<TypedImage<float>*>(inverted.get());
    float lo = 0.0f, hi = 0.0f;
    f->getRange(lo, hi);
    float* p = f->pointer();
    const size_t n = f->descriptor().elementCount();
    for (size_t k = 0; k < n; ++k) p[k] = hi + lo - p[k];
    probability_ = std::make_unique<SharedImageSet>(std::shared_ptr<Image>(std::move(inverted)));
    probability_->setMatrix(labelFrame->matrix());
    probability_->setName("Probability");
    setStatus(statusError);
    return;
  }
  if (!seeds.object || !seeds.background) {
    if (!seeds.object && !seeds.background)
      LOG_ERROR(kCategory, "No seeds of label " << L << " or " << L + 1 << " in the label map");
    else
      LOG_ERROR(kCategory, "The label map holds seeds of label " << (seeds.object ? L : L + 1) << " but none of label "
                                                                 << (seeds.object ? L + 1 : L)
                                                                 << "; paint both the object and its background");
    setStatus(statusIncompleteInput);
    return;
  }

  std::lock_guard<std::mutex> lock(computeMutex_);
  const auto start = std::chrono::steady_clock::now();
  const bool is2D = images_->get(i)->descriptor().slices() == 1;
  solverId = 4;
  autoCrop = true;
  solverTolerance = 1e-5;
  solverIterations = is2D ? 1000 : 500;
  GraphBasedSegmentation::compute();
  if (algorithm_) {
    lastWarmStarted_ = algorithm_->lastComputeWarmStarted();
    lastLevelIterations_ = algorithm_->levelIterations();
  }
  if (status() != statusSuccess) return;
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  LOG_INFO(kCategory, "Segmentation computed in " << seconds << "s");
}

std::vector<std::vector<double>> InteractiveSegmentationAlgorithm::getStatistics(SharedImage* labelMap) {
  if (!labelMap) return {};
  const int i = focus();
  const int L = objectLabel();
  auto* lab = u8Frame(labelMap);
  auto* prob = probability_ ? dynamic_cast<const TypedImage<float>*>(probability_->mem(0)) : nullptr;
  if (lab && prob && hasSegmentationToAccept() && labels_ && labelMap == labels_->get(i) &&
      prob->dimensions() == lab->dimensions()) {
    // What an accept would write, on a copy.
    auto preview = lab->cloneTyped();
    const TypedImage<unsigned char>* prev = nullptr;
    if (outputLabels_ && outputLabels_->size() == labels_->size())
      prev = dynamic_cast<const TypedImage<unsigned char>*>(outputLabels_->mem(i));
    Seg::internal::convertToLabels(*prob, *preview, prev, L, cropOffset_, cropSize_, true);
    SharedImage frame(std::shared_ptr<Image>(std::move(preview)));
    return labeling_->statistics(frame, {L, L + 1}, i);
  }
  return labeling_->statistics(*labelMap, {L, L + 1}, i);
}

bool InteractiveSegmentationAlgorithm::hasSegmentationToAccept() const {
  return probability_ && status() == statusSuccess;
}

void InteractiveSegmentationAlgorithm::acceptSegmentation() { convertToLabels(true); }

int InteractiveSegmentationAlgorithm::acceptSegmentationAndContinue() {
  const int L = objectLabel();
  if (!hasSegmentationToAccept()) {
    LOG_ERROR(kCategory, "No segmentation to accept - please run the segmentation first.");
    return 0;
  }
  // The next object's background needs L + 2, below the outline value and the labels the
  // watershed floods with (1..253).
  if (L + 2 > 253) {
    LOG_ERROR(kCategory, "No label left for a new object after label " << L);
    return 0;
  }
  acceptSegmentation();
  SharedImage* frame = labels_->get(focus());
  if (auto* lab = u8Frame(frame)) {
    unsigned char* l = lab->pointer();
    const size_t n = lab->descriptor().pixelCount();
    for (size_t k = 0; k < n; ++k)
      if (l[k] == L + 1) l[k] = 0;
    frame->setDirtyMem();
  }
  setObjectLabel(L + 1);
  // The result and the warm start belong to the accepted object.
  probability_.reset();
  if (algorithm_) algorithm_->reset();
  return L + 1;
}

std::unique_ptr<SharedImageSet> InteractiveSegmentationAlgorithm::exportLabelMap() const {
  if (!labels_) return nullptr;
  auto copy = labels_->clone();
  copy->setName("Labels");
  return copy;
}

bool InteractiveSegmentationAlgorithm::isPredictionAvailable() const {
  return FactoryRegistry::descriptor("ML.MachineLearningModel") != nullptr;
}

bool InteractiveSegmentationAlgorithm::initFromPrediction(const std::string& configPath, int inMargin, int outMargin,
                                                          float threshold) {
  if (!images_ || !labels_ || !labels_->get(focus())) return false;
  std::unique_ptr<Algorithm> model = FactoryRegistry::instantiateAlgorithm("ML.MachineLearningModel", DataList{images_});
  if (!model) return false;
  model->setProgress(progress_);
  Properties p;
  p.setParam("configPath", configPath);
  model->configure(&p);
  model->compute();
  std::unique_ptr<SharedImageSet> prediction = model->takeOutput().extractFirstImage();
  if (!prediction || !prediction->get(0) || !prediction->mem(0)) return false;

  const SharedImage& image = *images_->get(focus());
  const SharedImage& predicted = *prediction->get(0);
  const Eigen::Vector3d s = image.descriptor().spacing, ps = predicted.descriptor().spacing;
  const bool is2D = image.descriptor().slices() == 1 && image.descriptor().height() > 1;
  const double mean = is2D ? (s[0] + s[1] + ps[0] + ps[1]) / 4.0 : (s.sum() + ps.sum()) / 6.0;
  Eigen::Vector3d target = Eigen::Vector3d::Constant(mean);
  if (is2D) target[2] = ps[2];
  auto resampled = ImageProcessing::createResampled(*predicted.mem(), target);
  if (!resampled) return false;

  Progress::Task task(progress_, 100, "Initializing the seeds...");
  // Channel 0 above the threshold is the object.
  auto binary = TypedImage<unsigned char>::zeros(resampled->dimensions(), 1);
  binary->setSpacing(resampled->spacing(), resampled->isMetric());
  {
    auto asFloat = ImageProcessing::createFloat(*resampled, ImageProcessing::Original);
    const float* f = static_cast<const TypedImage<float>*>(asFloat.get())->pointer();
    unsigned char* b = binary->pointer();
    const size_t n = binary->descriptor().pixelCount();
    const size_t c = static_cast<size_t>(asFloat->channels());
    for (size_t k = 0; k < n; ++k) b[k] = f[k * c] > threshold;
  }
  task.setCurrentStep(10);
  const Eigen::Vector3d bs = binary->spacing();
  const Eigen::Vector3d ls = labels_->get(focus())->descriptor().spacing;
  const double ratio = ls.sum() / bs.sum();
  SharedImageSet binarySet(std::shared_ptr<Image>(std::move(binary)));
  binarySet.setMatrix(predicted.matrix());
  convertBinaryMapToNarrowBandLabels(&binarySet, static_cast<int>(inMargin * ratio + 0.5),
                                     static_cast<int>(outMargin * ratio + 0.5), &task);
  labels_->get(focus())->setDirtyMem();
  LOG_INFO(kCategory, "Initialized seeds from prediction");
  return true;
}

bool InteractiveSegmentationAlgorithm::initFromSegmentation(Mesh* mesh, double bandWidth) {
  if (!mesh || !labels_) return false;
  SharedImage* labelFrame = labels_->get(focus());
  if (!labelFrame || !u8Frame(labelFrame)) return false;
  Progress::Task task(progress_, 100, "Converting segmentation to seeds...");
  // Work on a copy in world coordinates; the caller's mesh stays as it is.
  Mesh copy;
  copy.faces = mesh->faces;
  const Eigen::Matrix4d meshToWorld = mesh->matrix();
  for (const auto& v : mesh->vertices)
    copy.vertices.push_back((meshToWorld * Eigen::Vector4d(v[0], v[1], v[2], 1.0)).head<3>().cast<float>());
  if (!MeshProcessing::isClosedManifold(copy)) Seg::internal::closeHoles(copy);
  task.setCurrentStep(10);
  if (copy.faces.empty()) return false;

  const Eigen::Vector3d s = images_->get(focus())->descriptor().spacing;
  const double spacing = std::max({s[0], s[1], s[2], 0.25 * bandWidth});
  const int r = std::max(static_cast<int>(bandWidth * 0.5 / spacing + 0.5), 0);

  // The grid lives in the label map's image space (centred, mm), on a lattice through its first
  // voxel centre, so that it meets the label map's voxels exactly where the spacings agree.
  const ImageDescriptor& ld = labelFrame->descriptor();
  const Eigen::Matrix4d worldToImage = labelFrame->matrix().inverse();
  std::vector<Eigen::Vector3d> vertices;
  vertices.reserve(copy.vertices.size());
  Eigen::Vector3d lo = Eigen::Vector3d::Constant(std::numeric_limits<double>::max());
  Eigen::Vector3d hi = Eigen::Vector3d::Constant(std::numeric_limits<double>::lowest());
  for (const auto& v : copy.vertices) {
    const Eigen::Vector3d p = (worldToImage * Eigen::Vector4d(v[0], v[1], v[2], 1.0)).head<3>();
    vertices.push_back(p);
    lo = lo.cwiseMin(p);
    hi = hi.cwiseMax(p);
  }
  Seg::internal::RasterGrid grid;
  const double margin = 2.0 * r * spacing;
  for (int k = 0; k < 3; ++k) {
    const double first = -(ld.dimensions[k] * 0.5 - 0.5) * ld.spacing[k];
    if (ld.dimensions[k] == 1) {
      grid.origin[k] = first;
      grid.spacing[k] = ld.spacing[k];
      grid.dimensions[k] = 1;
      continue;
    }
    const double last = -first;
    // No further than the label map reaches, so that a huge surface costs no more than the map.
    const double a = std::max(lo[k] - margin, first - margin), b = std::min(hi[k] + margin, last + margin);
    if (a > b) return false;
    grid.spacing[k] = spacing;
    grid.origin[k] = first + std::floor((a - first) / spacing) * spacing;
    grid.dimensions[k] = static_cast<int>(std::ceil((b - grid.origin[k]) / spacing)) + 1;
  }
  auto binary = Seg::internal::rasterizeMesh(vertices, copy.faces, grid);
  Eigen::Vector3i bmin, bmax;
  if (!binary || !Seg::internal::nonZeroBox(*binary, bmin, bmax)) {
    LOG_WARN(kCategory, "The surface encloses no voxel of the label map; seeds left as they were");
    return false;
  }
  // Centred image space of the binary map -> image space of the label map -> world.
  Eigen::Matrix4d shift = Eigen::Matrix4d::Identity();
  shift.block<3, 1>(0, 3) =
      grid.origin + (grid.dimensions.cast<double>() * 0.5 - Eigen::Vector3d::Constant(0.5)).cwiseProduct(grid.spacing);
  SharedImageSet binarySet(std::shared_ptr<Image>(std::move(binary)));
  binarySet.setMatrix(labelFrame->matrix() * shift);
  convertBinaryMapToNarrowBandLabels(&binarySet, r, r, &task);
  return true;
}

void InteractiveSegmentationAlgorithm::convertBinaryMapToNarrowBandLabels(SharedImageSet* binaryMap, int inSize,
                                                                          int outSize, Progress::Task* task) {
  if (!binaryMap || !labels_) return;
  SharedImage* source = binaryMap->get(-1);
  const MemImage* mem = source ? source->mem() : nullptr;
  SharedImage* labelFrame = labels_->get(focus());
  auto* lab = u8Frame(labelFrame);
  if (!mem || !lab) return;
  auto mask = nonZeroMask(*mem);
  auto eroded = Seg::internal::erodeBall(*mask, std::max(inSize, 0));
  if (task) task->setCurrentStep(60);
  auto dilated = Seg::internal::dilateBall(*mask, std::max(outSize, 0));
  if (task) task->setCurrentStep(90);
  if (!eroded || !dilated) return;
  SharedImage erodedFrame(std::shared_ptr<Image>(std::move(eroded)));
  SharedImage dilatedFrame(std::shared_ptr<Image>(std::move(dilated)));
  erodedFrame.setMatrix(source->matrix());
  dilatedFrame.setMatrix(source->matrix());
  auto erodedOnLabels = Seg::internal::resampleBinary(erodedFrame, *labelFrame);
  auto dilatedOnLabels = Seg::internal::resampleBinary(dilatedFrame, *labelFrame);
  if (!erodedOnLabels || !dilatedOnLabels) return;
  const int L = objectLabel();
  Seg::internal::writeNarrowBand(*erodedOnLabels, *dilatedOnLabels, *lab, L, L + 1);
  labelFrame->setDirtyMem();
}

void InteractiveSegmentationAlgorithm::convertContourToLabels2D(const std::vector<Eigen::Vector3d>& points,
                                                                SharedImage* labelSlice, double width) {
  if (points.empty() || !labelSlice) return;
  auto* lab = u8Frame(labelSlice);
  if (!lab) return;
  std::vector<Eigen::Vector3d> closed = points;
  closed.push_back(points.front());
  const Eigen::Vector3d s = lab->spacing();
  const int r = std::max(static_cast<int>(width * 0.5 / (0.5 * s[0] + 0.5 * s[1]) + 0.5), 0);
  // The inside of the curve, on a scratch image with the slice's geometry.
  SharedImage filled(std::shared_ptr<Image>(TypedImage<unsigned char>::zeros(lab->dimensions(), 1)));
  filled.mem()->setSpacing(lab->spacing(), lab->isMetric());
  filled.setMatrix(labelSlice->matrix());
  if (!Spline(closed, true).convertToLabelMap(filled, 1)) return;
  const int L = objectLabel();
  Seg::internal::writeContourBand(*static_cast<TypedImage<unsigned char>*>(filled.mem()), *lab, r, L, L + 1);
  labelSlice->setDirtyMem();
}

void InteractiveSegmentationAlgorithm::convertDiameterToLabels3D(const std::vector<Eigen::Vector3d>& points,
                                                                 SharedImage* labelMap) {
  if (!labelMap || points.size() != 2) return;
  auto* lab = u8Frame(labelMap);
  if (!lab || lab->slices() <= 1) return;
  // Into the label map's image space (centred, mm), where voxel offsets times spacing live.
  const Eigen::Matrix4d worldToImage = labelMap->matrix().inverse();
  auto toImage = [&](const Eigen::Vector3d& p) { return (worldToImage * p.homogeneous()).head<3>().eval(); };
  const Eigen::Vector3d a0 = toImage(points[0]), a1 = toImage(points[1]);
  const Eigen::Vector3d c = 0.5 * (a0 + a1);
  Eigen::Vector3d axis = a0 - c;
  const double radius = axis.norm();
  if (radius > 0) axis /= radius;
  const Eigen::Vector3d pixel = labelMap->worldToPixel(0.5 * (points[0] + points[1]));
  const Eigen::Vector3i centre(static_cast<int>(std::lround(pixel[0])), static_cast<int>(std::lround(pixel[1])),
                               static_cast<int>(std::lround(pixel[2])));
  const int L = objectLabel();
  Seg::internal::writeDiameterSeeds(*lab, centre, axis, radius, L, L + 1);
  labelMap->setDirtyMem();
}

}  // namespace Merivane
