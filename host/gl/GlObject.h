#pragma once
// Things that views draw. A GlObject draws itself into the view's framebuffer on the GL
// thread; views hold them by pointer in drawing order and never own them.
#include <string>

#include "Data.h"

namespace Merivane {

class GlView;

class GlObject {
 public:
  GlObject() = default;
  GlObject(const GlObject&) = delete;
  GlObject& operator=(const GlObject&) = delete;
  virtual ~GlObject();

  // Called on the GL thread with the view's framebuffer bound and its viewport set.
  virtual void draw(const GlView& view) = 0;
  // World box of what the object shows; an empty box (min == max) means "anywhere".
  virtual Geometry::AlignedBox bounds() const { return {}; }
  virtual std::string typeName() const = 0;
  virtual bool visible() const { return visible_; }
  void setVisible(bool visible) { visible_ = visible; }

 private:
  bool visible_ = true;
};

}  // namespace Merivane
