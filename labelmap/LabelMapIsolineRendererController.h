#pragma once
// The panel of the isoline view: the line thickness in screen pixels. It shows the algorithm's
// renderer in the window's slice views while it lives.
#include <QWidget>

#include "Controller.h"

class QSpinBox;
class QSlider;

namespace Merivane {

class LabelMapIsolineRenderer;

class LabelMapIsolineRendererController : public QWidget, public AlgorithmController {
  Q_OBJECT
 public:
  explicit LabelMapIsolineRendererController(LabelMapIsolineRenderer* algorithm);
  ~LabelMapIsolineRendererController() override;
  int init() override;
  QSpinBox* thickness() const { return spin_; }

 private:
  LabelMapIsolineRenderer* isolines_;
  QSpinBox* spin_ = nullptr;
  QSlider* slider_ = nullptr;
  bool shown_ = false;
};

}  // namespace Merivane
