// Writes the seed inputs of the fuzz targets with our own writers:
//   make_fuzz_corpus fuzz/corpus
// Small on purpose (a few hundred bytes each): the fuzzer mutates them, and coverage comes
// from their variety (pixel types, compression, channels, label metadata), not their size.
#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dctk.h>
#include <Eigen/Geometry>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "CsvIO.h"
#include "ImageIO.h"
#include "LabelDataComponent.h"
#include "Mesh.h"
#include "MeshIO.h"
#include "Properties.h"
#include "SharedImageSet.h"

using namespace Merivane;
namespace fs = std::filesystem;

namespace {

template <typename T, typename F>
std::unique_ptr<SharedImageSet> image(const Eigen::Vector3i& dims, int channels, F value) {
  auto img = TypedImage<T>::zeros(dims, channels);
  for (int z = 0; z < dims[2]; ++z)
    for (int y = 0; y < dims[1]; ++y)
      for (int x = 0; x < dims[0]; ++x)
        for (int c = 0; c < channels; ++c) img->setValue(static_cast<T>(value(x, y, z, c)), x, y, z, c);
  return std::make_unique<SharedImageSet>(std::shared_ptr<Image>(std::move(img)));
}

std::unique_ptr<SharedImageSet> labelMap() {
  auto set = image<unsigned char>({4, 3, 2}, 1, [](int x, int y, int z, int) { return x < 2 ? 1 : (y + z) % 3; });
  set->get(0)->setSpacing(Eigen::Vector3d(0.5, 0.75, 2.0));
  IO::markAsLabelMap(*set);
  auto* labels = set->components().getOrCreate<LabelDataComponent>(set.get());
  auto config = LabelDataComponent::defaultLabelConfig(1);
  config.name = "Ventricle";
  labels->setLabelConfig(1, config);
  return set;
}

std::unique_ptr<SharedImageSet> obliqueFloat() {
  auto set = image<float>({3, 3, 2}, 1, [](int x, int y, int z, int) { return 0.25f * x - y + 100.0f * z; });
  Eigen::Matrix4d m = Eigen::Matrix4d::Identity();
  m.block<3, 3>(0, 0) = Eigen::AngleAxisd(0.3, Eigen::Vector3d(1, 2, 3).normalized()).toRotationMatrix();
  m.block<3, 1>(0, 3) = Eigen::Vector3d(-10, 4, 30);
  set->get(0)->setSpacing(Eigen::Vector3d(1.5, 1.0, 3.0));
  set->get(0)->setMatrix(m);
  set->setModality(Data::CT);
  return set;
}

std::unique_ptr<SharedImageSet> colour2D() {
  return image<unsigned char>({5, 4, 1}, 3, [](int x, int y, int, int c) { return (x * 50 + y * 20 + c * 70) % 256; });
}

std::unique_ptr<SharedImageSet> shorts2D(int channels) {
  return image<unsigned short>({4, 4, 1}, channels, [](int x, int y, int, int c) { return x * 4000 + y * 7 + c; });
}

void write(const SharedImageSet& set, const fs::path& path, IO::WriteOptions options = {}) {
  std::string error;
  if (!IO::writeImage(set, path.string(), &error, options)) std::fprintf(stderr, "%s\n", error.c_str());
}

void writeText(const fs::path& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

// A 4 x 3 CT slice of 16 bits with rescale, position and orientation, as a scanner writes one.
void writeCtSlice(const fs::path& path) {
  DcmFileFormat ff;
  DcmDataset& ds = *ff.getDataset();
  ds.putAndInsertString(DCM_SOPClassUID, UID_CTImageStorage);
  ds.putAndInsertString(DCM_SOPInstanceUID, "1.2.826.0.1.3680043.2.1125.9.1.1");
  ds.putAndInsertString(DCM_StudyInstanceUID, "1.2.826.0.1.3680043.2.1125.9");
  ds.putAndInsertString(DCM_SeriesInstanceUID, "1.2.826.0.1.3680043.2.1125.9.1");
  ds.putAndInsertString(DCM_FrameOfReferenceUID, "1.2.826.0.1.3680043.2.1125.9.9");
  ds.putAndInsertString(DCM_Modality, "CT");
  ds.putAndInsertString(DCM_ImagePositionPatient, "-10\\20\\30");
  ds.putAndInsertString(DCM_ImageOrientationPatient, "1\\0\\0\\0\\0.8\\-0.6");
  ds.putAndInsertString(DCM_PixelSpacing, "0.5\\0.75");
  ds.putAndInsertString(DCM_SliceThickness, "2");
  ds.putAndInsertString(DCM_RescaleSlope, "2");
  ds.putAndInsertString(DCM_RescaleIntercept, "-1024");
  ds.putAndInsertUint16(DCM_Rows, 3);
  ds.putAndInsertUint16(DCM_Columns, 4);
  ds.putAndInsertUint16(DCM_SamplesPerPixel, 1);
  ds.putAndInsertString(DCM_PhotometricInterpretation, "MONOCHROME2");
  ds.putAndInsertUint16(DCM_BitsAllocated, 16);
  ds.putAndInsertUint16(DCM_BitsStored, 12);
  ds.putAndInsertUint16(DCM_HighBit, 11);
  ds.putAndInsertUint16(DCM_PixelRepresentation, 0);
  const Uint16 pixels[12] = {0, 1, 2, 3, 100, 200, 300, 400, 4095, 2048, 1024, 512};
  ds.putAndInsertUint16Array(DCM_PixelData, pixels, 12);
  if (ff.saveFile(path.c_str(), EXS_LittleEndianExplicit).bad()) std::fprintf(stderr, "cannot write %s\n", path.c_str());
}

Mesh tetrahedron(bool extras) {
  Mesh m;
  m.vertices = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
  m.faces = {{0, 2, 1}, {0, 1, 3}, {0, 3, 2}, {1, 2, 3}};
  if (extras) {
    for (const auto& v : m.vertices) m.normals.push_back((v - Eigen::Vector3f(0.25f, 0.25f, 0.25f)).normalized());
    m.colors.assign(4, Eigen::Vector4f(1, 0.5f, 0, 1));
  }
  return m;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: make_fuzz_corpus FOLDER\n");
    return 2;
  }
  const fs::path root = argv[1];
  for (const char* target : {"fuzz_nifti", "fuzz_nrrd", "fuzz_metaimage", "fuzz_png", "fuzz_ply", "fuzz_stl",
                             "fuzz_obj", "fuzz_csv", "fuzz_properties", "fuzz_dicom"})
    fs::create_directories(root / target);

  const auto labels = labelMap();
  const auto oblique = obliqueFloat();
  const auto colour = colour2D();
  IO::WriteOptions raw;
  raw.compress = false;

  write(*labels, root / "fuzz_nifti" / "labels.nii");
  write(*labels, root / "fuzz_nifti" / "labels.nii.gz");
  write(*oblique, root / "fuzz_nifti" / "oblique.nii");
  write(*colour, root / "fuzz_nifti" / "colour.nii");

  write(*labels, root / "fuzz_nrrd" / "labels.nrrd");
  write(*oblique, root / "fuzz_nrrd" / "oblique.nrrd", raw);
  write(*colour, root / "fuzz_nrrd" / "colour.nrrd", raw);
  writeText(root / "fuzz_nrrd" / "ascii.nrrd",
            "NRRD0004\ntype: short\ndimension: 2\nsizes: 3 2\nspacings: 0.5 -2\nencoding: ascii\n"
            "endian: big\nbyte skip: 0\n\n1 2 3\n-4 5 6\n");

  write(*labels, root / "fuzz_metaimage" / "labels.mha");
  write(*oblique, root / "fuzz_metaimage" / "oblique.mha", raw);
  write(*colour, root / "fuzz_metaimage" / "colour.mha");

  auto flatLabels = image<unsigned char>({6, 5, 1}, 1, [](int x, int y, int, int) { return x > y ? 2 : 0; });
  IO::markAsLabelMap(*flatLabels);
  write(*flatLabels, root / "fuzz_png" / "labels.png");
  write(*colour, root / "fuzz_png" / "colour.png");
  write(*shorts2D(1), root / "fuzz_png" / "gray16.png");
  write(*shorts2D(4), root / "fuzz_png" / "rgba16.png");

  // DICOM: a Segmentation object of our writer, and a CT slice.
  write(*labels, root / "fuzz_dicom" / "labels.seg.dcm");
  writeCtSlice(root / "fuzz_dicom" / "slice.dcm");

  std::string error;
  IO::writeMesh(tetrahedron(true), (root / "fuzz_ply" / "tetra.ply").string(), &error);
  writeText(root / "fuzz_ply" / "ascii.ply",
            "ply\nformat ascii 1.0\nelement vertex 3\nproperty float x\nproperty float y\nproperty float z\n"
            "element face 1\nproperty list uchar int vertex_indices\nend_header\n0 0 0\n1 0 0\n0 1 0\n3 0 1 2\n");
  IO::writeMesh(tetrahedron(false), (root / "fuzz_stl" / "tetra.stl").string(), &error);
  writeText(root / "fuzz_stl" / "ascii.stl",
            "solid t\nfacet normal 0 0 1\nouter loop\nvertex 0 0 0\nvertex 1 0 0\nvertex 0 1 0\nendloop\n"
            "endfacet\nendsolid t\n");
  IO::writeMesh(tetrahedron(true), (root / "fuzz_obj" / "tetra.obj").string(), &error);
  writeText(root / "fuzz_obj" / "quad.obj", "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nvn 0 0 1\nf 1//1 2//1 3//1 -1//1\n");

  writeText(root / "fuzz_csv" / "stats.csv",
            IO::csvText({"Name", "Min", "Max"}, {{"map/Ventricle", "0", "12.5"}, {"a;b", "\"q\"", "line\nbreak"}}));

  Properties p("GraphBasedSegmentation");
  p.setRawParam("Solver Iterations", "300", "200");
  p.setRawParam("spacing", "0.5 0.5 2");
  p.setParamAttributes("spacing", {{"min", "0"}});
  Properties* child = p.addSubProperties("Contours");
  child->setRawParam("points", "1 2 3 4");
  child->addSubProperties("Contours");
  std::string text;
  PropertiesIO::saveToString(p, PropertiesIO::Format::Xml, text);
  writeText(root / "fuzz_properties" / "config.xml", text);
  return 0;
}
