#include "ThresholdTool.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "GlContext.h"
#include "GlImage.h"
#include "GlImageProgram.h"
#include "GlMask.h"
#include "GlUtils.h"
#include "GuiView.h"
#include "Log.h"
#include "Resource.h"
#include "SharedImageSet.h"
#include "ThresholdOverlay.h"

namespace Merivane::Seg {

namespace {

constexpr const char* kCategory = "ThresholdTool";
constexpr const char* kApplyProgram = "MerivaneSeg/ThresholdToolApply.frag";

// Slack for stored ends that should be whole but come out of shift and scale a little off.
constexpr double kWholeTolerance = 1e-6;

float toUniform(double v) {
  // Infinite ends stay infinite; finite ones beyond float's range saturate.
  constexpr double big = std::numeric_limits<float>::max();
  if (std::isinf(v)) return static_cast<float>(v);
  return static_cast<float>(std::clamp(v, -big, big));
}

}  // namespace

// The apply program per form of image (sampler and mask), and the scratch target.
struct ThresholdTool::Gl {
  struct Entry {
    std::string defines;
    std::unique_ptr<GL::ImageProgram> program;
  };
  std::vector<Entry> programs;
  std::unique_ptr<GlImage> scratch;

  GL::ImageProgram* program(const std::string& defines) {
    for (Entry& e : programs)
      if (e.defines == defines) return e.program->valid() ? e.program.get() : nullptr;
    Entry e{defines, std::make_unique<GL::ImageProgram>()};
    auto text = Resource::queryText(kApplyProgram);
    if (!text) {
      LOG_ERROR(kCategory, "Fragment program " << kApplyProgram << " is not available");
    } else {
      const size_t eol = text->find('\n');
      text->insert(eol == std::string::npos ? text->size() : eol + 1, defines);
      if (!e.program->compile(*text))
        LOG_ERROR(kCategory, "Fragment program " << kApplyProgram << " does not compile: " << e.program->log());
    }
    programs.push_back(std::move(e));
    return programs.back().program->valid() ? programs.back().program.get() : nullptr;
  }
};

ThresholdTool::ThresholdTool(DisplayWidgetMultiAdapter& views) : adapter_(&views) {
  if (!adapter_->views().empty()) overlay_ = std::make_unique<ThresholdOverlay>(*this);
}

ThresholdTool::ThresholdTool()
    : ownAdapter_(std::make_unique<DisplayWidgetMultiAdapter>()), adapter_(ownAdapter_.get()) {}

ThresholdTool::~ThresholdTool() {
  // The views must never keep a pointer to the overlay, whatever disable() would skip.
  if (overlay_)
    for (GUI::View* v : adapter_->views())
      if (v) v->view().removeObject(overlay_.get());
  if (gl_) {
    auto gl = std::move(gl_);
    GL::runOnGlThread([&] { gl.reset(); });
  }
  if (overlay_) overlay_->releaseGl();
}

void ThresholdTool::setTargetLabelMap(const SharedImageSet* image, SharedImageSet* labelMap) {
  if ((image == nullptr) != (labelMap == nullptr)) {
    LOG_ERROR(kCategory, "Both or none of 'image' and 'labelMap' must be set");
    return;
  }
  if (image) {
    const SharedImage* in = image->get(-1);
    const SharedImage* lab = labelMap->get(image->resolve(-1));
    if (!in || !lab) {
      LOG_ERROR(kCategory, "Image and label map must have a frame in focus");
      return;
    }
    const ImageDescriptor& ld = lab->descriptor();
    if (ld.pixelType != U8 || ld.channels != 1) {
      LOG_ERROR(kCategory, "Label map must be of format U8 with one channel");
      return;
    }
    if (ld.dimensions != in->descriptor().dimensions) {
      LOG_ERROR(kCategory, "Label map and image do not have the same dimensions");
      return;
    }
  }
  image_ = image;
  labelMap_ = labelMap;
  updatePreview();
}

void ThresholdTool::setRange(double low, double high, bool original) {
  if (std::isnan(low) || std::isnan(high)) {
    LOG_WARN(kCategory, "Threshold range " << low << " to " << high << " is not a range; the old one stays");
    return;
  }
  low_ = low;
  high_ = high;
  rangeIsOriginal_ = original;
  updatePreview();
}

void ThresholdTool::setRangeStorage(double low, double high) { setRange(low, high, false); }
void ThresholdTool::setRangeOriginal(double low, double high) { setRange(low, high, true); }

void ThresholdTool::setActiveLabel(unsigned char label) {
  activeLabel_ = label;
  updatePreview();
}

void ThresholdTool::setPreserveLabel(unsigned char label, bool preserve) {
  lock_.setLocked(label, preserve);
  updatePreview();
}

void ThresholdTool::setMask(GlMask* mask) {
  mask_ = mask;
  updatePreview();
}

void ThresholdTool::enable() {
  if (overlay_)
    for (GUI::View* v : adapter_->views())
      if (v && v->sliceView()) v->view().addObject(overlay_.get());
  enabled_ = true;
  updatePreview();
}

void ThresholdTool::disable() {
  if (!image_ || !labelMap_) return;
  if (overlay_) {
    for (GUI::View* v : adapter_->views())
      if (v) v->view().removeObject(overlay_.get());
    overlay_->releaseGl();
  }
  enabled_ = false;
  adapter_->update();
}

void ThresholdTool::updatePreview() {
  if (enabled_ && overlay_) adapter_->update();
}

std::pair<float, float> ThresholdTool::normalizedRange(const ImageDescriptor& d) const {
  double lo = low_, hi = high_;
  if (rangeIsOriginal_) {
    lo = d.toStored(lo);
    hi = d.toStored(hi);
    // A negative scale turns the order round; an empty range stays empty.
    if (d.scale < 0) std::swap(lo, hi);
  }
  if (GlUtils::normalization(d).integer) {
    // Whole stored values only: the ends move inwards to the nearest whole values and then out
    // by half a step, which no single-precision rounding of a whole value can cross.
    if (std::isfinite(lo)) lo = std::ceil(lo - kWholeTolerance) - 0.5;
    if (std::isfinite(hi)) hi = std::floor(hi + kWholeTolerance) + 0.5;
  }
  return {toUniform(GlUtils::storageToNormalized(lo, d)), toUniform(GlUtils::storageToNormalized(hi, d))};
}

int ThresholdTool::apply(int frame) {
  if (!image_ || !labelMap_) return 0;
  std::vector<int> frames;
  if (frame < 0)
    for (int i = 0; i < image_->size(); ++i) frames.push_back(i);
  else
    frames.push_back(frame);

  int written = 0;
  std::vector<int> writtenFrames;
  GL::runOnGlThread([&] {
    if (!gl_) gl_ = std::make_unique<Gl>();
    std::unique_ptr<GL::MultiAbstractInclude> include;
    if (mask_) include = mask_->createMultiInclude("mask");
    bool includeArgumentsTried = false;
    for (int f : frames) {
      SharedImage* in = image_->get(f);
      SharedImage* lab = labelMap_->get(f);
      if (!in || !lab) continue;
      const ImageDescriptor& id = in->descriptor();
      const ImageDescriptor& ld = lab->descriptor();
      if (ld.pixelType != U8 || ld.channels != 1 || ld.dimensions != id.dimensions) {
        LOG_DEBUG(kCategory, "Frame " << f << ": the label map does not fit the image; skipped");
        continue;
      }
      const std::string sampler = GL::ImageProgram::genericSamplerDefine(id);
      GlImage* imageTexture = sampler.empty() ? nullptr : in->gl();
      GlImage* labelTexture = lab->gl();
      if (!imageTexture || !labelTexture) {
        LOG_DEBUG(kCategory, "Frame " << f << ": no texture form; skipped");
        continue;
      }
      GL::ImageProgram* p = gl_->program(sampler + (include ? include->definition() : ""));
      if (!p) return;  // logged once per form
      if (!gl_->scratch || !gl_->scratch->valid() || gl_->scratch->dimensions() != ld.dimensions ||
          gl_->scratch->internalFormat() != labelTexture->internalFormat())
        gl_->scratch = std::make_unique<GlImage>(ld, labelTexture->internalFormat());
      if (!gl_->scratch->valid()) {
        LOG_ERROR(kCategory, "Could not create a texture of " << ld.width() << " x " << ld.height() << " x "
                                                              << ld.slices() << " voxels");
        return;
      }
      const auto [lo, hi] = normalizedRange(id);
      p->setArgument("u_low", lo);
      p->setArgument("u_high", hi);
      p->setArgument("u_label", static_cast<float>(activeLabel_ / 255.0));
      p->setArgument("u_preserveLabels", lock_.flags().data(), 8);
      p->setArgument("u_image", *imageTexture, 0);
      p->setArgument("u_labelMap", *labelTexture, 1);
      // One report per apply for a mask that cannot be read; the pass still runs (and writes
      // nothing, as the include then admits no voxel).
      if (include && (include->valid() || !includeArgumentsTried)) include->setIncludeArguments(*p, 2);
      includeArgumentsTried = true;
      if (!p->compute(*gl_->scratch)) {
        LOG_ERROR(kCategory, "Frame " << f << ": the threshold pass failed; the label map is unchanged");
        continue;
      }
      labelTexture->swapTexID(*gl_->scratch);
      lab->setDirtyGl();
      writtenFrames.push_back(f);
      ++written;
    }
  });
  for (int f : writtenFrames) labelMap_->contentChanged.emitSignal(f);
  if (written > 0) adapter_->update();
  return written;
}

}  // namespace Merivane::Seg
