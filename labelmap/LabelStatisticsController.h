#pragma once
// The statistics panel: the generated form of the algorithm, and after each computation a
// dialog with the table, which copies itself to the clipboard as CSV.
#include "DefaultAlgorithmController.h"

namespace Merivane {

class LabelStatisticsAlgorithm;

class LabelStatisticsController : public DefaultAlgorithmController {
  Q_OBJECT
 public:
  explicit LabelStatisticsController(LabelStatisticsAlgorithm* algorithm);

 protected:
  void onComputeFinished(int status) override;

 private:
  LabelStatisticsAlgorithm* statistics_;
};

}  // namespace Merivane
