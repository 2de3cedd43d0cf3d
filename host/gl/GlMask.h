#pragma once
// A mask on the graphics card: a U8 texture whose non-zero voxels are included. Programs
// take it as an abstract include (GlMultiAbstractInclude.h) and ask
//   bool <name>_included(vec3 texCoord)
// with texture coordinates that run from 0 to 1 over the mask (nearest voxel), so a mask made
// for an image answers for that image's voxels. A mask of another grid is stretched over the
// image it is used with. Create, use and destroy on any thread; the texture work runs on the
// GL context's thread.
#include <Eigen/Core>
#include <memory>
#include <string>

#include "GlMultiAbstractInclude.h"

namespace Merivane {

class GlImage;
class Mask;
class MemImage;
class SharedImage;

class GlMask : public GL::MultiIncludable {
 public:
  // An empty mask: not valid, and as an include it admits nothing.
  GlMask();
  // Any host mask, rendered for `frame`'s voxels.
  GlMask(const Mask& mask, const SharedImage& frame);
  // Non-zero voxels of the first channel of `image` are included.
  explicit GlMask(const MemImage& image);
  ~GlMask() override;
  GlMask(const GlMask&) = delete;
  GlMask& operator=(const GlMask&) = delete;

  bool valid() const;
  const GlImage* texture() const { return texture_.get(); }
  Eigen::Vector3i dimensions() const;

  // The marker a program tests when the include `name` is bound ("MULTI_INCLUDE_mask").
  static std::string multiIncludeDefine(const std::string& name = "mask");

  std::string includeSource(const std::string& name) const override;
  bool setIncludeUniforms(GL::Program& program, const std::string& name, int firstUnit) const override;
  bool includeValid() const override { return valid(); }

 private:
  std::unique_ptr<GlImage> texture_;
};

}  // namespace Merivane
