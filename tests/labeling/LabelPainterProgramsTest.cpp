// The painter's fragment programs run one at a time on tiny textures, against the CPU
// references of LabelPainterReference.h.
#include <gtest/gtest.h>

#include <tuple>

#include "GlContext.h"
#include "GlImage.h"
#include "GlImageProgram.h"
#include "LabelLock.h"
#include "LabelPainterReference.h"
#include "Repository_MerivaneSeg.h"
#include "Resource.h"
#include "ShaderTestKit.h"
#include "TestSupport.h"

namespace Merivane::Seg {
namespace {

namespace Ref = Reference;

class PainterProgram : public TestKit::WithSegPrograms {
 protected:

  // Compiles "MerivaneSeg/<name>" with the 2D switch for one-slice textures.
  static std::unique_ptr<GL::ImageProgram> program(const std::string& name, bool oneSlice, std::string defines = "") {
    auto text = Resource::queryText("MerivaneSeg/" + name);
    if (!text) return nullptr;
    if (oneSlice) defines += "#define USE_2D\n";
    text->insert(text->find('\n') + 1, defines);
    auto p = std::make_unique<GL::ImageProgram>();
    EXPECT_TRUE(p->compile(*text)) << p->log();
    return p;
  }

  static std::vector<uint8_t> download(const GlImage& t) {
    TypedImage<unsigned char> out(t.dimensions(), 1);
    EXPECT_TRUE(t.download(out));
    return {out.pointer(), out.pointer() + out.descriptor().pixelCount()};
  }

};

TEST_F(PainterProgram, ThresholdMeetsItsValueAtTheRangeEnds) {
  // Weights 0, 127/255, 128/255 and 255/255 against thresholds 0.5, 0 and 1.
  const std::vector<uint8_t> weights = {0, 127, 128, 255, 1, 254};
  for (double threshold : {0.5, 0.0, 1.0}) {
    std::vector<uint8_t> result;
    GL::runOnGlThread([&] {
      GlImage stencil(ImageDescriptor(U8, {6, 1, 1}, 1), 0, weights.data());
      GlImage out(ImageDescriptor(U8, {6, 1, 1}, 1));
      auto p = program("LabelPainterThreshold.frag", true);
      p->setArgument("u_threshold", static_cast<float>(threshold));
      p->setArgument("u_stencil", stencil, 0);
      p->setArgument("u_sliceOnly", 0);
      ASSERT_TRUE(p->compute(out));
      result = download(out);
    });
    for (size_t i = 0; i < weights.size(); ++i)
      EXPECT_EQ(result[i], Ref::threshold(weights[i], threshold)) << "weight " << int(weights[i]) << " at " << threshold;
  }
}

TEST_F(PainterProgram, ThresholdWithSliceKeepsOnlyVoxelsWithinHalfAVoxelOfThePlane) {
  // A 4x3x5 volume, 2 mm slices, everything set; the plane z = world of slice 3's centre.
  const Eigen::Vector3i dims(4, 3, 5);
  const Eigen::Vector3d spacing(1, 1, 2);
  std::vector<uint8_t> all(static_cast<size_t>(dims.prod()), 255);
  std::vector<uint8_t> result;
  // Texture to world: t in [0, 1] to centred millimetres.
  Eigen::Matrix4d t2w = Eigen::Matrix4d::Identity();
  const Eigen::Vector3d extent = dims.cast<double>().cwiseProduct(spacing);
  t2w.diagonal().head<3>() = extent;
  t2w.block<3, 1>(0, 3) = -0.5 * extent;
  const double slice3 = (3 + 0.5) / 5.0 * extent[2] - 0.5 * extent[2];
  GL::runOnGlThread([&] {
    GlImage stencil(ImageDescriptor(U8, dims, 1), 0, all.data());
    GlImage out(ImageDescriptor(U8, dims, 1));
    auto p = program("LabelPainterThreshold.frag", false);
    p->setArgument("u_threshold", 0.5f);
    p->setArgument("u_stencil", stencil, 0);
    p->setArgument("u_sliceOnly", 1);
    p->setArgument("u_textureToWorld", mat4(t2w));
    p->setArgument("u_sliceNormal", vec3(0, 0, 1));
    p->setArgument("u_slicePoint", vec3(0.3, -0.7, slice3));
    p->setArgument("u_halfThickness", 1.0f);
    ASSERT_TRUE(p->compute(out));
    result = download(out);
  });
  for (int z = 0; z < dims[2]; ++z)
    for (int i = 0; i < dims[0] * dims[1]; ++i) EXPECT_EQ(result[z * 12 + i], z == 3 ? 1 : 0) << "slice " << z;
}

using MergeParam = std::tuple<bool, bool, bool>;  // erase, one slice, with mask
class PainterMerge : public PainterProgram, public testing::WithParamInterface<MergeParam> {};

TEST_P(PainterMerge, EqualsTheReferenceWithLocksAndMask) {
  const auto [erase, oneSlice, withMask] = GetParam();
  const Eigen::Vector3i dims = oneSlice ? Eigen::Vector3i(7, 5, 1) : Eigen::Vector3i(5, 4, 3);
  const size_t n = static_cast<size_t>(dims.prod());
  std::vector<uint8_t> labels(n), stencil(n), mask(n);
  for (size_t i = 0; i < n; ++i) {
    labels[i] = static_cast<uint8_t>((i * 7) % 5 == 0 ? 0 : (i % 3 == 0 ? 200 : i % 4 + 1));  // 0, 1..4, 200
    stencil[i] = (i * 5) % 3 != 0;
    mask[i] = (i % 4) != 1;
  }
  LabelLock lock;
  lock.setLocked(2, true);
  lock.setLocked(200, true);
  const uint8_t label = 3;
  std::vector<uint8_t> result;
  GL::runOnGlThread([&] {
    GlImage l(ImageDescriptor(U8, dims, 1), 0, labels.data()), s(ImageDescriptor(U8, dims, 1), 0, stencil.data());
    GlImage m(ImageDescriptor(U8, dims, 1), 0, mask.data()), out(ImageDescriptor(U8, dims, 1));
    auto p = program("LabelPainterMerge.frag", oneSlice, withMask ? "#define USE_MASK\n" : "");
    p->setArgument("u_label", static_cast<float>(label / 255.0));
    p->setArgument("u_erase", erase ? 1 : 0);
    p->setArgument("u_preserveLabels", lock.flags().data(), 8);
    p->setArgument("u_labelMap", l, 0);
    p->setArgument("u_stencil", s, 1);
    if (withMask) p->setArgument("u_mask", m, 2);
    ASSERT_TRUE(p->compute(out));
    result = download(out);
  });
  int changed = 0;
  for (size_t i = 0; i < n; ++i) {
    const uint8_t expected = Ref::merge(labels[i], stencil[i], !withMask || mask[i], lock.flags(), label, erase);
    EXPECT_EQ(result[i], expected) << "voxel " << i;
    changed += result[i] != labels[i];
  }
  EXPECT_GT(changed, 0);
}

INSTANTIATE_TEST_SUITE_P(All, PainterMerge, testing::Combine(testing::Bool(), testing::Bool(), testing::Bool()));

TEST_F(PainterProgram, DrawLineSetsThePathAndLeavesTheRest) {
  const Eigen::Vector3i dims(9, 6, 4);
  const std::vector<std::pair<Eigen::Vector3d, Eigen::Vector3d>> lines = {
      {{0.5, 0.5, 0.5}, {8.5, 5.5, 3.5}}, {{1.2, 4.7, 2.1}, {7.9, 1.3, 0.6}}, {{4.5, 2.5, 1.5}, {4.5, 2.5, 1.5}}};
  for (const auto& [a, b] : lines) {
    std::vector<uint8_t> background(static_cast<size_t>(dims.prod()), 9), result;
    GL::runOnGlThread([&] {
      GlImage t(ImageDescriptor(U8, dims, 1), 0, background.data());
      auto p = program("LabelPainterDrawLine.frag", false);
      p->setArgument("u_textureSize", vec3i(dims));
      p->setArgument("u_value", 1.0f);
      p->setArgument("u_from", vec3(a));
      p->setArgument("u_to", vec3(b));
      ASSERT_TRUE(p->compute(t));
      result = download(t);
    });
    size_t i = 0, set = 0;
    for (int z = 0; z < dims[2]; ++z)
      for (int y = 0; y < dims[1]; ++y)
        for (int x = 0; x < dims[0]; ++x, ++i) {
          const Eigen::Vector3d c = Ref::centre(x, y, z, false);
          // Voxels whose closest point sits on their face are either way.
          const Eigen::Vector3d ab = b - a;
          const double t = ab.squaredNorm() > 0 ? std::clamp((c - a).dot(ab) / ab.squaredNorm(), 0.0, 1.0) : 0.0;
          if ((((a + t * ab - c).array().abs() - 0.5).abs() < 1e-4).any()) continue;
          EXPECT_EQ(result[i], Ref::onLine(c, a, b) ? 255 : 9) << x << "," << y << "," << z;
          set += result[i] == 255;
        }
    EXPECT_GE(set, 1u);
  }
}

}  // namespace
}  // namespace Merivane::Seg
