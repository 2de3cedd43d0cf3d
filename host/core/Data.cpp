#include "Data.h"

#include <Eigen/Core>
#include <Eigen/LU>
#include <algorithm>

namespace Merivane {

Data::~Data() = default;

mat4 Data::matrix() const { return matrix_ ? *matrix_ : mat4::Identity(); }
void Data::setMatrix(const mat4& m) { matrix_ = std::make_shared<mat4>(m); }
void Data::setMatrixToWorld(const mat4& m) { setMatrix(m); }
void Data::setMatrixFromWorld(const mat4& m) { setMatrix(m.inverse()); }
mat4 Data::matrixToWorld() const { return matrix(); }
mat4 Data::matrixFromWorld() const { return matrix().inverse(); }

std::string Data::describe() const { return name_.empty() ? std::string("data") : name_; }

bool kindMatches(Data::Kind wanted, Data::Kind actual) { return wanted == Data::kindAny || wanted == actual; }

DataList::DataList(std::initializer_list<Data*> items) : items_(items) {}

bool DataList::remove(const Data* d) {
  auto it = std::find(items_.begin(), items_.end(), d);
  if (it == items_.end()) return false;
  items_.erase(it);
  return true;
}

Data* DataList::getFirst(Data::Kind kind) const {
  for (Data* d : items_)
    if (d && kindMatches(kind, d->kind())) return d;
  return nullptr;
}

std::vector<Data*> DataList::getAll(Data::Kind kind) const {
  std::vector<Data*> v;
  for (Data* d : items_)
    if (d && kindMatches(kind, d->kind())) v.push_back(d);
  return v;
}

SharedImageSet* DataList::getImage(Data::Kind kind, Data::Modality modality) const {
  for (Data* d : items_) {
    if (!d || !d->asImageSet()) continue;
    if (kindMatches(kind, d->kind()) && (modality == Data::modalityAny || d->modality() == modality))
      return d->asImageSet();
  }
  return nullptr;
}

std::vector<SharedImageSet*> DataList::getImages(Data::Kind kind, Data::Modality modality) const {
  std::vector<SharedImageSet*> v;
  for (Data* d : items_) {
    if (!d || !d->asImageSet()) continue;
    if (kindMatches(kind, d->kind()) && (modality == Data::modalityAny || d->modality() == modality))
      v.push_back(d->asImageSet());
  }
  return v;
}

std::vector<Mesh*> DataList::getSurfaces() const {
  std::vector<Mesh*> v;
  for (Data* d : items_)
    if (d && d->asMesh()) v.push_back(d->asMesh());
  return v;
}

OwningDataList::OwningDataList() = default;
OwningDataList::OwningDataList(OwningDataList&&) noexcept = default;
OwningDataList& OwningDataList::operator=(OwningDataList&&) noexcept = default;
OwningDataList::~OwningDataList() = default;

void OwningDataList::add(std::unique_ptr<Data> data) {
  if (data) items_.push_back(std::move(data));
}

DataList OwningDataList::dataListView() const {
  DataList list;
  for (auto& d : items_) list.add(d.get());
  return list;
}

// extractFirstImage and extractAllImages live with SharedImageSet, which they must see whole.

std::vector<std::unique_ptr<Data>> OwningDataList::release() { return std::move(items_); }

}  // namespace Merivane
