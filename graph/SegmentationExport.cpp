// Export of the segmentation of the last run: a mesh of a volume, outlines of a 2D image.
// Both threshold the probability map at 0.5, resample it coarser as the smoothness asks, and
// sample the result at the export resolution.
#include <Eigen/Geometry>
#include <cmath>

#include "GraphBasedSegmentation.h"
#include "ImageProcessing.h"
#include "Log.h"
#include "MarchingCubes.h"
#include "MarchingSquares.h"
#include "Mesh.h"
#include "MeshProcessing.h"
#include "SharedImageSet.h"
#include "Spline.h"

namespace Merivane {

namespace {

constexpr const char* kCategory = "Seg.GraphBasedSegmentation";

// The probability map as a 0/1 float image, the common start of both extractions.
std::unique_ptr<TypedImage<float>> binaryProbability(const SharedImageSet& probability) {
  auto copy = ImageProcessing::createFloat(*probability.mem(0), ImageProcessing::None);
  auto typed = std::unique_ptr<TypedImage<float>>(static_cast<TypedImage<float>*>(copy.release()));
  float* p = typed->pointer();
  const size_t n = typed->descriptor().elementCount();
  for (size_t k = 0; k < n; ++k) p[k] = p[k] > 0.5f ? 1.0f : 0.0f;
  return typed;
}

void zeroBorder(TypedImage<float>& img, bool withZ) {
  const Eigen::Vector3i d = img.dimensions();
  for (int z = 0; z < d[2]; ++z)
    for (int y = 0; y < d[1]; ++y)
      for (int x = 0; x < d[0]; ++x)
        if (x == 0 || y == 0 || x == d[0] - 1 || y == d[1] - 1 || (withZ && (z == 0 || z == d[2] - 1)))
          img.setValue(0.0f, x, y, z);
}

// Faces an exported mesh may have after subdivision: about 3 GB of vertices and faces.
constexpr double kMaxExportFaces = 1e8;

}  // namespace

std::unique_ptr<Mesh> GraphBasedSegmentation::extractSegmentation3D(double smoothness, double exportResolution,
                                                                     bool closeBorder) {
  if (!probability_ || !probability_->mem(0)) {
    LOG_ERROR(kCategory, "No segmentation available");
    return nullptr;
  }
  auto binary = binaryProbability(*probability_);
  const Eigen::Vector3d sp = binary->spacing();
  if (exportResolution <= 0) exportResolution = sp[0];
  double f = smoothness / 6.0 + 0.5;
  if (f <= 1.0) f = 1.0;
  const double target = std::cbrt((f == 1.0 ? 1.0 : f * f * f) * sp[0] * sp[1] * sp[2]);
  auto resampled = ImageProcessing::createResampled(*binary, Eigen::Vector3d::Constant(target));
  if (!resampled) return nullptr;
  auto* volume = static_cast<TypedImage<float>*>(resampled.get());
  LOG_DEBUG(kCategory, "Target resolution: " << target << " x " << target << " x " << target);
  LOG_DEBUG(kCategory, "Export resolution: " << exportResolution);
  if (closeBorder) zeroBorder(*volume, true);

  std::unique_ptr<Mesh> mesh = MarchingCubes::computeIsosurface(volume, nullptr, 0.5f);
  if (!mesh) return nullptr;
  MeshProcessing::mergeCloseVertices(*mesh, 0.0);
  // Pixel coordinates of the resampled volume to world coordinates.
  SharedImage frame(std::shared_ptr<Image>(std::move(resampled)));
  frame.setMatrix(probability_->get(0)->matrix());
  for (auto& v : mesh->vertices) v = frame.pixelToWorld(v.cast<double>()).cast<float>();
  MeshProcessing::computeVertexNormals(*mesh);

  double e = frame.descriptor().spacing[0] * f;
  if (exportResolution > e) {
    // Aim at triangles whose edges are about the export resolution long.
    double area = 0.0;
    for (const auto& t : mesh->faces) {
      const Eigen::Vector3f a = mesh->vertices[static_cast<size_t>(t[0])];
      const Eigen::Vector3f b = mesh->vertices[static_cast<size_t>(t[1])];
      const Eigen::Vector3f c = mesh->vertices[static_cast<size_t>(t[2])];
      area += 0.5 * static_cast<double>((b - a).cross(c - a).norm());
    }
    const double perFace = exportResolution * exportResolution * std::sqrt(3.0) / 4.0;
    MeshProcessing::simplify(*mesh, std::max<size_t>(4, static_cast<size_t>(area / perFace)));
  } else {
    // As many subdivisions as halvings of e it takes to reach the export resolution.
    int halvings = 0;
    while (e > exportResolution) {
      e *= 0.5;
      ++halvings;
    }
    // Each subdivision quadruples the faces: refuse what would not fit in memory rather than
    // die in the attempt.
    const double faces = static_cast<double>(mesh->faces.size()) * std::pow(4.0, halvings);
    if (faces > kMaxExportFaces) {
      LOG_ERROR(kCategory, "An export resolution of " << exportResolution << " mm asks for " << halvings
                                                      << " subdivisions, about " << faces
                                                      << " faces; choose a coarser one");
      return nullptr;
    }
    if (halvings > 0) MeshProcessing::subdivide(*mesh, halvings);
  }
  const int iterations = static_cast<int>(smoothness * 0.1);
  if (iterations > 0) MeshProcessing::smooth(*mesh, iterations);
  if (!mesh->hasNormals()) MeshProcessing::computeVertexNormals(*mesh);
  mesh->setName("Segmentation");
  return mesh;
}

std::vector<std::vector<Eigen::Vector3d>> GraphBasedSegmentation::extractSegmentation2D(double smoothness,
                                                                                        double exportResolution,
                                                                                        bool closeBorder) {
  if (!probability_ || !probability_->mem(0)) {
    LOG_ERROR(kCategory, "No segmentation available");
    return {};
  }
  auto binary = binaryProbability(*probability_);
  if (exportResolution <= 0) exportResolution = binary->spacing()[0];
  const int k = static_cast<int>(smoothness / 6.0 + 0.5);
  if (k > 1) {
    auto resampled = ImageProcessing::createResampled(*binary, binary->spacing() * k);
    if (resampled) binary.reset(static_cast<TypedImage<float>*>(resampled.release()));
  }
  if (closeBorder) zeroBorder(*binary, false);
  const int W = binary->width(), H = binary->height();
  const Eigen::Vector2d spacing = binary->spacing().head<2>();
  const Eigen::Vector2d origin = -Eigen::Vector2d(W * 0.5 - 0.5, H * 0.5 - 0.5).cwiseProduct(spacing);
  std::vector<MarchingSquares::Polyline> lines;
  MarchingSquares::run(binary->pointer(), W, H, 0.5, lines, origin, spacing);

  const Eigen::Matrix4d m = probability_->get(0)->matrix();
  std::vector<std::vector<Eigen::Vector3d>> contours;
  for (const auto& line : lines) {
    std::vector<Eigen::Vector3d> world;
    for (size_t j = 0; j < line.size(); ++j) {
      if (j + 1 == line.size() && line.size() > 1 && line[j] == line.front()) break;  // closing repeat
      world.push_back((m * Eigen::Vector4d(line[j][0], line[j][1], 0.0, 1.0)).head<3>());
    }
    std::vector<Eigen::Vector3d> sampled;
    if (world.size() >= 2) {
      Spline spline(world, true);
      const double length = spline.length();
      const int n = static_cast<int>(length / exportResolution + 0.5);
      for (int j = 0; j < n; ++j) sampled.push_back(spline.pointAtLength(n > 1 ? j * length / (n - 1) : 0.0));
    }
    contours.push_back(std::move(sampled));
  }
  return contours;
}

}  // namespace Merivane
