#pragma once
// Saves the GL state that overlay objects change (blending, depth test, program, vertex
// array, texture bindings of the first units, viewport) and restores it on destruction.
namespace Merivane::GL {

class StateGuard {
 public:
  StateGuard();
  ~StateGuard();
  StateGuard(const StateGuard&) = delete;
  StateGuard& operator=(const StateGuard&) = delete;

 private:
  static constexpr int kUnits = 4;
  unsigned char blend_ = 0, depthTest_ = 0;
  int blendSrc_ = 0, blendDst_ = 0, program_ = 0, vertexArray_ = 0, activeTexture_ = 0;
  int viewport_[4] = {0, 0, 0, 0};
  int tex2d_[kUnits] = {}, tex3d_[kUnits] = {};
};

}  // namespace Merivane::GL
