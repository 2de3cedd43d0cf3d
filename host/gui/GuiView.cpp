#include "GuiView.h"

#include <Eigen/Geometry>
#include <algorithm>
#include <cmath>

#include "GlPrimitives.h"
#include "SharedImage.h"
#include "SharedImageSet.h"

namespace Merivane::GUI {

View::View(std::unique_ptr<GlView> view) : view_(std::move(view)) {}

View::~View() = default;

void View::addViewObject(ViewObject* object) {
  if (!object || std::find(viewObjects_.begin(), viewObjects_.end(), object) != viewObjects_.end()) return;
  viewObjects_.push_back(object);
  if (object->object()) view_->addObject(object->object());
}

void View::removeViewObject(const ViewObject* object) {
  auto it = std::find(viewObjects_.begin(), viewObjects_.end(), object);
  if (it == viewObjects_.end()) return;
  if ((*it)->object()) view_->removeObject((*it)->object());
  if ((*it)->eventHandler()) (*it)->eventHandler()->reset();
  viewObjects_.erase(it);
}

EventResult View::dispatch(const InputEvent& event) {
  if (event.isMouse() && onPointer) onPointer(view_->viewState().unproject(event.position, 0.5));
  // Copy: a handler may remove itself or others.
  const auto objects = viewObjects_;
  for (auto it = objects.rbegin(); it != objects.rend(); ++it) {
    if (std::find(viewObjects_.begin(), viewObjects_.end(), *it) == viewObjects_.end()) continue;
    ViewObject::EventHandler* h = (*it)->eventHandler();
    if (h && h->handleInputEvent(event, *view_) == EventResult::Accepted) {
      drag_ = Drag::None;
      return EventResult::Accepted;
    }
  }
  return navigate(event) ? EventResult::Accepted : EventResult::Ignored;
}

bool View::navigate(const InputEvent& e) {
  GlSliceView* sv = sliceView();
  GlVolumeView* vv = volumeView();
  const bool shift = e.modifiers & InputEvent::Shift, ctrl = e.modifiers & InputEvent::Control;
  switch (e.type) {
    case InputEvent::Wheel:
      if (sv) {
        if (ctrl)
          sv->zoom(std::pow(1.15, e.wheelSteps), e.position);
        else
          sv->scroll(e.wheelSteps);
      } else if (vv) {
        vv->zoom(std::pow(1.15, e.wheelSteps));
      }
      update();
      return true;
    case InputEvent::MouseButtonPress:
      last_ = e.position;
      if (e.button == InputEvent::MiddleButton || (e.button == InputEvent::LeftButton && shift))
        drag_ = Drag::Pan;
      else if (e.button == InputEvent::LeftButton && sv && (e.modifiers & InputEvent::Alt))
        drag_ = Drag::Tilt;
      else if (e.button == InputEvent::RightButton && sv)
        drag_ = Drag::WindowLevel;
      else if (e.button == InputEvent::LeftButton && sv)
        drag_ = Drag::Crosshair;
      else if (e.button == InputEvent::LeftButton && vv)
        drag_ = Drag::Orbit;
      else
        return false;
      if (drag_ == Drag::Crosshair && onCrosshair) onCrosshair(view_->viewState().unproject(e.position, 0.5));
      return true;
    case InputEvent::MouseMove: {
      const Eigen::Vector2d d = e.position - last_;
      last_ = e.position;
      switch (drag_) {
        case Drag::None: return false;
        case Drag::Crosshair:
          if (onCrosshair) onCrosshair(view_->viewState().unproject(e.position, 0.5));
          break;
        case Drag::WindowLevel:
          if (onWindowLevel) onWindowLevel(d);
          break;
        case Drag::Pan:
          if (sv) sv->pan(d);
          if (vv) vv->pan(d);
          break;
        case Drag::Orbit:
          if (vv) vv->orbit(d);
          break;
        case Drag::Tilt:
          if (sv) {
            // Sideways turns the plane about the screen's vertical, up and down about its
            // horizontal; a quarter turn per 300 pixels.
            const Slice& s = sv->slice().slice();
            const double k = 1.5707963 / 300.0;
            const Eigen::Matrix3d r = (Eigen::AngleAxisd(d.x() * k, s.yAxis()) *
                                       Eigen::AngleAxisd(-d.y() * k, s.xAxis())).toRotationMatrix();
            sv->setAxes(r * s.xAxis(), r * s.yAxis());
          }
          break;
      }
      update();
      return true;
    }
    case InputEvent::MouseButtonRelease:
      if (drag_ == Drag::None) return false;
      drag_ = Drag::None;
      return true;
    case InputEvent::KeyPress:
      if (sv && (e.key == 0x01000013 || e.key == 0x01000016)) {  // up, page up
        sv->scroll(1);
        update();
        return true;
      }
      if (sv && (e.key == 0x01000015 || e.key == 0x01000017)) {  // down, page down
        sv->scroll(-1);
        update();
        return true;
      }
      return false;
  }
  return false;
}

}  // namespace Merivane::GUI

namespace Merivane {

void GlCrosshair::draw(const GlView& view) {
  auto* sv = dynamic_cast<const GlSliceView*>(&view);
  if (!sv || !position.allFinite()) return;
  const Slice& s = sv->slice().slice();
  const Eigen::Vector3d p = s.projectOnPlane(position);
  const double gap = gapPx * sv->mmPerPixel();
  std::vector<Eigen::Vector3f> seg;
  for (const Eigen::Vector3d& axis : {s.xAxis(), s.yAxis()}) {
    const double half = (axis == s.xAxis() ? s.width() : s.height());
    const double t = axis.dot(p - s.center());
    seg.push_back((p + axis * (-half - std::abs(t))).cast<float>());
    seg.push_back((p - axis * gap).cast<float>());
    seg.push_back((p + axis * gap).cast<float>());
    seg.push_back((p + axis * (half + std::abs(t))).cast<float>());
  }
  GL::drawSegments(view, seg, color, 1.0f);
}

std::vector<GlSliceView*> DisplayWidgetMultiAdapter::sliceViews() const {
  std::vector<GlSliceView*> result;
  for (GUI::View* v : views_)
    if (GlSliceView* s = v ? v->sliceView() : nullptr) result.push_back(s);
  return result;
}

void DisplayWidgetMultiAdapter::centerSliceViewsAt(const Eigen::Vector3d& world, const SharedImageSet* image) {
  if (!world.allFinite()) return;
  Eigen::Vector3d p = world;
  if (image && image->get()) {
    // Snap to the centre of the voxel that holds the point (whole pixel indices are centres).
    const SharedImage* si = image->get();
    const Eigen::Vector3d v = si->worldToPixel(world);
    p = si->pixelToWorld(v.array().round().matrix());
  }
  for (GlSliceView* s : sliceViews()) s->moveTo(p);
  crosshair_.position = p;
  update();
}

void DisplayWidgetMultiAdapter::update() const {
  for (GUI::View* v : views_)
    if (v) v->update();
}

}  // namespace Merivane
