// Threshold into a U8 label map, once per voxel: where the first channel of "u_image" lies
// within "u_low" to "u_high" (both ends included; normalised texture units, see GlUtils),
// the mask (abstract include "mask", when bound) admits the voxel and its current label is
// not locked in "u_preserveLabels" (bit l & 31 of word l >> 5), the label becomes "u_label"
// (0..1 for 0..255). Every other voxel keeps its label.
// The image is read through the generic sampler defines of GL::ImageProgram; without them a
// float volume is assumed.
#ifndef GENERIC_SAMPLER
#define GENERIC_SAMPLER sampler3D
#define GENERIC_3D
#define GENERIC_NORMALIZED(t) ((t).r)
#endif
#ifdef GENERIC_3D
#define TT_USAMPLER usampler3D
#define TT_COORD(c) (c)
#else
#define TT_USAMPLER usampler2D
#define TT_COORD(c) (c).xy
#endif

uniform GENERIC_SAMPLER u_image;
uniform TT_USAMPLER u_labelMap;
uniform int u_slice;
uniform float u_low;
uniform float u_high;
uniform float u_label;
uniform uint u_preserveLabels[8];

layout(location = 0) out uint o_value;

void main() {
  ivec3 c = ivec3(gl_FragCoord.xy, u_slice);
  uint current = texelFetch(u_labelMap, TT_COORD(c), 0).r & 255u;
  float v = GENERIC_NORMALIZED(texelFetch(u_image, TT_COORD(c), 0));
  // NaN fails both comparisons and is never selected.
  bool set = v >= u_low && v <= u_high;
  bool locked = ((u_preserveLabels[current >> 5u] >> (current & 31u)) & 1u) != 0u;
#ifdef MULTI_INCLUDE_mask
#ifdef GENERIC_3D
  vec3 t = (vec3(c) + 0.5) / vec3(textureSize(u_labelMap, 0));
#else
  vec3 t = vec3((vec2(c.xy) + 0.5) / vec2(textureSize(u_labelMap, 0)), 0.5);
#endif
  set = set && mask_included(t);
#endif
  uint label = uint(round(clamp(u_label, 0.0, 1.0) * 255.0));
  o_value = (set && !locked) ? label : current;
}
