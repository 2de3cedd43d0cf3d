#pragma once
// Helpers of the undo tests: full copies of a set's voxels, a scratch directory, and the
// deterministic edit sequence that the crash test's writer and checker both replay.
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "ByteBuffer.h"
#include "SharedImageSet.h"

namespace Merivane::TestKit {

// The raw voxel bytes of every frame.
inline std::vector<ByteBuffer> voxelCopy(const SharedImageSet& set) {
  std::vector<ByteBuffer> frames;
  for (int i = 0; i < set.size(); ++i) {
    const MemImage* m = set.mem(i);
    const auto* p = static_cast<const unsigned char*>(m->data());
    frames.emplace_back(p, p + m->byteSize());
  }
  return frames;
}

// Fills a random box of frame `frame` with values from `rng`: a constant label most of the
// time, noise otherwise, so that frames compress to very different sizes.
inline void paintBox(SharedImageSet& set, int frame, std::mt19937& rng) {
  MemImage* m = set.mem(frame);
  const auto& d = m->dimensions();
  const int ts = m->typeSize() * m->channels();
  std::uniform_int_distribution<int> pick(0, 1 << 20);
  int lo[3], hi[3];
  for (int a = 0; a < 3; ++a) {
    lo[a] = pick(rng) % d[a];
    hi[a] = std::min(d[a], lo[a] + 1 + pick(rng) % std::max(1, d[a] / 2));
  }
  const bool noise = pick(rng) % 4 == 0;
  const unsigned char label = static_cast<unsigned char>(1 + pick(rng) % 250);
  auto* p = static_cast<unsigned char*>(m->data());
  for (int z = lo[2]; z < hi[2]; ++z)
    for (int y = lo[1]; y < hi[1]; ++y)
      for (int x = lo[0]; x < hi[0]; ++x) {
        unsigned char* v = p + ((static_cast<size_t>(z) * d[1] + y) * d[0] + x) * ts;
        for (int b = 0; b < ts; ++b) v[b] = noise ? static_cast<unsigned char>(pick(rng)) : label;
      }
  set.get(frame)->setDirtyMem();
}

// A directory under the system's temporary folder, removed with its content.
class ScratchDir {
 public:
  explicit ScratchDir(const std::string& tag) {
    static int counter = 0;
    path_ = (std::filesystem::temp_directory_path() /
             ("merivane-undo-" + tag + "-" + std::to_string(::getpid()) + "-" + std::to_string(counter++)))
                .string();
    std::filesystem::remove_all(path_);
    std::filesystem::create_directories(path_);
  }
  ~ScratchDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  std::vector<std::string> names() const {
    std::vector<std::string> n;
    for (auto& e : std::filesystem::directory_iterator(path_)) n.push_back(e.path().filename().string());
    std::sort(n.begin(), n.end());
    return n;
  }

 private:
  std::string path_;
};

// The crash scenario: two 3D frames; step k paints one box into frame k % 2 and is recorded
// as level id k with that frame changed.
namespace CrashScenario {
inline std::unique_ptr<SharedImageSet> makeSet() {
  auto set = std::make_unique<SharedImageSet>();
  for (int i = 0; i < 2; ++i)
    set->add(std::shared_ptr<Image>(MemImage::create(ImageDescriptor(U8, Eigen::Vector3i(64, 48, 40), 1))));
  return set;
}
inline int applyStep(SharedImageSet& set, unsigned step) {
  std::mt19937 rng(1000 + step);
  const int frame = static_cast<int>(step % 2);
  if (step > 0) paintBox(set, frame, rng);
  return frame;
}
}  // namespace CrashScenario

}  // namespace Merivane::TestKit
