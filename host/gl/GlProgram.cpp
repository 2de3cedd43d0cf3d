#include "GlProgram.h"

#include <epoxy/gl.h>

#include <Eigen/Core>
#include <vector>

#include "GlImage.h"

namespace Merivane::GL {

namespace {
GLuint compileStage(GLenum stage, const std::string& source, std::string& log) {
  GLuint shader = glCreateShader(stage);
  const char* text = source.c_str();
  glShaderSource(shader, 1, &text, nullptr);
  glCompileShader(shader);
  GLint ok = 0;
  glGetShaderiv(shader, GL_COMPILE_STATUS, &ok);
  if (!ok) {
    GLint length = 0;
    glGetShaderiv(shader, GL_INFO_LOG_LENGTH, &length);
    std::vector<char> buffer(static_cast<size_t>(std::max(length, 1)));
    glGetShaderInfoLog(shader, length, nullptr, buffer.data());
    log += std::string(stage == GL_VERTEX_SHADER ? "vertex: " : "fragment: ") + buffer.data();
    glDeleteShader(shader);
    return 0;
  }
  return shader;
}
}  // namespace

Program::Program() = default;

Program::~Program() {
  if (id_) glDeleteProgram(id_);
}

bool Program::compile(const std::string& vertexSource, const std::string& fragmentSource) {
  if (id_) glDeleteProgram(id_);
  id_ = 0;
  log_.clear();
  locations_.clear();
  GLuint vs = compileStage(GL_VERTEX_SHADER, vertexSource, log_);
  GLuint fs = compileStage(GL_FRAGMENT_SHADER, fragmentSource, log_);
  if (!vs || !fs) {
    if (vs) glDeleteShader(vs);
    if (fs) glDeleteShader(fs);
    return false;
  }
  GLuint program = glCreateProgram();
  glAttachShader(program, vs);
  glAttachShader(program, fs);
  glLinkProgram(program);
  glDeleteShader(vs);
  glDeleteShader(fs);
  GLint ok = 0;
  glGetProgramiv(program, GL_LINK_STATUS, &ok);
  if (!ok) {
    GLint length = 0;
    glGetProgramiv(program, GL_INFO_LOG_LENGTH, &length);
    std::vector<char> buffer(static_cast<size_t>(std::max(length, 1)));
    glGetProgramInfoLog(program, length, nullptr, buffer.data());
    log_ += std::string("link: ") + buffer.data();
    glDeleteProgram(program);
    return false;
  }
  id_ = program;
  return true;
}

void Program::use() const { glUseProgram(id_); }

int Program::location(const std::string& name) const {
  if (!id_) return -1;
  auto it = locations_.find(name);
  if (it != locations_.end()) return it->second;
  const int loc = glGetUniformLocation(id_, name.c_str());
  locations_.emplace(name, loc);
  return loc;
}

bool Program::setArgument(const std::string& name, int value) {
  const int loc = location(name);
  if (loc < 0) return false;
  glProgramUniform1i(id_, loc, value);
  return true;
}

bool Program::setArgument(const std::string& name, float value) {
  const int loc = location(name);
  if (loc < 0) return false;
  glProgramUniform1f(id_, loc, value);
  return true;
}

bool Program::setArgument(const std::string& name, double value) { return setArgument(name, static_cast<float>(value)); }

bool Program::setArgument(const std::string& name, const vec2& v) {
  const int loc = location(name);
  if (loc < 0) return false;
  glProgramUniform2f(id_, loc, static_cast<float>(v[0]), static_cast<float>(v[1]));
  return true;
}

bool Program::setArgument(const std::string& name, const vec3& v) {
  const int loc = location(name);
  if (loc < 0) return false;
  glProgramUniform3f(id_, loc, static_cast<float>(v[0]), static_cast<float>(v[1]), static_cast<float>(v[2]));
  return true;
}

bool Program::setArgument(const std::string& name, const vec4& v) {
  const int loc = location(name);
  if (loc < 0) return false;
  glProgramUniform4f(id_, loc, static_cast<float>(v[0]), static_cast<float>(v[1]), static_cast<float>(v[2]),
                     static_cast<float>(v[3]));
  return true;
}

bool Program::setArgument(const std::string& name, const mat4& m) {
  const int loc = location(name);
  if (loc < 0) return false;
  // Column-major, as GLSL expects and Eigen stores.
  const Eigen::Matrix4f f = m.cast<float>();
  glProgramUniformMatrix4fv(id_, loc, 1, GL_FALSE, f.data());
  return true;
}

bool Program::setArgument(const std::string& name, const vec3i& v) {
  const int loc = location(name);
  if (loc < 0) return false;
  glProgramUniform3i(id_, loc, v[0], v[1], v[2]);
  return true;
}

bool Program::setArgument(const std::string& name, const unsigned int* values, int count) {
  const int loc = location(name);
  if (loc < 0 || !values || count < 1) return false;
  glProgramUniform1uiv(id_, loc, count, values);
  return true;
}

bool Program::setArgument(const std::string& name, const GlImage& texture, int unit) {
  if (!texture.valid()) return false;
  glBindTextureUnit(static_cast<GLuint>(unit), texture.id());
  const int loc = location(name);
  if (loc < 0) return false;
  glProgramUniform1i(id_, loc, unit);
  return true;
}

}  // namespace Merivane::GL
