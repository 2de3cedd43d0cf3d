#include "DicomIO.h"

// DCMTK's configuration header must come before its other headers.
#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcrledrg.h>
#include <dcmtk/dcmdata/dctk.h>
#include <dcmtk/dcmfg/fgderimg.h>
#include <dcmtk/dcmfg/fgfracon.h>
#include <dcmtk/dcmfg/fgpixmsr.h>
#include <dcmtk/dcmfg/fgplanor.h>
#include <dcmtk/dcmfg/fgplanpo.h>
#include <dcmtk/dcmfg/fgseg.h>
#include <dcmtk/dcmiod/cielabutil.h>
#include <dcmtk/dcmiod/iodreferences.h>
#include <dcmtk/dcmjpeg/djdecode.h>
#include <dcmtk/dcmjpls/djdecode.h>
#include <dcmtk/dcmseg/segdoc.h>
#include <dcmtk/dcmseg/segment.h>
#include <dcmtk/oflog/oflog.h>

#include <Eigen/Geometry>
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <cstdlib>
#include <mutex>
#include <set>
#include <sstream>

#include "DicomSeriesComponent.h"
#include "IoUtil.h"
#include "LabelDataComponent.h"
#include "Log.h"
#include "SharedImageSet.h"

namespace fs = std::filesystem;

namespace Merivane::IO {

using namespace detail;

namespace {

using Vec3 = Eigen::Vector3d;

void initialiseLibrary() {
  static std::once_flag once;
  std::call_once(once, [] {
    // Our messages name the file; the library's own lines would only repeat them on stderr.
    OFLog::configure(OFLogger::FATAL_LOG_LEVEL);
    DcmRLEDecoderRegistration::registerCodecs();
    DJDecoderRegistration::registerCodecs();
    DJLSDecoderRegistration::registerCodecs();
    // The codecs are the library's until it is told to let them go.
    std::atexit([] {
      DJLSDecoderRegistration::cleanup();
      DJDecoderRegistration::cleanup();
      DcmRLEDecoderRegistration::cleanup();
    });
  });
}

// A path as messages show it: the last name, without a trailing separator.
std::string displayName(const std::string& path) {
  fs::path p = fs::path(path).lexically_normal();
  if (p.has_filename()) return p.filename().string();
  p = p.parent_path();
  return p.filename().empty() ? path : p.filename().string();
}

std::string text(DcmItem& item, const DcmTagKey& tag) {
  OFString s;
  if (item.findAndGetOFStringArray(tag, s).bad()) return "";
  return trim(s.c_str());
}

double number(DcmItem& item, const DcmTagKey& tag, double fallback, unsigned long pos = 0) {
  Float64 v;
  if (item.findAndGetFloat64(tag, v, pos).good() && std::isfinite(v)) return v;
  return fallback;
}

int integer(DcmItem& item, const DcmTagKey& tag, int fallback) {
  Uint16 u;
  if (item.findAndGetUint16(tag, u).good()) return u;
  Sint32 s;
  if (item.findAndGetSint32(tag, s).good()) return s;
  return fallback;
}

bool vector3(DcmItem& item, const DcmTagKey& tag, Vec3& out, unsigned long first = 0) {
  for (unsigned long i = 0; i < 3; ++i) {
    Float64 v;
    if (item.findAndGetFloat64(tag, v, first + i).bad() || !std::isfinite(v)) return false;
    out[static_cast<int>(i)] = v;
  }
  return true;
}

// The item of functional group `group` that applies to `frame`: its own, else the shared one.
DcmItem* functionalGroup(DcmItem& ds, int frame, const DcmTagKey& group) {
  DcmItem* perFrame = nullptr;
  DcmItem* item = nullptr;
  if (ds.findAndGetSequenceItem(DCM_PerFrameFunctionalGroupsSequence, perFrame, frame).good() && perFrame &&
      perFrame->findAndGetSequenceItem(group, item, 0).good() && item)
    return item;
  DcmItem* shared = nullptr;
  if (ds.findAndGetSequenceItem(DCM_SharedFunctionalGroupsSequence, shared, 0).good() && shared &&
      shared->findAndGetSequenceItem(group, item, 0).good() && item)
    return item;
  return nullptr;
}

struct Orientation {
  Vec3 row = Vec3::UnitX(), column = Vec3::UnitY();
  bool known = false;
  Vec3 normal() const { return row.cross(column); }
  bool sameAs(const Orientation& o) const {
    return known == o.known && (row - o.row).norm() < 1e-4 && (column - o.column).norm() < 1e-4;
  }
};

bool readOrientation(DcmItem& item, Orientation& o) {
  Vec3 r, c;
  if (!vector3(item, DCM_ImageOrientationPatient, r, 0) || !vector3(item, DCM_ImageOrientationPatient, c, 3))
    return false;
  if (r.norm() < 1e-6 || c.norm() < 1e-6 || std::abs(r.normalized().dot(c.normalized())) > 1e-3) return false;
  o.row = r.normalized();
  o.column = c.normalized();
  o.known = true;
  return true;
}

// One frame of one file, as a slice of a series.
struct Slice {
  int file = 0;
  int frame = 0;
  Vec3 position = Vec3::Zero();
  bool hasPosition = false;
  Orientation orientation;
  double slope = 1.0, intercept = 0.0;
  int instanceNumber = 0;
  double along = 0.0;  // position projected on the normal
};

struct FileHeader {
  std::string path;
  std::unique_ptr<DcmFileFormat> file;  // pixel data stays on disk until it is asked for
  bool isDicom = false;
  bool isImage = false;
  std::string unreadable;  // why a file with the DICOM mark could not be parsed
  std::string seriesUid, modality, description, sopClassUid, sopInstanceUid;
  int seriesNumber = 0;
  int rows = 0, columns = 0, frames = 1;
  int bitsAllocated = 0, bitsStored = 0, pixelRepresentation = 0, samples = 1;
  double rowSpacing = 0.0, columnSpacing = 0.0;  // PixelSpacing: between rows, between columns
  double sliceThickness = 0.0, spacingBetweenSlices = 0.0;
  std::vector<Slice> slices;
};

bool hasDicomMark(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  char head[132];
  if (!in.read(head, sizeof(head))) return false;
  return std::memcmp(head + 128, "DICM", 4) == 0;
}

bool isSegmentation(const FileHeader& h) { return h.sopClassUid == UID_SegmentationStorage; }

void parseHeader(FileHeader& h) {
  const bool marked = hasDicomMark(h.path);
  if (!marked && !endsWith(toLower(h.path), ".dcm")) return;
  h.file = std::make_unique<DcmFileFormat>();
  if (const OFCondition c = h.file->loadFile(h.path.c_str(), EXS_Unknown, EGL_noChange, DCM_MaxReadLength, ERM_autoDetect);
      c.bad()) {
    if (marked) h.unreadable = std::string("unreadable DICOM file (") + (c.text() ? c.text() : "parse error") + ")";
    h.file.reset();
    return;
  }
  h.isDicom = true;
  DcmDataset& ds = *h.file->getDataset();
  h.isImage = ds.tagExists(DCM_PixelData);
  h.seriesUid = text(ds, DCM_SeriesInstanceUID);
  h.modality = text(ds, DCM_Modality);
  h.description = text(ds, DCM_SeriesDescription);
  h.sopClassUid = text(ds, DCM_SOPClassUID);
  h.sopInstanceUid = text(ds, DCM_SOPInstanceUID);
  h.seriesNumber = integer(ds, DCM_SeriesNumber, 0);
  h.rows = integer(ds, DCM_Rows, 0);
  h.columns = integer(ds, DCM_Columns, 0);
  h.frames = std::max(1, integer(ds, DCM_NumberOfFrames, 1));
  h.bitsAllocated = integer(ds, DCM_BitsAllocated, 0);
  h.bitsStored = integer(ds, DCM_BitsStored, h.bitsAllocated);
  h.pixelRepresentation = integer(ds, DCM_PixelRepresentation, 0);
  h.samples = integer(ds, DCM_SamplesPerPixel, 1);
  if (!h.isImage || isSegmentation(h)) return;

  const bool enhanced = ds.tagExists(DCM_PerFrameFunctionalGroupsSequence) ||
                        ds.tagExists(DCM_SharedFunctionalGroupsSequence);
  DcmItem* measures = enhanced ? functionalGroup(ds, 0, DCM_PixelMeasuresSequence) : &ds;
  if (!measures) measures = &ds;
  h.rowSpacing = number(*measures, DCM_PixelSpacing, 0.0, 0);
  h.columnSpacing = number(*measures, DCM_PixelSpacing, 0.0, 1);
  h.sliceThickness = number(*measures, DCM_SliceThickness, 0.0);
  h.spacingBetweenSlices = number(*measures, DCM_SpacingBetweenSlices, 0.0);

  Orientation fileOrientation;
  readOrientation(ds, fileOrientation);
  Vec3 filePosition;
  const bool fileHasPosition = vector3(ds, DCM_ImagePositionPatient, filePosition);
  const double fileSlope = number(ds, DCM_RescaleSlope, 1.0), fileIntercept = number(ds, DCM_RescaleIntercept, 0.0);
  const int instance = integer(ds, DCM_InstanceNumber, 0);
  const double legacyStep = h.spacingBetweenSlices > 0 ? h.spacingBetweenSlices : h.sliceThickness;
  h.slices.resize(static_cast<size_t>(h.frames));
  for (int f = 0; f < h.frames; ++f) {
    Slice& s = h.slices[static_cast<size_t>(f)];
    s.frame = f;
    s.instanceNumber = instance;
    s.orientation = fileOrientation;
    s.slope = fileSlope;
    s.intercept = fileIntercept;
    if (enhanced) {
      if (DcmItem* o = functionalGroup(ds, f, DCM_PlaneOrientationSequence)) readOrientation(*o, s.orientation);
      if (DcmItem* p = functionalGroup(ds, f, DCM_PlanePositionSequence))
        s.hasPosition = vector3(*p, DCM_ImagePositionPatient, s.position);
      if (DcmItem* t = functionalGroup(ds, f, DCM_PixelValueTransformationSequence)) {
        s.slope = number(*t, DCM_RescaleSlope, s.slope);
        s.intercept = number(*t, DCM_RescaleIntercept, s.intercept);
      }
    } else if (fileHasPosition) {
      // A multi-frame file without per-frame positions stacks its frames along the normal.
      s.position = filePosition + f * legacyStep * s.orientation.normal();
      s.hasPosition = h.frames == 1 || legacyStep > 0;
    }
    if (s.slope == 0.0) s.slope = 1.0;
  }
}

// Regular files under a folder, or the one file.
std::vector<std::string> candidateFiles(const std::string& path, bool recursive) {
  std::vector<std::string> out;
  std::error_code ec;
  auto take = [&](const fs::directory_entry& e) {
    std::error_code tec;
    if (!e.is_regular_file(tec)) return;
    const std::string name = e.path().filename().string();
    if (name.empty() || name[0] == '.' || name == "DICOMDIR") return;
    out.push_back(e.path().string());
  };
  if (recursive) {
    for (fs::recursive_directory_iterator it(path, fs::directory_options::skip_permission_denied, ec), end;
         !ec && it != end; it.increment(ec))
      take(*it);
  } else {
    for (fs::directory_iterator it(path, ec), end; !ec && it != end; it.increment(ec)) take(*it);
  }
  std::sort(out.begin(), out.end());
  return out;
}

std::vector<FileHeader> parseHeaders(const std::vector<std::string>& paths) {
  initialiseLibrary();
  std::vector<FileHeader> headers(paths.size());
  const int n = static_cast<int>(paths.size());
  // Each file is parsed into its own objects; nothing is shared between iterations.
#pragma omp parallel for schedule(dynamic, 4) if (n >= 8)
  for (int i = 0; i < n; ++i) {
    headers[static_cast<size_t>(i)].path = paths[static_cast<size_t>(i)];
    try {
      parseHeader(headers[static_cast<size_t>(i)]);
    } catch (...) {
      headers[static_cast<size_t>(i)].isDicom = false;
      headers[static_cast<size_t>(i)].file.reset();
    }
  }
  return headers;
}

// The image files in scope of `path`, grouped by series. A single-frame file stands for its
// series in its folder.
struct Scan {
  std::vector<FileHeader> headers;
  std::map<std::string, std::vector<int>> series;  // series UID -> indices into headers
  int filesSeen = 0;
};

bool scan(const std::string& path, Scan& out, std::string* error) {
  const std::string name = displayName(path);
  std::error_code ec;
  const bool folder = fs::is_directory(path, ec);
  if (!folder && !fs::is_regular_file(path, ec)) {
    if (error) *error = name + ": " + (fs::exists(path, ec) ? "is not a regular file or folder" : "no such file or folder");
    return false;
  }
  std::string onlySeries;
  if (folder) {
    out.headers = parseHeaders(candidateFiles(path, true));
  } else {
    auto one = parseHeaders({path});
    if (!one[0].isDicom) {
      if (error) *error = name + ": " + (one[0].unreadable.empty() ? "not a DICOM file" : one[0].unreadable);
      return false;
    }
    if (!one[0].isImage) {
      if (error) *error = name + ": a DICOM file without pixel data";
      return false;
    }
    if (one[0].frames > 1 || isSegmentation(one[0]) || one[0].seriesUid.empty()) {
      out.headers = std::move(one);
    } else {
      onlySeries = one[0].seriesUid;
      const fs::path parent = fs::path(path).parent_path();
      out.headers = parseHeaders(candidateFiles(parent.empty() ? "." : parent.string(), false));
    }
  }
  out.filesSeen = static_cast<int>(out.headers.size());
  for (int i = 0; i < static_cast<int>(out.headers.size()); ++i) {
    const FileHeader& h = out.headers[static_cast<size_t>(i)];
    if (!h.isDicom || !h.isImage) continue;
    if (!onlySeries.empty() && h.seriesUid != onlySeries) continue;
    out.series[h.seriesUid].push_back(i);
  }
  if (out.series.empty()) {
    if (error) {
      int dicom = 0;
      for (const auto& h : out.headers) dicom += h.isDicom;
      *error = name + ": no DICOM image series (" + std::to_string(out.filesSeen) + " files, " +
               std::to_string(dicom) + " of them DICOM)";
    }
    return false;
  }
  return true;
}

DicomSeriesInfo describe(const Scan& s, const std::string& uid, const std::vector<int>& files) {
  DicomSeriesInfo info;
  const FileHeader& first = s.headers[static_cast<size_t>(files.front())];
  info.seriesInstanceUid = uid;
  info.modality = first.modality;
  info.description = first.description;
  info.seriesNumber = first.seriesNumber;
  info.width = first.columns;
  info.height = first.rows;
  info.files = static_cast<int>(files.size());
  for (int i : files) info.slices += s.headers[static_cast<size_t>(i)].frames;
  if (isSegmentation(first)) info.slices = static_cast<int>(files.size());
  return info;
}

std::vector<DicomSeriesInfo> describeAll(const Scan& s) {
  std::vector<DicomSeriesInfo> out;
  for (const auto& [uid, files] : s.series) out.push_back(describe(s, uid, files));
  std::stable_sort(out.begin(), out.end(),
                   [](const DicomSeriesInfo& a, const DicomSeriesInfo& b) { return a.seriesNumber < b.seriesNumber; });
  return out;
}

std::string seriesList(const std::vector<DicomSeriesInfo>& all) {
  std::string out;
  for (const auto& s : all)
    out += "\n  " + (s.seriesInstanceUid.empty() ? std::string("(no UID)") : s.seriesInstanceUid) + "  " +
           (s.modality.empty() ? "?" : s.modality) + "  " + std::to_string(s.width) + "x" + std::to_string(s.height) +
           "x" + std::to_string(s.slices) + "  " + (s.description.empty() ? "" : "\"" + s.description + "\"");
  return out;
}

std::string numberText(double v, int precision = 6) {
  char buf[64];
  std::snprintf(buf, sizeof(buf), "%.*g", precision, v);
  return buf;
}

std::string pointText(const Vec3& p) {
  return "(" + numberText(p[0]) + ", " + numberText(p[1]) + ", " + numberText(p[2]) + ") mm";
}

Data::Modality modalityOf(const std::string& m) {
  if (m == "PT") return Data::NM;
  if (m == "CR" || m == "DX" || m == "XA" || m == "RF" || m == "MG") return Data::XRAY;
  if (m == "SEG") return Data::LABEL;
  return modalityFromName(m);
}

// Copies the frames of one file into their slices of `out`. Stored values keep their type
// unless `physical` asks for F32 physical values.
bool copyPixels(FileHeader& h, const std::vector<std::pair<int, int>>& frameToSlice, const std::vector<Slice>& slices,
                MemImage& out, bool physical, std::string& problem) {
  DcmDataset& ds = *h.file->getDataset();
  if (DcmXfer(ds.getOriginalXfer()).isEncapsulated() &&
      ds.chooseRepresentation(EXS_LittleEndianExplicit, nullptr).bad()) {
    problem = std::string("cannot decompress its pixel data (") + DcmXfer(ds.getOriginalXfer()).getXferName() + ")";
    return false;
  }
  DcmElement* element = nullptr;
  if (ds.findAndGetElement(DCM_PixelData, element).bad() || !element) {
    problem = "no pixel data";
    return false;
  }
  const size_t pixels = static_cast<size_t>(h.rows) * static_cast<size_t>(h.columns);
  const int bytes = h.bitsAllocated / 8;
  const void* data = nullptr;
  if (bytes == 1) {
    Uint8* p = nullptr;
    if (element->getUint8Array(p).bad() || !p) {
      Uint16* w = nullptr;
      if (element->getUint16Array(w).good()) p = reinterpret_cast<Uint8*>(w);
    }
    data = p;
  } else if (bytes == 2) {
    Uint16* p = nullptr;
    element->getUint16Array(p);
    data = p;
  } else {
    Uint32* p = nullptr;
    element->getUint32Array(p);
    data = p;
  }
  if (!data) {
    problem = "unreadable pixel data";
    return false;
  }
  if (element->getLength() < pixels * static_cast<size_t>(bytes) * static_cast<size_t>(h.frames)) {
    problem = "pixel data is truncated: " + std::to_string(element->getLength()) + " bytes for " +
              std::to_string(h.frames) + " frame(s) of " + std::to_string(h.columns) + "x" + std::to_string(h.rows);
    return false;
  }
  const int stored = std::clamp(h.bitsStored, 1, h.bitsAllocated);
  const bool isSigned = h.pixelRepresentation == 1;
  auto value = [&](size_t k) -> int64_t {
    uint64_t u;
    if (bytes == 1) u = static_cast<const uint8_t*>(data)[k];
    else if (bytes == 2) u = static_cast<const uint16_t*>(data)[k];
    else u = static_cast<const uint32_t*>(data)[k];
    if (stored < 64) u &= (uint64_t(1) << stored) - 1;  // bits above BitsStored may hold overlays
    if (isSigned && stored < 64 && (u >> (stored - 1)) & 1u) return static_cast<int64_t>(u) - (int64_t(1) << stored);
    return static_cast<int64_t>(u);
  };
  for (const auto& [frame, z] : frameToSlice) {
    const size_t base = static_cast<size_t>(frame) * pixels;
    const Slice& s = slices[static_cast<size_t>(z)];
    const size_t dst = static_cast<size_t>(z) * pixels;
    if (physical) {
      float* o = static_cast<float*>(out.data()) + dst;
      for (size_t k = 0; k < pixels; ++k) o[k] = static_cast<float>(value(base + k) * s.slope + s.intercept);
      continue;
    }
    dispatchPixelType(out.type(), [&](auto tag) {
      using T = decltype(tag);
      T* o = static_cast<T*>(out.data()) + dst;
      for (size_t k = 0; k < pixels; ++k) o[k] = static_cast<T>(value(base + k));
    });
  }
  return true;
}

std::unique_ptr<DicomSeriesComponent> seriesRecord(DcmDataset& ds) {
  auto c = std::make_unique<DicomSeriesComponent>();
  c->patientName = text(ds, DCM_PatientName);
  c->patientId = text(ds, DCM_PatientID);
  c->patientBirthDate = text(ds, DCM_PatientBirthDate);
  c->patientSex = text(ds, DCM_PatientSex);
  c->studyInstanceUid = text(ds, DCM_StudyInstanceUID);
  c->studyDate = text(ds, DCM_StudyDate);
  c->studyTime = text(ds, DCM_StudyTime);
  c->studyId = text(ds, DCM_StudyID);
  c->accessionNumber = text(ds, DCM_AccessionNumber);
  c->referringPhysician = text(ds, DCM_ReferringPhysicianName);
  c->seriesInstanceUid = text(ds, DCM_SeriesInstanceUID);
  c->frameOfReferenceUid = text(ds, DCM_FrameOfReferenceUID);
  c->modality = text(ds, DCM_Modality);
  c->sopClassUid = text(ds, DCM_SOPClassUID);
  return c;
}

// Records the grid of a set in its series record, so that a writer can tell whether a label
// map lies on it.
void recordGrid(DicomSeriesComponent& c, const SharedImage& frame) {
  const ImageDescriptor& d = frame.descriptor();
  c.columns = d.width();
  c.rows = d.height();
  const Eigen::Matrix4d& m = frame.matrix();
  c.orientation = {m(0, 0), m(1, 0), m(2, 0), m(0, 1), m(1, 1), m(2, 1)};
  c.slicePositions.clear();
  for (int z = 0; z < d.slices(); ++z) {
    const Vec3 p = frame.pixelToWorld(Vec3(0, 0, z));
    c.slicePositions.insert(c.slicePositions.end(), {p[0], p[1], p[2]});
  }
}

std::unique_ptr<SharedImageSet> buildSeries(Scan& scanned, const std::vector<int>& files, const std::string& where,
                                            std::string* error) {
  const ReadFailure fail{where, error};
  FileHeader& first = scanned.headers[static_cast<size_t>(files.front())];
  auto fileName = [&](int file) { return displayName(scanned.headers[static_cast<size_t>(file)].path); };
  for (int i : files) {
    const FileHeader& h = scanned.headers[static_cast<size_t>(i)];
    const std::string f = displayName(h.path);
    if (h.rows < 1 || h.columns < 1) return fail(f + ": no image size (Rows, Columns)");
    if (h.samples != 1)
      return fail(f + ": " + std::to_string(h.samples) + " samples per pixel; only grey-value images are read");
    if (h.bitsAllocated != 8 && h.bitsAllocated != 16 && h.bitsAllocated != 32)
      return fail(f + ": BitsAllocated " + std::to_string(h.bitsAllocated) + " is not supported");
    if (h.rows != first.rows || h.columns != first.columns)
      return fail(f + ": " + std::to_string(h.columns) + "x" + std::to_string(h.rows) + " slices among " +
                  std::to_string(first.columns) + "x" + std::to_string(first.rows) + " ones");
    if (h.bitsAllocated != first.bitsAllocated || h.pixelRepresentation != first.pixelRepresentation)
      return fail(f + ": its pixel type differs from that of " + displayName(first.path));
    if (std::abs(h.rowSpacing - first.rowSpacing) > 1e-4 || std::abs(h.columnSpacing - first.columnSpacing) > 1e-4)
      return fail(f + ": its pixel spacing differs from that of " + displayName(first.path));
  }
  std::vector<Slice> slices;
  for (int i : files)
    for (Slice s : scanned.headers[static_cast<size_t>(i)].slices) {
      s.file = i;
      slices.push_back(s);
    }
  const Orientation& orientation = slices.front().orientation;
  for (const Slice& s : slices)
    if (!s.orientation.sameAs(orientation))
      return fail(fileName(s.file) + ": inconsistent orientation (ImageOrientationPatient differs from that of " +
                  fileName(slices.front().file) + ")");
  const bool positioned = std::all_of(slices.begin(), slices.end(), [](const Slice& s) { return s.hasPosition; }) &&
                          orientation.known;
  const Vec3 normal = orientation.normal();
  double fallbackStep = first.spacingBetweenSlices > 0 ? first.spacingBetweenSlices
                        : first.sliceThickness > 0    ? first.sliceThickness
                                                      : 1.0;
  if (positioned) {
    for (Slice& s : slices) s.along = s.position.dot(normal);
    std::stable_sort(slices.begin(), slices.end(), [](const Slice& a, const Slice& b) { return a.along < b.along; });
  } else {
    if (slices.size() > 1)
      LOG_WARN("IO", where << ": slices without position or orientation; ordered by instance number");
    std::stable_sort(slices.begin(), slices.end(),
                     [](const Slice& a, const Slice& b) { return a.instanceNumber < b.instanceNumber; });
    for (size_t k = 0; k < slices.size(); ++k) {
      slices[k].position = orientation.normal() * fallbackStep * static_cast<double>(k);
      slices[k].along = fallbackStep * static_cast<double>(k);
    }
  }
  const int n = static_cast<int>(slices.size());
  Vec3 step = normal * fallbackStep;
  if (n > 1) {
    double minStep = std::numeric_limits<double>::max();
    for (int k = 0; k + 1 < n; ++k) {
      const double d = slices[k + 1].along - slices[k].along;
      if (d < 1e-3) {
        const std::string a = fileName(slices[k].file), b = fileName(slices[k + 1].file);
        return fail("two slices at the same position " + pointText(slices[k].position) + ": " + a +
                    (a == b ? " (frames " + std::to_string(slices[k].frame + 1) + " and " +
                                  std::to_string(slices[k + 1].frame + 1) + ")"
                            : " and " + b));
      }
      minStep = std::min(minStep, d);
    }
    // Every step must be the smallest one; a whole multiple of it means missing slices.
    for (int k = 0; k + 1 < n; ++k) {
      const double d = slices[k + 1].along - slices[k].along;
      const double ratio = d / minStep;
      if (std::abs(ratio - 1.0) <= 0.05) continue;
      const long whole = std::lround(ratio);
      const std::string between = fileName(slices[k].file) + " and " + fileName(slices[k + 1].file);
      if (std::abs(ratio - static_cast<double>(whole)) <= 0.05) {
        const Vec3 missing = slices[k].position + (slices[k + 1].position - slices[k].position) / ratio;
        return fail(std::string(whole > 2 ? std::to_string(whole - 1) + " slices" : "a slice") + " missing at " +
                    pointText(missing) + (whole > 2 ? " and after" : "") + ", between " + between + " (step " +
                    numberText(minStep) + " mm)");
      }
      return fail("uneven slice spacing: " + numberText(d) + " mm between " + between + ", " + numberText(minStep) +
                  " mm elsewhere");
    }
    step = (slices.back().position - slices.front().position) / static_cast<double>(n - 1);
    // A step that deviates from the normal is a tilted gantry: the matrix keeps the shear.
  }

  // Slope and intercept go into shift and scale when all slices share them; otherwise the
  // values are converted.
  bool sameRescale = true;
  for (const Slice& s : slices)
    sameRescale = sameRescale && s.slope == slices.front().slope && s.intercept == slices.front().intercept;
  const bool physical = !sameRescale;
  PixelType type;
  const bool isSigned = first.pixelRepresentation == 1;
  if (physical) type = F32;
  else if (first.bitsAllocated == 8) type = isSigned ? I8 : U8;
  else if (first.bitsAllocated == 16) type = isSigned ? I16 : U16;
  else type = isSigned ? I32 : U32;
  const Eigen::Vector3i dims(first.columns, first.rows, n);
  std::shared_ptr<MemImage> image(MemImage::create(ImageDescriptor(type, dims, 1), false));

  // The record comes from the first file, before the files are cleared of their pixel data.
  auto record = seriesRecord(*first.file->getDataset());

  // Frames of each file, by slice.
  std::map<int, std::vector<std::pair<int, int>>> byFile;
  for (int z = 0; z < n; ++z) byFile[slices[static_cast<size_t>(z)].file].emplace_back(slices[static_cast<size_t>(z)].frame, z);
  std::vector<std::pair<int, std::vector<std::pair<int, int>>>> work(byFile.begin(), byFile.end());
  std::vector<std::string> problems(work.size());
  const int jobs = static_cast<int>(work.size());
  // Each file writes only its own slices of `image`.
#pragma omp parallel for schedule(dynamic, 2) if (jobs >= 4)
  for (int j = 0; j < jobs; ++j) {
    FileHeader& h = scanned.headers[static_cast<size_t>(work[static_cast<size_t>(j)].first)];
    std::string& problem = problems[static_cast<size_t>(j)];
    try {
      if (copyPixels(h, work[static_cast<size_t>(j)].second, slices, *image, physical, problem)) h.file->clear();
    } catch (const std::exception& e) {
      problem = e.what();
    } catch (...) {
      problem = "unreadable pixel data";
    }
  }
  for (int j = 0; j < jobs; ++j)
    if (!problems[static_cast<size_t>(j)].empty())
      return fail(fileName(work[static_cast<size_t>(j)].first) + ": " + problems[static_cast<size_t>(j)]);

  const double sx = first.columnSpacing > 0 ? first.columnSpacing : 1.0;
  const double sy = first.rowSpacing > 0 ? first.rowSpacing : 1.0;
  Eigen::Matrix4d affine = Eigen::Matrix4d::Identity();
  affine.block<3, 1>(0, 0) = orientation.row * sx;
  affine.block<3, 1>(0, 1) = orientation.column * sy;
  affine.block<3, 1>(0, 2) = step;
  affine.block<3, 1>(0, 3) = slices.front().position;
  Vec3 spacing;
  const Eigen::Matrix4d matrix = matrixFromIndexAffine(affine, dims, spacing, Vec3(sx, sy, fallbackStep));
  image->setSpacing(spacing);
  if (!physical && (slices.front().slope != 1.0 || slices.front().intercept != 0.0))
    image->setShiftScale(-slices.front().intercept, 1.0 / slices.front().slope);

  auto set = makeSet(image, matrix, where);
  if (!first.description.empty()) set->setName(first.description);
  const Data::Modality modality = modalityOf(first.modality);
  if (modality != Data::modalityAny && modality != Data::LABEL) set->setModality(modality);
  for (const Slice& s : slices) {
    const FileHeader& h = scanned.headers[static_cast<size_t>(s.file)];
    record->sopInstanceUids.push_back(h.sopInstanceUid);
    record->frameNumbers.push_back(h.frames > 1 ? s.frame + 1 : 0);
  }
  recordGrid(*record, *set->get(0));
  set->components().add(std::move(record));
  return set;
}

// ---- Segmentation objects ----

constexpr const char* kLabelValuePrefix = "Label value ";

std::string newUid() {
  char buf[100];
  dcmGenerateUniqueIdentifier(buf, SITE_INSTANCE_UID_ROOT);
  return buf;
}

// A decimal string of at most 16 characters, as DS allows.
std::string decimal(double v) {
  if (std::abs(v) < 1e-12) v = 0.0;
  for (int precision = 12; precision > 1; --precision) {
    const std::string s = numberText(v, precision);
    if (s.size() <= 16) return s;
  }
  return numberText(v, 1);
}

std::string conditionText(const OFCondition& c) { return c.text() ? c.text() : "failed"; }

// Label names are LO: at most 64 characters, no backslash, no control characters.
std::string longString(std::string s) {
  for (char& c : s)
    if (c == '\\' || static_cast<unsigned char>(c) < 32) c = ' ';
  s = trim(s);
  return s.size() > 64 ? s.substr(0, 64) : s;
}

bool nearlyEqual(const Vec3& a, const Vec3& b, double tolerance) { return (a - b).norm() <= tolerance; }

// True when the label map's frame lies on the grid recorded in `c`: size, orientation and the
// position of each slice.
bool onRecordedGrid(const DicomSeriesComponent& c, const SharedImage& frame) {
  const ImageDescriptor& d = frame.descriptor();
  if (c.columns != d.width() || c.rows != d.height() || c.slicePositions.size() != 3u * d.slices() ||
      c.sopInstanceUids.size() != static_cast<size_t>(d.slices()) || c.orientation.size() != 6)
    return false;
  const Eigen::Matrix4d& m = frame.matrix();
  for (int i = 0; i < 3; ++i)
    if (std::abs(m(i, 0) - c.orientation[static_cast<size_t>(i)]) > 1e-4 ||
        std::abs(m(i, 1) - c.orientation[static_cast<size_t>(i + 3)]) > 1e-4)
      return false;
  const double tolerance = 0.01 * std::max(1e-3, d.spacing.minCoeff());
  for (int z = 0; z < d.slices(); ++z) {
    const Vec3 p(c.slicePositions[3u * z], c.slicePositions[3u * z + 1], c.slicePositions[3u * z + 2]);
    if (!nearlyEqual(p, frame.pixelToWorld(Vec3(0, 0, z)), tolerance)) return false;
  }
  return std::none_of(c.sopInstanceUids.begin(), c.sopInstanceUids.end(), [](const std::string& s) { return s.empty(); });
}

struct SegmentInput {
  int value = 0;
  LabelDataComponent::LabelConfig config;
};

DcmSegTypes::E_SegmentAlgoType algorithmType(const std::string& s) {
  if (s == "MANUAL") return DcmSegTypes::SAT_MANUAL;
  if (s == "AUTOMATIC") return DcmSegTypes::SAT_AUTOMATIC;
  return DcmSegTypes::SAT_SEMIAUTOMATIC;
}

}  // namespace

bool isDicomPath(const std::string& path) {
  std::error_code ec;
  if (fs::is_directory(path, ec)) return true;
  const std::string p = toLower(path);
  return endsWith(p, ".dcm") || (fs::is_regular_file(path, ec) && hasDicomMark(path));
}

bool listDicomSeries(const std::string& path, std::vector<DicomSeriesInfo>& series, std::string* error) {
  Scan s;
  try {
    if (!scan(path, s, error)) return false;
  } catch (const std::exception& e) {
    if (error) *error = displayName(path) + ": " + e.what();
    return false;
  }
  series = describeAll(s);
  return true;
}

std::unique_ptr<SharedImageSet> readDicomSeries(const std::string& path, const std::string& seriesUid,
                                                std::string* error) {
  const std::string where = displayName(path);
  try {
    Scan s;
    if (!scan(path, s, error)) return nullptr;
    // A damaged file may be a slice of the series; reading on without it would hide that.
    for (const FileHeader& h : s.headers)
      if (!h.unreadable.empty()) {
        if (error) *error = where + ": " + displayName(h.path) + ": " + h.unreadable;
        return nullptr;
      }
    auto chosen = s.series.end();
    if (!seriesUid.empty()) {
      chosen = s.series.find(seriesUid);
      if (chosen == s.series.end()) {
        if (error) *error = where + ": no series " + seriesUid + "; the series here:" + seriesList(describeAll(s));
        return nullptr;
      }
    } else if (s.series.size() == 1) {
      chosen = s.series.begin();
    } else {
      if (error)
        *error = where + ": " + std::to_string(s.series.size()) + " series; choose one by its UID:" +
                 seriesList(describeAll(s));
      return nullptr;
    }
    FileHeader& first = s.headers[static_cast<size_t>(chosen->second.front())];
    if (isSegmentation(first)) {
      if (chosen->second.size() > 1) {
        if (error) *error = where + ": series " + chosen->first + " holds several segmentation objects; read one file";
        return nullptr;
      }
      return readDicomSegmentation(first.path, nullptr, error);
    }
    return buildSeries(s, chosen->second, where, error);
  } catch (const std::bad_alloc&) {
    if (error) *error = where + ": not enough memory for the series";
  } catch (const std::exception& e) {
    if (error) *error = where + ": " + e.what();
  }
  return nullptr;
}

bool writeDicomSegmentation(const SharedImageSet& labels, const std::string& path,
                            const DicomSeriesComponent* reference, std::string* error) {
  initialiseLibrary();
  const std::string file = baseName(path);
  auto fail = [&](const std::string& what) {
    if (error) *error = file + ": " + what;
    return false;
  };
  const MemImage* m = labels.mem(0);
  if (labels.size() != 1 || !m) return fail("a segmentation object holds one label map");
  const ImageDescriptor& d = m->descriptor();
  if (d.pixelType != U8 || d.channels != 1) return fail("only label maps (one channel, U8) are written as DICOM");
  if (d.width() > 65535 || d.height() > 65535) return fail("slices larger than 65535 pixels");
  if (!reference) reference = labels.components().get<DicomSeriesComponent>();
  const SharedImage& frame = *labels.get(0);

  // One segment per label value that has a name or voxels.
  std::array<size_t, 256> counts{};
  const auto* voxels = static_cast<const unsigned char*>(m->data());
  const size_t total = d.pixelCount();
  for (size_t k = 0; k < total; ++k) ++counts[voxels[k]];
  std::map<int, LabelDataComponent::LabelConfig> configs;
  if (const auto* lc = labels.components().get<LabelDataComponent>())
    for (const auto& [value, config] : lc->labelConfigs())
      if (value > 0 && value < 256) configs[value] = config;
  for (int v = 1; v < 256; ++v)
    if (counts[static_cast<size_t>(v)] && !configs.count(v)) configs[v] = LabelDataComponent::defaultLabelConfig(v);
  // The object needs a segment; an empty label map gets one without voxels.
  if (configs.empty()) configs[1] = LabelDataComponent::defaultLabelConfig(1);

  try {
    const Uint16 rows = static_cast<Uint16>(d.height()), columns = static_cast<Uint16>(d.width());
    IODGeneralEquipmentModule::EquipmentInfo equipment("MerivaneSeg", "merivane", "1", "1.0");
    ContentIdentificationMacro identification("1", "SEGMENTATION", longString(labels.name()), "");
    DcmSegmentation* raw = nullptr;
    OFCondition c = DcmSegmentation::createBinarySegmentation(raw, rows, columns, equipment, identification);
    std::unique_ptr<DcmSegmentation> seg(raw);
    if (c.bad() || !seg) return fail("cannot create the segmentation object: " + conditionText(c));

    const bool onGrid = reference && onRecordedGrid(*reference, frame);
    if (reference && !onGrid)
      LOG_WARN("IO", file << ": the label map is not on the grid of series " << reference->seriesInstanceUid
                          << "; it refers to the series as a whole, not slice by slice");
    // Patient, study and frame of reference come from the source, or are new.
    DcmDataset source;
    const DicomSeriesComponent none;
    const DicomSeriesComponent& r = reference ? *reference : none;
    const std::string studyUid = r.studyInstanceUid.empty() ? newUid() : r.studyInstanceUid;
    const std::string frameOfReference = r.frameOfReferenceUid.empty() ? newUid() : r.frameOfReferenceUid;
    source.putAndInsertString(DCM_PatientName, r.patientName.c_str());
    source.putAndInsertString(DCM_PatientID, r.patientId.c_str());
    source.putAndInsertString(DCM_PatientBirthDate, r.patientBirthDate.c_str());
    source.putAndInsertString(DCM_PatientSex, r.patientSex.c_str());
    source.putAndInsertString(DCM_StudyInstanceUID, studyUid.c_str());
    source.putAndInsertString(DCM_StudyDate, r.studyDate.c_str());
    source.putAndInsertString(DCM_StudyTime, r.studyTime.c_str());
    source.putAndInsertString(DCM_StudyID, r.studyId.c_str());
    source.putAndInsertString(DCM_AccessionNumber, r.accessionNumber.c_str());
    source.putAndInsertString(DCM_ReferringPhysicianName, r.referringPhysician.c_str());
    source.putAndInsertString(DCM_FrameOfReferenceUID, frameOfReference.c_str());
    if ((c = seg->importFromSourceImage(source)).bad()) return fail("cannot take over the study: " + conditionText(c));
    seg->getSeries().setSeriesInstanceUID(newUid().c_str());
    seg->getSeries().setSeriesNumber("300");
    seg->getSeries().setSeriesDescription(longString(labels.name().empty() ? "Segmentation" : labels.name()).c_str());
    seg->getSOPCommon().setSOPInstanceUID(newUid().c_str());

    const Eigen::Matrix4d& mat = frame.matrix();
    FGPixelMeasures measures;
    measures.setPixelSpacing((decimal(d.spacing[1]) + "\\" + decimal(d.spacing[0])).c_str());
    measures.setSliceThickness(decimal(d.spacing[2]).c_str());
    measures.setSpacingBetweenSlices(decimal(d.spacing[2]).c_str());
    std::unique_ptr<FGPlaneOrientationPatient> orientation(FGPlaneOrientationPatient::createMinimal(
        decimal(mat(0, 0)).c_str(), decimal(mat(1, 0)).c_str(), decimal(mat(2, 0)).c_str(), decimal(mat(0, 1)).c_str(),
        decimal(mat(1, 1)).c_str(), decimal(mat(2, 1)).c_str()));
    if (!orientation || (c = seg->addForAllFrames(measures)).bad() || (c = seg->addForAllFrames(*orientation)).bad())
      return fail("cannot describe the geometry: " + conditionText(c));
    const std::string dimensions = newUid();
    seg->getDimensions().addDimensionIndex(DCM_ReferencedSegmentNumber, dimensions.c_str(),
                                           DCM_SegmentIdentificationSequence, "ReferencedSegmentNumber");
    seg->getDimensions().addDimensionIndex(DCM_ImagePositionPatient, dimensions.c_str(), DCM_PlanePositionSequence,
                                           "ImagePositionPatient");
    if (reference && !r.sopInstanceUids.empty()) {
      IODReferences refs;
      for (const std::string& uid : r.sopInstanceUids)
        if (!uid.empty())
          refs.add(new IODImageReference(r.patientId.c_str(), studyUid.c_str(), r.seriesInstanceUid.c_str(),
                                         uid.c_str(), r.sopClassUid.c_str()));
      seg->getCommonInstanceReference().addReferences(refs, studyUid.c_str());
    }

    const size_t slicePixels = static_cast<size_t>(rows) * columns;
    std::vector<Uint8> pixels(slicePixels);
    // The frames' bits as the standard packs them: one after the other, eight pixels a byte,
    // the first in the lowest bit, frames not starting on byte boundaries. This replaces the
    // library's packing, which shifts frames that do not end on one.
    std::vector<Uint8> packed;
    size_t frameCount = 0;
    bool firstSegment = true;
    for (const auto& [value, config] : configs) {
      const CodeSequenceMacro category("85756007", "SCT", "Tissue"), type("85756007", "SCT", "Tissue");
      std::string name = longString(config.name);
      if (name.empty()) name = "Label " + std::to_string(value);
      const DcmSegTypes::E_SegmentAlgoType algo = algorithmType(config.segmentationAlgorithm);
      const std::string algoName =
          longString(config.segmentationAlgorithmName.empty() ? "MerivaneSeg" : config.segmentationAlgorithmName);
      DcmSegment* segment = nullptr;
      if ((c = DcmSegment::create(segment, name.c_str(), category, type, algo,
                                  algo == DcmSegTypes::SAT_MANUAL ? "" : algoName.c_str()))
              .bad() ||
          !segment)
        return fail("cannot create segment '" + name + "': " + conditionText(c));
      segment->setSegmentDescription((kLabelValuePrefix + std::to_string(value)).c_str());
      double L, a, b;
      IODCIELabUtil::rgb2DicomLab(L, a, b, std::clamp(config.color[0], 0.0, 1.0), std::clamp(config.color[1], 0.0, 1.0),
                                  std::clamp(config.color[2], 0.0, 1.0));
      segment->setRecommendedDisplayCIELabValue(static_cast<Uint16>(std::lround(L)), static_cast<Uint16>(std::lround(a)),
                                                static_cast<Uint16>(std::lround(b)));
      Uint16 number = 0;
      if ((c = seg->addSegment(segment, number)).bad()) {
        delete segment;
        return fail("cannot add segment '" + name + "': " + conditionText(c));
      }
      for (int z = 0; z < d.slices(); ++z) {
        const unsigned char* in = voxels + static_cast<size_t>(z) * slicePixels;
        bool any = false;
        for (size_t k = 0; k < slicePixels; ++k) any |= (pixels[k] = in[k] == value ? 1 : 0) != 0;
        // The first and the last slice always have a frame, so that the stack keeps its
        // extent when it is read without its source series.
        if (!any && !(firstSegment && (z == 0 || z == d.slices() - 1))) continue;
        const Vec3 p = frame.pixelToWorld(Vec3(0, 0, z));
        std::unique_ptr<FGPlanePosPatient> position(
            FGPlanePosPatient::createMinimal(decimal(p[0]).c_str(), decimal(p[1]).c_str(), decimal(p[2]).c_str()));
        FGFrameContent content;
        content.setDimensionIndexValues(number, 0);
        content.setDimensionIndexValues(static_cast<Uint32>(z + 1), 1);
        OFVector<FGBase*> groups;
        groups.push_back(position.get());
        groups.push_back(&content);
        std::unique_ptr<FGDerivationImage> derivation;
        if (onGrid) {
          ImageSOPInstanceReferenceMacro* sourceRef = nullptr;
          if (ImageSOPInstanceReferenceMacro::create(r.sopClassUid.c_str(), r.sopInstanceUids[static_cast<size_t>(z)].c_str(),
                                                     sourceRef)
                  .good() &&
              sourceRef) {
            OFVector<ImageSOPInstanceReferenceMacro> sources;
            sources.push_back(*sourceRef);
            delete sourceRef;
            derivation.reset(DcmSegmentation::createDerivationImageFG(sources, "Segmentation"));
            if (derivation) groups.push_back(derivation.get());
          }
        }
        if ((c = seg->addFrame(pixels.data(), number, groups)).bad())
          return fail("cannot add frame " + std::to_string(z + 1) + " of '" + name + "': " + conditionText(c));
        const size_t firstBit = frameCount++ * slicePixels;
        packed.resize((firstBit + slicePixels + 7) / 8, 0);
        for (size_t k = 0; k < slicePixels; ++k)
          if (pixels[k]) packed[(firstBit + k) >> 3] |= static_cast<Uint8>(1u << ((firstBit + k) & 7));
      }
      firstSegment = false;
    }

    DcmFileFormat out;
    if ((c = seg->writeDataset(*out.getDataset())).bad())
      return fail("cannot write the segmentation object: " + conditionText(c));
    if (packed.size() % 2) packed.push_back(0);
    if ((c = out.getDataset()->putAndInsertUint8Array(DCM_PixelData, packed.data(),
                                                      static_cast<unsigned long>(packed.size())))
            .bad())
      return fail("cannot store the frames: " + conditionText(c));
    const std::string tmp = temporaryPathFor(path);
    if ((c = out.saveFile(tmp.c_str(), EXS_LittleEndianExplicit)).bad()) {
      std::error_code ec;
      fs::remove(tmp, ec);
      return fail("cannot write the segmentation object: " + conditionText(c));
    }
    return commitTemporary(tmp, path, error);
  } catch (const std::bad_alloc&) {
    return fail("out of memory");
  } catch (const std::exception& e) {
    return fail(e.what());
  }
}

std::unique_ptr<SharedImageSet> readDicomSegmentation(const std::string& path, const SharedImageSet* reference,
                                                      std::string* error) {
  initialiseLibrary();
  const std::string file = baseName(path);
  const ReadFailure fail{file, error};
  try {
    std::error_code ec;
    if (!fs::is_regular_file(path, ec)) return fail(fs::exists(path, ec) ? "is not a regular file" : "no such file");
    DcmFileFormat ff;
    if (ff.loadFile(path.c_str()).bad()) return fail("not a DICOM file");
    DcmDataset& ds = *ff.getDataset();
    const std::string sopClass = text(ds, DCM_SOPClassUID);
    if (sopClass != UID_SegmentationStorage)
      return fail("not a segmentation object (SOP class " + (sopClass.empty() ? std::string("missing") : sopClass) + ")");
    const std::string segType = text(ds, DCM_SegmentationType);
    if (segType != "BINARY") return fail("segmentation type '" + segType + "' is not supported (only BINARY)");
    std::string referencedSeries;
    DcmItem* refItem = nullptr;
    if (ds.findAndGetSequenceItem(DCM_ReferencedSeriesSequence, refItem, 0).good() && refItem)
      referencedSeries = text(*refItem, DCM_SeriesInstanceUID);
    const std::string frameOfReference = text(ds, DCM_FrameOfReferenceUID);
    auto record = seriesRecord(ds);

    DcmSegmentation* raw = nullptr;
    OFCondition c = DcmSegmentation::loadDataset(ds, raw);
    std::unique_ptr<DcmSegmentation> seg(raw);
    if (c.bad() || !seg) return fail("invalid segmentation object: " + conditionText(c));
    const auto rows = static_cast<Uint16>(integer(ds, DCM_Rows, 0));
    const auto columns = static_cast<Uint16>(integer(ds, DCM_Columns, 0));
    const size_t frames = seg->getNumberOfFrames();
    if (rows == 0 || columns == 0 || frames == 0) return fail("no frames");
    FGInterface& groups = seg->getFunctionalGroups();

    // Geometry of every frame.
    struct FrameInfo {
      Vec3 position;
      Uint16 segment = 0;
      std::string source;  // SOP instance of the slice it was derived from
    };
    std::vector<FrameInfo> info(frames);
    Orientation orientation;
    double sx = 1.0, sy = 1.0, sz = 0.0;
    for (size_t f = 0; f < frames; ++f) {
      const Uint32 fn = static_cast<Uint32>(f);
      auto* po = dynamic_cast<FGPlaneOrientationPatient*>(groups.get(fn, DcmFGTypes::EFG_PLANEORIENTPATIENT));
      Float64 v[6];
      if (!po || po->getImageOrientationPatient(v[0], v[1], v[2], v[3], v[4], v[5]).bad())
        return fail("frame " + std::to_string(f + 1) + " has no orientation");
      Orientation o;
      o.row = Vec3(v[0], v[1], v[2]).normalized();
      o.column = Vec3(v[3], v[4], v[5]).normalized();
      o.known = true;
      if (f == 0) orientation = o;
      else if (!o.sameAs(orientation)) return fail("frame " + std::to_string(f + 1) + " has another orientation");
      auto* pp = dynamic_cast<FGPlanePosPatient*>(groups.get(fn, DcmFGTypes::EFG_PLANEPOSPATIENT));
      Float64 x, y, z;
      if (!pp || pp->getImagePositionPatient(x, y, z).bad())
        return fail("frame " + std::to_string(f + 1) + " has no position");
      info[f].position = Vec3(x, y, z);
      auto* sg = dynamic_cast<FGSegmentation*>(groups.get(fn, DcmFGTypes::EFG_SEGMENTATION));
      if (!sg || sg->getReferencedSegmentNumber(info[f].segment).bad() || info[f].segment == 0)
        return fail("frame " + std::to_string(f + 1) + " names no segment");
      if (auto* der = dynamic_cast<FGDerivationImage*>(groups.get(fn, DcmFGTypes::EFG_DERIVATIONIMAGE))) {
        for (DerivationImageItem* item : der->getDerivationImageItems())
          for (SourceImageItem* src : item->getSourceImageItems()) {
            OFString uid;
            if (info[f].source.empty() && src->getImageSOPInstanceReference().getReferencedSOPInstanceUID(uid).good())
              info[f].source = uid.c_str();
          }
      }
      if (f == 0) {
        if (auto* pm = dynamic_cast<FGPixelMeasures*>(groups.get(fn, DcmFGTypes::EFG_PIXELMEASURES))) {
          Float64 value;
          if (pm->getPixelSpacing(value, 0).good() && value > 0) sy = value;
          if (pm->getPixelSpacing(value, 1).good() && value > 0) sx = value;
          if (pm->getSpacingBetweenSlices(value).good() && value > 0) sz = value;
          else if (pm->getSliceThickness(value).good() && value > 0) sz = value;
        }
      }
    }

    // The grid: the reference's, or the one the frames span.
    Eigen::Vector3i dims;
    Eigen::Matrix4d matrix;
    Vec3 spacing;
    std::vector<int> sliceOf(frames);
    if (reference) {
      const SharedImage* rf = reference->get(0);
      if (!rf) return fail("the reference image is empty");
      if (const auto* rc = reference->components().get<DicomSeriesComponent>()) {
        if (!referencedSeries.empty() && !rc->seriesInstanceUid.empty() && referencedSeries != rc->seriesInstanceUid)
          return fail("refers to series " + referencedSeries + ", not to the reference series " +
                      rc->seriesInstanceUid);
        if (!frameOfReference.empty() && !rc->frameOfReferenceUid.empty() && frameOfReference != rc->frameOfReferenceUid)
          return fail("its frame of reference " + frameOfReference + " is not that of the reference series");
        *record = *rc;
      }
      const ImageDescriptor& rd = rf->descriptor();
      if (rd.width() != columns || rd.height() != rows)
        return fail(std::to_string(columns) + "x" + std::to_string(rows) + " frames do not fit the " +
                    std::to_string(rd.width()) + "x" + std::to_string(rd.height()) + " slices of the reference image");
      const Eigen::Matrix4d& rm = rf->matrix();
      if ((rm.block<3, 1>(0, 0) - orientation.row).norm() > 1e-3 || (rm.block<3, 1>(0, 1) - orientation.column).norm() > 1e-3)
        return fail("its orientation is not that of the reference image");
      for (size_t f = 0; f < frames; ++f) {
        const Vec3 v = rf->worldToPixel(info[f].position);
        const long z = std::lround(v[2]);
        if (std::abs(v[0]) > 0.05 || std::abs(v[1]) > 0.05 || std::abs(v[2] - static_cast<double>(z)) > 0.05 || z < 0 ||
            z >= rd.slices())
          return fail("frame " + std::to_string(f + 1) + " at " + pointText(info[f].position) +
                      " does not lie on a slice of the reference image");
        sliceOf[f] = static_cast<int>(z);
      }
      dims = rd.dimensions;
      matrix = rm;
      spacing = rd.spacing;
    } else {
      const Vec3 normal = orientation.normal();
      double lo = std::numeric_limits<double>::max(), hi = -lo;
      size_t loFrame = 0;
      std::vector<double> along(frames);
      for (size_t f = 0; f < frames; ++f) {
        along[f] = info[f].position.dot(normal);
        if (along[f] < lo) {
          lo = along[f];
          loFrame = f;
        }
        hi = std::max(hi, along[f]);
      }
      if (sz <= 0) {
        std::vector<double> sorted = along;
        std::sort(sorted.begin(), sorted.end());
        for (size_t k = 0; k + 1 < sorted.size(); ++k)
          if (sorted[k + 1] - sorted[k] > 1e-3 && (sz <= 0 || sorted[k + 1] - sorted[k] < sz)) sz = sorted[k + 1] - sorted[k];
        if (sz <= 0) sz = 1.0;
      }
      const Vec3 origin = info[loFrame].position;
      for (size_t f = 0; f < frames; ++f) {
        const double k = (along[f] - lo) / sz;
        const Vec3 inPlane = info[f].position - origin - normal * (along[f] - lo);
        if (std::abs(k - std::round(k)) > 0.05 || inPlane.norm() > 0.05 * std::min(sx, sy))
          return fail("frame " + std::to_string(f + 1) + " at " + pointText(info[f].position) +
                      " does not lie on the grid of the other frames");
        sliceOf[f] = static_cast<int>(std::lround(k));
      }
      const int slices = static_cast<int>(std::lround((hi - lo) / sz)) + 1;
      if (slices > 100000) return fail("its frames span more than 100000 slices");
      dims = Eigen::Vector3i(columns, rows, slices);
      Eigen::Matrix4d affine = Eigen::Matrix4d::Identity();
      affine.block<3, 1>(0, 0) = orientation.row * sx;
      affine.block<3, 1>(0, 1) = orientation.column * sy;
      affine.block<3, 1>(0, 2) = normal * sz;
      affine.block<3, 1>(0, 3) = origin;
      matrix = matrixFromIndexAffine(affine, dims, spacing, Vec3(sx, sy, sz));
      record->seriesInstanceUid = referencedSeries;
      record->modality.clear();
      record->sopInstanceUids.assign(static_cast<size_t>(slices), "");
      record->frameNumbers.assign(static_cast<size_t>(slices), 0);
      for (size_t f = 0; f < frames; ++f)
        if (!info[f].source.empty()) record->sopInstanceUids[static_cast<size_t>(sliceOf[f])] = info[f].source;
      if (!referencedSeries.empty()) {
        DcmItem* inst = nullptr;
        if (refItem && refItem->findAndGetSequenceItem(DCM_ReferencedInstanceSequence, inst, 0).good() && inst)
          record->sopClassUid = text(*inst, DCM_ReferencedSOPClassUID);
      }
    }

    // Segment numbers become label values, or the values they were written from.
    std::map<Uint16, int> valueOf;
    std::map<int, LabelDataComponent::LabelConfig> configs;
    bool ownValues = true;
    std::set<int> seen;
    const size_t segments = seg->getNumberOfSegments();
    if (segments > 255) return fail(std::to_string(segments) + " segments; a label map holds at most 255");
    for (size_t s = 1; s <= segments; ++s) {
      DcmSegment* segment = seg->getSegment(s);
      if (!segment) return fail("segment " + std::to_string(s) + " is missing");
      OFString description;
      segment->getSegmentDescription(description);
      int value = 0;
      const std::string desc = description.c_str();
      if (desc.rfind(kLabelValuePrefix, 0) == 0) value = std::atoi(desc.c_str() + std::strlen(kLabelValuePrefix));
      if (value < 1 || value > 255 || !seen.insert(value).second) ownValues = false;
      valueOf[static_cast<Uint16>(s)] = value;
      LabelDataComponent::LabelConfig config;
      OFString label;
      segment->getSegmentLabel(label);
      config.name = label.c_str();
      Uint16 L, a, b;
      if (segment->getRecommendedDisplayCIELabValue(L, a, b).good()) {
        double R, G, B;
        IODCIELabUtil::dicomLab2RGB(R, G, B, L, a, b);
        config.color = Eigen::Vector4d(std::clamp(R, 0.0, 1.0), std::clamp(G, 0.0, 1.0), std::clamp(B, 0.0, 1.0), 1.0);
      } else {
        config.color = LabelDataComponent::defaultLabelConfig(static_cast<int>(s)).color;
      }
      switch (segment->getSegmentAlgorithmType()) {
        case DcmSegTypes::SAT_MANUAL: config.segmentationAlgorithm = "MANUAL"; break;
        case DcmSegTypes::SAT_AUTOMATIC: config.segmentationAlgorithm = "AUTOMATIC"; break;
        case DcmSegTypes::SAT_SEMIAUTOMATIC: config.segmentationAlgorithm = "SEMIAUTOMATIC"; break;
        default: break;
      }
      OFString algoName;
      segment->getSegmentAlgorithmName(algoName);
      config.segmentationAlgorithmName = algoName.c_str();
      configs[static_cast<int>(s)] = config;
    }
    std::map<int, LabelDataComponent::LabelConfig> byValue;
    for (auto& [number, value] : valueOf) {
      if (!ownValues) value = number;
      byValue[value] = configs[number];
    }

    // The frames are read from the pixel data directly: binary frames follow each other bit by
    // bit, eight pixels a byte with the first in the lowest bit, so a frame of a size that is no
    // multiple of eight starts inside a byte.
    DcmElement* pixelData = nullptr;
    Uint8* bits = nullptr;
    if (ds.findAndGetElement(DCM_PixelData, pixelData).bad() || !pixelData || pixelData->getUint8Array(bits).bad() ||
        !bits)
      return fail("no readable pixel data");
    const size_t slicePixels = static_cast<size_t>(rows) * columns;
    if (pixelData->getLength() < (frames * slicePixels + 7) / 8)
      return fail("pixel data is truncated: " + std::to_string(pixelData->getLength()) + " bytes for " +
                  std::to_string(frames) + " frames of " + std::to_string(columns) + "x" + std::to_string(rows));
    auto image = TypedImage<unsigned char>::create(dims, 1);
    std::memset(image->pointer(), 0, image->descriptor().byteSize());
    size_t overlaps = 0;
    for (size_t f = 0; f < frames; ++f) {
      auto it = valueOf.find(info[f].segment);
      if (it == valueOf.end()) return fail("frame " + std::to_string(f + 1) + " names segment " +
                                           std::to_string(info[f].segment) + ", which does not exist");
      const auto value = static_cast<unsigned char>(it->second);
      unsigned char* out = image->pointer() + static_cast<size_t>(sliceOf[f]) * slicePixels;
      const size_t first = f * slicePixels;
      for (size_t k = 0; k < slicePixels; ++k) {
        const size_t bit = first + k;
        if (!((bits[bit >> 3] >> (bit & 7)) & 1)) continue;
        if (out[k] && out[k] != value) ++overlaps;
        out[k] = value;
      }
    }
    if (overlaps)
      LOG_WARN("IO", file << ": segments overlap in " << overlaps << " voxels; the later segment was kept there");

    image->setSpacing(spacing);
    auto set = makeSet(std::shared_ptr<MemImage>(std::move(image)), matrix, path);
    set->setModality(Data::LABEL);
    auto* labels = set->components().getOrCreate<LabelDataComponent>(set.get());
    labels->setLabelConfigs(byValue);
    if (!reference) recordGrid(*record, *set->get(0));
    set->components().add(std::move(record));
    return set;
  } catch (const std::bad_alloc&) {
    return fail("not enough memory for the label map");
  } catch (const std::exception& e) {
    return fail(e.what());
  }
}

}  // namespace Merivane::IO
