#pragma once
// Components attached to data: per-set or per-frame records that are saved with it.
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <typeinfo>
#include <vector>

#include "Configurable.h"

namespace Merivane {

class DataComponentBase : public Configurable {
 public:
  virtual std::string id() const = 0;
  virtual std::unique_ptr<DataComponentBase> clone() const = 0;
  virtual bool assign(const DataComponentBase& other) = 0;
  virtual bool equals(const DataComponentBase& other) const = 0;
};

// Implements clone, assign and equals through T's copy constructor, assignment and equality.
template <typename T>
class DataComponent : public DataComponentBase {
 public:
  // The base carries no state, so defaulted equality of T compares T's own fields.
  bool operator==(const DataComponent&) const { return true; }
  std::unique_ptr<DataComponentBase> clone() const override {
    return std::make_unique<T>(static_cast<const T&>(*this));
  }
  bool assign(const DataComponentBase& other) override {
    auto* o = dynamic_cast<const T*>(&other);
    if (!o) return false;
    static_cast<T&>(*this) = *o;
    return true;
  }
  bool equals(const DataComponentBase& other) const override {
    auto* o = dynamic_cast<const T*>(&other);
    return o && static_cast<const T&>(*this) == *o;
  }
};

// Owning list; look-up matches the exact run-time type.
class DataComponentList {
 public:
  DataComponentList() = default;
  DataComponentList(const DataComponentList& other);
  DataComponentList& operator=(const DataComponentList& other);
  DataComponentList(DataComponentList&&) noexcept = default;
  DataComponentList& operator=(DataComponentList&&) noexcept = default;
  ~DataComponentList();

  template <typename T>
  T* add(std::unique_ptr<T> component) {
    T* raw = component.get();
    if (raw) components_.push_back(std::move(component));
    return raw;
  }
  template <typename T>
  T* get() const {
    return static_cast<T*>(find(typeid(T)));
  }
  template <typename T, typename... Args>
  T* getOrCreate(Args&&... args) {
    if (T* t = get<T>()) return t;
    return add(std::make_unique<T>(std::forward<Args>(args)...));
  }
  template <typename T>
  bool remove() {
    return removeComponent(find(typeid(T)));
  }
  bool removeComponent(const DataComponentBase* component);
  DataComponentBase* addComponent(std::unique_ptr<DataComponentBase> component);

  std::vector<DataComponentBase*> getAll() const;
  size_t size() const { return components_.size(); }
  void clear() { components_.clear(); }

 private:
  DataComponentBase* find(const std::type_info& type) const;
  std::vector<std::unique_ptr<DataComponentBase>> components_;
};

// One component list per frame of a set, kept the same length as the frame list.
class ElementwiseDataComponentList {
 public:
  size_t size() const { return lists_.size(); }
  DataComponentList& at(size_t i) { return lists_.at(i); }
  const DataComponentList& at(size_t i) const { return lists_.at(i); }
  void resize(size_t n) { lists_.resize(n); }
  void insert(size_t i) { lists_.insert(lists_.begin() + static_cast<ptrdiff_t>(i), DataComponentList()); }
  void erase(size_t i) { lists_.erase(lists_.begin() + static_cast<ptrdiff_t>(i)); }

 private:
  std::vector<DataComponentList> lists_;
};

// Creates components by id when restoring them from Properties.
class DataComponentFactory {
 public:
  using Creator = std::function<std::unique_ptr<DataComponentBase>()>;
  static DataComponentFactory& get();
  // False when the id is taken; the first registration stays.
  bool registerComponent(const std::string& id, Creator creator);
  bool unregisterComponent(const std::string& id);
  std::unique_ptr<DataComponentBase> create(const std::string& id) const;
  bool has(const std::string& id) const;

 private:
  std::map<std::string, Creator> creators_;
};

}  // namespace Merivane
