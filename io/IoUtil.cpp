#include "IoUtil.h"

#include <signal.h>
#include <unistd.h>
#include <zlib.h>

#include <Eigen/Geometry>
#include <Eigen/LU>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <set>
#include <sstream>
#include <vector>

#include "InputChecks.h"
#include "LabelDataComponent.h"
#include "Log.h"
#include "SharedImageSet.h"

namespace fs = std::filesystem;

namespace Merivane::IO::detail {

std::string baseName(const std::string& path) { return fs::path(path).filename().string(); }

std::unique_ptr<SharedImageSet> ReadFailure::operator()(const std::string& what) const {
  if (error) *error = file + ": " + what;
  return nullptr;
}

bool readFileBytes(const std::string& path, std::string& out, std::string* error) {
  std::string why;
  if (!readRegularFile(path, out, why)) {
    if (error) *error = baseName(path) + ": " + why;
    return false;
  }
  return true;
}

namespace {

constexpr const char* kTemporaryMark = ".merivane-tmp";

// The writing process of a temporary name made by temporaryPathFor, or 0 when `name` is not
// one: "." STEM ".merivane-tmp" PID "-" COUNTER EXTENSIONS. The mark is long so that no file of
// a user's is mistaken for one.
pid_t temporaryOwner(const std::string& name) {
  if (name.size() < 2 || name[0] != '.') return 0;
  for (size_t at = name.find(kTemporaryMark, 1); at != std::string::npos; at = name.find(kTemporaryMark, at + 1)) {
    size_t i = at + std::strlen(kTemporaryMark);
    const size_t pidStart = i;
    while (i < name.size() && std::isdigit(static_cast<unsigned char>(name[i]))) ++i;
    if (i == pidStart || i - pidStart > 9 || i >= name.size() || name[i] != '-') continue;
    const size_t counterStart = ++i;
    while (i < name.size() && std::isdigit(static_cast<unsigned char>(name[i]))) ++i;
    if (i == counterStart || (i < name.size() && name[i] != '.')) continue;
    return static_cast<pid_t>(std::stol(name.substr(pidStart, counterStart - 1 - pidStart)));
  }
  return 0;
}

bool processIsGone(pid_t pid) { return ::kill(pid, 0) != 0 && errno == ESRCH; }

}  // namespace

int removeStaleTemporaries(const std::string& folder) {
  std::error_code ec;
  int removed = 0;
  for (fs::directory_iterator it(folder.empty() ? "." : folder, ec), end; !ec && it != end; it.increment(ec)) {
    const std::string name = it->path().filename().string();
    const pid_t owner = temporaryOwner(name);
    if (owner <= 0 || owner == ::getpid() || !processIsGone(owner)) continue;
    std::error_code typeEc;
    if (!it->is_regular_file(typeEc) || it->is_symlink(typeEc)) continue;
    std::error_code removeEc;
    if (fs::remove(it->path(), removeEc)) {
      ++removed;
      LOG_INFO("IO", "removed " << name << ", left behind by process " << owner << " that no longer runs");
    }
  }
  return removed;
}

std::string temporaryPathFor(const std::string& path) {
  static std::atomic<int> counter{0};
  const fs::path p(path);
  {
    // Once per folder and process: a run that was killed leaves its temporaries behind.
    static std::mutex mutex;
    static std::set<std::string> swept;
    const std::string folder = p.parent_path().string();
    std::lock_guard lock(mutex);
    if (swept.insert(folder).second) removeStaleTemporaries(folder);
  }
  std::string name = p.filename().string();
  // Keep the whole extension chain (".nii.gz") at the end of the temporary name.
  const size_t dot = name.find('.', 1);
  const std::string stem = dot == std::string::npos ? name : name.substr(0, dot);
  const std::string ext = dot == std::string::npos ? "" : name.substr(dot);
  return (p.parent_path() / ("." + stem + kTemporaryMark + std::to_string(::getpid()) + "-" +
                             std::to_string(counter++) + ext))
      .string();
}

bool commitTemporary(const std::string& tmp, const std::string& path, std::string* error) {
  std::error_code ec;
  fs::rename(tmp, path, ec);
  if (ec) {
    fs::remove(tmp, ec);
    if (error) *error = baseName(path) + ": cannot move the written file into place (" + ec.message() + ")";
    return false;
  }
  return true;
}

bool writeFileAtomically(const std::string& path, const std::string& bytes, std::string* error) {
  const std::string tmp = temporaryPathFor(path);
  FILE* f = std::fopen(tmp.c_str(), "wb");
  if (!f) {
    if (error) *error = baseName(path) + ": cannot open for writing (" + std::strerror(errno) + ")";
    return false;
  }
  const bool ok = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
  const bool closed = std::fclose(f) == 0;
  if (!ok || !closed) {
    std::error_code ec;
    fs::remove(tmp, ec);
    if (error) *error = baseName(path) + ": write failed (" + std::strerror(errno) + ")";
    return false;
  }
  return commitTemporary(tmp, path, error);
}

bool inflateBytes(const char* data, size_t size, std::string& out, size_t expected, std::string* error) {
  z_stream zs{};
  if (inflateInit2(&zs, 15 + 32) != Z_OK) {
    if (error) *error = "cannot start decompression";
    return false;
  }
  out.clear();
  // One byte beyond `expected` tells a stream that holds more from one that ends there.
  out.resize(expected ? expected + 1 : std::max<size_t>(std::min<size_t>(size, 1u << 26) * 4, 1024));
  const auto* in = reinterpret_cast<const Bytef*>(data);
  size_t consumed = 0;
  size_t produced = 0;
  size_t trailing = 0;
  int rc = Z_OK;
  while (true) {
    if (produced == out.size()) {
      if (expected) break;  // more data than expected: reported below
      out.resize(out.size() * 2);
    }
    zs.next_in = const_cast<Bytef*>(in + consumed);
    zs.avail_in = static_cast<uInt>(std::min<size_t>(size - consumed, 1u << 30));
    zs.next_out = reinterpret_cast<Bytef*>(out.data() + produced);
    zs.avail_out = static_cast<uInt>(std::min<size_t>(out.size() - produced, 1u << 30));
    const uInt outBefore = zs.avail_out, inBefore = zs.avail_in;
    rc = inflate(&zs, Z_NO_FLUSH);
    produced += outBefore - zs.avail_out;
    consumed += inBefore - zs.avail_in;
    if (rc == Z_STREAM_END) {
      if (consumed == size) break;
      // Concatenated gzip members are legal; anything else after the stream is not.
      if (size - consumed >= 2 && in[consumed] == 0x1f && in[consumed + 1] == 0x8b && inflateReset(&zs) == Z_OK)
        continue;
      trailing = size - consumed;
      break;
    }
    if (rc != Z_OK) break;
    if (consumed == size && produced < out.size()) break;  // input ended early
  }
  const std::string zlibMessage = zs.msg ? zs.msg : "zlib error";
  inflateEnd(&zs);
  if (rc != Z_STREAM_END && rc != Z_OK && !(rc == Z_BUF_ERROR && consumed == size)) {
    if (error) *error = "corrupt compressed data (" + zlibMessage + ")";
    return false;
  }
  if (expected && produced > expected) {
    if (error) *error = "compressed data holds more than the " + std::to_string(expected) + " bytes expected";
    return false;
  }
  if (rc != Z_STREAM_END) {
    if (error)
      *error = "compressed data is truncated (" + std::to_string(produced) + " bytes" +
               (expected ? " of " + std::to_string(expected) : std::string()) + ")";
    return false;
  }
  if (trailing) {
    if (error) *error = std::to_string(trailing) + " bytes of trailing data after the compressed stream";
    return false;
  }
  if (expected && produced != expected) {
    if (error)
      *error = "compressed data holds " + std::to_string(produced) + " bytes, expected " + std::to_string(expected);
    return false;
  }
  out.resize(produced);
  return true;
}

// Whole volumes are compressed in independent pieces on all cores, at zlib's fastest level:
// each piece is a raw deflate stream ended by a sync flush (the last one by the final block),
// so that their concatenation is one valid stream, and the checksums of the pieces are
// combined. A 256^3 float volume took about 3 s at level 6 on one core; measurement data
// compresses little better at the slower levels. The bytes do not depend on the thread count.
bool deflateBytes(const void* data, size_t size, std::string& out, bool gzipHeader) {
  constexpr size_t kPiece = size_t(4) << 20;
  const size_t pieces = std::max<size_t>(1, (size + kPiece - 1) / kPiece);
  const auto* bytes = static_cast<const Bytef*>(data);
  std::vector<std::string> parts(pieces);
  std::vector<uLong> sums(pieces);
  std::atomic<bool> ok{true};
#pragma omp parallel for schedule(dynamic, 1) if (pieces > 1)
  for (size_t k = 0; k < pieces; ++k) {
    const size_t begin = k * kPiece, length = std::min(kPiece, size - std::min(size, begin));
    z_stream zs{};
    if (deflateInit2(&zs, Z_BEST_SPEED, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY) != Z_OK) {
      ok = false;
      continue;
    }
    std::string& part = parts[k];
    part.resize(deflateBound(&zs, static_cast<uLong>(length)) + 16);
    zs.next_in = const_cast<Bytef*>(bytes + begin);
    zs.avail_in = static_cast<uInt>(length);
    zs.next_out = reinterpret_cast<Bytef*>(part.data());
    zs.avail_out = static_cast<uInt>(part.size());
    const bool last = k + 1 == pieces;
    const int rc = deflate(&zs, last ? Z_FINISH : Z_SYNC_FLUSH);
    if (last ? rc != Z_STREAM_END : (rc != Z_OK || zs.avail_in != 0)) ok = false;
    part.resize(zs.total_out);
    deflateEnd(&zs);
    sums[k] = gzipHeader ? crc32(crc32(0L, Z_NULL, 0), bytes + begin, static_cast<uInt>(length))
                         : adler32(adler32(0L, Z_NULL, 0), bytes + begin, static_cast<uInt>(length));
  }
  if (!ok) return false;
  uLong sum = gzipHeader ? crc32(0L, Z_NULL, 0) : adler32(0L, Z_NULL, 0);
  for (size_t k = 0; k < pieces; ++k) {
    const auto length = static_cast<z_off_t>(std::min(kPiece, size - std::min(size, k * kPiece)));
    sum = gzipHeader ? crc32_combine(sum, sums[k], length) : adler32_combine(sum, sums[k], length);
  }
  size_t total = 0;
  for (const auto& p : parts) total += p.size();
  out.clear();
  out.reserve(total + 18);
  if (gzipHeader)
    out.append("\x1f\x8b\x08\x00\x00\x00\x00\x00\x04\x03", 10);  // deflate, no name or time, fastest, Unix
  else
    out.append("\x78\x01", 2);  // deflate with a 32 KiB window, fastest level
  for (auto& p : parts) {
    out += p;
    p = {};
  }
  auto put = [&](uint32_t v, bool bigEndian) {
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<char>((v >> (bigEndian ? 24 - 8 * i : 8 * i)) & 0xff));
  };
  if (gzipHeader) {
    put(static_cast<uint32_t>(sum), false);
    put(static_cast<uint32_t>(size & 0xffffffffu), false);
  } else {
    put(static_cast<uint32_t>(sum), true);
  }
  return true;
}

void swapBytes(void* data, size_t count, int elementSize) {
  if (elementSize <= 1) return;
  auto* p = static_cast<unsigned char*>(data);
  for (size_t i = 0; i < count; ++i, p += elementSize) std::reverse(p, p + elementSize);
}

std::string trim(const std::string& s) {
  const size_t a = s.find_first_not_of(" \t\r\n");
  if (a == std::string::npos) return "";
  const size_t b = s.find_last_not_of(" \t\r\n");
  return s.substr(a, b - a + 1);
}

std::string toLower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

bool endsWith(const std::string& s, const std::string& suffix) {
  return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool parseNumbers(const std::string& text, std::vector<double>& out) {
  out.clear();
  std::istringstream in(text);
  std::string tok;
  while (in >> tok) {
    char* end = nullptr;
    const double v = std::strtod(tok.c_str(), &end);
    if (end == tok.c_str() || *end != '\0') return false;
    out.push_back(v);
  }
  return true;
}

Eigen::Matrix4d matrixFromIndexAffine(const Eigen::Matrix4d& affine, const Eigen::Vector3i& dims,
                                      Eigen::Vector3d& spacing, const Eigen::Vector3d& fallbackSpacing) {
  Eigen::Matrix4d m = Eigen::Matrix4d::Identity();
  Eigen::Matrix4d a = affine;
  for (int i = 0; i < 3; ++i) {
    const double len = a.block<3, 1>(0, i).norm();
    if (len > 0 && std::isfinite(len)) {
      spacing[i] = len;
    } else {
      // A degenerate column (a single slice written without its direction): complete it.
      spacing[i] = fallbackSpacing[i] > 0 ? fallbackSpacing[i] : 1.0;
      Eigen::Vector3d dir = Eigen::Vector3d::Unit(i);
      if (i == 2 && a.block<3, 1>(0, 0).norm() > 0 && a.block<3, 1>(0, 1).norm() > 0)
        dir = a.block<3, 1>(0, 0).normalized().cross(a.block<3, 1>(0, 1).normalized());
      a.block<3, 1>(0, i) = dir * spacing[i];
    }
    m.block<3, 1>(0, i) = a.block<3, 1>(0, i) / spacing[i];
  }
  const Eigen::Vector4d centre((dims[0] * 0.5 - 0.5), (dims[1] * 0.5 - 0.5), (dims[2] * 0.5 - 0.5), 1.0);
  m.block<3, 1>(0, 3) = (a * centre).head<3>();
  return m;
}

Eigen::Matrix4d indexAffineFromMatrix(const Eigen::Matrix4d& matrix, const Eigen::Vector3i& dims,
                                      const Eigen::Vector3d& spacing) {
  Eigen::Matrix4d s = Eigen::Matrix4d::Identity();
  for (int i = 0; i < 3; ++i) {
    s(i, i) = spacing[i];
    s(i, 3) = -(dims[i] * 0.5 - 0.5) * spacing[i];
  }
  return matrix * s;
}

const char* modalityName(Data::Modality m) {
  switch (m) {
    case Data::XRAY: return "XRAY";
    case Data::CT: return "CT";
    case Data::MRI: return "MRI";
    case Data::ULTRASOUND: return "ULTRASOUND";
    case Data::VIDEO: return "VIDEO";
    case Data::NM: return "NM";
    case Data::OCT: return "OCT";
    case Data::LABEL: return "LABEL";
    default: return "";
  }
}

Data::Modality modalityFromName(const std::string& name) {
  const std::string n = toLower(trim(name));
  for (int m = Data::XRAY; m <= Data::LABEL; ++m)
    if (n == toLower(modalityName(static_cast<Data::Modality>(m)))) return static_cast<Data::Modality>(m);
  if (n == "mr" || n == "met_mod_mr") return Data::MRI;
  if (n == "met_mod_ct") return Data::CT;
  if (n == "us" || n == "met_mod_us") return Data::ULTRASOUND;
  if (n == "met_mod_nm") return Data::NM;
  return Data::modalityAny;
}

std::vector<std::pair<std::string, std::string>> metadataOf(const SharedImageSet& set) {
  std::vector<std::pair<std::string, std::string>> out;
  if (set.modality() != Data::modalityAny) out.emplace_back("Modality", modalityName(set.modality()));
  if (const Image* img = set.img(0); img && (img->shift() != 0.0 || img->scale() != 1.0)) {
    std::ostringstream s;
    s.precision(17);
    s << img->shift() << " " << img->scale();
    out.emplace_back("ShiftScale", s.str());
  }
  if (const auto* labels = set.components().get<LabelDataComponent>()) {
    for (const auto& [value, config] : labels->labelConfigs()) {
      const std::string key = "Label" + std::to_string(value);
      std::string name = config.name;
      std::replace(name.begin(), name.end(), '\n', ' ');
      out.emplace_back(key + "_Name", name);
      std::ostringstream c;
      c << config.color[0] << " " << config.color[1] << " " << config.color[2] << " " << config.color[3];
      out.emplace_back(key + "_Color", c.str());
    }
  }
  return out;
}

void applyMetadata(SharedImageSet& set, const std::map<std::string, std::string>& fields) {
  if (set.empty()) return;
  auto it = fields.find("Modality");
  const Data::Modality modality = it == fields.end() ? Data::modalityAny : modalityFromName(it->second);
  if (auto ss = fields.find("ShiftScale"); ss != fields.end()) {
    std::vector<double> v;
    if (parseNumbers(ss->second, v) && v.size() == 2 && v[1] != 0.0)
      for (int i = 0; i < set.size(); ++i) set.get(i)->setShiftScale(v[0], v[1]);
  }
  const ImageDescriptor& d = set.get(0)->descriptor();
  if (modality == Data::LABEL && !(d.pixelType == U8 && d.channels == 1)) return;  // not a label map after all
  if (modality != Data::modalityAny) set.setModality(modality);
  if (modality != Data::LABEL) return;
  auto* labels = set.components().getOrCreate<LabelDataComponent>(&set);
  for (const auto& [key, value] : fields) {
    if (key.rfind("Label", 0) != 0) continue;
    const size_t us = key.find('_');
    if (us == std::string::npos) continue;
    char* end = nullptr;
    const long label = std::strtol(key.c_str() + 5, &end, 10);
    if (end != key.c_str() + us || label < 0 || label > 255) continue;
    const std::string what = key.substr(us + 1);
    auto config = labels->labelConfig(static_cast<int>(label)).value_or(
        LabelDataComponent::defaultLabelConfig(static_cast<int>(label)));
    if (what == "Name") {
      config.name = value;
    } else if (what == "Color") {
      std::vector<double> c;
      if (!parseNumbers(value, c) || (c.size() != 3 && c.size() != 4)) continue;
      config.color = Eigen::Vector4d(c[0], c[1], c[2], c.size() == 4 ? c[3] : 1.0);
    } else {
      continue;
    }
    labels->setLabelConfig(static_cast<int>(label), config);
  }
  labels->detectLabels(set);
}

std::unique_ptr<SharedImageSet> makeSet(std::shared_ptr<MemImage> image, const Eigen::Matrix4d& matrix,
                                        const std::string& path) {
  auto set = std::make_unique<SharedImageSet>();
  set->add(std::shared_ptr<Image>(std::move(image)), matrix);
  std::string name = baseName(path);
  name = name.substr(0, name.find('.'));
  set->setName(name);
  return set;
}

}  // namespace Merivane::IO::detail
