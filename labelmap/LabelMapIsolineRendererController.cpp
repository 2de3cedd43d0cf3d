#include "LabelMapIsolineRendererController.h"

#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QSlider>
#include <QSpinBox>
#include <cmath>

#include "GlLabelRenderer.h"
#include "LabelMapIsolineRenderer.h"
#include "MainWindowBase.h"

namespace Merivane {

namespace {
// Outlines from a hairline to a broad band; wider ones hide what they outline.
constexpr int kMinPx = 1, kMaxPx = 20;
}

LabelMapIsolineRendererController::LabelMapIsolineRendererController(LabelMapIsolineRenderer* algorithm)
    : QWidget(nullptr), AlgorithmController(algorithm), isolines_(algorithm) {}

LabelMapIsolineRendererController::~LabelMapIsolineRendererController() {
  if (shown_)
    if (MainWindowBase* window = MainWindowBase::instance()) {
      window->removeObject(isolines_->renderer());
      window->updateViews();
    }
}

int LabelMapIsolineRendererController::init() {
  auto* form = new QFormLayout(this);
  auto* row = new QHBoxLayout;
  spin_ = new QSpinBox(this);
  spin_->setSuffix("px");
  spin_->setRange(kMinPx, kMaxPx);
  slider_ = new QSlider(Qt::Horizontal, this);
  slider_->setRange(kMinPx, kMaxPx);
  row->addWidget(spin_);
  row->addWidget(slider_, 1);
  form->addRow(new QLabel("Line thickness: ", this), row);
  const int now = static_cast<int>(std::lround(isolines_->renderer()->thicknessPx()));
  spin_->setValue(now);
  slider_->setValue(now);
  connect(slider_, &QSlider::valueChanged, spin_, &QSpinBox::setValue);
  connect(spin_, QOverload<int>::of(&QSpinBox::valueChanged), this, [this](int px) {
    slider_->setValue(px);
    isolines_->renderer()->setThicknessPx(px);
    if (MainWindowBase* window = MainWindowBase::instance()) window->updateViews();
  });
  if (MainWindowBase* window = MainWindowBase::instance()) {
    window->addSliceObject(isolines_->renderer());
    shown_ = true;
  }
  return 0;
}

}  // namespace Merivane
