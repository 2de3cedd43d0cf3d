#include "GlMultiAbstractInclude.h"

#include "Log.h"

namespace Merivane::GL {

MultiIncludable::~MultiIncludable() = default;

std::unique_ptr<MultiAbstractInclude> MultiIncludable::createMultiInclude(const std::string& name) const {
  return std::make_unique<MultiAbstractInclude>(this, name);
}

MultiAbstractInclude::MultiAbstractInclude(const MultiIncludable* target, std::string name)
    : target_(target), name_(std::move(name)) {}

std::string MultiAbstractInclude::defineName(const std::string& name) { return "MULTI_INCLUDE_" + name; }

std::string MultiAbstractInclude::definition() const {
  std::string s = "#define " + defineName(name_) + "\n";
  if (valid()) return s + target_->includeSource(name_);
  // Includes answer "no" by default; only masks exist today, and a mask that cannot be read
  // must not let a pass write where it should not.
  return s + "bool " + name_ + "_included(vec3 texCoord) { return false; }\n";
}

bool MultiAbstractInclude::setIncludeArguments(Program& program, int firstUnit) const {
  if (!valid()) {
    LOG_WARN("GL.MultiAbstractInclude", "Called setIncludeArguments() on an invalid include.");
    return false;
  }
  return target_->setIncludeUniforms(program, name_, firstUnit);
}

}  // namespace Merivane::GL
