// Writes a binary stencil into a U8 label map: where "u_stencil" is set, the voxel's label
// is not locked in "u_preserveLabels" (bit l & 31 of word l >> 5) and the mask, when one is
// compiled in (USE_MASK, a U8 texture "u_mask" whose non-zero voxels count), admits it, the
// label becomes "u_label" (0..1 for 0..255), or 0 under "u_erase". Elsewhere it stays.
#ifdef USE_2D
#define LP_USAMPLER usampler2D
#define LP_COORD(c) (c).xy
#else
#define LP_USAMPLER usampler3D
#define LP_COORD(c) (c)
#endif

uniform LP_USAMPLER u_labelMap;
uniform LP_USAMPLER u_stencil;
#ifdef USE_MASK
uniform LP_USAMPLER u_mask;
#endif
uniform int u_slice;
uniform float u_label;
uniform bool u_erase;
uniform uint u_preserveLabels[8];

layout(location = 0) out uint o_value;

void main() {
  ivec3 c = ivec3(gl_FragCoord.xy, u_slice);
  uint current = texelFetch(u_labelMap, LP_COORD(c), 0).r & 255u;
  bool set = texelFetch(u_stencil, LP_COORD(c), 0).r != 0u;
  bool locked = ((u_preserveLabels[current >> 5u] >> (current & 31u)) & 1u) != 0u;
#ifdef USE_MASK
  set = set && texelFetch(u_mask, LP_COORD(c), 0).r != 0u;
#endif
  uint label = uint(round(clamp(u_label, 0.0, 1.0) * 255.0));
  o_value = (set && !locked) ? (u_erase ? 0u : label) : current;
}
