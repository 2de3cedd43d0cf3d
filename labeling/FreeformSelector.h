#pragma once
// Selects part of an image with an outline drawn by hand on a view. While the first (left)
// button is held, each pointer position is added to a closed spline shown in the views; on
// release the image is copied and the copy's frames get a mask of what lies inside: for a 2D
// image the pixels inside the outline, for a volume every voxel that the view shows inside it,
// through the whole depth of the view.
//
// The selected copy is owned by the selector until the next outline starts or it is cleared.
// GUI thread only.
#include <Eigen/Core>
#include <memory>
#include <vector>

#include "Signal.h"
#include "ViewObject.h"

namespace Merivane {
class DisplayWidgetMultiAdapter;
class DummyGlObject;
class GlFreeform;
class GlView;
class SharedImageSet;
class Spline;
namespace GUI {
class View;
}
}  // namespace Merivane

namespace Merivane::Seg {

class LambdaEventHandler;

class FreeformSelector : public SignalReceiver {
 public:
  explicit FreeformSelector(DisplayWidgetMultiAdapter& views);
  explicit FreeformSelector(std::vector<GUI::View*> views);
  ~FreeformSelector() override;
  FreeformSelector(const FreeformSelector&) = delete;
  FreeformSelector& operator=(const FreeformSelector&) = delete;

  std::vector<GUI::View*> views() const;

  // Not owned; null stops the selector from reacting to events.
  void setImageToBeSelected(const SharedImageSet* image) { image_ = image; }
  const SharedImageSet* imageToBeSelected() const { return image_; }
  // The copy of the image with the selection as its frames' masks; null before the first
  // outline is finished.
  SharedImageSet* selectedVolume() const { return selected_.get(); }
  void clearSelectedVolume() { selected_.reset(); }

  // Attaches the selector to every view (its handler and the outline).
  void enable();
  void disable();
  bool isEnabled() const { return enabled_; }
  bool isCutting() const { return cutting_; }

  const GlFreeform& freeform() const { return *freeform_; }
  GUI::ViewObject& viewObject() const { return *viewObject_; }

  GUI::EventResult handleEvent(bool firstButton, bool secondButton, const Eigen::Vector3d& world, const GlView& view);

  // A copy of `image` whose frames carry the selection inside the closed `spline` (world
  // positions) as seen in `view`; null for fewer than three points or no image.
  static std::unique_ptr<SharedImageSet> cutVolume(const SharedImageSet* image, const GlView& view,
                                                   const Spline& spline);

  Signal<> cuttingStarted;
  Signal<> selectionFinished;

 private:
  void init();
  void updateViews() const;

  std::unique_ptr<DisplayWidgetMultiAdapter> ownAdapter_;
  DisplayWidgetMultiAdapter* adapter_;
  const SharedImageSet* image_ = nullptr;
  std::unique_ptr<SharedImageSet> selected_;
  bool enabled_ = false;
  bool cutting_ = false;
  std::unique_ptr<GlFreeform> freeform_;
  std::unique_ptr<DummyGlObject> dummy_;
  std::unique_ptr<LambdaEventHandler> handler_;
  std::unique_ptr<GUI::TypedViewObject<DummyGlObject>> viewObject_;
  std::vector<GUI::View*> attached_;
};

}  // namespace Merivane::Seg
