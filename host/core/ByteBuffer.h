#pragma once
// Owned bytes and the views that functions take instead of pointer and length pairs.
#include <span>
#include <vector>

namespace Merivane {

using ByteBuffer = std::vector<unsigned char>;
using ByteBufferView = std::span<const unsigned char>;
using ByteBufferMutableView = std::span<unsigned char>;

}  // namespace Merivane
