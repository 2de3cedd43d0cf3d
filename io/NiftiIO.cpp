// NIfTI-1 and NIfTI-2 through nifticlib. The sform (or else the qform, or else the pixel
// sizes) gives world from voxel index in RAS; our world is LPS, so x and y change sign.
// Label maps: intent NIFTI_INTENT_LABEL; their names and colours, the modality and the value
// mapping travel in a comment extension that starts with kMetadataTag, "Key=Value" per line.
#include <nifti2_io.h>
#include <zlib.h>

#include <Eigen/Core>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <map>
#include <sstream>

#include "ImageFormats.h"
#include "IoUtil.h"
#include "Log.h"
#include "SharedImageSet.h"

namespace Merivane::IO::detail {

namespace {

constexpr const char* kMetadataTag = "MerivaneSeg metadata\n";

struct NiftiFree {
  void operator()(nifti_image* n) const { nifti_image_free(n); }
};
using NiftiPtr = std::unique_ptr<nifti_image, NiftiFree>;

bool pixelTypeFromNifti(int datatype, PixelType& type, int& channels) {
  channels = 1;
  switch (datatype) {
    case DT_UINT8: type = U8; return true;
    case DT_INT8: type = I8; return true;
    case DT_INT16: type = I16; return true;
    case DT_UINT16: type = U16; return true;
    case DT_INT32: type = I32; return true;
    case DT_UINT32: type = U32; return true;
    case DT_FLOAT32: type = F32; return true;
    case DT_FLOAT64: type = F64; return true;
    case DT_RGB24: type = U8; channels = 3; return true;
    case DT_RGBA32: type = U8; channels = 4; return true;
    default: return false;
  }
}

int niftiType(PixelType t) {
  switch (t) {
    case U8: return DT_UINT8;
    case I8: return DT_INT8;
    case I16: return DT_INT16;
    case U16: return DT_UINT16;
    case I32: return DT_INT32;
    case U32: return DT_UINT32;
    case F32: return DT_FLOAT32;
    case F64: return DT_FLOAT64;
    default: return DT_UNKNOWN;
  }
}

Eigen::Matrix4d toEigen(const nifti_dmat44& m) {
  Eigen::Matrix4d e;
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c) e(r, c) = m.m[r][c];
  return e;
}

// vox_offset straight from the header bytes: the library turns a NaN or negative one into an
// offset counted from somewhere else (a negative one from the end of the file).
double rawVoxOffset(const char* head, int version) {
  int32_t sizeofHdr;
  std::memcpy(&sizeofHdr, head, 4);
  const bool swapped = sizeofHdr != (version == 1 ? 348 : 540);
  if (version == 1) {
    float v;
    std::memcpy(&v, head + 108, 4);
    if (swapped) swapBytes(&v, 1, 4);
    return v;
  }
  int64_t v;
  std::memcpy(&v, head + 168, 8);
  if (swapped) swapBytes(&v, 1, 8);
  return static_cast<double>(v);
}

// A single-file header ("n+1", "n+2") is followed by its data; "ni1"/"ni2" name a pair.
bool isSingleFile(const char* head, int version) {
  return version == 1 ? std::memcmp(head + 344, "n+1", 4) == 0 : std::memcmp(head + 4, "n+2", 4) == 0;
}

std::string numberText(double v) {
  std::ostringstream s;
  s << v;
  return s.str();
}

// A transform the reader can use: finite, and not all zero in its rotation and scale part.
bool usableTransform(const nifti_dmat44& m) {
  bool nonZero = false;
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 4; ++c) {
      if (!std::isfinite(m.m[r][c])) return false;
      if (c < 3 && m.m[r][c] != 0.0) nonZero = true;
    }
  return nonZero;
}

void quietLibrary() {
  static const bool once = [] {
    nifti_set_debug_level(0);  // our messages name the file; the library's would only repeat them
    return true;
  }();
  (void)once;
}

}  // namespace

std::unique_ptr<SharedImageSet> readNifti(const std::string& path, std::string* error) {
  quietLibrary();
  const std::string file = baseName(path);
  const ReadFailure fail{file, error};
  {
    // The library accepts almost anything with the right extension; check the magic first.
    // gzread reads plain files as they are, so this covers .nii and .nii.gz alike.
    gzFile g = gzopen(path.c_str(), "rb");
    if (!g) return fail("cannot open");
    char head[540];
    const int got = gzread(g, head, sizeof(head));
    gzclose(g);
    if (got < 348) return fail("too short for a NIfTI header (" + std::to_string(std::max(got, 0)) + " bytes)");
    const int version = nifti_header_version(head, static_cast<size_t>(got));
    if (version != 1 && version != 2) return fail("not a NIfTI-1 or NIfTI-2 file (no valid header)");
    if (version == 2 && got < 540) return fail("too short for a NIfTI-2 header (" + std::to_string(got) + " bytes)");
    // The data must start after the header and inside the file; for gzip, inside the most
    // the compressed file can hold.
    const double offset = rawVoxOffset(head, version);
    const double headerSize = version == 1 ? 348 : 540;
    std::error_code ec;
    const double size = static_cast<double>(std::filesystem::file_size(path, ec));
    const double capacity = endsWith(toLower(path), ".gz") ? size * 1100.0 + 65536.0 : size;
    if (!std::isfinite(offset)) return fail("vox_offset " + numberText(offset) + " is not a finite number");
    if (offset < 0) return fail("vox_offset " + numberText(offset) + " is negative");
    if (isSingleFile(head, version) && offset < headerSize)
      return fail("vox_offset " + numberText(offset) + " lies inside the " + numberText(headerSize) + "-byte header");
    if (!ec && offset > capacity)
      return fail("vox_offset " + numberText(offset) + " lies beyond the end of the file (" + numberText(size) +
                  " bytes)");
  }
  NiftiPtr nim(nifti_image_read(path.c_str(), 0));
  if (!nim) return fail("invalid NIfTI header");
  PixelType type;
  int channels;
  if (!pixelTypeFromNifti(nim->datatype, type, channels))
    return fail(std::string("unsupported data type '") + nifti_datatype_string(nim->datatype) + "'");
  if (nim->ndim > 5 || nim->nv > 1 || nim->nw > 1) return fail("more than five dimensions are not supported");
  if (nim->nt > 1 && nim->nu > 1) return fail("both time and vector dimensions are not supported");
  if (nim->nu > 1) {
    if (channels != 1) return fail("vectors of colour voxels are not supported");
    channels = static_cast<int>(nim->nu);
  }
  if (channels > 64) return fail("too many channels (" + std::to_string(channels) + ")");
  const int frames = static_cast<int>(std::max<int64_t>(nim->nt, 1));
  for (int64_t d : {nim->nx, nim->ny, nim->nz})
    if (d < 1 || d > 1000000000) return fail("bad dimensions");
  const Eigen::Vector3i dims(static_cast<int>(nim->nx), static_cast<int>(nim->ny), static_cast<int>(nim->nz));
  {
    // Check the promise against the file before the library allocates it.
    std::error_code ec;
    const double promised = static_cast<double>(nim->nvox) * nim->nbyper;
    const double size = static_cast<double>(std::filesystem::file_size(path, ec));
    const bool gz = endsWith(toLower(path), ".gz");
    const double capacity = gz ? size * 1100.0 + 65536.0 : size - static_cast<double>(nim->iname_offset);
    if (ec || promised > capacity + 0.5)
      return fail("voxel data is truncated: the header promises " + std::to_string(static_cast<long long>(promised)) +
                  " bytes");
  }
  if (nifti_image_load(nim.get()) != 0 || !nim->data) return fail("voxel data is truncated or unreadable");

  Eigen::Matrix4d affine = Eigen::Matrix4d::Identity();
  // A damaged transform falls back to the next one down, as if its code were 0.
  const bool sform = nim->sform_code > 0 && usableTransform(nim->sto_xyz);
  const bool qform = !sform && nim->qform_code > 0 && usableTransform(nim->qto_xyz);
  if (nim->sform_code > 0 && !sform)
    LOG_WARN("IO", file << ": the sform is not finite or all zero; using the "
                        << (qform ? "qform" : "pixel sizes") << " instead");
  else if (!sform && nim->qform_code > 0 && !qform)
    LOG_WARN("IO", file << ": the qform is not finite or all zero; using the pixel sizes instead");
  if (sform) affine = toEigen(nim->sto_xyz);
  else if (qform) affine = toEigen(nim->qto_xyz);
  else affine.diagonal().head<3>() << std::abs(nim->dx), std::abs(nim->dy), std::abs(nim->dz);
  double unit = 1.0;
  if (nim->xyz_units == NIFTI_UNITS_METER) unit = 1000.0;
  else if (nim->xyz_units == NIFTI_UNITS_MICRON) unit = 0.001;
  affine.topRows<3>() *= unit;
  affine = Eigen::Vector4d(-1, -1, 1, 1).asDiagonal() * affine;
  const Eigen::Vector3d fallback(std::abs(nim->dx) * unit, std::abs(nim->dy) * unit, std::abs(nim->dz) * unit);
  Eigen::Vector3d spacing;
  const Eigen::Matrix4d matrix = matrixFromIndexAffine(affine, dims, spacing, fallback);

  // Voxels run x, y, z, t, u; our frames are t and our interleaved channels are u.
  const ImageDescriptor desc(type, dims, channels);
  const size_t pixels = desc.pixelCount();
  const int typeSize = pixelTypeSize(type);
  std::unique_ptr<SharedImageSet> set;
  for (int t = 0; t < frames; ++t) {
    std::shared_ptr<MemImage> image(MemImage::create(desc, false));
    auto* out = static_cast<unsigned char*>(image->data());
    const auto* in = static_cast<const unsigned char*>(nim->data);
    if (nim->nu > 1) {
      for (int c = 0; c < channels; ++c) {
        const unsigned char* plane = in + static_cast<size_t>(c) * pixels * typeSize;
        for (size_t k = 0; k < pixels; ++k)
          std::memcpy(out + (k * channels + c) * typeSize, plane + k * typeSize, static_cast<size_t>(typeSize));
      }
    } else {
      std::memcpy(out, in + static_cast<size_t>(t) * desc.byteSize(), desc.byteSize());
    }
    image->setSpacing(spacing);
    if (nim->scl_slope != 0.0 && std::isfinite(nim->scl_slope) && (nim->scl_slope != 1.0 || nim->scl_inter != 0.0))
      image->setShiftScale(-nim->scl_inter, 1.0 / nim->scl_slope);
    if (!set) set = makeSet(image, matrix, path);
    else set->add(std::shared_ptr<Image>(image), matrix);
  }

  std::map<std::string, std::string> fields;
  for (int e = 0; e < nim->num_ext; ++e) {
    const nifti1_extension& ext = nim->ext_list[e];
    if (ext.ecode != NIFTI_ECODE_COMMENT || !ext.edata || ext.esize <= 8) continue;
    std::string text(ext.edata, strnlen(ext.edata, static_cast<size_t>(ext.esize - 8)));
    if (text.rfind(kMetadataTag, 0) != 0) continue;
    std::istringstream lines(text.substr(std::strlen(kMetadataTag)));
    std::string line;
    while (std::getline(lines, line)) {
      const size_t eq = line.find('=');
      if (eq != std::string::npos) fields[line.substr(0, eq)] = line.substr(eq + 1);
    }
  }
  fields.erase("ShiftScale");  // the header's scl fields are the truth
  if (nim->intent_code == NIFTI_INTENT_LABEL) fields["Modality"] = "LABEL";
  applyMetadata(*set, fields);
  return set;
}

bool writeNifti(const SharedImageSet& image, const std::string& path, std::string* error, const WriteOptions& options) {
  quietLibrary();
  const std::string file = baseName(path);
  const MemImage* m = image.mem(0);
  const ImageDescriptor& d = m->descriptor();
  int datatype = niftiType(d.pixelType);
  if (datatype == DT_UNKNOWN) {
    if (error) *error = file + ": pixel type " + pixelTypeName(d.pixelType) + " cannot be written";
    return false;
  }
  const bool colour = d.pixelType == U8 && (d.channels == 3 || d.channels == 4);
  if (colour) datatype = d.channels == 3 ? DT_RGB24 : DT_RGBA32;
  const bool vector = d.channels > 1 && !colour;
  int64_t dims[8] = {vector ? 5 : 3, d.width(), d.height(), d.slices(), 1, vector ? d.channels : 1, 1, 1};
  NiftiPtr nim(nifti_make_new_nim(dims, datatype, 0));
  if (!nim) {
    if (error) *error = file + ": cannot build the NIfTI header";
    return false;
  }
  const size_t pixels = d.pixelCount();
  const int typeSize = d.typeSize();
  nim->data = std::calloc(static_cast<size_t>(nim->nvox), static_cast<size_t>(nim->nbyper));
  if (!nim->data) {
    if (error) *error = file + ": out of memory";
    return false;
  }
  auto* out = static_cast<unsigned char*>(nim->data);
  const auto* in = static_cast<const unsigned char*>(m->data());
  if (vector) {
    for (int c = 0; c < d.channels; ++c)
      for (size_t k = 0; k < pixels; ++k)
        std::memcpy(out + (static_cast<size_t>(c) * pixels + k) * typeSize, in + (k * d.channels + c) * typeSize,
                    static_cast<size_t>(typeSize));
    nim->intent_code = NIFTI_INTENT_VECTOR;
  } else {
    std::memcpy(out, in, d.byteSize());
  }

  const Eigen::Matrix4d lps = indexAffineFromMatrix(image.get(0)->matrix(), d.dimensions, d.spacing);
  const Eigen::Matrix4d ras = Eigen::Vector4d(-1, -1, 1, 1).asDiagonal() * lps;
  nifti_dmat44 a;
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c) a.m[r][c] = ras(r, c);
  nim->sform_code = NIFTI_XFORM_SCANNER_ANAT;
  nim->sto_xyz = a;
  nim->qform_code = NIFTI_XFORM_SCANNER_ANAT;
  double dx, dy, dz;
  nifti_dmat44_to_quatern(a, &nim->quatern_b, &nim->quatern_c, &nim->quatern_d, &nim->qoffset_x, &nim->qoffset_y,
                          &nim->qoffset_z, &dx, &dy, &dz, &nim->qfac);
  nim->pixdim[1] = nim->dx = d.spacing[0];
  nim->pixdim[2] = nim->dy = d.spacing[1];
  nim->pixdim[3] = nim->dz = d.spacing[2];
  nim->pixdim[0] = nim->qfac;
  nim->xyz_units = NIFTI_UNITS_MM;
  if (d.shift != 0.0 || d.scale != 1.0) {
    nim->scl_slope = 1.0 / d.scale;
    nim->scl_inter = -d.shift;
  }
  if (image.modality() == Data::LABEL && d.pixelType == U8 && d.channels == 1) {
    nim->intent_code = NIFTI_INTENT_LABEL;
    std::strncpy(nim->intent_name, "labels", sizeof(nim->intent_name) - 1);
  }
  std::string meta = kMetadataTag;
  for (const auto& [key, value] : metadataOf(image))
    if (key != "ShiftScale") meta += key + "=" + value + "\n";
  if (nifti_add_extension(nim.get(), meta.c_str(), static_cast<int>(meta.size() + 1), NIFTI_ECODE_COMMENT) != 0) {
    if (error) *error = file + ": cannot add the metadata extension";
    return false;
  }
  const bool big = d.width() > 32767 || d.height() > 32767 || d.slices() > 32767;
  const int version = options.niftiVersion ? options.niftiVersion : (big ? 2 : 1);
  if (version == 1 && big) {
    if (error) *error = file + ": sizes above 32767 need NIfTI-2";
    return false;
  }
  nim->nifti_type = version == 2 ? NIFTI_FTYPE_NIFTI2_1 : NIFTI_FTYPE_NIFTI1_1;

  const std::string tmp = temporaryPathFor(path);
  if (nifti_set_filenames(nim.get(), tmp.c_str(), 0, 1) != 0) {
    if (error) *error = file + ": cannot use this file name for NIfTI";
    return false;
  }
  nifti_image_write(nim.get());
  // nifti_image_write reports nothing; read the header back to see that it arrived whole.
  NiftiPtr check(nifti_image_read(tmp.c_str(), 0));
  std::error_code ec;
  const bool gz = endsWith(toLower(path), ".gz");
  const bool sizeOk = gz || std::filesystem::file_size(tmp, ec) >= static_cast<uintmax_t>(d.byteSize());
  if (!check || ec || !sizeOk) {
    std::filesystem::remove(tmp, ec);
    if (error) *error = file + ": write failed";
    return false;
  }
  return commitTemporary(tmp, path, error);
}

}  // namespace Merivane::IO::detail
