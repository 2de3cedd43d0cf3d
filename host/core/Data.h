#pragma once
// Everything that can stand in a data list, the non-owning list and the owning output list.
#include <array>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "DataComponent.h"
#include "EigenFwd.h"

namespace Merivane {

class SharedImageSet;
class Mesh;

namespace Geometry {
struct AlignedBox {
  std::array<double, 3> min{0, 0, 0};
  std::array<double, 3> max{0, 0, 0};
};
}  // namespace Geometry

class Data {
 public:
  enum Kind : int {
    kindAny = 0,
    kindImage = 1,
    kindVolume = 2,
    kindImageSet = 3,
    kindVolumeSet = 4,
    kindTensor = 12,
    kindMesh = 20,
    kindPointSet = 21,
    kindTable = 22,
    kindOther = 99,
  };
  enum Modality : int {
    modalityAny = 0,
    XRAY = 1,
    CT = 2,
    MRI = 3,
    ULTRASOUND = 4,
    VIDEO = 5,
    NM = 6,
    OCT = 7,
    LABEL = 8,
  };
  enum MatrixConvention : int { ImageToWorld = 0, WorldToImage = 1 };

  Data() = default;
  Data(const Data& other) = default;
  Data& operator=(const Data& other) = default;
  virtual ~Data();

  virtual Kind kind() const = 0;
  virtual Modality modality() const { return modalityAny; }
  virtual MatrixConvention matrixConvention() const { return ImageToWorld; }
  virtual void setMatrixFromWorld(const mat4& m);
  virtual void setMatrixToWorld(const mat4& m);
  virtual mat4 matrixFromWorld() const;
  virtual mat4 matrixToWorld() const;
  // The data-to-world matrix.
  virtual mat4 matrix() const;
  virtual void setMatrix(const mat4& m);
  virtual bool isAnnotationType() const { return false; }
  virtual Geometry::AlignedBox bounds() const { return {}; }
  virtual std::string describe() const;

  // Cheap downcasts for lists that cannot see the derived types.
  virtual SharedImageSet* asImageSet() { return nullptr; }
  virtual const SharedImageSet* asImageSet() const { return nullptr; }
  virtual Mesh* asMesh() { return nullptr; }

  const std::string& name() const { return name_; }
  void setName(std::string name) { name_ = std::move(name); }

  DataComponentList& components() { return components_; }
  const DataComponentList& components() const { return components_; }

 protected:
  std::string name_;
  DataComponentList components_;
  std::shared_ptr<mat4> matrix_;  // null means identity
};

// A non-owning ordered list of data.
class DataList {
 public:
  DataList() = default;
  DataList(std::initializer_list<Data*> items);
  explicit DataList(std::vector<Data*> items) : items_(std::move(items)) {}

  void add(Data* d) { items_.push_back(d); }
  bool remove(const Data* d);
  int size() const { return static_cast<int>(items_.size()); }
  bool empty() const { return items_.empty(); }
  Data* operator[](int i) const { return items_.at(static_cast<size_t>(i)); }
  const std::vector<Data*>& items() const { return items_; }

  Data* getFirst(Data::Kind kind = Data::kindAny) const;
  std::vector<Data*> getAll(Data::Kind kind = Data::kindAny) const;
  // Image sets that match kind and modality; kindAny and modalityAny match every image set.
  SharedImageSet* getImage(Data::Kind kind = Data::kindAny, Data::Modality modality = Data::modalityAny) const;
  std::vector<SharedImageSet*> getImages(Data::Kind kind = Data::kindAny,
                                         Data::Modality modality = Data::modalityAny) const;
  std::vector<Mesh*> getSurfaces() const;

 private:
  std::vector<Data*> items_;
};

// The output container: owns its data.
class OwningDataList {
 public:
  OwningDataList();
  OwningDataList(OwningDataList&&) noexcept;
  OwningDataList& operator=(OwningDataList&&) noexcept;
  ~OwningDataList();

  void add(std::unique_ptr<Data> data);
  int size() const { return static_cast<int>(items_.size()); }
  bool empty() const { return items_.empty(); }
  DataList dataListView() const;
  std::unique_ptr<SharedImageSet> extractFirstImage(Data::Kind kind = Data::kindAny,
                                                    Data::Modality modality = Data::modalityAny);
  std::vector<std::unique_ptr<SharedImageSet>> extractAllImages(Data::Kind kind = Data::kindAny,
                                                                Data::Modality modality = Data::modalityAny);
  // Everything, in order, for a caller that takes ownership.
  std::vector<std::unique_ptr<Data>> release();

 private:
  std::vector<std::unique_ptr<Data>> items_;
};

bool kindMatches(Data::Kind wanted, Data::Kind actual);

}  // namespace Merivane
