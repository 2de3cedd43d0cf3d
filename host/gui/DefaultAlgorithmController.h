#pragma once
// The panel every algorithm gets when it has no panel of its own: a form with one control per
// parameter (check box, spin box, text), tooltips with the key and the accepted range, a
// Compute button, a progress bar with Cancel, and the outputs moved into the data model.
// Computing runs on a worker thread; `computeStarted` and `computeFinished` bracket it so the
// window can keep its hands off the data meanwhile.
#include <QFutureWatcher>
#include <QString>
#include <QWidget>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Controller.h"

class QFormLayout;
class QLabel;
class QMenu;
class QProgressBar;
class QPushButton;
class QTimer;

namespace Merivane {

class DataModel;
class Progress;
class OwningDataList;
class ParameterBase;

class DefaultAlgorithmController : public QWidget, public AlgorithmController {
  Q_OBJECT
 public:
  // The two flags are kept for the host's use and do not change the panel.
  DefaultAlgorithmController(Algorithm* algorithm, const QString& title, bool flag1 = false, bool flag2 = false);
  ~DefaultAlgorithmController() override;

  std::string title() const override { return title_.toStdString(); }
  int init() override;
  virtual void copyAlgorithmConfiguration();
  virtual void pasteAlgorithmConfiguration();
  virtual void fillActionMenu(QMenu& menu);
  void onAlgorithmParametersChanged() override;
  void onAlgorithmOutputChanged() override {}
  // Moves the outputs into the data model (kept in the panel when there is none).
  virtual void postprocessOutput(OwningDataList output);
  void duplicateAlgorithmOnSelectedData() override {}
  // The form, to which panels add rows.
  QFormLayout* layout() const { return form_; }

  void setDataModel(DataModel* model) { dataModel_ = model; }
  DataModel* dataModel() const { return dataModel_; }
  bool flag1() const { return flag1_; }
  bool flag2() const { return flag2_; }
  // From onCompute until computeFinished has been emitted (also while the finished worker's
  // result waits in the event queue).
  bool isComputing() const { return computing_; }
  // Cancels a running computation and waits for it.
  void cancelAndWait();
  // Status of the last computation, -1 before the first.
  int lastStatus() const { return lastStatus_; }

 public slots:
  virtual void onCompute();
  virtual void updatePropertiesWidget();
  virtual void onParameterChanged(const std::string& name);

 protected:
  // Called on the interface thread when a computation has ended, after the outputs went to the
  // data model and before computeFinished; panels add what they show of the result.
  virtual void onComputeFinished(int status) {}

 signals:
  void computeStarted();
  void computeFinished(int status);

 private slots:
  void onComputeDone();
  void pollProgress();

 private:
  void buildForm();
  // Gives the parameter a value written as Properties write it, as a control changed it.
  void setFromText(ParameterBase* p, const std::string& name, const std::string& text);
  QString title_;
  bool flag1_, flag2_;
  QFormLayout* form_ = nullptr;
  QPushButton* compute_ = nullptr;
  QPushButton* cancel_ = nullptr;
  QProgressBar* bar_ = nullptr;
  QLabel* status_ = nullptr;
  QTimer* poll_ = nullptr;
  std::map<std::string, QWidget*> editors_;
  std::unique_ptr<Progress> progress_;
  QFutureWatcher<void> watcher_;
  DataModel* dataModel_ = nullptr;
  std::vector<Data*> busyInputs_;  // marked busy in the data model while computing
  int lastStatus_ = -1;
  bool computing_ = false;
  bool updating_ = false;
};

}  // namespace Merivane
