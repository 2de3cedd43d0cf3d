#include "GlSmoothingFilter.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "GlContext.h"
#include "GlImageProgram.h"
#include "Log.h"

#include <epoxy/gl.h>

namespace Merivane {

namespace {

constexpr int kMaxTaps = 63;

// One axis of the separable convolution; taps beyond the image repeat the edge voxel.
std::string passSource(bool volume) {
  std::string s = "#version 450 core\n";
  s += volume ? "uniform usampler3D u_input;\n" : "uniform usampler2D u_input;\n";
  s += "uniform int u_slice;\nuniform ivec3 u_axis;\nuniform int u_half;\nuniform float u_weights[" +
       std::to_string(kMaxTaps) + "];\nlayout(location = 0) out uint o_value;\n";
  s += "void main() {\n";
  s += volume ? "  ivec3 size = textureSize(u_input, 0);\n" : "  ivec3 size = ivec3(textureSize(u_input, 0), 1);\n";
  s += "  ivec3 c = ivec3(gl_FragCoord.xy, u_slice);\n  float sum = 0.0;\n";
  s += "  for (int k = -u_half; k <= u_half; ++k) {\n";
  s += "    ivec3 q = clamp(c + k * u_axis, ivec3(0), size - 1);\n";
  s += volume ? "    sum += u_weights[k + u_half] * float(texelFetch(u_input, q, 0).r);\n"
              : "    sum += u_weights[k + u_half] * float(texelFetch(u_input, q.xy, 0).r);\n";
  s += "  }\n  o_value = uint(round(sum));\n}\n";
  return s;
}

}  // namespace

struct GlSmoothingFilter::Programs {
  GL::ImageProgram volume;
  GL::ImageProgram flat;
  bool compiled = false;
  bool ok = false;
};

GlSmoothingFilter::GlSmoothingFilter(int kernelSize, double sigma) : programs_(std::make_unique<Programs>()) {
  setKernelSize(kernelSize, sigma);
}

GlSmoothingFilter::~GlSmoothingFilter() {
  // Programs hold GL names: free them on the GL thread.
  auto programs = std::move(programs_);
  GL::runOnGlThread([&programs] { programs.reset(); });
}

void GlSmoothingFilter::setKernelSize(int kernelSize, double sigma) { weights_ = gaussianWeights(kernelSize, sigma); }

std::vector<float> GlSmoothingFilter::gaussianWeights(int kernelSize, double sigma) {
  int taps = std::clamp(kernelSize, 1, kMaxTaps);
  if (taps % 2 == 0) ++taps;
  const int half = taps / 2;
  if (sigma <= 0.0) sigma = 0.3 * ((taps - 1) * 0.5 - 1.0) + 0.8;
  std::vector<float> weights(static_cast<size_t>(taps), 0.0f);
  double sum = 0.0;
  for (int k = -half; k <= half; ++k) sum += std::exp(-k * k / (2.0 * sigma * sigma));
  for (int k = -half; k <= half; ++k)
    weights[static_cast<size_t>(k + half)] = static_cast<float>(std::exp(-k * k / (2.0 * sigma * sigma)) / sum);
  return weights;
}

bool GlSmoothingFilter::compute(const GlImage& input, GlImage& output) {
  if (!input.valid() || !output.valid() || input.id() == output.id() || input.dimensions() != output.dimensions() ||
      input.internalFormat() != output.internalFormat() || GlImage::samplerKind(input.internalFormat()) != 'u')
    return false;
  bool ok = false;
  GL::runOnGlThread([&] {
    if (!programs_->compiled) {
      programs_->compiled = true;
      programs_->ok = programs_->volume.compile(passSource(true)) && programs_->flat.compile(passSource(false));
      if (!programs_->ok)
        LOG_ERROR("GL.SmoothingFilter", "smoothing program does not compile: " << programs_->volume.log()
                                                                                 << programs_->flat.log());
    }
    if (!programs_->ok) return;
    const Eigen::Vector3i dims = input.dimensions();
    const bool volume = dims[2] > 1;
    GL::ImageProgram& program = volume ? programs_->volume : programs_->flat;
    for (auto& t : temp_)
      if (!t || t->dimensions() != dims || t->internalFormat() != input.internalFormat())
        t = std::make_unique<GlImage>(input.descriptor(), input.internalFormat());
    if (!temp_[0]->valid() || !temp_[1]->valid()) return;

    const GL::Cuboid box = box_.empty() ? GL::Cuboid::whole(dims) : box_.clipped(dims);
    const int half = kernelSize() / 2;
    // Each pass covers what the later passes read: the first the box grown along y and z,
    // the second the box grown along z.
    auto grown = [&](const Eigen::Vector3i& by) { return GL::Cuboid{box.min - by, box.max + by}.clipped(dims); };
    const Eigen::Vector3i axes[3] = {Eigen::Vector3i::UnitX(), Eigen::Vector3i::UnitY(), Eigen::Vector3i::UnitZ()};
    const GL::Cuboid regions[3] = {grown({0, half, volume ? half : 0}), grown({0, 0, volume ? half : 0}), box};
    const GlImage* sources[3] = {&input, temp_[0].get(), temp_[1].get()};
    GlImage* targets[3] = {temp_[0].get(), volume ? temp_[1].get() : &output, &output};
    program.setArgument("u_half", half);
    program.use();
    const int location = program.location("u_weights");
    if (location >= 0) glUniform1fv(location, kernelSize(), weights_.data());
    const int passes = volume ? 3 : 2;
    for (int i = 0; i < passes; ++i) {
      program.setArgument("u_axis", vec3i(axes[i]));
      program.setArgument("u_input", *sources[i], 0);
      if (!program.compute(*targets[i], regions[i == passes - 1 ? 2 : i])) return;
    }
    ok = true;
  });
  return ok;
}

}  // namespace Merivane
