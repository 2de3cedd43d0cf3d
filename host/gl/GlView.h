#pragma once
// Views render their objects with our GL layer into an offscreen framebuffer of the view's
// size and hand back the pixels, so that the same code serves widgets, tests and screenshots.
// GlSliceView shows a plane through the data (three orientations or oblique); GlVolumeView is
// the 3D view round a centre point.
#include <Eigen/Core>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "GlObject.h"
#include "Slice.h"
#include "ViewState.h"

namespace Merivane {

class GlView {
 public:
  GlView();
  virtual ~GlView();
  GlView(const GlView&) = delete;
  GlView& operator=(const GlView&) = delete;

  virtual std::string typeName() const = 0;
  const ViewState& viewState() const { return state_; }
  int width() const { return state_.viewportWidth; }
  int height() const { return state_.viewportHeight; }
  void resize(int width, int height);

  // Objects are drawn in the order they were added; adding one twice does nothing.
  void addObject(GlObject* object);
  void removeObject(const GlObject* object);
  bool hasObject(const GlObject* object) const;
  const std::vector<GlObject*>& objects() const { return objects_; }
  // The visible objects, in drawing order.
  std::vector<GlObject*> activeRenderers() const;

  // Draws every visible object on the GL thread and copies the result into `rgba`, top row
  // first, 4 bytes per pixel. False when there is no GL context.
  bool render(std::vector<unsigned char>& rgba);
  // The same without the copy back (for timings of the drawing alone).
  bool renderOnly();
  // The world position of the nearest surface drawn by the last render within `radiusPx`
  // viewport pixels of `pixel` (the hit closest to `pixel`, the front one on a tie), read from
  // the depth buffer. Empty when nothing was drawn there or the view was never rendered.
  std::optional<Eigen::Vector3d> firstHitpointLocation(const Eigen::Vector2d& pixel, int radiusPx) const;

  Eigen::Vector4f background = Eigen::Vector4f(0, 0, 0, 1);

 protected:
  virtual void updateViewState() = 0;
  ViewState state_;

 private:
  bool draw(std::vector<unsigned char>* rgba);
  struct Target;
  std::vector<GlObject*> objects_;
  std::unique_ptr<Target> target_;
};

// The plane a slice view shows, as an object: a slice view keeps one; a 3D view draws the
// planes of other views as outlines.
class GlSlice : public GlObject {
 public:
  const Slice& slice() const { return slice_; }
  Slice& slice() { return slice_; }
  void setSlice(const Slice& slice) { slice_ = slice; }
  Eigen::Vector4f color = Eigen::Vector4f(1, 1, 0, 1);
  void draw(const GlView& view) override;
  std::string typeName() const override { return "GlSlice"; }

 private:
  Slice slice_;
};

class GlSliceView : public GlView {
 public:
  enum Orientation { Axial = 0, Coronal = 1, Sagittal = 2, Oblique = 3 };
  explicit GlSliceView(Orientation orientation = Axial);
  std::string typeName() const override { return "GlSliceView"; }

  GlSlice& slice() { return slice_; }
  const GlSlice& slice() const { return slice_; }
  Orientation orientation() const { return orientation_; }
  // Axial, coronal and sagittal reset the axes to the world's; oblique keeps the current ones.
  void setOrientation(Orientation orientation);
  // Turns the plane to the given screen axes (an oblique slice).
  void setAxes(const Eigen::Vector3d& xAxis, const Eigen::Vector3d& yAxis);

  // Moves the plane so that it holds `world`, and shows that point in the middle.
  void centerAt(const Eigen::Vector3d& world);
  // Moves the plane so that it holds `world`, keeping the part of the plane shown.
  void moveTo(const Eigen::Vector3d& world);
  // Moves the plane along its normal by `steps` slice steps.
  void scroll(double steps);
  double sliceStep() const { return sliceStep_; }
  void setSliceStep(double mm);
  // Shifts the shown part of the plane by whole viewport pixels.
  void pan(const Eigen::Vector2d& pixels);
  // Zooms by `factor` (> 1 enlarges) keeping the world point under `anchor` in place.
  void zoom(double factor, const Eigen::Vector2d& anchor);
  double mmPerPixel() const { return mmPerPixel_; }
  void setMmPerPixel(double mm);
  // Shows the whole box, centred, with a small margin.
  void fit(const Geometry::AlignedBox& box);
  // World step along the screen's x and y for one viewport pixel.
  Eigen::Vector3d pixelIncrementX() const { return slice_.slice().xAxis() * mmPerPixel_; }
  Eigen::Vector3d pixelIncrementY() const { return slice_.slice().yAxis() * mmPerPixel_; }

 protected:
  void updateViewState() override;

 private:
  GlSlice slice_;
  Orientation orientation_;
  double mmPerPixel_ = 1.0;
  double sliceStep_ = 1.0;
};

// The 3D view: an orbit camera round `center`, orthographic, looking along -viewDirection.
class GlVolumeView : public GlView {
 public:
  GlVolumeView();
  std::string typeName() const override { return "GlVolumeView"; }
  void setCenter(const Eigen::Vector3d& c);
  const Eigen::Vector3d& center() const { return center_; }
  // Rotates by pixels dragged (a trackball without roll).
  void orbit(const Eigen::Vector2d& pixels);
  void zoom(double factor);
  void pan(const Eigen::Vector2d& pixels);
  void fit(const Geometry::AlignedBox& box);
  // Camera axes in world: right, up, and from the scene towards the viewer.
  const Eigen::Matrix3d& rotation() const { return rotation_; }
  void setRotation(const Eigen::Matrix3d& r);

 protected:
  void updateViewState() override;

 private:
  Eigen::Vector3d center_ = Eigen::Vector3d::Zero();
  Eigen::Matrix3d rotation_;
  double mmPerPixel_ = 1.0;
  double depth_ = 1000.0;
};

}  // namespace Merivane
