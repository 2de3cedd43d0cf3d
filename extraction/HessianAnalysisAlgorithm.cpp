#include "HessianAnalysisAlgorithm.h"

#include <cmath>
#include <exception>

#include "HessianAnalysis.h"
#include "Log.h"
#include "SharedImageSet.h"

namespace Merivane {

namespace {
constexpr const char* kCategory = "Seg.HessianAnalysisAlgorithm";
}

HessianAnalysisAlgorithm::HessianAnalysisAlgorithm(SharedImage* image) : image_(image) {}
HessianAnalysisAlgorithm::~HessianAnalysisAlgorithm() = default;

bool HessianAnalysisAlgorithm::createCompatible(const DataList& data, Algorithm** algorithm) {
  if (data.size() != 1) return false;
  SharedImageSet* set = data.getImage(Data::kindVolume);
  if (!set || set->empty()) return false;
  if (algorithm) *algorithm = new HessianAnalysisAlgorithm(set->get(0));
  return true;
}

void HessianAnalysisAlgorithm::compute() {
  output_.reset();
  if (!validateParameters(kCategory)) return;
  for (double s : scales.value())
    if (!(s > 0.0) || !std::isfinite(s)) {
      LOG_ERROR(kCategory, "Scales must all be positive, not " << s);
      setStatus(statusInvalidInput);
      return;
    }
  const MemImage* mem = image_ ? image_->mem() : nullptr;
  if (!mem || mem->dimension() != 3) {
    LOG_ERROR(kCategory, "The input is not a volume.");
    setStatus(statusInvalidInput);
    return;
  }
  try {
    HessianTubularityMeasure measure(alpha, beta, gamma);
    measure.minIntensity = minIntensity;
    measure.maxIntensity = maxIntensity;
    measure.scales = scales.value();
    output_ = measure.compute(*image_);
    if (!output_) {
      LOG_ERROR(kCategory, "The Hessian analysis gave no result.");
      setStatus(statusError);
      return;
    }
    setStatus(statusSuccess);
  } catch (const std::exception& e) {
    output_.reset();
    LOG_ERROR(kCategory, "Hessian analysis failed: " << e.what());
    setStatus(statusError);
  }
}

OwningDataList HessianAnalysisAlgorithm::takeOutput() {
  OwningDataList out;
  if (!output_) return out;
  auto set = std::make_unique<SharedImageSet>(std::shared_ptr<SharedImage>(std::move(output_)));
  set->setName("Tubularity");
  out.add(std::move(set));
  return out;
}

}  // namespace Merivane
