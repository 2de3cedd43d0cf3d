// Threshold preview on a slice view: "u_color" on every voxel of the slice whose first channel
// of "u_tex" lies within "u_low" to "u_high" (both ends included; normalised texture units,
// read exactly as the apply pass reads them), whose label in "u_labelMap" is not locked in
// "u_preserveLabels" and which the mask (abstract include "mask", when bound) admits. Nothing
// elsewhere, so the preview shows exactly the voxels an apply would write. SLICE3D for a
// volume; the generic sampler defines of GL::ImageProgram give the image's sampler.
#ifndef GENERIC_SAMPLER
#ifdef SLICE3D
#define GENERIC_SAMPLER sampler3D
#else
#define GENERIC_SAMPLER sampler2D
#endif
#define GENERIC_NORMALIZED(t) ((t).r)
#endif

uniform GENERIC_SAMPLER u_tex;
#ifdef SLICE3D
uniform usampler3D u_labelMap;
#else
uniform usampler2D u_labelMap;
#endif
uniform float u_low;
uniform float u_high;
uniform vec4 u_color;
uniform uint u_preserveLabels[8];
uniform mat4 u_worldToTexture;
in vec3 v_worldPosition;
layout(location = 0) out vec4 o_color;

void main() {
  vec3 t = (u_worldToTexture * vec4(v_worldPosition, 1.0)).xyz;
#ifdef SLICE3D
  if (any(lessThan(t, vec3(0.0))) || any(greaterThanEqual(t, vec3(1.0)))) discard;
  ivec3 size = textureSize(u_tex, 0);
  ivec3 v = clamp(ivec3(floor(t * vec3(size))), ivec3(0), size - 1);
  vec3 centre = (vec3(v) + 0.5) / vec3(size);
#else
  if (any(lessThan(t.xy, vec2(0.0))) || any(greaterThanEqual(t.xy, vec2(1.0)))) discard;
  ivec2 size = textureSize(u_tex, 0);
  ivec2 v = clamp(ivec2(floor(t.xy * vec2(size))), ivec2(0), size - 1);
  vec3 centre = vec3((vec2(v) + 0.5) / vec2(size), 0.5);
#endif
  float value = GENERIC_NORMALIZED(texelFetch(u_tex, v, 0));
  uint label = texelFetch(u_labelMap, v, 0).r & 255u;
  if (!(value >= u_low && value <= u_high)) discard;
  if (((u_preserveLabels[label >> 5u] >> (label & 31u)) & 1u) != 0u) discard;
#ifdef MULTI_INCLUDE_mask
  if (!mask_included(centre)) discard;
#endif
  o_color = u_color;
}
