#pragma once
// The panel of the interactive segmentation: paint object and background seeds on the views
// (the space bar switches between the two while painting), run, look at the outline, correct,
// run again, accept, and go on with the next object; seeds from a drawn contour (2D) or
// diameter (3D) or from an existing surface; the memory a run will take; statistics of the
// result; export as a label map or as an annotation. The watershed variant gets the same panel
// without the random walk's settings.
//
// Every change of the labels (a stroke, a run's outline, an accept, a clear, seeds made from a
// shape) is one step of the painting tool's undo history, so "Undo" steps back through all of
// them. Questions go through QtHelpers::ask, which scripts and tests can answer.
#include <QWidget>
#include <cstdint>
#include <functional>
#include <memory>

#include "Controller.h"

class QCheckBox;
class QComboBox;
class QDoubleSpinBox;
class QGroupBox;
class QLabel;
class QPushButton;
class QSlider;
class QSpinBox;
class QTabWidget;

namespace Merivane {

class AnnotationModel;
class DataModel;
class DisplayWidgetMultiAdapter;
class GlCircle;
class GlLabelRenderer;
class InteractiveObject;
class InteractiveSegmentationAlgorithm;
class SectionWidget;
class SharedImage;
class SharedImageSet;
namespace GUI {
template <typename T>
class TypedViewObject;
}
namespace Seg {
class LabelingManipulator;
}

class InteractiveSegmentationController : public QWidget, public AlgorithmController {
  Q_OBJECT
 public:
  // Without views or models given, the window's are used (none in programs without one).
  explicit InteractiveSegmentationController(InteractiveSegmentationAlgorithm* algorithm,
                                             DisplayWidgetMultiAdapter* views = nullptr, DataModel* model = nullptr,
                                             AnnotationModel* annotations = nullptr);
  ~InteractiveSegmentationController() override;
  int init() override;
  std::string title() const override { return "Interactive Segmentation"; }

  // Optional keys: "adaptiveness" (the Adaptiveness slider) and "pyramidMinLevel" (the
  // Resolution slider, as Num Levels - value + 1).
  void configure(const Properties* properties) override;
  // Writes nothing: the panel's settings live in the algorithm's own configuration.
  void configuration(Properties* properties) const override;
  // Shows the overlay and the brush while the selection holds the image or its labels.
  void onSelectedDataChanged(const DataList& selection) override;

  void setAllowMultipleLabels(bool allow);
  int exportResolution() const;
  void setExportResolution(int value);
  int exportSmoothness() const;
  void setExportSmoothness(int value);
  // Forgets the label image worked on (until the next selectionChanged).
  void cleanLabels();
  // Follows the image's focused frame: its label frame becomes the one painted and shown.
  void selectionChanged();
  // The label set of the data list went: a fresh, empty one of the panel's takes its place.
  void dataDeleted(const Data* data);

  // Mesh or contour spacing of the exports in mm: ((slider - 1) / 2.5 + 1) times the mean
  // spacing (of x and y for a 2D image); 1 without an image.
  double getExportResolutionSetting() const;
  // Superpixel count for the slider: the pixel count times (slider / 100)^4, rounded.
  int getSuperpixelsSetting() const;

  // -1 not painting, 0 erasing, 1 painting the object, 2 painting its background.
  int drawMode() const { return drawMode_; }
  bool labelsModified() const { return labelsModified_; }
  bool labelsInDataList() const { return labelsInDataList_; }
  SharedImageSet* labelSet() const;
  SharedImage* labelMap() const { return labelMap_; }
  // The painting tool; null before the first stroke or edit.
  Seg::LabelingManipulator* manipulator() const { return manipulator_.get(); }
  GlLabelRenderer* labelRenderer() const;
  // What "Initialize from Existing Segmentation" offers: the surfaces of the data list, and for
  // a 2D image the curves among the annotations; "<None available>" when there is none.
  QStringList refinementSources() const;
  // Seeds from the source of that name (a narrow band of "Narrow Band Width" round it).
  bool initFromSegmentation(const QString& source);

  // The memory estimate as shown: "N/A", "~N B" up to 1000 bytes, then KB, MB (no decimals,
  // thousands counted by whole kilobytes) and GB (one decimal).
  static QString memoryText(uint64_t bytes);
  // An area or a volume as shown: mm² or mm³, or above 10000 divided by 1000 in cm² or cm³.
  static QString sizeText(double value, bool volume);

 public slots:
  // Each toggles its mode: pressing the active one stops painting.
  void onDrawIn();
  void onDrawOut();
  void onDrawErase();
  void onUndo();
  void onClear();
  void onDrawContour();
  void onRemoveContour();
  void onConvertContour();
  void onInitFromSegmentation();
  void onRunSeg(bool stopFirst = true);
  void onAcceptSeg(bool accept = true);
  void onAcceptSegAndContinue();
  void onSetSize(int size);
  void onSetBrushAdaptiveness(int value);
  void onSetTransparency(int value);
  void onToggleAvoidOtherLabels(bool checked);
  void onMemoryEstimationChange();
  void onAdaptivenessChange(int value);
  void onSuperpixelsChange();
  void onResolutionChange();
  void onSmoothnessChange(int value);
  void onExportLabelMap();
  void onExportAnnotation();
  void onChangeStats();
  void updateStats();
  void resetStats();

 protected:
  // The space bar switches between painting the object and its background.
  bool eventFilter(QObject* watched, QEvent* event) override;

 private:
  class SpaceKeyHandler;

  void buildPanel();
  void toggleMode(int mode);
  void startDrawing(int mode);
  void stopDrawing(bool updateStatistics, bool prepare);
  bool switchByKey();
  bool ensureManipulator();
  void attachManipulator();
  void detachManipulator();
  void prepareAlgorithm();
  void computeAlgorithm();
  // Runs `change` on the labels as one undo step; `isSeedEdit` says whether it counts as a
  // change of the seeds since the last run.
  void recordStep(const char* what, const std::function<void()>& change, bool isSeedEdit);
  bool acceptStep(bool accept, bool andContinue);
  void ensureLabelColors();
  void hideAcceptButtons();
  void refresh();
  void showRenderer(bool show);
  bool is3D() const;
  int objectLabel() const;
  DataModel* model() const;
  DisplayWidgetMultiAdapter* views() const;
  AnnotationModel* annotations() const;

  InteractiveSegmentationAlgorithm* segmentation_;
  DisplayWidgetMultiAdapter* views_;
  DataModel* model_;
  AnnotationModel* annotations_;

  std::unique_ptr<GlLabelRenderer> ownRenderer_;  // when the window shows no overlay of the labels
  GlLabelRenderer* windowRenderer_ = nullptr;
  SharedImage* labelMap_ = nullptr;
  std::unique_ptr<GlCircle> cursor_;
  std::unique_ptr<Seg::LabelingManipulator> manipulator_;
  std::unique_ptr<SpaceKeyHandler> keyHandler_;
  std::unique_ptr<GUI::TypedViewObject<GlCircle>> manipulatorObject_;
  InteractiveObject* contourObject_ = nullptr;
  InteractiveObject* diagonalObject_ = nullptr;
  int drawMode_ = -1;
  bool labelsInDataList_ = false;
  bool labelsModified_ = false;     // labels changed since the statistics were last shown
  bool staleRun_ = false;           // seeds changed since the last run or accept
  bool allowMultipleLabels_ = true;
  bool rendererShown_ = false;

  SectionWidget* sections_ = nullptr;
  QTabWidget* tabs_ = nullptr;
  QSpinBox* brushSize_ = nullptr;
  QSlider* brushAdaptiveness_ = nullptr;
  QLabel* brushAdaptivenessLabel_ = nullptr;
  QSlider* transparency_ = nullptr;
  QLabel* transparencyLabel_ = nullptr;
  QCheckBox* avoidOtherLabels_ = nullptr;
  QPushButton* drawIn_ = nullptr;
  QPushButton* drawOut_ = nullptr;
  QPushButton* erase_ = nullptr;
  QPushButton* removeContour_ = nullptr;
  QPushButton* convertContour_ = nullptr;
  QPushButton* refine_ = nullptr;
  QDoubleSpinBox* narrowBand_ = nullptr;
  QPushButton* accept_ = nullptr;
  QPushButton* acceptContinue_ = nullptr;
  QWidget* parametersWidget_ = nullptr;
  QSlider* resolution_ = nullptr;
  QLabel* computationSize_ = nullptr;
  QSlider* adaptiveness_ = nullptr;
  QSpinBox* adaptivenessBox_ = nullptr;
  QSlider* superpixels_ = nullptr;
  QLabel* superpixelsLabel_ = nullptr;
  QSlider* exportResolution_ = nullptr;
  QLabel* exportResolutionLabel_ = nullptr;
  QSlider* smoothness_ = nullptr;
  QLabel* smoothnessLabel_ = nullptr;
  QCheckBox* closeAnnotation_ = nullptr;
  QGroupBox* statistics_ = nullptr;
  QComboBox* statisticsEntry_ = nullptr;
  QLabel* surfaceName_ = nullptr;
  QLabel* surfaceValue_ = nullptr;
  QLabel* meanValue_ = nullptr;
  QLabel* rangeValue_ = nullptr;
};

}  // namespace Merivane
