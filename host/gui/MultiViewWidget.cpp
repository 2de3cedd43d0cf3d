#include "MultiViewWidget.h"

#include <QGridLayout>
#include <QPainter>
#include <cmath>
#include <limits>

#include "GlSliceRendererImage.h"
#include "Image.h"
#include "SharedImage.h"
#include "SharedImageSet.h"
#include "ViewWidget.h"

namespace Merivane::GUI {

namespace {
const char* kTitles[] = {"Axial", "Coronal", "Sagittal", "3D"};
}

MultiViewWidget::MultiViewWidget(QWidget* parent) : QWidget(parent) {
  auto* grid = new QGridLayout(this);
  grid->setContentsMargins(0, 0, 0, 0);
  grid->setSpacing(2);
  for (int i = 0; i < 4; ++i) {
    std::unique_ptr<GlView> glView;
    if (i < 3)
      glView = std::make_unique<GlSliceView>(static_cast<GlSliceView::Orientation>(i));
    else
      glView = std::make_unique<GlVolumeView>();
    views_.push_back(std::make_unique<View>(std::move(glView)));
    auto* w = new ViewWidget(views_.back().get(), this);
    w->setTitle(kTitles[i]);
    widgets_.push_back(w);
    grid->addWidget(w, i / 2, i % 2);
  }
  std::vector<View*> raw;
  for (auto& v : views_) raw.push_back(v.get());
  adapter_.setViews(raw);
  // Slice planes outlined in the 3D view; the crosshair in every slice view.
  for (int i = 0; i < 3; ++i) {
    views_[3]->view().addObject(&views_[static_cast<size_t>(i)]->sliceView()->slice());
    views_[static_cast<size_t>(i)]->sliceView()->slice().color =
        i == 0 ? Eigen::Vector4f(1, 0.3f, 0.3f, 1) : i == 1 ? Eigen::Vector4f(0.3f, 1, 0.3f, 1)
                                                             : Eigen::Vector4f(0.3f, 0.5f, 1, 1);
  }
  for (int i = 0; i < 4; ++i) {
    View& v = *views_[static_cast<size_t>(i)];
    v.onCrosshair = [this](const Eigen::Vector3d& p) { adapter_.centerSliceViewsAt(p, reference_); };
    v.onWindowLevel = [this](const Eigen::Vector2d& d) {
      if (imageRenderers_.empty()) return;
      GlSliceRendererImage& r = *imageRenderers_.front();
      // A drag across the view changes the window by its own size.
      const double f = r.window() / std::max(1, width() / 2);
      setWindowLevel(std::max(r.window() + d.x() * f, 1e-9), r.level() - d.y() * f);
    };
    v.onPointer = [this, i](const Eigen::Vector3d& p) { readout(i, p); };
  }
}

MultiViewWidget::~MultiViewWidget() {
  // Views hold pointers to the renderers: drop them first.
  for (auto& v : views_)
    for (auto& r : imageRenderers_) v->view().removeObject(r.get());
}

GlSliceRendererImage* MultiViewWidget::imageRenderer(int view) const {
  return view >= 0 && view < static_cast<int>(imageRenderers_.size()) ? imageRenderers_[static_cast<size_t>(view)].get()
                                                                        : nullptr;
}

void MultiViewWidget::setReferenceImage(SharedImageSet* image) {
  for (auto& v : views_)
    for (auto& r : imageRenderers_) v->view().removeObject(r.get());
  imageRenderers_.clear();
  reference_ = image;
  SharedImage* frame = image ? image->get() : nullptr;
  if (!frame) {
    updateViews();
    return;
  }
  // One renderer per view: the 3D view gets the three planes, drawn first so overlays stay on top.
  for (int i = 0; i < 3; ++i) {
    imageRenderers_.push_back(std::make_unique<GlSliceRendererImage>(frame));
    auto& objects = views_[static_cast<size_t>(i)]->view();
    std::vector<GlObject*> rest = objects.objects();
    for (GlObject* o : rest) objects.removeObject(o);
    objects.addObject(imageRenderers_.back().get());
    for (GlObject* o : rest) objects.addObject(o);
  }
  for (int i = 0; i < 3; ++i) {
    imageRenderers_.push_back(std::make_unique<GlSliceRendererImage>(frame));
    imageRenderers_.back()->setPlane(&views_[static_cast<size_t>(i)]->sliceView()->slice());
    views_[3]->view().addObject(imageRenderers_.back().get());
  }
  const Geometry::AlignedBox box = imageRenderers_.front()->bounds();
  const Eigen::Vector3d spacing = frame->descriptor().spacing;
  for (GlSliceView* s : adapter_.sliceViews()) {
    s->fit(box);
    // A slice step of one voxel along the plane's normal.
    const Eigen::Vector3d n = s->slice().slice().normal().cwiseAbs();
    const Eigen::Matrix3d R = frame->matrix().topLeftCorner<3, 3>();
    const Eigen::Vector3d nImage = (R.transpose() * n).cwiseAbs();
    s->setSliceStep(nImage.dot(spacing) / std::max(1e-12, nImage.sum()));
  }
  views_[3]->volumeView()->fit(box);
  const Eigen::Vector3d center(0.5 * (box.min[0] + box.max[0]), 0.5 * (box.min[1] + box.max[1]),
                               0.5 * (box.min[2] + box.max[2]));
  adapter_.crosshair().position = center;
  for (GlSliceView* s : adapter_.sliceViews()) s->addObject(&adapter_.crosshair());
  adapter_.centerSliceViewsAt(center, reference_);
  updateViews();
}

void MultiViewWidget::setWindowLevel(double window, double level) {
  for (auto& r : imageRenderers_) r->setWindowLevel(window, level);
  updateViews();
}

void MultiViewWidget::addSliceObject(GlObject* object) {
  for (int i = 0; i < 3; ++i) views_[static_cast<size_t>(i)]->view().addObject(object);
  updateViews();
}

void MultiViewWidget::add3DObject(GlObject* object) {
  views_[3]->view().addObject(object);
  updateViews();
}

void MultiViewWidget::removeObject(GlObject* object) {
  for (auto& v : views_) v->view().removeObject(object);
  updateViews();
}

void MultiViewWidget::setFrozen(bool frozen) {
  for (ViewWidget* w : widgets_) w->setFrozen(frozen);
}

void MultiViewWidget::updateViews() {
  for (ViewWidget* w : widgets_) w->update();
}

QImage MultiViewWidget::grabViews() {
  QImage out(size(), QImage::Format_RGB32);
  out.fill(QColor(40, 40, 40));
  QPainter p(&out);
  for (ViewWidget* w : widgets_) {
    w->renderNow();
    p.drawImage(w->geometry().topLeft(), w->grab().toImage());
  }
  return out;
}

void MultiViewWidget::readout(int view, const Eigen::Vector3d& world) {
  double value = std::numeric_limits<double>::quiet_NaN();
  QString text = QString("%1, %2, %3 mm").arg(world.x(), 0, 'f', 1).arg(world.y(), 0, 'f', 1).arg(world.z(), 0, 'f', 1);
  if (view == 3) text.clear();  // a point in the 3D view has no depth
  SharedImage* frame = reference_ ? reference_->get() : nullptr;
  if (frame && frame->mem() && view < 3) {
    const Eigen::Vector3d v = frame->worldToPixel(world);
    const Eigen::Vector3i p = v.array().round().cast<int>();
    const Eigen::Vector3i& dim = frame->descriptor().dimensions;
    if ((p.array() >= 0).all() && (p.array() < dim.array()).all()) {
      const MemImage& m = *frame->mem();
      const size_t idx = (static_cast<size_t>(p.z()) * dim.y() + p.y()) * dim.x() + p.x();
      dispatchPixelType(m.type(), [&](auto tag) {
        using T = decltype(tag);
        value = m.descriptor().toPhysical(static_cast<double>(static_cast<const T*>(m.data())[idx * m.channels()]));
      });
      text += QString("   [%1 %2 %3] = %4").arg(p.x()).arg(p.y()).arg(p.z()).arg(value, 0, 'g', 6);
    }
  }
  for (int i = 0; i < 4; ++i) widgets_[static_cast<size_t>(i)]->setReadout(i == view ? text : QString());
  emit pointerMoved(world.x(), world.y(), world.z(), value);
}

}  // namespace Merivane::GUI
