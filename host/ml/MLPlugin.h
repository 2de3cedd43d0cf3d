#pragma once
// The in-process stand-in of the host's machine-learning plug-in, "Merivane.ML". Its factory
// (prefix "ML") gains rows as the plug-in's callers need them.
#include <memory>

#include "MerivaneLibPlugin.h"

namespace Merivane::ML {

class MLPlugin : public MerivaneLibPlugin {
 public:
  static constexpr const char* kId = "Merivane.ML";
  std::string author() const override { return "Merivane"; }
  std::string description() const override { return "Machine-learning models and operations"; }
  int init() override;
};

class MLAlgorithmFactory : public AlgorithmFactory {
 public:
  MLAlgorithmFactory();
};

std::unique_ptr<PluginBase> createPlugin();
// Makes "Merivane.ML" known to a loader as a built-in plug-in.
void registerBuiltin(PluginManager& manager);

}  // namespace Merivane::ML
