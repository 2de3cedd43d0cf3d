#include "GlAnisotropicDiffusionFilter.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "GlContext.h"
#include "GlImage.h"
#include "GlImageProgram.h"
#include "GlSmoothingFilter.h"
#include "Log.h"

#include <epoxy/gl.h>

namespace Merivane {

namespace {

constexpr const char* kCategory = "GL.AnisotropicDiffusionFilter";

// Shader text shared by all passes: the slice uniform, a fetch that takes ivec3 on both
// texture kinds, and the size of a sampler as ivec3.
std::string header(bool volume) {
  std::string s = "#version 450 core\nuniform int u_slice;\n";
  s += volume ? "#define AT(c) (c)\n#define SIZE(t) textureSize(t, 0)\n#define AXES 3\n"
              : "#define AT(c) (c).xy\n#define SIZE(t) ivec3(textureSize(t, 0), 1)\n#define AXES 2\n";
  s += "ivec3 here() { return ivec3(gl_FragCoord.xy, u_slice); }\n";
  return s;
}

std::string sampler(char kind, bool volume) {
  const std::string prefix = kind == 'u' ? "u" : kind == 'i' ? "i" : "";
  return prefix + (volume ? "sampler3D" : "sampler2D");
}

// One axis of a separable Gaussian, into a float target; the edge voxel repeats.
std::string convolveSource(bool volume, char kind) {
  return header(volume) + "uniform " + sampler(kind, volume) + " u_input;\n" +
         "uniform ivec3 u_axis;\nuniform int u_half;\nuniform float u_weights[" +
         std::to_string(GlAnisotropicDiffusionFilter::kMaxSmoothingKernelSize) + "];\n" +
         "layout(location = 0) out float o_value;\n"
         "void main() {\n"
         "  ivec3 size = SIZE(u_input), c = here();\n"
         "  float sum = 0.0;\n"
         "  for (int k = -u_half; k <= u_half; ++k)\n"
         "    sum += u_weights[k + u_half] * float(texelFetch(u_input, AT(clamp(c + k * u_axis, ivec3(0), size - 1)), 0).r);\n"
         "  o_value = sum;\n"
         "}\n";
}

// Squared gradient magnitude of the smoothed image at c, by central differences (one-sided
// halves at the border), per unit of the smallest voxel edge.
const char* kGradient =
    "uniform sampler3D_OR_2D u_smoothed;\n"
    "uniform vec3 u_gradientScale;\n"
    "float gradient2(ivec3 c, ivec3 size) {\n"
    "  float s2 = 0.0;\n"
    "  for (int a = 0; a < AXES; ++a) {\n"
    "    ivec3 e = ivec3(0);\n"
    "    e[a] = 1;\n"
    "    float d = 0.5 * (texelFetch(u_smoothed, AT(min(c + e, size - 1)), 0).r -\n"
    "                     texelFetch(u_smoothed, AT(max(c - e, ivec3(0))), 0).r) * u_gradientScale[a];\n"
    "    s2 += d * d;\n"
    "  }\n"
    "  return s2;\n"
    "}\n";

std::string gradientSource(bool volume) {
  std::string s = kGradient;
  const std::string from = "sampler3D_OR_2D";
  s.replace(s.find(from), from.size(), sampler('f', volume));
  return s;
}

// The sum of the squared gradient along z of each column, into a 2D float target.
std::string reduceSource(bool volume) {
  return header(volume) + gradientSource(volume) +
         "layout(location = 0) out float o_value;\n"
         "void main() {\n"
         "  ivec3 size = SIZE(u_smoothed);\n"
         "  float sum = 0.0;\n"
         "  for (int z = 0; z < size.z; ++z) sum += gradient2(ivec3(gl_FragCoord.xy, z), size);\n"
         "  o_value = sum;\n"
         "}\n";
}

// The diffusion state: the input as float and its conductance.
std::string buildSource(bool volume, char kind) {
  return header(volume) + gradientSource(volume) + "uniform " + sampler(kind, volume) + " u_input;\n" +
         "uniform float u_k2;\n"
         "layout(location = 0) out vec2 o_value;\n"
         "void main() {\n"
         "  ivec3 c = here();\n"
         "  float g = u_k2 > 0.0 ? exp(-gradient2(c, SIZE(u_input)) / u_k2) : 1.0;\n"
         "  o_value = vec2(float(texelFetch(u_input, AT(c), 0).r), g);\n"
         "}\n";
}

// One explicit step. A neighbour beyond the border is the voxel itself, so no flux leaves.
std::string stepSource(bool volume) {
  return header(volume) + "uniform " + sampler('f', volume) + " u_state;\n" +
         "uniform vec3 u_axisWeights;\n"
         "uniform float u_dt;\n"
         "layout(location = 0) out vec2 o_value;\n"
         "void main() {\n"
         "  ivec3 size = SIZE(u_state), c = here();\n"
         "  vec2 s = texelFetch(u_state, AT(c), 0).rg;\n"
         "  float flux = 0.0;\n"
         "  for (int a = 0; a < AXES; ++a) {\n"
         "    ivec3 e = ivec3(0);\n"
         "    e[a] = 1;\n"
         "    vec2 p = texelFetch(u_state, AT(min(c + e, size - 1)), 0).rg;\n"
         "    vec2 m = texelFetch(u_state, AT(max(c - e, ivec3(0))), 0).rg;\n"
         "    flux += u_axisWeights[a] * (0.5 * (s.y + p.y) * (p.x - s.x) + 0.5 * (s.y + m.y) * (m.x - s.x));\n"
         "  }\n"
         "  o_value = vec2(s.x + u_dt * flux, s.y);\n"
         "}\n";
}

// Unsharp mask clamped to the neighbourhood's range, then the output's type.
std::string finishSource(bool volume, char sourceKind, char outputKind) {
  std::string s = header(volume) + "uniform " + sampler(sourceKind, volume) + " u_source;\n" +
                  "uniform int u_half;\nuniform float u_weights[" +
                  std::to_string(GlAnisotropicDiffusionFilter::kMaxSharpenKernelSize) + "];\n" +
                  "uniform float u_amount;\nuniform float u_outMin;\nuniform float u_outMax;\n";
  s += outputKind == 'u' ? "layout(location = 0) out uint o_value;\n"
       : outputKind == 'i' ? "layout(location = 0) out int o_value;\n"
                           : "layout(location = 0) out float o_value;\n";
  s += "void main() {\n"
       "  ivec3 size = SIZE(u_source), c = here();\n"
       "  float u = float(texelFetch(u_source, AT(c), 0).r);\n"
       "  float v = u;\n"
       "  if (u_amount > 0.0 && u_half > 0) {\n"
       "    float blurred = 0.0, lo = u, hi = u;\n"
       "    int hz = AXES == 3 ? u_half : 0;\n"
       "    for (int k = -hz; k <= hz; ++k)\n"
       "      for (int j = -u_half; j <= u_half; ++j)\n"
       "        for (int i = -u_half; i <= u_half; ++i) {\n"
       "          float x = float(texelFetch(u_source, AT(clamp(c + ivec3(i, j, k), ivec3(0), size - 1)), 0).r);\n"
       "          float w = u_weights[i + u_half] * u_weights[j + u_half] * (AXES == 3 ? u_weights[k + u_half] : 1.0);\n"
       "          blurred += w * x;\n"
       "          lo = min(lo, x);\n"
       "          hi = max(hi, x);\n"
       "        }\n"
       "    v = clamp(u + u_amount * (u - blurred), lo, hi);\n"
       "  }\n"
       "  v = clamp(v, u_outMin, u_outMax);\n";
  s += outputKind == 'u' ? "  o_value = uint(floor(v + 0.5));\n"
       : outputKind == 'i' ? "  o_value = int(floor(v + 0.5));\n"
                           : "  o_value = v;\n";
  s += "}\n";
  return s;
}

// The values an output of `type` can hold, as floats that convert back without overflow.
std::pair<float, float> outputRange(PixelType type) {
  switch (type) {
    case U8: return {0.0f, 255.0f};
    case I8: return {-128.0f, 127.0f};
    case U16: return {0.0f, 65535.0f};
    case I16: return {-32768.0f, 32767.0f};
    case U32: return {0.0f, 4294967040.0f};
    case I32: return {-2147483648.0f, 2147483520.0f};
    default: return {-std::numeric_limits<float>::max(), std::numeric_limits<float>::max()};
  }
}

std::unique_ptr<GlImage> floatTexture(const Eigen::Vector3i& dims, int channels) {
  auto t = std::make_unique<GlImage>(ImageDescriptor(F32, dims, channels));
  return t->valid() ? std::move(t) : nullptr;
}

}  // namespace

GlAnisotropicDiffusionFilter::GlAnisotropicDiffusionFilter()
    : smoothingWeights_(GlSmoothingFilter::gaussianWeights(9)), sharpenWeights_{1.0f} {}

GlAnisotropicDiffusionFilter::~GlAnisotropicDiffusionFilter() {
  // Programs hold GL names: free them on the GL thread.
  auto programs = std::move(programs_);
  GL::runOnGlThread([&programs] { programs.clear(); });
}

bool GlAnisotropicDiffusionFilter::setSmoothingKernelSize(int size) {
  if (size < 1 || size > kMaxSmoothingKernelSize) {
    LOG_WARN(kCategory, "Smoothing kernel size must be 1 to " << kMaxSmoothingKernelSize << ", not " << size);
    return false;
  }
  smoothingWeights_ = GlSmoothingFilter::gaussianWeights(size);
  return true;
}

bool GlAnisotropicDiffusionFilter::setIterations(int iterations) {
  if (iterations < 0 || iterations > kMaxIterations) {
    LOG_WARN(kCategory, "Iterations must be 0 to " << kMaxIterations << ", not " << iterations);
    return false;
  }
  iterations_ = iterations;
  return true;
}

bool GlAnisotropicDiffusionFilter::setContrast(double contrast) {
  if (!(contrast > 0.0) || !std::isfinite(contrast)) {
    LOG_WARN(kCategory, "Contrast must be a positive number, not " << contrast);
    return false;
  }
  contrast_ = contrast;
  return true;
}

bool GlAnisotropicDiffusionFilter::setSharpenKernelSize(int size, double amount) {
  if (size < 1 || size > kMaxSharpenKernelSize || !(amount >= 0.0) || !std::isfinite(amount)) {
    LOG_WARN(kCategory, "Sharpening needs a kernel size of 1 to " << kMaxSharpenKernelSize
                                                                  << " and an amount of at least 0, not " << size
                                                                  << " and " << amount);
    return false;
  }
  sharpenWeights_ = GlSmoothingFilter::gaussianWeights(size);
  sharpenAmount_ = amount;
  return true;
}

GL::ImageProgram* GlAnisotropicDiffusionFilter::program(const std::string& key, const std::string& source) {
  auto& slot = programs_[key];
  if (!slot) {
    slot = std::make_unique<GL::ImageProgram>();
    if (!slot->compile(source)) LOG_ERROR(kCategory, "Program " << key << " does not compile: " << slot->log());
  }
  return slot->valid() ? slot.get() : nullptr;
}

bool GlAnisotropicDiffusionFilter::compute(const GlImage& input, GlImage& output) {
  if (!input.valid() || !output.valid() || input.id() == output.id() || input.dimensions() != output.dimensions() ||
      input.channels() != 1 || output.channels() != 1)
    return false;
  bool ok = false;
  GL::runOnGlThread([&] { ok = run(input, output); });
  return ok;
}

bool GlAnisotropicDiffusionFilter::run(const GlImage& input, GlImage& output) {
  const Eigen::Vector3i dims = input.dimensions();
  const bool volume = dims[2] > 1;
  const char inputKind = GlImage::samplerKind(input.internalFormat());
  const char outputKind = GlImage::samplerKind(output.internalFormat());
  const std::string shape = volume ? "3D" : "2D";
  lastK2_ = 0.0;

  // Per-axis weights in units of the smallest voxel edge; a 2D image has no z.
  const Eigen::Vector3d spacing = input.spacing();
  const double minSpacing = volume ? spacing.minCoeff() : spacing.head<2>().minCoeff();
  Eigen::Vector3d scale = Eigen::Vector3d::Ones();
  if (minSpacing > 0.0 && spacing.allFinite()) scale = (Eigen::Vector3d::Constant(minSpacing).cwiseQuotient(spacing));
  if (!volume) scale[2] = 0.0;
  const Eigen::Vector3d axisWeights = scale.cwiseProduct(scale);

  GL::ImageProgram* finish = nullptr;
  std::unique_ptr<GlImage> state[2];
  const GlImage* source = &input;
  if (iterations_ > 0) {
    GL::ImageProgram* convolveIn = program("convolve" + shape + inputKind, convolveSource(volume, inputKind));
    GL::ImageProgram* convolve = program("convolve" + shape + "f", convolveSource(volume, 'f'));
    GL::ImageProgram* reduce = program("reduce" + shape, reduceSource(volume));
    GL::ImageProgram* build = program("build" + shape + inputKind, buildSource(volume, inputKind));
    GL::ImageProgram* step = program("step" + shape, stepSource(volume));
    if (!convolveIn || !convolve || !reduce || !build || !step) return false;

    {
      // Gaussian of the input, x then y then z, ping-ponging between two float textures.
      auto a = floatTexture(dims, 1), b = floatTexture(dims, 1);
      if (!a || !b) return false;
      const int half = smoothingKernelSize() / 2;
      const GlImage* from = &input;
      GlImage* to = a.get();
      for (int axis = 0; axis < (volume ? 3 : 2); ++axis) {
        GL::ImageProgram* p = axis == 0 ? convolveIn : convolve;
        p->setArgument("u_axis", vec3i(Eigen::Vector3i::Unit(axis)));
        p->setArgument("u_half", half);
        p->use();
        const int location = p->location("u_weights");
        if (location >= 0) glUniform1fv(location, smoothingKernelSize(), smoothingWeights_.data());
        p->setArgument("u_input", *from, 0);
        if (!p->compute(*to)) return false;
        from = to;
        to = to == a.get() ? b.get() : a.get();
      }
      const GlImage& smoothed = *from;

      // The mean squared gradient: column sums on the GPU, the rest in double here.
      GlImage columns(ImageDescriptor(F32, {dims[0], dims[1], 1}, 1));
      reduce->setArgument("u_smoothed", smoothed, 0);
      reduce->setArgument("u_gradientScale", vec3(scale));
      if (!columns.valid() || !reduce->compute(columns)) return false;
      TypedImage<float> sums(Eigen::Vector3i(dims[0], dims[1], 1), 1);
      if (!columns.download(sums)) return false;
      double total = 0.0;
      for (size_t i = 0; i < sums.descriptor().pixelCount(); ++i) total += sums.pointer()[i];
      const double meanSquare = total / static_cast<double>(input.descriptor().pixelCount());
      lastK2_ = std::isfinite(meanSquare) && meanSquare > 0.0 ? 2.0 * contrast_ * contrast_ * meanSquare : 0.0;

      state[0] = floatTexture(dims, 2);
      if (!state[0]) return false;
      build->setArgument("u_input", input, 0);
      build->setArgument("u_smoothed", smoothed, 1);
      build->setArgument("u_gradientScale", vec3(scale));
      build->setArgument("u_k2", static_cast<float>(lastK2_));
      if (!build->compute(*state[0])) return false;
    }  // the smoothing textures go before the second state texture comes

    state[1] = floatTexture(dims, 2);
    if (!state[1]) return false;
    step->setArgument("u_axisWeights", vec3(axisWeights));
    // The largest step for which each update stays a convex combination, less a margin.
    step->setArgument("u_dt", static_cast<float>(1.0 / (2.0 * axisWeights.sum() + 1.0)));
    for (int i = 0; i < iterations_; ++i) {
      step->setArgument("u_state", *state[i % 2], 0);
      if (!step->compute(*state[(i + 1) % 2])) return false;
    }
    source = state[iterations_ % 2].get();
    finish = program("finish" + shape + "f" + outputKind, finishSource(volume, 'f', outputKind));
  } else {
    finish = program("finish" + shape + inputKind + outputKind, finishSource(volume, inputKind, outputKind));
  }
  if (!finish) return false;
  // Zero iterations copy the input: there is nothing to sharpen back.
  const bool sharpen = iterations_ > 0 && sharpenAmount_ > 0.0 && sharpenKernelSize() > 1;
  const auto [lo, hi] = outputRange(output.type());
  finish->setArgument("u_half", sharpen ? sharpenKernelSize() / 2 : 0);
  finish->setArgument("u_amount", static_cast<float>(sharpen ? sharpenAmount_ : 0.0));
  finish->setArgument("u_outMin", lo);
  finish->setArgument("u_outMax", hi);
  finish->use();
  const int location = finish->location("u_weights");
  if (location >= 0) glUniform1fv(location, sharpenKernelSize(), sharpenWeights_.data());
  finish->setArgument("u_source", *source, 0);
  return finish->compute(output);
}

}  // namespace Merivane
