#include "ImageMathGl.h"

#include <Eigen/Core>
#include <mutex>
#include <unordered_map>

#include "GlContext.h"
#include "GlImage.h"
#include "GlImageProgram.h"
#include "ImageMath.h"
#include "Log.h"
#include "SharedImage.h"
#include "ThreadPool.h"

namespace Merivane::ImageMath::internal {

namespace {

constexpr int kMaxTextures = 16;

// Generated programs by their text; touched on the GL thread only. A text that failed to
// compile is remembered as null so that it is neither retried nor logged twice.
// The map itself is never freed: static destructors run on the main thread after the
// context may be gone, so the programs are freed by a shutdown hook on the GL thread.
using ProgramCache = std::unordered_map<std::string, std::unique_ptr<GL::ImageProgram>>;
ProgramCache& programCache() {
  static ProgramCache* cache = [] {
    auto* c = new ProgramCache();
    if (GL::Context* context = GL::Context::instance()) context->addShutdownHook([c] { c->clear(); });
    return c;
  }();
  return *cache;
}

GL::ImageProgram* cachedProgram(const std::string& source) {
  auto& cache = programCache();
  auto it = cache.find(source);
  if (it != cache.end()) return it->second.get();
  auto program = std::make_unique<GL::ImageProgram>();
  if (!program->compile(source)) {
    LOG_ERROR("ImageMath", "generated fragment program does not compile: " << program->log());
    cache.emplace(source, nullptr);
    return nullptr;
  }
  return cache.emplace(source, std::move(program)).first->second.get();
}

// The statement that stores the vec4 `s` (already in stored units) into the output.
std::string writeStatement(PixelType type, char kind) {
  std::string converted = "s";
  dispatchPixelType(type, [&](auto tag) { converted = castType<decltype(tag)>(std::string("s")); });
  if (kind == 'u') return "  o_value = uvec4(" + converted + ");\n";
  if (kind == 'i') return "  o_value = ivec4(" + converted + ");\n";
  return "  o_value = " + converted + ";\n";
}

std::string fragmentSource(const GlBuilder& b, const std::string& expr, PixelType targetType, char kind,
                           bool convertToStored) {
  std::string s = "#version 450 core\nuniform int u_slice;\n";
  if (convertToStored) s += "uniform float u_targetShift;\nuniform float u_targetScale;\n";
  s += b.uniformDefinitions();
  s += std::string("layout(location = 0) out ") + (kind == 'u' ? "uvec4" : kind == 'i' ? "ivec4" : "vec4") +
       " o_value;\n";
  s += "void main() {\n  ivec3 P3 = ivec3(gl_FragCoord.xy, u_slice);\n";
  s += b.variableDefinitions();
  s += "  vec4 v = " + expr + ";\n";
  s += convertToStored ? "  vec4 s = (v + u_targetShift) * u_targetScale;\n" : "  vec4 s = v;\n";
  s += writeStatement(targetType, kind);
  s += "}\n";
  return s;
}

}  // namespace

std::string GlBuilder::scalar(double value) {
  const std::string name = "scalar" + std::to_string(counter_++);
  uniforms_ += "uniform float " + name + ";\n";
  arguments_.push_back([name, value](GL::Program& p) { p.setArgument(name, static_cast<float>(value)); });
  return "vec4(" + name + ")";
}

std::string GlBuilder::image(const SharedImage& frame, bool ignoreShiftAndScale) {
  for (const auto& n : images_)
    if (n.key == &frame && n.flag == ignoreShiftAndScale) return n.name;
  GlImage* texture = frame.gl();
  if (!texture || !texture->valid() || static_cast<int>(textures_.size()) >= kMaxTextures) {
    fail();
    return "vec4(0.0)";
  }
  const std::string name = "img" + std::to_string(counter_++);
  const int unit = static_cast<int>(textures_.size());
  textures_.push_back(texture);
  images_.push_back({&frame, ignoreShiftAndScale, name});
  const char kind = GlImage::samplerKind(texture->internalFormat());
  const bool volume = texture->slices() > 1;
  const std::string prefix = kind == 'u' ? "u" : kind == 'i' ? "i" : "";
  uniforms_ += "uniform " + prefix + (volume ? "sampler3D " : "sampler2D ") + name + "_tex;\n";
  variables_ += "  vec4 " + name + " = vec4(texelFetch(" + name + "_tex, " + (volume ? "P3" : "P3.xy") + ", 0));\n";
  const ImageDescriptor& d = frame.descriptor();
  if (!ignoreShiftAndScale && (d.shift != 0.0 || d.scale != 1.0)) {
    uniforms_ += "uniform float " + name + "_shift;\nuniform float " + name + "_scale;\n";
    variables_ += "  " + name + " = " + name + " / " + name + "_scale - " + name + "_shift;\n";
    const double shift = d.shift, scale = d.scale;
    arguments_.push_back([name, shift, scale](GL::Program& p) {
      p.setArgument(name + "_shift", static_cast<float>(shift));
      p.setArgument(name + "_scale", static_cast<float>(scale));
    });
  }
  if (d.channels == 1) variables_ += "  " + name + " = " + name + ".rrrr;\n";
  arguments_.push_back([name, texture, unit](GL::Program& p) { p.setArgument(name + "_tex", *texture, unit); });
  return name;
}

std::string GlBuilder::coordinates(const mat4& pixelTo) {
  const std::string name = "coord" + std::to_string(counter_++);
  uniforms_ += "uniform mat4 " + name + ";\n";
  const Eigen::Matrix4d m = pixelTo;
  arguments_.push_back([name, m](GL::Program& p) { p.setArgument(name, m); });
  return "vec4((" + name + " * vec4(gl_FragCoord.x - 0.5, gl_FragCoord.y - 0.5, float(u_slice), 1.0)).xyz, 1.0)";
}

void GlBuilder::setArguments(GL::Program& program) const {
  for (const auto& a : arguments_) a(program);
}

bool GlBuilder::readsTexture(const GlImage* texture) const {
  for (const GlImage* t : textures_)
    if (t == texture) return true;
  return false;
}

bool glAvailable() { return GL::Context::instance() != nullptr; }

bool assignGl(SharedImage& target, bool ignoreTargetShiftScale, const std::function<std::string(GlBuilder&)>& build) {
  GL::Context* context = GL::Context::instance();
  if (!context) return false;
  bool ok = false;
  context->run([&] {
    GlImage* out = target.gl();
    if (!out || !out->valid()) return;
    const ImageDescriptor& d = target.descriptor();
    GlBuilder b;
    const std::string expr = build(b);
    if (!b.ok()) return;
    const bool convert = !ignoreTargetShiftScale && (d.shift != 0.0 || d.scale != 1.0);
    const char kind = GlImage::samplerKind(out->internalFormat());
    GL::ImageProgram* program = cachedProgram(fragmentSource(b, expr, d.pixelType, kind, convert));
    if (!program) return;
    b.setArguments(*program);
    if (convert) {
      program->setArgument("u_targetShift", static_cast<float>(d.shift));
      program->setArgument("u_targetScale", static_cast<float>(d.scale));
    }
    // Reading and writing one texture in a pass is undefined: render into a fresh one.
    if (b.readsTexture(out)) {
      GlImage fresh(out->descriptor(), out->internalFormat());
      if (!fresh.valid() || !program->compute(fresh)) return;
      out->swapTexID(fresh);
    } else if (!program->compute(*out)) {
      return;
    }
    ok = true;
  });
  if (ok) target.setDirtyGl();
  return ok;
}

std::unique_ptr<TypedImage<float>> evaluateGlToFloat(const ImageDescriptor& descriptor,
                                                     const std::function<std::string(GlBuilder&)>& build) {
  GL::Context* context = GL::Context::instance();
  if (!context || descriptor.channels < 1 || descriptor.channels > 4 || !descriptor.valid()) return nullptr;
  ImageDescriptor d(F32, descriptor.dimensions, descriptor.channels);
  auto result = std::make_unique<TypedImage<float>>(d, nullptr, MemImage::Ownership::Owned, false);
  bool ok = false;
  context->run([&] {
    GlImage out(d);
    if (!out.valid()) return;
    GlBuilder b;
    const std::string expr = build(b);
    if (!b.ok()) return;
    GL::ImageProgram* program = cachedProgram(fragmentSource(b, expr, F32, 'f', false));
    if (!program) return;
    b.setArguments(*program);
    ok = program->compute(out) && out.download(*result);
  });
  if (!ok) return nullptr;
  return result;
}

void dispatchThread(const std::function<void()>& f, std::unique_ptr<Threading::ThreadPool>& pool) {
  if (!pool) {
    f();
    return;
  }
  GL::Context* context = GL::Context::instance();
  if (context && &context->threadPool() == &pool) {
    context->run(f);
    return;
  }
  pool->enqueue([&f] { f(); }).get();
}

size_t cachedProgramCount() {
  size_t n = 0;
  GL::runOnGlThread([&n] {
    for (const auto& entry : programCache()) n += entry.second != nullptr;
  });
  return n;
}

}  // namespace Merivane::ImageMath::internal
