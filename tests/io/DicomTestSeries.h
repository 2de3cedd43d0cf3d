#pragma once
// Small DICOM series written slice by slice with DCMTK, with known positions and values, for
// the reader tests and the command-line tests.
#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dctk.h>
#include <gtest/gtest.h>

#include <Eigen/Geometry>
#include <algorithm>
#include <filesystem>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace Merivane::TestKit {

using Vec3 = Eigen::Vector3d;

struct SeriesSpec {
  std::string seriesUid = "1.2.826.0.1.3680043.2.1125.1.1";
  std::string studyUid = "1.2.826.0.1.3680043.2.1125.1";
  std::string modality = "CT";
  std::string description = "phantom";
  int seriesNumber = 1;
  int columns = 6, rows = 4, slices = 5;
  Vec3 row = Vec3::UnitX(), column = Vec3::UnitY();
  Vec3 origin = Vec3(-10, 20, 30);
  double columnSpacing = 0.7, rowSpacing = 0.9;  // between columns (x), between rows (y)
  double step = 2.5;                             // along the normal, between slice positions
  double sliceThickness = 2.5;
  double slope = 1.0, intercept = 0.0;
  Vec3 normal() const { return row.cross(column); }
  Vec3 position(int z) const { return origin + z * step * normal(); }
  std::string sopUid(int z) const { return seriesUid + "." + std::to_string(z + 1); }
  // Stored value of voxel (x, y, z), z counted along the normal.
  static Sint16 stored(int x, int y, int z) { return static_cast<Sint16>(x + 10 * y + 100 * z - 300); }
};

inline std::string ds3(const Vec3& v) {
  std::ostringstream s;
  s.precision(12);
  s << v[0] << "\\" << v[1] << "\\" << v[2];
  return s.str();
}

inline void putCommon(DcmDataset& ds, const SeriesSpec& s) {
  ds.putAndInsertString(DCM_PatientName, "Phantom^Test");
  ds.putAndInsertString(DCM_PatientID, "P1");
  ds.putAndInsertString(DCM_StudyInstanceUID, s.studyUid.c_str());
  ds.putAndInsertString(DCM_SeriesInstanceUID, s.seriesUid.c_str());
  ds.putAndInsertString(DCM_FrameOfReferenceUID, (s.studyUid + ".9").c_str());
  ds.putAndInsertString(DCM_Modality, s.modality.c_str());
  ds.putAndInsertString(DCM_SeriesDescription, s.description.c_str());
  ds.putAndInsertString(DCM_SeriesNumber, std::to_string(s.seriesNumber).c_str());
  ds.putAndInsertUint16(DCM_Rows, static_cast<Uint16>(s.rows));
  ds.putAndInsertUint16(DCM_Columns, static_cast<Uint16>(s.columns));
  ds.putAndInsertUint16(DCM_SamplesPerPixel, 1);
  ds.putAndInsertString(DCM_PhotometricInterpretation, "MONOCHROME2");
  ds.putAndInsertUint16(DCM_BitsAllocated, 16);
  ds.putAndInsertUint16(DCM_BitsStored, 16);
  ds.putAndInsertUint16(DCM_HighBit, 15);
  ds.putAndInsertUint16(DCM_PixelRepresentation, 1);
}

// Writes slice z of the series as `name` in `dir`.
inline void writeSlice(const std::string& path, const SeriesSpec& s, int z, const std::string& orientation = "") {
  DcmFileFormat ff;
  DcmDataset& ds = *ff.getDataset();
  putCommon(ds, s);
  ds.putAndInsertString(DCM_SOPClassUID, UID_CTImageStorage);
  ds.putAndInsertString(DCM_SOPInstanceUID, s.sopUid(z).c_str());
  ds.putAndInsertString(DCM_InstanceNumber, std::to_string(z + 1).c_str());
  ds.putAndInsertString(DCM_ImagePositionPatient, ds3(s.position(z)).c_str());
  ds.putAndInsertString(DCM_ImageOrientationPatient,
                        orientation.empty() ? (ds3(s.row) + "\\" + ds3(s.column)).c_str() : orientation.c_str());
  ds.putAndInsertString(DCM_PixelSpacing, (std::to_string(s.rowSpacing) + "\\" + std::to_string(s.columnSpacing)).c_str());
  ds.putAndInsertString(DCM_SliceThickness, std::to_string(s.sliceThickness).c_str());
  ds.putAndInsertString(DCM_RescaleSlope, std::to_string(s.slope).c_str());
  ds.putAndInsertString(DCM_RescaleIntercept, std::to_string(s.intercept).c_str());
  std::vector<Uint16> pixels;
  for (int y = 0; y < s.rows; ++y)
    for (int x = 0; x < s.columns; ++x) pixels.push_back(static_cast<Uint16>(SeriesSpec::stored(x, y, z)));
  ds.putAndInsertUint16Array(DCM_PixelData, pixels.data(), static_cast<unsigned long>(pixels.size()));
  ASSERT_TRUE(ff.saveFile(path.c_str(), EXS_LittleEndianExplicit).good()) << path;
}

// A small MR series to stand beside `ct` in one folder: another series UID, modality,
// description and number, and another size (3 x 4 x 2).
inline SeriesSpec mrBeside(const SeriesSpec& ct) {
  SeriesSpec mr = ct;
  mr.seriesUid = "1.2.826.0.1.3680043.2.1125.1.2";
  mr.modality = "MR";
  mr.description = "T1";
  mr.seriesNumber = 2;
  mr.columns = 3;
  mr.slices = 2;
  return mr;
}

// Writes every slice under a shuffled, meaningless name (IMnnnn), so that neither the names
// nor the order of the folder tell the slice order.
inline void writeSeries(const std::string& dir, const SeriesSpec& s, unsigned seed = 7, const std::string& prefix = "IM") {
  std::vector<int> order(static_cast<size_t>(s.slices));
  for (int z = 0; z < s.slices; ++z) order[static_cast<size_t>(z)] = z;
  std::shuffle(order.begin(), order.end(), std::mt19937(seed));
  std::filesystem::create_directories(dir);
  for (int k = 0; k < s.slices; ++k) writeSlice(dir + "/" + prefix + std::to_string(1000 + k), s, order[static_cast<size_t>(k)]);
}

}  // namespace Merivane::TestKit
