// NRRD: a text header of "field: value" lines and "key:=value" pairs, then the data, either
// attached after a blank line (.nrrd) or in a separate file named by "data file" (.nhdr).
// Supported: dimension 2 to 4 (a non-spatial first axis becomes the channels), the scalar
// types of our images, raw, ascii and gzip encodings, either endianness, byte skip, and the
// orientation fields (space, space directions, space origin) or plain spacings.
#include <Eigen/Core>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>
#include <map>
#include <sstream>

#include "ImageFormats.h"
#include "InputChecks.h"
#include "IoUtil.h"
#include "Log.h"
#include "SharedImageSet.h"

namespace fs = std::filesystem;

namespace Merivane::IO::detail {

namespace {

bool nrrdType(const std::string& text, PixelType& out) {
  static const std::map<std::string, PixelType> types = {
      {"signed char", I8},        {"int8", I8},           {"int8_t", I8},
      {"uchar", U8},              {"unsigned char", U8},  {"uint8", U8},
      {"uint8_t", U8},            {"short", I16},         {"short int", I16},
      {"signed short", I16},      {"signed short int", I16}, {"int16", I16},
      {"int16_t", I16},           {"ushort", U16},        {"unsigned short", U16},
      {"unsigned short int", U16}, {"uint16", U16},       {"uint16_t", U16},
      {"int", I32},               {"signed int", I32},    {"int32", I32},
      {"int32_t", I32},           {"uint", U32},          {"unsigned int", U32},
      {"uint32", U32},            {"uint32_t", U32},      {"float", F32},
      {"double", F64}};
  auto it = types.find(toLower(text));
  if (it == types.end()) return false;
  out = it->second;
  return true;
}

const char* nrrdTypeName(PixelType t) {
  switch (t) {
    case I8: return "int8";
    case U8: return "uint8";
    case I16: return "int16";
    case U16: return "uint16";
    case I32: return "int32";
    case U32: return "uint32";
    case F32: return "float";
    case F64: return "double";
    default: return nullptr;
  }
}

// "(1,0,0) (0,1,0) none" -> vectors; "none" gives an empty vector.
bool parseVectors(const std::string& text, std::vector<std::vector<double>>& out) {
  out.clear();
  size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
    if (i >= text.size()) break;
    if (text.compare(i, 4, "none") == 0) {
      out.emplace_back();
      i += 4;
      continue;
    }
    if (text[i] != '(') return false;
    const size_t close = text.find(')', i);
    if (close == std::string::npos) return false;
    std::string inner = text.substr(i + 1, close - i - 1);
    for (char& c : inner)
      if (c == ',') c = ' ';
    std::vector<double> v;
    if (!parseNumbers(inner, v) || v.empty()) return false;
    out.push_back(v);
    i = close + 1;
  }
  return true;
}

std::string vectorText(const Eigen::Vector3d& v) {
  std::ostringstream s;
  s.precision(17);
  s << "(" << v[0] << "," << v[1] << "," << v[2] << ")";
  return s.str();
}

}  // namespace

std::unique_ptr<SharedImageSet> readNrrd(const std::string& path, std::string* error) {
  const std::string file = baseName(path);
  const ReadFailure fail{file, error};
  std::string bytes;
  if (!readFileBytes(path, bytes, error)) return nullptr;
  if (bytes.compare(0, 7, "NRRD000") != 0 || bytes.size() < 8) return fail("not a NRRD file (no NRRD000x magic)");

  std::map<std::string, std::string> fields;
  std::map<std::string, std::string> keys;
  size_t pos = bytes.find('\n');
  if (pos == std::string::npos) return fail("header ends before any field");
  ++pos;
  bool blankLine = false;
  while (pos < bytes.size()) {
    size_t end = bytes.find('\n', pos);
    if (end == std::string::npos) end = bytes.size();
    std::string line = bytes.substr(pos, end - pos);
    pos = std::min(end + 1, bytes.size());
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty()) {
      blankLine = true;
      break;
    }
    if (line[0] == '#') continue;
    if (size_t kv = line.find(":="); kv != std::string::npos) {
      keys[line.substr(0, kv)] = line.substr(kv + 2);
      continue;
    }
    const size_t colon = line.find(": ");
    if (colon == std::string::npos) return fail("malformed header line '" + excerpt(line) + "'");
    fields[toLower(trim(line.substr(0, colon)))] = trim(line.substr(colon + 2));
  }
  auto field = [&](const std::string& k) -> std::string {
    auto it = fields.find(k);
    return it == fields.end() ? std::string() : it->second;
  };

  PixelType type;
  if (field("type").empty()) return fail("missing field 'type'");
  if (!nrrdType(field("type"), type)) return fail("unsupported type '" + excerpt(field("type")) + "'");
  std::vector<double> numbers;
  if (!parseNumbers(field("dimension"), numbers) || numbers.size() != 1) return fail("missing or bad 'dimension'");
  if (!(numbers[0] >= 1 && numbers[0] <= 4) || numbers[0] != std::floor(numbers[0]))
    return fail("unsupported dimension " + excerpt(field("dimension")));
  const int dimension = static_cast<int>(numbers[0]);
  std::vector<double> sizes;
  if (!parseNumbers(field("sizes"), sizes) || static_cast<int>(sizes.size()) != dimension)
    return fail("'sizes' must list " + std::to_string(dimension) + " numbers");
  for (double s : sizes)
    if (s < 1 || s != std::floor(s) || s > 1e9) return fail("bad size in 'sizes: " + excerpt(field("sizes")) + "'");

  // Which axes are spatial: with space directions, those not "none"; else kinds or position.
  std::vector<std::vector<double>> directions;
  const std::string dirText = field("space directions");
  if (!dirText.empty() && (!parseVectors(dirText, directions) || static_cast<int>(directions.size()) != dimension))
    return fail("malformed 'space directions: " + excerpt(dirText) + "'");
  std::vector<std::string> kinds;
  {
    std::istringstream k(field("kinds"));
    std::string w;
    while (k >> w) kinds.push_back(toLower(w));
  }
  int channelAxis = -1;
  if (!directions.empty()) {
    for (int i = 0; i < dimension; ++i)
      if (directions[i].empty()) {
        if (i != 0 || channelAxis >= 0) return fail("only the first axis may be non-spatial");
        channelAxis = 0;
      }
  } else if (kinds.size() == static_cast<size_t>(dimension) && kinds[0] != "domain" && kinds[0] != "space" &&
             dimension > 1) {
    channelAxis = 0;
  } else if (dimension == 4) {
    channelAxis = 0;
  }
  const int spatialDims = dimension - (channelAxis >= 0 ? 1 : 0);
  if (spatialDims < 1 || spatialDims > 3) return fail("unsupported number of spatial axes");
  const int channels = channelAxis >= 0 ? static_cast<int>(sizes[0]) : 1;
  if (channels > 64) return fail("too many channels (" + std::to_string(channels) + ")");
  Eigen::Vector3i dims = Eigen::Vector3i::Ones();
  for (int i = 0; i < spatialDims; ++i) dims[i] = static_cast<int>(sizes[i + (channelAxis >= 0 ? 1 : 0)]);

  // Index-to-world affine in the file's space, then to LPS.
  Eigen::Matrix4d affine = Eigen::Matrix4d::Identity();
  Eigen::Vector3d fallback = Eigen::Vector3d::Ones();
  if (!directions.empty()) {
    affine.setZero();
    affine(3, 3) = 1;
    for (int i = 0; i < spatialDims; ++i) {
      const auto& d = directions[i + (channelAxis >= 0 ? 1 : 0)];
      if (d.size() < 2 || d.size() > 3) return fail("space directions must have 2 or 3 components");
      for (size_t r = 0; r < d.size(); ++r) {
        if (!std::isfinite(d[r])) return fail("'space directions' holds a value that is not finite");
        affine(static_cast<int>(r), i) = d[r];
      }
    }
  } else if (!field("spacings").empty()) {
    std::vector<std::string> tok;
    std::istringstream s(field("spacings"));
    std::string w;
    while (s >> w) tok.push_back(w);
    if (static_cast<int>(tok.size()) != dimension) return fail("'spacings' must list " + std::to_string(dimension) + " values");
    for (int i = 0; i < spatialDims; ++i) {
      const std::string& t = tok[static_cast<size_t>(i + (channelAxis >= 0 ? 1 : 0))];
      char* end = nullptr;
      const double v = std::strtod(t.c_str(), &end);
      if (end == t.c_str() || *end != '\0') return fail("'spacings' holds '" + excerpt(t) + "', not a number");
      if (std::isnan(v)) continue;  // NaN means unknown: 1 mm
      if (!std::isfinite(v) || v == 0) return fail("spacing " + excerpt(t) + " of axis " + std::to_string(i) + " is not usable");
      // A negative spacing runs the axis backwards: the axis is flipped, not made 1 mm.
      if (v < 0) LOG_WARN("IO", file << ": spacing " << v << " of axis " << i << " read as " << -v << " mm along a flipped axis");
      affine(i, i) = v;
    }
  }
  if (!field("space origin").empty()) {
    std::vector<std::vector<double>> o;
    if (!parseVectors(field("space origin"), o) || o.size() != 1 || o[0].size() < 2 || o[0].size() > 3)
      return fail("malformed 'space origin: " + excerpt(field("space origin")) + "'");
    for (size_t r = 0; r < o[0].size(); ++r) {
      if (!std::isfinite(o[0][r])) return fail("'space origin' holds a value that is not finite");
      affine(static_cast<int>(r), 3) = o[0][r];
    }
  }
  const std::string space = toLower(field("space"));
  Eigen::Vector4d flip(1, 1, 1, 1);
  if (space == "right-anterior-superior" || space == "ras" || space == "scanner-xyz") flip << -1, -1, 1, 1;
  else if (space == "left-anterior-superior" || space == "las") flip << 1, -1, 1, 1;
  else if (!space.empty() && space != "left-posterior-superior" && space != "lps" && space != "3d-right-handed" &&
           space != "3d-left-handed")
    return fail("unsupported space '" + excerpt(field("space")) + "'");
  affine = flip.asDiagonal() * affine;
  Eigen::Vector3d spacing;
  const Eigen::Matrix4d matrix = matrixFromIndexAffine(affine, dims, spacing, fallback);

  // The data.
  const std::string encoding = toLower(field("encoding"));
  if (encoding.empty()) return fail("missing field 'encoding'");
  const bool gzip = encoding == "gzip" || encoding == "gz";
  const bool raw = encoding == "raw";
  const bool ascii = encoding == "ascii" || encoding == "text" || encoding == "txt";
  if (!gzip && !raw && !ascii) return fail("unsupported encoding '" + excerpt(field("encoding")) + "'");
  ImageDescriptor desc(type, dims, channels);
  const double promised = static_cast<double>(dims[0]) * dims[1] * dims[2] * channels * pixelTypeSize(type);
  const size_t expected = desc.byteSize();

  std::string dataBytes;
  size_t dataStart = 0;
  std::string dataName = file;
  std::string dataFile = field("data file");
  if (dataFile.empty()) dataFile = field("datafile");
  if (!dataFile.empty()) {
    if (dataFile.rfind("LIST", 0) == 0 || dataFile.find('%') != std::string::npos)
      return fail("data file lists are not supported");
    fs::path dp(dataFile);
    if (dp.is_relative()) dp = fs::path(path).parent_path() / dp;
    dataName = baseName(dp.string());
    std::string why;
    if (!readRegularFile(dp.string(), dataBytes, why)) return fail("data file '" + excerpt(dataName) + "': " + why);
  } else {
    if (!blankLine) return fail("header ends without a blank line and names no data file");
    dataBytes.swap(bytes);
    dataStart = pos;
  }
  long long byteSkip = 0;
  if (!field("byte skip").empty()) byteSkip = std::atoll(field("byte skip").c_str());
  if (byteSkip < -1) return fail("bad 'byte skip: " + excerpt(field("byte skip")) + "'");
  if (byteSkip == -1) {
    if (!raw) return fail("'byte skip: -1' needs raw encoding");
    if (dataBytes.size() - dataStart < expected) return fail("data is truncated");
    dataStart = dataBytes.size() - expected;
  } else if (byteSkip > 0) {
    dataStart += static_cast<size_t>(byteSkip);
  }
  if (dataStart > dataBytes.size()) return fail("data is truncated");
  const char* src = dataBytes.data() + dataStart;
  const size_t available = dataBytes.size() - dataStart;
  // Check the promise against what the file can hold before allocating: deflate shrinks by
  // at most about 1:1032, and ascii needs two characters a value.
  const double capacity = raw ? static_cast<double>(available)
                              : (gzip ? static_cast<double>(available) * 1100.0 + 65536.0 : available * 0.5 * pixelTypeSize(type));
  if (promised > capacity + 0.5)
    return fail("data is truncated: the header promises " + std::to_string(static_cast<long long>(promised)) +
                " bytes, the file holds " + std::to_string(available));
  std::shared_ptr<MemImage> image(MemImage::create(desc, false));

  if (raw) {
    if (available < expected)
      return fail("data is truncated: " + std::to_string(available) + " of " + std::to_string(expected) + " bytes");
    std::memcpy(image->data(), src, expected);
  } else if (gzip) {
    std::string out, e;
    if (!inflateBytes(src, available, out, expected, &e)) return fail(e);
    std::memcpy(image->data(), out.data(), expected);
  } else {
    std::istringstream in(std::string(src, available));
    const size_t count = desc.elementCount();
    bool ok = true;
    size_t misfit = count;  // the first value the type cannot hold
    dispatchPixelType(type, [&](auto tag) {
      using T = decltype(tag);
      using Limits = std::numeric_limits<T>;
      T* p = static_cast<T*>(image->data());
      for (size_t k = 0; k < count && ok && misfit == count; ++k) {
        double v;
        if (!(in >> v)) {
          ok = false;
        } else if (Limits::is_integer ? !(v >= static_cast<double>(Limits::lowest()) && v <= static_cast<double>(Limits::max()))
                                      : (std::isfinite(v) && std::abs(v) > static_cast<double>(Limits::max()))) {
          misfit = k;  // converting it would be undefined, not merely wrong
        } else {
          p[k] = static_cast<T>(v);
        }
      }
    });
    if (!ok) return fail("ascii data holds fewer than " + std::to_string(count) + " values");
    if (misfit != count)
      return fail("ascii value " + std::to_string(misfit) + " lies outside the range of type '" + excerpt(field("type")) + "'");
  }
  if ((raw || gzip) && toLower(field("endian")) == "big")
    swapBytes(image->data(), desc.elementCount(), desc.typeSize());
  image->setSpacing(spacing);

  auto set = makeSet(image, matrix, path);
  applyMetadata(*set, keys);
  return set;
}

bool writeNrrd(const SharedImageSet& image, const std::string& path, std::string* error, const WriteOptions& options) {
  const MemImage* m = image.mem(0);
  const char* typeName = nrrdTypeName(m->type());
  if (!typeName) {
    if (error) *error = baseName(path) + ": pixel type " + pixelTypeName(m->type()) + " cannot be written";
    return false;
  }
  const bool detached = endsWith(toLower(path), ".nhdr");
  const bool gzip = options.compress;
  const ImageDescriptor& d = m->descriptor();
  const Eigen::Matrix4d affine = indexAffineFromMatrix(image.get(0)->matrix(), d.dimensions, d.spacing);
  const bool vector = d.channels > 1;

  std::ostringstream h;
  h.precision(17);
  h << "NRRD0004\n# Written by MerivaneSeg; world is LPS in millimetres\n";
  h << "type: " << typeName << "\n";
  h << "dimension: " << (vector ? 4 : 3) << "\n";
  h << "space: left-posterior-superior\n";
  h << "sizes:";
  if (vector) h << " " << d.channels;
  h << " " << d.width() << " " << d.height() << " " << d.slices() << "\n";
  h << "space directions:" << (vector ? " none" : "");
  for (int i = 0; i < 3; ++i) h << " " << vectorText(affine.block<3, 1>(0, i));
  h << "\n";
  h << "kinds:" << (vector ? " vector" : "") << " domain domain domain\n";
  h << "endian: little\n";
  h << "encoding: " << (gzip ? "gzip" : "raw") << "\n";
  h << "space origin: " << vectorText(affine.block<3, 1>(0, 3)) << "\n";
  std::string dataName;
  if (detached) {
    fs::path p(path);
    dataName = p.stem().string() + (gzip ? ".raw.gz" : ".raw");
    h << "data file: " << dataName << "\n";
  }
  for (const auto& [key, value] : metadataOf(image)) h << key << ":=" << value << "\n";
  h << "\n";

  std::string data;
  if (gzip) {
    if (!deflateBytes(m->data(), d.byteSize(), data, true)) {
      if (error) *error = baseName(path) + ": compression failed";
      return false;
    }
  } else {
    data.assign(static_cast<const char*>(m->data()), d.byteSize());
  }
  if (detached) {
    // Data first: a header never points at a missing data file.
    const std::string dataPath = (fs::path(path).parent_path() / dataName).string();
    if (!writeFileAtomically(dataPath, data, error)) return false;
    return writeFileAtomically(path, h.str(), error);
  }
  return writeFileAtomically(path, h.str() + data, error);
}

}  // namespace Merivane::IO::detail
