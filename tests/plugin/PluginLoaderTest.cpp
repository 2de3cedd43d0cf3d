#include <gtest/gtest.h>

#include <algorithm>

#include "FactoryRegistry.h"
#include "Log.h"
#include "MLPlugin.h"
#include "Plugin.h"
#include "SharedImageSet.h"
#include "TestSupport.h"

using namespace Merivane;

namespace {

std::vector<std::string> registeredIds() {
  std::vector<std::string> ids;
  for (AlgorithmFactory* f : FactoryRegistry::get().algorithmFactories())
    for (auto* d : f->algorithmDescriptors()) ids.push_back(d->id);
  return ids;
}

}  // namespace

TEST(PluginLoader, LoadsRealPluginAfterItsDependencyAndListsItsRows) {
  PluginManager manager;
  ML::registerBuiltin(manager);
  std::string error;
  ASSERT_TRUE(manager.load(MERIVANE_PLUGIN_PATH, &error)) << error;

  ASSERT_EQ(manager.plugins().size(), 2u);
  EXPECT_EQ(manager.plugins()[0].id, "Merivane.ML");  // dependency first
  EXPECT_EQ(manager.plugins()[1].id, "Merivane.Seg");
  EXPECT_EQ(manager.plugins()[1].descriptor,
            "__MERIVANE_PLUGIN_V2_MAGIC_STRING__|hostversion=4.4.6|buildflags=GLIBCXX_DEBUG:_GLIBCXX_DEBUG|"
            "pluginversion=");
  EXPECT_EQ(manager.plugins()[1].plugin->description(), "Plugin for advanced Segmentation and Labeling");

  auto ids = registeredIds();
  EXPECT_NE(std::find(ids.begin(), ids.end(), "Seg.MarkAsLabelMap"), ids.end());
  EXPECT_NE(std::find(ids.begin(), ids.end(), "Seg.MakeCompatibleLabelMap"), ids.end());

  // Created across factories by name, stamped with the display name.
  auto image = TestKit::makeSet(U8, {4, 3, 1});
  auto algorithm = FactoryRegistry::instantiateAlgorithm("Seg.MarkAsLabelMap", DataList{image.get()});
  ASSERT_TRUE(algorithm);
  EXPECT_EQ(algorithm->factoryInfo().displayName, "Mark as Label Map");
  algorithm->compute();
  EXPECT_EQ(algorithm->status(), Algorithm::statusSuccess);
  EXPECT_EQ(image->modality(), Data::LABEL);
  algorithm.reset();

  manager.unloadAll();
  EXPECT_TRUE(registeredIds().empty());
  EXPECT_FALSE(FactoryRegistry::instantiateAlgorithm("Seg.MarkAsLabelMap", DataList{image.get()}));
}

TEST(PluginLoader, RefusesLibraryWithWrongMagicNamingTheFile) {
  PluginManager manager;
  std::string error;
  EXPECT_FALSE(manager.load(MERIVANE_BAD_PLUGIN_PATH, &error));
  EXPECT_NE(error.find(MERIVANE_BAD_PLUGIN_PATH), std::string::npos) << error;
  EXPECT_NE(error.find("magic"), std::string::npos) << error;
  EXPECT_TRUE(manager.plugins().empty());
}

TEST(PluginLoader, RefusesMissingFileAndNonPluginLibrary) {
  PluginManager manager;
  std::string error;
  EXPECT_FALSE(manager.load("/nonexistent/libNothing.so", &error));
  EXPECT_NE(error.find("/nonexistent/libNothing.so"), std::string::npos);
  EXPECT_FALSE(manager.load("libm.so.6", &error));
  EXPECT_NE(error.find("not a plug-in"), std::string::npos) << error;
}

TEST(PluginLoader, MissingDependencyLeavesNothingLoaded) {
  PluginManager manager;  // no built-in ML plug-in and no library of that name beside the plug-in
  std::string error;
  EXPECT_FALSE(manager.load(MERIVANE_PLUGIN_PATH, &error));
  EXPECT_NE(error.find("Merivane.ML"), std::string::npos) << error;
  EXPECT_TRUE(manager.plugins().empty());
  EXPECT_TRUE(registeredIds().empty());
}

TEST(PluginLoader, DescriptorCheckWantsTheMagicOnly) {
  EXPECT_EQ(PluginManager::checkDescriptor("__MERIVANE_PLUGIN_V2_MAGIC_STRING__|hostversion=4.4.6"), "");
  EXPECT_NE(PluginManager::checkDescriptor(""), "");
  EXPECT_NE(PluginManager::checkDescriptor("__MERIVANE_PLUGIN_V2_MAGIC_STRING_|hostversion=4.4.6"), "");
  TestKit::LogCapture log;
  EXPECT_EQ(PluginManager::checkDescriptor("__MERIVANE_PLUGIN_V2_MAGIC_STRING__|hostversion=9.9.9"), "");
  EXPECT_EQ(log.count(Log::Warning), 1);
}
