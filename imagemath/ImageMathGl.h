#pragma once
// The GPU side of image expressions: a builder that collects the uniforms and texture reads
// of an expression while its nodes write their GLSL text, and the pass that compiles (once
// per text) and runs the generated fragment program over a target texture. Nothing here
// throws; a pass that cannot run answers false and the caller takes the CPU path.
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "EigenFwd.h"
#include "Image.h"

namespace Merivane {
class SharedImage;
class GlImage;
namespace GL {
class Program;
}
namespace Threading {
class ThreadPool;
}
}  // namespace Merivane

namespace Merivane::ImageMath::internal {

class GlBuilder {
 public:
  GlBuilder() = default;

  // A uniform float; returns its GLSL value as a vec4.
  std::string scalar(double value);
  // A texture read of the frame at the fragment's pixel, as original values unless
  // ignoreShiftAndScale; one channel is broadcast to all four. The same image read the same
  // way gets one name.
  std::string image(const SharedImage& frame, bool ignoreShiftAndScale);
  // The position of the fragment's pixel through `pixelTo` (pixel to coordinates).
  std::string coordinates(const mat4& pixelTo);
  void fail() { ok_ = false; }
  bool ok() const { return ok_; }

  // The text before main() and the variable definitions inside it.
  const std::string& uniformDefinitions() const { return uniforms_; }
  const std::string& variableDefinitions() const { return variables_; }
  // Sets the uniforms and binds the textures on `program`.
  void setArguments(GL::Program& program) const;
  bool readsTexture(const GlImage* texture) const;

 private:
  struct Named {
    const void* key;
    bool flag;
    std::string name;
  };
  bool ok_ = true;
  int counter_ = 0;
  std::string uniforms_;
  std::string variables_;
  std::vector<Named> images_;
  std::vector<const GlImage*> textures_;
  std::vector<std::function<void(GL::Program&)>> arguments_;
};

// Renders the expression that `build` writes into `target` (all frames' pixels, slice by
// slice), converting to the target's type like the CPU pass. False when there is no GL
// context, no texture for the target, a failed build or a program that does not compile.
bool assignGl(SharedImage& target, bool ignoreTargetShiftScale, const std::function<std::string(GlBuilder&)>& build);

// Evaluates the expression on the GPU into a float image of `descriptor`'s shape and
// channels (at most 4); null when the GPU path is not available.
std::unique_ptr<TypedImage<float>> evaluateGlToFloat(const ImageDescriptor& descriptor,
                                                     const std::function<std::string(GlBuilder&)>& build);

// Whether the GPU path may run at all (a context exists and is enabled).
bool glAvailable();

// Runs f on the pool's thread and waits; directly when there is no pool.
void dispatchThread(const std::function<void()>& f, std::unique_ptr<Threading::ThreadPool>& pool);

// Number of generated programs in the cache, for tests.
size_t cachedProgramCount();

}  // namespace Merivane::ImageMath::internal
