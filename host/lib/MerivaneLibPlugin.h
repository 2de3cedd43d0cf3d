#pragma once
#include <memory>

#include "AlgorithmFactory.h"
#include "Plugin.h"

namespace Merivane {

// Base of plug-ins that contribute factories; it owns them and lists them with the registry
// while it lives.
class MerivaneLibPlugin : public PluginBase {
 public:
  ~MerivaneLibPlugin() override;

 protected:
  void registerFactories(AlgorithmFactory* algorithmFactory, AlgorithmControllerFactory* controllerFactory,
                         DataAnnotationFactory* annotationFactory);

 private:
  std::unique_ptr<AlgorithmFactory> algorithmFactory_;
  std::unique_ptr<AlgorithmControllerFactory> controllerFactory_;
  std::unique_ptr<DataAnnotationFactory> annotationFactory_;
};

}  // namespace Merivane
