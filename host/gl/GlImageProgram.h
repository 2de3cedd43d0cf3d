#pragma once
// A fragment program run once per pixel of a target texture: a fixed vertex stage draws one
// triangle over the viewport, and the fragment stage sees the slice index as the uniform
// int "u_slice" (0 for 2D targets). A volume is rendered slice by slice. Lives on the GL
// thread.
#include <memory>
#include <string>

#include "GlProgram.h"

namespace Merivane {
struct ImageDescriptor;
}

namespace Merivane::GL {

class Framebuffer;
struct Cuboid;

class ImageProgram : public Program {
 public:
  ImageProgram();
  ~ImageProgram() override;

  // Compiles `fragmentSource` with the fixed vertex stage.
  bool compile(const std::string& fragmentSource);
  // Renders every slice of `target`; false when the program or the target is unusable.
  bool compute(GlImage& target);
  // Renders only the voxels of `box` (clipped to the target); the rest of the target keeps
  // its contents. An empty box renders nothing and succeeds.
  bool compute(GlImage& target, const Cuboid& box);
  // The vertex stage, for programs that want to build their own.
  static const char* vertexSource();
  // Defines that let one program text read the texture of any image like `d`:
  //   GENERIC_SAMPLER        the sampler type (float, int or uint; 2D for one slice, else 3D)
  //   GENERIC_3D             defined for a volume
  //   GENERIC_NORMALIZED(t)  the first channel of texel t as a float in the normalised units of
  //                          GlUtils::storageToNormalized
  // Empty for a type without a texture form.
  static std::string genericSamplerDefine(const ImageDescriptor& d);

 private:
  std::unique_ptr<Framebuffer> framebuffer_;
  unsigned int vertexArray_ = 0;
};

}  // namespace Merivane::GL
