#include "MerivaneLibPlugin.h"

#include "FactoryRegistry.h"

namespace Merivane {

MerivaneLibPlugin::~MerivaneLibPlugin() {
  auto& registry = FactoryRegistry::get();
  if (algorithmFactory_) registry.removeAlgorithmFactory(algorithmFactory_.get());
  if (controllerFactory_) registry.removeControllerFactory(controllerFactory_.get());
}

void MerivaneLibPlugin::registerFactories(AlgorithmFactory* algorithmFactory,
                                          AlgorithmControllerFactory* controllerFactory,
                                          DataAnnotationFactory* annotationFactory) {
  auto& registry = FactoryRegistry::get();
  if (algorithmFactory_) registry.removeAlgorithmFactory(algorithmFactory_.get());
  if (controllerFactory_) registry.removeControllerFactory(controllerFactory_.get());
  algorithmFactory_.reset(algorithmFactory);
  controllerFactory_.reset(controllerFactory);
  annotationFactory_.reset(annotationFactory);
  if (algorithmFactory_) registry.addAlgorithmFactory(algorithmFactory_.get());
  if (controllerFactory_) registry.addControllerFactory(controllerFactory_.get());
}

}  // namespace Merivane
