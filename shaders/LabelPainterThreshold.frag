// Binarises the stencil: 1 where it reaches "u_threshold" (stored weights are 0..255 for
// 0..1) and, with "u_sliceOnly", the voxel's centre lies within "u_halfThickness" of the
// plane through "u_slicePoint" with unit normal "u_sliceNormal" (world millimetres);
// 0 elsewhere.
#ifdef USE_2D
#define LP_USAMPLER usampler2D
#define LP_COORD(c) (c).xy
#else
#define LP_USAMPLER usampler3D
#define LP_COORD(c) (c)
#endif

uniform LP_USAMPLER u_stencil;
uniform int u_slice;
uniform float u_threshold;
uniform bool u_sliceOnly;
uniform mat4 u_textureToWorld;
uniform vec3 u_sliceNormal;
uniform vec3 u_slicePoint;
uniform float u_halfThickness;

layout(location = 0) out uint o_value;

void main() {
  ivec3 c = ivec3(gl_FragCoord.xy, u_slice);
  float weight = float(texelFetch(u_stencil, LP_COORD(c), 0).r) / 255.0;
  bool inside = weight >= u_threshold;
  if (inside && u_sliceOnly) {
    vec3 size = vec3(1.0);
#ifdef USE_2D
    size.xy = vec2(textureSize(u_stencil, 0));
#else
    size = vec3(textureSize(u_stencil, 0));
#endif
    vec3 tex = vec3(gl_FragCoord.xy, float(u_slice) + 0.5) / size;
    vec3 world = (u_textureToWorld * vec4(tex, 1.0)).xyz;
    inside = abs(dot(world - u_slicePoint, u_sliceNormal)) <= u_halfThickness;
  }
  o_value = inside ? 1u : 0u;
}
