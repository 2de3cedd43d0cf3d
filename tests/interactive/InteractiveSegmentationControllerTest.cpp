// The interactive segmentation panel driven as a user drives it: its buttons, and pointer and
// key events on three offscreen slice views through a 48³ ball in noise. Strokes, runs,
// corrections, accepts and the next object; the questions it asks (answered through the
// QtHelpers hook); its exports; the shapes it turns into seeds; and the texts it shows.
#include <gtest/gtest.h>

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QGroupBox>
#include <QKeyEvent>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QSlider>
#include <QSpinBox>
#include <QTest>
#include <algorithm>

#include "AnnotationModel.h"
#include "DataModel.h"
#include "GlAnnotations.h"
#include "GlLabelRenderer.h"
#include "GlMesh.h"
#include "GlView.h"
#include "GuiTestKit.h"
#include "GuiView.h"
#include "InteractiveSegmentationController.h"
#include "InteractiveSegmentationWatershedAlgorithm.h"
#include "InteractiveTestKit.h"
#include "LabelingManipulator.h"
#include "Mesh.h"
#include "MeshProcessing.h"
#include "Properties.h"
#include "QtHelpers.h"
#include "Repository_MerivaneSeg.h"
#include "Resource.h"
#include "TestSupport.h"

namespace Merivane {
namespace {

using GUI::InputEvent;
using InteractiveTestKit::N;
using InteractiveTestKit::Phantom;
using Labels = TypedImage<unsigned char>;
const Eigen::Vector3d kCentre = InteractiveTestKit::kCentre;

// Answers every question with `answer` and keeps what was asked.
struct Answers {
  int answer = QMessageBox::No;
  std::vector<QtHelpers::Question> asked;
  explicit Answers(int a = QMessageBox::No) : answer(a) {
    QtHelpers::setQuestionHook([this](const QtHelpers::Question& q) {
      asked.push_back(q);
      return answer;
    });
  }
  ~Answers() { QtHelpers::setQuestionHook(nullptr); }
};

// The phantom in three slice views of 48 x 48 pixels of 1 mm through its centre, with the
// annotations shown in them as the window shows them.
struct Scene {
  Repository_MerivaneSeg repo;
  Phantom phantom;
  GUI::View axial{std::make_unique<GlSliceView>(GlSliceView::Axial)};
  GUI::View coronal{std::make_unique<GlSliceView>(GlSliceView::Coronal)};
  GUI::View sagittal{std::make_unique<GlSliceView>(GlSliceView::Sagittal)};
  DisplayWidgetMultiAdapter views{{&axial, &coronal, &sagittal}};
  DataModel model;
  AnnotationModel annotations;

  explicit Scene(bool withBump = true) : phantom(withBump) {
    TestKit::qtApp();
    Resource::addRepository(&repo);
    for (GUI::View* v : views.views()) {
      GlSliceView& s = *v->sliceView();
      s.resize(N, N);
      s.setMmPerPixel(1.0);
      s.centerAt(world(kCentre));
    }
    annotations.annotationAdded.connect([this](InteractiveObject* a) {
      for (GUI::View* v : views.views()) v->addViewObject(a);
    });
    annotations.annotationAboutToBeRemoved.connect([this](InteractiveObject* a) {
      for (GUI::View* v : views.views()) v->removeViewObject(a);
    });
  }
  ~Scene() {
    annotations.clear();
    Resource::removeRepository(&repo);
  }

  Eigen::Vector3d world(const Eigen::Vector3d& voxel) const { return phantom.image->get()->pixelToWorld(voxel); }
  Eigen::Vector2d pixel(GUI::View& v, const Eigen::Vector3d& voxel) const {
    return v.view().viewState().project(world(voxel)).head<2>();
  }
  GUI::EventResult send(GUI::View& v, InputEvent::Type type, const Eigen::Vector3d& voxel, int button) {
    return v.dispatch(TestKit::pointerEvent(type, pixel(v, voxel), button));
  }
  // A left-button drag through the voxel positions (which must lie in the view's plane).
  void stroke(GUI::View& v, const std::vector<Eigen::Vector3d>& path) {
    send(v, InputEvent::MouseButtonPress, path.front(), InputEvent::LeftButton);
    for (size_t i = 1; i < path.size(); ++i) send(v, InputEvent::MouseMove, path[i], InputEvent::LeftButton);
    send(v, InputEvent::MouseButtonRelease, path.back(), InputEvent::LeftButton);
  }
  GUI::EventResult space(GUI::View& v) {
    InputEvent e;
    e.type = InputEvent::KeyPress;
    e.key = Qt::Key_Space;
    return v.dispatch(e);
  }
  // Object strokes through the centre along the two in-plane axes of each view, inside the ball.
  void paintObject() {
    const Eigen::Vector3d c = kCentre;
    for (int axis = 0; axis < 3; ++axis) {
      Eigen::Vector3d a = c, b = c;
      a[axis] -= 8;
      b[axis] += 8;
      stroke(axis == 2 ? coronal : axial, {a, b});
    }
  }
  // A square of background round the ball in each view's plane, 17 voxels from the centre.
  void paintBackground() {
    const int planes[3][2] = {{0, 1}, {0, 2}, {1, 2}};
    GUI::View* in[3] = {&axial, &coronal, &sagittal};
    for (int p = 0; p < 3; ++p) {
      std::vector<Eigen::Vector3d> path;
      for (auto [u, v] : {std::pair{-1, -1}, {1, -1}, {1, 1}, {-1, 1}, {-1, -1}}) {
        Eigen::Vector3d q = kCentre;
        q[planes[p][0]] += 17 * u;
        q[planes[p][1]] += 17 * v;
        path.push_back(q);
      }
      stroke(*in[p], path);
    }
  }
};

template <typename T>
T* child(QWidget& panel, const char* name) {
  T* w = panel.findChild<T*>(name);
  EXPECT_TRUE(w) << name;
  return w;
}

// Sections that are folded away take a plain click().
void press(QWidget& panel, const char* name) {
  if (auto* b = child<QPushButton>(panel, name)) b->click();
}

bool shown(QWidget& panel, const char* name) {
  auto* w = child<QWidget>(panel, name);
  return w && !w->isHidden();
}

Labels& labelsOf(const InteractiveSegmentationAlgorithm& a) { return *static_cast<Labels*>(a.labels()->mem()); }

std::vector<unsigned char> voxels(const InteractiveSegmentationAlgorithm& a) {
  const Labels& l = labelsOf(a);
  return {l.pointer(), l.pointer() + l.descriptor().pixelCount()};
}

size_t count(const std::vector<unsigned char>& v, int value) {
  return static_cast<size_t>(std::count(v.begin(), v.end(), static_cast<unsigned char>(value)));
}

// Dice of the probability's object (>= 0.5) against the ball.
double probabilityDice(const InteractiveSegmentationAlgorithm& a, const std::vector<unsigned char>& truth) {
  const float* p = static_cast<const TypedImage<float>*>(a.probability()->mem(0))->pointer();
  size_t both = 0, seg = 0, ref = 0;
  for (size_t i = 0; i < truth.size(); ++i) {
    both += p[i] >= 0.5f && truth[i];
    seg += p[i] >= 0.5f;
    ref += truth[i];
  }
  return 2.0 * both / double(seg + ref);
}

std::unique_ptr<InteractiveSegmentationAlgorithm> makeAlgorithm(Scene& s, bool watershed, bool withLabels = false) {
  SharedImageSet* labels = withLabels ? s.phantom.labels.get() : nullptr;
  if (watershed) return std::make_unique<InteractiveSegmentationWatershedAlgorithm>(*s.phantom.image, labels);
  return std::make_unique<InteractiveSegmentationAlgorithm>(*s.phantom.image, labels);
}

// A panel on the scene, brush of 4 pixels without edge pull, so that strokes are plain tubes.
std::unique_ptr<InteractiveSegmentationController> makePanel(Scene& s, InteractiveSegmentationAlgorithm& a) {
  auto panel = std::make_unique<InteractiveSegmentationController>(&a, &s.views, &s.model, &s.annotations);
  panel->init();
  child<QSpinBox>(*panel, "spinBoxSize")->setValue(4);
  child<QSlider>(*panel, "horizontalSliderBrushAdaptiveness")->setValue(0);
  return panel;
}

class InteractivePanel : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override { MERIVANE_REQUIRE_GL(); }
};

TEST_P(InteractivePanel, PaintRunCorrectAcceptAndGoOnWithTheNextObject) {
  const bool watershed = GetParam();
  Scene s;
  auto algorithm = makeAlgorithm(s, watershed);
  auto panel = makePanel(s, *algorithm);
  Answers answers;
  // The panel made a label map of its own, which the data list does not hold.
  ASSERT_NE(algorithm->labels(), nullptr);
  EXPECT_FALSE(panel->labelsInDataList());
  EXPECT_EQ(count(voxels(*algorithm), 0), size_t(N) * N * N);
  EXPECT_EQ(shown(*panel, "SegmentationParametersWidget"), !watershed);
  EXPECT_FALSE(shown(*panel, "pushButtonAccept"));

  press(*panel, "pushButtonDrawIn");
  EXPECT_EQ(panel->drawMode(), 1);
  EXPECT_TRUE(child<QPushButton>(*panel, "pushButtonDrawIn")->isChecked());
  s.paintObject();
  // Space in a view switches to the background, which the next strokes paint.
  EXPECT_EQ(s.space(s.axial), GUI::EventResult::Accepted);
  EXPECT_EQ(panel->drawMode(), 2);
  EXPECT_TRUE(child<QPushButton>(*panel, "pushButtonDrawOut")->isChecked());
  EXPECT_FALSE(child<QPushButton>(*panel, "pushButtonDrawIn")->isChecked());
  s.paintBackground();
  const auto seeds = voxels(*algorithm);
  EXPECT_GT(count(seeds, 1), 200u);
  EXPECT_GT(count(seeds, 2), 1000u);
  for (size_t i = 0; i < seeds.size(); ++i)
    if (seeds[i] == 1) {
      ASSERT_TRUE(s.phantom.truth[i]) << "object stroke outside the ball at " << i;
    } else if (seeds[i] == 2) {
      ASSERT_FALSE(s.phantom.truth[i]) << "background stroke inside the ball at " << i;
    }

  press(*panel, "pushButtonRunSeg");
  EXPECT_EQ(panel->drawMode(), -1);
  ASSERT_EQ(algorithm->status(), Algorithm::statusSuccess);
  EXPECT_TRUE(shown(*panel, "pushButtonAccept"));
  EXPECT_TRUE(shown(*panel, "pushButtonAcceptContinue"));
  EXPECT_GE(probabilityDice(*algorithm, s.phantom.truth), 0.95);
  EXPECT_GT(count(voxels(*algorithm), 255), 100u) << "the outline is drawn into the labels";
  EXPECT_TRUE(answers.asked.empty());

  // A correction: background in the bump beside the ball, then a second run.
  press(*panel, "pushButtonDrawOut");
  const Eigen::Vector3d bump = kCentre + Eigen::Vector3d(13, 0, 0);
  s.stroke(s.axial, {bump - Eigen::Vector3d(0, 2, 0), bump + Eigen::Vector3d(0, 2, 0)});
  press(*panel, "pushButtonRunSeg");
  ASSERT_EQ(algorithm->status(), Algorithm::statusSuccess);
  EXPECT_GE(probabilityDice(*algorithm, s.phantom.truth), 0.95);
  EXPECT_LT(InteractiveTestKit::objectShare(*algorithm, s.phantom.bump), 0.2);

  // Accept and go on: the ball keeps 1, its background is free again, the next object is 2.
  const auto beforeAccept = voxels(*algorithm);
  press(*panel, "pushButtonAcceptContinue");
  EXPECT_TRUE(answers.asked.empty()) << "nothing changed since the run: no question";
  EXPECT_FALSE(shown(*panel, "pushButtonAccept"));
  EXPECT_FALSE(shown(*panel, "pushButtonAcceptContinue"));
  const auto accepted = voxels(*algorithm);
  EXPECT_GE(InteractiveTestKit::dice(labelsOf(*algorithm), s.phantom.truth, 1), 0.95);
  EXPECT_EQ(count(accepted, 2), 0u);
  EXPECT_EQ(count(accepted, 255), 0u);
  EXPECT_EQ(count(accepted, 1) + count(accepted, 0), accepted.size());
  EXPECT_EQ(algorithm->objectLabel(), 2);
  press(*panel, "pushButtonDrawIn");
  ASSERT_NE(panel->manipulator(), nullptr);
  EXPECT_EQ(panel->manipulator()->label(), 2);
  EXPECT_EQ(s.space(s.coronal), GUI::EventResult::Accepted);
  EXPECT_EQ(panel->manipulator()->label(), 3);
  press(*panel, "pushButtonDrawOut");  // the active button: painting stops
  EXPECT_EQ(panel->drawMode(), -1);

  // The accept was one step of the history: Undo brings back the seeds and the outline.
  press(*panel, "pushButtonUndo");
  EXPECT_EQ(voxels(*algorithm), beforeAccept);
}

INSTANTIATE_TEST_SUITE_P(RandomWalkAndWatershed, InteractivePanel, testing::Bool(),
                         [](const auto& info) { return info.param ? "Watershed" : "RandomWalk"; });

// Counts the preparations the panel asks for.
class CountingAlgorithm : public InteractiveSegmentationAlgorithm {
 public:
  using InteractiveSegmentationAlgorithm::InteractiveSegmentationAlgorithm;
  void prepareForComputation() override {
    ++prepared;
    InteractiveSegmentationAlgorithm::prepareForComputation();
  }
  int prepared = 0;
};

class InteractivePanelEdges : public testing::Test {
 protected:
  void SetUp() override { MERIVANE_REQUIRE_GL(); }
};

TEST_F(InteractivePanelEdges, PressingTheActiveButtonStopsAndPreparesWhileSwitchingModesDoesNot) {
  Scene s;
  CountingAlgorithm algorithm(*s.phantom.image, nullptr);
  auto panel = makePanel(s, algorithm);
  press(*panel, "pushButtonDrawIn");
  const int before = algorithm.prepared;
  press(*panel, "pushButtonDrawOut");
  EXPECT_EQ(panel->drawMode(), 2);
  press(*panel, "pushButtonErase");
  EXPECT_EQ(panel->drawMode(), 0);
  EXPECT_EQ(panel->manipulator()->label(), 0);
  EXPECT_EQ(algorithm.prepared, before);
  press(*panel, "pushButtonErase");
  EXPECT_EQ(panel->drawMode(), -1);
  EXPECT_EQ(algorithm.prepared, before + 1);
  for (const char* b : {"pushButtonDrawIn", "pushButtonDrawOut", "pushButtonErase"})
    EXPECT_FALSE(child<QPushButton>(*panel, b)->isChecked()) << b;
  // Strokes no longer reach the labels.
  s.paintObject();
  EXPECT_EQ(count(voxels(algorithm), 0), size_t(N) * N * N);
}

TEST_F(InteractivePanelEdges, SpaceSwitchesOnlyBetweenObjectAndBackgroundAndOtherwisePassesThrough) {
  Scene s;
  InteractiveSegmentationAlgorithm algorithm(*s.phantom.image, nullptr);
  auto panel = makePanel(s, algorithm);
  auto spaceOnPanel = [&](QObject* target) {
    QKeyEvent key(QEvent::KeyPress, Qt::Key_Space, Qt::NoModifier, " ");
    QApplication::sendEvent(target, &key);
  };
  // No mode: the views navigate as ever, and the panel lets the key by.
  EXPECT_EQ(s.space(s.axial), GUI::EventResult::Ignored);
  spaceOnPanel(panel.get());
  EXPECT_EQ(panel->drawMode(), -1);
  // Erasing: the same.
  press(*panel, "pushButtonErase");
  EXPECT_EQ(s.space(s.axial), GUI::EventResult::Ignored);
  spaceOnPanel(panel.get());
  EXPECT_EQ(panel->drawMode(), 0);
  // Painting: object and background swap, in the views and on the panel's focused button alike.
  press(*panel, "pushButtonDrawIn");
  spaceOnPanel(child<QPushButton>(*panel, "pushButtonDrawIn"));
  EXPECT_EQ(panel->drawMode(), 2);
  EXPECT_EQ(s.space(s.sagittal), GUI::EventResult::Accepted);
  EXPECT_EQ(panel->drawMode(), 1);
  spaceOnPanel(panel.get());
  EXPECT_EQ(panel->drawMode(), 2);
  EXPECT_EQ(panel->manipulator()->label(), 2);
}

TEST_F(InteractivePanelEdges, ARunWithObjectSeedsOnlyWarnsAndOffersNoAccept) {
  Scene s;
  InteractiveSegmentationAlgorithm algorithm(*s.phantom.image, nullptr);
  auto panel = makePanel(s, algorithm);
  press(*panel, "pushButtonDrawIn");
  s.paintObject();
  TestKit::LogCapture log;
  press(*panel, "pushButtonRunSeg");
  EXPECT_TRUE(log.contains("You must define both inside and outside labels before refining the segmentation."));
  EXPECT_EQ(algorithm.probability(), nullptr) << "nothing was computed";
  EXPECT_FALSE(shown(*panel, "pushButtonAccept"));
  EXPECT_FALSE(shown(*panel, "pushButtonAcceptContinue"));
}

class ResolutionSlider : public testing::TestWithParam<std::pair<int, int>> {
 protected:
  void SetUp() override { MERIVANE_REQUIRE_GL(); }
};

TEST_P(ResolutionSlider, ChoosesTheFinestLevelOfTheRun) {
  const auto [slider, minLevel] = GetParam();
  Scene s(false);
  InteractiveSegmentationAlgorithm algorithm(*s.phantom.image, s.phantom.labels.get());
  auto panel = makePanel(s, algorithm);
  EXPECT_TRUE(panel->labelsInDataList());
  EXPECT_EQ(child<QSlider>(*panel, "sliderResolution")->value(), 3);
  child<QSlider>(*panel, "sliderResolution")->setValue(slider);
  press(*panel, "pushButtonRunSeg");
  EXPECT_EQ(algorithm.status(), Algorithm::statusSuccess);
  EXPECT_EQ(algorithm.minLevel.value(), minLevel);
  // The estimate follows the slider: finer levels take more memory.
  EXPECT_NE(child<QLabel>(*panel, "labelComputationSize")->text(), "N/A");
}

INSTANTIATE_TEST_SUITE_P(FullResolutionDefaultAndCoarsest, ResolutionSlider,
                         testing::Values(std::pair{4, 1}, std::pair{3, 2}, std::pair{1, 4}));

TEST(InteractivePanelTexts, MemoryEstimateCountsBytesThenWholeKilobytes) {
  using C = InteractiveSegmentationController;
  EXPECT_EQ(C::memoryText(0), "N/A");
  EXPECT_EQ(C::memoryText(1), "~1 B");
  EXPECT_EQ(C::memoryText(1000), "~1000 B");
  EXPECT_EQ(C::memoryText(1001), "~1 KB");
  EXPECT_EQ(C::memoryText(1000999), "~1000 KB");
  EXPECT_EQ(C::memoryText(1001000), "~1 MB");
  EXPECT_EQ(C::memoryText(123456789), "~123 MB");
  EXPECT_EQ(C::memoryText(1000000999), "~1000 MB");
  EXPECT_EQ(C::memoryText(2400000000ull), "~2.4 GB");
}

TEST(InteractivePanelTexts, SizesAbove10000GoToCentimetresByAThousandForAreasAndVolumes) {
  using C = InteractiveSegmentationController;
  EXPECT_EQ(C::sizeText(20000, false), QString::fromUtf8("20 cm\u00b2"));
  EXPECT_EQ(C::sizeText(20000, true), QString::fromUtf8("20 cm\u00b3"));
  EXPECT_EQ(C::sizeText(10000, false), QString::fromUtf8("10000 mm\u00b2"));
  EXPECT_EQ(C::sizeText(12.5, true), QString::fromUtf8("12.5 mm\u00b3"));
  EXPECT_EQ(C::sizeText(0, true), QString::fromUtf8("0 mm\u00b3"));
}

// A panel on the phantom's own seeds, run once at full resolution.
struct RunScene {
  Scene s{false};
  InteractiveSegmentationAlgorithm algorithm{*s.phantom.image, nullptr};
  std::unique_ptr<InteractiveSegmentationController> panel;
  RunScene() {
    panel = makePanel(s, algorithm);
    // Seeds as the phantom has them, written into the panel's own label map.
    Labels& mine = labelsOf(algorithm);
    std::copy_n(s.phantom.map().pointer(), mine.descriptor().pixelCount(), mine.pointer());
    algorithm.labels()->get()->setDirtyMem();
    child<QSlider>(*panel, "sliderResolution")->setValue(4);
    press(*panel, "pushButtonRunSeg");
  }
};

class InteractivePanelRun : public testing::Test {
 protected:
  void SetUp() override { MERIVANE_REQUIRE_GL(); }
};

TEST_F(InteractivePanelRun, ClearAsksFirstAndAnswerNoKeepsTheLabels) {
  RunScene r;
  ASSERT_TRUE(shown(*r.panel, "pushButtonAccept"));
  const auto before = voxels(r.algorithm);
  {
    Answers no(QMessageBox::No);
    press(*r.panel, "pushButtonClear");
    ASSERT_EQ(no.asked.size(), 1u);
    EXPECT_EQ(no.asked[0].title, "Interactive Segmentation");
    EXPECT_EQ(no.asked[0].text, "Do you really want to clear the labels ?");
    EXPECT_EQ(no.asked[0].buttons, int(QMessageBox::Yes | QMessageBox::No));
  }
  EXPECT_EQ(voxels(r.algorithm), before);
  EXPECT_TRUE(shown(*r.panel, "pushButtonAccept"));
  {
    Answers yes(QMessageBox::Yes);
    press(*r.panel, "pushButtonClear");
  }
  EXPECT_EQ(count(voxels(r.algorithm), 0), size_t(N) * N * N);
  EXPECT_FALSE(shown(*r.panel, "pushButtonAccept"));
  EXPECT_FALSE(shown(*r.panel, "pushButtonAcceptContinue"));
  press(*r.panel, "pushButtonUndo");
  EXPECT_EQ(voxels(r.algorithm), before);
}

TEST_F(InteractivePanelRun, AcceptAfterAStrokeAsksToRunAgainAndNoAcceptsTheLastResult) {
  for (int answer : {QMessageBox::Yes, QMessageBox::No}) {
    RunScene r;
    Answers answers(answer);
    press(*r.panel, "pushButtonDrawIn");
    r.s.stroke(r.s.axial, {kCentre + Eigen::Vector3d(-3, 3, 0), kCentre + Eigen::Vector3d(3, 3, 0)});
    press(*r.panel, "pushButtonAccept");
    ASSERT_EQ(answers.asked.size(), 1u);
    EXPECT_EQ(answers.asked[0].text,
              "Labels have been modified since the last algorithm run. Do you want to run it again ?");
    const auto labels = voxels(r.algorithm);
    if (answer == QMessageBox::Yes) {
      // Run again: a fresh result waits for its accept.
      EXPECT_TRUE(shown(*r.panel, "pushButtonAccept"));
      EXPECT_GT(count(labels, 255), 0u);
    } else {
      EXPECT_FALSE(shown(*r.panel, "pushButtonAccept"));
      EXPECT_EQ(count(labels, 1) + count(labels, 2), labels.size()) << "accepted: object and background only";
      EXPECT_GE(InteractiveTestKit::dice(labelsOf(r.algorithm), r.s.phantom.truth, 1), 0.95);
    }
  }
}

TEST_F(InteractivePanelRun, StatisticsShowTheVolumeAndIntensitiesOfTheChosenEntry) {
  RunScene r;
  auto* group = child<QGroupBox>(*r.panel, "groupBoxShowStatistics");
  EXPECT_FALSE(group->isChecked());
  EXPECT_EQ(child<QLabel>(*r.panel, "labelSurface")->text(), "N/A");
  group->setChecked(true);
  EXPECT_EQ(child<QLabel>(*r.panel, "labelSurfaceName")->text(), "Volume");
  // The ball of radius 11 holds about 5575 voxels of 1 mm³.
  const QString volume = child<QLabel>(*r.panel, "labelSurface")->text();
  ASSERT_TRUE(volume.endsWith(QString::fromUtf8(" mm\u00b3"))) << volume.toStdString();
  EXPECT_NEAR(volume.section(' ', 0, 0).toDouble(), 5575, 5575 * 0.06);
  EXPECT_TRUE(child<QLabel>(*r.panel, "labelMeanStd")->text().startsWith("Mean: ")) << "bright inside";
  const double objectMean = child<QLabel>(*r.panel, "labelMeanStd")->text().section(' ', 1, 1).toDouble();
  EXPECT_NEAR(objectMean, 1.0, 0.1);
  child<QComboBox>(*r.panel, "comboBox_stats")->setCurrentIndex(1);
  // The background is the rest of the volume: 48³ less the ball, in cm³.
  const QString background = child<QLabel>(*r.panel, "labelSurface")->text();
  ASSERT_TRUE(background.endsWith(QString::fromUtf8(" cm\u00b3"))) << background.toStdString();
  EXPECT_NEAR(background.section(' ', 0, 0).toDouble(), (48.0 * 48 * 48 - 5575) / 1000, 0.4);
  EXPECT_NEAR(child<QLabel>(*r.panel, "labelMeanStd")->text().section(' ', 1, 1).toDouble(), 0.0, 0.1);
}

TEST_F(InteractivePanelRun, ExportsTheLabelsOnceAndTheSurfaceAsAnAnnotation) {
  RunScene r;
  {
    // A result waits for its accept: the question offers both, and "Export Seeds" keeps them.
    Answers seeds(QMessageBox::No);
    const auto before = voxels(r.algorithm);
    press(*r.panel, "pushButtonExportLabelMap");
    ASSERT_EQ(seeds.asked.size(), 1u);
    EXPECT_TRUE(seeds.asked[0].text.startsWith("A segmentation has been run but not accepted."));
    EXPECT_TRUE(seeds.asked[0].text.endsWith(
        "\n(Important: If you accept the segmentation, the manual seeds will be lost)"));
    const auto& relabel = seeds.asked[0].relabel;
    EXPECT_NE(std::find(relabel.begin(), relabel.end(), std::pair<int, QString>(QMessageBox::Yes, "Accept and Export Label Map")),
              relabel.end());
    EXPECT_NE(std::find(relabel.begin(), relabel.end(), std::pair<int, QString>(QMessageBox::No, "Export Seeds")),
              relabel.end());
    ASSERT_EQ(r.s.model.size(), 1);
    auto* exported = r.s.model.at(0)->asImageSet();
    EXPECT_EQ(exported->name(), "Labels");
    EXPECT_EQ(exported->modality(), Data::LABEL);
    const auto* m = static_cast<const Labels*>(exported->mem());
    EXPECT_EQ(std::vector<unsigned char>(m->pointer(), m->pointer() + m->descriptor().pixelCount()), before);
  }

  // Fine and barely smoothed, so that the surface keeps the ball's volume.
  r.panel->setExportSmoothness(1);
  r.panel->setExportResolution(1);
  TestKit::LogCapture log;
  press(*r.panel, "pushButtonExportAnnotation");
  InteractiveObject* surface = r.s.annotations.find("Segmentation");
  ASSERT_NE(surface, nullptr);
  auto* glMesh = dynamic_cast<GlMesh*>(surface->object());
  ASSERT_NE(glMesh, nullptr);
  EXPECT_TRUE(MeshProcessing::isClosedManifold(*glMesh->mesh()));
  EXPECT_NEAR(MeshProcessing::Statistics::computeVolume(*glMesh->mesh()), 5575, 5575 * 0.1);
  EXPECT_TRUE(log.contains("Volume of the mesh: "));
}

TEST_F(InteractivePanelRun, LabelsOfTheDataListAreNotExportedAgain) {
  Scene s(false);
  InteractiveSegmentationAlgorithm algorithm(*s.phantom.image, s.phantom.labels.get());
  auto panel = makePanel(s, algorithm);
  TestKit::LogCapture log;
  press(*panel, "pushButtonExportLabelMap");
  EXPECT_TRUE(log.contains("The label map is already in the data list."));
  EXPECT_EQ(s.model.size(), 0);
}

TEST_F(InteractivePanelRun, ASurfaceOfTheDataListSeedsTheNextRun) {
  RunScene r;
  r.panel->setExportSmoothness(1);
  r.panel->setExportResolution(1);
  press(*r.panel, "pushButtonExportAnnotation");
  InteractiveObject* surface = r.s.annotations.find("Segmentation");
  ASSERT_NE(surface, nullptr);
  auto mesh = std::make_unique<Mesh>(*static_cast<GlMesh*>(surface->object())->mesh());
  r.s.model.add(std::move(mesh), "ball surface");
  EXPECT_EQ(r.panel->refinementSources(), QStringList{"ball surface"});
  {
    Answers yes(QMessageBox::Yes);
    press(*r.panel, "pushButtonClear");
  }
  child<QDoubleSpinBox>(*r.panel, "doubleSpinBoxNarrowBand")->setValue(6.0);
  TestKit::LogCapture log;
  ASSERT_TRUE(r.panel->initFromSegmentation("ball surface"));
  EXPECT_TRUE(log.contains("Initialized from ball surface"));
  // Object inside the band, background outside it, the band free.
  const auto seeds = voxels(r.algorithm);
  EXPECT_GT(count(seeds, 1), 1000u);
  EXPECT_GT(count(seeds, 2), 1000u);
  EXPECT_GT(count(seeds, 0), 500u);
  for (size_t i = 0; i < seeds.size(); ++i)
    if (seeds[i] == 1) ASSERT_TRUE(r.s.phantom.truth[i]) << i;
  press(*r.panel, "pushButtonRunSeg");
  EXPECT_GE(probabilityDice(r.algorithm, r.s.phantom.truth), 0.95);
}

TEST_F(InteractivePanelRun, ADiameterDrawnInAViewBecomesSeedsAndGoesWithRemove) {
  RunScene r;
  {
    Answers yes(QMessageBox::Yes);
    press(*r.panel, "pushButtonClear");
  }
  EXPECT_FALSE(child<QPushButton>(*r.panel, "pushButtonConvertContour")->isEnabled());
  press(*r.panel, "pushButtonContour");
  ASSERT_NE(r.s.annotations.find("Diagonal"), nullptr);
  EXPECT_TRUE(child<QPushButton>(*r.panel, "pushButtonRemoveContour")->isEnabled());
  // A diameter across the ball in the axial view.
  r.s.stroke(r.s.axial, {kCentre - Eigen::Vector3d(10, 0, 0), kCentre + Eigen::Vector3d(10, 0, 0)});
  auto* line = dynamic_cast<GlLine*>(r.s.annotations.find("Diagonal")->object());
  ASSERT_NE(line, nullptr);
  ASSERT_EQ(line->points.size(), 2u);
  EXPECT_NEAR((line->points[1] - line->points[0]).norm(), 20.0, 1e-6);
  press(*r.panel, "pushButtonConvertContour");
  EXPECT_FALSE(child<QPushButton>(*r.panel, "pushButtonConvertContour")->isEnabled());
  const Labels& l = labelsOf(r.algorithm);
  // Round the voxel of the midpoint, (24, 24, 24): a thin ellipsoid of object along the
  // diameter, free voxels across it, background beyond sqrt(1.4) times the half length.
  EXPECT_EQ(l.value(24, 24, 24), 1);
  EXPECT_EQ(l.value(30, 24, 24), 1);
  EXPECT_EQ(l.value(24, 31, 24), 0);
  EXPECT_EQ(l.value(24, 24, 37), 2);
  press(*r.panel, "pushButtonRemoveContour");
  EXPECT_EQ(r.s.annotations.find("Diagonal"), nullptr);
  EXPECT_FALSE(child<QPushButton>(*r.panel, "pushButtonRemoveContour")->isEnabled());
}

TEST_F(InteractivePanelEdges, AContourDrawnOnA2DImageBecomesABandOfSeeds) {
  TestKit::qtApp();
  Repository_MerivaneSeg repo;
  Resource::addRepository(&repo);
  // A bright disc of radius 12 in a 64 x 64 image.
  auto image = TestKit::makeImage<float>(Eigen::Vector3i(64, 64, 1), [](int x, int y, int) {
    return std::hypot(x - 31.5, y - 31.5) < 12 ? 1.0 + 0.1 * TestKit::hashNoise(x, y, 0) : 0.1 * TestKit::hashNoise(x, y, 0);
  });
  GUI::View axial{std::make_unique<GlSliceView>(GlSliceView::Axial)};
  axial.sliceView()->resize(64, 64);
  axial.sliceView()->setMmPerPixel(1.0);
  axial.sliceView()->centerAt(image->get()->pixelToWorld(Eigen::Vector3d(31.5, 31.5, 0)));
  DisplayWidgetMultiAdapter views{{&axial}};
  DataModel model;
  AnnotationModel annotations;
  annotations.annotationAdded.connect([&](InteractiveObject* a) { axial.addViewObject(a); });
  annotations.annotationAboutToBeRemoved.connect([&](InteractiveObject* a) { axial.removeViewObject(a); });
  {
    InteractiveSegmentationAlgorithm algorithm(*image, nullptr);
    InteractiveSegmentationController panel(&algorithm, &views, &model, &annotations);
    panel.init();
    EXPECT_EQ(child<QSlider>(panel, "horizontalSliderResolution")->value(), 80);
    EXPECT_EQ(child<QLabel>(panel, "labelSurfaceName")->text(), "Area");
    press(panel, "pushButtonContour");
    ASSERT_NE(annotations.find("Contour"), nullptr);
    // A rough circle of radius 12 round the disc, point by point.
    std::vector<Eigen::Vector2d> path;
    for (int k = 0; k <= 36; ++k)
      path.push_back(axial.view().viewState().project(image->get()->pixelToWorld(
          Eigen::Vector3d(31.5 + 12 * std::cos(k * M_PI / 18), 31.5 + 12 * std::sin(k * M_PI / 18), 0))).head<2>());
    axial.dispatch(TestKit::pointerEvent(InputEvent::MouseButtonPress, path[0], InputEvent::LeftButton));
    for (const auto& p : path) axial.dispatch(TestKit::pointerEvent(InputEvent::MouseMove, p, InputEvent::LeftButton));
    axial.dispatch(TestKit::pointerEvent(InputEvent::MouseButtonRelease, path.back(), InputEvent::LeftButton));
    EXPECT_TRUE(static_cast<GlPolyLine*>(annotations.find("Contour")->object())->closed);
    EXPECT_EQ(panel.refinementSources(), QStringList{"Contour"});
    press(panel, "pushButtonConvertContour");
    // Width = 24 / 5 mm: object well inside, background well outside, a free band between.
    const Labels& l = *static_cast<Labels*>(algorithm.labels()->mem());
    EXPECT_EQ(l.value(31, 31, 0), 1);
    EXPECT_EQ(l.value(31 + 8, 31, 0), 1);
    EXPECT_EQ(l.value(31 + 12, 31, 0), 0);
    EXPECT_EQ(l.value(31 + 17, 31, 0), 2);
    EXPECT_EQ(l.value(2, 2, 0), 2);
    press(panel, "pushButtonRunSeg");
    EXPECT_EQ(algorithm.status(), Algorithm::statusSuccess);
    press(panel, "pushButtonAccept");
    EXPECT_EQ(l.value(31 + 10, 31, 0), 1);
    EXPECT_EQ(l.value(31 + 14, 31, 0), 2);
    // Exported as annotations, the outline is a closed curve round the disc.
    press(panel, "pushButtonExportAnnotation");
    std::vector<InteractiveObject*> contours;
    for (InteractiveObject* a : annotations.annotations())
      if (dynamic_cast<GlSpline*>(a->object())) contours.push_back(a);
    ASSERT_EQ(contours.size(), 1u);
    for (const auto& p : static_cast<GlSpline*>(contours[0]->object())->points)
      EXPECT_NEAR((image->get()->worldToPixel(p) - Eigen::Vector3d(31.5, 31.5, 0)).norm(), 12.0, 1.5);
  }
  annotations.clear();
  Resource::removeRepository(&repo);
}

TEST_F(InteractivePanelEdges, ConfigurationSetsAdaptivenessAndTheFinestLevel) {
  Scene s(false);
  InteractiveSegmentationAlgorithm algorithm(*s.phantom.image, nullptr);
  auto panel = makePanel(s, algorithm);
  EXPECT_DOUBLE_EQ(algorithm.adaptiveness.value(), 75.0);
  Properties p;
  p.setParam("adaptiveness", 120.0);
  p.setParam("pyramidMinLevel", 2);
  panel->configure(&p);
  EXPECT_EQ(child<QSlider>(*panel, "horizontalSliderAdaptiveness")->value(), 120);
  EXPECT_EQ(child<QSpinBox>(*panel, "spinBoxAdaptiveness")->value(), 120);
  EXPECT_DOUBLE_EQ(algorithm.adaptiveness.value(), 120.0);
  EXPECT_EQ(child<QSlider>(*panel, "sliderResolution")->value(), 3);
  child<QSpinBox>(*panel, "spinBoxAdaptiveness")->setValue(30);
  EXPECT_EQ(child<QSlider>(*panel, "horizontalSliderAdaptiveness")->value(), 30);
  EXPECT_DOUBLE_EQ(algorithm.adaptiveness.value(), 30.0);
}

TEST_F(InteractivePanelEdges, TheOverlayShowsWhileTheImageOrItsLabelsAreSelected) {
  Scene s(false);
  InteractiveSegmentationAlgorithm algorithm(*s.phantom.image, nullptr);
  auto panel = makePanel(s, algorithm);
  GlLabelRenderer* overlay = panel->labelRenderer();
  ASSERT_NE(overlay, nullptr);
  EXPECT_EQ(overlay->labelMap(), algorithm.labels()->get());
  auto inViews = [&] {
    int n = 0;
    for (GUI::View* v : s.views.views()) n += v->view().hasObject(overlay);
    return n;
  };
  EXPECT_EQ(inViews(), 3);
  auto other = TestKit::makeImage<float>(Eigen::Vector3i(4, 4, 4), [](int, int, int) { return 0; });
  panel->onSelectedDataChanged(DataList{other.get()});
  EXPECT_EQ(inViews(), 0);
  panel->onSelectedDataChanged(DataList{algorithm.labels()});
  EXPECT_EQ(inViews(), 3);
  child<QSlider>(*panel, "horizontalSliderTransparency")->setValue(30);
  EXPECT_DOUBLE_EQ(overlay->opacity(), 0.3);
  EXPECT_EQ(child<QLabel>(*panel, "labelTransparency")->text(), "30");
}

TEST_F(InteractivePanelEdges, LabelsDeletedFromTheDataListAreReplacedByEmptyOnes) {
  Scene s(false);
  SharedImageSet* labels = s.model.add(std::move(s.phantom.labels))->asImageSet();
  InteractiveSegmentationAlgorithm algorithm(*s.phantom.image, labels);
  auto panel = makePanel(s, algorithm);
  press(*panel, "pushButtonDrawIn");
  TestKit::LogCapture log;
  s.model.remove(labels);
  EXPECT_TRUE(log.contains("Labels Deleted ! Restarting from scratch..."));
  ASSERT_NE(algorithm.labels(), nullptr);
  EXPECT_FALSE(panel->labelsInDataList());
  EXPECT_EQ(panel->drawMode(), -1);
  EXPECT_EQ(count(voxels(algorithm), 0), size_t(N) * N * N);
  // Painting goes on in the new map.
  press(*panel, "pushButtonDrawIn");
  s.paintObject();
  EXPECT_GT(count(voxels(algorithm), 1), 200u);
}

}  // namespace
}  // namespace Merivane
