#include "DataModel.h"

#include <algorithm>

namespace Merivane {

DataModel::DataModel() = default;

DataModel::~DataModel() { clear(); }

Data* DataModel::add(std::unique_ptr<Data> data, const std::string& name, DataGroup* group) {
  if (!data) return nullptr;
  if (!name.empty()) data->setName(name);
  Data* raw = data.get();
  items_.push_back({std::move(data), group});
  dataAdded.emitSignal(raw);
  return raw;
}

std::vector<Data*> DataModel::add(OwningDataList&& list, const std::string& name, DataGroup* group) {
  std::vector<Data*> added;
  auto items = list.release();
  for (size_t i = 0; i < items.size(); ++i) {
    std::string n = name.empty() || i == 0 ? name : name + " " + std::to_string(i + 1);
    if (Data* d = add(std::move(items[i]), n, group)) added.push_back(d);
  }
  return added;
}

DataGroup* DataModel::addGroup(const std::string& name) {
  groups_.push_back(std::make_unique<DataGroup>(name));
  return groups_.back().get();
}

DataGroup* DataModel::groupOf(const Data* data) const {
  for (const auto& it : items_)
    if (it.data.get() == data) return it.group;
  return nullptr;
}

std::unique_ptr<Data> DataModel::take(Data* data) {
  auto it = std::find_if(items_.begin(), items_.end(), [&](const Item& i) { return i.data.get() == data; });
  if (it == items_.end()) return nullptr;
  dataAboutToBeRemoved.emitSignal(data);
  // The signal's receivers may have changed the list; look again.
  it = std::find_if(items_.begin(), items_.end(), [&](const Item& i) { return i.data.get() == data; });
  if (it == items_.end()) return nullptr;
  std::unique_ptr<Data> owned = std::move(it->data);
  items_.erase(it);
  links_.erase(std::remove_if(links_.begin(), links_.end(),
                              [&](const auto& l) { return l.first == data || l.second == data; }),
               links_.end());
  if (selected_.remove(data)) selectionChanged.emitSignal();
  return owned;
}

bool DataModel::remove(Data* data) { return take(data) != nullptr; }

void DataModel::clear() {
  while (!items_.empty()) remove(items_.back().data.get());
}

bool DataModel::contains(const Data* data) const { return indexOf(data) >= 0; }

Data* DataModel::at(int index) const {
  if (index < 0 || index >= size()) return nullptr;
  return items_[static_cast<size_t>(index)].data.get();
}

int DataModel::indexOf(const Data* data) const {
  for (size_t i = 0; i < items_.size(); ++i)
    if (items_[i].data.get() == data) return static_cast<int>(i);
  return -1;
}

std::vector<Data*> DataModel::getAll(Data::Kind kind, Data::Modality modality) const {
  std::vector<Data*> result;
  for (const auto& it : items_) {
    if (!kindMatches(kind, it.data->kind())) continue;
    if (modality != Data::modalityAny && it.data->modality() != modality) continue;
    result.push_back(it.data.get());
  }
  return result;
}

void DataModel::addLink(Data* a, Data* b) {
  if (!a || !b || a == b || !contains(a) || !contains(b)) return;
  for (const auto& l : links_)
    if ((l.first == a && l.second == b) || (l.first == b && l.second == a)) return;
  links_.emplace_back(a, b);
}

void DataModel::removeLink(Data* a, Data* b) {
  links_.erase(std::remove_if(links_.begin(), links_.end(),
                              [&](const auto& l) {
                                return (l.first == a && l.second == b) || (l.first == b && l.second == a);
                              }),
               links_.end());
}

std::vector<Data*> DataModel::linked(const Data* data) const {
  std::vector<Data*> result;
  for (const auto& l : links_) {
    if (l.first == data) result.push_back(l.second);
    if (l.second == data) result.push_back(l.first);
  }
  return result;
}

void DataModel::setSelected(const DataList& selection) {
  DataList kept;
  for (Data* d : selection.items())
    if (contains(d)) kept.add(d);
  selected_ = kept;
  selectionChanged.emitSignal();
}

void DataModel::notifyChanged(Data* data) {
  if (contains(data)) dataChanged.emitSignal(data);
}

void DataModel::setBusy(const Data* data, bool busy) {
  if (busy) {
    busy_.push_back(data);
  } else if (auto it = std::find(busy_.begin(), busy_.end(), data); it != busy_.end()) {
    busy_.erase(it);
  }
}

bool DataModel::isBusy(const Data* data) const {
  return data && std::find(busy_.begin(), busy_.end(), data) != busy_.end();
}

}  // namespace Merivane
