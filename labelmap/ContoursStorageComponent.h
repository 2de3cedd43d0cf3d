#pragma once
// Keeps all contours of a label map, frame by frame, and saves them with it: "frameCount",
// then a sub-node "frame N" per frame with contours, holding a sub-node "contour K" each.
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "Contour.h"
#include "DataComponent.h"
#include "Flags.h"

namespace Merivane::Seg {

class ContoursStorageComponent : public DataComponent<ContoursStorageComponent> {
 public:
  ContoursStorageComponent() = default;
  ContoursStorageComponent(const ContoursStorageComponent& other);
  ContoursStorageComponent& operator=(const ContoursStorageComponent& other);

  std::string id() const override { return "ContoursStorageComponent"; }
  void configure(const Properties* properties) override;
  void configuration(Properties* properties) const override;
  bool operator==(const ContoursStorageComponent& other) const;

  // Grows the frame list to the contour's frame + 1 when shorter and appends a copy.
  void add(const Contour& contour);
  void add(Contour&& contour);

  std::vector<std::pair<Contour*, int>> contours() const;
  std::vector<Contour*> contours(int frame) const;
  bool hasContours(int frame, std::optional<Contour::CreationMode> mode = {}) const;
  bool remove(int frame, int index);
  void removeAll() { frames_.clear(); }
  void removeAll(int frame);
  int size() const;
  int size(int frame) const;
  int frameCount() const { return static_cast<int>(frames_.size()); }
  std::vector<Contour*> filterContours(Flags<Contour::CreationMode> modes, std::optional<int> frame = {}) const;

 private:
  std::vector<std::vector<std::unique_ptr<Contour>>> frames_;
};

}  // namespace Merivane::Seg
