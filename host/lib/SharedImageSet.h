#pragma once
// The ordered list of frames that algorithms take and give: one modality for the set, one
// component list per frame, a Properties bag, and a selection with a focus frame.
#include <Eigen/Core>
#include <memory>
#include <vector>

#include "Data.h"
#include "Properties.h"
#include "Selection.h"
#include "SharedImage.h"
#include "Signal.h"

namespace Merivane {

class SharedImageSet : public Data, public Selectable {
 public:
  enum class CloneOptions : uint32_t { None = 0 };

  SharedImageSet();
  explicit SharedImageSet(std::shared_ptr<Image> image);
  explicit SharedImageSet(std::shared_ptr<SharedImage> frame);
  ~SharedImageSet() override;
  SharedImageSet(const SharedImageSet&) = delete;
  SharedImageSet& operator=(const SharedImageSet&) = delete;

  virtual int size() const { return static_cast<int>(frames_.size()); }
  bool empty() const { return frames_.empty(); }
  // kindImage or kindVolume for one frame, kindImageSet or kindVolumeSet for several; decided
  // by the first frame.
  Kind kind() const override;
  Modality modality() const override { return modality_; }
  virtual void setModality(Modality modality);

  // Frame i, or the frame in focus for -1; null when out of range.
  virtual SharedImage* get(int index = -1) const;
  std::shared_ptr<SharedImage> getShared(int index = -1) const;
  Image* img(int index = -1) const;
  MemImage* mem(int index = -1) const;
  // The frame's texture (uploading when needed); null without a texture path.
  GlImage* gl(int index = -1) const;

  void add(std::shared_ptr<SharedImage> frame);
  void add(std::shared_ptr<Image> image);
  void add(std::shared_ptr<Image> image, const Eigen::Matrix4d& matrix);
  void add(const std::vector<std::shared_ptr<SharedImage>>& frames);
  virtual void replace(int index, std::shared_ptr<SharedImage> frame);
  virtual void remove(int index);
  void clear();

  // The focus frame's matrix; setMatrix applies to all frames.
  mat4 matrix() const override;
  void setMatrix(const mat4& m) override;
  Geometry::AlignedBox bounds() const override;
  std::string describe() const override;

  Properties& properties() { return properties_; }
  const Properties& properties() const { return properties_; }

  ElementwiseDataComponentList& elementwiseComponents() { return elementwise_; }
  const ElementwiseDataComponentList& elementwiseComponents() const { return elementwise_; }

  virtual std::unique_ptr<SharedImageSet> clone(Flags<CloneOptions> options = {}) const;

  // Editors emit this after they have changed the voxels of a frame (its index), so that live
  // tools can follow; slots must not edit the set themselves.
  Signal<int> contentChanged;

  SharedImageSet* asImageSet() override { return this; }
  const SharedImageSet* asImageSet() const override { return this; }

  // The index that -1 stands for.
  int resolve(int index) const { return index < 0 ? selection_.focus() : index; }

 protected:
  void copyInto(SharedImageSet& target) const;

  std::vector<std::shared_ptr<SharedImage>> frames_;
  Modality modality_ = modalityAny;
  Properties properties_;
  ElementwiseDataComponentList elementwise_;
};

// A set whose frames each carry a tracking pose.
class TrackedSharedImageSet : public SharedImageSet {
 public:
  using SharedImageSet::SharedImageSet;
  void setTracking(int index, const Eigen::Matrix4d& pose);
  Eigen::Matrix4d tracking(int index) const;
  std::unique_ptr<SharedImageSet> clone(Flags<CloneOptions> options = {}) const override;
  void remove(int index) override;

 private:
  std::vector<Eigen::Matrix4d> tracking_;
};

}  // namespace Merivane
