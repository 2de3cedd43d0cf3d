// Label overlay on a slice: the colour of each voxel's label at the given opacity; label 0
// stays transparent. Voxels are shown as they are (nearest).
#ifdef SLICE3D
uniform usampler3D u_labels;
#else
uniform usampler2D u_labels;
#endif
uniform sampler2D u_colors;
uniform float u_opacity;
uniform mat4 u_worldToTexture;
in vec3 v_worldPosition;
layout(location = 0) out vec4 o_color;

void main() {
  vec3 t = (u_worldToTexture * vec4(v_worldPosition, 1.0)).xyz;
#ifdef SLICE3D
  if (any(lessThan(t, vec3(0.0))) || any(greaterThanEqual(t, vec3(1.0)))) discard;
  ivec3 size = textureSize(u_labels, 0);
  uint v = texelFetch(u_labels, clamp(ivec3(floor(t * vec3(size))), ivec3(0), size - 1), 0).r;
#else
  if (any(lessThan(t.xy, vec2(0.0))) || any(greaterThanEqual(t.xy, vec2(1.0)))) discard;
  ivec2 size = textureSize(u_labels, 0);
  uint v = texelFetch(u_labels, clamp(ivec2(floor(t.xy * vec2(size))), ivec2(0), size - 1), 0).r;
#endif
  if (v == 0u) discard;
  int n = textureSize(u_colors, 0).x;
  if (int(v) >= n) discard;
  o_color = vec4(texelFetch(u_colors, ivec2(int(v), 0), 0).rgb, u_opacity);
}
