// DICOM series and Segmentation objects: series written here with DCMTK, slice by slice, with
// known positions and values; label maps through Segmentation objects and back.
#include "DicomTestSeries.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <Eigen/Geometry>
#include <algorithm>
#include <random>

#include "DicomIO.h"
#include "DicomSeriesComponent.h"
#include "ImageIO.h"
#include "IoTestUtil.h"
#include "LabelDataComponent.h"
#include "SharedImageSet.h"

using namespace Merivane;
using namespace Merivane::TestKit;
using Vec3 = Eigen::Vector3d;

namespace {

Sint16 voxel(const SharedImageSet& set, int x, int y, int z) {
  const auto& d = set.mem(0)->descriptor();
  return static_cast<const Sint16*>(set.mem(0)->data())[(static_cast<size_t>(z) * d.height() + y) * d.width() + x];
}

struct GeometryCase {
  const char* name;
  Vec3 row, column;
  double step;           // negative: slice numbers run against the normal
  double thickness;
  int slices;
};

class DicomSeriesGeometry : public testing::TestWithParam<GeometryCase> {};

TEST_P(DicomSeriesGeometry, SlicesFollowTheNormalAndVoxelsLandAtTheirPatientPositions) {
  const GeometryCase& c = GetParam();
  TestKit::ScratchDir dir;
  SeriesSpec s;
  s.row = c.row.normalized();
  s.column = c.column.normalized();
  s.step = c.step;
  s.sliceThickness = c.thickness;
  s.slices = c.slices;
  writeSeries(dir.file("ct"), s);
  std::string error;
  auto set = IO::readImage(dir.file("ct"), &error);
  ASSERT_TRUE(set) << error;
  const auto& d = set->mem(0)->descriptor();
  ASSERT_EQ(d.dimensions, Eigen::Vector3i(s.columns, s.rows, s.slices));
  EXPECT_EQ(d.pixelType, I16);
  EXPECT_EQ(set->modality(), Data::CT);
  // Slice k of the image is the k-th position along the normal, whatever the slice numbers.
  for (int k = 0; k < s.slices; ++k) {
    const int z = c.step > 0 ? k : s.slices - 1 - k;
    for (int y = 0; y < s.rows; ++y)
      for (int x = 0; x < s.columns; ++x) {
        ASSERT_EQ(voxel(*set, x, y, k), SeriesSpec::stored(x, y, z)) << x << " " << y << " " << k;
        const Vec3 expected = s.position(z) + x * s.columnSpacing * s.row + y * s.rowSpacing * s.column;
        ASSERT_LT((set->get(0)->pixelToWorld(Vec3(x, y, k)) - expected).norm(), 1e-6) << x << " " << y << " " << k;
      }
  }
  if (s.slices > 1) {
    EXPECT_NEAR(d.spacing[2], std::abs(c.step), 1e-9);  // positions, not SliceThickness
  }
  const auto* record = set->components().get<DicomSeriesComponent>();
  ASSERT_TRUE(record);
  EXPECT_EQ(record->seriesInstanceUid, s.seriesUid);
  ASSERT_EQ(record->sopInstanceUids.size(), static_cast<size_t>(s.slices));
  EXPECT_EQ(record->sopInstanceUids.front(), s.sopUid(c.step > 0 ? 0 : s.slices - 1));
}

INSTANTIATE_TEST_SUITE_P(
    Orientations, DicomSeriesGeometry,
    testing::Values(GeometryCase{"Axial", Vec3::UnitX(), Vec3::UnitY(), 2.5, 2.5, 5},
                    GeometryCase{"ThickSlicesCloserThanTheirThickness", Vec3::UnitX(), Vec3::UnitY(), 1.25, 5.0, 7},
                    GeometryCase{"Oblique", Vec3(0.8, 0.6, 0.0), Vec3(-0.36, 0.48, 0.8), 1.5, 1.5, 9},
                    GeometryCase{"ObliqueNumberedAgainstTheNormal", Vec3(0.8, 0.6, 0.0), Vec3(-0.36, 0.48, 0.8), -2.0,
                                 2.0, 6},
                    GeometryCase{"Coronal", Vec3::UnitX(), -Vec3::UnitZ(), 3.0, 3.0, 4},
                    GeometryCase{"SingleSlice", Vec3::UnitX(), Vec3::UnitY(), 2.5, 2.5, 1}),
    [](const auto& info) { return std::string(info.param.name); });

class DicomSeriesThreads : public testing::TestWithParam<int> {};

TEST_P(DicomSeriesThreads, OneThreadReadsTheSameVoxelsAsMany) {
  TestKit::ScratchDir dir;
  SeriesSpec s;
  s.slices = GetParam();
  s.row = Vec3(0.6, 0.0, 0.8);
  s.column = Vec3(0, 1, 0);
  writeSeries(dir.file("ct"), s, 11);
  std::string error;
  auto parallel = IO::readImage(dir.file("ct"), &error);
  ASSERT_TRUE(parallel) << error;
  const int threads = omp_get_max_threads();
  omp_set_num_threads(1);
  auto serial = IO::readImage(dir.file("ct"), &error);
  omp_set_num_threads(threads);
  ASSERT_TRUE(serial) << error;
  const size_t bytes = serial->mem(0)->descriptor().byteSize();
  ASSERT_EQ(bytes, parallel->mem(0)->descriptor().byteSize());
  EXPECT_EQ(std::memcmp(serial->mem(0)->data(), parallel->mem(0)->data(), bytes), 0);
  EXPECT_TRUE(serial->get(0)->matrix().isApprox(parallel->get(0)->matrix(), 1e-12));
}

INSTANTIATE_TEST_SUITE_P(SliceCounts, DicomSeriesThreads, testing::Values(1, 7, 9, 33));

TEST(DicomSeries, RescaleBecomesShiftAndScaleOfThePhysicalValues) {
  TestKit::ScratchDir dir;
  SeriesSpec s;
  s.slope = 2.0;
  s.intercept = -1024.0;
  writeSeries(dir.file("ct"), s);
  std::string error;
  auto set = IO::readImage(dir.file("ct"), &error);
  ASSERT_TRUE(set) << error;
  const auto& d = set->mem(0)->descriptor();
  for (int z = 0; z < s.slices; ++z)
    EXPECT_DOUBLE_EQ(d.toPhysical(voxel(*set, 3, 2, z)), SeriesSpec::stored(3, 2, z) * 2.0 - 1024.0);
}

TEST(DicomSeries, SlicesWithTheirOwnRescaleAreConvertedToPhysicalValues) {
  TestKit::ScratchDir dir;
  SeriesSpec s;
  std::filesystem::create_directories(dir.file("pt"));
  for (int z = 0; z < s.slices; ++z) {
    s.slope = 0.5 * (z + 1);
    writeSlice(dir.file("pt/" + std::to_string(z)), s, z);
  }
  std::string error;
  auto set = IO::readImage(dir.file("pt"), &error);
  ASSERT_TRUE(set) << error;
  ASSERT_EQ(set->mem(0)->type(), F32);
  const auto* p = static_cast<const float*>(set->mem(0)->data());
  for (int z = 0; z < s.slices; ++z)
    EXPECT_FLOAT_EQ(p[(z * s.rows + 1) * s.columns + 2], static_cast<float>(SeriesSpec::stored(2, 1, z) * 0.5 * (z + 1)));
}

TEST(DicomSeries, MissingSliceIsNamedByItsPosition) {
  TestKit::ScratchDir dir;
  SeriesSpec s;
  s.origin = Vec3(0, 0, 0);
  s.slices = 7;
  std::filesystem::create_directories(dir.file("ct"));
  for (int z = 0; z < s.slices; ++z)
    if (z != 3) writeSlice(dir.file("ct/s" + std::to_string(z)), s, z);
  std::string error;
  EXPECT_FALSE(IO::readImage(dir.file("ct"), &error));
  EXPECT_NE(error.find("ct: "), std::string::npos) << error;
  EXPECT_NE(error.find("missing at (0, 0, 7.5) mm"), std::string::npos) << error;
}

TEST(DicomSeries, InconsistentOrientationNamesTheFile) {
  TestKit::ScratchDir dir;
  SeriesSpec s;
  writeSeries(dir.file("ct"), s);
  writeSlice(dir.file("ct/odd"), s, 2, "1\\0\\0\\0\\0.6\\0.8");
  std::filesystem::remove(dir.file("ct/IM1000"));  // keep one file per position
  std::string error;
  EXPECT_FALSE(IO::readImage(dir.file("ct"), &error));
  EXPECT_NE(error.find("orientation"), std::string::npos) << error;
  EXPECT_NE(error.find("odd"), std::string::npos) << error;
}

TEST(DicomSeries, TwoSeriesInOneFolderAreListedAndChosenByUid) {
  TestKit::ScratchDir dir;
  SeriesSpec ct;
  const SeriesSpec mr = TestKit::mrBeside(ct);
  writeSeries(dir.file("mixed"), ct, 1, "A");
  writeSeries(dir.file("mixed"), mr, 2, "B");
  TestKit::writeBytes(dir.file("mixed/notes.txt"), "not DICOM");

  std::vector<IO::DicomSeriesInfo> list;
  std::string error;
  ASSERT_TRUE(IO::listDicomSeries(dir.file("mixed"), list, &error)) << error;
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[0].seriesInstanceUid, ct.seriesUid);
  EXPECT_EQ(list[0].modality, "CT");
  EXPECT_EQ(list[0].files, 5);
  EXPECT_EQ(list[1].seriesInstanceUid, mr.seriesUid);
  EXPECT_EQ(list[1].description, "T1");
  EXPECT_EQ(list[1].width, 3);
  EXPECT_EQ(list[1].slices, 2);

  EXPECT_FALSE(IO::readImage(dir.file("mixed"), &error));
  EXPECT_NE(error.find(ct.seriesUid), std::string::npos) << error;
  EXPECT_NE(error.find(mr.seriesUid), std::string::npos) << error;

  auto set = IO::readDicomSeries(dir.file("mixed"), mr.seriesUid, &error);
  ASSERT_TRUE(set) << error;
  EXPECT_EQ(set->mem(0)->descriptor().dimensions, Eigen::Vector3i(3, 4, 2));
  EXPECT_EQ(set->modality(), Data::MRI);
  // One file stands for its series in its folder.
  auto fromFile = IO::readImage(dir.file("mixed/B1000"), &error);
  ASSERT_TRUE(fromFile) << error;
  EXPECT_EQ(fromFile->mem(0)->descriptor().dimensions, Eigen::Vector3i(3, 4, 2));
  EXPECT_FALSE(IO::readDicomSeries(dir.file("mixed"), "1.2.3", &error));
  EXPECT_NE(error.find("no series 1.2.3"), std::string::npos) << error;
}

TEST(DicomSeries, EnhancedMultiFrameFileIsSortedByItsPerFramePositions) {
  TestKit::ScratchDir dir;
  SeriesSpec s;
  s.slices = 4;
  const int order[] = {2, 0, 3, 1};  // frame -> slice along the normal
  DcmFileFormat ff;
  DcmDataset& ds = *ff.getDataset();
  putCommon(ds, s);
  ds.putAndInsertString(DCM_SOPClassUID, UID_EnhancedCTImageStorage);
  ds.putAndInsertString(DCM_SOPInstanceUID, (s.seriesUid + ".100").c_str());
  ds.putAndInsertString(DCM_NumberOfFrames, "4");
  DcmItem* shared = nullptr;
  ASSERT_TRUE(ds.findOrCreateSequenceItem(DCM_SharedFunctionalGroupsSequence, shared, 0).good());
  DcmItem* item = nullptr;
  shared->findOrCreateSequenceItem(DCM_PixelMeasuresSequence, item, 0);
  item->putAndInsertString(DCM_PixelSpacing, "0.9\\0.7");
  item->putAndInsertString(DCM_SliceThickness, "9");
  shared->findOrCreateSequenceItem(DCM_PlaneOrientationSequence, item, 0);
  item->putAndInsertString(DCM_ImageOrientationPatient, "1\\0\\0\\0\\1\\0");
  shared->findOrCreateSequenceItem(DCM_PixelValueTransformationSequence, item, 0);
  item->putAndInsertString(DCM_RescaleSlope, "1");
  item->putAndInsertString(DCM_RescaleIntercept, "-1000");
  std::vector<Uint16> pixels;
  for (int f = 0; f < 4; ++f) {
    DcmItem* perFrame = nullptr;
    ds.findOrCreateSequenceItem(DCM_PerFrameFunctionalGroupsSequence, perFrame, f);
    perFrame->findOrCreateSequenceItem(DCM_PlanePositionSequence, item, 0);
    item->putAndInsertString(DCM_ImagePositionPatient, ds3(s.position(order[f])).c_str());
    for (int y = 0; y < s.rows; ++y)
      for (int x = 0; x < s.columns; ++x) pixels.push_back(static_cast<Uint16>(SeriesSpec::stored(x, y, order[f])));
  }
  ds.putAndInsertUint16Array(DCM_PixelData, pixels.data(), static_cast<unsigned long>(pixels.size()));
  ASSERT_TRUE(ff.saveFile(dir.file("enhanced.dcm").c_str(), EXS_LittleEndianExplicit).good());

  std::string error;
  auto set = IO::readImage(dir.file("enhanced.dcm"), &error);
  ASSERT_TRUE(set) << error;
  ASSERT_EQ(set->mem(0)->descriptor().dimensions, Eigen::Vector3i(s.columns, s.rows, 4));
  for (int z = 0; z < 4; ++z) EXPECT_EQ(voxel(*set, 4, 3, z), SeriesSpec::stored(4, 3, z));
  EXPECT_NEAR(set->mem(0)->descriptor().spacing[2], s.step, 1e-9);
  EXPECT_DOUBLE_EQ(set->mem(0)->descriptor().toPhysical(0), -1000.0);
  const auto* record = set->components().get<DicomSeriesComponent>();
  ASSERT_TRUE(record);
  EXPECT_EQ(record->frameNumbers, (std::vector<int>{2, 4, 1, 3}));
}

struct BadInput {
  const char* name;
  std::function<std::string(const TestKit::ScratchDir&)> make;  // returns the path to read
  const char* expected;
};

class DicomSeriesFailure : public testing::TestWithParam<BadInput> {};

TEST_P(DicomSeriesFailure, ReaderRefusesWithTheFolderOrFileAndTheProblem) {
  TestKit::ScratchDir dir;
  const std::string path = GetParam().make(dir);
  std::string error;
  EXPECT_FALSE(IO::readDicomSeries(path, "", &error));
  EXPECT_NE(error.find(GetParam().expected), std::string::npos) << error;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, DicomSeriesFailure,
    testing::Values(
        BadInput{"EmptyFolder",
                 [](const TestKit::ScratchDir& d) {
                   std::filesystem::create_directories(d.file("empty"));
                   return d.file("empty");
                 },
                 "empty: no DICOM image series (0 files"},
        BadInput{"OnlyOtherFiles",
                 [](const TestKit::ScratchDir& d) {
                   std::filesystem::create_directories(d.file("docs"));
                   TestKit::writeBytes(d.file("docs/a.dcm"), "hello");
                   TestKit::writeBytes(d.file("docs/b.txt"), std::string(200, 'x'));
                   return d.file("docs");
                 },
                 "docs: no DICOM image series (2 files, 0 of them DICOM)"},
        BadInput{"NoSuchFolder", [](const TestKit::ScratchDir& d) { return d.file("nowhere"); },
                 "nowhere: no such file or folder"},
        BadInput{"NotDicomFile",
                 [](const TestKit::ScratchDir& d) {
                   TestKit::writeBytes(d.file("x.dcm"), std::string(300, 'a'));
                   return d.file("x.dcm");
                 },
                 "x.dcm: not a DICOM file"},
        BadInput{"TruncatedPixelData",
                 [](const TestKit::ScratchDir& d) {
                   SeriesSpec s;
                   writeSeries(d.file("ct"), s);
                   const std::string bytes = TestKit::readBytes(d.file("ct/IM1002"));
                   TestKit::writeBytes(d.file("ct/IM1002"), bytes.substr(0, bytes.size() - 20));
                   return d.file("ct");
                 },
                 "IM1002"},
        BadInput{"TwoSlicesAtOnePosition",
                 [](const TestKit::ScratchDir& d) {
                   SeriesSpec s;
                   writeSeries(d.file("ct"), s);
                   writeSlice(d.file("ct/copy"), s, 1);
                   return d.file("ct");
                 },
                 "two slices at the same position"},
        BadInput{"UnevenSpacing",
                 [](const TestKit::ScratchDir& d) {
                   SeriesSpec s;
                   s.slices = 3;
                   writeSeries(d.file("ct"), s);
                   s.step = 3.7;  // slice 3 at 11.1 mm: 6.1 mm after slice 2 where the others are 2.5
                   writeSlice(d.file("ct/far"), s, 3);
                   return d.file("ct");
                 },
                 "uneven slice spacing"}),
    [](const auto& info) { return std::string(info.param.name); });

// ---- Segmentation objects ----

std::unique_ptr<SharedImageSet> labelMap(const Eigen::Vector3i& dims, const Eigen::Matrix4d& matrix, const Vec3& spacing) {
  auto img = TypedImage<unsigned char>::create(dims, 1);
  auto* p = img->pointer();
  for (int z = 0; z < dims[2]; ++z)
    for (int y = 0; y < dims[1]; ++y)
      for (int x = 0; x < dims[0]; ++x) {
        unsigned char v = 0;
        if (z >= 1 && z + 1 < dims[2]) v = x < 2 ? 2 : (x + y) % 3 == 0 ? 7 : 0;  // first and last slice empty
        p[(static_cast<size_t>(z) * dims[1] + y) * dims[0] + x] = v;
      }
  img->setSpacing(spacing);
  auto set = std::make_unique<SharedImageSet>();
  set->add(std::shared_ptr<Image>(std::move(img)), matrix);
  set->setModality(Data::LABEL);
  auto* labels = set->components().getOrCreate<LabelDataComponent>(set.get());
  LabelDataComponent::LabelConfig liver;
  liver.name = "Liver";
  liver.color = Eigen::Vector4d(0.8, 0.3, 0.2, 1.0);
  labels->setLabelConfig(2, liver);
  LabelDataComponent::LabelConfig tumour;
  tumour.name = "Tumour";
  tumour.color = Eigen::Vector4d(0.1, 0.9, 0.4, 1.0);
  labels->setLabelConfig(7, tumour);
  return set;
}

void expectSameLabels(const SharedImageSet& a, const SharedImageSet& b) {
  const auto& da = a.mem(0)->descriptor();
  ASSERT_EQ(da.dimensions, b.mem(0)->descriptor().dimensions);
  EXPECT_EQ(std::memcmp(a.mem(0)->data(), b.mem(0)->data(), da.byteSize()), 0);
  EXPECT_TRUE(a.get(0)->matrix().isApprox(b.get(0)->matrix(), 1e-6)) << a.get(0)->matrix() << "\n" << b.get(0)->matrix();
  EXPECT_TRUE(da.spacing.isApprox(b.mem(0)->descriptor().spacing, 1e-6));
  const auto* la = a.components().get<LabelDataComponent>();
  const auto* lb = b.components().get<LabelDataComponent>();
  ASSERT_TRUE(la && lb);
  ASSERT_EQ(la->labelConfigs().size(), lb->labelConfigs().size());
  for (const auto& [value, config] : la->labelConfigs()) {
    const auto other = lb->labelConfig(value);
    ASSERT_TRUE(other) << value;
    EXPECT_EQ(other->name, config.name);
    // CIELab in 16 bits carries sRGB to well within one step of eight bits.
    EXPECT_LT((other->color.head<3>() - config.color.head<3>()).cwiseAbs().maxCoeff(), 1.0 / 255) << value;
  }
}

TEST(DicomSegmentation, StandaloneRoundTripFromNiftiKeepsVoxelsNamesColoursAndGeometry) {
  TestKit::ScratchDir dir;
  Eigen::Matrix4d m = Eigen::Matrix4d::Identity();
  m.block<3, 3>(0, 0) = Eigen::AngleAxisd(0.5, Vec3(1, 2, 0.5).normalized()).toRotationMatrix();
  m.block<3, 1>(0, 3) = Vec3(12, -40, 7);
  auto original = labelMap({7, 5, 6}, m, Vec3(0.8, 1.1, 2.5));
  std::string error;
  ASSERT_TRUE(IO::writeImage(*original, dir.file("labels.nii.gz"), &error)) << error;
  auto fromNifti = IO::readImage(dir.file("labels.nii.gz"), &error);
  ASSERT_TRUE(fromNifti) << error;
  ASSERT_TRUE(IO::writeImage(*fromNifti, dir.file("labels.seg.dcm"), &error)) << error;
  auto back = IO::readImage(dir.file("labels.seg.dcm"), &error);
  ASSERT_TRUE(back) << error;
  EXPECT_EQ(back->modality(), Data::LABEL);
  expectSameLabels(*original, *back);
}

TEST(DicomSegmentation, ColourIsWrittenAsCieLabOfItsSrgb) {
  TestKit::ScratchDir dir;
  auto labels = labelMap({4, 3, 3}, Eigen::Matrix4d::Identity(), Vec3(1, 1, 1));
  auto* lc = labels->components().get<LabelDataComponent>();
  lc->setLabelColor(2, Eigen::Vector4d(1, 1, 1, 1));
  lc->setLabelColor(7, Eigen::Vector4d(1, 0, 0, 1));
  std::string error;
  ASSERT_TRUE(IO::writeDicomSegmentation(*labels, dir.file("c.seg.dcm"), nullptr, &error)) << error;
  DcmFileFormat ff;
  ASSERT_TRUE(ff.loadFile(dir.file("c.seg.dcm").c_str()).good());
  // White is L* 100, a* = b* = 0; sRGB red is L* 53.24, a* 80.09, b* 67.20; DICOM scales L*
  // from 0..100 and a*, b* from -128..127 to 0..65535.
  const double expected[2][3] = {{65535, 32896, 32896},
                                 {53.24 / 100 * 65535, (80.09 + 128) / 255 * 65535, (67.20 + 128) / 255 * 65535}};
  for (int s = 0; s < 2; ++s) {
    DcmItem* segment = nullptr;
    ASSERT_TRUE(ff.getDataset()->findAndGetSequenceItem(DCM_SegmentSequence, segment, s).good());
    for (unsigned long k = 0; k < 3; ++k) {
      Uint16 v = 0;
      ASSERT_TRUE(segment->findAndGetUint16(DCM_RecommendedDisplayCIELabValue, v, k).good());
      EXPECT_NEAR(v, expected[s][k], 40.0) << "segment " << s << " component " << k;
    }
  }
}

TEST(DicomSegmentation, LabelMapOnTheSeriesGridRefersToItsSlicesAndReadsBackOnIt) {
  TestKit::ScratchDir dir;
  SeriesSpec s;
  s.row = Vec3(0.8, 0.6, 0.0);
  s.column = Vec3(-0.36, 0.48, 0.8);
  writeSeries(dir.file("ct"), s);
  std::string error;
  auto ct = IO::readImage(dir.file("ct"), &error);
  ASSERT_TRUE(ct) << error;
  const auto& d = ct->mem(0)->descriptor();
  auto labels = labelMap(d.dimensions, ct->get(0)->matrix(), d.spacing);
  const auto* source = ct->components().get<DicomSeriesComponent>();
  ASSERT_TRUE(IO::writeDicomSegmentation(*labels, dir.file("seg.dcm"), source, &error)) << error;

  DcmFileFormat ff;
  ASSERT_TRUE(ff.loadFile(dir.file("seg.dcm").c_str()).good());
  DcmDataset& ds = *ff.getDataset();
  OFString value;
  ds.findAndGetOFString(DCM_StudyInstanceUID, value);
  EXPECT_EQ(value, s.studyUid.c_str());
  ds.findAndGetOFString(DCM_FrameOfReferenceUID, value);
  EXPECT_EQ(value, (s.studyUid + ".9").c_str());
  DcmItem* series = nullptr;
  ASSERT_TRUE(ds.findAndGetSequenceItem(DCM_ReferencedSeriesSequence, series, 0).good());
  series->findAndGetOFString(DCM_SeriesInstanceUID, value);
  EXPECT_EQ(value, s.seriesUid.c_str());
  // Each frame is derived from the slice at its position.
  DcmItem* frame = nullptr;
  DcmItem* item = nullptr;
  for (int f = 0; ds.findAndGetSequenceItem(DCM_PerFrameFunctionalGroupsSequence, frame, f).good(); ++f) {
    ASSERT_TRUE(frame->findAndGetSequenceItem(DCM_PlanePositionSequence, item, 0).good());
    Vec3 p;
    for (unsigned long k = 0; k < 3; ++k) item->findAndGetFloat64(DCM_ImagePositionPatient, p[static_cast<int>(k)], k);
    const int z = static_cast<int>(std::lround((p - s.origin).dot(s.normal()) / s.step));
    ASSERT_TRUE(frame->findAndGetSequenceItem(DCM_DerivationImageSequence, item, 0).good()) << f;
    ASSERT_TRUE(item->findAndGetSequenceItem(DCM_SourceImageSequence, item, 0).good()) << f;
    item->findAndGetOFString(DCM_ReferencedSOPInstanceUID, value);
    EXPECT_EQ(value, s.sopUid(z).c_str()) << "frame " << f;
  }

  auto onGrid = IO::readDicomSegmentation(dir.file("seg.dcm"), ct.get(), &error);
  ASSERT_TRUE(onGrid) << error;
  expectSameLabels(*labels, *onGrid);
  ASSERT_TRUE(onGrid->components().get<DicomSeriesComponent>());
  EXPECT_EQ(onGrid->components().get<DicomSeriesComponent>()->seriesInstanceUid, s.seriesUid);
}

TEST(DicomSegmentation, ReferenceOfAnotherSeriesOrGridIsRefused) {
  TestKit::ScratchDir dir;
  SeriesSpec a;
  writeSeries(dir.file("a"), a);
  SeriesSpec b = a;
  b.seriesUid += ".5";
  writeSeries(dir.file("b"), b);
  SeriesSpec c = a;
  c.columns = 5;
  writeSeries(dir.file("c"), c);
  std::string error;
  auto ctA = IO::readImage(dir.file("a"), &error);
  auto ctB = IO::readImage(dir.file("b"), &error);
  auto ctC = IO::readImage(dir.file("c"), &error);
  ASSERT_TRUE(ctA && ctB && ctC) << error;
  const auto& d = ctA->mem(0)->descriptor();
  auto labels = labelMap(d.dimensions, ctA->get(0)->matrix(), d.spacing);
  ASSERT_TRUE(IO::writeDicomSegmentation(*labels, dir.file("seg.dcm"), ctA->components().get<DicomSeriesComponent>(),
                                         &error))
      << error;
  EXPECT_FALSE(IO::readDicomSegmentation(dir.file("seg.dcm"), ctB.get(), &error));
  EXPECT_NE(error.find("seg.dcm: refers to series " + a.seriesUid), std::string::npos) << error;
  // Without a record of its own, a reference image still has to fit the frames.
  ctC->components().remove<DicomSeriesComponent>();
  EXPECT_FALSE(IO::readDicomSegmentation(dir.file("seg.dcm"), ctC.get(), &error));
  EXPECT_NE(error.find("do not fit"), std::string::npos) << error;
  // Shifted by half a slice, the frames lie between the slices.
  auto shifted = IO::readImage(dir.file("a"), &error);
  shifted->components().remove<DicomSeriesComponent>();
  Eigen::Matrix4d m = shifted->get(0)->matrix();
  m(2, 3) += a.step / 2;
  shifted->get(0)->setMatrix(m);
  EXPECT_FALSE(IO::readDicomSegmentation(dir.file("seg.dcm"), shifted.get(), &error));
  EXPECT_NE(error.find("does not lie on a slice"), std::string::npos) << error;
}

TEST(DicomSegmentation, WriterRefusesWhatIsNotALabelMapAndLeavesNoFile) {
  TestKit::ScratchDir dir;
  auto grey = std::make_unique<SharedImageSet>(
      std::shared_ptr<Image>(MemImage::create(ImageDescriptor(F32, Eigen::Vector3i(3, 3, 2), 1))));
  std::string error;
  EXPECT_FALSE(IO::writeImage(*grey, dir.file("g.seg.dcm"), &error));
  EXPECT_NE(error.find("g.seg.dcm: only label maps"), std::string::npos) << error;
  EXPECT_EQ(dir.entries(), 0);
}

TEST(DicomSegmentation, EmptyLabelMapKeepsItsGridWithOneEmptySegment) {
  TestKit::ScratchDir dir;
  auto empty = labelMap({4, 3, 5}, Eigen::Matrix4d::Identity(), Vec3(1, 1, 3));
  std::memset(empty->mem(0)->data(), 0, empty->mem(0)->descriptor().byteSize());
  empty->components().remove<LabelDataComponent>();
  std::string error;
  ASSERT_TRUE(IO::writeImage(*empty, dir.file("e.seg.dcm"), &error)) << error;
  auto back = IO::readImage(dir.file("e.seg.dcm"), &error);
  ASSERT_TRUE(back) << error;
  EXPECT_EQ(back->mem(0)->descriptor().dimensions, Eigen::Vector3i(4, 3, 5));
  EXPECT_TRUE(back->mem(0)->descriptor().spacing.isApprox(Vec3(1, 1, 3)));
  const auto* p = static_cast<const unsigned char*>(back->mem(0)->data());
  EXPECT_TRUE(std::all_of(p, p + 60, [](unsigned char v) { return v == 0; }));
  ASSERT_TRUE(back->components().get<LabelDataComponent>());
  EXPECT_EQ(back->components().get<LabelDataComponent>()->labelConfigs().size(), 1u);
}

}  // namespace
