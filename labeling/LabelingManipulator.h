#pragma once
// The labeling tool on the views: paints, erases and flood-fills one label map with a
// Seg::LabelPainter, and keeps the undo history of what it did.
//
// Mouse on a slice view: the left button paints the current label; the middle button, or
// the left one with Ctrl, erases; Shift with the wheel changes the brush size; moves show the
// brush circle and report the label under the pointer. In flood fill mode a press fills the
// region round the voxel under the pointer in the background, behind a progress dialog that
// can cancel it. Keys: Ctrl+Z undoes, Ctrl+Shift+Z or Ctrl+Y redoes.
//
// A press that cannot paint (the pair of images was refused, the label or the label under the
// pointer is locked, an algorithm works on the data) changes nothing: it logs one line and
// emits `refused` with the reason, and the rest of that drag is swallowed.
//
// History: each finished stroke, fill, clear or edit (refinement, threshold) records the state
// after it as one level of a
// Seg::UndoRecorder (the first also records the state before), and a cursor walks the levels.
// GUI thread only; the GL context must be available while painting.
#include <Eigen/Core>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "FloodFill.h"
#include "LabelPainter.h"
#include "Signal.h"
#include "ViewObject.h"

namespace Merivane {
class GlCircle;
class SharedImageSet;
}  // namespace Merivane

namespace Merivane::Seg {

class LabelMapRefinement;
class UndoRecorder;

class LabelingManipulator : public GUI::ViewObject::EventHandler, public SignalReceiver {
 public:
  // The images must outlive the manipulator; `indicator` may be null (then nothing is drawn
  // and pointer events are ignored).
  LabelingManipulator(SharedImageSet& image, SharedImageSet& labelMap, GlCircle* indicator, bool floodFillMode);
  ~LabelingManipulator() override;
  LabelingManipulator(const LabelingManipulator&) = delete;
  LabelingManipulator& operator=(const LabelingManipulator&) = delete;

  // False when the painter refused the pair (grids differ, not a U8 label map).
  bool isValid() const { return valid_; }
  LabelPainter& painter() { return painter_; }
  SharedImageSet& image() const { return image_; }
  SharedImageSet& labelMap() const { return labelMap_; }
  bool floodFillMode() const { return floodFillMode_; }
  void setFloodFillMode(bool on) { floodFillMode_ = on; }

  void setLabel(int label);
  int label() const { return label_; }
  // Brush radius in pixels; also sets the circle.
  void setRadiusPixels(float radius);
  // Flood fill also keeps to intensities within this distance of the seed's (in the image's
  // original units); none fills the whole region of the seed's label.
  void setFloodFillTolerance(std::optional<double> tolerance) { tolerance_ = tolerance; }
  const std::optional<double>& floodFillTolerance() const { return tolerance_; }
  // Asked before every edit; a non-empty answer refuses it with that reason.
  void setBusyCheck(std::function<std::string()> check) { busyCheck_ = std::move(check); }
  // Called whenever the views should be drawn again.
  void setUpdateViews(std::function<void()> update) { updateViews_ = std::move(update); }

  // Sets every voxel of the focused label frame to 0, locked labels aside, as one undo step.
  void clear();
  // Sets the voxels of value 0 in the given frames to the current label, as one undo step.
  // Frames beyond the set are skipped; true when any voxel changed.
  bool fillUnlabeled(const std::vector<int>& frames);
  // Runs `change` on the focused label frame as one undo step named `description`. Refused
  // (logged, `refused` emitted, nothing run) when the pair was refused or the busy check
  // answers, and with `refuseLockedLabel` also when the painter preserves the current label.
  // True when the focused frame changed; an edit that changes nothing records no step.
  bool edit(const std::string& description, const std::function<void()>& change, bool refuseLockedLabel = true);
  // Seg::LabelMapRefinement of the current label in the focused frame, as one undo step:
  // `op` gets a refinement set to the current label, with the image, and with every label the
  // painter preserves locked except the current one (so "Avoid Other Labels" keeps the others
  // from being overwritten while the label itself may change). Label 0 is refused.
  bool refine(const std::string& description, const std::function<void(LabelMapRefinement&)>& op);

  bool undo();
  bool redo();
  bool canUndo() const { return cursor_ > 0; }
  bool canRedo() const;
  // Before an edit: makes sure the history holds the present state and drops the levels
  // that the edit forks away from.
  void recordUndo();
  // After an edit: records the present state as the newest level.
  void commitUndo(const std::string& description);
  void clearUndo();
  size_t undoLevels() const;

  void updateIndicator(const GlView& view);
  void sceneEventDraw(const Eigen::Vector3d& position, int button);
  void sceneEventFloodFill(const Eigen::Vector3d& position);
  // The fill itself, without dialog or history; may run off the GUI thread once the memory
  // copies of both focused frames are current. Cancelled through `canceled`.
  FloodFillResult performFloodFill(Eigen::Vector3d position, const std::atomic<bool>* canceled = nullptr);
  // The label at a world position in the focused frame, -1 outside.
  int labelAt(const Eigen::Vector3d& position) const;

  GUI::EventResult handleInputEvent(const GUI::InputEvent& event, const GlView& view) override;
  void reset() override;

  bool isDrawing() const { return drawing_; }
  // Whether the label map changed through this tool (a stroke, fill, edit, undo or redo) since
  // the flag was last cleared; callers clear it when they have taken the change into account.
  bool isModified() const { return modified_; }
  void setModified(bool modified) { modified_ = modified; }
  const std::string& lastRefusal() const { return refusal_; }

  Signal<bool> undoAvailable;
  Signal<bool> redoAvailable;
  Signal<> labelsChanged;
  Signal<int> strokeStarted;   // the label in use, 0 when erasing
  Signal<int> strokeFinished;  // likewise
  Signal<int> labelUnderCursor;
  Signal<int> sizeChanged;  // brush size (diameter in pixels) changed from the wheel
  Signal<std::string> refused;

 private:
  bool refuse(const std::string& why);
  std::string checkEdit(const Eigen::Vector3d& position, bool erase) const;
  std::optional<Eigen::Vector3i> voxelAt(const Eigen::Vector3d& position) const;
  void restoreLevel(size_t index);
  void update() const;

  SharedImageSet& image_;
  SharedImageSet& labelMap_;
  LabelPainter painter_;
  GlCircle* indicator_;
  bool floodFillMode_;
  bool valid_ = false;
  int label_ = 1;
  std::optional<double> tolerance_;
  std::function<std::string()> busyCheck_;
  std::function<void()> updateViews_;

  bool drawing_ = false;
  bool erasing_ = false;
  bool swallowing_ = false;  // a refused press: the rest of its drag is ignored
  bool changed_ = false;     // the stroke under way painted something
  bool modified_ = false;
  std::optional<Eigen::Vector3d> lastPosition_;
  std::string refusal_;

  std::unique_ptr<UndoRecorder> recorder_;
  size_t cursor_ = 0;
  unsigned long nextLevelId_ = 1;
};

}  // namespace Merivane::Seg
