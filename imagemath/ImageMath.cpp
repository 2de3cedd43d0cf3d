#include "ImageMath.h"

#include "Log.h"

namespace Merivane::ImageMath {

namespace internal {

namespace {
thread_local int t_lastPassThreads = 0;
}

int threadsForSlices(int slices) { return slices < 9 ? 1 : std::max(1, omp_get_max_threads()); }
int lastPassThreads() { return t_lastPassThreads; }
void setLastPassThreads(int threads) { t_lastPassThreads = threads; }

ImageDescriptor combineImageDescriptors(const ImageDescriptor& a, bool aIsImage, const ImageDescriptor& b,
                                        bool bIsImage, PixelType type) {
  ImageDescriptor d = (aIsImage || !bIsImage) ? a : b;
  d.channels = std::max(a.channels, b.channels);
  d.pixelType = type;
  d.shift = 0.0;
  d.scale = 1.0;
  return d;
}

void vec4argmax(std::vector<double>& value, std::vector<Eigen::Vector4i>& position, const std::vector<double>& otherValue,
                const std::vector<Eigen::Vector4i>& otherPosition, bool isMax) {
  const auto earlier = [](const Eigen::Vector4i& p, const Eigen::Vector4i& q) {
    if (p[3] != q[3]) return p[3] < q[3];
    if (p[2] != q[2]) return p[2] < q[2];
    if (p[1] != q[1]) return p[1] < q[1];
    return p[0] < q[0];
  };
  for (size_t c = 0; c < value.size() && c < otherValue.size(); ++c) {
    if (otherPosition[c][0] < 0) continue;
    const bool better = isMax ? otherValue[c] > value[c] : otherValue[c] < value[c];
    const bool tie = otherValue[c] == value[c];
    if (position[c][0] < 0 || better || (tie && earlier(otherPosition[c], position[c]))) {
      value[c] = otherValue[c];
      position[c] = otherPosition[c];
    }
  }
}

void logShapeMismatch(const char* what) { LOG_ERROR("ImageMath", what << "; target left unchanged"); }

}  // namespace internal

Coordinates makeCoordinates(const SharedImage& frame, CoordinateType type) {
  const ImageDescriptor& d = frame.descriptor();
  Eigen::Matrix4d m = Eigen::Matrix4d::Identity();
  if (type != CoordinateType::Pixel) {
    // Centred image space in millimetres: p = (v - (size * 0.5 - 0.5)) * spacing.
    Eigen::Matrix4d toImage = Eigen::Matrix4d::Identity();
    toImage.diagonal().head<3>() = d.spacing;
    toImage.block<3, 1>(0, 3) = -(d.dimensions.cast<double>() * 0.5 - Eigen::Vector3d::Constant(0.5)).cwiseProduct(d.spacing);
    m = type == CoordinateType::World ? Eigen::Matrix4d(frame.matrix() * toImage) : toImage;
  }
  return Coordinates(d, m);
}

}  // namespace Merivane::ImageMath
