// Brush pass of the label painter: the weight of one segment of a stroke.
// Voxel centres sit at half-integer coordinates; "u_from" and "u_to" are in the same frame.
// A voxel lies in the brush when its distance to the segment, with each axis scaled by
// "u_spacingFactor", is at most "u_radius". Weights are stored as 0..255 in an unsigned
// integer texture. The input's kind and value range come as defines from the painter:
// INPUT_FLOAT or INPUT_INT (unsigned by default), INPUT_OFFSET and INPUT_RANGE.
#ifdef USE_2D
#define LP_USAMPLER usampler2D
#define LP_FSAMPLER sampler2D
#define LP_ISAMPLER isampler2D
#define LP_COORD(c) (c).xy
#else
#define LP_USAMPLER usampler3D
#define LP_FSAMPLER sampler3D
#define LP_ISAMPLER isampler3D
#define LP_COORD(c) (c)
#endif
#ifndef INPUT_OFFSET
#define INPUT_OFFSET 0.0
#endif
#ifndef INPUT_RANGE
#define INPUT_RANGE 1.0
#endif

#if defined(INPUT_FLOAT)
uniform LP_FSAMPLER u_inputImage;
#elif defined(INPUT_INT)
uniform LP_ISAMPLER u_inputImage;
#else
uniform LP_USAMPLER u_inputImage;
#endif
uniform LP_USAMPLER u_output;
uniform int u_slice;
uniform float u_radius;
uniform float u_adaptiveness;
uniform bool u_sampleOnPath;
uniform float u_window;
uniform float u_level;
uniform vec3 u_spacingFactor;
uniform bool u_multipass;
uniform vec3 u_from;
uniform vec3 u_to;

layout(location = 0) out uint o_value;

// The input at the voxel that holds point p, as a value in [0, 1] seen through the window.
float windowed(vec3 p) {
  ivec3 size = ivec3(1);
#ifdef USE_2D
  size.xy = textureSize(u_inputImage, 0);
#else
  size = textureSize(u_inputImage, 0);
#endif
  ivec3 c = clamp(ivec3(floor(p)), ivec3(0), size - 1);
  float v = (float(texelFetch(u_inputImage, LP_COORD(c), 0).r) - INPUT_OFFSET) / INPUT_RANGE;
  float lo = u_level - 0.5 * u_window;
  return clamp((v - lo) / max(u_window, 1e-6), 0.0, 1.0);
}

void main() {
  ivec3 c = ivec3(gl_FragCoord.xy, u_slice);
  vec3 p = vec3(gl_FragCoord.xy, float(u_slice) + 0.5);
  vec3 a = u_from, b = u_to;
#ifdef USE_2D
  p.z = 0.0;
  a.z = 0.0;
  b.z = 0.0;
#endif
  uint previous = texelFetch(u_output, LP_COORD(c), 0).r;
  // Closest point of the segment, found in the spacing-corrected frame.
  vec3 f = u_spacingFactor;
  vec3 ab = (b - a) * f;
  float len2 = dot(ab, ab);
  float t = len2 > 0.0 ? clamp(dot((p - a) * f, ab) / len2, 0.0, 1.0) : 0.0;
  vec3 e = (p - a) * f - t * ab;
  if (dot(e, e) > u_radius * u_radius) {
    // Outside the brush: the target keeps what it holds.
    o_value = previous;
    return;
  }
  float weight = 1.0;
  if (u_adaptiveness > 0.0) {
    vec3 reference = u_sampleOnPath ? a + t * (b - a) : b;
    float d = windowed(p) - windowed(reference);
    // A Gaussian of the intensity difference; adaptiveness blends it in from a flat disc.
    weight = mix(1.0, exp(-d * d / (2.0 * 0.1 * 0.1)), clamp(u_adaptiveness, 0.0, 1.0));
  }
  uint w = uint(round(clamp(weight, 0.0, 1.0) * 255.0));
  o_value = u_multipass ? max(previous, w) : w;
}
