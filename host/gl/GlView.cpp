#include "GlView.h"

#include <epoxy/gl.h>

#include <Eigen/Geometry>
#include <algorithm>
#include <cmath>
#include <cstring>

#include "GlContext.h"
#include "GlPrimitives.h"
#include "GlStateGuard.h"

namespace Merivane {

// The offscreen target of a view: a colour and a depth renderbuffer, remade when the size changes.
struct GlView::Target {
  GLuint fbo = 0, color = 0, depth = 0;
  int width = 0, height = 0;

  bool ensure(int w, int h) {
    if (fbo && w == width && h == height) return true;
    release();
    glCreateFramebuffers(1, &fbo);
    glCreateRenderbuffers(1, &color);
    glCreateRenderbuffers(1, &depth);
    glNamedRenderbufferStorage(color, GL_RGBA8, w, h);
    glNamedRenderbufferStorage(depth, GL_DEPTH_COMPONENT24, w, h);
    glNamedFramebufferRenderbuffer(fbo, GL_COLOR_ATTACHMENT0, GL_RENDERBUFFER, color);
    glNamedFramebufferRenderbuffer(fbo, GL_DEPTH_ATTACHMENT, GL_RENDERBUFFER, depth);
    width = w;
    height = h;
    return glCheckNamedFramebufferStatus(fbo, GL_FRAMEBUFFER) == GL_FRAMEBUFFER_COMPLETE;
  }
  void release() {
    if (fbo) glDeleteFramebuffers(1, &fbo);
    if (color) glDeleteRenderbuffers(1, &color);
    if (depth) glDeleteRenderbuffers(1, &depth);
    fbo = color = depth = 0;
  }
};

GlView::GlView() = default;

GlView::~GlView() {
  if (target_) {
    auto* t = target_.get();
    GL::runOnGlThread([t] { t->release(); });
  }
}

void GlView::resize(int width, int height) {
  state_.viewportWidth = std::max(1, width);
  state_.viewportHeight = std::max(1, height);
  updateViewState();
}

void GlView::addObject(GlObject* object) {
  if (object && !hasObject(object)) objects_.push_back(object);
}

void GlView::removeObject(const GlObject* object) {
  objects_.erase(std::remove(objects_.begin(), objects_.end(), object), objects_.end());
}

bool GlView::hasObject(const GlObject* object) const {
  return std::find(objects_.begin(), objects_.end(), object) != objects_.end();
}

std::vector<GlObject*> GlView::activeRenderers() const {
  std::vector<GlObject*> result;
  for (GlObject* o : objects_)
    if (o->visible()) result.push_back(o);
  return result;
}

bool GlView::render(std::vector<unsigned char>& rgba) { return draw(&rgba); }

bool GlView::renderOnly() { return draw(nullptr); }

bool GlView::draw(std::vector<unsigned char>* rgba) {
  if (!target_) target_ = std::make_unique<Target>();
  const int w = width(), h = height();
  bool ok = false;
  const bool ran = GL::runOnGlThread([&] {
    if (!target_->ensure(w, h)) return;
    GL::StateGuard guard;
    glBindFramebuffer(GL_FRAMEBUFFER, target_->fbo);
    glViewport(0, 0, w, h);
    glClearColor(background[0], background[1], background[2], background[3]);
    glClearDepth(1.0);
    glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
    for (GlObject* o : activeRenderers()) o->draw(*this);
    if (rgba) {
      rgba->resize(static_cast<size_t>(w) * static_cast<size_t>(h) * 4);
      glPixelStorei(GL_PACK_ALIGNMENT, 1);
      glReadPixels(0, 0, w, h, GL_RGBA, GL_UNSIGNED_BYTE, rgba->data());
      // GL's rows run bottom up; callers get them top down.
      const size_t row = static_cast<size_t>(w) * 4;
      std::vector<unsigned char> tmp(row);
      for (int y = 0; y < h / 2; ++y) {
        unsigned char* a = rgba->data() + static_cast<size_t>(y) * row;
        unsigned char* b = rgba->data() + static_cast<size_t>(h - 1 - y) * row;
        std::memcpy(tmp.data(), a, row);
        std::memcpy(a, b, row);
        std::memcpy(b, tmp.data(), row);
      }
    } else {
      glFinish();
    }
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    ok = true;
  });
  return ran && ok;
}

std::optional<Eigen::Vector3d> GlView::firstHitpointLocation(const Eigen::Vector2d& pixel, int radiusPx) const {
  if (!target_ || !target_->fbo || !pixel.allFinite()) return std::nullopt;
  const int w = target_->width, h = target_->height, r = std::clamp(radiusPx, 0, 256);
  const double fx = std::floor(pixel.x()), fy = std::floor(pixel.y());
  if (fx < -r || fy < -r || fx >= w + r || fy >= h + r) return std::nullopt;
  const int px = static_cast<int>(fx), py = static_cast<int>(fy);
  const int x0 = std::max(px - r, 0), x1 = std::min(px + r, w - 1);
  const int y0 = std::max(py - r, 0), y1 = std::min(py + r, h - 1);
  if (x0 > x1 || y0 > y1) return std::nullopt;
  const int bw = x1 - x0 + 1, bh = y1 - y0 + 1;
  std::vector<float> depth(static_cast<size_t>(bw) * static_cast<size_t>(bh), 1.0f);
  const GLuint fbo = target_->fbo;
  // Viewport rows count from the top, GL's from the bottom.
  const bool ran = GL::runOnGlThread([&] {
    GLint previous = 0;
    glGetIntegerv(GL_READ_FRAMEBUFFER_BINDING, &previous);
    glBindFramebuffer(GL_READ_FRAMEBUFFER, fbo);
    glPixelStorei(GL_PACK_ALIGNMENT, 1);
    glReadPixels(x0, h - 1 - y1, bw, bh, GL_DEPTH_COMPONENT, GL_FLOAT, depth.data());
    glBindFramebuffer(GL_READ_FRAMEBUFFER, static_cast<GLuint>(previous));
  });
  if (!ran) return std::nullopt;
  std::optional<Eigen::Vector2i> best;
  float bestDepth = 1.0f;
  long bestDist = 0;
  for (int y = y0; y <= y1; ++y)
    for (int x = x0; x <= x1; ++x) {
      const float d = depth[static_cast<size_t>(h - 1 - y - (h - 1 - y1)) * bw + (x - x0)];
      const long dist = static_cast<long>(x - px) * (x - px) + static_cast<long>(y - py) * (y - py);
      if (!(d < 1.0f) || dist > static_cast<long>(r) * r) continue;
      if (!best || dist < bestDist || (dist == bestDist && d < bestDepth)) {
        best = Eigen::Vector2i(x, y);
        bestDepth = d;
        bestDist = dist;
      }
    }
  if (!best) return std::nullopt;
  return state_.unproject(Eigen::Vector2d(best->x() + 0.5, best->y() + 0.5), bestDepth);
}

void GlSlice::draw(const GlView& view) {
  // A slice view shows its own plane edge-on: nothing to draw there.
  if (dynamic_cast<const GlSliceView*>(&view)) return;
  std::vector<Eigen::Vector3f> loop;
  for (int i = 0; i < 4; ++i) loop.push_back(slice_.corner(i).cast<float>());
  GL::drawLines(view, loop, color, true);
}

// ---------------------------------------------------------------------------------------------

GlSliceView::GlSliceView(Orientation orientation) : orientation_(orientation) {
  setOrientation(orientation);
}

void GlSliceView::setOrientation(Orientation orientation) {
  orientation_ = orientation;
  Slice& s = slice_.slice();
  // Screen right and screen down in world terms; the normal points away from the viewer.
  switch (orientation) {
    case Axial: s.setAxes(Eigen::Vector3d::UnitX(), Eigen::Vector3d::UnitY()); break;
    case Coronal: s.setAxes(Eigen::Vector3d::UnitX(), -Eigen::Vector3d::UnitZ()); break;
    case Sagittal: s.setAxes(Eigen::Vector3d::UnitY(), -Eigen::Vector3d::UnitZ()); break;
    case Oblique: break;
  }
  updateViewState();
}

void GlSliceView::setAxes(const Eigen::Vector3d& xAxis, const Eigen::Vector3d& yAxis) {
  slice_.slice().setAxes(xAxis, yAxis);
  orientation_ = Oblique;
  updateViewState();
}

void GlSliceView::centerAt(const Eigen::Vector3d& world) {
  if (!world.allFinite()) return;
  slice_.slice().setCenter(world);
  updateViewState();
}

void GlSliceView::moveTo(const Eigen::Vector3d& world) {
  if (!world.allFinite()) return;
  Slice& s = slice_.slice();
  s.setCenter(s.center() + s.distance(world) * s.normal());
  updateViewState();
}

void GlSliceView::scroll(double steps) {
  Slice& s = slice_.slice();
  s.setCenter(s.center() + steps * sliceStep_ * s.normal());
  updateViewState();
}

void GlSliceView::setSliceStep(double mm) {
  if (std::isfinite(mm) && mm > 0) sliceStep_ = mm;
}

void GlSliceView::pan(const Eigen::Vector2d& pixels) {
  Slice& s = slice_.slice();
  s.setCenter(s.center() - pixels.x() * pixelIncrementX() - pixels.y() * pixelIncrementY());
  updateViewState();
}

void GlSliceView::zoom(double factor, const Eigen::Vector2d& anchor) {
  if (!(factor > 0) || !std::isfinite(factor)) return;
  const Eigen::Vector3d before = state_.unproject(anchor);
  setMmPerPixel(mmPerPixel_ / factor);
  const Eigen::Vector3d after = state_.unproject(anchor);
  Slice& s = slice_.slice();
  s.setCenter(s.center() + (before - after));
  updateViewState();
}

void GlSliceView::setMmPerPixel(double mm) {
  if (!(mm > 1e-6) || !std::isfinite(mm)) return;
  mmPerPixel_ = std::min(mm, 1e4);
  updateViewState();
}

void GlSliceView::fit(const Geometry::AlignedBox& box) {
  const Eigen::Vector3d lo(box.min[0], box.min[1], box.min[2]), hi(box.max[0], box.max[1], box.max[2]);
  if (!lo.allFinite() || !hi.allFinite()) return;
  const Slice& s = slice_.slice();
  // Extent of the box along the screen axes.
  const Eigen::Vector3d e = hi - lo;
  const double ex = e.cwiseProduct(s.xAxis()).cwiseAbs().sum(), ey = e.cwiseProduct(s.yAxis()).cwiseAbs().sum();
  const double mm = std::max(ex / std::max(1, width()), ey / std::max(1, height())) * 1.05;
  if (mm > 0) mmPerPixel_ = mm;
  slice_.slice().setCenter(0.5 * (lo + hi));
  updateViewState();
}

void GlSliceView::updateViewState() {
  Slice& s = slice_.slice();
  s.setExtent(width() * mmPerPixel_, height() * mmPerPixel_);
  Eigen::Matrix3d R;
  R.row(0) = s.xAxis().transpose();
  R.row(1) = -s.yAxis().transpose();
  R.row(2) = -s.normal().transpose();
  state_.view.setIdentity();
  state_.view.topLeftCorner<3, 3>() = R;
  state_.view.topRightCorner<3, 1>() = -R * s.center();
  // Orthographic, with the plane half way in depth.
  const double depth = 1e4;
  state_.projection.setIdentity();
  state_.projection(0, 0) = 2.0 / (width() * mmPerPixel_);
  state_.projection(1, 1) = 2.0 / (height() * mmPerPixel_);
  state_.projection(2, 2) = -1.0 / depth;
}

// ---------------------------------------------------------------------------------------------

GlVolumeView::GlVolumeView() {
  // Looking from the front (world -y towards +y), head up (+z).
  rotation_.col(0) = Eigen::Vector3d::UnitX();
  rotation_.col(1) = Eigen::Vector3d::UnitZ();
  rotation_.col(2) = -Eigen::Vector3d::UnitY();
  // Turned a little to the side and from above, so that all three slice planes show.
  orbit(Eigen::Vector2d(-55, -35));
}

void GlVolumeView::setCenter(const Eigen::Vector3d& c) {
  if (!c.allFinite()) return;
  center_ = c;
  updateViewState();
}

void GlVolumeView::setRotation(const Eigen::Matrix3d& r) {
  Eigen::JacobiSVD<Eigen::Matrix3d> svd(r, Eigen::ComputeFullU | Eigen::ComputeFullV);
  Eigen::Matrix3d q = svd.matrixU() * svd.matrixV().transpose();
  if (!q.allFinite() || q.determinant() < 0) return;
  rotation_ = q;
  updateViewState();
}

void GlVolumeView::orbit(const Eigen::Vector2d& pixels) {
  const double scale = 0.01;  // radians per pixel
  const Eigen::Vector3d right = rotation_.col(0), up = rotation_.col(1);
  const Eigen::Matrix3d r = Eigen::AngleAxisd(-pixels.x() * scale, up).toRotationMatrix() *
                            Eigen::AngleAxisd(-pixels.y() * scale, right).toRotationMatrix();
  setRotation(r * rotation_);
}

void GlVolumeView::zoom(double factor) {
  if (!(factor > 0) || !std::isfinite(factor)) return;
  mmPerPixel_ = std::clamp(mmPerPixel_ / factor, 1e-6, 1e4);
  updateViewState();
}

void GlVolumeView::pan(const Eigen::Vector2d& pixels) {
  center_ -= (pixels.x() * rotation_.col(0) - pixels.y() * rotation_.col(1)) * mmPerPixel_;
  updateViewState();
}

void GlVolumeView::fit(const Geometry::AlignedBox& box) {
  const Eigen::Vector3d lo(box.min[0], box.min[1], box.min[2]), hi(box.max[0], box.max[1], box.max[2]);
  if (!lo.allFinite() || !hi.allFinite()) return;
  center_ = 0.5 * (lo + hi);
  const double diag = std::max((hi - lo).norm(), 1e-3);
  mmPerPixel_ = diag / std::max(1, std::min(width(), height())) * 1.05;
  depth_ = diag * 2;
  updateViewState();
}

void GlVolumeView::updateViewState() {
  const Eigen::Matrix3d R = rotation_.transpose();
  state_.view.setIdentity();
  state_.view.topLeftCorner<3, 3>() = R;
  state_.view.topRightCorner<3, 1>() = -R * center_;
  state_.projection.setIdentity();
  state_.projection(0, 0) = 2.0 / (width() * mmPerPixel_);
  state_.projection(1, 1) = 2.0 / (height() * mmPerPixel_);
  state_.projection(2, 2) = -1.0 / depth_;
}

}  // namespace Merivane
