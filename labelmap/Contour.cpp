#include "Contour.h"

#include <algorithm>
#include <cmath>

#include "Log.h"
#include "SharedImageSet.h"
#include "Spline.h"

namespace Merivane::Seg {

namespace {

constexpr const char* kCategory = "Seg.Contour";

const char* const kTypeNames[] = {"Closed PolyLine", "Closed Spline", "Closed Loop",
                                  "Smart Spline",    "Open Spline",   "Open Polyline"};

// The curve in pixel coordinates of `frame`, sampled densely enough for filling. Points are
// in centred image coordinates: pixel = p / spacing + (size / 2 - 1/2), whatever the matrix.
std::vector<Eigen::Vector2d> pixelCurve(const Contour& c, const SharedImage& frame) {
  std::vector<Eigen::Vector3d> curve;
  const bool closed = Contour::isClosedType(c.type);
  const bool spline = c.type == Contour::Type::ClosedSpline || c.type == Contour::Type::OpenSpline ||
                      c.type == Contour::Type::SmartSpline || c.type == Contour::Type::ClosedLoop;
  const Eigen::Vector2d spacing = frame.descriptor().spacing.head<2>();
  if (spline && c.points.size() >= 3) {
    Spline s(c.points, closed);
    const double minSpacing = spacing.minCoeff();
    const int n = std::clamp(static_cast<int>(std::ceil(4 * s.length() / std::max(minSpacing, 1e-9))), 8, 1 << 20);
    curve = s.sampleByLength(n);
  } else {
    curve = c.points;
  }
  const Eigen::Vector2d centre =
      frame.descriptor().dimensions.head<2>().cast<double>() * 0.5 - Eigen::Vector2d::Constant(0.5);
  std::vector<Eigen::Vector2d> out;
  out.reserve(curve.size());
  for (const auto& p : curve) out.push_back(p.head<2>().cwiseQuotient(spacing) + centre);
  return out;
}

// Fills the pixels whose centres lie strictly inside a closed polygon (even-odd). A centre on
// the curve stays out: traced contours run through the background pixels round a region.
void fillPolygon(const std::vector<Eigen::Vector2d>& poly, unsigned char value, TypedImage<unsigned char>& img) {
  const int w = img.width(), h = img.height(), n = static_cast<int>(poly.size());
  if (n < 3) return;
  std::vector<double> xs;
  for (int y = 0; y < h; ++y) {
    xs.clear();
    for (int i = 0; i < n; ++i) {
      const Eigen::Vector2d& a = poly[i];
      const Eigen::Vector2d& b = poly[(i + 1) % n];
      if ((a.y() <= y) == (b.y() <= y)) continue;  // half-open rule: each crossing counted once
      xs.push_back(a.x() + (y - a.y()) / (b.y() - a.y()) * (b.x() - a.x()));
    }
    std::sort(xs.begin(), xs.end());
    for (size_t k = 0; k + 1 < xs.size(); k += 2) {
      const int x0 = std::max(0, static_cast<int>(std::ceil(xs[k])));
      const int x1 = std::min(w - 1, static_cast<int>(std::floor(xs[k + 1])));
      for (int x = x0; x <= x1; ++x) img.setValue(value, x, y);
    }
  }
  // The half-open rule keeps some centres on the curve (left ends, lower edges): clear them.
  // A sampled spline passes its control points only to within the chord error, so "on the
  // curve" allows a twentieth of a pixel; a label's own centres lie at least half a pixel in.
  constexpr double eps = 0.05;
  for (int i = 0; i < n; ++i) {
    const Eigen::Vector2d& a = poly[i];
    const Eigen::Vector2d& b = poly[(i + 1) % n];
    const Eigen::Vector2d d = b - a;
    const double len2 = d.squaredNorm();
    const int x0 = std::max(0, static_cast<int>(std::ceil(std::min(a.x(), b.x()) - eps)));
    const int x1 = std::min(w - 1, static_cast<int>(std::floor(std::max(a.x(), b.x()) + eps)));
    const int y0 = std::max(0, static_cast<int>(std::ceil(std::min(a.y(), b.y()) - eps)));
    const int y1 = std::min(h - 1, static_cast<int>(std::floor(std::max(a.y(), b.y()) + eps)));
    for (int y = y0; y <= y1; ++y)
      for (int x = x0; x <= x1; ++x) {
        const Eigen::Vector2d p(x, y);
        const double t = len2 > 0 ? std::clamp((p - a).dot(d) / len2, 0.0, 1.0) : 0.0;
        if ((a + t * d - p).squaredNorm() <= eps * eps) img.setValue(0, x, y);
      }
  }
}

// Grows the non-zero pixels of `img` by a disc of `r` pixels (a dilation; grown pixels take
// the value of the region, which is one label here).
void dilate(TypedImage<unsigned char>& img, int r, unsigned char value) {
  if (r <= 0) return;
  const int w = img.width(), h = img.height();
  // A disc wider than the image's diagonal covers it from any pixel: no larger radius (stored
  // contours come from files) changes the result, and squares stay in range.
  r = std::min(r, static_cast<int>(std::ceil(std::hypot(w, h))) + 1);
  std::vector<unsigned char> src(img.pointer(), img.pointer() + static_cast<size_t>(w) * h);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      if (!src[static_cast<size_t>(y) * w + x]) continue;
      for (int dy = std::max(-r, -y); dy <= std::min(r, h - 1 - y); ++dy)
        for (int dx = std::max(-r, -x); dx <= std::min(r, w - 1 - x); ++dx)
          if (dx * dx + dy * dy <= r * r) img.setValue(value, x + dx, y + dy);
    }
}

// A band of radius r pixels along an open curve.
void drawBand(const std::vector<Eigen::Vector2d>& curve, double r, unsigned char value, TypedImage<unsigned char>& img) {
  const int w = img.width(), h = img.height();
  for (size_t i = 0; i < curve.size(); ++i) {
    const Eigen::Vector2d a = curve[i], b = i + 1 < curve.size() ? curve[i + 1] : curve[i];
    const int x0 = std::max(0, static_cast<int>(std::floor(std::min(a.x(), b.x()) - r)));
    const int x1 = std::min(w - 1, static_cast<int>(std::ceil(std::max(a.x(), b.x()) + r)));
    const int y0 = std::max(0, static_cast<int>(std::floor(std::min(a.y(), b.y()) - r)));
    const int y1 = std::min(h - 1, static_cast<int>(std::ceil(std::max(a.y(), b.y()) + r)));
    const Eigen::Vector2d d = b - a;
    const double len2 = d.squaredNorm();
    for (int y = y0; y <= y1; ++y)
      for (int x = x0; x <= x1; ++x) {
        const Eigen::Vector2d p(x, y);
        const double t = len2 > 0 ? std::clamp((p - a).dot(d) / len2, 0.0, 1.0) : 0.0;
        if ((a + t * d - p).squaredNorm() <= r * r) img.setValue(value, x, y);
      }
  }
}

}  // namespace

Contour::Contour(Type type, int labelValue, int frame, std::vector<Eigen::Vector3d> points, CreationMode mode)
    : creationMode(mode), type(type), points(std::move(points)), labelValue(labelValue), frame(frame) {}

Contour::Contour(const Contour& other)
    : Configurable(other),
      creationMode(other.creationMode),
      type(other.type),
      points(other.points),
      labelValue(other.labelValue),
      frame(other.frame),
      name(other.name),
      marginOrRadius(other.marginOrRadius),
      adaptiveness(other.adaptiveness),
      displayConfiguration(other.displayConfiguration) {}

Contour& Contour::operator=(const Contour& other) {
  if (this == &other) return *this;
  creationMode = other.creationMode;
  type = other.type;
  points = other.points;
  labelValue = other.labelValue;
  frame = other.frame;
  name = other.name;
  marginOrRadius = other.marginOrRadius;
  adaptiveness = other.adaptiveness;
  displayConfiguration = other.displayConfiguration;
  return *this;
}

bool Contour::operator==(const Contour& o) const {
  return adaptiveness == o.adaptiveness && marginOrRadius == o.marginOrRadius && type == o.type &&
         creationMode == o.creationMode && labelValue == o.labelValue && points == o.points;
}

std::string Contour::typeToString(const Type& type) {
  const int i = static_cast<int>(type);
  if (i < 0 || i > 5) {
    LOG_WARN(kCategory, "This should not be reached. There is an issue with the serialization of a contour.");
    return kTypeNames[0];
  }
  return kTypeNames[i];
}

Contour::Type Contour::stringToType(const std::string& text) {
  for (int i = 0; i < 6; ++i)
    if (text == kTypeNames[i]) return static_cast<Type>(i);
  LOG_WARN(kCategory, "This should not be reached. There is an issue with the serialization of a contour. The type "
                      "string is invalid. Setting Polyline as default");
  return Type::ClosedPolyLine;
}

void Contour::configuration(Properties* p) const {
  if (!p) return;
  p->setParam("labelValue", labelValue);
  p->setParam("type", typeToString(type));
  // Points as one flat list x y z x y z ...
  std::vector<double> flat;
  flat.reserve(points.size() * 3);
  for (const auto& q : points) flat.insert(flat.end(), {q.x(), q.y(), q.z()});
  p->setParam("points", flat);
  p->setParam("name", name);
  p->setParam("frame", frame);
  p->setParam("creationMode", static_cast<int>(creationMode));
  if (marginOrRadius) p->setParam("marginOrRadius", *marginOrRadius);
  if (adaptiveness) p->setParam("adaptiveness", *adaptiveness);
  Properties* display = p->subProperties("display configuration", true);
  display->copyFrom(displayConfiguration);
}

void Contour::configure(const Properties* p) {
  if (!p) return;
  p->param("labelValue", labelValue);
  std::string typeText;
  if (p->param("type", typeText)) type = stringToType(typeText);
  std::vector<double> flat;
  if (p->param("points", flat)) {
    points.clear();
    for (size_t i = 0; i + 2 < flat.size(); i += 3) points.emplace_back(flat[i], flat[i + 1], flat[i + 2]);
  }
  p->param("name", name);
  p->param("frame", frame);
  int mode = 0;
  if (p->param("creationMode", mode)) creationMode = static_cast<CreationMode>(mode);
  int value = 0;
  if (p->contains("marginOrRadius") && p->param("marginOrRadius", value)) marginOrRadius = value;
  if (p->contains("adaptiveness") && p->param("adaptiveness", value)) adaptiveness = value;
  if (const Properties* display = p->subProperties("display configuration")) {
    displayConfiguration.clear();
    displayConfiguration.copyFrom(*display);
  }
}

std::unique_ptr<TypedImage<unsigned char>> Contour::labelMapFromContour(const SharedImageSet& labelMap) const {
  const SharedImage* f = labelMap.get(frame);
  if (!f) return nullptr;
  ImageDescriptor d = f->descriptor();
  d.pixelType = U8;
  d.channels = 1;
  d.shift = 0;
  d.scale = 1;
  auto mask = TypedImage<unsigned char>::create(d);
  const auto value = static_cast<unsigned char>(std::clamp(labelValue, 0, 255));
  const auto curve = pixelCurve(*this, *f);
  if (isClosedType(type)) {
    fillPolygon(curve, value, *mask);
    // The margin of a closed contour grows the filled region.
    if (marginOrRadius) dilate(*mask, *marginOrRadius, value);
  } else {
    int radius = 10, adapt = 50;
    if (marginOrRadius) radius = *marginOrRadius;
    else LOG_INFO(kCategory, "The open contour has no logged radius. Setting it to 10.");
    if (adaptiveness) adapt = *adaptiveness;
    else LOG_INFO(kCategory, "The open contour has no logged adaptiveness. Setting it to 50.");
    (void)adapt;  // the band is drawn without adapting to the image
    drawBand(curve, radius / std::max(f->descriptor().spacing[0], 1e-9), value, *mask);
  }
  return mask;
}

}  // namespace Merivane::Seg
