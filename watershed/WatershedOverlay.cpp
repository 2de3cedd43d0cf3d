#include "WatershedOverlay.h"

#include <epoxy/gl.h>

#include "GlContext.h"
#include "GlImage.h"
#include "GlPrimitives.h"
#include "GlProgram.h"
#include "GlStateGuard.h"
#include "GlView.h"
#include "Log.h"
#include "Resource.h"
#include "SharedImageSet.h"
#include "WatershedTool.h"

namespace Merivane::Seg {

namespace {
constexpr const char* kProgram = "MerivaneSeg/WatershedToolPreview.frag";
}

struct WatershedOverlay::Gl {
  std::unique_ptr<GL::Program> programs[2];  // image, volume
  bool tried[2] = {false, false};
  std::unique_ptr<GlImage> colors;
  unsigned int vao = 0, vbo = 0;

  GL::Program* program(bool volume) {
    const int k = volume ? 1 : 0;
    if (!tried[k]) {
      tried[k] = true;
      programs[k] = std::make_unique<GL::Program>();
      const auto vertex = Resource::queryText("MerivaneGL/FixedFunctionPipeline.vert");
      auto fragment = Resource::queryText(kProgram);
      if (vertex && fragment) {
        const size_t eol = fragment->find('\n');
        fragment->insert(eol == std::string::npos ? fragment->size() : eol + 1, volume ? "#define SLICE3D\n" : "");
        if (!programs[k]->compile(*vertex, *fragment))
          LOG_ERROR("WatershedOverlay", "Fragment program " << kProgram << " does not compile: " << programs[k]->log());
      } else {
        LOG_ERROR("WatershedOverlay", "Fragment program " << kProgram << " is not available");
      }
    }
    return programs[k] && programs[k]->valid() ? programs[k].get() : nullptr;
  }

  void free() {
    programs[0].reset();
    programs[1].reset();
    colors.reset();
    if (vao) glDeleteVertexArrays(1, &vao);
    if (vbo) glDeleteBuffers(1, &vbo);
    vao = vbo = 0;
  }
};

WatershedOverlay::WatershedOverlay(const WatershedTool& tool) : tool_(tool) {}

WatershedOverlay::~WatershedOverlay() { releaseGl(); }

void WatershedOverlay::setColors(const std::vector<Eigen::Vector3f>& colors) {
  colors_ = colors;
  colors_.resize(256, Eigen::Vector3f::Zero());
  colorsChanged_ = true;
}

void WatershedOverlay::releaseGl() {
  if (!gl_) return;
  auto gl = std::move(gl_);
  GL::runOnGlThread([&] { gl->free(); });
}

void WatershedOverlay::draw(const GlView& view) {
  auto* sliceView = dynamic_cast<const GlSliceView*>(&view);
  const SharedImageSet* result = tool_.resultImage();
  const SharedImage* seeds = tool_.seeds().get(-1);
  if (!sliceView || !result || !seeds || colors_.empty()) return;
  const SharedImage* preview = result->get(0);
  if (!preview || preview->descriptor().pixelType != U8 || seeds->descriptor().pixelType != U8) return;
  const bool volume = seeds->descriptor().slices() > 1;
  GL::StateGuard guard;
  if (!gl_) gl_ = std::make_unique<Gl>();
  GL::Program* p = gl_->program(volume);
  if (!p) return;
  if (colorsChanged_ || !gl_->colors) {
    std::vector<float> rgb;
    for (const auto& c : colors_) rgb.insert(rgb.end(), {c[0], c[1], c[2]});
    ImageDescriptor d(F32, Eigen::Vector3i(static_cast<int>(colors_.size()), 1, 1), 3);
    gl_->colors = std::make_unique<GlImage>(d, GL_RGB32F, rgb.data());
    colorsChanged_ = false;
  }
  const GlImage* labelTexture = seeds->gl();
  const GlImage* previewTexture = preview->gl();
  if (!labelTexture || !previewTexture || !gl_->colors->valid()) return;
  p->use();
  p->setArgument("u_projectionMatrix", view.viewState().projection);
  p->setArgument("u_viewMatrix", view.viewState().view);
  p->setArgument("u_worldToTexture", seeds->worldToTextureMatrix());
  p->setArgument("u_previewWorldToTexture", preview->worldToTextureMatrix());
  p->setArgument("u_labels", *labelTexture, 0);
  p->setArgument("u_preview", *previewTexture, 1);
  p->setArgument("u_colors", *gl_->colors, 2);
  p->setArgument("u_opacity", tool_.previewOpacity());
  glEnable(GL_BLEND);
  glBlendFunc(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA);
  GL::drawSliceQuad(gl_->vao, gl_->vbo, sliceView->slice().slice());
}

}  // namespace Merivane::Seg
