#include "Repository_MerivaneSeg.h"

#include <algorithm>
#include <cstring>

#include "SegShaderSources.h"

namespace Merivane {

namespace {

// Every program starts with this chunk; callers insert their defines after its first line.
constexpr char kPrologue[] =
    "#version 450 core\n"
    "// MerivaneSeg fragment program\n";

// Programs written so far, from shaders/. The others arrive with the tools that draw them;
// until then each of those names holds a program that compiles and writes transparent black:
// a stand-in, not the tool's program.
struct Written {
  const char* name;
  const char* body;
  size_t size;
};
constexpr Written kWritten[] = {
    {"GlIsolineRenderer.frag", kShader_GlIsolineRenderer_frag, sizeof(kShader_GlIsolineRenderer_frag) - 1},
    {"GlLabelRenderer.frag", kShader_GlLabelRenderer_frag, sizeof(kShader_GlLabelRenderer_frag) - 1},
    {"LabelPainter.frag", kShader_LabelPainter_frag, sizeof(kShader_LabelPainter_frag) - 1},
    {"LabelPainterDrawLine.frag", kShader_LabelPainterDrawLine_frag, sizeof(kShader_LabelPainterDrawLine_frag) - 1},
    {"LabelPainterMerge.frag", kShader_LabelPainterMerge_frag, sizeof(kShader_LabelPainterMerge_frag) - 1},
    {"LabelPainterThreshold.frag", kShader_LabelPainterThreshold_frag,
     sizeof(kShader_LabelPainterThreshold_frag) - 1},
    {"ThresholdToolApply.frag", kShader_ThresholdToolApply_frag, sizeof(kShader_ThresholdToolApply_frag) - 1},
    {"ThresholdToolPreview.frag", kShader_ThresholdToolPreview_frag, sizeof(kShader_ThresholdToolPreview_frag) - 1},
    {"WatershedToolPreview.frag", kShader_WatershedToolPreview_frag, sizeof(kShader_WatershedToolPreview_frag) - 1},
};

constexpr char kPlaceholderBody[] =
    "layout(location = 0) out vec4 o_color;\n"
    "void main() {\n"
    "  o_color = vec4(0.0);  // placeholder until the tool's program is written\n"
    "}\n";

constexpr const char* kNames[] = {
    "GlIsolineRenderer.frag",     "GlLabelRenderer.frag",    "LabelPainter.frag",
    "LabelPainterDrawLine.frag",  "LabelPainterMerge.frag",  "LabelPainterThreshold.frag",
    "StructuresViewOtherLabelsMask.frag", "ThresholdToolApply.frag", "ThresholdToolPreview.frag",
    "WatershedToolPreview.frag",
};

ByteBufferView view(const char* text, size_t size) { return {reinterpret_cast<const unsigned char*>(text), size}; }

}  // namespace

Repository_MerivaneSeg::Repository_MerivaneSeg() {
  for (const char* name : kNames) {
    ByteBufferView body = view(kPlaceholderBody, sizeof(kPlaceholderBody) - 1);
    for (const Written& w : kWritten)
      if (std::strcmp(w.name, name) == 0) body = view(w.body, w.size);
    entries_.emplace(name, std::vector<ByteBufferView>{view(kPrologue, sizeof(kPrologue) - 1), body});
  }
}

Repository_MerivaneSeg::~Repository_MerivaneSeg() = default;

std::string Repository_MerivaneSeg::name() const { return kName; }

bool Repository_MerivaneSeg::contains(std::string_view name) const { return entries_.find(name) != entries_.end(); }

std::optional<ByteBuffer> Repository_MerivaneSeg::query(std::string_view name) const {
  auto it = entries_.find(name);
  if (it == entries_.end()) return std::nullopt;
  const auto& chunks = it->second;
  if (chunks.size() == 1) return ByteBuffer(chunks.front().begin(), chunks.front().end());
  size_t total = 0;
  for (const auto& c : chunks) total += c.size();
  ByteBuffer buffer;
  buffer.reserve(total);
  for (const auto& c : chunks) buffer.insert(buffer.end(), c.begin(), c.end());
  return buffer;
}

std::vector<std::string> Repository_MerivaneSeg::names() const {
  std::vector<std::string> result;
  for (const auto& e : entries_) result.push_back(e.first);
  std::sort(result.begin(), result.end());
  return result;
}

size_t Repository_MerivaneSeg::chunkCount(std::string_view name) const {
  auto it = entries_.find(name);
  return it == entries_.end() ? 0 : it->second.size();
}

}  // namespace Merivane
