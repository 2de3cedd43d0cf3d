#pragma once
// Measures each label of the label maps given with one intensity image: pixel count, physical
// size (area for one slice, volume otherwise) and minimum, maximum, mean and standard deviation
// of the image under the label. Logs an ASCII table, keeps its CSV form (fields joined by ";"),
// and writes that to "csvPath" when set. Without a label map the image is its own label map.
#include <optional>
#include <string>
#include <vector>

#include "Algorithm.h"
#include "LabelStatistics.h"
#include "Parameter.h"

namespace Merivane {

class SharedImageSet;

class LabelStatisticsAlgorithm : public Algorithm {
 public:
  LabelStatisticsAlgorithm(const SharedImageSet* image, std::vector<const SharedImageSet*> labelMaps);
  static bool createCompatible(const DataList& data, Algorithm** algorithm = nullptr);

  void compute() override;
  void configure(const Properties* properties) override;
  void configuration(Properties* properties) const override;

  // The record of `label` in label map `index`; empty for a bad index or an unknown label.
  std::optional<Seg::LabelStatisticsRecord> statistics(int index, int label) const;
  const std::string& csv() const { return csv_; }
  bool inputValid() const;

  // Table helpers: one header and rows of equal length.
  static bool isValidTable(const std::vector<std::vector<std::string>>& rows, const std::vector<std::string>& header);
  static bool writeCsvToStream(std::ostream& out, const std::vector<std::vector<std::string>>& rows,
                               const std::vector<std::string>& header);
  static std::string createAsciiTable(const std::vector<std::vector<std::string>>& rows,
                                      const std::vector<std::string>& header);

  Parameter<std::string> csvPath{"csvPath", "", this};
  Parameter<int> floatPrecision{"floatPrecision", 6, this, {0, 17}};  // digits
  Parameter<int> floatFormatting{"floatFormatting", 0, this, {0, 2}};  // 0 stream default, 1 fixed, 2 scientific
  Parameter<bool> useGPU{"useGPU", false, this};

 private:
  const SharedImageSet* image_;
  std::vector<const SharedImageSet*> labelMaps_;
  std::vector<Seg::LabelStatisticsMap> statistics_;
  std::string csv_;
  bool useRealWorldValues_ = false;
};

}  // namespace Merivane
