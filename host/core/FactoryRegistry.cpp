#include "FactoryRegistry.h"

#include <algorithm>

namespace Merivane {

FactoryRegistry& FactoryRegistry::get() {
  static FactoryRegistry registry;
  return registry;
}

void FactoryRegistry::addAlgorithmFactory(AlgorithmFactory* factory) {
  std::lock_guard lock(mutex_);
  if (factory && std::find(algorithmFactories_.begin(), algorithmFactories_.end(), factory) == algorithmFactories_.end())
    algorithmFactories_.push_back(factory);
}

void FactoryRegistry::removeAlgorithmFactory(const AlgorithmFactory* factory) {
  std::lock_guard lock(mutex_);
  std::erase(algorithmFactories_, factory);
}

void FactoryRegistry::addControllerFactory(AlgorithmControllerFactory* factory) {
  std::lock_guard lock(mutex_);
  if (factory &&
      std::find(controllerFactories_.begin(), controllerFactories_.end(), factory) == controllerFactories_.end())
    controllerFactories_.push_back(factory);
}

void FactoryRegistry::removeControllerFactory(const AlgorithmControllerFactory* factory) {
  std::lock_guard lock(mutex_);
  std::erase(controllerFactories_, factory);
}

std::vector<AlgorithmFactory*> FactoryRegistry::algorithmFactories() const {
  std::lock_guard lock(mutex_);
  return algorithmFactories_;
}

std::vector<AlgorithmControllerFactory*> FactoryRegistry::controllerFactories() const {
  std::lock_guard lock(mutex_);
  return controllerFactories_;
}

std::unique_ptr<Algorithm> FactoryRegistry::instantiateAlgorithm(const std::string& name, const DataList& data) {
  for (AlgorithmFactory* f : get().algorithmFactories())
    if (f->algorithmDescriptor(name, false)) return f->instantiateAlgorithm(name, data);
  return nullptr;
}

const AlgorithmFactory::Descriptor* FactoryRegistry::descriptor(const std::string& name) {
  for (AlgorithmFactory* f : get().algorithmFactories())
    if (auto* d = f->algorithmDescriptor(name, true)) return d;
  return nullptr;
}

AlgorithmController* FactoryRegistry::createController(Algorithm* algorithm) {
  for (AlgorithmControllerFactory* f : get().controllerFactories())
    if (AlgorithmController* c = f->create(algorithm)) return c;
  return nullptr;
}

void FactoryRegistry::setSavedDefaults(const std::string& id, const Properties& defaults) {
  std::lock_guard lock(mutex_);
  defaults_[id] = defaults;
}

const Properties* FactoryRegistry::savedDefaults(const std::string& id) const {
  std::lock_guard lock(mutex_);
  auto it = defaults_.find(id);
  return it == defaults_.end() ? nullptr : &it->second;
}

}  // namespace Merivane
