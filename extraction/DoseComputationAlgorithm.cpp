#include "DoseComputationAlgorithm.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <exception>
#include <filesystem>
#include <limits>

#include "AlgorithmUtils.h"
#include "ApplyMaskAlgorithm.h"
#include "FftConvolution.h"
#include "ImageIO.h"
#include "ImageProcessing.h"
#include "ImageResamplingAlgorithm.h"
#include "Log.h"
#include "Progress.h"
#include "SharedImageSet.h"
#include "ThresholdingAlgorithm.h"

namespace fs = std::filesystem;

namespace Merivane {

namespace {

// Log lines of this class carry no category.
constexpr const char* kCategory = "";

std::string lower(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return s;
}

bool sameGrid(const SharedImage& a, const SharedImage& b) {
  return a.img() && b.img() && a.img()->dimensions() == b.img()->dimensions() &&
         a.img()->spacing() == b.img()->spacing() && a.matrix() == b.matrix();
}

struct Kernel {
  std::vector<float> values;
  Eigen::Vector3i size = Eigen::Vector3i::Ones();
};

// Rounds and saturates as an image of `type` stores a value; floats pass unchanged.
void storeAs(PixelType type, const float* in, MemImage& out) {
  const long n = static_cast<long>(out.descriptor().pixelCount());
  dispatchPixelType(type, [&](auto tag) {
    using T = decltype(tag);
    T* o = static_cast<T*>(out.data());
#pragma omp parallel for schedule(static) if (n > (1 << 16))
    for (long i = 0; i < n; ++i) {
      if constexpr (std::is_integral_v<T>) {
        const float v = std::nearbyint(in[i]);
        o[i] = v <= static_cast<float>(std::numeric_limits<T>::lowest()) ? std::numeric_limits<T>::lowest()
               : v >= static_cast<float>(std::numeric_limits<T>::max()) ? std::numeric_limits<T>::max()
               : std::isnan(v)                                          ? T(0)
                                                                        : static_cast<T>(v);
      } else {
        o[i] = static_cast<T>(in[i]);
      }
    }
  });
}

// acc += value * scale, in double, stored as float.
void accumulate(const MemImage& values, double scale, float* acc) {
  const long n = static_cast<long>(values.descriptor().pixelCount());
  dispatchPixelType(values.type(), [&](auto tag) {
    using T = decltype(tag);
    const T* v = static_cast<const T*>(values.data());
#pragma omp parallel for schedule(static) if (n > (1 << 16))
    for (long i = 0; i < n; ++i)
      acc[i] = static_cast<float>(static_cast<double>(acc[i]) + static_cast<double>(v[i]) * scale);
  });
}

}  // namespace

DoseComputationAlgorithm::DoseComputationAlgorithm(SharedImageSet* ct, SharedImageSet* source)
    : ctImage_(ct), sourceImage_(source) {
  convolutions = {{"air", -1000, -800}, {"lung", -800, -300}, {"fat", -300, 0}, {"tissue", 0, 100}, {"bone", 100, 6000}};
}

DoseComputationAlgorithm::~DoseComputationAlgorithm() = default;

bool DoseComputationAlgorithm::createCompatible(const DataList& data, Algorithm** algorithm) {
  const auto ct = data.getImages(Data::kindVolume, Data::CT);
  const auto source = data.getImages(Data::kindVolume, Data::NM);
  if (ct.size() != 1 || source.size() != 1) return false;
  if (algorithm) *algorithm = new DoseComputationAlgorithm(ct[0], source[0]);
  return true;
}

std::vector<std::string> DoseComputationAlgorithm::kernelPaths() const {
  std::vector<std::string> names;
  std::error_code ec;
  const std::string dir = kernelsDirectory;
  if (!dir.empty())
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec))
      names.push_back(it->path().filename().string());
  // Name order, ignoring case, as a directory listing shows it.
  std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
    const std::string la = lower(a), lb = lower(b);
    return la != lb ? la < lb : a < b;
  });
  std::vector<std::string> paths;
  for (const Convolution& c : convolutions) {
    auto it = std::find_if(names.begin(), names.end(), [&](const std::string& n) {
      return n.rfind(c.name, 0) == 0 && n.size() >= 4 && lower(n.substr(n.size() - 4)) == ".mhd";
    });
    if (it == names.end()) {
      LOG_ERROR(kCategory, "Could not find kernel file for " << c.name);
      return {};
    }
    paths.push_back((fs::path(dir) / *it).string());
  }
  return paths;
}

void DoseComputationAlgorithm::compute() {
  setStatus(statusError);
  result_.reset();
  const std::vector<std::string> paths = kernelPaths();
  if (paths.empty()) return;
  SharedImage* sourceFrame = sourceImage_ ? sourceImage_->get(-1) : nullptr;
  const MemImage* source = sourceFrame ? sourceFrame->mem() : nullptr;
  if (!source || !ctImage_ || !ctImage_->mem(-1) || source->type() == F16 || source->descriptor().pixelCount() == 0) {
    LOG_ERROR(kCategory, "The CT or the source volume has no image in memory.");
    setStatus(statusInvalidInput);
    return;
  }

  try {
    // Every kernel is read and checked before any convolution runs.
    std::vector<Kernel> kernels;
    Eigen::Vector3i largest = Eigen::Vector3i::Ones();
    for (const std::string& path : paths) {
      std::string error;
      std::unique_ptr<SharedImageSet> file = IO::readImage(path, &error);
      if (!file || !file->mem(0)) {
        LOG_ERROR(kCategory, "Could not load kernel " << path << ": " << error);
        return;
      }
      const MemImage& mem = *file->mem(0);
      const Eigen::Vector3i size = mem.dimensions();
      if (mem.channels() != 1 || mem.type() == F16 || size[0] % 2 == 0 || size[1] % 2 == 0 || size[2] % 2 == 0) {
        LOG_ERROR(kCategory, "Invalid filter " << path << "; make sure it's a one-channel image with odd dimensions");
        return;
      }
      auto values = ImageProcessing::createFloat(mem, ImageProcessing::Original);
      const float* v = static_cast<const float*>(values->data());
      kernels.push_back({std::vector<float>(v, v + mem.descriptor().pixelCount()), size});
      largest = largest.cwiseMax(size);
    }

    ImageDescriptor accDesc(F32, source->dimensions(), 1);
    accDesc.spacing = source->spacing();
    accDesc.isMetric = source->isMetric();
    auto accumulator = TypedImage<float>::zeros(accDesc);

    Dose::FftConvolver convolver(source->dimensions(), largest);
    {
      auto stored = ImageProcessing::createFloat(*source, ImageProcessing::None);
      ImageDescriptor one = stored->descriptor();
      one.channels = 1;
      std::vector<float> channel0(one.pixelCount());
      const float* s = static_cast<const float*>(stored->data());
      const size_t c = static_cast<size_t>(source->channels());
      for (size_t i = 0; i < channel0.size(); ++i) channel0[i] = s[i * c];
      convolver.setVolume(channel0.data());
    }
    std::vector<float> convolved(accDesc.pixelCount());
    ImageDescriptor outDesc = source->descriptor();
    outDesc.channels = 1;

    Progress::Task task(progress_, static_cast<int>(convolutions.size()), "Computing dose...");
    for (size_t r = 0; r < convolutions.size(); ++r) {
      if (task.wasCanceled()) {
        setStatus(statusCanceled);
        return;
      }
      const Convolution& record = convolutions[r];
      Properties thresholds;
      thresholds.setParam("createNew", 1);
      thresholds.setParam("mode", 4);
      thresholds.setParam("insideInterval", 1);
      thresholds.setParam("lowerThreshold", record.lowerThreshold);
      thresholds.setParam("upperThreshold", record.upperThreshold);
      auto masks = AlgorithmUtils::execute<ThresholdingAlgorithm>(DataList{ctImage_}, thresholds);
      std::unique_ptr<SharedImageSet> mask = masks ? masks->extractFirstImage() : nullptr;
      if (!mask) {
        LOG_ERROR(kCategory, "Error during execution of thresholding algorithm");
        return;
      }
      // On the source's grid already, resampling would copy the mask voxel by voxel.
      if (!sameGrid(*mask->get(-1), *sourceFrame)) {
        Properties resampling;
        resampling.setParam("Create New Image", 0);
        resampling.setParam("Interpolation Mode", 1);
        resampling.setParam("Reduction Mode", 1);
        if (!AlgorithmUtils::execute<ImageResamplingAlgorithm>(DataList{mask.get(), sourceImage_}, resampling)) {
          LOG_ERROR(kCategory, "Error during execution of resampling algorithm");
          return;
        }
      }

      if (!convolver.convolve(kernels[r].values.data(), kernels[r].size, convolved.data())) {
        LOG_ERROR(kCategory, "Invalid filter " << paths[r] << "; make sure it's a one-channel image with odd dimensions");
        return;
      }
      auto image = MemImage::create(outDesc, false);
      storeAs(outDesc.pixelType, convolved.data(), *image);
      auto frame = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(image)));
      frame->setMatrix(sourceFrame->matrix());
      SharedImageSet dose(frame);
      dose.setModality(Data::NM);

      Properties masking;
      masking.setParam("Crop automatically", 0);
      masking.setParam("Create new image", 0);
      if (!AlgorithmUtils::execute<ApplyMaskAlgorithm>(DataList{&dose, mask.get()}, masking)) {
        LOG_ERROR(kCategory, "Error during execution of mask algorithm");
        return;
      }
      accumulate(*dose.mem(0), scaleFactor, accumulator->pointer());
      task.incrementStep();
    }

    result_ = std::make_unique<SharedImageSet>(std::shared_ptr<Image>(std::move(accumulator)));
    result_->setModality(Data::NM);
    result_->setMatrix(sourceFrame->matrix());
    result_->setName("Dose");
    setStatus(statusSuccess);
  } catch (const std::exception& e) {
    result_.reset();
    LOG_ERROR(kCategory, "Dose computation failed: " << e.what());
    setStatus(statusError);
  }
}

OwningDataList DoseComputationAlgorithm::takeOutput() {
  OwningDataList out;
  if (result_) out.add(std::move(result_));
  return out;
}

}  // namespace Merivane
