#include "TextureBackend.h"

#include <atomic>

namespace Merivane {

namespace {
std::atomic<TextureBackend*> g_backend{nullptr};
}

TextureBackend::~TextureBackend() = default;
TextureBackend* TextureBackend::installed() { return g_backend.load(std::memory_order_acquire); }
void TextureBackend::install(TextureBackend* backend) { g_backend.store(backend, std::memory_order_release); }

}  // namespace Merivane
