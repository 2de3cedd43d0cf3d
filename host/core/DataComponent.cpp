#include "DataComponent.h"

#include <algorithm>

namespace Merivane {

DataComponentList::DataComponentList(const DataComponentList& other) {
  for (auto& c : other.components_) components_.push_back(c->clone());
}

DataComponentList& DataComponentList::operator=(const DataComponentList& other) {
  if (this != &other) {
    DataComponentList copy(other);
    components_ = std::move(copy.components_);
  }
  return *this;
}

DataComponentList::~DataComponentList() = default;

DataComponentBase* DataComponentList::find(const std::type_info& type) const {
  for (auto& c : components_)
    if (typeid(*c) == type) return c.get();
  return nullptr;
}

bool DataComponentList::removeComponent(const DataComponentBase* component) {
  if (!component) return false;
  return std::erase_if(components_, [component](auto& c) { return c.get() == component; }) > 0;
}

DataComponentBase* DataComponentList::addComponent(std::unique_ptr<DataComponentBase> component) {
  DataComponentBase* raw = component.get();
  if (raw) components_.push_back(std::move(component));
  return raw;
}

std::vector<DataComponentBase*> DataComponentList::getAll() const {
  std::vector<DataComponentBase*> v;
  for (auto& c : components_) v.push_back(c.get());
  return v;
}

DataComponentFactory& DataComponentFactory::get() {
  static DataComponentFactory factory;
  return factory;
}

bool DataComponentFactory::registerComponent(const std::string& id, Creator creator) {
  return creators_.emplace(id, std::move(creator)).second;
}

bool DataComponentFactory::unregisterComponent(const std::string& id) { return creators_.erase(id) > 0; }

std::unique_ptr<DataComponentBase> DataComponentFactory::create(const std::string& id) const {
  auto it = creators_.find(id);
  return it == creators_.end() ? nullptr : it->second();
}

bool DataComponentFactory::has(const std::string& id) const { return creators_.count(id) > 0; }

}  // namespace Merivane
