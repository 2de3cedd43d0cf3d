#include "Configurable.h"

#include <algorithm>

#include "InputChecks.h"
#include "Parameter.h"

namespace Merivane {

Configurable::~Configurable() {
  // Parameters that are members die after this body; they must not reach back.
  for (ParameterBase* p : parameters_) p->owner_ = nullptr;
}

void Configurable::configure(const Properties* properties) {
  if (!properties) return;
  for (ParameterBase* p : parameters_) p->configure(properties);
}

void Configurable::configuration(Properties* properties) const {
  if (!properties) return;
  for (const ParameterBase* p : parameters_) p->configuration(properties);
}

void Configurable::configureDefaults() {
  for (ParameterBase* p : parameters_) p->reset();
}

void Configurable::registerParameter(ParameterBase* parameter) {
  if (parameter && std::find(parameters_.begin(), parameters_.end(), parameter) == parameters_.end())
    parameters_.push_back(parameter);
}

void Configurable::unregisterParameter(const ParameterBase* parameter) {
  std::erase(parameters_, parameter);
}

ParameterBase* Configurable::parameter(std::string_view name) const {
  for (ParameterBase* p : parameters_)
    if (p->name() == name) return p;
  return nullptr;
}

ParameterBase::ParameterBase(std::string name, Configurable* owner) : name_(std::move(name)), owner_(owner) {
  if (owner_) owner_->registerParameter(this);
}

ParameterBase::~ParameterBase() {
  if (owner_) owner_->unregisterParameter(this);
}

std::string ParameterBase::attribute(const std::string& key) const {
  auto it = attributes_.find(key);
  return it == attributes_.end() ? std::string() : it->second;
}

void ParameterBase::writeCommon(Properties* properties) const {
  Properties::Attributes attrs(attributes_.begin(), attributes_.end());
  if (!label_.empty()) attrs.emplace_back("label", label_);
  if (!attrs.empty()) properties->setParamAttributes(name_, std::move(attrs));
}

void ParameterBase::logDeprecated(const std::string& oldName) const {
  LOG_WARN("Core.Parameter", "Using deprecated parameter name '" << oldName << "'. Please use: '" << name_ << "' instead.");
}

void ParameterBase::logUnreadable(const std::string& key, const std::string& text) const {
  LOG_WARN("Core.Parameter", "'" << key << "' cannot be read from '" << excerpt(text) << "'; keeping " << this->text());
}

std::string ParameterRange::describe() const {
  const bool lo = std::isfinite(min), hi = std::isfinite(max);
  if (lo && hi) return "must lie in " + PropertiesDetail::toText(min) + ".." + PropertiesDetail::toText(max);
  if (lo) return "must be at least " + PropertiesDetail::toText(min);
  if (hi) return "must be at most " + PropertiesDetail::toText(max);
  return "must be a finite number";
}

}  // namespace Merivane
