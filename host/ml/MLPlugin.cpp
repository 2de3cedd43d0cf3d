#include "MLPlugin.h"

namespace Merivane::ML {

MLAlgorithmFactory::MLAlgorithmFactory() : AlgorithmFactory("ML", true) {}

int MLPlugin::init() {
  registerFactories(new MLAlgorithmFactory(), nullptr, nullptr);
  return 0;
}

std::unique_ptr<PluginBase> createPlugin() { return std::make_unique<MLPlugin>(); }

void registerBuiltin(PluginManager& manager) { manager.registerBuiltin(MLPlugin::kId, &createPlugin); }

}  // namespace Merivane::ML
