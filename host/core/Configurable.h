#pragma once
#include <string_view>
#include <vector>

namespace Merivane {

class Properties;
class ParameterBase;

// Base of everything saved and restored through Properties. Its configure and configuration
// hand the properties to each registered parameter in turn.
class Configurable {
 public:
  Configurable() = default;
  // A copy has no parameters of its own until its members register them.
  Configurable(const Configurable&) {}
  Configurable& operator=(const Configurable&) { return *this; }

  virtual void configure(const Properties* properties);
  virtual void configuration(Properties* properties) const;
  virtual void configureDefaults();
  virtual ~Configurable();

  void registerParameter(ParameterBase* parameter);
  void unregisterParameter(const ParameterBase* parameter);
  const std::vector<ParameterBase*>& parameters() const { return parameters_; }
  ParameterBase* parameter(std::string_view name) const;

 private:
  std::vector<ParameterBase*> parameters_;
};

}  // namespace Merivane
