#include "AlgorithmFactory.h"

#include <exception>

#include "Log.h"

namespace Merivane {

AlgorithmFactory::AlgorithmFactory(std::string prefix, bool exposed) : prefix_(std::move(prefix)), exposed_(exposed) {}
AlgorithmFactory::~AlgorithmFactory() = default;
AlgorithmControllerFactory::~AlgorithmControllerFactory() = default;
DataAnnotationFactory::~DataAnnotationFactory() = default;

namespace {

// Creates through createCompatible and stamps the factory information.
std::unique_ptr<Algorithm> createStamped(AlgorithmFactory::CreateCompatibleFn createCompatible, const std::string& id,
                                         const std::string& menuPath, const std::optional<Properties>& defaults,
                                         const DataList& data) {
  Algorithm* raw = nullptr;
  try {
    if (!createCompatible(data, &raw)) {
      delete raw;
      return nullptr;
    }
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& e) {
    delete raw;
    LOG_ERROR("", "Cannot create algorithm " << menuPath << ": " << e.what());
    return nullptr;
  }
  std::unique_ptr<Algorithm> algorithm(raw);
  if (!algorithm) return nullptr;

  std::string displayName = menuPath;
  if (auto pos = menuPath.rfind(';'); pos != std::string::npos) displayName = menuPath.substr(pos + 1);
  algorithm->setFactoryInfo(Algorithm::FactoryInfo(id, displayName, data));
  if (auto* io = dynamic_cast<IoAlgorithm*>(algorithm.get())) io->configureFromGlobalSettings();
  if (defaults) algorithm->configure(&*defaults);
  return algorithm;
}

}  // namespace

void AlgorithmFactory::registerAlgorithm(std::string name, std::string menuPath,
                                         Flags<Descriptor::AlgorithmAttributes> attributes,
                                         std::optional<Properties> defaults, CreateCompatibleFn createCompatible,
                                         const std::type_info& type) {
  std::string id = prefix_.empty() ? name : prefix_ + "." + name;
  for (const Descriptor& d : descriptors_) {
    if (d.id == id) {
      LOG_WARN("AlgorithmFactory", "Algorithm already registered: " << id);
      return;
    }
  }
  Descriptor d;
  d.id = id;
  d.menuPath = menuPath;
  d.attributes = attributes;
  d.create = [createCompatible, id, menuPath, defaults = std::move(defaults)](const DataList& data) {
    return createStamped(createCompatible, id, menuPath, defaults, data);
  };
  d.isCompatible = [createCompatible](const DataList& data) { return createCompatible(data, nullptr); };
  if (addDescriptor(std::move(d))) typeNames_[std::type_index(type)] = id;
}

bool AlgorithmFactory::addDescriptor(Descriptor descriptor) {
  if (!descriptor.create || descriptor.id.empty()) return false;
  descriptors_.push_back(std::move(descriptor));
  return true;
}

std::unique_ptr<Algorithm> AlgorithmFactory::instantiateAlgorithm(const std::string& name, const DataList& data) const {
  const Descriptor* d = algorithmDescriptor(name, false);
  return d ? d->create(data) : nullptr;
}

std::unique_ptr<Algorithm> AlgorithmFactory::instantiateIoAlgorithm(const std::string& name,
                                                                    const DataList& data) const {
  for (const Descriptor& d : descriptors_)
    if (d.isIo && d.id == name) return d.create(data);
  return nullptr;
}

std::vector<const AlgorithmFactory::Descriptor*> AlgorithmFactory::compatibleDescriptors(const DataList& data) const {
  std::vector<const Descriptor*> v;
  for (const Descriptor& d : descriptors_)
    if (!d.isIo && d.isCompatible && d.isCompatible(data)) v.push_back(&d);
  return v;
}

std::vector<const AlgorithmFactory::Descriptor*> AlgorithmFactory::compatibleIoDescriptors(const DataList& data) const {
  std::vector<const Descriptor*> v;
  for (const Descriptor& d : descriptors_)
    if (d.isIo && d.isCompatible && d.isCompatible(data)) v.push_back(&d);
  return v;
}

std::vector<const AlgorithmFactory::Descriptor*> AlgorithmFactory::compatibleIoDescriptors(const std::string&) const {
  return ioAlgorithmDescriptors();
}

const AlgorithmFactory::Descriptor* AlgorithmFactory::algorithmDescriptor(const std::string& name,
                                                                          bool includeIo) const {
  for (const Descriptor& d : descriptors_)
    if (d.id == name && (includeIo || !d.isIo)) return &d;
  return nullptr;
}

std::vector<const AlgorithmFactory::Descriptor*> AlgorithmFactory::algorithmDescriptors() const {
  std::vector<const Descriptor*> v;
  for (const Descriptor& d : descriptors_)
    if (!d.isIo) v.push_back(&d);
  return v;
}

std::vector<const AlgorithmFactory::Descriptor*> AlgorithmFactory::ioAlgorithmDescriptors() const {
  std::vector<const Descriptor*> v;
  for (const Descriptor& d : descriptors_)
    if (d.isIo) v.push_back(&d);
  return v;
}

std::string AlgorithmFactory::nameOf(const std::type_info& type) const {
  auto it = typeNames_.find(std::type_index(type));
  return it == typeNames_.end() ? std::string() : it->second;
}

}  // namespace Merivane
