#include "ConvolutionalCRFAlgorithm.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <exception>
#include <regex>

#include "ConvolutionalCRF.h"
#include "Krylov.h"
#include "Log.h"
#include "Progress.h"
#include "SharedImageSet.h"

namespace Merivane {

namespace {
constexpr const char* kCategory = "ConvolutionalCRFAlgorithm";
using Seg::internal::ConvolutionalCRF;
using Seg::internal::CrfGrid;

CrfGrid gridOf(const Image& img) { return {img.width(), img.height(), img.slices()}; }

// Original values of a frame as floats, all channels.
std::vector<float> originalValues(const MemImage& m) {
  std::vector<float> out(m.descriptor().elementCount());
  dispatchPixelType(m.type(), [&](auto tag) {
    using T = decltype(tag);
    const T* p = static_cast<const T*>(m.data());
    for (size_t i = 0; i < out.size(); ++i) out[i] = static_cast<float>(m.descriptor().toPhysical(static_cast<double>(p[i])));
  });
  return out;
}

// Zero mean and unit variance over the frame; a flat frame only loses its mean.
void normalize(std::vector<float>& v) {
  double sum = 0, squares = 0;
  for (float x : v) sum += x;
  const double mean = v.empty() ? 0.0 : sum / static_cast<double>(v.size());
  for (float x : v) squares += (x - mean) * (x - mean);
  const double sd = v.empty() ? 0.0 : std::sqrt(squares / static_cast<double>(v.size()));
  const double inv = sd > 0 ? 1.0 / sd : 1.0;
  for (float& x : v) x = static_cast<float>((x - mean) * inv);
}

// "a, b, value" triples written symmetrically into M; pairs outside the classes are skipped.
void parseCompatibility(const std::string& text, int classes, std::vector<float>& m) {
  static const std::regex triple("([0-9]+)\\s*,\\s*([0-9]+)\\s*,\\s*([0-9\\-\\.]+)");
  for (auto it = std::sregex_iterator(text.begin(), text.end(), triple); it != std::sregex_iterator(); ++it) {
    const long a = std::strtol((*it)[1].str().c_str(), nullptr, 10);
    const long b = std::strtol((*it)[2].str().c_str(), nullptr, 10);
    const float value = std::strtof((*it)[3].str().c_str(), nullptr);
    if (a >= classes || b >= classes || a < 0 || b < 0) {
      LOG_WARN(kCategory, "Invalid label pair (" << a << ", " << b << ") for input with " << classes << " classes");
      continue;
    }
    m[static_cast<size_t>(a * classes + b)] = value;
    m[static_cast<size_t>(b * classes + a)] = value;
  }
}
}  // namespace

ConvolutionalCRFAlgorithm::ConvolutionalCRFAlgorithm(const SharedImageSet* image, const SharedImageSet* labelScores) {
  radius.setLabel("Window Radius");
  radius.setAttribute("suffix", "px");
  downsampling.setLabel("Downsampling");
  downsampling.setAttribute("step", "2");
  adaptiveness.setLabel("Adaptiveness");
  adaptiveness.setAttribute("step", "0.01");
  smoothWeight.setLabel("Smoothness");
  outputMode.setLabel("Output");
  outputMode.setAttribute("values", "Labelmap, Probability");
  showAdvancedControls.setLabel("Show Advanced Controls");
  appearanceSigma.setLabel("Appearance Sigma");
  appearanceSigma.setAttribute("step", "0.05");
  smoothnessSigma.setLabel("Smoothness Sigma");
  maxNumIter.setLabel("Max Number of Iterations");
  convergenceThreshold.setLabel("Convergence Threshold");
  convergenceThreshold.setAttribute("step", "0.001");
  labelCompatibilites.setLabel("Label Compatibilities");
  negativeLabelScore.setLabel("Negative Label Score");
  negativeLabelScore.setAttribute("step", "0.1");
  positiveLabelScore.setLabel("Positive Label Score");
  positiveLabelScore.setAttribute("step", "0.1");
  setInput(image, labelScores);
}

ConvolutionalCRFAlgorithm::~ConvolutionalCRFAlgorithm() = default;

bool ConvolutionalCRFAlgorithm::createCompatible(const DataList& data, Algorithm** algorithm) {
  const auto sets = data.getImages();
  if (data.size() != 2 || sets.size() != 2) return false;
  const SharedImageSet* image = sets[0];
  const SharedImageSet* scores = sets[1];
  if (scores->modality() != Data::LABEL && scores->modality() != Data::modalityAny) return false;
  if (image->size() == 0 || image->size() != scores->size()) return false;
  if (!image->img(0) || !scores->img(0) || image->img(0)->dimension() != scores->img(0)->dimension()) return false;
  if (algorithm) *algorithm = new ConvolutionalCRFAlgorithm(image, scores);
  return true;
}

void ConvolutionalCRFAlgorithm::setInput(const SharedImageSet* image, const SharedImageSet* labelScores) {
  image_ = image;
  scores_ = labelScores;
  const int r = image && image->img(0) && image->img(0)->slices() > 1 ? 3 : 5;
  radius.setDefaultValue(r);
  radius = r;
}

std::unique_ptr<SharedImageSet> ConvolutionalCRFAlgorithm::extractUnary(const SharedImageSet* labelScores) const {
  if (!labelScores) return nullptr;
  auto unary = std::make_unique<SharedImageSet>();
  const bool labelMap = labelScores->modality() == Data::LABEL || (labelScores->img(0) && labelScores->img(0)->type() == U8);
  if (labelMap) {
    int classes = 1;
    for (int i = 0; i < labelScores->size(); ++i) {
      const auto* m = dynamic_cast<const TypedImage<unsigned char>*>(labelScores->mem(i));
      if (!m) continue;
      if (m->channels() > 1) {
        LOG_ERROR(kCategory, "labelScores appears to be a labelmap but has more than one channel");
        return nullptr;
      }
      unsigned char lo = 0, hi = 0;
      if (m->getRange(lo, hi)) classes = std::max(classes, hi + 1);
    }
    for (int i = 0; i < labelScores->size(); ++i) {
      const auto* m = dynamic_cast<const TypedImage<unsigned char>*>(labelScores->mem(i));
      if (!m) {
        LOG_ERROR(kCategory, "Frame " << i << " of the label map is not U8 in memory");
        return nullptr;
      }
      ImageDescriptor desc(F32, m->dimensions(), classes);
      desc.spacing = m->spacing();
      auto u = TypedImage<float>::create(desc);
      const size_t n = m->descriptor().pixelCount();
      for (size_t p = 0; p < n; ++p) {
        float* o = u->pointer() + p * static_cast<size_t>(classes);
        std::fill(o, o + classes, negativeLabelScore.value());
        o[m->pointer()[p]] = positiveLabelScore;
      }
      unary->add(std::shared_ptr<Image>(std::move(u)), labelScores->get(i)->matrix());
    }
    return unary;
  }
  for (int i = 0; i < labelScores->size(); ++i) {
    const MemImage* m = labelScores->mem(i);
    if (!m) {
      LOG_ERROR(kCategory, "Frame " << i << " of the scores has no memory copy");
      return nullptr;
    }
    std::vector<float> v = originalValues(*m);
    const int channels = m->channels() == 1 ? 2 : m->channels();
    ImageDescriptor desc(F32, m->dimensions(), channels);
    desc.spacing = m->spacing();
    auto u = TypedImage<float>::create(desc);
    if (m->channels() == 1) {
      for (size_t p = 0; p < v.size(); ++p) {
        u->pointer()[2 * p] = 1.0f - v[p];
        u->pointer()[2 * p + 1] = v[p];
      }
    } else {
      std::copy(v.begin(), v.end(), u->pointer());
    }
    unary->add(std::shared_ptr<Image>(std::move(u)), labelScores->get(i)->matrix());
  }
  return unary;
}

void ConvolutionalCRFAlgorithm::compute() {
  setStatus(statusInvalidInput);
  probabilities_.reset();
  labels_.reset();
  // Each iteration is a few short parallel passes; while another process holds a core, a
  // thread waiting for its descheduled partner at every barrier made a 256^2 frame three
  // times slower (124 ms against 40). The result does not depend on the thread count.
  struct Threads {
    int saved = omp_get_max_threads();
    Threads() { omp_set_num_threads(Krylov::availableThreads(saved)); }
    ~Threads() { omp_set_num_threads(saved); }
  } threads;
  try {
    run();
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& e) {
    LOG_ERROR(kCategory, "The CRF failed: " << e.what());
    setStatus(statusError);
    probabilities_.reset();
    labels_.reset();
  }
}

void ConvolutionalCRFAlgorithm::run() {
  if (radius < 1) {
    LOG_ERROR(kCategory, "Radius must be >= 1, got: " << radius.value());
    return;
  }
  if (maxNumIter < 0) {
    LOG_ERROR(kCategory, "Maximum number of iterations must be >= 0, got: " << maxNumIter.value());
    return;
  }
  if (!(appearanceSigma > 0) || !(smoothnessSigma > 0)) {
    LOG_ERROR(kCategory, "Sigma parameters must be > 0");
    return;
  }
  if (!image_ || !scores_ || image_->size() == 0 || image_->size() != scores_->size()) {
    LOG_ERROR(kCategory, "The image and the label scores must be two sets of the same number of frames");
    return;
  }
  std::unique_ptr<SharedImageSet> unary = extractUnary(scores_);
  if (!unary || unary->size() != image_->size()) return;
  const int C = unary->img(0)->channels();

  Seg::internal::CrfSettings settings;
  settings.radius = radius;
  settings.downsampling = std::max(1, downsampling.value());
  settings.adaptiveness = adaptiveness;
  settings.smoothWeight = smoothWeight;
  settings.appearanceSigma = appearanceSigma;
  settings.smoothnessSigma = smoothnessSigma;
  settings.maxNumIter = maxNumIter;
  settings.convergenceThreshold = convergenceThreshold;

  // Every frame is checked before anything is allocated for it.
  for (int i = 0; i < image_->size(); ++i) {
    const MemImage* img = image_->mem(i);
    const Image* u = unary->img(i);
    if (!img || !u || img->dimensions() != u->dimensions()) {
      LOG_ERROR(kCategory, "Frame " << i << " of the label scores does not lie on the image's grid");
      return;
    }
    if (ConvolutionalCRF::kernelCount(gridOf(*img), settings) > double(0x40000000)) {
      LOG_ERROR(kCategory, "Configuration would create a kernel of size greater than 4Gb. Please increase "
                           "downsampling or reduce radius.");
      return;
    }
  }
  std::vector<float> compat = ConvolutionalCRF::defaultCompatibility(C);
  parseCompatibility(labelCompatibilites.value(), C, compat);

  auto probabilities = std::make_unique<SharedImageSet>();
  probabilities->setName("CRF Probabilities");
  Progress::Task frames(progress_, image_->size(), "Frame processing");
  for (int i = 0; i < image_->size(); ++i) {
    frames.setCurrentStep(i);
    const MemImage& img = *image_->mem(i);
    const CrfGrid grid = gridOf(img);
    std::vector<float> features = originalValues(img);
    normalize(features);
    const auto* u = static_cast<const TypedImage<float>*>(unary->mem(i));
    const std::vector<float> U(u->pointer(), u->pointer() + u->descriptor().elementCount());

    ConvolutionalCRF crf(grid, img.channels(), C, settings);
    crf.setCompatibility(compat);
    crf.buildKernels(features);
    Progress::Task inner(progress_, settings.maxNumIter, "Inner Iteration");
    std::vector<float> q;
    int done = 0;
    const auto stop = crf.run(
        U, q,
        [&inner, &done] {
          inner.setCurrentStep(done);
          return inner.wasCanceled();
        },
        &done);
    if (stop == ConvolutionalCRF::Stop::Canceled) {
      setStatus(statusCanceled);
      probabilities_ = std::move(probabilities);
      return;
    }
    if (stop == ConvolutionalCRF::Stop::Converged && image_->size() == 1)
      LOG_DEBUG(kCategory, "Converged in " << done << " iterations");
    ImageDescriptor desc(F32, img.dimensions(), C);
    desc.spacing = img.spacing();
    desc.isMetric = img.isMetric();
    auto out = TypedImage<float>::create(desc);
    std::copy(q.begin(), q.end(), out->pointer());
    probabilities->add(std::shared_ptr<Image>(std::move(out)), image_->get(i)->matrix());
  }

  if (outputMode.value() == OutputMode::Labelmap) {
    auto labels = std::make_unique<SharedImageSet>();
    for (int i = 0; i < probabilities->size(); ++i) {
      const auto* p = static_cast<const TypedImage<float>*>(probabilities->mem(i));
      ImageDescriptor desc(U8, p->dimensions(), 1);
      desc.spacing = p->spacing();
      desc.isMetric = p->isMetric();
      auto l = TypedImage<unsigned char>::create(desc);
      const size_t n = p->descriptor().pixelCount();
      for (size_t k = 0; k < n; ++k) {
        const float* v = p->pointer() + k * static_cast<size_t>(C);
        l->pointer()[k] = static_cast<unsigned char>(std::max_element(v, v + C) - v);  // first maximum
      }
      labels->add(std::shared_ptr<Image>(std::move(l)), image_->get(i)->matrix());
    }
    labels->setModality(Data::LABEL);
    if (scores_->modality() == Data::LABEL) labels->components() = scores_->components();
    labels->setName("CRF Labels");
    labels_ = std::move(labels);
  }
  probabilities_ = std::move(probabilities);
  setStatus(statusSuccess);
}

OwningDataList ConvolutionalCRFAlgorithm::takeOutput() {
  OwningDataList out;
  if (outputMode.value() != OutputMode::Labelmap) {
    if (probabilities_) out.add(std::move(probabilities_));
  } else if (labels_) {
    out.add(std::move(labels_));
  }
  return out;
}

}  // namespace Merivane
