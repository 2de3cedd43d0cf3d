#include "LabelingManipulator.h"

#include <QApplication>
#include <algorithm>
#include <cmath>
#include <cstring>

#include "GlCircle.h"
#include "GlSliceRendererImage.h"
#include "GlView.h"
#include "Image.h"
#include "LabelMapRefinement.h"
#include "Log.h"
#include "Progress.h"
#include "QtHelpers.h"
#include "SharedImageSet.h"
#include "UndoRecorder.h"

namespace Merivane::Seg {

namespace {

constexpr const char* kCategory = "Seg.LabelingManipulator";
constexpr unsigned long kUndoMemory = 512ul << 20;  // compressed levels kept, in bytes
constexpr int kKeyZ = 90, kKeyY = 89;
constexpr int kMinSize = 1, kMaxSize = 500;  // brush diameter in pixels, as the panel's "Size"

}  // namespace

LabelingManipulator::LabelingManipulator(SharedImageSet& image, SharedImageSet& labelMap, GlCircle* indicator,
                                         bool floodFillMode)
    : image_(image), labelMap_(labelMap), indicator_(indicator), floodFillMode_(floodFillMode) {
  valid_ = painter_.setCurrent(&image_, &labelMap_);
  painter_.setLabel(label_);
  if (indicator_) indicator_->setRadius(painter_.radiusMM());
}

LabelingManipulator::~LabelingManipulator() = default;

void LabelingManipulator::setLabel(int label) {
  label_ = std::clamp(label, 0, 255);
  painter_.setLabel(label_);
}

void LabelingManipulator::setRadiusPixels(float radius) {
  painter_.setRadiusPixels(radius);
  if (indicator_) indicator_->setRadius(painter_.radiusMM());
  update();
}

void LabelingManipulator::update() const {
  if (updateViews_) updateViews_();
}

bool LabelingManipulator::refuse(const std::string& why) {
  refusal_ = why;
  LOG_WARN(kCategory, why);
  refused.emitSignal(why);
  return false;
}

std::optional<Eigen::Vector3i> LabelingManipulator::voxelAt(const Eigen::Vector3d& position) const {
  const SharedImage* frame = labelMap_.get();
  if (!frame || !position.allFinite()) return std::nullopt;
  const ImageDescriptor& d = frame->descriptor();
  Eigen::Vector3d pixel;
  if (painter_.isMatrixIgnored())
    pixel = position.cwiseQuotient(d.spacing) + d.dimensions.cast<double>() * 0.5 - Eigen::Vector3d::Constant(0.5);
  else
    pixel = frame->worldToPixel(position);
  // Voxel v covers [v - 0.5, v + 0.5) round its centre.
  const Eigen::Vector3d f = (pixel.array() + 0.5).floor().matrix();
  if ((f.array() < 0).any() || (f.array() >= d.dimensions.cast<double>().array()).any()) return std::nullopt;
  return f.cast<int>();
}

int LabelingManipulator::labelAt(const Eigen::Vector3d& position) const {
  const auto v = voxelAt(position);
  MemImage* mem = v ? labelMap_.mem() : nullptr;
  if (!mem || mem->type() != U8) return -1;
  const Eigen::Vector3i& n = mem->dimensions();
  const size_t i = (static_cast<size_t>((*v)[2]) * n[1] + (*v)[1]) * static_cast<size_t>(n[0]) + (*v)[0];
  return static_cast<const uint8_t*>(mem->data())[i * mem->channels()];
}

std::string LabelingManipulator::checkEdit(const Eigen::Vector3d& position, bool erase) const {
  if (!valid_) return "The label map does not fit the image (another grid, or not a U8 label map)";
  if (busyCheck_)
    if (std::string busy = busyCheck_(); !busy.empty()) return busy;
  if (!erase && painter_.preserveLabel(static_cast<unsigned char>(label_)))
    return "Label " + std::to_string(label_) + " is locked";
  const int under = labelAt(position);
  if (under > 0 && under != label_ && painter_.preserveLabel(static_cast<unsigned char>(under)))
    return "Label " + std::to_string(under) + " under the pointer is locked";
  return {};
}

void LabelingManipulator::updateIndicator(const GlView& view) {
  if (!indicator_) return;
  // Axes along the screen at the circle's centre, so that it lies face-on in this view.
  const ViewState& s = view.viewState();
  const Eigen::Vector3d p = s.project(indicator_->center());
  const Eigen::Vector3d o = s.unproject(p.head<2>(), p.z());
  indicator_->setAxes(s.unproject(p.head<2>() + Eigen::Vector2d::UnitX(), p.z()) - o,
                      s.unproject(p.head<2>() + Eigen::Vector2d::UnitY(), p.z()) - o);
  indicator_->setRadius(painter_.radiusMM());
}

void LabelingManipulator::sceneEventDraw(const Eigen::Vector3d& position, int button) {
  const bool erase = button != 0;
  if (painter_.paint(lastPosition_.value_or(position), position, erase, false, std::nullopt)) changed_ = true;
  lastPosition_ = position;
}

FloodFillResult LabelingManipulator::performFloodFill(Eigen::Vector3d position, const std::atomic<bool>* canceled) {
  const auto seed = voxelAt(position);
  if (!seed) return {};
  MemImage* labels = labelMap_.mem();
  if (!labels || labels->type() != U8 || labels->channels() != 1) return {};
  FloodFillOptions options;
  options.canceled = canceled;
  if (tolerance_) {
    MemImage* in = image_.mem();
    if (!in || in->dimensions() != labels->dimensions() || in->channels() != 1) {
      LOG_WARN(kCategory, "flood fill with a tolerance needs a one-channel image on the label map's grid");
      return {};
    }
    // The window in stored values: original = stored / scale - shift.
    const Eigen::Vector3i& n = in->dimensions();
    const size_t i = (static_cast<size_t>((*seed)[2]) * n[1] + (*seed)[1]) * static_cast<size_t>(n[0]) + (*seed)[0];
    double stored = 0;
    switch (in->type()) {
      case I8: stored = static_cast<const int8_t*>(in->data())[i]; break;
      case U8: stored = static_cast<const uint8_t*>(in->data())[i]; break;
      case I16: stored = static_cast<const int16_t*>(in->data())[i]; break;
      case U16: stored = static_cast<const uint16_t*>(in->data())[i]; break;
      case I32: stored = static_cast<const int32_t*>(in->data())[i]; break;
      case U32: stored = static_cast<const uint32_t*>(in->data())[i]; break;
      case F32: stored = static_cast<const float*>(in->data())[i]; break;
      case F64: stored = static_cast<const double*>(in->data())[i]; break;
      default: return {};
    }
    const double reach = std::abs(*tolerance_ * in->scale());
    options.intensities = in;
    options.low = stored - reach;
    options.high = stored + reach;
  }
  return floodFill(static_cast<uint8_t*>(labels->data()), labels->dimensions(), *seed,
                   static_cast<uint8_t>(label_), options);
}

void LabelingManipulator::sceneEventFloodFill(const Eigen::Vector3d& position) {
  // Both memory copies current here, on the GL thread, so the worker only touches memory.
  if (!labelMap_.mem() || (tolerance_ && !image_.mem())) return;
  Progress progress;
  Progress::Task task = progress.addBusyIndicator("Computing Flood Fill...");
  FloodFillResult result;
  const std::atomic<bool>* canceled = &task.state()->canceled;
  bool completed = true;
  if (QApplication::instance()) {
    completed = QtHelpers::runInBackground(
        QApplication::activeWindow(), "Labeling", [&] { result = performFloodFill(position, canceled); }, &progress);
  } else {
    result = performFloodFill(position, canceled);
  }
  if (!completed || result.status == FloodFillResult::Canceled) {
    // A cancelled fill is undone whole: the history holds the state before it.
    restoreLevel(cursor_);
    refuse("Flood fill cancelled; the labels are as they were");
    return;
  }
  if (result.status != FloodFillResult::Filled) return;
  labelMap_.get()->setDirtyMem();
  labelMap_.contentChanged.emitSignal(labelMap_.resolve(-1));
  changed_ = true;
  labelsChanged.emitSignal();
  update();
}

GUI::EventResult LabelingManipulator::handleInputEvent(const GUI::InputEvent& event, const GlView& view) {
  using GUI::InputEvent;
  if (!indicator_) return GUI::EventResult::Ignored;
  if (event.type == InputEvent::KeyPress) {
    const bool ctrl = event.modifiers & InputEvent::Control, shift = event.modifiers & InputEvent::Shift;
    if (!ctrl || drawing_) return GUI::EventResult::Ignored;
    if (event.key == kKeyZ && !shift) return undo(), GUI::EventResult::Accepted;
    if ((event.key == kKeyZ && shift) || event.key == kKeyY) return redo(), GUI::EventResult::Accepted;
    return GUI::EventResult::Ignored;
  }
  auto* sliceView = dynamic_cast<const GlSliceView*>(&view);
  if (!sliceView) return GUI::EventResult::Ignored;
  if (event.type == InputEvent::Wheel) {
    if (!(event.modifiers & InputEvent::Shift) || event.wheelSteps == 0) return GUI::EventResult::Ignored;
    const int size = std::clamp(static_cast<int>(std::lround(painter_.radiusPixels() * 2.0f + event.wheelSteps)),
                                kMinSize, kMaxSize);
    setRadiusPixels(size * 0.5f);
    updateIndicator(view);
    sizeChanged.emitSignal(size);
    return GUI::EventResult::Accepted;
  }
  if (!event.isMouse() || !event.position.allFinite()) return GUI::EventResult::Ignored;

  bool ignoreMatrix = false;
  for (GlObject* o : view.activeRenderers())
    if (auto* r = dynamic_cast<GlSliceRendererImage*>(o)) {
      ignoreMatrix = r->ignoreMatrix();
      break;
    }
  painter_.setIgnoreMatrix(ignoreMatrix);

  const Eigen::Vector3d world = view.viewState().unproject(event.position, 0.5);
  indicator_->setCenter(world);
  updateIndicator(view);
  update();

  if (event.type == InputEvent::MouseButtonRelease) {
    if (swallowing_ && !(event.buttons & (InputEvent::LeftButton | InputEvent::MiddleButton))) {
      swallowing_ = false;
      return GUI::EventResult::Accepted;
    }
    if (!drawing_) return GUI::EventResult::Ignored;
    if (event.buttons & (InputEvent::LeftButton | InputEvent::MiddleButton)) return GUI::EventResult::Accepted;
    drawing_ = false;
    lastPosition_.reset();
    if (changed_) commitUndo(floodFillMode_ ? "Flood fill" : erasing_ ? "Erase" : "Paint");
    changed_ = false;
    strokeFinished.emitSignal(erasing_ ? 0 : label_);
    return GUI::EventResult::Accepted;
  }

  const bool left = event.buttons & InputEvent::LeftButton, middle = event.buttons & InputEvent::MiddleButton;
  if (!drawing_ && !swallowing_) {
    if (event.type == InputEvent::MouseMove && !left && !middle) labelUnderCursor.emitSignal(labelAt(world));
    // Moves with a button held that began elsewhere (a pan) stay with the view, as does
    // every press the tool does not use: right for window and level, Shift for panning.
    if (event.type != InputEvent::MouseButtonPress || (event.modifiers & (InputEvent::Shift | InputEvent::Alt)))
      return GUI::EventResult::Ignored;
    if (event.button != InputEvent::LeftButton && event.button != InputEvent::MiddleButton)
      return GUI::EventResult::Ignored;
    const bool erase = event.button == InputEvent::MiddleButton || (event.modifiers & InputEvent::Control);
    if (std::string why = checkEdit(world, erase); !why.empty()) {
      refuse(why);
      swallowing_ = true;
      return GUI::EventResult::Accepted;
    }
    refusal_.clear();
    drawing_ = true;
    erasing_ = erase;
    changed_ = false;
    strokeStarted.emitSignal(erasing_ ? 0 : label_);
    recordUndo();
    if (floodFillMode_) {
      if (!erasing_) sceneEventFloodFill(world);
    } else {
      sceneEventDraw(world, erasing_ ? 1 : 0);
    }
    labelUnderCursor.emitSignal(labelAt(world));
    update();
    return GUI::EventResult::Accepted;
  }
  if (swallowing_ || floodFillMode_) return GUI::EventResult::Accepted;
  if (left || middle) {
    sceneEventDraw(world, erasing_ ? 1 : 0);
    update();
  }
  return GUI::EventResult::Accepted;
}

void LabelingManipulator::reset() {
  // A stroke cut short still leaves one undo step for what it painted.
  if (drawing_ && changed_) commitUndo("Paint");
  drawing_ = swallowing_ = changed_ = false;
  lastPosition_.reset();
}

bool LabelingManipulator::fillUnlabeled(const std::vector<int>& frames) {
  if (!valid_) return refuse("The label map does not fit the image (another grid, or not a U8 label map)");
  if (busyCheck_)
    if (std::string busy = busyCheck_(); !busy.empty()) return refuse(busy);
  if (painter_.preserveLabel(static_cast<unsigned char>(label_)))
    return refuse("Label " + std::to_string(label_) + " is locked");
  recordUndo();
  bool any = false;
  for (int f : frames) {
    if (f < 0 || f >= labelMap_.size()) continue;
    MemImage* mem = labelMap_.mem(f);
    if (!mem || mem->type() != U8) continue;
    auto* p = static_cast<uint8_t*>(mem->data());
    const size_t n = mem->descriptor().elementCount();
    bool changed = false;
    for (size_t i = 0; i < n; ++i)
      if (p[i] == 0) {
        p[i] = static_cast<uint8_t>(label_);
        changed = true;
      }
    if (changed) labelMap_.get(f)->setDirtyMem();
    any = any || changed;
  }
  if (any) {
    commitUndo("Fill unlabeled");
    labelsChanged.emitSignal();
    update();
  }
  return any;
}

bool LabelingManipulator::edit(const std::string& description, const std::function<void()>& change,
                               bool refuseLockedLabel) {
  refusal_.clear();
  if (!valid_) return refuse("The label map does not fit the image (another grid, or not a U8 label map)");
  if (busyCheck_)
    if (std::string busy = busyCheck_(); !busy.empty()) return refuse(busy);
  if (refuseLockedLabel && painter_.preserveLabel(static_cast<unsigned char>(label_)))
    return refuse("Label " + std::to_string(label_) + " is locked");
  const MemImage* mem = labelMap_.mem();
  if (!mem) return false;
  recordUndo();
  const auto* bytes = static_cast<const uint8_t*>(mem->data());
  const std::vector<uint8_t> before(bytes, bytes + mem->byteSize());
  change();
  mem = labelMap_.mem();
  if (!mem || mem->byteSize() != before.size() || std::memcmp(mem->data(), before.data(), before.size()) == 0)
    return false;
  commitUndo(description);
  labelsChanged.emitSignal();
  update();
  return true;
}

bool LabelingManipulator::refine(const std::string& description,
                                 const std::function<void(LabelMapRefinement&)>& op) {
  if (label_ == 0) {
    refusal_.clear();
    return refuse("Refinement works on a label: choose one other than 0");
  }
  return edit(
      description,
      [&] {
        LabelMapRefinement refinement(&image_, labelMap_);
        refinement.setAffectedLabel(static_cast<unsigned char>(label_));
        for (int l = 0; l < 256; ++l)
          if (l != label_ && painter_.preserveLabel(static_cast<unsigned char>(l)))
            refinement.lockLabel(static_cast<unsigned char>(l), true);
        op(refinement);
      },
      false);
}

void LabelingManipulator::clear() {
  if (!valid_) return void(refuse("The label map does not fit the image (another grid, or not a U8 label map)"));
  if (busyCheck_)
    if (std::string busy = busyCheck_(); !busy.empty()) return void(refuse(busy));
  MemImage* mem = labelMap_.mem();
  if (!mem) return;
  recordUndo();
  // Locked labels stay, as under the eraser.
  auto* p = static_cast<uint8_t*>(mem->data());
  bool any = false;
  for (size_t i = 0, n = mem->descriptor().elementCount(); i < n; ++i)
    if (p[i] != 0 && !painter_.preserveLabel(p[i])) {
      p[i] = 0;
      any = true;
    }
  if (!any) return;
  labelMap_.get()->setDirtyMem();
  commitUndo("Clear");
  labelsChanged.emitSignal();
  update();
}

void LabelingManipulator::recordUndo() {
  if (!recorder_) recorder_ = std::make_unique<UndoRecorder>(labelMap_, kUndoMemory, std::vector<std::string>{});
  for (int i = 0; i < labelMap_.size(); ++i) labelMap_.mem(i);  // current memory copies to compress
  if (recorder_->levelCount() == 0) {
    if (!recorder_->recordUndoLevel("Start", nextLevelId_++)) LOG_WARN(kCategory, "the labels could not be recorded");
    cursor_ = 0;
    return;
  }
  if (cursor_ + 1 < recorder_->levelCount()) recorder_->deleteLevelsAfter(cursor_);
}

void LabelingManipulator::commitUndo(const std::string& description) {
  modified_ = true;
  if (!recorder_) return;
  for (int i = 0; i < labelMap_.size(); ++i) labelMap_.mem(i);
  const unsigned long focus = static_cast<unsigned long>(std::max(0, labelMap_.selection().focus()));
  if (!recorder_->recordUndoLevel(description, nextLevelId_++, {focus})) {
    LOG_WARN(kCategory, description << ": could not be recorded for undo");
    return;
  }
  cursor_ = recorder_->levelCount() - 1;
  undoAvailable.emitSignal(true);
  redoAvailable.emitSignal(false);
}

void LabelingManipulator::restoreLevel(size_t index) {
  if (!recorder_ || index >= recorder_->levelCount()) return;
  const int focus = recorder_->restoreUndoLevel(index);
  if (focus < 0) {
    LOG_WARN(kCategory, "undo level " << index << " no longer fits the label map");
    return;
  }
  labelMap_.selection().setFocus(focus);
  modified_ = true;
  labelsChanged.emitSignal();
  update();
}

bool LabelingManipulator::undo() {
  if (drawing_ || !canUndo()) return false;
  restoreLevel(--cursor_);
  undoAvailable.emitSignal(canUndo());
  redoAvailable.emitSignal(true);
  return true;
}

bool LabelingManipulator::redo() {
  if (drawing_ || !canRedo()) return false;
  restoreLevel(++cursor_);
  undoAvailable.emitSignal(true);
  redoAvailable.emitSignal(canRedo());
  return true;
}

bool LabelingManipulator::canRedo() const { return recorder_ && cursor_ + 1 < recorder_->levelCount(); }

size_t LabelingManipulator::undoLevels() const { return recorder_ ? recorder_->levelCount() : 0; }

void LabelingManipulator::clearUndo() {
  recorder_.reset();
  cursor_ = 0;
  undoAvailable.emitSignal(false);
  redoAvailable.emitSignal(false);
}

}  // namespace Merivane::Seg
