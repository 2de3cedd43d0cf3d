#pragma once
// The four-view display: axial, coronal and sagittal slices and the 3D view, linked by one
// crosshair. It draws the reference image (window and level by right drag in any slice view)
// and whatever objects callers add: label overlays, meshes, tool previews.
#include <QWidget>
#include <memory>
#include <vector>

#include "GuiView.h"

namespace Merivane {
class SharedImageSet;
class GlSliceRendererImage;
}

namespace Merivane::GUI {

class ViewWidget;

class MultiViewWidget : public QWidget {
  Q_OBJECT
 public:
  explicit MultiViewWidget(QWidget* parent = nullptr);
  ~MultiViewWidget() override;

  // The image every view shows; null clears. Views fit it and the crosshair goes to its centre.
  void setReferenceImage(SharedImageSet* image);
  SharedImageSet* referenceImage() const { return reference_; }
  GlSliceRendererImage* imageRenderer(int view) const;
  void setWindowLevel(double window, double level);

  DisplayWidgetMultiAdapter& adapter() { return adapter_; }
  // 0 axial, 1 coronal, 2 sagittal, 3 the 3D view.
  View& view(int i) { return *views_[static_cast<size_t>(i)]; }
  ViewWidget* viewWidget(int i) const { return widgets_[static_cast<size_t>(i)]; }

  // Objects drawn over the image in the three slice views, or in the 3D view.
  void addSliceObject(GlObject* object);
  void add3DObject(GlObject* object);
  void removeObject(GlObject* object);

  void setFrozen(bool frozen);
  // The four views drawn now, side by side as on screen.
  QImage grabViews();

 signals:
  // The world point under the pointer and the image value there (NaN outside).
  void pointerMoved(double x, double y, double z, double value);

 public slots:
  void updateViews();

 private:
  void readout(int view, const Eigen::Vector3d& world);
  std::vector<std::unique_ptr<View>> views_;
  std::vector<ViewWidget*> widgets_;
  std::vector<std::unique_ptr<GlSliceRendererImage>> imageRenderers_;
  DisplayWidgetMultiAdapter adapter_;
  SharedImageSet* reference_ = nullptr;
};

}  // namespace Merivane::GUI
