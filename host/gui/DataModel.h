#pragma once
// The data the application holds: images, label maps, meshes, in the order they were added,
// with a selection and links between items (a label map and its reference image). The model
// owns its data; everyone else holds pointers, told by `dataAboutToBeRemoved` before they die.
#include <memory>
#include <string>
#include <vector>

#include "Data.h"
#include "Signal.h"

namespace Merivane {

// A named folder of the data list. Groups are owned by the model.
class DataGroup {
 public:
  explicit DataGroup(std::string name) : name_(std::move(name)) {}
  const std::string& name() const { return name_; }

 private:
  std::string name_;
};

class DataModel {
 public:
  DataModel();
  ~DataModel();
  DataModel(const DataModel&) = delete;
  DataModel& operator=(const DataModel&) = delete;

  // Takes the item; `name` replaces the item's own name when not empty. Null adds nothing.
  Data* add(std::unique_ptr<Data> data, const std::string& name = {}, DataGroup* group = nullptr);
  // Adds every item of the list; with a name, items after the first get " 2", " 3", ...
  std::vector<Data*> add(OwningDataList&& list, const std::string& name = {}, DataGroup* group = nullptr);
  DataGroup* addGroup(const std::string& name);
  DataGroup* groupOf(const Data* data) const;

  // Removes and destroys the item (and its links); false when it is not in the model.
  bool remove(Data* data);
  // Removes the item and hands it back.
  std::unique_ptr<Data> take(Data* data);
  void clear();

  bool contains(const Data* data) const;
  int size() const { return static_cast<int>(items_.size()); }
  Data* at(int index) const;
  int indexOf(const Data* data) const;
  std::vector<Data*> getAll(Data::Kind kind = Data::kindAny, Data::Modality modality = Data::modalityAny) const;

  // Links are unordered pairs; adding one twice does nothing.
  void addLink(Data* a, Data* b);
  void removeLink(Data* a, Data* b);
  std::vector<Data*> linked(const Data* data) const;

  void setSelected(const DataList& selection);
  const DataList& selected() const { return selected_; }

  // Items an algorithm is working on in the background: tools that write into data check this
  // before they touch it. Counted, so nested marks need as many unmarks.
  void setBusy(const Data* data, bool busy);
  bool isBusy(const Data* data) const;

  Signal<Data*> dataAdded;
  Signal<Data*> dataAboutToBeRemoved;
  // Content or properties of an item changed (an algorithm wrote into it, a colour changed).
  Signal<Data*> dataChanged;
  Signal<> selectionChanged;
  void notifyChanged(Data* data);

 private:
  struct Item {
    std::unique_ptr<Data> data;
    DataGroup* group = nullptr;
  };
  std::vector<Item> items_;
  std::vector<std::unique_ptr<DataGroup>> groups_;
  std::vector<std::pair<Data*, Data*>> links_;
  DataList selected_;
  std::vector<const Data*> busy_;
};

}  // namespace Merivane
