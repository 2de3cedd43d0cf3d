#include "ContoursStorageComponent.h"

#include <algorithm>
#include <string>

#include "Properties.h"

namespace Merivane::Seg {

ContoursStorageComponent::ContoursStorageComponent(const ContoursStorageComponent& other)
    : DataComponent<ContoursStorageComponent>(other) {
  *this = other;
}

ContoursStorageComponent& ContoursStorageComponent::operator=(const ContoursStorageComponent& other) {
  if (this == &other) return *this;
  std::vector<std::vector<std::unique_ptr<Contour>>> copy(other.frames_.size());
  for (size_t f = 0; f < other.frames_.size(); ++f)
    for (const auto& c : other.frames_[f]) copy[f].push_back(std::make_unique<Contour>(*c));
  frames_ = std::move(copy);
  return *this;
}

bool ContoursStorageComponent::operator==(const ContoursStorageComponent& other) const {
  if (size() != other.size()) return false;
  const int frames = std::max(frameCount(), other.frameCount());
  for (int f = 0; f < frames; ++f) {
    const auto a = contours(f), b = other.contours(f);
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
      if (*a[i] != *b[i]) return false;
  }
  return true;
}

void ContoursStorageComponent::add(const Contour& contour) { add(Contour(contour)); }

void ContoursStorageComponent::add(Contour&& contour) {
  if (contour.frame < 0) return;
  if (static_cast<int>(frames_.size()) <= contour.frame) frames_.resize(static_cast<size_t>(contour.frame) + 1);
  auto& list = frames_[static_cast<size_t>(contour.frame)];
  list.push_back(std::make_unique<Contour>(std::move(contour)));
}

std::vector<std::pair<Contour*, int>> ContoursStorageComponent::contours() const {
  std::vector<std::pair<Contour*, int>> out;
  for (size_t f = 0; f < frames_.size(); ++f)
    for (const auto& c : frames_[f]) out.emplace_back(c.get(), static_cast<int>(f));
  return out;
}

std::vector<Contour*> ContoursStorageComponent::contours(int frame) const {
  std::vector<Contour*> out;
  if (frame < 0 || frame >= frameCount()) return out;
  for (const auto& c : frames_[static_cast<size_t>(frame)]) out.push_back(c.get());
  return out;
}

bool ContoursStorageComponent::hasContours(int frame, std::optional<Contour::CreationMode> mode) const {
  if (frame < 0 || frame >= frameCount()) return false;
  const auto& list = frames_[static_cast<size_t>(frame)];
  if (!mode) return !list.empty();
  for (const auto& c : list)
    if (c->creationMode == *mode) return true;
  return false;
}

bool ContoursStorageComponent::remove(int frame, int index) {
  if (frame < 0 || frame >= frameCount()) return false;
  auto& list = frames_[static_cast<size_t>(frame)];
  if (index < 0 || index >= static_cast<int>(list.size())) return false;
  list.erase(list.begin() + index);
  return true;
}

void ContoursStorageComponent::removeAll(int frame) {
  if (frame >= 0 && frame < frameCount()) frames_[static_cast<size_t>(frame)].clear();
}

int ContoursStorageComponent::size() const {
  int n = 0;
  for (const auto& list : frames_) n += static_cast<int>(list.size());
  return n;
}

int ContoursStorageComponent::size(int frame) const {
  return frame >= 0 && frame < frameCount() ? static_cast<int>(frames_[static_cast<size_t>(frame)].size()) : 0;
}

std::vector<Contour*> ContoursStorageComponent::filterContours(Flags<Contour::CreationMode> modes,
                                                               std::optional<int> frame) const {
  std::vector<Contour*> out;
  for (const auto& [c, f] : contours())
    if ((!frame || *frame == f) && modes.test(c->creationMode)) out.push_back(c);
  return out;
}

void ContoursStorageComponent::configuration(Properties* p) const {
  if (!p) return;
  p->setParam("frameCount", frameCount());
  for (int f = 0; f < frameCount(); ++f) {
    const auto& list = frames_[static_cast<size_t>(f)];
    if (list.empty()) continue;
    Properties* frameNode = p->addSubProperties("frame " + std::to_string(f));
    for (size_t i = 0; i < list.size(); ++i) list[i]->configuration(frameNode->addSubProperties("contour " + std::to_string(i)));
  }
}

void ContoursStorageComponent::configure(const Properties* p) {
  if (!p) return;
  frames_.clear();
  int count = 0;
  p->param("frameCount", count);
  if (count > 0 && count < (1 << 24)) frames_.resize(static_cast<size_t>(count));
  for (const Properties* frameNode : p->subProperties()) {
    const std::string& n = frameNode->name();
    if (n.rfind("frame ", 0) != 0) continue;
    int f = -1;
    try {
      f = std::stoi(n.substr(6));
    } catch (const std::exception&) {
      continue;
    }
    if (f < 0 || f >= (1 << 24)) continue;
    for (const Properties* node : frameNode->subProperties()) {
      if (node->name().rfind("contour ", 0) != 0) continue;
      Contour c;
      c.frame = f;
      c.configure(node);
      c.frame = f;  // the node it sits in decides
      add(std::move(c));
    }
  }
}

}  // namespace Merivane::Seg
