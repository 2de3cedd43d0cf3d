#pragma once
// The panel of the labeling tool: brush settings, the label with its name and colour, start
// and stop of painting or flood filling on the window's slice views, fill, clear, undo and
// redo, refinement of the current label (Seg::LabelMapRefinement), a threshold tool
// (Seg::ThresholdTool) with its preview, export, and a line that says what the tool refused
// and why. The tool itself
// (Seg::LabelingManipulator, which keeps the undo history) lives as long as the panel.
#include <QWidget>
#include <memory>

#include "Controller.h"

class QCheckBox;
class QColor;
class QComboBox;
class QDoubleSpinBox;
class QGroupBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QSlider;
class QSpinBox;

namespace Merivane {

class DataModel;
class DisplayWidgetMultiAdapter;
class GlCircle;
class GlLabelRenderer;
class LabelingAlgorithm;
class SharedImage;
class SharedImageSet;
class Data;
namespace GUI {
template <typename T>
class TypedViewObject;
}
namespace Seg {
class LabelingManipulator;
class ThresholdTool;
}

class LabelingController : public QWidget, public AlgorithmController {
  Q_OBJECT
 public:
  // Without views or model given, the window's are used (none in programs without one).
  explicit LabelingController(LabelingAlgorithm* algorithm, DisplayWidgetMultiAdapter* views = nullptr,
                              DataModel* model = nullptr);
  ~LabelingController() override;
  int init() override;

  int currentLabel() const;
  void setLabelIndex(int label);
  SharedImage* labelImage() const;
  void selectionChanged();
  // The tool, null while there is no usable label map.
  Seg::LabelingManipulator* manipulator() const { return manipulator_.get(); }
  bool isLabeling() const { return attached_; }
  // The panel's message line: what was refused and why, or what happened last.
  QString message() const;

 public slots:
  void onStartLabeling();
  void onStopLabeling();
  void onFloodFill();
  void onClear();
  void onUndo();
  void onRedo();
  void onSetLabel(int label);
  void onSetSize(int size);
  void onSetTransparency(int value);
  void onSetAdaptiveness(int value);
  void onToggleAvoidOtherLabels(bool checked);
  void onShowRefineOptions();
  void onFill();
  void onRefine();
  void onStatistics();
  void onCopy();
  void onSetLabelName(const QString& name);
  void onSetLabelColor(const QColor& color);
  void onSetTolerance(double tolerance);
  // The threshold group: the preview on the views, and Apply into the focused frame (one undo
  // step), with the current label and the locks of "Avoid Other Labels".
  void onThresholdPreview(bool on);
  void onApplyThreshold();

 private:
  void buildPanel();
  void initThresholdRange();
  bool ensureThresholdTool();
  void syncThreshold();
  bool ensureManipulator();
  void start(bool floodFill);
  void attach();
  void detach();
  void updateButtons();
  void updateLabelInfo();
  void updateViews() const;
  void say(const QString& text, bool refusal = false);
  DataModel* model() const;
  DisplayWidgetMultiAdapter* views() const;
  GlLabelRenderer* overlay() const;

  LabelingAlgorithm* labeling_;
  DisplayWidgetMultiAdapter* views_;
  DataModel* model_;
  std::unique_ptr<GlCircle> circle_;
  std::unique_ptr<Seg::LabelingManipulator> manipulator_;
  std::unique_ptr<GUI::TypedViewObject<GlCircle>> viewObject_;
  std::unique_ptr<GlLabelRenderer> ownOverlay_;  // when the window shows no overlay of the map
  std::unique_ptr<Seg::ThresholdTool> threshold_;  // made on the first preview or apply
  bool attached_ = false;
  Data* exported_ = nullptr;

  QSlider* opacity_ = nullptr;
  QSlider* adaptiveness_ = nullptr;
  QLabel* adaptivenessValue_ = nullptr;
  QCheckBox* avoidOthers_ = nullptr;
  QSpinBox* size_ = nullptr;
  QSpinBox* label_ = nullptr;
  QLineEdit* labelName_ = nullptr;
  QPushButton* labelColor_ = nullptr;
  QGroupBox* refineGroup_ = nullptr;
  QComboBox* refineOperation_ = nullptr;
  QSpinBox* refineSize_ = nullptr;
  QSpinBox* refineMinSize_ = nullptr;
  QDoubleSpinBox* thresholdLow_ = nullptr;
  QDoubleSpinBox* thresholdHigh_ = nullptr;
  QCheckBox* thresholdPreview_ = nullptr;
  QPushButton* stop_ = nullptr;
  QComboBox* fillScope_ = nullptr;
  QPushButton* start_ = nullptr;
  QPushButton* floodFill_ = nullptr;
  QDoubleSpinBox* tolerance_ = nullptr;
  QPushButton* undo_ = nullptr;
  QPushButton* redo_ = nullptr;
  QLabel* underCursor_ = nullptr;
  QLabel* status_ = nullptr;
};

}  // namespace Merivane
