// PNG for 2D frames through libpng: 8 or 16 bits, gray, gray+alpha, RGB, RGBA; palettes and
// low bit depths are expanded to 8 bits. Spacing travels in the pHYs chunk (pixels per metre),
// modality and label names in tEXt chunks with the metadata keys.
#include <png.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <map>
#include <vector>

#include "ImageFormats.h"
#include "IoUtil.h"
#include "SharedImageSet.h"

namespace Merivane::IO::detail {

namespace {

struct PngError {
  char message[256] = {0};
};

void onError(png_structp png, png_const_charp msg) {
  auto* e = static_cast<PngError*>(png_get_error_ptr(png));
  if (e) std::snprintf(e->message, sizeof(e->message), "%s", msg);
  png_longjmp(png, 1);
}
void onWarning(png_structp, png_const_charp) {}

// libpng's own reader says only "Read Error" when the file ends early.
void readFromFile(png_structp png, png_bytep out, size_t length) {
  auto* f = static_cast<FILE*>(png_get_io_ptr(png));
  if (std::fread(out, 1, length, f) != length) png_error(png, std::ferror(f) ? "read error" : "file is truncated");
}

// What the reader hands back; plain data only, since a longjmp skips destructors.
struct PngPixels {
  png_uint_32 width = 0, height = 0;
  int channels = 0, bitDepth = 0;
  png_bytep data = nullptr;  // malloc'd
  png_bytep* rows = nullptr;  // malloc'd; kept here, not in a local, because longjmp may lose locals
  double ppmX = 0, ppmY = 0;
  int textCount = 0;
  char** keys = nullptr;  // malloc'd pairs
  char** values = nullptr;
};

void freePixels(PngPixels& p) {
  std::free(p.data);
  std::free(p.rows);
  for (int i = 0; i < p.textCount; ++i) {
    std::free(p.keys[i]);
    std::free(p.values[i]);
  }
  std::free(p.keys);
  std::free(p.values);
  p = PngPixels{};
}

// Walks the chunk list before libpng sees it: libpng allocates what an ancillary chunk claims
// before reading it, so a 44-byte file whose tEXt claims two gigabytes would cost them. Every
// chunk must fit in what is left of the file. Empty when the list is sound.
std::string checkChunks(FILE* f, long fileSize) {
  long at = 8;
  while (at < fileSize) {
    unsigned char head[8];
    if (std::fseek(f, at, SEEK_SET) != 0 || std::fread(head, 1, 8, f) != 8) return "file is truncated";
    const png_uint_32 length = png_get_uint_32(head);
    char type[5] = {0};
    for (int i = 0; i < 4; ++i) {
      const unsigned char c = head[4 + i];
      type[i] = std::isalpha(c) ? static_cast<char>(c) : '?';
    }
    if (length > PNG_UINT_31_MAX) return std::string("chunk '") + type + "' has an impossible length";
    const long remaining = fileSize - at - 8;  // data and CRC must follow
    if (static_cast<long>(length) + 4 > remaining)
      return std::string("file is truncated: chunk '") + type + "' claims " + std::to_string(length) +
             " bytes, " + std::to_string(std::max(remaining, 0L)) + " remain";
    at += 12 + static_cast<long>(length);
    if (std::memcmp(head + 4, "IEND", 4) == 0) break;
  }
  std::rewind(f);
  return {};
}

// No C++ objects with destructors live in this frame.
bool decode(FILE* f, double fileSize, PngPixels& out, PngError& err) {
  png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &err, onError, onWarning);
  if (!png) return false;
  png_infop info = png_create_info_struct(png);
  if (!info || setjmp(png_jmpbuf(png))) {
    png_destroy_read_struct(&png, info ? &info : nullptr, nullptr);
    return false;
  }
  png_set_read_fn(png, f, readFromFile);
  png_set_user_limits(png, 1u << 16, 1u << 16);
  // Ancillary chunks beyond a few megabytes (text, profiles) are refused; image data streams
  // and is not limited. checkChunks has already held every chunk to the file's size.
  png_set_chunk_malloc_max(png, 8u << 20);
  png_set_chunk_cache_max(png, 1000);
  png_read_info(png, info);
  int colorType = png_get_color_type(png, info);
  if (colorType == PNG_COLOR_TYPE_PALETTE) png_set_palette_to_rgb(png);
  if (colorType == PNG_COLOR_TYPE_GRAY && png_get_bit_depth(png, info) < 8) png_set_expand_gray_1_2_4_to_8(png);
  if (png_get_valid(png, info, PNG_INFO_tRNS)) png_set_tRNS_to_alpha(png);
  if (png_get_bit_depth(png, info) == 16) png_set_swap(png);  // PNG is big-endian, we are not
  png_read_update_info(png, info);
  out.width = png_get_image_width(png, info);
  out.height = png_get_image_height(png, info);
  out.channels = png_get_channels(png, info);
  out.bitDepth = png_get_bit_depth(png, info);
  const size_t rowBytes = png_get_rowbytes(png, info);
  // Deflate shrinks by at most about 1:1032; refuse a header that promises more than the file holds.
  if (static_cast<double>(rowBytes) * out.height > fileSize * 1100.0 + 65536.0) png_error(png, "image data is truncated");
  out.data = static_cast<png_bytep>(std::malloc(rowBytes * out.height));
  out.rows = static_cast<png_bytep*>(std::malloc(sizeof(png_bytep) * out.height));
  if (!out.data || !out.rows) png_error(png, "out of memory");
  for (png_uint_32 y = 0; y < out.height; ++y) out.rows[y] = out.data + y * rowBytes;
  png_read_image(png, out.rows);
  png_read_end(png, info);
  png_uint_32 rx, ry;
  int unit;
  if (png_get_pHYs(png, info, &rx, &ry, &unit) && unit == PNG_RESOLUTION_METER) {
    out.ppmX = rx;
    out.ppmY = ry;
  }
  png_textp text = nullptr;
  int n = 0;
  png_get_text(png, info, &text, &n);
  if (n > 0) {
    out.keys = static_cast<char**>(std::calloc(static_cast<size_t>(n), sizeof(char*)));
    out.values = static_cast<char**>(std::calloc(static_cast<size_t>(n), sizeof(char*)));
    if (out.keys && out.values) {
      for (int i = 0; i < n; ++i) {
        out.keys[i] = strdup(text[i].key);
        out.values[i] = strdup(text[i].text ? text[i].text : "");
      }
      out.textCount = n;
    }
  }
  png_destroy_read_struct(&png, &info, nullptr);
  return true;
}

struct PngOut {
  png_uint_32 width, height;
  int channels, bitDepth;
  const unsigned char* data;
  png_uint_32 ppmX, ppmY;
  int textCount;
  png_textp text;
};

bool encode(FILE* f, const PngOut& in, PngError& err) {
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &err, onError, onWarning);
  if (!png) return false;
  png_infop info = png_create_info_struct(png);
  png_bytep* volatile rows = nullptr;  // volatile: it must survive the longjmp
  if (!info || setjmp(png_jmpbuf(png))) {
    std::free(rows);
    png_destroy_write_struct(&png, info ? &info : nullptr);
    return false;
  }
  png_init_io(png, f);
  static const int types[] = {0, PNG_COLOR_TYPE_GRAY, PNG_COLOR_TYPE_GRAY_ALPHA, PNG_COLOR_TYPE_RGB,
                              PNG_COLOR_TYPE_RGB_ALPHA};
  png_set_IHDR(png, info, in.width, in.height, in.bitDepth, types[in.channels], PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  if (in.ppmX > 0 && in.ppmY > 0) png_set_pHYs(png, info, in.ppmX, in.ppmY, PNG_RESOLUTION_METER);
  if (in.textCount > 0) png_set_text(png, info, in.text, in.textCount);
  png_write_info(png, info);
  if (in.bitDepth == 16) png_set_swap(png);
  const size_t rowBytes = static_cast<size_t>(in.width) * in.channels * (in.bitDepth / 8);
  rows = static_cast<png_bytep*>(std::malloc(sizeof(png_bytep) * in.height));
  if (!rows) png_error(png, "out of memory");
  for (png_uint_32 y = 0; y < in.height; ++y) rows[y] = const_cast<png_bytep>(in.data + y * rowBytes);
  png_write_image(png, rows);
  png_write_end(png, info);
  std::free(rows);
  png_destroy_write_struct(&png, &info);
  return true;
}

}  // namespace

std::unique_ptr<SharedImageSet> readPng(const std::string& path, std::string* error) {
  const std::string file = baseName(path);
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) {
    if (error) *error = file + ": cannot open";
    return nullptr;
  }
  unsigned char sig[8] = {0};
  const size_t got = std::fread(sig, 1, 8, f);
  if (got != 8 || png_sig_cmp(sig, 0, 8) != 0) {
    std::fclose(f);
    if (error) *error = file + ": not a PNG file (bad signature)";
    return nullptr;
  }
  std::fseek(f, 0, SEEK_END);
  const long bytes = std::ftell(f);
  const double fileSize = static_cast<double>(bytes);
  if (const std::string why = checkChunks(f, bytes); !why.empty()) {
    std::fclose(f);
    if (error) *error = file + ": " + why;
    return nullptr;
  }
  PngPixels px;
  PngError err;
  const bool ok = decode(f, fileSize, px, err);
  std::fclose(f);
  if (!ok) {
    freePixels(px);
    if (error) *error = file + ": " + (err.message[0] ? err.message : "cannot decode");
    return nullptr;
  }
  const ImageDescriptor desc(px.bitDepth == 16 ? U16 : U8,
                             Eigen::Vector3i(static_cast<int>(px.width), static_cast<int>(px.height), 1), px.channels);
  std::shared_ptr<MemImage> image(MemImage::create(desc, false));
  std::memcpy(image->data(), px.data, desc.byteSize());
  if (px.ppmX > 0 && px.ppmY > 0) image->setSpacing(Eigen::Vector3d(1000.0 / px.ppmX, 1000.0 / px.ppmY, 1.0));
  std::map<std::string, std::string> fields;
  for (int i = 0; i < px.textCount; ++i) fields[px.keys[i]] = px.values[i];
  freePixels(px);
  auto set = makeSet(image, Eigen::Matrix4d::Identity(), path);
  applyMetadata(*set, fields);
  return set;
}

bool writePng(const SharedImageSet& image, const std::string& path, std::string* error) {
  const std::string file = baseName(path);
  const MemImage* m = image.mem(0);
  const ImageDescriptor& d = m->descriptor();
  if (d.slices() > 1 || (d.pixelType != U8 && d.pixelType != U16) || d.channels < 1 || d.channels > 4) {
    if (error) *error = file + ": PNG holds 2D frames of U8 or U16 with 1 to 4 channels, not this " +
                        pixelTypeName(d.pixelType) + " image";
    return false;
  }
  std::vector<std::pair<std::string, std::string>> meta = metadataOf(image);
  std::vector<png_text> text(meta.size());
  for (size_t i = 0; i < meta.size(); ++i) {
    text[i].compression = PNG_TEXT_COMPRESSION_NONE;
    text[i].key = meta[i].first.data();
    text[i].text = meta[i].second.data();
    text[i].text_length = meta[i].second.size();
  }
  PngOut out{static_cast<png_uint_32>(d.width()), static_cast<png_uint_32>(d.height()), d.channels,
             d.pixelType == U16 ? 16 : 8, static_cast<const unsigned char*>(m->data()),
             static_cast<png_uint_32>(std::lround(1000.0 / d.spacing[0])),
             static_cast<png_uint_32>(std::lround(1000.0 / d.spacing[1])), static_cast<int>(text.size()),
             text.empty() ? nullptr : text.data()};
  const std::string tmp = temporaryPathFor(path);
  FILE* f = std::fopen(tmp.c_str(), "wb");
  if (!f) {
    if (error) *error = file + ": cannot open for writing";
    return false;
  }
  PngError err;
  const bool ok = encode(f, out, err);
  const bool closed = std::fclose(f) == 0;
  if (!ok || !closed) {
    std::remove(tmp.c_str());
    if (error) *error = file + ": " + (err.message[0] ? err.message : "write failed");
    return false;
  }
  return commitTemporary(tmp, path, error);
}

}  // namespace Merivane::IO::detail
