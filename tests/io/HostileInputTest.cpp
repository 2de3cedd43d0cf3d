// Inputs made to hurt: things that are not files, headers that point outside their file or
// hold non-finite geometry, chunks that claim gigabytes, bytes that must not reach a message,
// and the temporaries of a run that was killed.
#include <gtest/gtest.h>
#include <nifti1.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <Eigen/Geometry>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>

#include "ImageIO.h"
#include "IoTestUtil.h"
#include "IoUtil.h"
#include "Mesh.h"
#include "MeshIO.h"
#include "SharedImageSet.h"
#include "TestSupport.h"

using namespace Merivane;

namespace {

std::string readError(const std::string& path) {
  std::string error;
  if (IO::isMeshPath(path)) {
    EXPECT_FALSE(IO::readMesh(path, &error));
  } else {
    EXPECT_FALSE(IO::readImage(path, &error));
  }
  return error;
}

// --- Things that are not regular files ---------------------------------------------------

struct NotAFile {
  const char* name;
  std::function<std::string(const TestKit::ScratchDir&)> make;  // returns the path
  const char* message;
};
void PrintTo(const NotAFile& n, std::ostream* os) { *os << n.name; }

const NotAFile kNotFiles[] = {
    {"Directory", [](auto& d) { std::filesystem::create_directory(d.file("d.nii")); return d.file("d.nii"); },
     "d.nii: is a directory"},
    {"DirectoryAsMesh", [](auto& d) { std::filesystem::create_directory(d.file("d.obj")); return d.file("d.obj"); },
     "d.obj: is a directory"},
    {"Fifo", [](auto& d) { ::mkfifo(d.file("f.nrrd").c_str(), 0600); return d.file("f.nrrd"); },
     "f.nrrd: is not a regular file"},
    {"FifoAsMesh", [](auto& d) { ::mkfifo(d.file("f.ply").c_str(), 0600); return d.file("f.ply"); },
     "f.ply: is not a regular file"},
    {"Device", [](auto&) { return std::string("/dev/zero"); }, "zero: is not a regular file"},
    {"Missing", [](auto& d) { return d.file("gone.mha"); }, "gone.mha: no such file"},
};

class NotARegularFile : public testing::TestWithParam<NotAFile> {};

TEST_P(NotARegularFile, IsReportedForWhatItIs) {
  TestKit::ScratchDir dir;
  EXPECT_EQ(readError(GetParam().make(dir)), GetParam().message);
}

INSTANTIATE_TEST_SUITE_P(Kinds, NotARegularFile, testing::ValuesIn(kNotFiles),
                         [](const auto& i) { return std::string(i.param.name); });

// --- NIfTI: where the data starts, and damaged transforms -------------------------------

std::unique_ptr<SharedImageSet> obliqueShorts() {
  auto s = TestKit::makeImage<short>({4, 3, 2}, [](int x, int y, int z) { return x + 4 * y + 12 * z; });
  Eigen::Matrix4d m = Eigen::Matrix4d::Identity();
  m.block<3, 3>(0, 0) = Eigen::AngleAxisd(0.5, Eigen::Vector3d(0, 0, 1)).toRotationMatrix();
  m.block<3, 1>(0, 3) = Eigen::Vector3d(5, -7, 11);
  s->get(0)->setSpacing(Eigen::Vector3d(0.5, 1.0, 2.0));
  s->get(0)->setMatrix(m);
  return s;
}

std::string writtenNifti(const TestKit::ScratchDir& dir) {
  std::string error;
  EXPECT_TRUE(IO::writeImage(*obliqueShorts(), dir.file("w.nii"), &error)) << error;
  return TestKit::readBytes(dir.file("w.nii"));
}

template <typename T>
void patch(std::string& bytes, size_t offset, T value) {
  std::memcpy(bytes.data() + offset, &value, sizeof(T));
}

class NiftiVoxOffset : public testing::TestWithParam<float> {};

TEST_P(NiftiVoxOffset, OutsideTheFileOrInsideTheHeaderIsRefused) {
  TestKit::ScratchDir dir;
  std::string bytes = writtenNifti(dir);
  patch(bytes, offsetof(nifti_1_header, vox_offset), GetParam());
  TestKit::writeBytes(dir.file("off.nii"), bytes);
  const std::string error = readError(dir.file("off.nii"));
  EXPECT_EQ(error.rfind("off.nii: vox_offset", 0), 0u) << error;
}

INSTANTIATE_TEST_SUITE_P(Values, NiftiVoxOffset,
                         testing::Values(1e12f, -100.0f, std::numeric_limits<float>::quiet_NaN(),
                                         std::numeric_limits<float>::infinity(), 0.0f, 100.0f));

struct BadSform {
  const char* name;
  float value;   // written into every sform entry
  bool qform;    // qform_code kept
};
void PrintTo(const BadSform& b, std::ostream* os) { *os << b.name; }

class NiftiDamagedSform : public testing::TestWithParam<BadSform> {};

TEST_P(NiftiDamagedSform, FallsBackToTheQformOrThePixelSizes) {
  TestKit::ScratchDir dir;
  std::string bytes = writtenNifti(dir);
  for (size_t k = 0; k < 12; ++k) patch(bytes, offsetof(nifti_1_header, srow_x) + 4 * k, GetParam().value);
  if (!GetParam().qform) patch<short>(bytes, offsetof(nifti_1_header, qform_code), 0);
  TestKit::writeBytes(dir.file("s.nii"), bytes);
  std::string error;
  auto s = IO::readImage(dir.file("s.nii"), &error);
  ASSERT_TRUE(s) << error;
  EXPECT_TRUE(s->img(0)->spacing().isApprox(Eigen::Vector3d(0.5, 1.0, 2.0))) << s->img(0)->spacing().transpose();
  const Eigen::Matrix4d m = s->get(0)->matrix();
  ASSERT_TRUE(m.allFinite());
  if (GetParam().qform) {
    // The writer stores the same geometry in both: the qform gives it back exactly.
    EXPECT_TRUE(m.isApprox(obliqueShorts()->get(0)->matrix(), 1e-5)) << m;
  } else {
    // Pixel sizes only: RAS axes, which are LPS with x and y reversed, and no rotation.
    const Eigen::Matrix3d rasAxes = Eigen::Vector3d(-1, -1, 1).asDiagonal();
    EXPECT_TRUE((m.block<3, 3>(0, 0).isApprox(rasAxes))) << m;
  }
}

INSTANTIATE_TEST_SUITE_P(Cases, NiftiDamagedSform,
                         testing::Values(BadSform{"NaNToQform", std::numeric_limits<float>::quiet_NaN(), true},
                                         BadSform{"InfinityToQform", std::numeric_limits<float>::infinity(), true},
                                         BadSform{"ZeroToQform", 0.0f, true},
                                         BadSform{"NaNToPixelSizes", std::numeric_limits<float>::quiet_NaN(), false},
                                         BadSform{"ZeroToPixelSizes", 0.0f, false}),
                         [](const auto& i) { return std::string(i.param.name); });

// --- NRRD and MetaImage geometry ---------------------------------------------------------

const std::string kBytes8(8, '\x07');

TEST(NrrdGeometry, NonFiniteOriginOrDirectionsAreRefused) {
  TestKit::ScratchDir dir;
  const std::string head = "NRRD0004\ntype: uchar\ndimension: 3\nsizes: 2 2 2\nencoding: raw\n";
  for (const std::string& field : {std::string("space origin: (inf,0,0)"), std::string("space origin: (0,nan,0)"),
                                   std::string("space directions: (1,0,0) (0,1e999,0) (0,0,1)")}) {
    TestKit::writeBytes(dir.file("g.nrrd"), head + field + "\n\n" + kBytes8);
    const std::string error = readError(dir.file("g.nrrd"));
    EXPECT_NE(error.find("not finite"), std::string::npos) << field << ": " << error;
  }
}

TEST(NrrdGeometry, NegativeSpacingFlipsTheAxis) {
  TestKit::ScratchDir dir;
  TestKit::writeBytes(dir.file("neg.nrrd"),
                      "NRRD0004\ntype: uchar\ndimension: 3\nsizes: 2 2 2\nspacings: -2 1 3\nencoding: raw\n\n" + kBytes8);
  std::string error;
  auto s = IO::readImage(dir.file("neg.nrrd"), &error);
  ASSERT_TRUE(s) << error;
  EXPECT_TRUE(s->img(0)->spacing().isApprox(Eigen::Vector3d(2, 1, 3)));
  const Eigen::Vector3d step = s->get(0)->pixelToWorld(Eigen::Vector3d(1, 0, 0)) - s->get(0)->pixelToWorld(Eigen::Vector3d(0, 0, 0));
  EXPECT_TRUE(step.isApprox(Eigen::Vector3d(-2, 0, 0))) << step.transpose();
}

TEST(NrrdGeometry, ZeroOrInfiniteSpacingIsRefused) {
  TestKit::ScratchDir dir;
  for (const char* spacings : {"0 1 1", "1 inf 1"}) {
    TestKit::writeBytes(dir.file("z.nrrd"), std::string("NRRD0004\ntype: uchar\ndimension: 3\nsizes: 2 2 2\nspacings: ") +
                                                 spacings + "\nencoding: raw\n\n" + kBytes8);
    EXPECT_NE(readError(dir.file("z.nrrd")).find("not usable"), std::string::npos) << spacings;
  }
}

// Found by the fuzzer: converting 164836 to short is undefined behaviour.
TEST(NrrdAscii, ValuesOutsideTheTypeAreRefused) {
  TestKit::ScratchDir dir;
  for (const std::string& values : {std::string("1 164836"), std::string("-32769 0"), std::string("0 1e300")}) {
    TestKit::writeBytes(dir.file("a.nrrd"), "NRRD0004\ntype: short\ndimension: 1\nsizes: 2\nencoding: ascii\n\n" + values);
    EXPECT_NE(readError(dir.file("a.nrrd")).find("lies outside the range of type 'short'"), std::string::npos) << values;
  }
  TestKit::writeBytes(dir.file("f.nrrd"), "NRRD0004\ntype: float\ndimension: 1\nsizes: 3\nencoding: ascii\n\n1e39 0 0");
  EXPECT_NE(readError(dir.file("f.nrrd")).find("outside the range"), std::string::npos);
  TestKit::writeBytes(dir.file("ok.nrrd"), "NRRD0004\ntype: short\ndimension: 1\nsizes: 2\nencoding: ascii\n\n-32768 32767");
  std::string error;
  auto s = IO::readImage(dir.file("ok.nrrd"), &error);
  ASSERT_TRUE(s) << error;
  EXPECT_EQ(static_cast<const short*>(s->mem(0)->data())[1], 32767);
}

TEST(MetaImageGeometry, NegativeZeroOrNonFiniteValuesAreRefused) {
  TestKit::ScratchDir dir;
  for (const std::string& line : {std::string("ElementSpacing = -1 1 1"), std::string("ElementSpacing = 1 0 1"),
                                  std::string("Offset = 0 inf 0"), std::string("TransformMatrix = 1 0 0 0 nan 0 0 0 1")}) {
    TestKit::writeBytes(dir.file("m.mha"), "NDims = 3\nDimSize = 2 2 2\nElementType = MET_UCHAR\n" + line +
                                                "\nElementDataFile = LOCAL\n" + kBytes8);
    const std::string error = readError(dir.file("m.mha"));
    EXPECT_EQ(error.rfind("m.mha: ", 0), 0u) << error;
    EXPECT_TRUE(error.find("positive") != std::string::npos || error.find("not finite") != std::string::npos)
        << line << ": " << error;
  }
}

// --- PNG chunks --------------------------------------------------------------------------

std::string chunk(const std::string& type, const std::string& data, uint32_t claimedLength) {
  std::string out;
  for (int s = 24; s >= 0; s -= 8) out += static_cast<char>((claimedLength >> s) & 0xff);
  std::string body = type + data;
  out += body;
  const uLong crc = crc32(0, reinterpret_cast<const Bytef*>(body.data()), static_cast<uInt>(body.size()));
  for (int s = 24; s >= 0; s -= 8) out += static_cast<char>((crc >> s) & 0xff);
  return out;
}

TEST(PngChunks, TextChunkClaimingGigabytesIsRefusedBeforeAllocating) {
  TestKit::ScratchDir dir;
  // 1 x 1 gray, then a tEXt chunk that claims 0x7FFFFFF0 bytes and holds three: 44 bytes.
  std::string png = std::string("\x89PNG\r\n\x1a\n", 8) +
                    chunk("IHDR", std::string("\0\0\0\1\0\0\0\1\x08\0\0\0\0", 13), 13);
  png += std::string("\x7f\xff\xff\xf0tEXtabc", 11);
  ASSERT_EQ(png.size(), 44u);
  TestKit::writeBytes(dir.file("bomb.png"), png);
  // Run under a 256 MB address-space limit in a child: a 2 GB allocation would fail there.
  const pid_t child = fork();
  if (child == 0) {
    struct rlimit limit {256u << 20, 256u << 20};
    setrlimit(RLIMIT_AS, &limit);
    std::string error;
    auto s = IO::readImage(dir.file("bomb.png"), &error);
    _exit(!s && error == "bomb.png: file is truncated: chunk 'tEXt' claims 2147483632 bytes, 3 remain" ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_NE(readError(dir.file("bomb.png")).find("bomb.png: "), std::string::npos);
}

TEST(PngChunks, TruncatedFileSaysSo) {
  TestKit::ScratchDir dir;
  auto s = TestKit::makeImage<unsigned char>({64, 64, 1}, [](int x, int y, int) { return (x * 7) ^ (y * 13); });
  std::string error;
  ASSERT_TRUE(IO::writeImage(*s, dir.file("full.png"), &error)) << error;
  const std::string bytes = TestKit::readBytes(dir.file("full.png"));
  for (size_t keep : {size_t{20}, size_t{40}, bytes.size() / 2, bytes.size() - 5}) {
    TestKit::writeBytes(dir.file("cut.png"), bytes.substr(0, keep));
    EXPECT_EQ(readError(dir.file("cut.png")).rfind("cut.png: file is truncated", 0), 0u) << keep << " bytes";
  }
}

// --- Compressed streams ------------------------------------------------------------------

std::string gzipped(const std::string& data) {
  std::string out;
  EXPECT_TRUE(IO::detail::deflateBytes(data.data(), data.size(), out, true));
  return out;
}

TEST(Inflate, TrailingBytesAreNamedAsSuchAndMembersMayFollow) {
  const std::string data = "0123456789abcdef";
  std::string out, error;
  const std::string one = gzipped(data);
  EXPECT_TRUE(IO::detail::inflateBytes(one.data(), one.size(), out, data.size(), &error)) << error;
  EXPECT_EQ(out, data);

  const std::string trailing = one + "JUNK";
  EXPECT_FALSE(IO::detail::inflateBytes(trailing.data(), trailing.size(), out, data.size(), &error));
  EXPECT_EQ(error, "4 bytes of trailing data after the compressed stream");
  EXPECT_FALSE(IO::detail::inflateBytes(trailing.data(), trailing.size(), out, 0, &error));
  EXPECT_NE(error.find("trailing data"), std::string::npos);

  const std::string two = one + gzipped(data);
  EXPECT_TRUE(IO::detail::inflateBytes(two.data(), two.size(), out, 0, &error)) << error;
  EXPECT_EQ(out, data + data);
  EXPECT_FALSE(IO::detail::inflateBytes(two.data(), two.size(), out, data.size(), &error));
  EXPECT_NE(error.find("more than"), std::string::npos) << error;

  const std::string cut = one.substr(0, one.size() - 6);
  EXPECT_FALSE(IO::detail::inflateBytes(cut.data(), cut.size(), out, data.size(), &error));
  EXPECT_NE(error.find("truncated"), std::string::npos) << error;
}

// --- Messages quote short escaped excerpts -----------------------------------------------

struct Quoting {
  const char* name;
  std::string bytes;
};
void PrintTo(const Quoting& q, std::ostream* os) { *os << q.name; }

const std::string kHostile = "\x1b[2J\x1b]0;owned\x07" + std::string(1 << 20, 'A');

class MessageQuoting : public testing::TestWithParam<Quoting> {};

TEST_P(MessageQuoting, EchoesNoEscapeCodesAndNoMegabytes) {
  TestKit::ScratchDir dir;
  TestKit::writeBytes(dir.file(GetParam().name), GetParam().bytes);
  const std::string error = readError(dir.file(GetParam().name));
  EXPECT_EQ(error.rfind(GetParam().name, 0), 0u) << error.substr(0, 200);
  EXPECT_LT(error.size(), 200u);
  for (char c : error) EXPECT_TRUE(c >= 0x20 && c < 0x7f) << "byte " << int(c) << " in the message";
  EXPECT_NE(error.find("\\x1B[2J"), std::string::npos) << error;
}

INSTANTIATE_TEST_SUITE_P(Formats, MessageQuoting,
                         testing::Values(Quoting{"line.nrrd", "NRRD0004\n" + kHostile + "\n\n"},
                                         Quoting{"type.nrrd", "NRRD0004\ntype: " + kHostile + "\n\n"},
                                         Quoting{"type.mha", "NDims = 1\nDimSize = 1\nElementType = " + kHostile +
                                                                 "\nElementDataFile = LOCAL\nx"},
                                         Quoting{"face.obj", "v 0 0 0\nf 1 1 " + kHostile + "\n"},
                                         Quoting{"format.ply", "ply\nformat " + kHostile + "\nend_header\n"}),
                         [](const auto& i) {
                           std::string n = i.param.name;
                           for (char& c : n)
                             if (c == '.') c = '_';
                           return n;
                         });

// --- OBJ face indices ---------------------------------------------------------------------

class ObjFaceIndex : public testing::TestWithParam<const char*> {};

TEST_P(ObjFaceIndex, OutOfRangeIsRefused) {
  TestKit::ScratchDir dir;
  TestKit::writeBytes(dir.file("f.obj"), std::string("v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 ") + GetParam() + "\n");
  const std::string error = readError(dir.file("f.obj"));
  EXPECT_NE(error.find("f.obj: line 4: face index"), std::string::npos) << error;
  EXPECT_NE(error.find("out of range"), std::string::npos) << error;
}

INSTANTIATE_TEST_SUITE_P(Indices, ObjFaceIndex,
                         testing::Values("99999999999999999999", "4294967299", "2147483648", "4", "0", "-4", "x",
                                         "-99999999999999999999//1"));

TEST(ObjFaceIndex, RelativeIndicesCountBackFromTheLastVertex) {
  TestKit::ScratchDir dir;
  TestKit::writeBytes(dir.file("r.obj"), "v 0 0 0\nv 1 0 0\nv 0 1 0\nf -3 -2 -1\n");
  std::string error;
  auto mesh = IO::readMesh(dir.file("r.obj"), &error);
  ASSERT_TRUE(mesh) << error;
  ASSERT_EQ(mesh->faces.size(), 1u);
  EXPECT_EQ(mesh->faces[0], Eigen::Vector3i(0, 1, 2));
}

// --- Temporaries of a killed run ----------------------------------------------------------

pid_t deadProcess() {
  const pid_t child = fork();
  if (child == 0) _exit(0);
  waitpid(child, nullptr, 0);
  return child;
}

TEST(Temporaries, ThoseOfAProcessThatIsGoneAreRemovedByTheNextWrite) {
  TestKit::ScratchDir dir;
  const std::string dead = ".seg.merivane-tmp" + std::to_string(deadProcess()) + "-0.nii.gz";
  const std::string alive = ".seg.merivane-tmp" + std::to_string(::getppid()) + "-3.nrrd";
  const std::string foreign = ".seg.merivane-tmp.nrrd";  // not our pattern
  const std::string plain = "seg.merivane-tmp1-0.nrrd";  // not hidden
  // A user's hidden file that merely looks numbered, with no process behind the number.
  const std::string users = ".notes.tmp" + std::to_string(deadProcess()) + "-11.txt";
  for (const std::string& name : {dead, alive, foreign, plain, users}) TestKit::writeBytes(dir.file(name), "x");
  std::filesystem::create_directory(dir.file(".dir.merivane-tmp" + std::to_string(deadProcess()) + "-0"));

  std::string error;
  ASSERT_TRUE(IO::writeImage(*obliqueShorts(), dir.file("out.nrrd"), &error)) << error;
  EXPECT_FALSE(std::filesystem::exists(dir.file(dead)));
  for (const std::string& name : {alive, foreign, plain, users})
    EXPECT_TRUE(std::filesystem::exists(dir.file(name))) << name;
  EXPECT_EQ(dir.entries(), 6);  // out.nrrd, four kept files and the directory
}

}  // namespace
