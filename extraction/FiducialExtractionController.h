#pragma once
// The panel of fiducial extraction: the detector's settings, Extract (on a worker thread
// behind a cancelable progress dialog, after a click on the marker when the detection is not
// global), and an editable list of fiducials shown as circles in the slice views. The list is
// sorted, reordered, thinned by hand, exported to and imported from the fiducial text file,
// and exported as point annotations.
#include <QWidget>
#include <map>
#include <memory>
#include <vector>

#include <Eigen/Core>

#include "Controller.h"
#include "FiducialExtractionAlgorithm.h"
#include "PointCloud.h"

class QCheckBox;
class QComboBox;
class QDoubleSpinBox;
class QLabel;
class QListWidget;
class QListWidgetItem;
class QSpinBox;

namespace Merivane {

class GlCircle;

class FiducialExtractionController : public QWidget, public AlgorithmController {
  Q_OBJECT
 public:
  using Fiducial = FiducialExtractionAlgorithm::Fiducial;
  // List rows keep their fiducial's id under this role.
  static constexpr int IdRole = Qt::UserRole + 1;

  explicit FiducialExtractionController(FiducialExtractionAlgorithm* algorithm);
  ~FiducialExtractionController() override;
  int init() override;
  std::string title() const override { return "Fiducial Extraction"; }
  void onAlgorithmOutputChanged() override;

  void addFiducial(const Fiducial& fiducial);
  // The fiducials in list order.
  std::vector<Fiducial> fiducials() const;
  // The centres in list order, as shown.
  const PointCloud& pointCloud() const { return cloud_; }
  // The selected rows, or all rows when none is selected, to a fiducial text file. False
  // (with a message line) when the file cannot be written.
  bool exportFiducialsToFile(const QString& path);
  // Appends the fiducials of the file; false (with a message line) when it cannot be read.
  bool importFiducialsFromFile(const QString& path);
  // The selected rows, or all, as points named base name, blank, position.
  void exportFiducialsAsLabels(const QString& baseName);
  // The last message shown on the panel (failures), empty when none.
  QString message() const;
  // Status of the last extraction, -1 before the first.
  int lastStatus() const { return lastStatus_; }

 public slots:
  void onCompute();
  void onClearFiducials();
  void onDeleteFiducials();
  void onMoveFiducialsUp();
  void onMoveFiducialsDown();
  void onSortFiducials();
  void onExportFiducialsToFile();
  void onImportFiducialsFromFile();
  void onExportFiducialsAsLabels();
  void onFiducialSelectionChanged();
  void onCenterOnFiducial(QListWidgetItem* item);

 private:
  bool needsStartPoint() const;
  // Waits for a click in a slice view; false when the user gave up (the point was removed).
  bool waitForStartPoint(Eigen::Vector3d& point);
  void setParametersToAlgorithm();
  int currentSlice() const;
  std::vector<QListWidgetItem*> selectedOrAllRows() const;
  void renumberRows();
  void rewritePointCloud();
  void refreshDisplay();
  void showMessage(const QString& text);
  void removeCircle(int id);

  FiducialExtractionAlgorithm* extraction_;
  std::map<int, Eigen::Vector3d> centres_;
  std::map<int, std::unique_ptr<GlCircle>> circles_;
  PointCloud cloud_;
  int nextId_ = 0;
  Eigen::Vector3d clickedPoint_ = Eigen::Vector3d::Zero();
  int lastStatus_ = -1;

  QComboBox* mode_ = nullptr;
  QDoubleSpinBox* minContrast_ = nullptr;
  QDoubleSpinBox* scoreThreshold_ = nullptr;
  QDoubleSpinBox* minCoverage_ = nullptr;
  QLabel* roiSizeLabel_ = nullptr;
  QDoubleSpinBox* roiSize_ = nullptr;
  QDoubleSpinBox* diameter_ = nullptr;
  QSpinBox* sliceStep_ = nullptr;
  QCheckBox* fixedDiameter_ = nullptr;
  QCheckBox* globalDetection_ = nullptr;
  QCheckBox* onlyOnSlice_ = nullptr;
  QListWidget* list_ = nullptr;
  QLabel* message_ = nullptr;
};

}  // namespace Merivane
