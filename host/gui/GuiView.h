#pragma once
// GUI::View: one GlView with the view objects whose handlers see its pointer events first,
// and the navigation a user expects when no handler takes an event.
//   slice views: wheel scrolls slices (Ctrl: zoom at the cursor), left button places the
//   crosshair, right drag sets window (horizontal) and level (vertical), middle drag or
//   Shift + left drag pans, Alt + left drag tilts the plane about its centre (oblique);
//   3D view: left drag orbits, middle drag or Shift + left drag pans, wheel zooms.
// No Qt here: widgets translate their events into GUI::InputEvent.
#include <functional>
#include <memory>
#include <vector>

#include "GlView.h"
#include "ViewObject.h"

namespace Merivane::GUI {

class View {
 public:
  explicit View(std::unique_ptr<GlView> view);
  ~View();
  View(const View&) = delete;
  View& operator=(const View&) = delete;

  GlView& view() { return *view_; }
  const GlView& view() const { return *view_; }
  GlSliceView* sliceView() { return dynamic_cast<GlSliceView*>(view_.get()); }
  GlVolumeView* volumeView() { return dynamic_cast<GlVolumeView*>(view_.get()); }

  // A view object's GlObject is drawn, and its handler (if any) asked about events; later
  // objects are asked first. Neither is owned. Adding twice does nothing.
  void addViewObject(ViewObject* object);
  void removeViewObject(const ViewObject* object);
  const std::vector<ViewObject*>& viewObjects() const { return viewObjects_; }

  // Handlers first, then navigation. Accepted when someone used the event.
  EventResult dispatch(const InputEvent& event);

  // Asks whoever shows the view to draw it again.
  void update() const {
    if (onUpdate) onUpdate();
  }
  std::function<void()> onUpdate;
  // Navigation hooks that need more than the view: the crosshair (left click in a slice
  // view) and window/level drags (pixels moved).
  std::function<void(const Eigen::Vector3d&)> onCrosshair;
  std::function<void(const Eigen::Vector2d&)> onWindowLevel;
  // Every pointer move, with its world position, for read-outs.
  std::function<void(const Eigen::Vector3d&)> onPointer;

 private:
  bool navigate(const InputEvent& event);
  std::unique_ptr<GlView> view_;
  std::vector<ViewObject*> viewObjects_;
  Eigen::Vector2d last_ = Eigen::Vector2d::Zero();
  enum class Drag { None, Crosshair, WindowLevel, Pan, Orbit, Tilt } drag_ = Drag::None;
};

}  // namespace Merivane::GUI

namespace Merivane {

// The lines through the linked point in each slice view (with a gap round the point).
class GlCrosshair : public GlObject {
 public:
  Eigen::Vector3d position = Eigen::Vector3d::Zero();
  Eigen::Vector4f color = Eigen::Vector4f(0.2f, 0.8f, 1.0f, 0.6f);
  double gapPx = 8.0;
  void draw(const GlView& view) override;
  std::string typeName() const override { return "GlCrosshair"; }
};

class SharedImageSet;

// The views of a display widget, for tools that work on every view at once: the brush, the
// labeling tool, the crosshair.
class DisplayWidgetMultiAdapter {
 public:
  DisplayWidgetMultiAdapter() = default;
  explicit DisplayWidgetMultiAdapter(std::vector<GUI::View*> views) : views_(std::move(views)) {}

  const std::vector<GUI::View*>& views() const { return views_; }
  void setViews(std::vector<GUI::View*> views) { views_ = std::move(views); }
  std::vector<GlSliceView*> sliceViews() const;

  // Moves every slice view's plane through `world` (to the nearest voxel centre of `image`
  // along the plane's normal when given), and the crosshair there.
  void centerSliceViewsAt(const Eigen::Vector3d& world, const SharedImageSet* image = nullptr);
  // Redraws all views.
  void update() const;

  GlCrosshair& crosshair() { return crosshair_; }

 private:
  std::vector<GUI::View*> views_;
  GlCrosshair crosshair_;
};

}  // namespace Merivane
