#pragma once
// zstd compression of whole buffers. Every frame this writes carries its content size and a
// content checksum, so a damaged or cut frame is refused on reading instead of giving wrong
// bytes. No function throws; failures are a 0 size, an empty buffer or false.
#include <cstddef>
#include <cstdint>
#include <optional>

#include "ByteBuffer.h"

struct ZSTD_CCtx_s;
struct ZSTD_DCtx_s;

namespace Merivane::Compression::zstd {

// The most bytes one frame of `inputSize` bytes can take.
size_t getMaxCompressedSize(size_t inputSize);

// Reusable compression and decompression state; one per thread.
class Context {
 public:
  Context();
  ~Context();
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;

  // Compresses `input` as one frame into `output`. Returns the compressed size, or 0 when
  // `output` is too small or the library fails.
  size_t compressTo(ByteBufferView input, ByteBufferMutableView output, int level);
  // Decompresses the one frame in `input` into `output`. Returns the bytes written, or 0 when
  // the frame is damaged, incomplete or larger than `output`.
  size_t decompressTo(ByteBufferView input, ByteBufferMutableView output);

 private:
  ZSTD_CCtx_s* cctx_ = nullptr;
  ZSTD_DCtx_s* dctx_ = nullptr;
};

// The whole content of the one frame in `input`; empty when the frame is damaged, incomplete
// or would take more than `maxSize` bytes.
ByteBuffer decompress(ByteBufferView input, size_t maxSize = size_t{1} << 30);

// The content size a frame declares, when `input` holds exactly one complete frame that
// declares it (walks the block headers, decompresses nothing).
std::optional<uint64_t> frameContentSize(ByteBufferView input);

// Decompresses through a small window and checks the content size and the checksum: true
// when the frame is intact.
bool verify(ByteBufferView input);

}  // namespace Merivane::Compression::zstd
