#pragma once
// Factories map prefixed names to algorithm creators, and algorithms to their panels.
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <typeindex>
#include <vector>

#include "Algorithm.h"
#include "Flags.h"
#include "Properties.h"

namespace Merivane {

class AlgorithmFactory {
 public:
  struct Descriptor {
    enum AlgorithmAttributes : uint32_t { None = 0, Hidden = 1, RequiresHost = 2 };
    std::string id;
    std::string menuPath;
    Flags<AlgorithmAttributes> attributes;
    std::function<std::unique_ptr<Algorithm>(const DataList&)> create;
    std::function<bool(const DataList&)> isCompatible;
    bool isIo = false;
  };
  using CreateCompatibleFn = bool (*)(const DataList&, Algorithm**);

  AlgorithmFactory(std::string prefix, bool exposed);
  AlgorithmFactory(const AlgorithmFactory&) = delete;
  AlgorithmFactory& operator=(const AlgorithmFactory&) = delete;
  virtual ~AlgorithmFactory();

  virtual std::unique_ptr<Algorithm> instantiateAlgorithm(const std::string& name, const DataList& data) const;
  virtual std::unique_ptr<Algorithm> instantiateIoAlgorithm(const std::string& name, const DataList& data) const;
  virtual std::vector<const Descriptor*> compatibleDescriptors(const DataList& data) const;
  virtual std::vector<const Descriptor*> compatibleIoDescriptors(const DataList& data) const;
  virtual std::vector<const Descriptor*> compatibleIoDescriptors(const std::string& path) const;
  virtual const Descriptor* algorithmDescriptor(const std::string& name, bool includeIo = false) const;
  virtual std::vector<const Descriptor*> algorithmDescriptors() const;
  virtual std::vector<const Descriptor*> ioAlgorithmDescriptors() const;
  virtual void addAlgorithmFactoryToFront() {}

  const std::string& prefix() const { return prefix_; }
  bool exposed() const { return exposed_; }
  // The prefixed factory name of a class, empty when it was not registered here.
  std::string nameOf(const std::type_info& type) const;

 protected:
  template <typename T>
  void registerAlgorithm(std::string name, std::string menuPath,
                         Flags<Descriptor::AlgorithmAttributes> attributes = {},
                         std::optional<Properties> defaults = std::nullopt) {
    registerAlgorithm(std::move(name), std::move(menuPath), attributes, std::move(defaults), &T::createCompatible,
                      typeid(T));
  }
  void registerAlgorithm(std::string name, std::string menuPath, Flags<Descriptor::AlgorithmAttributes> attributes,
                         std::optional<Properties> defaults, CreateCompatibleFn createCompatible,
                         const std::type_info& type);
  bool addDescriptor(Descriptor descriptor);

 private:
  std::string prefix_;
  bool exposed_;
  std::vector<Descriptor> descriptors_;
  std::map<std::type_index, std::string> typeNames_;
};

class AlgorithmController;

class AlgorithmControllerFactory {
 public:
  AlgorithmControllerFactory(std::string name, bool exposed) : name_(std::move(name)), exposed_(exposed) {}
  virtual ~AlgorithmControllerFactory();
  virtual AlgorithmController* create(Algorithm* algorithm) const = 0;
  virtual std::vector<std::string> compatibleDataControllers(const DataList& data) const { return {}; }
  const std::string& name() const { return name_; }

 private:
  std::string name_;
  bool exposed_;
};

class DataAnnotationFactory {
 public:
  virtual ~DataAnnotationFactory();
};

}  // namespace Merivane
