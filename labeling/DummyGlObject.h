#pragma once
// An object that draws nothing: it exists to carry an event handler into a view, which takes
// handlers only together with an object.
#include <string>

#include "GlObject.h"

namespace Merivane {

class DummyGlObject : public GlObject {
 public:
  void draw(const GlView&) override {}
  bool visible() const override { return true; }
  Geometry::AlignedBox bounds() const override { return {}; }
  std::string typeName() const override { return "DummyGlObject"; }
};

}  // namespace Merivane
