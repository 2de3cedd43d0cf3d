#pragma once
// The panel of centreline extraction: the intensity window, smoothness, samples and working
// resolution; Compute takes the first line annotation of the image (or offers to draw one)
// and shows the centreline as a green spline, with the probability and action maps added to
// the data.
#include <QWidget>

#include "Controller.h"

class QCheckBox;
class QDoubleSpinBox;
class QSpinBox;

namespace Merivane {

class CenterlineExtractionAlgorithm;

class CenterlineExtractionController : public QWidget, public AlgorithmController {
  Q_OBJECT
 public:
  explicit CenterlineExtractionController(CenterlineExtractionAlgorithm* algorithm);
  int init() override;
  std::string title() const override { return "Centerline Extraction"; }
  void onAlgorithmParametersChanged() override { setParametersFromAlgorithm(); }
  void onAlgorithmOutputChanged() override;

  void setParametersToAlgorithm();
  void setParametersFromAlgorithm();

 public slots:
  void onCompute();

 private:
  CenterlineExtractionAlgorithm* centerline_;
  QDoubleSpinBox* smoothness_ = nullptr;
  QDoubleSpinBox* minIntensity_ = nullptr;
  QDoubleSpinBox* maxIntensity_ = nullptr;
  QSpinBox* samples_ = nullptr;
  QCheckBox* bright_ = nullptr;
  QDoubleSpinBox* resolution_ = nullptr;
  QDoubleSpinBox* margins_ = nullptr;
};

}  // namespace Merivane
