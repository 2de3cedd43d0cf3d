#pragma once
// The panel of graph-based segmentation: solver, adaptiveness, iterations, crop, levels and
// superpixels; Compute, Clear, Set As Label, Probabilities and Extract Annotation.
#include <QWidget>

#include "Controller.h"

class QCheckBox;
class QComboBox;
class QDoubleSpinBox;
class QLabel;
class QSpinBox;

namespace Merivane {

class GraphBasedSegmentation;

class GraphBasedSegmentationController : public QWidget, public AlgorithmController {
  Q_OBJECT
 public:
  explicit GraphBasedSegmentationController(GraphBasedSegmentation* algorithm);
  int init() override;
  std::string title() const override { return "Graph Segmentation"; }
  // Status of the last computation, -1 before the first.
  int lastStatus() const { return lastStatus_; }

 public slots:
  void onCompute();
  void onClear();
  void onSetAsLabel();
  void onProbabilities();
  void onExtractAnnotation();
  void onSetSolver(int index);
  void onSuperpixelsChecked(bool on);

 private:
  void refresh();
  GraphBasedSegmentation* segmentation_;
  QComboBox* solver_ = nullptr;
  QDoubleSpinBox* adaptiveness_ = nullptr;
  QLabel* iterationsLabel_ = nullptr;
  QSpinBox* iterations_ = nullptr;
  QCheckBox* autoCrop_ = nullptr;
  QSpinBox* minLevel_ = nullptr;
  QSpinBox* numLevels_ = nullptr;
  QCheckBox* superpixels_ = nullptr;
  QSpinBox* superpixelsNumber_ = nullptr;
  QLabel* spAdaptivenessLabel_ = nullptr;
  QDoubleSpinBox* spAdaptiveness_ = nullptr;
  QDoubleSpinBox* smoothness_ = nullptr;
  QDoubleSpinBox* exportResolution_ = nullptr;
  int lastStatus_ = -1;
};

}  // namespace Merivane
