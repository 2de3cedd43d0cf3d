#include "Compression.h"

#include <zstd.h>

#include <algorithm>

namespace Merivane::Compression::zstd {

size_t getMaxCompressedSize(size_t inputSize) { return ZSTD_compressBound(inputSize); }

Context::Context() = default;

Context::~Context() {
  ZSTD_freeCCtx(cctx_);
  ZSTD_freeDCtx(dctx_);
}

size_t Context::compressTo(ByteBufferView input, ByteBufferMutableView output, int level) {
  if (!cctx_ && !(cctx_ = ZSTD_createCCtx())) return 0;
  // Parameters are sticky; setting them on every call keeps one context usable for any level.
  ZSTD_CCtx_reset(cctx_, ZSTD_reset_session_and_parameters);
  if (ZSTD_isError(ZSTD_CCtx_setParameter(cctx_, ZSTD_c_compressionLevel, level)) ||
      ZSTD_isError(ZSTD_CCtx_setParameter(cctx_, ZSTD_c_checksumFlag, 1)) ||
      ZSTD_isError(ZSTD_CCtx_setParameter(cctx_, ZSTD_c_contentSizeFlag, 1)))
    return 0;
  size_t n = ZSTD_compress2(cctx_, output.data(), output.size(), input.data(), input.size());
  return ZSTD_isError(n) ? 0 : n;
}

size_t Context::decompressTo(ByteBufferView input, ByteBufferMutableView output) {
  if (!dctx_ && !(dctx_ = ZSTD_createDCtx())) return 0;
  // Exactly one frame: trailing bytes after it mean the buffer is not what was written.
  size_t frame = ZSTD_findFrameCompressedSize(input.data(), input.size());
  if (ZSTD_isError(frame) || frame != input.size()) return 0;
  size_t n = ZSTD_decompressDCtx(dctx_, output.data(), output.size(), input.data(), input.size());
  return ZSTD_isError(n) ? 0 : n;
}

std::optional<uint64_t> frameContentSize(ByteBufferView input) {
  size_t frame = ZSTD_findFrameCompressedSize(input.data(), input.size());
  if (ZSTD_isError(frame) || frame != input.size()) return std::nullopt;
  unsigned long long size = ZSTD_getFrameContentSize(input.data(), input.size());
  if (size == ZSTD_CONTENTSIZE_UNKNOWN || size == ZSTD_CONTENTSIZE_ERROR) return std::nullopt;
  return static_cast<uint64_t>(size);
}

ByteBuffer decompress(ByteBufferView input, size_t maxSize) {
  auto size = frameContentSize(input);
  if (!size || *size > maxSize) return {};
  ByteBuffer out(static_cast<size_t>(*size));
  if (out.empty()) return {};
  Context context;
  if (context.decompressTo(input, out) != out.size()) return {};
  return out;
}

bool verify(ByteBufferView input) {
  auto size = frameContentSize(input);
  if (!size) return false;
  ZSTD_DCtx* dctx = ZSTD_createDCtx();
  if (!dctx) return false;
  ByteBuffer window(ZSTD_DStreamOutSize());
  ZSTD_inBuffer in{input.data(), input.size(), 0};
  uint64_t produced = 0;
  bool ok = true;
  size_t ret = 1;
  // ret 0 means the frame ended and its checksum matched.
  while (ret != 0) {
    ZSTD_outBuffer out{window.data(), window.size(), 0};
    ret = ZSTD_decompressStream(dctx, &out, &in);
    if (ZSTD_isError(ret)) {
      ok = false;
      break;
    }
    produced += out.pos;
    if (ret != 0 && in.pos == in.size && out.pos < out.size) {
      ok = false;  // input used up inside the frame
      break;
    }
  }
  ZSTD_freeDCtx(dctx);
  return ok && produced == *size && in.pos == in.size;
}

}  // namespace Merivane::Compression::zstd
