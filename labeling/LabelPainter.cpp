#include "LabelPainter.h"

#include <Eigen/Geometry>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <functional>
#include <string>
#include <tuple>

#include "GlAnisotropicDiffusionFilter.h"
#include "GlContext.h"
#include "GlImage.h"
#include "GlImageProgram.h"
#include "GlSmoothingFilter.h"
#include "ImageComponents.h"
#include "Log.h"
#include "Mask.h"
#include "Resource.h"
#include "SharedImageSet.h"

namespace Merivane::Seg {

namespace {

constexpr const char* kCategory = "LabelPainter";

// A program served by the resource system, compiled with `defines` after its version line.
// Recompiles only when the defines change; a failure is logged once per text.
struct ResourceProgram {
  const char* name;
  GL::ImageProgram program;
  std::string defines;
  bool compiled = false;

  explicit ResourceProgram(const char* resourceName) : name(resourceName) {}

  bool ensure(const std::string& wanted) {
    if (compiled && defines == wanted) return program.valid();
    compiled = true;
    defines = wanted;
    auto text = Resource::queryText(std::string("MerivaneSeg/") + name);
    if (!text) {
      LOG_ERROR(kCategory, "Fragment program MerivaneSeg/" << name << " is not available");
      return false;
    }
    const size_t afterVersion = text->find('\n');
    text->insert(afterVersion == std::string::npos ? text->size() : afterVersion + 1, wanted);
    if (!program.compile(*text)) {
      LOG_ERROR(kCategory, "Fragment program MerivaneSeg/" << name << " does not compile: " << program.log());
      return false;
    }
    return true;
  }
};

bool isTrue2D(const ImageDescriptor& d) { return d.slices() == 1 && d.height() >= 2; }

// How the brush program reads the input: sampler kind and the stored range that maps to
// [0, 1]. Integer textures hold stored values; float textures are taken as they are.
struct InputForm {
  std::string defines;
  double offset = 0.0;
  double range = 1.0;
};

InputForm inputForm(const ImageDescriptor& d) {
  InputForm f;
  switch (d.pixelType) {
    case U8: f.range = 255.0; break;
    case U16: f.range = 65535.0; break;
    case U32: f.range = 4294967295.0; break;
    case I8: f.offset = -128.0; f.range = 255.0; break;
    case I16: f.offset = -32768.0; f.range = 65535.0; break;
    case I32: f.offset = -2147483648.0; f.range = 4294967295.0; break;
    default: break;
  }
  const char kind = GlImage::samplerKind(GlImage::defaultInternalFormat(d.pixelType, d.channels));
  if (kind == 'f') f.defines = "#define INPUT_FLOAT\n";
  if (kind == 'i') f.defines = "#define INPUT_INT\n";
  char buffer[128];
  std::snprintf(buffer, sizeof(buffer), "#define INPUT_OFFSET %.17g\n#define INPUT_RANGE %.17g\n", f.offset, f.range);
  f.defines += buffer;
  return f;
}

// A window and level in original (physical) units, in the [0, 1] units the brush program
// sees: stored value, then the type's range.
std::pair<float, float> windowLevelOriginalToNormalized(double window, double level, const ImageDescriptor& d) {
  const InputForm f = inputForm(d);
  const double storedLevel = d.toStored(level);
  const double storedWindow = window * d.scale;
  return {static_cast<float>(storedWindow / f.range), static_cast<float>((storedLevel - f.offset) / f.range)};
}

}  // namespace

// Everything that holds GL names; created, used and destroyed on the GL thread.
struct LabelPainter::Gl {
  ResourceProgram brush{"LabelPainter.frag"};
  ResourceProgram drawLine{"LabelPainterDrawLine.frag"};
  ResourceProgram threshold{"LabelPainterThreshold.frag"};
  ResourceProgram merge{"LabelPainterMerge.frag"};
  GlSmoothingFilter smoothing;
  std::unique_ptr<GlAnisotropicDiffusionFilter> diffusion;
  std::unique_ptr<GlImage> scratchA, scratchB, filterSource;
  // The denoised input, for the focus and frame it was made from. A failed attempt is
  // remembered too, so that a frame the filter cannot take is reported once.
  std::unique_ptr<GlImage> filteredInput;
  int filteredInputFocus = -1;
  const SharedImage* filteredInputFrame = nullptr;
  bool filteredInputFailed = false;
  // The mask as a U8 texture, for the mask and frame it was made from.
  std::unique_ptr<GlImage> maskTexture;
  const Mask* maskKey = nullptr;
  const SharedImage* maskFrame = nullptr;
  // Where the stencil and the filter source may be non-zero; clearing touches only that.
  GL::Cuboid stencilDirty, filterSourceDirty;
  bool stencilDirtyUnknown = true;
  std::string dimensionDefine;   // "#define USE_2D\n" or empty
  std::string inputDefines;      // sampler kind and range of the input

  explicit Gl(int kernelSize) : smoothing(kernelSize, -1.0) {}
};

namespace {

// Makes `image` a zero-initialised-on-demand U8 texture of `dims`; true when usable.
bool ensureScratch(std::unique_ptr<GlImage>& image, const Eigen::Vector3i& dims) {
  if (image && image->valid() && image->dimensions() == dims) return true;
  image = std::make_unique<GlImage>(ImageDescriptor(U8, dims, 1));
  return image->valid();
}

void runGl(const std::function<void()>& f) {
  if (GL::Context* c = GL::Context::instance()) c->run(f);
}

}  // namespace

LabelPainter::LabelPainter() {
  runGl([this] {
    gl_ = std::make_unique<Gl>(filterKernelSize_);
    gl_->brush.ensure("");
    gl_->drawLine.ensure("");
    gl_->threshold.ensure("");
    gl_->merge.ensure("");
  });
  if (!gl_) LOG_ERROR(kCategory, "No OpenGL context: the label painter cannot paint");
}

LabelPainter::~LabelPainter() {
  stencil_.reset();
  if (gl_) runGl([this] { gl_.reset(); });
}

void LabelPainter::replaceStencil(std::unique_ptr<SharedImage> stencil) {
  stencilAboutToBeReplaced.emitSignal();
  stencil_ = std::move(stencil);
  stencilClear_ = false;
  if (gl_) {
    gl_->stencilDirtyUnknown = true;
    gl_->stencilDirty = {};
  }
  stencilReplaced.emitSignal();
}

void LabelPainter::dropFilterCaches() {
  if (!gl_) return;
  runGl([this] {
    gl_->filterSource.reset();
    gl_->filterSourceDirty = {};
  });
}

void LabelPainter::dropFilteredInput() {
  if (!gl_) return;
  runGl([this] {
    gl_->filteredInput.reset();
    gl_->filteredInputFocus = -1;
    gl_->filteredInputFrame = nullptr;
    gl_->filteredInputFailed = false;
  });
}

void LabelPainter::createFilterInputProgram() {
  if (!gl_) return;
  if (!gl_->diffusion) {
    gl_->diffusion = std::make_unique<GlAnisotropicDiffusionFilter>();
    gl_->diffusion->setSmoothingKernelSize(32);
    gl_->diffusion->setContrast(0.6);
    gl_->diffusion->setSharpenKernelSize(3, 0.5);
  }
  gl_->diffusion->setIterations(filterInputIterations_);
}

const GlImage* LabelPainter::filteredInput() const { return gl_ ? gl_->filteredInput.get() : nullptr; }

bool LabelPainter::setCurrent(const SharedImageSet* input, SharedImageSet* labelMap) {
  if (!input && !labelMap) {
    replaceStencil(nullptr);
    dropFilterCaches();
    dropFilteredInput();
    input_ = nullptr;
    labelMap_ = nullptr;
    settingsChanged.emitSignal();
    return true;
  }
  if (!input || !labelMap) {
    LOG_WARN(kCategory, "Only both or neither the input image and label map may be specified");
    return false;
  }
  const Image* in = input->img(-1);
  const Image* labels = labelMap->img(-1);
  if (!in || !labels) {
    LOG_WARN(kCategory, "Input image or label map has no frame in focus");
    return false;
  }
  if (in->dimensions() != labels->dimensions()) {
    LOG_WARN(kCategory, "Label map and input image do not have the same dimensions");
    return false;
  }
  if (in->spacing() != labels->spacing()) {
    LOG_WARN(kCategory, "Label map and input image do not have the same spacing");
    return false;
  }
  if (labelMap->modality() != Data::LABEL) {
    LOG_WARN(kCategory, "Label map must be of modality LABEL");
    return false;
  }
  if (labels->type() != U8) {
    LOG_WARN(kCategory, "Label map must be of format U8");
    return false;
  }
  if (labels->channels() != 1) {
    LOG_WARN(kCategory, "Label map must have 1 channel");
    return false;
  }
  const ImageDescriptor& ld = labels->descriptor();
  if (stencil_ && stencil_->descriptor().dimensions != ld.dimensions) replaceStencil(nullptr);
  dropFilteredInput();
  if (gl_) {
    runGl([&] {
      if (gl_->filterSource && gl_->filterSource->dimensions() != ld.dimensions) gl_->filterSource.reset();
      // One slice lives in a 2D texture, whatever its height.
      gl_->dimensionDefine = ld.slices() == 1 ? "#define USE_2D\n" : "";
      gl_->inputDefines = inputForm(in->descriptor()).defines;
    });
  }
  input_ = input;
  labelMap_ = labelMap;
  settingsChanged.emitSignal();
  return true;
}

void LabelPainter::clearStencil() {
  if (!stencil_ || stencilClear_ || !gl_) return;
  runGl([this] {
    GlImage* texture = stencil_->gl();
    if (!texture) return;
    if (gl_->stencilDirtyUnknown)
      texture->clear();
    else
      texture->clear(gl_->stencilDirty);
    gl_->stencilDirtyUnknown = false;
    gl_->stencilDirty = {};
  });
  stencil_->setDirtyGl();
  stencilClear_ = true;
}

bool LabelPainter::paint(const Eigen::Vector3d& from, const Eigen::Vector3d& to, bool erase, bool previewOnly,
                         std::optional<Eigen::Vector3d> sliceNormal) {
  return paintSegments({Segment{from, to}}, erase, previewOnly, sliceNormal);
}

bool LabelPainter::paintSegments(const std::vector<Segment>& segments, bool erase, bool previewOnly,
                                 std::optional<Eigen::Vector3d> sliceNormal) {
  if (!input_ || !labelMap_ || segments.empty()) return false;
  if (input_->resolve(-1) != labelMap_->resolve(-1)) {
    LOG_ERROR(kCategory, "Input image and label map do not have the same focus");
    return false;
  }
  SharedImage* inputFrame = input_->get(-1);
  SharedImage* labelFrame = labelMap_->get(-1);
  if (!inputFrame || !labelFrame) {
    LOG_ERROR(kCategory, "Input image or label map has no frame in focus");
    return false;
  }
  const ImageDescriptor& id = inputFrame->descriptor();
  const ImageDescriptor ld = labelFrame->descriptor();
  if (id.dimensions != ld.dimensions) {
    LOG_ERROR(kCategory, "Label Map does not have the same dimensions as input");
    return false;
  }
  // The frame may have been replaced since setCurrent.
  if (ld.pixelType != U8 || ld.channels != 1) {
    LOG_ERROR(kCategory, "Label map must be of format U8 with 1 channel");
    return false;
  }
  const bool oneSlice = ld.slices() == 1;
  if (sliceNormal && oneSlice) sliceNormal.reset();
  if (sliceNormal && (sliceNormal->array().abs() <= 1e-12).all()) {
    LOG_ERROR(kCategory, "Invalid plane normal");
    return false;
  }
  if (sliceNormal && !sliceNormal->allFinite()) {
    LOG_ERROR(kCategory, "Invalid plane normal");
    return false;
  }
  for (const Segment& s : segments)
    if (!s.from.allFinite() || !s.to.allFinite()) {
      LOG_ERROR(kCategory, "Stroke position is not a finite point");
      return false;
    }
  if (label_ < 0 || label_ > 255) {
    LOG_ERROR(kCategory, "Label " << label_ << " is outside 0 to 255");
    return false;
  }
  if (!erase && lock_.locked(static_cast<unsigned char>(label_))) {
    LOG_ERROR(kCategory, "Label " << label_ << " is locked");
    return false;
  }
  if (!gl_) {
    LOG_ERROR(kCategory, "No OpenGL context: the label painter cannot paint");
    return false;
  }

  // Spacing factors: the brush is a ball in millimetres, measured in smallest-voxel units.
  const Eigen::Vector3d& sp = id.spacing;
  const double minSpacing = isTrue2D(id) ? std::min(sp[0], sp[1]) : sp.minCoeff();
  const float radius = radiusPixels();
  Eigen::Vector3f factor, reach;
  for (int i = 0; i < 3; ++i) {
    // Clamping by the radius keeps a very thick slice from shrinking the reach below one voxel.
    factor[i] = std::min(radius, static_cast<float>(sp[i] / minSpacing));
    reach[i] = radius / factor[i];
    // A radius of 0 gives 0 / 0: the brush then reaches no further than its path.
    if (!std::isfinite(reach[i])) reach[i] = 0.0f;
  }

  // Voxel coordinates with voxel centres at half-integers; z is 0 on a one-slice image.
  const Eigen::Vector3i dims = ld.dimensions;
  auto toVoxel = [&](const Eigen::Vector3d& w) {
    Eigen::Vector3d v = ignoreMatrix_ ? Eigen::Vector3d(w.cwiseQuotient(sp) - Eigen::Vector3d::Constant(0.5) +
                                                        dims.cast<double>() * 0.5)
                                      : inputFrame->worldToPixel(w);
    v[0] += 0.5;
    v[1] += 0.5;
    v[2] = oneSlice ? 0.0 : v[2] + 0.5;
    return v;
  };
  struct VoxelSegment {
    Eigen::Vector3d from, to;
    GL::Cuboid box;
    bool rejected = false;
  };
  std::vector<VoxelSegment> voxelSegments;
  voxelSegments.reserve(segments.size());
  GL::Cuboid box;
  for (const Segment& s : segments) {
    VoxelSegment v{toVoxel(s.from), toVoxel(s.to), {}, false};
    for (int i = 0; i < 3; ++i) {
      const bool beyondHigh = v.from[i] - dims[i] > reach[i] && v.to[i] - dims[i] > reach[i];
      const bool beyondLow = v.from[i] < -reach[i] && v.to[i] < -reach[i];
      if (beyondHigh || beyondLow) v.rejected = true;
    }
    if (!v.rejected) {
      for (int i = 0; i < 3; ++i) {
        const double lo = std::floor(std::min(v.from[i], v.to[i]) - reach[i]);
        const double hi = std::ceil(std::max(v.from[i], v.to[i]) + reach[i]);
        v.box.min[i] = static_cast<int>(std::clamp(lo, -1.0, static_cast<double>(dims[i])));
        v.box.max[i] = static_cast<int>(std::clamp(hi, -1.0, static_cast<double>(dims[i]) + 1.0));
      }
      if (oneSlice) {
        v.box.min[2] = 0;
        v.box.max[2] = 1;
      }
      v.box = v.box.clipped(dims);
      if (v.box.empty()) v.rejected = true;
    }
    if (!v.rejected) box = box.united(v.box);
    voxelSegments.push_back(v);
  }

  // Slice clipping, in world millimetres.
  Eigen::Vector3d normal = Eigen::Vector3d::UnitZ();
  float halfThickness = 0.0f;
  const Eigen::Matrix4d labelMatrix = ignoreMatrix_ ? Eigen::Matrix4d::Identity() : labelFrame->matrix();
  if (sliceNormal) {
    normal = *sliceNormal;
    if (normal.squaredNorm() > 0.0) normal.normalize();
    const Eigen::Vector3d T = labelMatrix.topLeftCorner<3, 3>() * ld.spacing;
    double h = 0.0;
    for (int i = 0; i < 3; ++i) h = std::max(h, std::abs(normal[i] * std::abs(T[i])) * 0.5);
    halfThickness = static_cast<float>(h);
  }
  Eigen::Matrix4d textureToWorld = labelFrame->textureToWorldMatrix();
  if (ignoreMatrix_) textureToWorld = labelMatrix * labelFrame->matrix().inverse() * textureToWorld;

  // The mask: the painter's own, else the input frame's.
  const Mask* mask = mask_ ? mask_ : inputFrame->mask().get();
  const bool smooth = adaptiveness_ > 0.0f && filter_;
  const bool multipass = segments.size() > 1;

  // The stencil follows the label image and always starts empty.
  if (!stencil_ || stencil_->descriptor().dimensions != dims) {
    std::unique_ptr<SharedImage> fresh;
    runGl([&] {
      auto texture = std::make_shared<GlImage>(ImageDescriptor(U8, dims, 1));
      if (texture->valid()) fresh = std::make_unique<SharedImage>(std::shared_ptr<Image>(texture));
    });
    if (!fresh) {
      LOG_ERROR(kCategory, "Could not create the stencil texture");
      return false;
    }
    replaceStencil(std::move(fresh));
  }
  stencil_->setSpacing(id.spacing, id.isMetric);
  stencil_->setMatrix(ignoreMatrix_ ? Eigen::Matrix4d::Identity() : inputFrame->matrix());
  clearStencil();

  if (box.empty()) {
    LOG_DEBUG(kCategory, "Stroke lies outside the image by more than the brush radius");
    return false;
  }

  bool ok = false;
  bool merged = false;
  std::string failure;
  double filterMilliseconds = -1.0;
  bool filterFailed = false;
  runGl([&] {
    Gl& g = *gl_;
    GlImage* stencilTexture = stencil_->gl();
    GlImage* labelTexture = labelFrame->gl();
    GlImage* inputTexture = inputFrame->gl();
    if (!stencilTexture || !labelTexture || !inputTexture) {
      failure = "Input image or label map has no texture";
      return;
    }
    const std::string dimDefine = g.dimensionDefine;
    if (!g.brush.ensure(dimDefine + g.inputDefines) || !g.drawLine.ensure("") || !g.threshold.ensure(dimDefine)) {
      failure = "Label painter programs are not usable";
      return;
    }
    std::string mergeDefines = dimDefine;
    if (mask) {
      if (!g.maskTexture || g.maskKey != mask || g.maskFrame != inputFrame || g.maskTexture->dimensions() != dims) {
        std::unique_ptr<ExplicitMask> explicitMask = mask->createExplicitMask(*inputFrame);
        g.maskTexture.reset();
        if (explicitMask && explicitMask->maskImageTyped().dimensions() == dims)
          g.maskTexture = std::make_unique<GlImage>(ImageDescriptor(U8, dims, 1), 0,
                                                    explicitMask->maskImageTyped().pointer());
        g.maskKey = mask;
        g.maskFrame = inputFrame;
      }
      if (!g.maskTexture || !g.maskTexture->valid()) {
        failure = "The mask could not be made into a texture";
        return;
      }
      mergeDefines += "#define USE_MASK\n";
    }
    if (!g.merge.ensure(mergeDefines)) {
      failure = "Label painter programs are not usable";
      return;
    }
    if (!ensureScratch(g.scratchA, dims) || !ensureScratch(g.scratchB, dims)) {
      failure = "Could not create the scratch textures";
      return;
    }
    if (smooth) {
      if (!g.filterSource || g.filterSource->dimensions() != dims) {
        g.filterSource = std::make_unique<GlImage>(ImageDescriptor(U8, dims, 1));
        if (!g.filterSource->valid() || !g.filterSource->clear()) {
          g.filterSource.reset();
          failure = "Could not create the filter texture";
          return;
        }
        g.filterSourceDirty = {};
      }
      g.filterSource->clear(g.filterSourceDirty);
      g.filterSourceDirty = {};
    }

    // The denoised input, once per focus: it costs far more than a stroke.
    const GlImage* brushInput = inputTexture;
    if (filterInput_) {
      const int focus = input_->resolve(-1);
      if (focus != g.filteredInputFocus || inputFrame != g.filteredInputFrame) {
        g.filteredInput.reset();
        g.filteredInputFailed = false;
      }
      if (!g.filteredInput && !g.filteredInputFailed) {
        createFilterInputProgram();
        const auto start = std::chrono::steady_clock::now();
        auto filtered = std::make_unique<GlImage>(inputTexture->descriptor(), inputTexture->internalFormat());
        if (filtered->valid() && g.diffusion->compute(*inputTexture, *filtered)) {
          g.filteredInput = std::move(filtered);
          filterMilliseconds =
              std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
        } else {
          g.filteredInputFailed = true;
          filterFailed = true;
        }
        g.filteredInputFocus = focus;
        g.filteredInputFrame = inputFrame;
      }
      if (g.filteredInput) brushInput = g.filteredInput.get();
    }

    // Brush pass, one segment at a time: each renders its box into scratch B reading the
    // output so far, and the box goes back into the output, so the stroke is the union.
    GL::ImageProgram& brush = g.brush.program;
    brush.setArgument("u_radius", radius);
    brush.setArgument("u_adaptiveness", adaptiveness_);
    brush.setArgument("u_sampleOnPath", sampleOnPath_ ? 1 : 0);
    float window = 1.0f, level = 0.5f;
    if (useWindowLevel_) {
      const auto* display = input_->components().get<DisplayOptions2d>();
      // Without display settings (or with an empty window) the brush sees the whole range.
      if (display && display->window > 0.0)
        std::tie(window, level) = windowLevelOriginalToNormalized(display->window, display->level, id);
    }
    brush.setArgument("u_window", window);
    brush.setArgument("u_level", level);
    GlImage& output = smooth ? *g.filterSource : *stencilTexture;
    brush.setArgument("u_inputImage", *brushInput, 0);
    brush.setArgument("u_spacingFactor", vec3(factor.cast<double>()));
    brush.setArgument("u_multipass", multipass ? 1 : 0);
    for (const VoxelSegment& v : voxelSegments) {
      if (v.rejected) continue;
      brush.setArgument("u_from", vec3(v.from));
      brush.setArgument("u_to", vec3(v.to));
      brush.setArgument("u_output", output, 1);
      if (!brush.compute(*g.scratchB, v.box) || !output.update(*g.scratchB, v.box)) {
        failure = "The brush pass failed";
        return;
      }
    }
    if (smooth)
      g.filterSourceDirty = g.filterSourceDirty.united(box);
    else
      g.stencilDirty = g.stencilDirty.united(box);

    if (smooth) {
      g.smoothing.setSubVolume(box);
      if (!g.smoothing.compute(*g.filterSource, *stencilTexture)) {
        failure = "Smoothing the stencil failed";
        return;
      }
      g.stencilDirty = g.stencilDirty.united(box);
      // The centre line goes back in, so smoothing never cuts a thin stroke.
      GL::ImageProgram& line = g.drawLine.program;
      line.setArgument("u_textureSize", vec3i(dims));
      line.setArgument("u_value", 1.0f);
      for (const VoxelSegment& v : voxelSegments) {
        line.setArgument("u_from", vec3(v.from));
        line.setArgument("u_to", vec3(v.to));
        if (!line.compute(*stencilTexture, box)) {
          failure = "The line pass failed";
          return;
        }
      }
    }

    GL::ImageProgram& threshold = g.threshold.program;
    threshold.setArgument("u_threshold", 0.5f);
    threshold.setArgument("u_stencil", *stencilTexture, 0);
    threshold.setArgument("u_sliceOnly", sliceNormal ? 1 : 0);
    threshold.setArgument("u_textureToWorld", mat4(textureToWorld));
    threshold.setArgument("u_sliceNormal", vec3(normal));
    threshold.setArgument("u_slicePoint", vec3(segments.front().from));
    threshold.setArgument("u_halfThickness", halfThickness);
    if (!threshold.compute(*g.scratchA, box) || !stencilTexture->update(*g.scratchA, box)) {
      failure = "The threshold pass failed";
      return;
    }
    if (previewOnly) {
      ok = true;
      return;
    }

    GL::ImageProgram& mergeProgram = g.merge.program;
    mergeProgram.setArgument("u_label", static_cast<float>(label_ / 255.0));
    mergeProgram.setArgument("u_erase", erase ? 1 : 0);
    mergeProgram.setArgument("u_preserveLabels", lock_.flags().data(), 8);
    mergeProgram.setArgument("u_labelMap", *labelTexture, 0);
    mergeProgram.setArgument("u_stencil", *stencilTexture, 1);
    if (mask) mergeProgram.setArgument("u_mask", *g.maskTexture, 2);
    if (!mergeProgram.compute(*g.scratchA, box) || !labelTexture->update(*g.scratchA, box)) {
      failure = "The merge pass failed";
      return;
    }
    ok = merged = true;
  });

  if (filterFailed)
    LOG_WARN(kCategory, "The input of frame " << input_->resolve(-1)
                                              << " cannot be denoised (one channel with a texture form is needed); the "
                                                 "adaptive brush reads it as it is");
  if (filterMilliseconds >= 0.0)
    LOG_DEBUG(kCategory, "Denoised the input of frame " << input_->resolve(-1) << " in " << filterMilliseconds << " ms");
  stencil_->setDirtyGl();
  stencilClear_ = false;
  if (!ok) {
    LOG_ERROR(kCategory, failure);
    // The label map is written last and in one copy, so a failure before it leaves it as it was.
    clearStencil();
    return false;
  }
  if (merged) {
    labelFrame->setDirtyGl(box.min, box.max);
    lastBoxMin_ = box.min;
    lastBoxMax_ = box.max;
    labelMap_->contentChanged.emitSignal(labelMap_->resolve(-1));
  }
  return true;
}

float LabelPainter::radiusPixels() const {
  if (radiusInPixels_) return radiusPixels_;
  const Image* img = input_ ? input_->img(-1) : nullptr;
  if (!img) return 0.0f;
  const Eigen::Vector3d& s = img->spacing();
  const double smallest = img->slices() > 1 ? s.minCoeff() : std::min(s[0], s[1]);
  return static_cast<float>(radiusMM_ / smallest);
}

float LabelPainter::radiusMM() const {
  if (radiusInMM_) return radiusMM_;
  const Image* img = input_ ? input_->img(-1) : nullptr;
  if (!img) return 0.0f;
  const Eigen::Vector3d& s = img->spacing();
  const double smallest = img->slices() > 1 ? s.minCoeff() : std::min(s[0], s[1]);
  return static_cast<float>(radiusPixels_ * smallest);
}

void LabelPainter::setLabel(int label) {
  label_ = label;
  settingsChanged.emitSignal();
}

void LabelPainter::setRadiusPixels(float radius) {
  radiusPixels_ = std::isfinite(radius) ? std::max(radius, 0.0f) : 0.0f;
  radiusInPixels_ = true;
  radiusInMM_ = false;
  settingsChanged.emitSignal();
}

void LabelPainter::setRadiusMM(float radius) {
  radiusMM_ = std::isfinite(radius) ? std::max(radius, 0.0f) : 0.0f;
  radiusInMM_ = true;
  radiusInPixels_ = false;
  settingsChanged.emitSignal();
}

void LabelPainter::setAdaptiveness(float adaptiveness) {
  adaptiveness_ = std::isfinite(adaptiveness) ? std::clamp(adaptiveness, 0.0f, 1.0f) : 0.0f;
  settingsChanged.emitSignal();
}

void LabelPainter::setIgnoreMatrix(bool ignore) {
  ignoreMatrix_ = ignore;
  settingsChanged.emitSignal();
}

void LabelPainter::setFilter(bool filter) {
  if (filter == filter_) return;
  filter_ = filter;
  if (!filter_) dropFilterCaches();
  settingsChanged.emitSignal();
}

void LabelPainter::setFilterInput(bool filterInput) {
  if (filterInput == filterInput_) return;
  filterInput_ = filterInput;
  if (filterInput_) {
    if (gl_) runGl([this] { createFilterInputProgram(); });
  } else {
    dropFilteredInput();
  }
  settingsChanged.emitSignal();
}

void LabelPainter::setFilterInputIterations(int iterations) {
  if (iterations == filterInputIterations_) return;
  if (iterations < 0 || iterations > GlAnisotropicDiffusionFilter::kMaxIterations) {
    LOG_WARN(kCategory, "Filter input iterations must be 0 to " << GlAnisotropicDiffusionFilter::kMaxIterations
                                                                << ", not " << iterations);
    return;
  }
  filterInputIterations_ = iterations;
  if (gl_) runGl([this] { createFilterInputProgram(); });
  dropFilteredInput();
  settingsChanged.emitSignal();
}

void LabelPainter::setFilterKernelSize(int size) {
  if (size == filterKernelSize_) return;
  filterKernelSize_ = size;
  if (gl_) runGl([this, size] { gl_->smoothing.setKernelSize(size, -1.0); });
  settingsChanged.emitSignal();
}

void LabelPainter::setUseWindowLevel(bool use) {
  useWindowLevel_ = use;
  settingsChanged.emitSignal();
}

void LabelPainter::setSampleOnPath(bool sample) {
  sampleOnPath_ = sample;
  settingsChanged.emitSignal();
}

void LabelPainter::setPreserveLabel(unsigned char label, bool preserve) {
  lock_.setLocked(label, preserve);
  settingsChanged.emitSignal();
}

void LabelPainter::setMask(const Mask* mask) {
  mask_ = mask;
  if (gl_)
    runGl([this] {
      gl_->maskTexture.reset();
      gl_->maskKey = nullptr;
    });
  settingsChanged.emitSignal();
}

}  // namespace Merivane::Seg
