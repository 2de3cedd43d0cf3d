// MetaImage: "Key = Value" header lines ending with ElementDataFile, then the data (LOCAL,
// .mha) or a separate file (.mhd). TransformMatrix lists the direction of each axis in turn;
// Offset is the world position of the first voxel. Compressed data is a zlib stream.
#include <Eigen/Core>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <map>
#include <sstream>

#include "ImageFormats.h"
#include "InputChecks.h"
#include "IoUtil.h"
#include "SharedImageSet.h"

namespace fs = std::filesystem;

namespace Merivane::IO::detail {

namespace {

const std::map<std::string, PixelType>& metaTypes() {
  static const std::map<std::string, PixelType> t = {{"MET_CHAR", I8},   {"MET_UCHAR", U8}, {"MET_SHORT", I16},
                                                     {"MET_USHORT", U16}, {"MET_INT", I32}, {"MET_UINT", U32},
                                                     {"MET_LONG", I32},  {"MET_ULONG", U32}, {"MET_FLOAT", F32},
                                                     {"MET_DOUBLE", F64}};
  return t;
}

bool isTrue(const std::string& v) {
  const std::string l = toLower(trim(v));
  return l == "true" || l == "1" || l == "yes";
}

// Keys of the standard that we interpret; everything else is kept as metadata.
bool isStandardKey(const std::string& k) {
  static const char* keys[] = {"ObjectType", "NDims", "DimSize", "ElementType", "ElementNumberOfChannels",
                               "ElementSpacing", "ElementSize", "Offset", "Position", "Origin",
                               "TransformMatrix", "Rotation", "Orientation", "CenterOfRotation",
                               "AnatomicalOrientation", "BinaryData", "BinaryDataByteOrderMSB",
                               "ElementByteOrderMSB", "CompressedData", "CompressedDataSize", "HeaderSize",
                               "ElementDataFile"};
  for (const char* s : keys)
    if (k == s) return true;
  return false;
}

}  // namespace

std::unique_ptr<SharedImageSet> readMetaImage(const std::string& path, std::string* error) {
  const std::string file = baseName(path);
  const ReadFailure fail{file, error};
  std::string bytes;
  if (!readFileBytes(path, bytes, error)) return nullptr;

  std::map<std::string, std::string> fields;
  std::map<std::string, std::string> extra;
  size_t pos = 0;
  bool sawDataFile = false;
  int lineNo = 0;
  while (pos < bytes.size()) {
    size_t end = bytes.find('\n', pos);
    if (end == std::string::npos) end = bytes.size();
    std::string line = bytes.substr(pos, end - pos);
    pos = std::min(end + 1, bytes.size());
    ++lineNo;
    if (trim(line).empty()) continue;
    const size_t eq = line.find('=');
    if (eq == std::string::npos) return fail("line " + std::to_string(lineNo) + " is not 'Key = Value'");
    const std::string key = trim(line.substr(0, eq));
    const std::string value = trim(line.substr(eq + 1));
    for (char c : key)
      if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_')
        return fail("line " + std::to_string(lineNo) + " is not 'Key = Value'");
    if (isStandardKey(key)) fields[key] = value;
    else extra[key] = value;
    if (key == "ElementDataFile") {
      sawDataFile = true;
      break;
    }
  }
  if (!sawDataFile) return fail("header has no ElementDataFile line");
  auto field = [&](const char* k) -> std::string {
    auto it = fields.find(k);
    return it == fields.end() ? std::string() : it->second;
  };
  if (!field("ObjectType").empty() && toLower(field("ObjectType")) != "image")
    return fail("ObjectType '" + excerpt(field("ObjectType")) + "' is not an image");
  std::vector<double> v;
  if (!parseNumbers(field("NDims"), v) || v.size() != 1 || v[0] < 1 || v[0] > 3)
    return fail("unsupported or missing NDims '" + excerpt(field("NDims")) + "'");
  const int ndims = static_cast<int>(v[0]);
  std::vector<double> sizes;
  if (!parseNumbers(field("DimSize"), sizes) || static_cast<int>(sizes.size()) != ndims)
    return fail("DimSize must list " + std::to_string(ndims) + " sizes");
  Eigen::Vector3i dims = Eigen::Vector3i::Ones();
  for (int i = 0; i < ndims; ++i) {
    if (sizes[i] < 1 || sizes[i] != std::floor(sizes[i]) || sizes[i] > 1e9) return fail("bad DimSize '" + excerpt(field("DimSize")) + "'");
    dims[i] = static_cast<int>(sizes[i]);
  }
  auto t = metaTypes().find(field("ElementType"));
  if (t == metaTypes().end()) return fail("unsupported ElementType '" + excerpt(field("ElementType")) + "'");
  int channels = 1;
  if (!field("ElementNumberOfChannels").empty()) {
    if (!parseNumbers(field("ElementNumberOfChannels"), v) || v.size() != 1 || v[0] < 1 || v[0] > 64)
      return fail("bad ElementNumberOfChannels");
    channels = static_cast<int>(v[0]);
  }
  Eigen::Vector3d spacing = Eigen::Vector3d::Ones();
  std::string sp = field("ElementSpacing");
  if (sp.empty()) sp = field("ElementSize");
  if (!sp.empty()) {
    if (!parseNumbers(sp, v) || static_cast<int>(v.size()) != ndims) return fail("bad ElementSpacing '" + excerpt(sp) + "'");
    // The format has no flipped axes by sign (TransformMatrix flips them), so only positive
    // finite spacings mean anything.
    for (int i = 0; i < ndims; ++i) {
      if (!(v[i] > 0) || !std::isfinite(v[i]))
        return fail("ElementSpacing '" + excerpt(sp) + "' must hold positive finite values");
      spacing[i] = v[i];
    }
  }
  Eigen::Matrix3d directions = Eigen::Matrix3d::Identity();
  std::string tm = field("TransformMatrix");
  if (tm.empty()) tm = field("Rotation");
  if (tm.empty()) tm = field("Orientation");
  if (!tm.empty()) {
    if (!parseNumbers(tm, v) || static_cast<int>(v.size()) != ndims * ndims) return fail("bad TransformMatrix '" + excerpt(tm) + "'");
    for (int axis = 0; axis < ndims; ++axis)
      for (int c = 0; c < ndims; ++c) directions(c, axis) = v[static_cast<size_t>(axis * ndims + c)];
    if (!directions.allFinite()) return fail("TransformMatrix '" + excerpt(tm) + "' holds a value that is not finite");
  }
  Eigen::Vector3d origin = Eigen::Vector3d::Zero();
  std::string off = field("Offset");
  if (off.empty()) off = field("Position");
  if (off.empty()) off = field("Origin");
  if (!off.empty()) {
    if (!parseNumbers(off, v) || static_cast<int>(v.size()) != ndims) return fail("bad Offset '" + excerpt(off) + "'");
    for (int i = 0; i < ndims; ++i) origin[i] = v[i];
    if (!origin.allFinite()) return fail("Offset '" + excerpt(off) + "' holds a value that is not finite");
  }
  Eigen::Matrix4d affine = Eigen::Matrix4d::Identity();
  for (int i = 0; i < 3; ++i) affine.block<3, 1>(0, i) = directions.col(i) * spacing[i];
  affine.block<3, 1>(0, 3) = origin;
  if (ndims < 3) affine.block<3, 1>(0, 2).setZero();
  Eigen::Vector3d realSpacing;
  const Eigen::Matrix4d matrix = matrixFromIndexAffine(affine, dims, realSpacing, spacing);

  ImageDescriptor desc(t->second, dims, channels);
  const double promised = static_cast<double>(dims[0]) * dims[1] * dims[2] * channels * pixelTypeSize(t->second);
  const size_t expected = desc.byteSize();
  const std::string dataFile = field("ElementDataFile");
  std::string dataBytes;
  size_t dataStart = 0;
  if (dataFile == "LOCAL") {
    dataBytes.swap(bytes);
    dataStart = pos;
  } else {
    if (dataFile.rfind("LIST", 0) == 0 || dataFile.find('%') != std::string::npos || dataFile.find(' ') != std::string::npos)
      return fail("data file lists are not supported");
    fs::path dp(dataFile);
    if (dp.is_relative()) dp = fs::path(path).parent_path() / dp;
    std::string why;
    if (!readRegularFile(dp.string(), dataBytes, why))
      return fail("data file '" + excerpt(baseName(dp.string())) + "': " + why);
  }
  if (!field("HeaderSize").empty()) {
    const long long hs = std::atoll(field("HeaderSize").c_str());
    if (hs < -1) return fail("bad HeaderSize '" + excerpt(field("HeaderSize")) + "'");
    if (hs == -1) dataStart = dataBytes.size() >= expected ? dataBytes.size() - expected : dataBytes.size() + 1;
    else if (hs > 0) dataStart += static_cast<size_t>(hs);
  }
  if (dataStart > dataBytes.size()) return fail("data is truncated");
  const char* src = dataBytes.data() + dataStart;
  const size_t available = dataBytes.size() - dataStart;
  if (!field("BinaryData").empty() && !isTrue(field("BinaryData"))) return fail("text (non-binary) data is not supported");
  const bool compressed = isTrue(field("CompressedData"));
  // Deflate shrinks by at most about 1:1032; check before allocating what the header promises.
  const double capacity = compressed ? static_cast<double>(available) * 1100.0 + 65536.0 : static_cast<double>(available);
  if (promised > capacity + 0.5)
    return fail("data is truncated: the header promises " + std::to_string(static_cast<long long>(promised)) +
                " bytes, the file holds " + std::to_string(available));
  std::shared_ptr<MemImage> image(MemImage::create(desc, false));
  if (compressed) {
    std::string out, e;
    if (!inflateBytes(src, available, out, expected, &e)) return fail(e);
    std::memcpy(image->data(), out.data(), expected);
  } else {
    if (available < expected)
      return fail("data is truncated: " + std::to_string(available) + " of " + std::to_string(expected) + " bytes");
    std::memcpy(image->data(), src, expected);
  }
  if (isTrue(field("BinaryDataByteOrderMSB")) || isTrue(field("ElementByteOrderMSB")))
    swapBytes(image->data(), desc.elementCount(), desc.typeSize());
  image->setSpacing(realSpacing);
  auto set = makeSet(image, matrix, path);
  applyMetadata(*set, extra);
  return set;
}

bool writeMetaImage(const SharedImageSet& image, const std::string& path, std::string* error,
                    const WriteOptions& options) {
  const MemImage* m = image.mem(0);
  const ImageDescriptor& d = m->descriptor();
  std::string typeName;
  for (const auto& [name, type] : metaTypes())
    if (type == d.pixelType && name != "MET_LONG" && name != "MET_ULONG") typeName = name;
  if (typeName.empty()) {
    if (error) *error = baseName(path) + ": pixel type " + pixelTypeName(d.pixelType) + " cannot be written";
    return false;
  }
  const bool detached = endsWith(toLower(path), ".mhd");
  const bool compress = options.compress;
  const Eigen::Matrix4d affine = indexAffineFromMatrix(image.get(0)->matrix(), d.dimensions, d.spacing);
  std::ostringstream h;
  h.precision(17);
  h << "ObjectType = Image\nNDims = 3\nBinaryData = True\nBinaryDataByteOrderMSB = False\n";
  h << "CompressedData = " << (compress ? "True" : "False") << "\n";
  std::string data;
  if (compress) {
    if (!deflateBytes(m->data(), d.byteSize(), data, false)) {
      if (error) *error = baseName(path) + ": compression failed";
      return false;
    }
    h << "CompressedDataSize = " << data.size() << "\n";
  } else {
    data.assign(static_cast<const char*>(m->data()), d.byteSize());
  }
  h << "TransformMatrix =";
  for (int axis = 0; axis < 3; ++axis)
    for (int c = 0; c < 3; ++c) h << " " << affine(c, axis) / d.spacing[axis];
  h << "\nOffset = " << affine(0, 3) << " " << affine(1, 3) << " " << affine(2, 3) << "\n";
  h << "CenterOfRotation = 0 0 0\nAnatomicalOrientation = RAI\n";
  h << "ElementSpacing = " << d.spacing[0] << " " << d.spacing[1] << " " << d.spacing[2] << "\n";
  h << "DimSize = " << d.width() << " " << d.height() << " " << d.slices() << "\n";
  if (d.channels > 1) h << "ElementNumberOfChannels = " << d.channels << "\n";
  for (const auto& [key, value] : metadataOf(image)) {
    std::string k = key;  // keys are plain words already
    h << k << " = " << value << "\n";
  }
  h << "ElementType = " << typeName << "\n";
  if (detached) {
    const std::string dataName = fs::path(path).stem().string() + (compress ? ".zraw" : ".raw");
    h << "ElementDataFile = " << dataName << "\n";
    const std::string dataPath = (fs::path(path).parent_path() / dataName).string();
    if (!writeFileAtomically(dataPath, data, error)) return false;
    return writeFileAtomically(path, h.str(), error);
  }
  h << "ElementDataFile = LOCAL\n";
  return writeFileAtomically(path, h.str() + data, error);
}

}  // namespace Merivane::IO::detail
