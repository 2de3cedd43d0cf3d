#pragma once
// The host's list of factories across all loaded plug-ins.
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "AlgorithmFactory.h"

namespace Merivane {

class FactoryRegistry {
 public:
  static FactoryRegistry& get();

  void addAlgorithmFactory(AlgorithmFactory* factory);
  void removeAlgorithmFactory(const AlgorithmFactory* factory);
  void addControllerFactory(AlgorithmControllerFactory* factory);
  void removeControllerFactory(const AlgorithmControllerFactory* factory);

  // Creates by prefixed name across all factories, in the order they were added.
  static std::unique_ptr<Algorithm> instantiateAlgorithm(const std::string& name, const DataList& data);
  // The first controller factory that answers.
  static AlgorithmController* createController(Algorithm* algorithm);
  static const AlgorithmFactory::Descriptor* descriptor(const std::string& name);

  std::vector<AlgorithmFactory*> algorithmFactories() const;
  std::vector<AlgorithmControllerFactory*> controllerFactories() const;

  // Defaults that Algorithm::loadDefaults applies, by factory name.
  void setSavedDefaults(const std::string& id, const Properties& defaults);
  const Properties* savedDefaults(const std::string& id) const;

 private:
  mutable std::mutex mutex_;
  std::vector<AlgorithmFactory*> algorithmFactories_;
  std::vector<AlgorithmControllerFactory*> controllerFactories_;
  std::map<std::string, Properties> defaults_;
};

}  // namespace Merivane
