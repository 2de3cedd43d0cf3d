#pragma once
// Names, colours and visibility of the values of a label map.
#include <Eigen/Core>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "Data.h"
#include "DataComponent.h"
#include "Signal.h"
#include "Image.h"

namespace Merivane {

class SharedImageSet;

class LabelDataComponent : public DataComponent<LabelDataComponent> {
 public:
  struct LabelConfig {
    std::string name;
    Eigen::Vector4d color = Eigen::Vector4d(1, 0, 0, 1);  // red, green, blue, opacity in [0, 1]
    bool visible2d = true;
    bool visible3d = true;
    // Carried along and never interpreted here.
    std::string segmentationAlgorithm;
    std::string segmentationAlgorithmName;
    std::string anatomicalRegion;
    std::string category;
    std::string type;
    bool operator==(const LabelConfig& o) const;
    bool operator!=(const LabelConfig& o) const { return !(*this == o); }
  };

  explicit LabelDataComponent(const SharedImageSet* owner = nullptr) : owner_(owner) {}
  // Copies carry the labels, not the connections of the changed signal.
  LabelDataComponent(const LabelDataComponent& o)
      : DataComponent(o), owner_(o.owner_), labels_(o.labels_), sourceModality_(o.sourceModality_) {}
  LabelDataComponent& operator=(const LabelDataComponent& o) {
    owner_ = o.owner_;
    labels_ = o.labels_;
    sourceModality_ = o.sourceModality_;
    changed.emitSignal();
    return *this;
  }

  // Emitted after any change of a name, colour, visibility or the set of labels.
  Signal<> changed;

  std::string id() const override { return "LabelDataComponent"; }
  void configure(const Properties* properties) override;
  void configuration(Properties* properties) const override;
  bool operator==(const LabelDataComponent& o) const {
    return labels_ == o.labels_ && sourceModality_ == o.sourceModality_;
  }

  bool hasLabel(int value) const { return labels_.count(value) > 0; }
  std::optional<LabelConfig> labelConfig(int value) const;
  // A generated name and a colour from a fixed palette of well-separated hues.
  static LabelConfig defaultLabelConfig(int value);
  void setLabelConfig(int value, const LabelConfig& config) {
    labels_[value] = config;
    changed.emitSignal();
  }
  void setLabelConfigs(std::map<int, LabelConfig> configs) {
    labels_ = std::move(configs);
    changed.emitSignal();
  }
  const std::map<int, LabelConfig>& labelConfigs() const { return labels_; }
  void setLabelName(int value, const std::string& name);
  void setLabelColor(int value, const Eigen::Vector4d& color);
  void setVisibility2d(int value, bool visible);
  void setVisibility3d(int value, bool visible);
  void removeLabel(int value) {
    if (labels_.erase(value)) changed.emitSignal();
  }

  Data::Modality sourceModality() const { return sourceModality_; }
  void setSourceModality(Data::Modality m) { sourceModality_ = m; }
  // Adds a default entry for each value above 0 found in the image; returns how many.
  int detectLabels(const SharedImageSet& image);
  // 256 x 1 RGBA lookup of colours by label value; label 0 and hidden labels are transparent.
  std::unique_ptr<TypedImage<unsigned char>> colormap2d() const;

  const SharedImageSet* owner() const { return owner_; }

 private:
  LabelConfig& entry(int value);
  const SharedImageSet* owner_;
  std::map<int, LabelConfig> labels_;
  Data::Modality sourceModality_ = Data::modalityAny;
};

}  // namespace Merivane
