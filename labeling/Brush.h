#pragma once
// The paint brush on the host's views: turns pointer events on slice views into strokes of a
// Seg::LabelPainter, shows the brush as a circle under the pointer and previews what a dab
// would paint as the outline of the painter's stencil.
//
// A stroke runs from the first event with a button down to the first event without one. The
// first (left) button paints the painter's label, the second (middle) one erases whatever
// label lies under the brush. Each event paints the segment from the last position to the
// present one, so fast moves leave no gaps. The label map changes at every event of a stroke;
// whoever keeps its history records one undo step between strokeStarted and strokeFinished.
//
// With "paint in 2D" a stroke in a slice view stays on the slice shown; elsewhere, and with
// it off, the brush is a ball. The brush takes every event it sees while enabled, so the
// view does not pan or place its crosshair under it. GUI thread only, with the GL context
// available while painting. The views must outlive the brush, or the brush be disabled first.
#include <Eigen/Core>
#include <memory>
#include <optional>
#include <vector>

#include "Signal.h"
#include "ViewObject.h"

namespace Merivane {
class DisplayWidgetMultiAdapter;
class DummyGlObject;
class GlCircle;
class GlIsolineRenderer;
class GlView;
namespace GUI {
class View;
}
}  // namespace Merivane

namespace Merivane::Seg {

class LabelPainter;
class LambdaEventHandler;

class Brush : public SignalReceiver {
 public:
  // On the views of a display (which may change their list later), or on a fixed list.
  Brush(DisplayWidgetMultiAdapter& views, LabelPainter& painter);
  Brush(std::vector<GUI::View*> views, LabelPainter& painter);
  ~Brush() override;
  Brush(const Brush&) = delete;
  Brush& operator=(const Brush&) = delete;

  // The views worked on; with `sliceViewsOnly`, those that show a slice.
  std::vector<GUI::View*> views(bool sliceViewsOnly = false) const;
  LabelPainter& painter() const { return painter_; }

  // Attaches the brush to every slice view (its handler, and the previews that are on).
  void enable();
  // Detaches it again and forgets the last position; a stroke under way ends at the next
  // event without a button.
  void disable();
  bool isEnabled() const { return enabled_; }

  void setShowIsolinePreview(bool show);
  bool showIsolinePreview() const { return showIsolinePreview_; }
  void setShowCirclePreview(bool show);
  bool showCirclePreview() const { return showCirclePreview_; }
  // Moves the slice views to each painted position.
  void setLinkViews(bool link) { linkViews_ = link; }
  bool linkViews() const { return linkViews_; }
  void setPaintIn2D(bool paintIn2D) { paintIn2D_ = paintIn2D; }
  bool paintIn2D() const { return paintIn2D_; }
  // Colour of the circle and of the isoline (RGBA, 0 to 1).
  void setPreviewColor(const Eigen::Vector4d& color);

  // Forwarded to the painter; the views are redrawn.
  void setLabel(int label);
  void setRadiusMM(float radius);
  void setAdaptiveness(float adaptiveness);
  void setFilter(bool filter);

  bool isPainting() const { return painting_; }
  const std::optional<Eigen::Vector3d>& lastPosition() const { return lastPosition_; }
  const std::optional<Eigen::Vector3d>& lastSliceNormal() const { return lastSliceNormal_; }

  const GlCircle& circle() const { return *circle_; }
  const GlIsolineRenderer& isolineRenderer() const { return *isolines_; }
  // The object that carries the brush's event handler; attach it to views the brush does not
  // attach itself to (a 3D view), or hand it events directly.
  GUI::ViewObject& viewObject() const { return *viewObject_; }

  // The brush's reaction to one pointer event; see the class comment.
  GUI::EventResult handleEvent(bool firstButton, bool secondButton, const Eigen::Vector3d& world, const GlView& view);

  Signal<> strokeStarted;
  Signal<bool> painted;  // true for painting, false for erasing
  Signal<> strokeFinished;

 private:
  // Tells the isoline preview where the stencil of the segment from `a` to `b` can be non-zero.
  void setPreviewRegion(const Eigen::Vector3d& a, const Eigen::Vector3d& b);
  void connectPainter();
  void attach(GUI::View& view);
  void detach(GUI::View& view);
  void showCircleOnView(const Eigen::Vector3d& world, const GlView& view);
  void updateViews() const;

  std::unique_ptr<DisplayWidgetMultiAdapter> ownAdapter_;
  DisplayWidgetMultiAdapter* adapter_;
  LabelPainter& painter_;
  bool enabled_ = false;
  bool showIsolinePreview_ = true;
  bool showCirclePreview_ = false;
  bool linkViews_ = true;
  bool paintIn2D_ = false;
  std::unique_ptr<GlCircle> circle_;
  std::unique_ptr<GlIsolineRenderer> isolines_;
  std::unique_ptr<DummyGlObject> dummy_;
  std::unique_ptr<LambdaEventHandler> handler_;
  std::unique_ptr<GUI::TypedViewObject<DummyGlObject>> viewObject_;
  std::optional<Eigen::Vector3d> lastPosition_;
  std::optional<Eigen::Vector3d> lastSliceNormal_;
  bool painting_ = false;
  // Views the brush attached itself to, so that disable undoes exactly that.
  std::vector<GUI::View*> attached_;
};

}  // namespace Merivane::Seg
