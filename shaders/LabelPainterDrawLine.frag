// Draws the voxels of the line from "u_from" to "u_to" with "u_value" (0..1, stored as
// 0..255) and leaves every other voxel alone. A voxel is on the line when the point of the
// line closest to its centre lies inside it. Works on 2D and 3D textures alike: a texture of
// one slice ("u_textureSize".z == 1) is a 2D one.
uniform int u_slice;
uniform ivec3 u_textureSize;
uniform float u_value;
uniform vec3 u_from;
uniform vec3 u_to;

layout(location = 0) out uint o_value;

void main() {
  vec3 p = vec3(gl_FragCoord.xy, float(u_slice) + 0.5);
  vec3 a = u_from, b = u_to;
  if (u_textureSize.z <= 1) {
    p.z = 0.0;
    a.z = 0.0;
    b.z = 0.0;
  }
  vec3 ab = b - a;
  float len2 = dot(ab, ab);
  float t = len2 > 0.0 ? clamp(dot(p - a, ab) / len2, 0.0, 1.0) : 0.0;
  vec3 closest = a + t * ab;
  if (any(greaterThan(abs(closest - p), vec3(0.5)))) discard;
  o_value = uint(round(clamp(u_value, 0.0, 1.0) * 255.0));
}
