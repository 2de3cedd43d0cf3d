#include "SharedImageSet.h"

#include <Eigen/LU>
#include <algorithm>
#include <sstream>

#include "AlgorithmUtils.h"

namespace Merivane {

SharedImageSet::SharedImageSet() = default;
SharedImageSet::SharedImageSet(std::shared_ptr<Image> image) { add(std::move(image)); }
SharedImageSet::SharedImageSet(std::shared_ptr<SharedImage> frame) { add(std::move(frame)); }
SharedImageSet::~SharedImageSet() = default;

Data::Kind SharedImageSet::kind() const {
  if (frames_.empty()) return kindAny;
  const bool volume = frames_.front()->descriptor().slices() > 1;
  if (frames_.size() == 1) return volume ? kindVolume : kindImage;
  return volume ? kindVolumeSet : kindImageSet;
}

void SharedImageSet::setModality(Modality modality) {
  modality_ = modality;
  for (auto& f : frames_) f->setModality(modality);
}

SharedImage* SharedImageSet::get(int index) const {
  index = resolve(index);
  if (index < 0 || index >= static_cast<int>(frames_.size())) return nullptr;
  return frames_[static_cast<size_t>(index)].get();
}

std::shared_ptr<SharedImage> SharedImageSet::getShared(int index) const {
  index = resolve(index);
  if (index < 0 || index >= static_cast<int>(frames_.size())) return nullptr;
  return frames_[static_cast<size_t>(index)];
}

Image* SharedImageSet::img(int index) const {
  SharedImage* f = get(index);
  return f ? f->img() : nullptr;
}

MemImage* SharedImageSet::mem(int index) const {
  SharedImage* f = get(index);
  return f ? f->mem() : nullptr;
}

GlImage* SharedImageSet::gl(int index) const {
  SharedImage* f = get(index);
  return f ? f->gl() : nullptr;
}

void SharedImageSet::add(std::shared_ptr<SharedImage> frame) {
  if (!frame) return;
  if (modality_ != modalityAny) frame->setModality(modality_);
  frames_.push_back(std::move(frame));
  elementwise_.resize(frames_.size());
}

void SharedImageSet::add(std::shared_ptr<Image> image) { add(std::make_shared<SharedImage>(std::move(image))); }

void SharedImageSet::add(std::shared_ptr<Image> image, const Eigen::Matrix4d& matrix) {
  auto frame = std::make_shared<SharedImage>(std::move(image));
  frame->setMatrix(matrix);
  add(std::move(frame));
}

void SharedImageSet::add(const std::vector<std::shared_ptr<SharedImage>>& frames) {
  for (auto& f : frames) add(f);
}

void SharedImageSet::replace(int index, std::shared_ptr<SharedImage> frame) {
  if (!frame || index < 0 || index >= size()) return;
  if (modality_ != modalityAny) frame->setModality(modality_);
  frames_[static_cast<size_t>(index)] = std::move(frame);
}

void SharedImageSet::remove(int index) {
  if (index < 0 || index >= size()) return;
  frames_.erase(frames_.begin() + index);
  elementwise_.erase(static_cast<size_t>(index));
  selection_.clamp(size());
}

void SharedImageSet::clear() {
  frames_.clear();
  elementwise_.resize(0);
  selection_.clamp(0);
}

mat4 SharedImageSet::matrix() const {
  SharedImage* f = get(-1);
  if (!f && !frames_.empty()) f = frames_.front().get();
  return f ? f->matrix() : Eigen::Matrix4d::Identity();
}

void SharedImageSet::setMatrix(const mat4& m) {
  for (auto& f : frames_) f->setMatrix(m);
}

Geometry::AlignedBox SharedImageSet::bounds() const {
  Geometry::AlignedBox box;
  bool first = true;
  for (auto& f : frames_) {
    const Eigen::Vector3i d = f->descriptor().dimensions;
    for (int corner = 0; corner < 8; ++corner) {
      Eigen::Vector3d v((corner & 1) ? d[0] - 0.5 : -0.5, (corner & 2) ? d[1] - 0.5 : -0.5,
                        (corner & 4) ? d[2] - 0.5 : -0.5);
      Eigen::Vector3d w = f->pixelToWorld(v);
      for (int k = 0; k < 3; ++k) {
        box.min[k] = first ? w[k] : std::min(box.min[k], w[k]);
        box.max[k] = first ? w[k] : std::max(box.max[k], w[k]);
      }
      first = false;
    }
  }
  return box;
}

std::string SharedImageSet::describe() const {
  std::ostringstream s;
  s << (name_.empty() ? "image set" : name_) << " (" << size() << " frame" << (size() == 1 ? "" : "s");
  if (!frames_.empty()) {
    const auto& d = frames_.front()->descriptor();
    s << ", " << d.width() << "x" << d.height() << "x" << d.slices() << ", " << d.channels << " channel"
      << (d.channels == 1 ? "" : "s") << ", " << pixelTypeName(d.pixelType);
  }
  s << ")";
  return s.str();
}

void SharedImageSet::copyInto(SharedImageSet& target) const {
  target.name_ = name_;
  target.components_ = components_;
  target.matrix_ = matrix_;
  for (auto& f : frames_) target.frames_.push_back(std::shared_ptr<SharedImage>(f->clone()));
  target.modality_ = modality_;
  target.properties_ = properties_;
  target.elementwise_ = elementwise_;
  target.selection_ = selection_;
}

std::unique_ptr<SharedImageSet> SharedImageSet::clone(Flags<CloneOptions>) const {
  auto copy = std::make_unique<SharedImageSet>();
  copyInto(*copy);
  return copy;
}

void TrackedSharedImageSet::setTracking(int index, const Eigen::Matrix4d& pose) {
  if (index < 0) return;
  if (static_cast<size_t>(index) >= tracking_.size())
    tracking_.resize(static_cast<size_t>(index) + 1, Eigen::Matrix4d::Identity());
  tracking_[static_cast<size_t>(index)] = pose;
}

Eigen::Matrix4d TrackedSharedImageSet::tracking(int index) const {
  index = resolve(index);
  if (index < 0 || static_cast<size_t>(index) >= tracking_.size()) return Eigen::Matrix4d::Identity();
  return tracking_[static_cast<size_t>(index)];
}

std::unique_ptr<SharedImageSet> TrackedSharedImageSet::clone(Flags<CloneOptions>) const {
  auto copy = std::make_unique<TrackedSharedImageSet>();
  copyInto(*copy);
  copy->tracking_ = tracking_;
  return copy;
}

void TrackedSharedImageSet::remove(int index) {
  if (index >= 0 && static_cast<size_t>(index) < tracking_.size()) tracking_.erase(tracking_.begin() + index);
  SharedImageSet::remove(index);
}

// OwningDataList members that must see SharedImageSet whole.
std::unique_ptr<SharedImageSet> OwningDataList::extractFirstImage(Data::Kind kind, Data::Modality modality) {
  for (auto it = items_.begin(); it != items_.end(); ++it) {
    Data* d = it->get();
    SharedImageSet* set = d->asImageSet();
    if (!set) continue;
    if (kindMatches(kind, d->kind()) && (modality == Data::modalityAny || d->modality() == modality)) {
      it->release();
      items_.erase(it);
      return std::unique_ptr<SharedImageSet>(set);
    }
  }
  return nullptr;
}

std::vector<std::unique_ptr<SharedImageSet>> OwningDataList::extractAllImages(Data::Kind kind,
                                                                              Data::Modality modality) {
  std::vector<std::unique_ptr<SharedImageSet>> v;
  while (auto img = extractFirstImage(kind, modality)) v.push_back(std::move(img));
  return v;
}

namespace AlgorithmUtils::internal {

FrameWrapper::FrameWrapper(const std::vector<SharedImage*>& frames) {
  for (SharedImage* f : frames) {
    if (!f) continue;
    // An empty deleter: the caller keeps owning the frame.
    auto set = new SharedImageSet(std::shared_ptr<SharedImage>(f, [](SharedImage*) {}));
    set->setModality(f->modality());
    sets_.push_back(set);
    list_.add(set);
  }
}

FrameWrapper::~FrameWrapper() {
  for (SharedImageSet* s : sets_) delete s;
}

}  // namespace AlgorithmUtils::internal

}  // namespace Merivane
