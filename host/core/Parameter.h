#pragma once
// A named setting registered with its owner:
//     Parameter<int> iterations{"Solver Iterations", 200, this};
// Assigning emits `changed` only when the value differs.
#include <map>
#include <string>
#include <type_traits>
#include <vector>

#include "Configurable.h"
#include "Log.h"
#include "Properties.h"
#include "Signal.h"

namespace Merivane {

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

  void configure(const Properties* properties) override {
    if (!properties) return;
    T v = value_;
    if (properties->param(name_, v)) {
      setValue(v);
      return;
    }
    for (const auto& old : deprecatedNames_) {
      if (properties->param(old, v)) {
        setValue(v);
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
  T value_;
  T default_;
  bool passDefault_ = true;
  PropertiesDetail::ParamType paramType_ = PropertiesDetail::ParamType::None;
};

}  // namespace Merivane
