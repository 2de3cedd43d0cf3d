#pragma once
// Refines label scores (a label map or probabilities) against their image, frame by frame, by
// mean-field inference in a conditional random field with a windowed pairwise term (see
// ConvolutionalCRF). The image is normalised to zero mean and unit variance; a label map
// becomes scores of positiveLabelScore on its label and negativeLabelScore elsewhere, a
// one-channel probability p the two classes (1 - p, p). Gives probabilities or their arg max.
#include <array>
#include <memory>
#include <string>
#include <utility>

#include "Algorithm.h"
#include "Parameter.h"

namespace Merivane {

class SharedImageSet;

// What the CRF gives: labels (the arg max) or the probabilities.
enum class CrfOutputMode : int { Labelmap = 0, Probability = 1 };

}  // namespace Merivane

namespace Merivane::PropertiesDetail {
template <>
struct EnumText<CrfOutputMode> {
  static constexpr std::array<std::pair<CrfOutputMode, const char*>, 2> entries{
      {{CrfOutputMode::Labelmap, "Labelmap"}, {CrfOutputMode::Probability, "Probability"}}};
};
}  // namespace Merivane::PropertiesDetail

namespace Merivane {

class ConvolutionalCRFAlgorithm : public Algorithm {
 public:
  using OutputMode = CrfOutputMode;

  ConvolutionalCRFAlgorithm(const SharedImageSet* image, const SharedImageSet* labelScores);
  ~ConvolutionalCRFAlgorithm() override;
  // Exactly two image sets of equal size whose first frames have the same dimension, the
  // second of modality LABEL or none.
  static bool createCompatible(const DataList& data, Algorithm** algorithm = nullptr);

  void setInput(const SharedImageSet* image, const SharedImageSet* labelScores);
  void compute() override;
  // The probabilities when outputMode is Probability, else the label map.
  OwningDataList takeOutput() override;
  // The float scores of `labelScores`, one channel per class; null (with a log line) when a
  // label map has several channels.
  std::unique_ptr<SharedImageSet> extractUnary(const SharedImageSet* labelScores) const;

  Parameter<int> radius{"radius", 5, this};  // window half width in reduced pixels
  Parameter<int> downsampling{"downsampling", 2, this};  // below 1 acts as 1
  Parameter<float> adaptiveness{"adaptiveness", 0.5f, this};
  Parameter<float> smoothWeight{"smoothWeight", 0.05f, this};
  Parameter<OutputMode> outputMode{"outputMode", OutputMode::Labelmap, this};
  Parameter<bool> showAdvancedControls{"showAdvancedControls", false, this};
  Parameter<float> appearanceSigma{"appearanceSigma", 0.25f, this};
  Parameter<float> smoothnessSigma{"smoothnessSigma", 1.0f, this};  // relative to the radius
  Parameter<int> maxNumIter{"maxNumIter", 10, this};
  Parameter<float> convergenceThreshold{"convergenceThreshold", 0.001f, this};  // percent of pixels
  // "a, b, value" triples overriding the compatibility of labels a and b.
  Parameter<std::string> labelCompatibilites{"labelCompatibilites", "", this};
  Parameter<float> negativeLabelScore{"negativeLabelScore", -1.0f, this};
  Parameter<float> positiveLabelScore{"positiveLabelScore", 1.0f, this};

 private:
  void run();

  const SharedImageSet* image_;
  const SharedImageSet* scores_;
  std::unique_ptr<SharedImageSet> probabilities_, labels_;
};

}  // namespace Merivane
