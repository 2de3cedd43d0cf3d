#include "LabelDataComponent.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "SharedImageSet.h"

namespace Merivane {

bool LabelDataComponent::LabelConfig::operator==(const LabelConfig& o) const {
  return name == o.name && color == o.color && visible2d == o.visible2d && visible3d == o.visible3d &&
         segmentationAlgorithm == o.segmentationAlgorithm && segmentationAlgorithmName == o.segmentationAlgorithmName &&
         anatomicalRegion == o.anatomicalRegion && category == o.category && type == o.type;
}

std::optional<LabelDataComponent::LabelConfig> LabelDataComponent::labelConfig(int value) const {
  auto it = labels_.find(value);
  if (it == labels_.end()) return std::nullopt;
  return it->second;
}

LabelDataComponent::LabelConfig LabelDataComponent::defaultLabelConfig(int value) {
  // Twelve hues that stay apart on grey images; later values cycle with darker shades.
  static constexpr std::array<std::array<double, 3>, 12> palette{{{0.90, 0.10, 0.10},
                                                                  {0.10, 0.70, 0.20},
                                                                  {0.15, 0.35, 0.95},
                                                                  {0.95, 0.80, 0.10},
                                                                  {0.60, 0.20, 0.80},
                                                                  {0.10, 0.80, 0.85},
                                                                  {0.95, 0.50, 0.10},
                                                                  {0.90, 0.30, 0.65},
                                                                  {0.55, 0.85, 0.20},
                                                                  {0.50, 0.30, 0.15},
                                                                  {0.30, 0.55, 0.55},
                                                                  {0.75, 0.75, 0.95}}};
  LabelConfig c;
  c.name = "Label " + std::to_string(value);
  const int v = std::max(value, 1) - 1;
  const auto& rgb = palette[static_cast<size_t>(v) % palette.size()];
  const double shade = std::pow(0.8, static_cast<double>((v / palette.size()) % 4));
  c.color = Eigen::Vector4d(rgb[0] * shade, rgb[1] * shade, rgb[2] * shade, 1.0);
  return c;
}

LabelDataComponent::LabelConfig& LabelDataComponent::entry(int value) {
  auto it = labels_.find(value);
  if (it == labels_.end()) it = labels_.emplace(value, defaultLabelConfig(value)).first;
  return it->second;
}

void LabelDataComponent::setLabelName(int value, const std::string& name) {
  entry(value).name = name;
  changed.emitSignal();
}
void LabelDataComponent::setLabelColor(int value, const Eigen::Vector4d& color) {
  entry(value).color = color;
  changed.emitSignal();
}
void LabelDataComponent::setVisibility2d(int value, bool visible) {
  entry(value).visible2d = visible;
  changed.emitSignal();
}
void LabelDataComponent::setVisibility3d(int value, bool visible) {
  entry(value).visible3d = visible;
  changed.emitSignal();
}

int LabelDataComponent::detectLabels(const SharedImageSet& image) {
  std::array<bool, 256> seen{};
  int added = 0;
  for (int i = 0; i < image.size(); ++i) {
    const MemImage* m = image.mem(i);
    if (!m) continue;
    dispatchPixelType(m->type(), [&](auto tag) {
      using T = decltype(tag);
      auto* t = dynamic_cast<const TypedImage<T>*>(m);
      if (!t) return;
      const T* p = t->pointer();
      const size_t n = m->descriptor().elementCount();
      for (size_t k = 0; k < n; ++k) {
        const double v = static_cast<double>(p[k]);
        if (v > 0 && v < 256) seen[static_cast<size_t>(v)] = true;
      }
    });
  }
  for (int v = 1; v < 256; ++v)
    if (seen[static_cast<size_t>(v)] && !hasLabel(v)) {
      labels_[v] = defaultLabelConfig(v);
      ++added;
    }
  if (added) changed.emitSignal();
  return added;
}

std::unique_ptr<TypedImage<unsigned char>> LabelDataComponent::colormap2d() const {
  auto lut = TypedImage<unsigned char>::zeros(Eigen::Vector3i(256, 1, 1), 4);
  for (auto& [value, c] : labels_) {
    if (value <= 0 || value > 255 || !c.visible2d) continue;
    for (int k = 0; k < 4; ++k)
      lut->setValue(static_cast<unsigned char>(std::lround(std::clamp(c.color[k], 0.0, 1.0) * 255.0)), value, 0, 0, k);
  }
  return lut;
}

void LabelDataComponent::configure(const Properties* properties) {
  if (!properties) return;
  int source;
  if (properties->param("sourceModality", source)) sourceModality_ = static_cast<Data::Modality>(source);
  std::map<int, LabelConfig> labels;
  for (const Properties* p : properties->subPropertiesNamed("Label")) {
    int value;
    if (!p->param("value", value)) continue;
    LabelConfig c = defaultLabelConfig(value);
    p->param("name", c.name);
    Eigen::Vector4d color = c.color;
    if (p->param("color", color)) c.color = color;
    p->param("visible2d", c.visible2d);
    p->param("visible3d", c.visible3d);
    p->param("segmentationAlgorithm", c.segmentationAlgorithm);
    p->param("segmentationAlgorithmName", c.segmentationAlgorithmName);
    p->param("anatomicalRegion", c.anatomicalRegion);
    p->param("category", c.category);
    p->param("type", c.type);
    labels[value] = c;
  }
  labels_ = std::move(labels);
  changed.emitSignal();
}

void LabelDataComponent::configuration(Properties* properties) const {
  if (!properties) return;
  properties->setParam("sourceModality", static_cast<int>(sourceModality_));
  for (auto& [value, c] : labels_) {
    Properties* p = properties->addSubProperties("Label");
    p->setParam("value", value);
    p->setParam("name", c.name);
    p->setParam("color", c.color);
    p->setParam("visible2d", c.visible2d);
    p->setParam("visible3d", c.visible3d);
    if (!c.segmentationAlgorithm.empty()) p->setParam("segmentationAlgorithm", c.segmentationAlgorithm);
    if (!c.segmentationAlgorithmName.empty()) p->setParam("segmentationAlgorithmName", c.segmentationAlgorithmName);
    if (!c.anatomicalRegion.empty()) p->setParam("anatomicalRegion", c.anatomicalRegion);
    if (!c.category.empty()) p->setParam("category", c.category);
    if (!c.type.empty()) p->setParam("type", c.type);
  }
}

}  // namespace Merivane
