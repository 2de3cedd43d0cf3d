#pragma once
// A framebuffer object with one colour attachment: a texture, or one slice of a volume.
// Lives on the GL thread: create, use and destroy it there.
namespace Merivane {
class GlImage;
}

namespace Merivane::GL {

class Framebuffer {
 public:
  Framebuffer();
  ~Framebuffer();
  Framebuffer(const Framebuffer&) = delete;
  Framebuffer& operator=(const Framebuffer&) = delete;

  // Attaches `slice` of `image` (0 for a 2D texture) and binds the framebuffer for drawing
  // with a viewport over the whole slice. False when incomplete.
  bool attach(const GlImage& image, int slice = 0);
  void unbind();
  unsigned int id() const { return id_; }

 private:
  unsigned int id_ = 0;
};

}  // namespace Merivane::GL
