#pragma once
// A linked vertex and fragment program. Lives on the GL thread. Uniforms are set by name
// through setArgument; a name the program does not use is ignored (the compiler may drop
// unused uniforms), and the call answers false.
#include <string>
#include <unordered_map>

#include "EigenFwd.h"

namespace Merivane {
class GlImage;
}

namespace Merivane::GL {

class Program {
 public:
  Program();
  virtual ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  // Compiles and links; on failure the log holds the compiler's message.
  bool compile(const std::string& vertexSource, const std::string& fragmentSource);
  bool valid() const { return id_ != 0; }
  const std::string& log() const { return log_; }
  unsigned int id() const { return id_; }
  void use() const;

  int location(const std::string& name) const;
  bool setArgument(const std::string& name, int value);
  bool setArgument(const std::string& name, float value);
  bool setArgument(const std::string& name, double value);
  bool setArgument(const std::string& name, const vec2& value);
  bool setArgument(const std::string& name, const vec3& value);
  bool setArgument(const std::string& name, const vec4& value);
  bool setArgument(const std::string& name, const mat4& value);
  bool setArgument(const std::string& name, const vec3i& value);
  // A uniform array of unsigned ints (uint name[count]).
  bool setArgument(const std::string& name, const unsigned int* values, int count);
  // Binds the texture to `unit` and points the sampler uniform at it.
  bool setArgument(const std::string& name, const GlImage& texture, int unit);

 private:
  unsigned int id_ = 0;
  std::string log_;
  mutable std::unordered_map<std::string, int> locations_;
};

}  // namespace Merivane::GL
