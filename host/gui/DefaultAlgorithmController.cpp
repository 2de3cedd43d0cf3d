#include "DefaultAlgorithmController.h"

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QClipboard>
#include <QDoubleSpinBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QProgressBar>
#include <QPushButton>
#include <QSpinBox>
#include <QTimer>
#include <QVBoxLayout>
#include <QtConcurrent/QtConcurrent>
#include <cmath>
#include <limits>

#include "Algorithm.h"
#include "DataModel.h"
#include "Log.h"
#include "Parameter.h"
#include "Progress.h"
#include "Properties.h"
#include "QtHelpers.h"

namespace Merivane {

namespace {

double attributeNumber(const ParameterBase& p, const char* key, double fallback) {
  const std::string text = p.attribute(key);
  if (text.empty()) return fallback;
  try {
    return std::stod(text);
  } catch (...) {
    return fallback;
  }
}

QString tooltipOf(const ParameterBase& p) {
  QString tip = QString::fromStdString(p.name());
  const std::string lo = p.attribute("min"), hi = p.attribute("max");
  if (!lo.empty() || !hi.empty())
    tip += QString(" (%1 to %2)").arg(lo.empty() ? "-inf" : QString::fromStdString(lo),
                                      hi.empty() ? "inf" : QString::fromStdString(hi));
  const std::string help = p.attribute("tooltip");
  if (!help.empty()) tip += "\n" + QString::fromStdString(help);
  return tip;
}

template <typename T>
bool isA(ParameterBase* p) {
  return dynamic_cast<Parameter<T>*>(p) != nullptr;
}

}  // namespace

DefaultAlgorithmController::DefaultAlgorithmController(Algorithm* algorithm, const QString& title, bool flag1,
                                                       bool flag2)
    : QWidget(nullptr), AlgorithmController(algorithm), title_(title), flag1_(flag1), flag2_(flag2) {
  auto* outer = new QVBoxLayout(this);
  form_ = new QFormLayout;
  outer->addLayout(form_);
  auto* buttons = new QHBoxLayout;
  compute_ = new QPushButton(tr("Compute"), this);
  cancel_ = new QPushButton(tr("Cancel"), this);
  cancel_->setEnabled(false);
  buttons->addWidget(compute_);
  buttons->addWidget(cancel_);
  outer->addLayout(buttons);
  bar_ = new QProgressBar(this);
  bar_->setVisible(false);
  outer->addWidget(bar_);
  status_ = new QLabel(this);
  status_->setWordWrap(true);
  outer->addWidget(status_);
  outer->addStretch(1);
  poll_ = new QTimer(this);
  poll_->setInterval(50);
  connect(poll_, &QTimer::timeout, this, &DefaultAlgorithmController::pollProgress);
  connect(compute_, &QPushButton::clicked, this, &DefaultAlgorithmController::onCompute);
  connect(cancel_, &QPushButton::clicked, this, [this] {
    if (progress_) progress_->cancelAllTasks();
  });
  connect(&watcher_, &QFutureWatcher<void>::finished, this, &DefaultAlgorithmController::onComputeDone);
  setWindowTitle(title_);
}

DefaultAlgorithmController::~DefaultAlgorithmController() {
  cancelAndWait();
  if (dataModel_)
    for (Data* d : busyInputs_) dataModel_->setBusy(d, false);
}

int DefaultAlgorithmController::init() {
  buildForm();
  return 0;
}

void DefaultAlgorithmController::buildForm() {
  if (!algorithm_) return;
  for (ParameterBase* p : algorithm_->parameters()) {
    const std::string name = p->name();
    const QString label = QString::fromStdString(p->label().empty() ? name : p->label());
    QWidget* editor = nullptr;
    if (auto* b = dynamic_cast<Parameter<bool>*>(p)) {
      auto* box = new QCheckBox(this);
      box->setChecked(b->value());
      connect(box, &QCheckBox::toggled, this, [this, b, name](bool on) {
        if (updating_) return;
        b->setValue(on);
        onParameterChanged(name);
      });
      editor = box;
    } else if (isA<int>(p) && !p->attribute("values").empty()) {
      // An enumeration: "Default, Fixed, Scientific" names the values 0, 1, 2.
      auto* box = new QComboBox(this);
      for (const QString& v : QString::fromStdString(p->attribute("values")).split(','))
        box->addItem(v.trimmed());
      box->setCurrentIndex(std::stoi(p->text()));
      connect(box, QOverload<int>::of(&QComboBox::currentIndexChanged), this,
              [this, p, name](int v) { setFromText(p, name, std::to_string(v)); });
      editor = box;
    } else if (isA<int>(p) || isA<unsigned int>(p)) {
      auto* box = new QSpinBox(this);
      box->setRange(static_cast<int>(std::max(-2147483647.0, attributeNumber(*p, "min", -2147483647.0))),
                    static_cast<int>(std::min(2147483647.0, attributeNumber(*p, "max", 2147483647.0))));
      box->setValue(std::stoi(p->text()));
      connect(box, QOverload<int>::of(&QSpinBox::valueChanged), this,
              [this, p, name](int v) { setFromText(p, name, std::to_string(v)); });
      editor = box;
    } else if (isA<double>(p) || isA<float>(p)) {
      auto* box = new QDoubleSpinBox(this);
      box->setDecimals(6);
      box->setRange(attributeNumber(*p, "min", -1e12), attributeNumber(*p, "max", 1e12));
      box->setValue(std::stod(p->text()));
      connect(box, QOverload<double>::of(&QDoubleSpinBox::valueChanged), this,
              [this, p, name](double v) { setFromText(p, name, QString::number(v, 'g', 17).toStdString()); });
      editor = box;
    } else {
      // Text, vectors and the rest: the value as Properties write it.
      auto* line = new QLineEdit(QString::fromStdString(p->text()), this);
      const std::string kind = p->attribute("type");
      if (kind == "SaveFile" || kind == "OpenFile") {
        // A path: a button beside the text opens the file dialog.
        auto* row = new QWidget(this);
        auto* h = new QHBoxLayout(row);
        h->setContentsMargins(0, 0, 0, 0);
        line->setParent(row);
        h->addWidget(line, 1);
        auto* browse = new QPushButton("...", row);
        browse->setObjectName(QString::fromStdString(name + ".browse"));
        h->addWidget(browse);
        const QString filter = QString::fromStdString(p->attribute("filter"));
        connect(browse, &QPushButton::clicked, this, [this, line, kind, filter] {
          const QString path = kind == "SaveFile"
                                   ? QtHelpers::getSaveFilename(this, tr("Save"), line->text(), filter)
                                   : QFileDialog::getOpenFileName(this, tr("Open"), line->text(), filter);
          if (path.isEmpty()) return;
          line->setText(path);
          emit line->editingFinished();
        });
        line->setToolTip(tooltipOf(*p));
        line->setObjectName(QString::fromStdString(name));
        connect(line, &QLineEdit::editingFinished, this,
                [this, p, line, name] { setFromText(p, name, line->text().toStdString()); });
        editors_[name] = line;
        form_->addRow(label, row);
        continue;
      }
      connect(line, &QLineEdit::editingFinished, this, [this, p, line, name] {
        if (updating_) return;
        const std::string text = line->text().toStdString();
        if (!p->canRead(text)) {
          line->setText(QString::fromStdString(p->text()));
          status_->setText(tr("'%1' is not a value of %2").arg(line->text(), QString::fromStdString(name)));
          return;
        }
        setFromText(p, name, text);
      });
      editor = line;
    }
    editor->setToolTip(tooltipOf(*p));
    editor->setObjectName(QString::fromStdString(name));
    editors_[name] = editor;
    form_->addRow(label, editor);
  }
}

void DefaultAlgorithmController::setFromText(ParameterBase* p, const std::string& name, const std::string& text) {
  if (updating_) return;
  Properties props;
  props.setParam(name, text);
  p->configure(&props);
  onParameterChanged(name);
}

void DefaultAlgorithmController::updatePropertiesWidget() {
  if (!algorithm_) return;
  updating_ = true;
  for (ParameterBase* p : algorithm_->parameters()) {
    auto it = editors_.find(p->name());
    if (it == editors_.end()) continue;
    QWidget* w = it->second;
    const std::string text = p->text();
    if (auto* box = qobject_cast<QCheckBox*>(w))
      box->setChecked(dynamic_cast<Parameter<bool>*>(p)->value());
    else if (auto* combo = qobject_cast<QComboBox*>(w))
      combo->setCurrentIndex(std::stoi(text));
    else if (auto* spin = qobject_cast<QSpinBox*>(w))
      spin->setValue(std::stoi(text));
    else if (auto* dspin = qobject_cast<QDoubleSpinBox*>(w))
      dspin->setValue(std::stod(text));
    else if (auto* line = qobject_cast<QLineEdit*>(w))
      line->setText(QString::fromStdString(text));
  }
  updating_ = false;
}

void DefaultAlgorithmController::onAlgorithmParametersChanged() { updatePropertiesWidget(); }

void DefaultAlgorithmController::onParameterChanged(const std::string& name) {
  const ParameterBase* p = algorithm_ ? algorithm_->parameter(name) : nullptr;
  const std::string why = p ? p->rangeError() : std::string();
  status_->setText(why.empty() ? QString() : QString::fromStdString(name + ": " + why));
}

void DefaultAlgorithmController::copyAlgorithmConfiguration() {
  if (!algorithm_) return;
  Properties props;
  algorithm_->configuration(&props);
  std::string text;
  if (PropertiesIO::saveToString(props, PropertiesIO::Format::Xml, text))
    QApplication::clipboard()->setText(QString::fromStdString(text));
}

void DefaultAlgorithmController::pasteAlgorithmConfiguration() {
  if (!algorithm_) return;
  std::string error;
  auto props = PropertiesIO::loadFromString(QApplication::clipboard()->text().toStdString(),
                                            PropertiesIO::Format::Xml, &error);
  if (!props) {
    status_->setText(tr("The clipboard holds no configuration: %1").arg(QString::fromStdString(error)));
    return;
  }
  algorithm_->configure(&*props);
  updatePropertiesWidget();
}

void DefaultAlgorithmController::fillActionMenu(QMenu& menu) {
  menu.addAction(tr("Copy configuration"), this, [this] { copyAlgorithmConfiguration(); });
  menu.addAction(tr("Paste configuration"), this, [this] { pasteAlgorithmConfiguration(); });
  menu.addAction(tr("Reset to defaults"), this, [this] {
    if (!algorithm_) return;
    algorithm_->configureDefaults();
    updatePropertiesWidget();
  });
}

void DefaultAlgorithmController::onCompute() {
  if (!algorithm_ || computing_) return;
  computing_ = true;
  progress_ = std::make_unique<Progress>();
  algorithm_->setProgress(progress_.get());
  compute_->setEnabled(false);
  cancel_->setEnabled(true);
  bar_->setVisible(true);
  bar_->setRange(0, 0);
  status_->setText(tr("Computing..."));
  emit computeStarted();
  if (dataModel_) {
    busyInputs_ = algorithm_->factoryInfo().input.items();
    for (Data* d : busyInputs_) dataModel_->setBusy(d, true);
  }
  Algorithm* a = algorithm_;
  watcher_.setFuture(QtConcurrent::run([a] {
    try {
      a->compute();
    } catch (const std::exception& e) {
      LOG_ERROR("DefaultAlgorithmController", "compute failed: " << e.what());
    }
  }));
  poll_->start();
}

void DefaultAlgorithmController::pollProgress() {
  if (!progress_) return;
  for (const auto& t : progress_->tasks()) {
    if (!t->visible) continue;
    bar_->setFormat(QString::fromStdString(t->text) + " %p%");
    bar_->setRange(0, t->busy ? 0 : std::max(1, t->steps.load()));
    if (!t->busy) bar_->setValue(std::min(t->current.load(), std::max(1, t->steps.load())));
    break;
  }
}

void DefaultAlgorithmController::onComputeDone() {
  computing_ = false;
  poll_->stop();
  if (dataModel_)
    for (Data* d : busyInputs_) dataModel_->setBusy(d, false);
  busyInputs_.clear();
  bar_->setVisible(false);
  compute_->setEnabled(true);
  cancel_->setEnabled(false);
  const bool canceled = progress_ && progress_->isCanceled();
  algorithm_->setProgress(nullptr);
  progress_.reset();
  lastStatus_ = algorithm_->status();
  if (canceled || lastStatus_ == Algorithm::statusCanceled)
    status_->setText(tr("Cancelled"));
  else if (lastStatus_ == Algorithm::statusSuccess || lastStatus_ == Algorithm::statusUnknown)
    status_->setText(tr("Done"));
  else
    status_->setText(tr("Failed with status %1: see the log").arg(lastStatus_));
  if (lastStatus_ == Algorithm::statusSuccess || lastStatus_ == Algorithm::statusUnknown) postprocessOutput(algorithm_->takeOutput());
  onComputeFinished(lastStatus_);
  emit computeFinished(lastStatus_);
}

void DefaultAlgorithmController::postprocessOutput(OwningDataList output) {
  if (dataModel_ && !output.empty()) dataModel_->add(std::move(output));
}

void DefaultAlgorithmController::cancelAndWait() {
  if (!watcher_.isRunning()) return;
  if (progress_) progress_->cancelAllTasks();
  watcher_.waitForFinished();
}

}  // namespace Merivane
