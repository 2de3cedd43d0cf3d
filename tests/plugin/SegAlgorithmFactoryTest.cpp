#include <gtest/gtest.h>

#include <stdexcept>

#include "GuiTestKit.h"
#include "InteractiveSegmentationController.h"
#include "Log.h"
#include "Parameter.h"
#include "SegAlgorithmControllerFactory.h"
#include "SegAlgorithmFactory.h"
#include "SegPlugin.h"
#include "SharedImageSet.h"
#include "TestSupport.h"

using namespace Merivane;

namespace {

// Creation behaviour is chosen by the first image's width: 1 accepts, 2 throws a standard
// exception, 3 throws a non-standard one, anything else declines.
struct ProbeAlgorithm : Algorithm {
  static inline int created = 0;
  ProbeAlgorithm() { ++created; }
  void compute() override { setStatus(statusSuccess); }
  static bool createCompatible(const DataList& data, Algorithm** a) {
    auto* img = data.getImage();
    if (!img || data.size() != 1) return false;
    switch (img->img()->width()) {
      case 1:
        if (a) *a = new ProbeAlgorithm();
        return true;
      case 2: throw std::runtime_error("probe failure");
      case 3: throw 42;
      default: return false;
    }
  }
};

struct OtherAlgorithm : ProbeAlgorithm {};

class ProbeFactory : public AlgorithmFactory {
 public:
  explicit ProbeFactory(std::string prefix) : AlgorithmFactory(std::move(prefix), true) {}
  using AlgorithmFactory::registerAlgorithm;
};

std::unique_ptr<SharedImageSet> imageOfWidth(int w) { return TestKit::makeSet(U8, {w, 2, 1}); }

}  // namespace

TEST(AlgorithmFactory, PrefixesNamesAndStampsDisplayNameFromLastMenuLevel) {
  ProbeFactory f("Seg");
  f.registerAlgorithm<ProbeAlgorithm>("Probe", "Segmentation;Sub;Probe Tool");
  f.registerAlgorithm<OtherAlgorithm>("Plain", "NoLevels");
  auto img = imageOfWidth(1);
  auto a = f.instantiateAlgorithm("Seg.Probe", DataList{img.get()});
  ASSERT_TRUE(a);
  EXPECT_EQ(a->factoryInfo().id, "Seg.Probe");
  EXPECT_EQ(a->factoryInfo().displayName, "Probe Tool");
  EXPECT_EQ(a->factoryInfo().input.size(), 1);
  EXPECT_EQ(f.instantiateAlgorithm("Seg.Plain", DataList{img.get()})->factoryInfo().displayName, "NoLevels");
  EXPECT_FALSE(f.instantiateAlgorithm("Probe", DataList{img.get()}));  // the bare name is not the id
  EXPECT_EQ(f.nameOf(typeid(OtherAlgorithm)), "Seg.Plain");
}

TEST(AlgorithmFactory, DuplicateNameLogsOnceAndKeepsFirst) {
  TestKit::LogCapture log;
  ProbeFactory f("Seg");
  f.registerAlgorithm<ProbeAlgorithm>("Probe", "Segmentation;First");
  f.registerAlgorithm<OtherAlgorithm>("Probe", "Segmentation;Second");
  ASSERT_EQ(f.algorithmDescriptors().size(), 1u);
  EXPECT_EQ(f.algorithmDescriptors()[0]->menuPath, "Segmentation;First");
  EXPECT_EQ(log.count(Log::Warning, "AlgorithmFactory"), 1);
  EXPECT_TRUE(log.contains("Algorithm already registered: Seg.Probe"));
  EXPECT_EQ(f.nameOf(typeid(OtherAlgorithm)), "");
}

TEST(AlgorithmFactory, CreatorTurnsStandardExceptionIntoErrorLineAndNull) {
  TestKit::LogCapture log;
  ProbeFactory f("Seg");
  f.registerAlgorithm<ProbeAlgorithm>("Probe", "Segmentation;Probe");
  auto img = imageOfWidth(2);
  EXPECT_FALSE(f.instantiateAlgorithm("Seg.Probe", DataList{img.get()}));
  ASSERT_EQ(log.count(Log::Error), 1);
  EXPECT_EQ(log.lines()[0].category, "");
  EXPECT_EQ(log.lines()[0].message, "Cannot create algorithm Segmentation;Probe: probe failure");

  auto other = imageOfWidth(3);
  EXPECT_THROW(f.instantiateAlgorithm("Seg.Probe", DataList{other.get()}), int);
}

TEST(AlgorithmFactory, DecliningListCreatesNothingAndLogsNothing) {
  TestKit::LogCapture log;
  ProbeFactory f("Seg");
  f.registerAlgorithm<ProbeAlgorithm>("Probe", "Segmentation;Probe");
  auto img = imageOfWidth(5);
  ProbeAlgorithm::created = 0;
  EXPECT_FALSE(f.instantiateAlgorithm("Seg.Probe", DataList{img.get()}));
  auto ok = imageOfWidth(1);
  EXPECT_TRUE(f.algorithmDescriptor("Seg.Probe")->isCompatible(DataList{ok.get()}));
  EXPECT_EQ(ProbeAlgorithm::created, 0);  // the compatibility test only answers
  EXPECT_TRUE(log.lines().empty());
}

TEST(AlgorithmFactory, DefaultPropertiesConfigureNewInstances) {
  struct Configured : Algorithm {
    Parameter<int> level{"level", 1, this};
    void compute() override {}
    static bool createCompatible(const DataList&, Algorithm** a) {
      if (a) *a = new Configured();
      return true;
    }
  };
  ProbeFactory f("");
  f.registerAlgorithm<Configured>("Configured", "Test;Configured", {}, Properties{{"level", "7"}});
  auto a = f.instantiateAlgorithm("Configured", DataList{});
  ASSERT_TRUE(a);
  EXPECT_EQ(static_cast<Configured&>(*a).level.value(), 7);
}

TEST(SegAlgorithmFactory, RowsKeepTableOrderAndRefuseAnEmptyList) {
  SegAlgorithmFactory f;
  std::vector<std::string> ids;
  for (auto* d : f.algorithmDescriptors()) {
    ids.push_back(d->id);
    EXPECT_EQ(d->id.rfind("Seg.", 0), 0u) << d->id;
    EXPECT_FALSE(d->isCompatible(DataList{})) << d->id;
    EXPECT_FALSE(d->create(DataList{})) << d->id;
  }
  EXPECT_EQ(ids, (std::vector<std::string>{"Seg.DoseComputation", "Seg.GraphBasedSegmentation", "Seg.CenterlineExtraction",
                                           "Seg.FiducialExtraction", "Seg.HistogramIntensityClustering",
                                           "Seg.IntensityClustering", "Seg.LabelToMesh",
                                           "Seg.InteractiveSegmentation", "Seg.InteractiveSegmentationWatershed",
                                           "Seg.Labeling",
                                           "Seg.LabelStatistics",
                                           "Seg.MakeCompatibleLabelMap", "Seg.MarkAsLabelMap",
                                           "Seg.WatershedSegmentation", "Seg.LabelMapIsolineRenderer",
                                           "Seg.LineToIsosurfaceIntersection", "Seg.LabelMapToContours",
                                           "Seg.LabelMapInterpolation", "Seg.SkinSegmentation", "Seg.ConvolutionalCRF"}));
}

TEST(SegPlugin, CreatedAndDeletedWithoutInitTouchesNothing) {
  auto plugin = std::make_unique<SegPlugin>();
  EXPECT_EQ(plugin->dependencies(), std::vector<std::string>{"Merivane.ML"});
  EXPECT_STREQ(SegPlugin::id(), "Merivane.Seg");
  plugin.reset();
  SUCCEED();
}

TEST(SegAlgorithmControllerFactory, NullAndForeignAlgorithmsGetNoController) {
  SegAlgorithmControllerFactory f;
  EXPECT_EQ(f.create(nullptr), nullptr);
  ProbeAlgorithm foreign;
  EXPECT_EQ(f.create(&foreign), nullptr);
}

TEST(SegAlgorithmFactory, InteractiveRowsTakeAnImageAloneOrWithAFittingLabelMap) {
  SegAlgorithmFactory f;
  auto image = TestKit::makeSet(F32, {6, 5, 4});
  auto labels = TestKit::makeSet(U8, {6, 5, 4});
  auto wide = TestKit::makeSet(U8, {6, 5, 4}, 1, 2);
  auto other = TestKit::makeSet(U8, {6, 5, 3});
  for (const char* name : {"Seg.InteractiveSegmentation", "Seg.InteractiveSegmentationWatershed"}) {
    const auto* d = f.algorithmDescriptor(name);
    ASSERT_TRUE(d) << name;
    EXPECT_TRUE(d->isCompatible(DataList{image.get()})) << name;
    EXPECT_TRUE(d->isCompatible(DataList{image.get(), labels.get()})) << name;
    EXPECT_FALSE(d->isCompatible(DataList{image.get(), wide.get()})) << name;
    EXPECT_FALSE(d->isCompatible(DataList{image.get(), other.get()})) << name;
    EXPECT_FALSE(d->isCompatible(DataList{image.get(), labels.get(), labels.get()})) << name;
    auto a = d->create(DataList{image.get(), labels.get()});
    ASSERT_TRUE(a) << name;
    // Both get the interactive panel, never the graph-based one, although they derive from it.
    TestKit::qtApp();
    SegAlgorithmControllerFactory controllers;
    std::unique_ptr<AlgorithmController> panel(controllers.create(a.get()));
    EXPECT_TRUE(dynamic_cast<InteractiveSegmentationController*>(panel.get())) << name;
  }
  EXPECT_EQ(f.algorithmDescriptor("Seg.InteractiveSegmentationWatershed")->menuPath,
            "Segmentation;Interactive Watershed Segmentation");
}
