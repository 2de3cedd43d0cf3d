#include "SegPlugin.h"

#include "SegAlgorithmControllerFactory.h"
#include "SegAlgorithmFactory.h"
#include "Repository_MerivaneSeg.h"
#include "Resource.h"

namespace Merivane {

SegPlugin::SegPlugin() = default;
SegPlugin::~SegPlugin() {
  // The algorithm factory, deleted by the base, takes back its component creator.
  if (repository_) Resource::removeRepository(repository_.get());
}

std::string SegPlugin::author() const { return "Merivane Segmentation Team"; }
std::string SegPlugin::description() const { return "Plugin for advanced Segmentation and Labeling"; }
std::vector<std::string> SegPlugin::dependencies() const { return {"Merivane.ML"}; }
const char* SegPlugin::id() { return "Merivane.Seg"; }

int SegPlugin::init() {
  auto* controllerFactory = new SegAlgorithmControllerFactory();
  auto* algorithmFactory = new SegAlgorithmFactory();
  registerFactories(algorithmFactory, controllerFactory, nullptr);
  // The shader repository, replacing one from an earlier init().
  if (repository_) Resource::removeRepository(repository_.get());
  repository_ = std::make_unique<Repository_MerivaneSeg>();
  Resource::addRepository(repository_.get());
  return 0;
}

}  // namespace Merivane
