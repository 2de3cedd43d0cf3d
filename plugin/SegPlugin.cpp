#include "SegPlugin.h"

#include "SegAlgorithmControllerFactory.h"
#include "SegAlgorithmFactory.h"

namespace Merivane {

SegPlugin::SegPlugin() = default;
SegPlugin::~SegPlugin() = default;

std::string SegPlugin::author() const { return "Merivane Segmentation Team"; }
std::string SegPlugin::description() const { return "Plugin for advanced Segmentation and Labeling"; }
std::vector<std::string> SegPlugin::dependencies() const { return {"Merivane.ML"}; }
const char* SegPlugin::id() { return "Merivane.Seg"; }

int SegPlugin::init() {
  auto* controllerFactory = new SegAlgorithmControllerFactory();
  auto* algorithmFactory = new SegAlgorithmFactory();
  registerFactories(algorithmFactory, controllerFactory, nullptr);
  return 0;
}

}  // namespace Merivane
