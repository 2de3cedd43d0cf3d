// Reading a DICOM series as users get them from a scanner: 512 x 512 x 300 CT slices of 16 bits,
// one file each, under names that do not tell the order. The series is written once into a
// temporary folder (about 150 MB) and read back by the reader that `merivane run --in FOLDER`
// uses; also listing the series of the folder, as `merivane info FOLDER` does.
#include <benchmark/benchmark.h>
#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dctk.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "DicomIO.h"
#include "SharedImageSet.h"

namespace Merivane {
namespace {

constexpr int kSize = 512, kSlices = 300;

const std::string& seriesFolder() {
  static const std::string dir = [] {
    const std::string d = (std::filesystem::temp_directory_path() / "merivane-dicom-bench").string();
    if (std::filesystem::exists(d + "/done")) return d;
    std::filesystem::remove_all(d);
    std::filesystem::create_directories(d);
    std::vector<int> order(kSlices);
    std::iota(order.begin(), order.end(), 0);
    std::shuffle(order.begin(), order.end(), std::mt19937(3));
    std::vector<Uint16> pixels(static_cast<size_t>(kSize) * kSize);
    for (int k = 0; k < kSlices; ++k) {
      const int z = order[static_cast<size_t>(k)];
      DcmFileFormat ff;
      DcmDataset& ds = *ff.getDataset();
      ds.putAndInsertString(DCM_SOPClassUID, UID_CTImageStorage);
      ds.putAndInsertString(DCM_StudyInstanceUID, "1.2.826.0.1.3680043.2.1125.7");
      ds.putAndInsertString(DCM_SeriesInstanceUID, "1.2.826.0.1.3680043.2.1125.7.1");
      ds.putAndInsertString(DCM_FrameOfReferenceUID, "1.2.826.0.1.3680043.2.1125.7.9");
      ds.putAndInsertString(DCM_SOPInstanceUID, ("1.2.826.0.1.3680043.2.1125.7.1." + std::to_string(z + 1)).c_str());
      ds.putAndInsertString(DCM_Modality, "CT");
      ds.putAndInsertString(DCM_InstanceNumber, std::to_string(z + 1).c_str());
      ds.putAndInsertString(DCM_ImagePositionPatient, ("-250\\-250\\" + std::to_string(-400 + 1.25 * z)).c_str());
      ds.putAndInsertString(DCM_ImageOrientationPatient, "1\\0\\0\\0\\1\\0");
      ds.putAndInsertString(DCM_PixelSpacing, "0.9765625\\0.9765625");
      ds.putAndInsertString(DCM_SliceThickness, "1.25");
      ds.putAndInsertString(DCM_RescaleSlope, "1");
      ds.putAndInsertString(DCM_RescaleIntercept, "-1024");
      ds.putAndInsertUint16(DCM_Rows, kSize);
      ds.putAndInsertUint16(DCM_Columns, kSize);
      ds.putAndInsertUint16(DCM_SamplesPerPixel, 1);
      ds.putAndInsertString(DCM_PhotometricInterpretation, "MONOCHROME2");
      ds.putAndInsertUint16(DCM_BitsAllocated, 16);
      ds.putAndInsertUint16(DCM_BitsStored, 12);
      ds.putAndInsertUint16(DCM_HighBit, 11);
      ds.putAndInsertUint16(DCM_PixelRepresentation, 0);
      for (int y = 0; y < kSize; ++y)
        for (int x = 0; x < kSize; ++x)
          pixels[static_cast<size_t>(y) * kSize + x] = static_cast<Uint16>((x * 3 + y * 5 + z * 7) & 4095);
      ds.putAndInsertUint16Array(DCM_PixelData, pixels.data(), static_cast<unsigned long>(pixels.size()));
      char name[32];
      std::snprintf(name, sizeof name, "/IM%05d", k);
      if (!ff.saveFile((d + name).c_str(), EXS_LittleEndianExplicit).good()) return std::string();
    }
    std::FILE* f = std::fopen((d + "/done").c_str(), "w");
    if (f) std::fclose(f);
    return d;
  }();
  return dir;
}

void BM_ReadSeries(benchmark::State& state) {
  const std::string& dir = seriesFolder();
  if (dir.empty()) {
    state.SkipWithError("could not write the series");
    return;
  }
  for (auto _ : state) {
    std::string error;
    auto image = IO::readDicomSeries(dir, "", &error);
    if (!image) state.SkipWithError(error.c_str());
    benchmark::DoNotOptimize(image.get());
  }
  state.SetBytesProcessed(state.iterations() * int64_t(kSize) * kSize * kSlices * 2);
}

void BM_ListSeries(benchmark::State& state) {
  const std::string& dir = seriesFolder();
  for (auto _ : state) {
    std::vector<IO::DicomSeriesInfo> series;
    if (!IO::listDicomSeries(dir, series)) state.SkipWithError("listing failed");
    benchmark::DoNotOptimize(series.data());
  }
}

BENCHMARK(BM_ReadSeries)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_ListSeries)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

}  // namespace
}  // namespace Merivane

BENCHMARK_MAIN();
