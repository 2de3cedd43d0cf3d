// Label outlines on a slice: a fragment is painted when a voxel of another label lies within
// half the line width (in screen pixels) of it, in the colour of the label it belongs to, or
// of the neighbouring label when it lies on background. Elsewhere it is transparent.
#ifdef SLICE3D
uniform usampler3D u_labelsNearest;
#else
uniform usampler2D u_labelsNearest;
#endif
uniform vec3 u_labelsTexSize;
uniform sampler2D u_colormap;
uniform mat4 u_worldToTexture;
uniform vec3 u_texCoordsPerFragmentX;
uniform vec3 u_texCoordsPerFragmentY;
uniform float u_widthPx;
in vec3 v_worldPosition;
layout(location = 0) out vec4 o_color;

uint labelAt(vec3 t) {
#ifdef SLICE3D
  if (any(lessThan(t, vec3(0.0))) || any(greaterThanEqual(t, vec3(1.0)))) return 0u;
  ivec3 p = clamp(ivec3(floor(t * u_labelsTexSize)), ivec3(0), ivec3(u_labelsTexSize) - 1);
  return texelFetch(u_labelsNearest, p, 0).r;
#else
  if (any(lessThan(t.xy, vec2(0.0))) || any(greaterThanEqual(t.xy, vec2(1.0)))) return 0u;
  ivec2 p = clamp(ivec2(floor(t.xy * u_labelsTexSize.xy)), ivec2(0), ivec2(u_labelsTexSize.xy) - 1);
  return texelFetch(u_labelsNearest, p, 0).r;
#endif
}

void main() {
  vec3 t = (u_worldToTexture * vec4(v_worldPosition, 1.0)).xyz;
  uint here = labelAt(t);
  float r = max(u_widthPx * 0.5, 0.5);
  int n = int(ceil(r));
  uint other = here;
  for (int dy = -n; dy <= n && other == here; ++dy) {
    for (int dx = -n; dx <= n; ++dx) {
      if (float(dx * dx + dy * dy) > r * r) continue;
      uint v = labelAt(t + float(dx) * u_texCoordsPerFragmentX + float(dy) * u_texCoordsPerFragmentY);
      if (v != here) {
        other = v;
        break;
      }
    }
  }
  if (other == here) discard;
  uint shown = here != 0u ? here : other;
  int count = textureSize(u_colormap, 0).x;
  if (int(shown) >= count) discard;
  vec4 c = texelFetch(u_colormap, ivec2(int(shown), 0), 0);
  if (c.a <= 0.0) discard;
  o_color = c;
}
