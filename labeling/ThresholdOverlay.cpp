#include "ThresholdOverlay.h"

#include <epoxy/gl.h>

#include <vector>

#include "GlContext.h"
#include "GlImage.h"
#include "GlImageProgram.h"
#include "GlMask.h"
#include "GlProgram.h"
#include "GlStateGuard.h"
#include "GlView.h"
#include "Log.h"
#include "Properties.h"
#include "Resource.h"
#include "SharedImageSet.h"
#include "ThresholdTool.h"

namespace Merivane::Seg {

namespace {
constexpr const char* kPreviewProgram = "MerivaneSeg/ThresholdToolPreview.frag";
}

// Programs keyed by view type and defines (image form, slice kind, mask), and the slice quad.
struct ThresholdOverlay::Gl {
  struct Entry {
    std::string key;
    std::unique_ptr<GL::Program> program;
  };
  std::vector<Entry> programs;
  GLuint vao = 0, vbo = 0;

  GL::Program* program(const std::string& viewType, const std::string& defines) {
    const std::string key = viewType + "\n" + defines;
    for (Entry& e : programs)
      if (e.key == key) return e.program->valid() ? e.program.get() : nullptr;
    Entry e{key, std::make_unique<GL::Program>()};
    const auto vertex = Resource::queryText("MerivaneGL/FixedFunctionPipeline.vert");
    auto fragment = Resource::queryText(kPreviewProgram);
    if (vertex && fragment) {
      const size_t eol = fragment->find('\n');
      fragment->insert(eol == std::string::npos ? fragment->size() : eol + 1, defines);
      if (!e.program->compile(*vertex, *fragment))
        LOG_ERROR("ThresholdOverlay", "Fragment program " << kPreviewProgram << " does not compile: " << e.program->log());
    } else {
      LOG_ERROR("ThresholdOverlay", "Fragment program " << kPreviewProgram << " is not available");
    }
    programs.push_back(std::move(e));
    return programs.back().program->valid() ? programs.back().program.get() : nullptr;
  }

  void free() {
    programs.clear();
    if (vao) glDeleteVertexArrays(1, &vao);
    if (vbo) glDeleteBuffers(1, &vbo);
    vao = vbo = 0;
  }
};

ThresholdOverlay::ThresholdOverlay(const ThresholdTool& tool) : tool_(tool) {}

ThresholdOverlay::~ThresholdOverlay() { releaseGl(); }

void ThresholdOverlay::configure(const Properties* p) {
  if (!p) return;
  Eigen::Vector4d rgba = Eigen::Vector4d::Zero();
  Eigen::Vector3d rgb = Eigen::Vector3d::Zero();
  if (p->param("thresholdingColorOverlay", rgba))
    color_ = rgba.cast<float>().cwiseMax(0.0f).cwiseMin(1.0f);
  else if (p->param("thresholdingColorOverlay", rgb))
    color_.head<3>() = rgb.cast<float>().cwiseMax(0.0f).cwiseMin(1.0f);
}

void ThresholdOverlay::releaseGl() {
  if (!gl_) return;
  auto gl = std::move(gl_);
  GL::runOnGlThread([&] { gl->free(); });
}

void ThresholdOverlay::draw(const GlView& view) {
  const SharedImageSet* image = tool_.image();
  SharedImageSet* labelMap = tool_.labelMap();
  auto* sliceView = dynamic_cast<const GlSliceView*>(&view);
  if (!image || !labelMap || !sliceView) return;
  const int focus = image->resolve(-1);
  const SharedImage* frame = image->get(focus);
  const SharedImage* labels = labelMap->get(focus);
  if (!frame || !labels) return;
  const ImageDescriptor& id = frame->descriptor();
  if (labels->descriptor().dimensions != id.dimensions || labels->descriptor().pixelType != U8) return;
  const std::string sampler = GL::ImageProgram::genericSamplerDefine(id);
  if (sampler.empty()) return;
  const GlImage* imageTexture = frame->gl();
  const GlImage* labelTexture = labels->gl();
  if (!imageTexture || !labelTexture) return;

  std::unique_ptr<GL::MultiAbstractInclude> include;
  if (tool_.mask()) include = tool_.mask()->createMultiInclude("mask");
  std::string defines = id.slices() > 1 ? "#define SLICE3D\n" : "";
  defines += sampler;
  if (include) defines += include->definition();

  GL::StateGuard guard;
  if (!gl_) gl_ = std::make_unique<Gl>();
  GL::Program* p = gl_->program(view.typeName(), defines);
  if (!p) return;
  const auto [lo, hi] = tool_.normalizedRange(id);
  p->use();
  p->setArgument("u_projectionMatrix", view.viewState().projection);
  p->setArgument("u_viewMatrix", view.viewState().view);
  p->setArgument("u_worldToTexture", frame->worldToTextureMatrix());
  p->setArgument("u_tex", *imageTexture, 0);
  p->setArgument("u_labelMap", *labelTexture, 1);
  p->setArgument("u_low", lo);
  p->setArgument("u_high", hi);
  p->setArgument("u_color", Eigen::Vector4d(color_.cast<double>()));
  p->setArgument("u_preserveLabels", tool_.labelLock().flags().data(), 8);
  // An unreadable mask is reported by apply; here it simply shows nothing.
  if (include && include->valid()) include->setIncludeArguments(*p, 2);

  // The four corners of the slice shown, as two triangles.
  if (!gl_->vao) {
    glCreateVertexArrays(1, &gl_->vao);
    glCreateBuffers(1, &gl_->vbo);
  }
  const Slice& slice = sliceView->slice().slice();
  float quad[18];
  const int order[6] = {0, 1, 2, 0, 2, 3};
  for (int i = 0; i < 6; ++i) {
    const Eigen::Vector3d c = slice.corner(order[i]);
    for (int k = 0; k < 3; ++k) quad[i * 3 + k] = static_cast<float>(c[k]);
  }
  glNamedBufferData(gl_->vbo, sizeof(quad), quad, GL_STREAM_DRAW);
  glVertexArrayVertexBuffer(gl_->vao, 0, gl_->vbo, 0, 3 * sizeof(float));
  glVertexArrayAttribFormat(gl_->vao, 0, 3, GL_FLOAT, GL_FALSE, 0);
  glVertexArrayAttribBinding(gl_->vao, 0, 0);
  glEnableVertexArrayAttrib(gl_->vao, 0);
  glBindVertexArray(gl_->vao);
  glEnable(GL_BLEND);
  glBlendFunc(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA);
  glDrawArrays(GL_TRIANGLES, 0, 6);
}

}  // namespace Merivane::Seg
