// The labeling tool driven as a user drives it: panel buttons and pointer and key events on
// an offscreen slice view. Strokes against the painter's CPU reference, undo and redo bit
// for bit, flood fill against a BFS oracle, and the inputs it must refuse without a change.
#include <gtest/gtest.h>

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QDoubleSpinBox>
#include <QPushButton>
#include <QSpinBox>
#include <QTest>
#include <random>

#include "DataModel.h"
#include "FloodFillOracle.h"
#include "GlView.h"
#include "GuiView.h"
#include "LabelPainterReference.h"
#include "LabelingAlgorithm.h"
#include "LabelingController.h"
#include "LabelingManipulator.h"
#include "Repository_MerivaneSeg.h"
#include "Resource.h"
#include "SharedImageSet.h"
#include "TestSupport.h"

namespace Merivane {
namespace {

using GUI::InputEvent;
using Voxels = std::vector<uint8_t>;
namespace Ref = Seg::Reference;

QApplication& app() {
  // The brush tests of this program may have made it already.
  if (auto* existing = qobject_cast<QApplication*>(QCoreApplication::instance())) return *existing;
  static int argc = 1;
  static char name[] = "LabelingToolTests";
  static char* argv[] = {name, nullptr};
  static QApplication* a = new QApplication(argc, argv);
  return *a;
}

const Eigen::Vector3i kDims(16, 16, 6);

// A 16 x 16 x 6 volume of 1 mm voxels and its label map, shown in an axial view of 32 x 32
// pixels of 1 mm on slice z = 3: voxel (x, y) lies under pixel (x + 8.5, y + 8.5).
struct Scene {
  Repository_MerivaneSeg repo;
  std::unique_ptr<SharedImageSet> image =
      TestKit::makeImage<unsigned short>(kDims, [](int x, int y, int z) { return 100 + 10 * x + y + z; });
  std::unique_ptr<SharedImageSet> labels;
  GUI::View axial{std::make_unique<GlSliceView>(GlSliceView::Axial)};
  DisplayWidgetMultiAdapter views{{&axial}};
  DataModel model;

  explicit Scene(const std::function<int(int, int, int)>& f = [](int x, int, int) { return x < 8 ? 0 : 4; }) {
    app();
    Resource::addRepository(&repo);
    labels = TestKit::makeImage<unsigned char>(kDims, f);
    labels->setModality(Data::LABEL);
    GlSliceView& v = *axial.sliceView();
    v.resize(32, 32);
    v.setMmPerPixel(1.0);
    v.centerAt(image->get()->pixelToWorld(Eigen::Vector3d(7.5, 7.5, 3)));
  }
  ~Scene() { Resource::removeRepository(&repo); }

  Voxels voxels() const {
    auto* m = static_cast<TypedImage<unsigned char>*>(labels->mem());
    return {m->pointer(), m->pointer() + m->descriptor().pixelCount()};
  }
  GUI::EventResult send(InputEvent::Type type, Eigen::Vector2d at, int button = 0, int modifiers = 0) {
    InputEvent e;
    e.type = type;
    e.button = button;
    e.buttons = type == InputEvent::MouseButtonRelease ? 0 : button;
    e.modifiers = modifiers;
    e.position = at;
    return axial.dispatch(e);
  }
  GUI::EventResult key(int key, int modifiers) {
    InputEvent e;
    e.type = InputEvent::KeyPress;
    e.key = key;
    e.modifiers = modifiers;
    return axial.dispatch(e);
  }
  Eigen::Vector3d frame(const Eigen::Vector2d& pixel) const {
    return labels->get()->worldToPixel(axial.view().viewState().unproject(pixel)) + Eigen::Vector3d::Constant(0.5);
  }
};

template <typename T>
T* child(QWidget& panel, const char* name) {
  T* w = panel.findChild<T*>(name);
  EXPECT_TRUE(w) << name;
  return w;
}

void click(QWidget& panel, const char* name) {
  if (auto* b = child<QPushButton>(panel, name)) QTest::mouseClick(b, Qt::LeftButton);
}

// Buttons of groups that the never-shown panel has not laid out yet take a plain click().
void press(QWidget& panel, const char* name) {
  if (auto* b = child<QPushButton>(panel, name)) b->click();
}

class LabelingTool : public testing::Test {
 protected:
  void SetUp() override { MERIVANE_REQUIRE_GL(); }
};

TEST_F(LabelingTool, AStrokePaintsWhatTheReferenceSaysAndUndoRedoRestoreBitForBit) {
  Scene s;
  LabelingAlgorithm algorithm(s.image.get(), s.labels.get());
  LabelingController panel(&algorithm, &s.views, &s.model);
  panel.init();
  child<QSpinBox>(panel, "spinBoxSize")->setValue(5);  // radius 2.5 pixels
  child<QSpinBox>(panel, "spinBoxLabel")->setValue(3);
  click(panel, "pushButtonStart");
  ASSERT_TRUE(panel.isLabeling());
  EXPECT_FALSE(child<QPushButton>(panel, "pushButtonStart")->isEnabled());
  EXPECT_TRUE(child<QPushButton>(panel, "pushButtonStop")->isEnabled());

  const Voxels before = s.voxels();
  const Eigen::Vector2d a(12.5, 14.5), b(20.5, 14.5);
  EXPECT_EQ(s.send(InputEvent::MouseButtonPress, a, InputEvent::LeftButton), GUI::EventResult::Accepted);
  EXPECT_EQ(s.send(InputEvent::MouseMove, b, InputEvent::LeftButton), GUI::EventResult::Accepted);
  EXPECT_EQ(s.send(InputEvent::MouseButtonRelease, b, InputEvent::LeftButton), GUI::EventResult::Accepted);
  const Voxels after = s.voxels();

  Ref::Stroke stroke;
  stroke.segments = {{s.frame(a), s.frame(a)}, {s.frame(a), s.frame(b)}};
  stroke.radius = 2.5;
  const auto inside = Ref::brush(kDims, stroke);
  int painted = 0;
  for (size_t i = 0; i < after.size(); ++i) {
    if (inside[i] == Ref::Inside::Yes) {
      EXPECT_EQ(after[i], 3) << i;
    }
    if (inside[i] == Ref::Inside::No) {
      EXPECT_EQ(after[i], before[i]) << i;
    }
    painted += after[i] != before[i];
  }
  EXPECT_GT(painted, 40);

  EXPECT_EQ(s.key(Qt::Key_Z, InputEvent::Control), GUI::EventResult::Accepted);
  EXPECT_EQ(s.voxels(), before);
  EXPECT_EQ(s.key(Qt::Key_Z, InputEvent::Control | InputEvent::Shift), GUI::EventResult::Accepted);
  EXPECT_EQ(s.voxels(), after);
  click(panel, "pushButtonUndo");
  EXPECT_EQ(s.voxels(), before);
  EXPECT_EQ(s.key(Qt::Key_Y, InputEvent::Control), GUI::EventResult::Accepted);
  EXPECT_EQ(s.voxels(), after);
  // Nothing further to redo; two undos in a row go back past the first stroke only once.
  EXPECT_FALSE(panel.manipulator()->redo());
  EXPECT_TRUE(panel.manipulator()->undo());
  EXPECT_FALSE(panel.manipulator()->undo());
  EXPECT_EQ(s.voxels(), before);

  // Erasing with the middle button, then a new stroke after an undo drops the redo branch.
  s.send(InputEvent::MouseButtonPress, a, InputEvent::MiddleButton);
  s.send(InputEvent::MouseButtonRelease, a, InputEvent::MiddleButton);
  EXPECT_FALSE(panel.manipulator()->canRedo());
  const Voxels erased = s.voxels();
  Ref::Stroke dab;
  dab.segments = {{s.frame(a), s.frame(a)}};
  dab.radius = 2.5;
  const auto under = Ref::brush(kDims, dab);
  for (size_t i = 0; i < erased.size(); ++i)
    if (under[i] == Ref::Inside::Yes) {
      EXPECT_EQ(erased[i], 0) << i;
    }

  click(panel, "pushButtonStop");
  EXPECT_FALSE(panel.isLabeling());
  EXPECT_EQ(s.send(InputEvent::MouseButtonPress, a, InputEvent::LeftButton), GUI::EventResult::Accepted);  // crosshair
  EXPECT_EQ(s.voxels(), erased);
}

TEST_F(LabelingTool, ShiftWheelChangesTheBrushSizeAndMovesShowTheLabelUnderThePointer) {
  Scene s;
  LabelingAlgorithm algorithm(s.image.get(), s.labels.get());
  LabelingController panel(&algorithm, &s.views, &s.model);
  panel.init();
  click(panel, "pushButtonStart");
  InputEvent wheel;
  wheel.type = InputEvent::Wheel;
  wheel.wheelSteps = 3;
  wheel.modifiers = InputEvent::Shift;
  EXPECT_EQ(s.axial.dispatch(wheel), GUI::EventResult::Accepted);
  EXPECT_EQ(child<QSpinBox>(panel, "spinBoxSize")->value(), 23);
  EXPECT_FLOAT_EQ(panel.manipulator()->painter().radiusPixels(), 11.5f);
  s.send(InputEvent::MouseMove, {20.5, 10.5});  // voxel (12, 2): label 4
  EXPECT_EQ(child<QLabel>(panel, "labelUnderCursor")->text(), "4");
}

class LabelingFloodFill : public testing::TestWithParam<double> {
 protected:
  void SetUp() override { MERIVANE_REQUIRE_GL(); }
};

TEST_P(LabelingFloodFill, AClickFillsTheConnectedRegionAndStopsAtTheThreshold) {
  const double tolerance = GetParam();
  std::mt19937 rng(3);
  Voxels random(static_cast<size_t>(kDims.prod()));
  for (auto& v : random) v = rng() % 5 == 0 ? 1 : 0;
  Scene s([&](int x, int y, int z) { return random[(z * 16 + y) * 16 + x]; });
  LabelingAlgorithm algorithm(s.image.get(), s.labels.get());
  LabelingController panel(&algorithm, &s.views, &s.model);
  panel.init();
  child<QSpinBox>(panel, "spinBoxLabel")->setValue(6);
  child<QDoubleSpinBox>(panel, "doubleSpinBoxTolerance")->setValue(tolerance);
  click(panel, "pushButtonFloodFill");
  const Voxels before = s.voxels();
  Eigen::Vector2d at(14.5, 16.5);  // voxel (6, 8, 3)
  Eigen::Vector3i seed(6, 8, 3);
  if (before[(3 * 16 + 8) * 16 + 6] != 0) {
    ASSERT_EQ(before[(3 * 16 + 8) * 16 + 7], 0);
    at.x() += 1;
    seed.x() += 1;
  }
  s.send(InputEvent::MouseButtonPress, at, InputEvent::LeftButton);
  s.send(InputEvent::MouseButtonRelease, at, InputEvent::LeftButton);

  std::vector<float> intensity(before.size());
  for (int z = 0; z < 6; ++z)
    for (int y = 0; y < 16; ++y)
      for (int x = 0; x < 16; ++x) intensity[(z * 16 + y) * 16 + x] = 100 + 10 * x + y + z;
  const float seedValue = intensity[(seed.z() * 16 + seed.y()) * 16 + seed.x()];
  const Voxels expected = tolerance < 0 ? Ref::bfsOracle(before, kDims, seed, 6)
                                        : Ref::bfsOracle(before, kDims, seed, 6, &intensity,
                                                         seedValue - tolerance, seedValue + tolerance);
  EXPECT_EQ(s.voxels(), expected);
  EXPECT_NE(s.voxels(), before);
  // Clicking the filled region again changes nothing; undo restores the whole fill.
  s.send(InputEvent::MouseButtonPress, at, InputEvent::LeftButton);
  s.send(InputEvent::MouseButtonRelease, at, InputEvent::LeftButton);
  EXPECT_EQ(s.voxels(), expected);
  EXPECT_EQ(s.key(Qt::Key_Z, InputEvent::Control), GUI::EventResult::Accepted);
  EXPECT_EQ(s.voxels(), before);
}

INSTANTIATE_TEST_SUITE_P(WholeRegionOrWithinATolerance, LabelingFloodFill, testing::Values(-1.0, 25.0));

enum class Bad { LockedLabel, LockedUnderPointer, OtherGrid, NoLabelMap, AlgorithmRunning };

class LabelingRefusal : public testing::TestWithParam<Bad> {
 protected:
  void SetUp() override { MERIVANE_REQUIRE_GL(); }
};

TEST_P(LabelingRefusal, ChangesNothingAndThePanelSaysWhy) {
  const Bad bad = GetParam();
  Scene s;
  auto other = TestKit::makeImage<unsigned char>({16, 16, 5}, [](int, int, int) { return 0; });
  other->setModality(Data::LABEL);
  SharedImageSet* labels = bad == Bad::OtherGrid ? other.get() : bad == Bad::NoLabelMap ? nullptr : s.labels.get();
  LabelingAlgorithm algorithm(s.image.get(), labels);
  LabelingController panel(&algorithm, &s.views, &s.model);
  panel.init();
  if (bad == Bad::LockedLabel) {
    child<QCheckBox>(panel, "checkBoxAvoidOtherLabels")->setChecked(true);
    click(panel, "pushButtonStart");
    child<QCheckBox>(panel, "checkBoxAvoidOtherLabels")->setChecked(true);
  } else {
    click(panel, "pushButtonStart");
  }
  if (bad == Bad::LockedUnderPointer) panel.manipulator()->painter().setPreserveLabel(4, true);
  if (bad == Bad::AlgorithmRunning) s.model.setBusy(s.labels.get(), true);
  const Voxels before = s.voxels(), otherBefore = Voxels(other->mem()->byteSize(), 0);
  const Eigen::Vector2d at(20.5, 14.5);  // voxel (12, 6): label 4
  s.send(InputEvent::MouseButtonPress, at, InputEvent::LeftButton);
  s.send(InputEvent::MouseMove, {22.5, 14.5}, InputEvent::LeftButton);
  s.send(InputEvent::MouseButtonRelease, {22.5, 14.5}, InputEvent::LeftButton);
  // Filling zeros with an unlocked label is fine; only a locked label refuses it.
  if (bad != Bad::LockedUnderPointer) click(panel, "pushButtonFill");
  click(panel, "pushButtonClear");  // spares locked labels
  EXPECT_EQ(s.voxels(), before);
  auto* o = static_cast<TypedImage<unsigned char>*>(other->mem());
  EXPECT_EQ(Voxels(o->pointer(), o->pointer() + o->byteSize()), otherBefore);
  EXPECT_FALSE(panel.message().isEmpty());
  if (panel.manipulator()) {
    EXPECT_FALSE(panel.manipulator()->canUndo());
  }
}

INSTANTIATE_TEST_SUITE_P(BadInput, LabelingRefusal,
                         testing::Values(Bad::LockedLabel, Bad::LockedUnderPointer, Bad::OtherGrid, Bad::NoLabelMap,
                                         Bad::AlgorithmRunning));

TEST_F(LabelingTool, FillScopesAndExport) {
  // Two frames: the first holds labels, the second only zeros.
  Scene s;
  auto image = std::make_unique<SharedImageSet>();
  auto labels = std::make_unique<SharedImageSet>();
  for (int f = 0; f < 2; ++f) {
    image->add(s.image->getShared()->clone());
    auto frame = TypedImage<unsigned char>::zeros(kDims);
    if (f == 0) frame->pointer()[5] = 2;
    labels->add(std::shared_ptr<Image>(std::move(frame)));
  }
  labels->setModality(Data::LABEL);
  LabelingAlgorithm algorithm(image.get(), labels.get());
  LabelingController panel(&algorithm, &s.views, &s.model);
  panel.init();
  auto count = [&](int f, uint8_t v) {
    auto* m = static_cast<TypedImage<unsigned char>*>(labels->mem(f));
    return std::count(m->pointer(), m->pointer() + m->byteSize(), v);
  };
  const long n = static_cast<long>(kDims.prod());
  panel.findChild<QComboBox*>("comboBoxFill")->setCurrentIndex(1);  // labeled images only
  click(panel, "pushButtonFill");
  EXPECT_EQ(count(0, 1), n - 1);
  EXPECT_EQ(count(1, 0), n);
  panel.findChild<QComboBox*>("comboBoxFill")->setCurrentIndex(2);
  child<QSpinBox>(panel, "spinBoxLabel")->setValue(7);
  click(panel, "pushButtonFill");
  EXPECT_EQ(count(1, 7), n);
  click(panel, "pushButtonUndo");
  EXPECT_EQ(count(1, 0), n);
  click(panel, "pushButtonCopy");
  ASSERT_EQ(s.model.size(), 1);
  EXPECT_EQ(s.model.at(0)->name(), "Labels");
}

TEST_F(LabelingTool, RefineRunsTheChosenOperationOnTheCurrentLabelAsOneUndoStep) {
  Scene s;
  LabelingAlgorithm algorithm(s.image.get(), s.labels.get());
  LabelingController panel(&algorithm, &s.views, &s.model);
  panel.init();
  auto* operation = child<QComboBox>(panel, "comboBoxRefineOperation");
  ASSERT_EQ(operation->count(), 8);
  EXPECT_EQ(operation->itemText(0), "Snap to Image Edges");
  EXPECT_FALSE(child<QWidget>(panel, "groupBoxRefine")->isVisibleTo(&panel));
  click(panel, "pushButtonShowSettings");
  EXPECT_TRUE(child<QWidget>(panel, "groupBoxRefine")->isVisibleTo(&panel));
  // The matting parameters keep their ranges and start values for configurations, disabled
  // while this host has no matting.
  EXPECT_FALSE(child<QWidget>(panel, "groupBoxMatting")->isEnabled());
  EXPECT_EQ(child<QSpinBox>(panel, "spinBoxPatchSize")->value(), 100);
  EXPECT_EQ(child<QSpinBox>(panel, "spinBoxPatchSize")->maximum(), 999);
  EXPECT_DOUBLE_EQ(child<QDoubleSpinBox>(panel, "doubleSpinBoxSmoothness")->value(), 0.01);
  EXPECT_DOUBLE_EQ(child<QDoubleSpinBox>(panel, "doubleSpinBoxSmoothness")->minimum(), 0.001);
  EXPECT_EQ(child<QSpinBox>(panel, "spinBoxFilterings")->value(), 1);
  EXPECT_EQ(child<QSpinBox>(panel, "spinBoxWorkingSize")->value(), 21);
  EXPECT_EQ(child<QSpinBox>(panel, "spinBoxWorkingSize")->singleStep(), 2);

  const Voxels before = s.voxels();
  child<QSpinBox>(panel, "spinBoxLabel")->setValue(4);
  operation->setCurrentText("Erode");
  child<QSpinBox>(panel, "spinBoxRefineSize")->setValue(1);
  press(panel, "pushButtonRefine");
  // Label 4 fills x >= 8: its face towards the 0s goes; the image border erodes nothing.
  const Voxels eroded = s.voxels();
  for (int z = 0; z < kDims[2]; ++z)
    for (int y = 0; y < kDims[1]; ++y)
      for (int x = 0; x < kDims[0]; ++x)
        ASSERT_EQ(eroded[static_cast<size_t>((z * kDims[1] + y) * kDims[0] + x)], x >= 9 ? 4 : 0) << x << "," << y;
  EXPECT_TRUE(panel.message().contains("refined")) << panel.message().toStdString();
  ASSERT_TRUE(child<QPushButton>(panel, "pushButtonUndo")->isEnabled());
  click(panel, "pushButtonUndo");
  EXPECT_EQ(s.voxels(), before);
  click(panel, "pushButtonRedo");
  EXPECT_EQ(s.voxels(), eroded);

  // Dilating back by one, then an operation with nothing to do records no step.
  operation->setCurrentText("Dilate");
  press(panel, "pushButtonRefine");
  EXPECT_EQ(s.voxels(), before);
  const size_t levels = panel.manipulator()->undoLevels();
  operation->setCurrentText("Fill Holes");
  press(panel, "pushButtonRefine");
  EXPECT_EQ(s.voxels(), before);
  EXPECT_EQ(panel.manipulator()->undoLevels(), levels);
  EXPECT_TRUE(panel.message().contains("as it was")) << panel.message().toStdString();

  // Label 0 is refused without a change.
  child<QSpinBox>(panel, "spinBoxLabel")->setValue(0);
  operation->setCurrentText("Dilate");
  press(panel, "pushButtonRefine");
  EXPECT_EQ(s.voxels(), before);
  EXPECT_FALSE(panel.message().isEmpty());
  EXPECT_EQ(panel.manipulator()->undoLevels(), levels);
}

TEST_F(LabelingTool, RefineGrowsTheLabelOverOthersUnlessTheyAreAvoided) {
  // Label 2 for x < 4, 0 up to x = 8, label 4 from there on.
  for (bool avoid : {false, true}) {
    Scene s([](int x, int, int) { return x < 4 ? 2 : x < 8 ? 0 : 4; });
    LabelingAlgorithm algorithm(s.image.get(), s.labels.get());
    LabelingController panel(&algorithm, &s.views, &s.model);
    panel.init();
    child<QCheckBox>(panel, "checkBoxAvoidOtherLabels")->setChecked(avoid);
    child<QSpinBox>(panel, "spinBoxLabel")->setValue(4);
    child<QComboBox>(panel, "comboBoxRefineOperation")->setCurrentText("Dilate");
    child<QSpinBox>(panel, "spinBoxRefineSize")->setValue(6);
    press(panel, "pushButtonRefine");
    const Voxels after = s.voxels();
    for (int x = 0; x < kDims[0]; ++x) {
      const int expected = x >= 2 && !(avoid && x < 4) ? 4 : 2;
      EXPECT_EQ(after[static_cast<size_t>((3 * kDims[1] + 5) * kDims[0] + x)], expected) << "avoid " << avoid << " x " << x;
    }
    EXPECT_TRUE(panel.message().contains("refined")) << panel.message().toStdString();
  }
}

TEST_F(LabelingTool, TheThresholdGroupPreviewsAndAppliesTheRangeAsOneUndoStep) {
  Scene s;
  LabelingAlgorithm algorithm(s.image.get(), s.labels.get());
  LabelingController panel(&algorithm, &s.views, &s.model);
  panel.init();
  auto* low = child<QDoubleSpinBox>(panel, "doubleSpinBoxThresholdLow");
  auto* high = child<QDoubleSpinBox>(panel, "doubleSpinBoxThresholdHigh");
  // From the middle of the image's range (100 to 270) to its top.
  EXPECT_DOUBLE_EQ(low->value(), 185.0);
  EXPECT_DOUBLE_EQ(high->value(), 270.0);

  child<QCheckBox>(panel, "checkBoxThresholdPreview")->setChecked(true);
  bool shown = false;
  for (GlObject* o : s.axial.view().objects()) shown = shown || o->typeName() == "ThresholdOverlay";
  EXPECT_TRUE(shown);

  const Voxels before = s.voxels();
  child<QSpinBox>(panel, "spinBoxLabel")->setValue(2);
  low->setValue(150);
  high->setValue(160);
  press(panel, "pushButtonThresholdApply");
  const Voxels after = s.voxels();
  size_t taken = 0;
  for (int z = 0; z < kDims[2]; ++z)
    for (int y = 0; y < kDims[1]; ++y)
      for (int x = 0; x < kDims[0]; ++x) {
        const size_t i = static_cast<size_t>((z * kDims[1] + y) * kDims[0] + x);
        const int v = 100 + 10 * x + y + z;
        const bool in = v >= 150 && v <= 160;
        taken += in;
        ASSERT_EQ(after[i], in ? 2 : before[i]) << x << "," << y << "," << z;
      }
  EXPECT_GT(taken, 0u);
  click(panel, "pushButtonUndo");
  EXPECT_EQ(s.voxels(), before);

  child<QCheckBox>(panel, "checkBoxThresholdPreview")->setChecked(false);
  for (GlObject* o : s.axial.view().objects()) EXPECT_NE(o->typeName(), "ThresholdOverlay");
}

}  // namespace
}  // namespace Merivane
