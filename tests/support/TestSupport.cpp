#include "TestSupport.h"

#include "Log.h"

namespace Merivane::TestKit {

LogCapture::LogCapture() {
  stderrWas_ = Log::stderrEnabled();
  levelWas_ = Log::g_globalLevel;
  Log::g_globalLevel = Log::Debug;
  Log::setStderrEnabled(false);
  sinkId_ = Log::addSink([this](int level, const std::string& category, const std::string& message) {
    lines_.push_back({level, category, message});
  });
}

LogCapture::~LogCapture() {
  Log::removeSink(sinkId_);
  Log::setStderrEnabled(stderrWas_);
  Log::g_globalLevel = levelWas_;
}

int LogCapture::count(int level) const {
  int n = 0;
  for (auto& l : lines_) n += l.level == level;
  return n;
}

int LogCapture::count(int level, const std::string& category) const {
  int n = 0;
  for (auto& l : lines_) n += l.level == level && l.category == category;
  return n;
}

bool LogCapture::contains(const std::string& text) const {
  for (auto& l : lines_)
    if (l.message.find(text) != std::string::npos) return true;
  return false;
}

std::unique_ptr<SharedImageSet> makeSet(PixelType type, const Eigen::Vector3i& dims, int frames, int channels) {
  auto set = std::make_unique<SharedImageSet>();
  for (int i = 0; i < frames; ++i)
    set->add(std::shared_ptr<Image>(MemImage::create(ImageDescriptor(type, dims, channels))));
  return set;
}

}  // namespace Merivane::TestKit

