// Headers written by hand, so that the readers are checked against the formats themselves and
// not only against our own writers; and damaged files, which must be refused with a message.
#include <gtest/gtest.h>
#include <nifti1.h>
#include <nifti2.h>

#include <Eigen/Geometry>
#include <cmath>
#include <cstring>
#include <functional>

#include "ImageIO.h"
#include "IoTestUtil.h"
#include "SharedImageSet.h"
#include "TestSupport.h"

using namespace Merivane;

namespace {

std::string int16Data(int n, bool bigEndian) {
  std::string out;
  for (int i = 0; i < n; ++i) {
    const auto v = static_cast<uint16_t>(i);
    const char lo = static_cast<char>(v & 0xff), hi = static_cast<char>(v >> 8);
    out += bigEndian ? std::string{hi, lo} : std::string{lo, hi};
  }
  return out;
}

Eigen::Vector3d world(const SharedImageSet& s, double x, double y, double z) {
  return s.get(0)->pixelToWorld(Eigen::Vector3d(x, y, z));
}

std::unique_ptr<SharedImageSet> read(const std::string& path) {
  std::string error;
  auto s = IO::readImage(path, &error);
  EXPECT_TRUE(s) << error;
  return s;
}

short value(const SharedImageSet& s, int x, int y, int z) {
  return static_cast<const short*>(s.mem(0)->data())[(z * s.img(0)->height() + y) * s.img(0)->width() + x];
}

TEST(NrrdHeader, RasSpaceWithFlippedAxisAndBigEndianData) {
  TestKit::ScratchDir dir;
  TestKit::writeBytes(dir.file("ras.nrrd"),
                      "NRRD0004\n# hand written\ntype: short\ndimension: 3\nspace: right-anterior-superior\n"
                      "sizes: 2 3 4\nspace directions: (-1.5,0,0) (0,2,0) (0,0,3)\nspace origin: (10,20,30)\n"
                      "endian: big\nencoding: raw\nMeaning:=test\n\n" +
                          int16Data(24, true));
  auto s = read(dir.file("ras.nrrd"));
  ASSERT_TRUE(s);
  EXPECT_EQ(s->img(0)->dimensions(), Eigen::Vector3i(2, 3, 4));
  EXPECT_TRUE(s->img(0)->spacing().isApprox(Eigen::Vector3d(1.5, 2, 3)));
  EXPECT_EQ(value(*s, 1, 2, 3), 23);
  // RAS (10 - 1.5, 20 + 4, 30 + 9) is LPS (-8.5, -24, 39).
  EXPECT_TRUE(world(*s, 1, 2, 3).isApprox(Eigen::Vector3d(-8.5, -24, 39))) << world(*s, 1, 2, 3).transpose();
  EXPECT_TRUE(world(*s, 0, 0, 0).isApprox(Eigen::Vector3d(-10, -20, 30)));
}

TEST(NrrdHeader, ObliqueDirectionsMapEveryCorner) {
  TestKit::ScratchDir dir;
  const double c = std::cos(M_PI / 6), sn = std::sin(M_PI / 6);
  char dirs[256];
  std::snprintf(dirs, sizeof dirs, "space directions: (%.17g,%.17g,0) (%.17g,%.17g,0) (0,0,-2)\n", 0.5 * c, 0.5 * sn,
                -0.8 * sn, 0.8 * c);
  TestKit::writeBytes(dir.file("oblique.nrrd"), std::string("NRRD0005\ntype: int16\ndimension: 3\nspace: LPS\n") +
                                                    "sizes: 3 2 2\n" + dirs +
                                                    "space origin: (1,2,3)\nendian: little\nencoding: raw\n\n" +
                                                    int16Data(12, false));
  auto s = read(dir.file("oblique.nrrd"));
  ASSERT_TRUE(s);
  Eigen::Matrix3d d;
  d << 0.5 * c, -0.8 * sn, 0, 0.5 * sn, 0.8 * c, 0, 0, 0, -2;
  for (int z = 0; z < 2; ++z)
    for (int y = 0; y < 2; ++y)
      for (int x = 0; x < 3; ++x) {
        const Eigen::Vector3d expected = Eigen::Vector3d(1, 2, 3) + d * Eigen::Vector3d(x, y, z);
        EXPECT_TRUE(world(*s, x, y, z).isApprox(expected, 1e-12)) << x << y << z;
      }
  EXPECT_TRUE(s->img(0)->spacing().isApprox(Eigen::Vector3d(0.5, 0.8, 2)));
  EXPECT_LT((s->get(0)->matrix().block<3, 3>(0, 0).determinant()), 0.0);  // the mirrored z stays mirrored
}

TEST(NrrdHeader, ColourAxisBecomesChannelsAndSpacingsServeWithoutDirections) {
  TestKit::ScratchDir dir;
  std::string data;
  for (int i = 0; i < 24; ++i) data += static_cast<char>(i);
  TestKit::writeBytes(dir.file("rgb.nrrd"), "NRRD0004\ntype: uchar\ndimension: 3\nsizes: 3 4 2\n"
                                            "kinds: RGB-color domain domain\nspacings: nan 0.5 0.25\n"
                                            "encoding: raw\n\n" + data);
  auto s = read(dir.file("rgb.nrrd"));
  ASSERT_TRUE(s);
  EXPECT_EQ(s->img(0)->channels(), 3);
  EXPECT_EQ(s->img(0)->dimensions(), Eigen::Vector3i(4, 2, 1));
  EXPECT_TRUE(s->img(0)->spacing().isApprox(Eigen::Vector3d(0.5, 0.25, 1)));
  EXPECT_EQ(static_cast<const unsigned char*>(s->mem(0)->data())[23], 23);
}

TEST(NrrdHeader, AsciiEncodingAndDetachedData) {
  TestKit::ScratchDir dir;
  TestKit::writeBytes(dir.file("text.nrrd"), "NRRD0004\ntype: float\ndimension: 2\nsizes: 3 1\nencoding: ascii\n\n"
                                             "1.5 -2\n7\n");
  auto s = read(dir.file("text.nrrd"));
  ASSERT_TRUE(s);
  EXPECT_FLOAT_EQ(static_cast<const float*>(s->mem(0)->data())[1], -2.0f);
  EXPECT_FLOAT_EQ(static_cast<const float*>(s->mem(0)->data())[2], 7.0f);

  TestKit::writeBytes(dir.file("pixels.raw"), "XXXX" + int16Data(4, false));
  TestKit::writeBytes(dir.file("detached.nhdr"), "NRRD0004\ntype: short\ndimension: 2\nsizes: 2 2\n"
                                                 "encoding: raw\nbyte skip: 4\ndata file: pixels.raw\n");
  auto d = read(dir.file("detached.nhdr"));
  ASSERT_TRUE(d);
  EXPECT_EQ(value(*d, 1, 1, 0), 3);
}

TEST(MetaImageHeader, TransformMatrixListsAxisDirections) {
  TestKit::ScratchDir dir;
  TestKit::writeBytes(dir.file("turned.mha"),
                      "ObjectType = Image\nNDims = 3\nDimSize = 2 2 2\nElementSpacing = 1 2 3\nOffset = 5 6 7\n"
                      "TransformMatrix = 0 1 0 -1 0 0 0 0 1\nElementType = MET_SHORT\nBinaryData = True\n"
                      "BinaryDataByteOrderMSB = False\nElementDataFile = LOCAL\n" +
                          int16Data(8, false));
  auto s = read(dir.file("turned.mha"));
  ASSERT_TRUE(s);
  // Axis 0 runs along +y (1 mm), axis 1 along -x (2 mm), axis 2 along +z (3 mm).
  EXPECT_TRUE(world(*s, 1, 1, 1).isApprox(Eigen::Vector3d(3, 7, 10))) << world(*s, 1, 1, 1).transpose();
  EXPECT_TRUE(world(*s, 0, 0, 0).isApprox(Eigen::Vector3d(5, 6, 7)));
  EXPECT_EQ(value(*s, 1, 1, 1), 7);
}

TEST(MetaImageHeader, TwoDimensionsAndDetachedBigEndianData) {
  TestKit::ScratchDir dir;
  TestKit::writeBytes(dir.file("plane.raw"), int16Data(6, true));
  TestKit::writeBytes(dir.file("plane.mhd"), "ObjectType = Image\nNDims = 2\nDimSize = 3 2\nElementSpacing = 0.5 0.25\n"
                                             "Offset = 1 2\nElementType = MET_SHORT\nElementByteOrderMSB = True\n"
                                             "ElementDataFile = plane.raw\n");
  auto s = read(dir.file("plane.mhd"));
  ASSERT_TRUE(s);
  EXPECT_EQ(s->img(0)->dimensions(), Eigen::Vector3i(3, 2, 1));
  EXPECT_TRUE(world(*s, 2, 1, 0).isApprox(Eigen::Vector3d(2, 2.25, 0))) << world(*s, 2, 1, 0).transpose();
  EXPECT_EQ(value(*s, 2, 1, 0), 5);
}

std::string niftiFile(const nifti_1_header& h, const std::string& data) {
  std::string out(reinterpret_cast<const char*>(&h), sizeof h);
  out += std::string(4, '\0');  // no extensions
  return out + data;
}

nifti_1_header niftiHeader() {
  nifti_1_header h;
  std::memset(&h, 0, sizeof h);
  h.sizeof_hdr = 348;
  h.dim[0] = 3;
  h.dim[1] = 2;
  h.dim[2] = 3;
  h.dim[3] = 4;
  for (int i = 4; i < 8; ++i) h.dim[i] = 1;
  h.datatype = DT_INT16;
  h.bitpix = 16;
  h.pixdim[0] = 1;
  h.pixdim[1] = 2;
  h.pixdim[2] = 3;
  h.pixdim[3] = 4;
  h.vox_offset = 352;
  h.xyzt_units = NIFTI_UNITS_MM;
  std::memcpy(h.magic, "n+1\0", 4);
  return h;
}

TEST(NiftiHeader, SformInRasBecomesLps) {
  TestKit::ScratchDir dir;
  nifti_1_header h = niftiHeader();
  h.sform_code = NIFTI_XFORM_SCANNER_ANAT;
  const float sx[4] = {-2, 0, 0, 10}, sy[4] = {0, 3, 0, -20}, sz[4] = {0, 0, 4, 5};
  std::memcpy(h.srow_x, sx, sizeof sx);
  std::memcpy(h.srow_y, sy, sizeof sy);
  std::memcpy(h.srow_z, sz, sizeof sz);
  TestKit::writeBytes(dir.file("sform.nii"), niftiFile(h, int16Data(24, false)));
  auto s = read(dir.file("sform.nii"));
  ASSERT_TRUE(s);
  // RAS (-2 + 10, 6 - 20, 12 + 5) = (8, -14, 17) is LPS (-8, 14, 17).
  EXPECT_TRUE(world(*s, 1, 2, 3).isApprox(Eigen::Vector3d(-8, 14, 17))) << world(*s, 1, 2, 3).transpose();
  EXPECT_TRUE(s->img(0)->spacing().isApprox(Eigen::Vector3d(2, 3, 4)));
  EXPECT_EQ(value(*s, 1, 2, 3), 23);
  EXPECT_NE(s->modality(), Data::LABEL);
}

TEST(NiftiHeader, QformWithNegativeQfacMirrorsZ) {
  TestKit::ScratchDir dir;
  nifti_1_header h = niftiHeader();
  h.qform_code = NIFTI_XFORM_SCANNER_ANAT;
  h.quatern_d = 1;  // 180 degrees about z
  h.pixdim[0] = -1;
  h.qoffset_x = 1;
  h.qoffset_y = 2;
  h.qoffset_z = 3;
  TestKit::writeBytes(dir.file("qform.nii"), niftiFile(h, int16Data(24, false)));
  auto s = read(dir.file("qform.nii"));
  ASSERT_TRUE(s);
  // RAS (-2 + 1, -3 + 2, -4 + 3) = (-1, -1, -1) is LPS (1, 1, -1).
  EXPECT_TRUE(world(*s, 1, 1, 1).isApprox(Eigen::Vector3d(1, 1, -1))) << world(*s, 1, 1, 1).transpose();
}

TEST(NiftiHeader, LabelIntentMakesALabelMapAndNifti2IsRead) {
  TestKit::ScratchDir dir;
  nifti_2_header h;
  std::memset(&h, 0, sizeof h);
  h.sizeof_hdr = 540;
  std::memcpy(h.magic, "n+2\0\r\n\032\n", 8);
  h.dim[0] = 3;
  h.dim[1] = 4;
  h.dim[2] = 2;
  h.dim[3] = 1;
  for (int i = 4; i < 8; ++i) h.dim[i] = 1;
  h.datatype = DT_UINT8;
  h.bitpix = 8;
  h.pixdim[1] = h.pixdim[2] = h.pixdim[3] = 0.5;
  h.vox_offset = 544;
  h.intent_code = NIFTI_INTENT_LABEL;
  h.sform_code = 1;
  h.srow_x[0] = -0.5;
  h.srow_y[1] = -0.5;
  h.srow_z[2] = 0.5;
  h.srow_z[3] = 100;
  std::string bytes(reinterpret_cast<const char*>(&h), sizeof h);
  bytes += std::string(4, '\0');
  bytes += std::string("\0\1\2\0\0\1\1\0", 8);
  TestKit::writeBytes(dir.file("labels.nii"), bytes);
  auto s = read(dir.file("labels.nii"));
  ASSERT_TRUE(s);
  EXPECT_EQ(s->modality(), Data::LABEL);
  EXPECT_TRUE(world(*s, 3, 1, 0).isApprox(Eigen::Vector3d(1.5, 0.5, 100)));
}

// Damaged and unsupported files: refused with a message that names the file and the problem.
struct Damaged {
  const char* name;
  std::function<std::string(TestKit::ScratchDir&)> bytes;
  const char* problem;
};

void PrintTo(const Damaged& d, std::ostream* os) { *os << d.name; }

std::string validFile(TestKit::ScratchDir& dir, const std::string& ext, bool compress = true) {
  auto s = TestKit::makeImage<short>({8, 8, 8}, [](int x, int y, int z) { return x * y - z; });
  IO::WriteOptions o;
  o.compress = compress;
  const std::string path = dir.file("valid" + ext);
  std::string error;
  EXPECT_TRUE(IO::writeImage(*s, path, &error, o)) << error;
  return TestKit::readBytes(path);
}

std::string half(const std::string& s) { return s.substr(0, s.size() / 2); }

const Damaged kDamaged[] = {
    {"short.nrrd", [](auto& d) { return half(validFile(d, ".nrrd", false)); }, "truncated"},
    {"cut.nrrd", [](auto& d) { return half(validFile(d, ".nrrd", true)); }, "truncated"},
    {"bzip.nrrd", [](auto&) { return std::string("NRRD0004\ntype: uchar\ndimension: 1\nsizes: 4\nencoding: bzip2\n\nxxxx"); },
     "unsupported encoding 'bzip2'"},
    {"magic.nrrd", [](auto&) { return std::string("HELLO WORLD\n"); }, "not a NRRD file"},
    {"nosizes.nrrd", [](auto&) { return std::string("NRRD0004\ntype: uchar\ndimension: 2\nencoding: raw\n\nxx"); }, "sizes"},
    {"block.nrrd", [](auto&) { return std::string("NRRD0004\ntype: block\ndimension: 1\nsizes: 1\nencoding: raw\n\nx"); },
     "unsupported type 'block'"},
    {"gunk.nrrd", [](auto&) { return std::string("NRRD0004\ntype: uchar\ndimension: 1\nsizes: 4\nencoding: gzip\n\nnot gzip"); },
     "compressed data"},
    {"orphan.nhdr", [](auto&) { return std::string("NRRD0004\ntype: uchar\ndimension: 1\nsizes: 4\nencoding: raw\ndata file: gone.raw\n"); },
     "gone.raw"},
    {"huge.nrrd", [](auto&) { return std::string("NRRD0004\ntype: double\ndimension: 3\nsizes: 100000 100000 100000\nencoding: raw\n\nx"); },
     "huge.nrrd"},
    {"short.mha", [](auto& d) { return half(validFile(d, ".mha", false)); }, "truncated"},
    {"cut.mha", [](auto& d) { return half(validFile(d, ".mha", true)); }, "truncated"},
    {"nodata.mha", [](auto&) { return std::string("ObjectType = Image\nNDims = 1\nDimSize = 1\nElementType = MET_UCHAR\n"); },
     "ElementDataFile"},
    {"long.mha", [](auto&) { return std::string("NDims = 1\nDimSize = 1\nElementType = MET_LONG_LONG\nElementDataFile = LOCAL\nx"); },
     "unsupported ElementType 'MET_LONG_LONG'"},
    {"prose.mha", [](auto&) { return std::string("This is not a header\n"); }, "not 'Key = Value'"},
    {"tiny.nii", [](auto&) { return std::string(100, 'x'); }, "too short"},
    {"noise.nii", [](auto&) { return std::string(400, 'x'); }, "not a NIfTI"},
    {"short.nii", [](auto& d) { return half(validFile(d, ".nii")); }, "truncated"},
    {"cut.nii.gz", [](auto& d) { const std::string s = validFile(d, ".nii.gz"); return s.substr(0, s.size() - 12); }, "truncated"},
    {"sig.png", [](auto&) { return std::string("\x89PNX\r\n\x1a\n0000000000000", 21); }, "not a PNG"},
    {"cut.png",
     [](auto& d) {
       auto s = TestKit::makeImage<unsigned char>({64, 64, 1}, [](int x, int y, int) { return x ^ y; });
       std::string error;
       EXPECT_TRUE(IO::writeImage(*s, d.file("valid.png"), &error));
       return half(TestKit::readBytes(d.file("valid.png")));
     },
     "cut.png"},
    {"image.xyz", [](auto&) { return std::string("whatever"); }, "unsupported file type"},
};

class DamagedFile : public testing::TestWithParam<Damaged> {};

TEST_P(DamagedFile, IsRefusedWithFileNameAndProblem) {
  TestKit::ScratchDir dir;
  const Damaged& d = GetParam();
  const std::string path = dir.file(d.name);
  TestKit::writeBytes(path, d.bytes(dir));
  std::string error;
  auto s = IO::readImage(path, &error);
  EXPECT_FALSE(s);
  EXPECT_EQ(error.rfind(d.name, 0), 0u) << error;
  EXPECT_NE(error.find(d.problem), std::string::npos) << error;
}

INSTANTIATE_TEST_SUITE_P(Files, DamagedFile, testing::ValuesIn(kDamaged),
                         [](const testing::TestParamInfo<Damaged>& i) {
                           std::string n = i.param.name;
                           for (char& c : n)
                             if (c == '.') c = '_';
                           return n;
                         });

TEST(ImageIO, MissingFileIsNamed) {
  std::string error;
  EXPECT_FALSE(IO::readImage("/nonexistent/where.nrrd", &error));
  EXPECT_EQ(error, "where.nrrd: no such file");
}

}  // namespace
