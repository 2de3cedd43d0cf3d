// Live watershed result on a slice: each voxel of "u_preview" in the colour of its label from
// "u_colors" at "u_opacity", except where "u_labels" (the seed map) holds a seed, which its own
// renderer shows. The result may be a crop or a reduced copy of the seed map's grid, so it is
// read through its own world-to-texture matrix. Label 0 stays transparent.
#ifdef SLICE3D
uniform usampler3D u_labels;
uniform usampler3D u_preview;
#else
uniform usampler2D u_labels;
uniform usampler2D u_preview;
#endif
uniform sampler2D u_colors;
uniform float u_opacity;
uniform mat4 u_worldToTexture;
uniform mat4 u_previewWorldToTexture;
in vec3 v_worldPosition;
layout(location = 0) out vec4 o_color;

void main() {
  vec3 t = (u_worldToTexture * vec4(v_worldPosition, 1.0)).xyz;
  vec3 q = (u_previewWorldToTexture * vec4(v_worldPosition, 1.0)).xyz;
#ifdef SLICE3D
  if (any(lessThan(q, vec3(0.0))) || any(greaterThanEqual(q, vec3(1.0)))) discard;
  ivec3 size = textureSize(u_labels, 0);
  uint seed = texelFetch(u_labels, clamp(ivec3(floor(t * vec3(size))), ivec3(0), size - 1), 0).r;
  ivec3 psize = textureSize(u_preview, 0);
  uint v = texelFetch(u_preview, clamp(ivec3(floor(q * vec3(psize))), ivec3(0), psize - 1), 0).r;
#else
  if (any(lessThan(q.xy, vec2(0.0))) || any(greaterThanEqual(q.xy, vec2(1.0)))) discard;
  ivec2 size = textureSize(u_labels, 0);
  uint seed = texelFetch(u_labels, clamp(ivec2(floor(t.xy * vec2(size))), ivec2(0), size - 1), 0).r;
  ivec2 psize = textureSize(u_preview, 0);
  uint v = texelFetch(u_preview, clamp(ivec2(floor(q.xy * vec2(psize))), ivec2(0), psize - 1), 0).r;
#endif
  if (v == 0u || (seed != 0u && seed < 254u)) discard;
  int n = textureSize(u_colors, 0).x;
  if (int(v) >= n) discard;
  o_color = vec4(texelFetch(u_colors, ivec2(int(v), 0), 0).rgb, u_opacity);
}
