#include "GlLabelRenderer.h"

#include <epoxy/gl.h>

#include <algorithm>

#include "GlContext.h"
#include "GlImage.h"
#include "GlPrimitives.h"
#include "GlProgram.h"
#include "GlStateGuard.h"
#include "GlView.h"
#include "LabelDataComponent.h"
#include "Log.h"
#include "Resource.h"
#include "SharedImage.h"

namespace Merivane {

namespace internal {

// Program, quad and colour texture of one renderer; made and freed on the GL thread.
struct LabelProgramState {
  std::unique_ptr<GL::Program> program;
  bool volume = false;
  GLuint vao = 0, vbo = 0;
  std::unique_ptr<GlImage> colors;
  ~LabelProgramState() {
    GL::runOnGlThread([this] {
      program.reset();
      colors.reset();
      if (vao) glDeleteVertexArrays(1, &vao);
      if (vbo) glDeleteBuffers(1, &vbo);
    });
  }
};

}  // namespace internal

namespace {

// The fragment program text with `defines` after its version line.
std::string programText(const char* path, const std::string& defines) {
  auto text = Resource::queryText(path);
  if (!text) return {};
  const size_t eol = text->find('\n');
  if (eol == std::string::npos) return *text + "\n" + defines;
  return text->substr(0, eol + 1) + defines + text->substr(eol + 1);
}

bool ensureProgram(internal::LabelProgramState& s, const char* fragmentPath, bool volume) {
  if (s.program && s.volume == volume) return s.program->valid();
  s.program = std::make_unique<GL::Program>();
  s.volume = volume;
  const auto vertex = Resource::queryText("MerivaneGL/FixedFunctionPipeline.vert");
  const std::string fragment = programText(fragmentPath, volume ? "#define SLICE3D\n" : "");
  if (!vertex || fragment.empty()) return false;
  return s.program->compile(*vertex, fragment);
}

// The view's slice as two triangles, blended over what is drawn (770, 771).
void drawSliceQuad(internal::LabelProgramState& s, const GlSliceView& view) {
  glEnable(GL_BLEND);
  glBlendFunc(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA);
  GL::drawSliceQuad(s.vao, s.vbo, view.slice().slice());
}

Geometry::AlignedBox boxOf(const SharedImage* image) { return image ? image->worldBounds() : Geometry::AlignedBox{}; }

// The component's 256 colours, as the renderer keeps them.
template <typename V>
std::vector<V> colorsFrom(const LabelDataComponent& ldc) {
  std::vector<V> out;
  auto map = ldc.colormap2d();
  if (!map) return out;
  const int n = map->width();
  for (int i = 0; i < n; ++i) {
    V c;
    for (int k = 0; k < static_cast<int>(c.size()); ++k) c[k] = map->value(i, 0, 0, k) / 255.0f;
    out.push_back(c);
  }
  return out;
}

}  // namespace

// ---------------------------------------------------------------------------------------------

GlLabelRenderer::GlLabelRenderer(const SharedImage* labelMap) { setLabelMap(labelMap); }

GlLabelRenderer::~GlLabelRenderer() = default;

void GlLabelRenderer::setLabelMap(const SharedImage* labelMap) {
  labelMap_ = labelMap;
  // A program for the other kind of texture is rebuilt at the next draw.
  if (gl_ && gl_->program && labelMap_ && gl_->volume != (labelMap_->descriptor().slices() > 1)) gl_->program.reset();
}

void GlLabelRenderer::setColors(const std::vector<Eigen::Vector3f>& colors) {
  if (colors.empty()) {
    LOG_ERROR("GlLabelRenderer", "Can not assign empty color map.");
    return;
  }
  colors_ = colors;
  colorsChanged_ = true;
}

void GlLabelRenderer::updateColorTexture() {
  if (!gl_) gl_ = std::make_unique<internal::LabelProgramState>();
  std::vector<float> rgb;
  for (const auto& c : colors_) rgb.insert(rgb.end(), {c[0], c[1], c[2]});
  if (rgb.empty()) rgb = {0, 0, 0};
  ImageDescriptor d(F32, Eigen::Vector3i(static_cast<int>(rgb.size() / 3), 1, 1), 3);
  gl_->colors = std::make_unique<GlImage>(d, GL_RGB32F, rgb.data());
  colorsChanged_ = false;
}

Geometry::AlignedBox GlLabelRenderer::bounds() const { return boxOf(labelMap_); }

void GlLabelRenderer::draw(const GlView& view) {
  if (!labelMap_) return;
  auto* sliceView = dynamic_cast<const GlSliceView*>(&view);
  if (!sliceView) return;
  if (labelMap_->descriptor().pixelType != U8) return;
  GL::StateGuard guard;
  if (!gl_) gl_ = std::make_unique<internal::LabelProgramState>();
  if (ldc_) {
    auto c = colorsFrom<Eigen::Vector4f>(*ldc_);
    std::vector<Eigen::Vector3f> rgb;
    for (const auto& v : c) rgb.push_back(v.head<3>());
    if (!rgb.empty() && rgb != colors_) {
      colors_ = rgb;
      colorsChanged_ = true;
    }
  }
  if (colors_.empty()) return;
  if (colorsChanged_ || !gl_->colors) updateColorTexture();
  const bool volume = labelMap_->descriptor().slices() > 1;
  if (!ensureProgram(*gl_, "MerivaneSeg/GlLabelRenderer.frag", volume)) return;
  const GlImage* labels = labelMap_->gl();
  if (!labels || !labels->valid() || !gl_->colors || !gl_->colors->valid()) return;
  GL::Program& p = *gl_->program;
  p.use();
  p.setArgument("u_worldToTexture", labelMap_->worldToTextureMatrix());
  p.setArgument("u_projectionMatrix", view.viewState().projection);
  p.setArgument("u_viewMatrix", view.viewState().view);
  p.setArgument("u_labels", *labels, 0);
  p.setArgument("u_colors", *gl_->colors, 1);
  p.setArgument("u_opacity", static_cast<float>(opacity_));
  drawSliceQuad(*gl_, *sliceView);
}

// ---------------------------------------------------------------------------------------------

GlIsolineRenderer::GlIsolineRenderer(const SharedImage* labelMap) { setLabelMap(labelMap); }

GlIsolineRenderer::~GlIsolineRenderer() = default;

void GlIsolineRenderer::setLabelMap(const SharedImage* labelMap) {
  if (labelMap && labelMap->descriptor().pixelType != U8) {
    LOG_ERROR("GlIsolineRenderer", "This class only supports label images of type unsigned byte.");
    return;
  }
  labelMap_ = labelMap;
  if (gl_ && gl_->program && labelMap_ && gl_->volume != (labelMap_->descriptor().slices() > 1)) gl_->program.reset();
}

void GlIsolineRenderer::setColors(const std::vector<Eigen::Vector4f>& colors) {
  if (colors.empty()) {
    LOG_ERROR("GlLabelRenderer", "Can not assign empty color map.");
    return;
  }
  colors_ = colors;
  colorsChanged_ = true;
}

void GlIsolineRenderer::updateColorTexture() {
  if (!gl_) gl_ = std::make_unique<internal::LabelProgramState>();
  std::vector<float> rgba;
  for (const auto& c : colors_) rgba.insert(rgba.end(), {c[0], c[1], c[2], c[3]});
  if (rgba.empty()) rgba = {0, 0, 0, 0};
  ImageDescriptor d(F32, Eigen::Vector3i(static_cast<int>(rgba.size() / 4), 1, 1), 4);
  gl_->colors = std::make_unique<GlImage>(d, GL_RGBA32F, rgba.data());
  colorsChanged_ = false;
}

Geometry::AlignedBox GlIsolineRenderer::bounds() const { return boxOf(labelMap_); }

void GlIsolineRenderer::draw(const GlView& view) {
  if (!labelMap_) return;
  auto* sliceView = dynamic_cast<const GlSliceView*>(&view);
  if (!sliceView) return;
  GL::StateGuard guard;
  if (!gl_) gl_ = std::make_unique<internal::LabelProgramState>();
  if (ldc_) {
    auto c = colorsFrom<Eigen::Vector4f>(*ldc_);
    if (!c.empty() && c != colors_) {
      colors_ = c;
      colorsChanged_ = true;
    }
  }
  if (colors_.empty()) return;
  if (colorsChanged_ || !gl_->colors) updateColorTexture();
  const bool volume = labelMap_->descriptor().slices() > 1;
  if (!ensureProgram(*gl_, "MerivaneSeg/GlIsolineRenderer.frag", volume)) return;
  const GlImage* labels = labelMap_->gl();
  if (!labels || !labels->valid() || !gl_->colors || !gl_->colors->valid()) return;
  const Eigen::Matrix4d worldToTexture =
      ignoreMatrix_ ? labelMap_->imageToTextureMatrix() : labelMap_->worldToTextureMatrix();
  // Texture coordinates covered by one screen pixel along the screen's axes.
  const Eigen::Matrix3d linear = worldToTexture.topLeftCorner<3, 3>();
  const Eigen::Vector3d perX = linear * sliceView->pixelIncrementX();
  const Eigen::Vector3d perY = linear * sliceView->pixelIncrementY();
  GL::Program& p = *gl_->program;
  p.use();
  p.setArgument("u_worldToTexture", worldToTexture);
  p.setArgument("u_projectionMatrix", view.viewState().projection);
  p.setArgument("u_viewMatrix", view.viewState().view);
  p.setArgument("u_labels", *labels, 0);
  p.setArgument("u_labelsNearest", *labels, 0);
  p.setArgument("u_labelsTexSize", Eigen::Vector3d(labelMap_->descriptor().dimensions.cast<double>()));
  p.setArgument("u_colormap", *gl_->colors, 1);
  p.setArgument("u_texCoordsPerFragmentX", perX);
  p.setArgument("u_texCoordsPerFragmentY", perY);
  p.setArgument("u_widthPx", static_cast<float>(thicknessPx_));
  if (!hasRegion_) {
    drawSliceQuad(*gl_, *sliceView);
    return;
  }
  // Only the part of the slice within the line width of the region can show an outline.
  const Slice& slice = sliceView->slice().slice();
  double lo[2] = {1e300, 1e300}, hi[2] = {-1e300, -1e300}, dmin = 1e300, dmax = -1e300;
  for (int c = 0; c < 8; ++c) {
    const Eigen::Vector3d corner(region_.min[0] + (c & 1 ? region_.max[0] - region_.min[0] : 0),
                                 region_.min[1] + (c & 2 ? region_.max[1] - region_.min[1] : 0),
                                 region_.min[2] + (c & 4 ? region_.max[2] - region_.min[2] : 0));
    const Eigen::Vector3d d = corner - slice.center();
    const double uv[2] = {d.dot(slice.xAxis()), d.dot(slice.yAxis())};
    for (int k = 0; k < 2; ++k) {
      lo[k] = std::min(lo[k], uv[k]);
      hi[k] = std::max(hi[k], uv[k]);
    }
    dmin = std::min(dmin, d.dot(slice.normal()));
    dmax = std::max(dmax, d.dot(slice.normal()));
  }
  if (dmin > 0 || dmax < 0) return;  // the plane misses the region: the slice holds only 0 there
  const double margin = (thicknessPx_ * 0.5 + 2.0) * sliceView->mmPerPixel();
  const double half[2] = {slice.width() / 2, slice.height() / 2};
  for (int k = 0; k < 2; ++k) {
    lo[k] = std::max(lo[k] - margin, -half[k]);
    hi[k] = std::min(hi[k] + margin, half[k]);
    if (lo[k] >= hi[k]) return;
  }
  const Slice part(slice.center() + 0.5 * (lo[0] + hi[0]) * slice.xAxis() + 0.5 * (lo[1] + hi[1]) * slice.yAxis(),
                   slice.xAxis(), slice.yAxis(), hi[0] - lo[0], hi[1] - lo[1]);
  glEnable(GL_BLEND);
  glBlendFunc(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA);
  GL::drawSliceQuad(gl_->vao, gl_->vbo, part);
}

}  // namespace Merivane
