#pragma once
// Abstract includes: a program text is written against a named include ("mask") and calls
// the functions that include promises; whichever object is bound to the name supplies their
// bodies and their uniforms. The program tests MULTI_INCLUDE_<name> to know whether one is
// bound, and calls <name>_... functions (for a mask: bool mask_included(vec3 texCoord)).
// Every name the supplied text declares starts with "<name>_", so several includes can live
// in one program. GL thread only for setIncludeArguments.
#include <memory>
#include <string>

namespace Merivane::GL {

class Program;
class MultiAbstractInclude;

// Something a program can take as an abstract include.
class MultiIncludable {
 public:
  virtual ~MultiIncludable();
  // The GLSL that implements the include's functions with every name prefixed by `name`_.
  virtual std::string includeSource(const std::string& name) const = 0;
  // Sets that text's uniforms on `program` (which is in use), textures from `firstUnit` on.
  virtual bool setIncludeUniforms(Program& program, const std::string& name, int firstUnit) const = 0;
  // Whether includeSource and setIncludeUniforms can do their work.
  virtual bool includeValid() const = 0;

  // This object bound to the include `name`; it must outlive the result.
  std::unique_ptr<MultiAbstractInclude> createMultiInclude(const std::string& name) const;
};

// One object bound to one named include.
class MultiAbstractInclude {
 public:
  MultiAbstractInclude(const MultiIncludable* target, std::string name);

  const std::string& name() const { return name_; }
  bool valid() const { return target_ && target_->includeValid(); }
  // What goes into the program's defines: the marker and the implementation. An invalid
  // include still compiles: its functions answer as if nothing were included (for a mask,
  // no voxel), so a pass that uses it changes nothing.
  std::string definition() const;
  // Sets the include's uniforms. An invalid include logs one line in "GL.MultiAbstractInclude"
  // and answers false; the caller's pass goes on.
  bool setIncludeArguments(Program& program, int firstUnit) const;

  // The marker a program tests: "MULTI_INCLUDE_<name>".
  static std::string defineName(const std::string& name);

 private:
  const MultiIncludable* target_;
  std::string name_;
};

}  // namespace Merivane::GL
