#pragma once
// A named setting registered with its owner:
//     Parameter<int> iterations{"Solver Iterations", 200, this};
// Assigning emits `changed` only when the value differs. Numeric parameters may declare the
// values compute() accepts:
//     Parameter<int> numLevels{"Num Levels", 4, this, ParameterRange::atLeast(1)};
#include <cmath>
#include <limits>
#include <map>
#include <string>
#include <type_traits>
#include <vector>

#include "Configurable.h"
#include "Log.h"
#include "Properties.h"
#include "Signal.h"

namespace Merivane {

// Inclusive bounds of a numeric parameter. Floating-point parameters refuse NaN and infinity
// whether or not bounds are declared.
struct ParameterRange {
  double min = -std::numeric_limits<double>::infinity();
  double max = std::numeric_limits<double>::infinity();
  static ParameterRange atLeast(double lo) { return {lo, std::numeric_limits<double>::infinity()}; }
  static ParameterRange atMost(double hi) { return {-std::numeric_limits<double>::infinity(), hi}; }
  bool contains(double v) const { return v >= min && v <= max; }
  // "must lie in 1..7", "must be at least 0", "must be at most 0", "must be a finite number".
  std::string describe() const;
};

class ParameterBase {
 public:
  ParameterBase(std::string name, Configurable* owner);
  ParameterBase(const ParameterBase&) = delete;
  ParameterBase& operator=(const ParameterBase&) = delete;
  virtual ~ParameterBase();

  virtual void configure(const Properties* properties) = 0;
  virtual void configuration(Properties* properties) const = 0;
  virtual std::string name() const { return name_; }
  // Back to the default value.
  virtual void reset() = 0;
  // The current value as it would be written to Properties.
  virtual std::string text() const = 0;
  // Whether `text` reads as a value of this parameter's type.
  virtual bool canRead(const std::string& text) const = 0;
  // Why the current value is unusable ("must lie in 1..7"); empty when it is fine.
  virtual std::string rangeError() const { return {}; }

  void setLabel(std::string label) { label_ = std::move(label); }
  const std::string& label() const { return label_; }
  void setAttribute(const std::string& key, const std::string& value) { attributes_[key] = value; }
  std::string attribute(const std::string& key) const;
  const std::map<std::string, std::string>& attributes() const { return attributes_; }
  // Older keys still read by configure, with a warning.
  void addDeprecatedName(std::string name) { deprecatedNames_.push_back(std::move(name)); }
  const std::vector<std::string>& deprecatedNames() const { return deprecatedNames_; }

  Signal<> changed;

 protected:
  friend class Configurable;
  void writeCommon(Properties* properties) const;
  void logDeprecated(const std::string& oldName) const;
  void logUnreadable(const std::string& key, const std::string& text) const;

  std::string name_;
  std::string label_;
  std::vector<std::string> deprecatedNames_;
  std::map<std::string, std::string> attributes_;
  Configurable* owner_;
};

template <typename T>
class Parameter : public ParameterBase {
 public:
  Parameter(std::string name, T defaultValue, Configurable* owner)
      : ParameterBase(std::move(name), owner), value_(defaultValue), default_(std::move(defaultValue)) {}
  Parameter(std::string name, T defaultValue, Configurable* owner, ParameterRange range)
    requires(std::is_arithmetic_v<T> && !std::is_same_v<T, bool>)
      : Parameter(std::move(name), std::move(defaultValue), owner) {
    range_ = range;
    if (std::isfinite(range.min)) attributes_["min"] = PropertiesDetail::toText(range.min);
    if (std::isfinite(range.max)) attributes_["max"] = PropertiesDetail::toText(range.max);
  }

  const T& value() const { return value_; }
  operator const T&() const { return value_; }
  const T& operator()() const { return value_; }
  const T* operator->() const { return &value_; }

  void setValue(const T& v) {
    if (value_ == v) return;
    value_ = v;
    changed.emitSignal();
  }
  Parameter& operator=(const T& v) {
    setValue(v);
    return *this;
  }

  const T& defaultValue() const { return default_; }
  void setDefaultValue(const T& v) { default_ = v; }
  // Whether configuration() also writes the default.
  void setPassDefault(bool on) { passDefault_ = on; }
  void setParamType(PropertiesDetail::ParamType t) { paramType_ = t; }

  void setRange(T min, T max)
    requires std::is_arithmetic_v<T>
  {
    attributes_["min"] = PropertiesDetail::Codec<T>::toText(min);
    attributes_["max"] = PropertiesDetail::Codec<T>::toText(max);
  }

  void reset() override { setValue(default_); }
  std::string text() const override { return PropertiesDetail::Codec<T>::toText(value_); }
  bool canRead(const std::string& text) const override {
    T v = value_;
    return PropertiesDetail::Codec<T>::fromText(text, v);
  }
  std::string rangeError() const override {
    if constexpr (std::is_arithmetic_v<T> && !std::is_same_v<T, bool>) {
      const double v = static_cast<double>(value_);
      if (std::is_floating_point_v<T> && !std::isfinite(v)) return range_.describe();
      if (!range_.contains(v)) return range_.describe();
    }
    return {};
  }
  const ParameterRange& range() const { return range_; }

  // A text that does not read as a T keeps the value, with a warning.
  void configure(const Properties* properties) override {
    if (!properties) return;
    if (readKey(*properties, name_)) return;
    for (const auto& old : deprecatedNames_) {
      if (readKey(*properties, old)) {
        logDeprecated(old);
        return;
      }
    }
  }

  void configuration(Properties* properties) const override {
    if (!properties) return;
    if (passDefault_)
      properties->setParam(name_, value_, default_);
    else
      properties->setParam(name_, value_);
    if (paramType_ != PropertiesDetail::ParamType::None) properties->setParamType(name_, paramType_);
    writeCommon(properties);
  }

 private:
  bool readKey(const Properties& properties, const std::string& key) {
    const std::string* raw = properties.rawParam(key);
    if (!raw) return false;
    T v = value_;
    if (!PropertiesDetail::Codec<T>::fromText(*raw, v)) {
      logUnreadable(key, *raw);
      return false;
    }
    setValue(v);
    return true;
  }

  ParameterRange range_;
  T value_;
  T default_;
  bool passDefault_ = true;
  PropertiesDetail::ParamType paramType_ = PropertiesDetail::ParamType::None;
};

}  // namespace Merivane
