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

// One axis of the separable convolution; taps beyond the image repeat the edge voxel. The
// target and the source may each be a window of the image: u_targetOrigin and
// u_sourceOrigin are the image voxels of their first texels, u_size the image's size.
std::string passSource(bool volume) {
  std::string s = "#version 450 core\n";
  s += volume ? "uniform usampler3D u_input;\n" : "uniform usampler2D u_input;\n";
  s += "uniform int u_slice;\nuniform ivec3 u_axis;\nuniform int u_half;\nuniform float u_weights[" +
       std::to_string(kMaxTaps) + "];\n";
  s += "uniform ivec3 u_targetOrigin;\nuniform ivec3 u_sourceOrigin;\nuniform ivec3 u_size;\n";
  s += "layout(location = 0) out uint o_value;\n";
  s += "void main() {\n";
  s += "  ivec3 c = ivec3(gl_FragCoord.xy, u_slice) + u_targetOrigin;\n  float sum = 0.0;\n";
  s += "  for (int k = -u_half; k <= u_half; ++k) {\n";
  s += "    ivec3 q = clamp(c + k * u_axis, ivec3(0), u_size - 1) - u_sourceOrigin;\n";
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
    const GL::Cuboid box = box_.empty() ? GL::Cuboid::whole(dims) : box_.clipped(dims);
    if (box.empty()) {
      ok = true;
      return;
    }
    const int half = kernelSize() / 2;
    // Each pass covers what the later passes read: the first the box grown along y and z,
    // the second the box grown along z. The intermediate results live in scratch textures
    // of the size of those regions, not of the image, so a stroke's cost follows its box.
    auto grown = [&](const Eigen::Vector3i& by) { return GL::Cuboid{box.min - by, box.max + by}.clipped(dims); };
    const Eigen::Vector3i axes[3] = {Eigen::Vector3i::UnitX(), Eigen::Vector3i::UnitY(), Eigen::Vector3i::UnitZ()};
    const GL::Cuboid regions[2] = {grown({0, half, volume ? half : 0}), grown({0, 0, volume ? half : 0})};
    const int passes = volume ? 3 : 2;
    for (int i = 0; i < passes - 1; ++i) {
      // Scratch only grows; a volume keeps two slices at least so that it stays a 3D texture.
      const Eigen::Vector3i need = (regions[i].max - regions[i].min).cwiseMax(Eigen::Vector3i(1, 1, volume ? 2 : 1));
      auto& t = temp_[i];
      if (!t || (t->dimensions().array() < need.array()).any() || t->internalFormat() != input.internalFormat() ||
          (t->slices() > 1) != volume) {
        const Eigen::Vector3i size = t && (t->slices() > 1) == volume ? need.cwiseMax(t->dimensions()) : need;
        t = std::make_unique<GlImage>(ImageDescriptor(input.type(), size, 1), input.internalFormat());
      }
      if (!t->valid()) return;
    }
    const GlImage* sources[3] = {&input, temp_[0].get(), temp_[1].get()};
    const Eigen::Vector3i sourceOrigins[3] = {Eigen::Vector3i::Zero(), regions[0].min, regions[1].min};
    GlImage* targets[3] = {temp_[0].get(), volume ? temp_[1].get() : &output, &output};
    program.setArgument("u_half", half);
    program.setArgument("u_size", vec3i(dims));
    program.use();
    const int location = program.location("u_weights");
    if (location >= 0) glUniform1fv(location, kernelSize(), weights_.data());
    for (int i = 0; i < passes; ++i) {
      const bool last = i == passes - 1;
      // The last pass writes the output over the box in image voxels; the others fill the
      // corner of their scratch texture that stands for their region.
      const Eigen::Vector3i origin = last ? Eigen::Vector3i::Zero() : regions[i].min;
      const GL::Cuboid target = last ? box : GL::Cuboid{Eigen::Vector3i::Zero(), regions[i].max - regions[i].min};
      program.setArgument("u_axis", vec3i(axes[i]));
      program.setArgument("u_targetOrigin", vec3i(origin));
      program.setArgument("u_sourceOrigin", vec3i(sourceOrigins[i]));
      program.setArgument("u_input", *sources[i], 0);
      if (!program.compute(*targets[i], target)) return;
    }
    ok = true;
  });
  return ok;
}

}  // namespace Merivane
