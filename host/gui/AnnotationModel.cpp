#include "AnnotationModel.h"

#include <algorithm>
#include <cmath>
#include <functional>

#include "GlAnnotations.h"
#include "GlView.h"

namespace Merivane {

namespace {

// Moves a position (a point's or a ball's centre) with a left drag that starts within a few
// pixels of it; the position stays on the plane it was grabbed on, moved within it.
class PositionManipulator : public GUI::ViewObject::EventHandler {
 public:
  explicit PositionManipulator(Eigen::Vector3d& position, double grabPx = 6.0) : position_(position), grabPx_(grabPx) {}
  GUI::EventResult handleInputEvent(const GUI::InputEvent& e, const GlView& view) override {
    auto* sv = dynamic_cast<const GlSliceView*>(&view);
    if (!sv) return GUI::EventResult::Ignored;
    const Slice& s = sv->slice().slice();
    switch (e.type) {
      case GUI::InputEvent::MouseButtonPress: {
        if (e.button != GUI::InputEvent::LeftButton || e.modifiers != GUI::InputEvent::NoModifier)
          return GUI::EventResult::Ignored;
        if (std::abs(s.distance(position_)) > std::max(0.5 * sv->sliceStep(), sv->mmPerPixel()))
          return GUI::EventResult::Ignored;
        const Eigen::Vector3d p = view.viewState().project(position_);
        if ((p.head<2>() - e.position).norm() > grabPx_) return GUI::EventResult::Ignored;
        dragging_ = true;
        offset_ = position_ - view.viewState().unproject(e.position);
        offset_ -= s.normal().dot(offset_) * s.normal();  // keep the depth the point has
        return GUI::EventResult::Accepted;
      }
      case GUI::InputEvent::MouseMove:
        if (!dragging_) return GUI::EventResult::Ignored;
        {
          const Eigen::Vector3d onPlane = view.viewState().unproject(e.position) + offset_;
          position_ = onPlane + s.distance(position_) * s.normal();
        }
        if (onMoved) onMoved();
        return GUI::EventResult::Accepted;
      case GUI::InputEvent::MouseButtonRelease:
        if (!dragging_) return GUI::EventResult::Ignored;
        dragging_ = false;
        return GUI::EventResult::Accepted;
      default:
        return GUI::EventResult::Ignored;
    }
  }
  void reset() override { dragging_ = false; }
  std::function<void()> onMoved;

 private:
  Eigen::Vector3d& position_;
  double grabPx_;
  bool dragging_ = false;
  Eigen::Vector3d offset_ = Eigen::Vector3d::Zero();
};

}  // namespace

InteractiveObject::InteractiveObject(std::unique_ptr<GlObject> object,
                                     std::unique_ptr<GUI::ViewObject::EventHandler> manipulator)
    : object_(std::move(object)), manipulator_(std::move(manipulator)) {}

InteractiveObject::~InteractiveObject() = default;

AnnotationModel::AnnotationModel() = default;

AnnotationModel::~AnnotationModel() { clear(); }

std::unique_ptr<GUI::ViewObject::EventHandler> AnnotationModel::createDefaultManipulator(GlObject& object) {
  if (auto* ball = dynamic_cast<GlBall*>(&object)) return std::make_unique<PositionManipulator>(ball->center);
  if (auto* point = dynamic_cast<GlPoint*>(&object)) return std::make_unique<PositionManipulator>(point->position);
  return nullptr;
}

InteractiveObject* AnnotationModel::add(std::unique_ptr<InteractiveObject> annotation, const Data* parent) {
  if (!annotation || !annotation->object()) return nullptr;
  InteractiveObject* raw = annotation.get();
  if (auto* m = dynamic_cast<PositionManipulator*>(raw->eventHandler()))
    m->onMoved = [this, raw] { annotationChanged.emitSignal(raw); };
  entries_.push_back({std::move(annotation), parent});
  annotationAdded.emitSignal(raw);
  return raw;
}

InteractiveObject* AnnotationModel::add(std::unique_ptr<GlObject> object, const std::string& name, const Data* parent) {
  if (!object) return nullptr;
  auto manipulator = createDefaultManipulator(*object);
  auto annotation = std::make_unique<InteractiveObject>(std::move(object), std::move(manipulator));
  annotation->setName(name);
  return add(std::move(annotation), parent);
}

bool AnnotationModel::remove(const InteractiveObject* annotation) {
  auto it = std::find_if(entries_.begin(), entries_.end(), [&](const Entry& e) { return e.annotation.get() == annotation; });
  if (it == entries_.end()) return false;
  annotationAboutToBeRemoved.emitSignal(it->annotation.get());
  it = std::find_if(entries_.begin(), entries_.end(), [&](const Entry& e) { return e.annotation.get() == annotation; });
  if (it != entries_.end()) entries_.erase(it);
  return true;
}

void AnnotationModel::removeAll(const Data* parent) {
  for (InteractiveObject* a : annotations(parent)) remove(a);
}

void AnnotationModel::clear() {
  while (!entries_.empty()) remove(entries_.back().annotation.get());
}

std::vector<InteractiveObject*> AnnotationModel::annotations() const {
  std::vector<InteractiveObject*> out;
  for (const auto& e : entries_) out.push_back(e.annotation.get());
  return out;
}

std::vector<InteractiveObject*> AnnotationModel::annotations(const Data* parent) const {
  std::vector<InteractiveObject*> out;
  for (const auto& e : entries_)
    if (e.parent == parent) out.push_back(e.annotation.get());
  return out;
}

InteractiveObject* AnnotationModel::find(const std::string& name) const {
  for (const auto& e : entries_)
    if (e.annotation->name() == name) return e.annotation.get();
  return nullptr;
}

}  // namespace Merivane
