#pragma once
// One drawn or computed curve on one frame of a label map: control points in centred image
// coordinates (millimetres from the frame's centre along its axes; the matrix is not applied),
// the label it paints, its type (closed or open, polyline or spline) and how it came to be.
// Contours are the lasting, editable form of an outline and paint back into label pixels with
// labelMapFromContour.
#include <Eigen/Core>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Configurable.h"
#include "Image.h"
#include "Properties.h"

namespace Merivane {
class SharedImageSet;
}

namespace Merivane::Seg {

class Contour : public Configurable {
 public:
  // Flags, so that filters can ask for several at once.
  enum class CreationMode : uint32_t { Manual = 1, Computed = 2, Interpolated = 4, Imported = 8 };
  enum class Type : int32_t {
    ClosedPolyLine = 0,
    ClosedSpline = 1,
    ClosedLoop = 2,
    SmartSpline = 3,
    OpenSpline = 4,
    OpenPolyline = 5,
  };

  Contour() = default;
  Contour(Type type, int labelValue, int frame, std::vector<Eigen::Vector3d> points,
          CreationMode mode = CreationMode::Computed);
  Contour(const Contour& other);
  Contour& operator=(const Contour& other);

  void configure(const Properties* properties) override;
  void configuration(Properties* properties) const override;

  // Adaptiveness, margin or radius, type, creation mode, label and points; not name or look.
  bool operator==(const Contour& other) const;
  bool operator!=(const Contour& other) const { return !(*this == other); }

  static std::string typeToString(const Type& type);
  static Type stringToType(const std::string& text);
  static bool isClosedType(Type type) { return type == Type::ClosedPolyLine || type == Type::ClosedSpline || type == Type::ClosedLoop || type == Type::SmartSpline; }

  // A U8 image of the shape of frame `frame` of `labelMap`, `labelValue` inside the contour
  // (closed types: the pixels whose centres lie strictly inside, grown by the margin when one
  // is set; open types: a band of the radius)
  // and 0 elsewhere. Null for a frame that does not exist.
  std::unique_ptr<TypedImage<unsigned char>> labelMapFromContour(const SharedImageSet& labelMap) const;

  CreationMode creationMode = CreationMode::Computed;
  Type type = Type::ClosedSpline;
  std::vector<Eigen::Vector3d> points;
  int labelValue = 1;
  int frame = 0;
  std::string name;
  std::optional<int> marginOrRadius;
  std::optional<int> adaptiveness;
  Properties displayConfiguration;
};

}  // namespace Merivane::Seg
