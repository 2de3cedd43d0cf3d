// The undo recorder on a 512 x 512 x 300 label map holding a few organs: recording one level
// (the whole volume is one frame, so every level compresses all of it), restoring it, writing
// its file; and a sweep of 300 2D frames of which one changes per level.
//
//   UndoBench [benchmark flags]
//
// Counters: ms per operation, compressed bytes as a percentage of the raw bytes, bytes a
// level adds to the history, and the recorder's held bytes.
#include <benchmark/benchmark.h>

#include <cmath>
#include <filesystem>
#include <random>

#include "BenchSupport.h"
#include "SharedImageSet.h"
#include "UndoRecorder.h"
#include "UndoSerializer.h"

using namespace Merivane;
using U8Image = TypedImage<unsigned char>;

namespace {

constexpr unsigned kSeed = 20240611;

struct Organ {
  double cx, cy, cz, rx, ry, rz;
  unsigned char label;
};

uint64_t mix(uint64_t x) {
  x += 0x9e3779b97f4a7c15ull;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
  return x ^ (x >> 31);
}

// Ellipsoids with a wavy surface (radius modulated by a few low-frequency terms); `ragged`
// adds per-voxel noise of +-3 % to the radius, a boundary as rough as a hand-drawn or
// thresholded one. Each voxel depends on its coordinates only.
std::unique_ptr<U8Image> makeOrgans(int nx, int ny, int nz, bool ragged = false) {
  const Organ organs[] = {
      {0.35, 0.45, 0.50, 0.20, 0.16, 0.25, 1},    // liver
      {0.72, 0.42, 0.50, 0.08, 0.10, 0.14, 2},    // spleen
      {0.35, 0.62, 0.35, 0.05, 0.07, 0.10, 3},    // kidneys
      {0.66, 0.62, 0.35, 0.05, 0.07, 0.10, 4},
      {0.50, 0.58, 0.50, 0.025, 0.025, 0.60, 5},  // aorta
      {0.55, 0.35, 0.62, 0.09, 0.06, 0.08, 6},    // stomach
  };
  auto img = U8Image::zeros({nx, ny, nz}, 1);
  unsigned char* p = img->pointer();
#pragma omp parallel for schedule(static)
  for (int z = 0; z < nz; ++z)
    for (int y = 0; y < ny; ++y)
      for (int x = 0; x < nx; ++x) {
        const double u = (x + 0.5) / nx, v = (y + 0.5) / ny, w = (z + 0.5) / nz;
        for (const Organ& o : organs) {
          const double dx = (u - o.cx) / o.rx, dy = (v - o.cy) / o.ry, dz = (w - o.cz) / o.rz;
          double wave = 1.0 + 0.04 * std::sin(9 * u + 4 * w) + 0.03 * std::sin(13 * v - 7 * w);
          if (ragged) {
            const uint64_t h = mix((static_cast<uint64_t>(z) * ny + y) * nx + x);
            wave += 0.06 * (static_cast<double>(h >> 11) / 9007199254740992.0 - 0.5);
          }
          if (dx * dx + dy * dy + dz * dz <= wave * wave) {
            p[(static_cast<size_t>(z) * ny + y) * nx + x] = o.label;
            break;
          }
        }
      }
  return img;
}

// A brush stroke: a ball of radius 10 voxels at a random place.
void paintBall(SharedImageSet& set, int frame, std::mt19937& rng, unsigned char label) {
  MemImage* m = set.mem(frame);
  const auto d = m->dimensions();
  auto* p = static_cast<unsigned char*>(m->data());
  const int r = 10;
  const int cx = static_cast<int>(rng() % d[0]), cy = static_cast<int>(rng() % d[1]),
            cz = static_cast<int>(rng() % d[2]);
  for (int z = std::max(0, cz - r); z <= std::min(d[2] - 1, cz + r); ++z)
    for (int y = std::max(0, cy - r); y <= std::min(d[1] - 1, cy + r); ++y)
      for (int x = std::max(0, cx - r); x <= std::min(d[0] - 1, cx + r); ++x)
        if ((x - cx) * (x - cx) + (y - cy) * (y - cy) + (z - cz) * (z - cz) <= r * r)
          p[(static_cast<size_t>(z) * d[1] + y) * d[0] + x] = label;
  set.get(frame)->setDirtyMem();
}

std::unique_ptr<SharedImageSet> organVolume(bool ragged) {
  return std::make_unique<SharedImageSet>(std::shared_ptr<Image>(makeOrgans(512, 512, 300, ragged)));
}

void BM_RecordVolumeLevel(benchmark::State& state) {
  auto set = organVolume(state.range(0) != 0);
  const double raw = static_cast<double>(set->mem(0)->byteSize());
  Seg::UndoRecorder recorder(*set, 0, {});  // budget 0: the history keeps the newest level
  std::mt19937 rng(kSeed);
  unsigned long id = 0;
  recorder.recordUndoLevel("baseline", id++);
  for (auto _ : state) {
    state.PauseTiming();
    paintBall(*set, 0, rng, 7);
    state.ResumeTiming();
    recorder.recordUndoLevel("stroke", id++, {0});
  }
  const double compressed = static_cast<double>(recorder.levels().back().frames[0]->size());
  state.counters["compressed_%"] = 100.0 * compressed / raw;
  state.counters["compressed_MiB"] = compressed / (1 << 20);
  state.counters["raw_MiB"] = raw / (1 << 20);
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(raw));
}
// Argument: 0 smooth organ surfaces, 1 ragged ones.
BENCHMARK(BM_RecordVolumeLevel)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_RestoreVolumeLevel(benchmark::State& state) {
  auto set = organVolume(state.range(0) != 0);
  Seg::UndoRecorder recorder(*set, 1ul << 30, {});
  recorder.recordUndoLevel("baseline", 0);
  std::mt19937 rng(kSeed);
  paintBall(*set, 0, rng, 7);
  recorder.recordUndoLevel("stroke", 1, {0});
  unsigned long which = 0;
  for (auto _ : state) {
    if (recorder.restoreUndoLevel(which) != 0) state.SkipWithError("restore failed");
    which ^= 1;
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(set->mem(0)->byteSize()));
}
BENCHMARK(BM_RestoreVolumeLevel)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// Writing a level's file in the background: the writer's time per level, not the user's.
void BM_WriteVolumeLevelFile(benchmark::State& state) {
  auto set = organVolume(true);
  Seg::UndoRecorder recorder(*set, 1ul << 30, {});
  recorder.recordUndoLevel("baseline", 0);
  const auto dir = std::filesystem::temp_directory_path() / "merivane-undo-bench";
  std::filesystem::remove_all(dir);
  Seg::internal::UndoSerializer serializer(dir.string());
  std::filesystem::create_directories(dir);
  for (auto _ : state) {
    serializer.writeUndoFileAsync(recorder.levels()[0]);
    serializer.waitUntilWriterFinished();
  }
  std::filesystem::remove_all(dir);
}
BENCHMARK(BM_WriteVolumeLevelFile)->Unit(benchmark::kMillisecond)->UseRealTime();

// 300 frames of 512 x 512 (slices of the organ volume); each level changes one frame.
void BM_SweepOneFrameChanged(benchmark::State& state) {
  auto volume = makeOrgans(512, 512, 300);
  SharedImageSet set;
  const size_t frameBytes = 512 * 512;
  for (int z = 0; z < 300; ++z) {
    auto frame = U8Image::zeros({512, 512, 1}, 1);
    std::memcpy(frame->pointer(), volume->pointer() + z * frameBytes, frameBytes);
    set.add(std::shared_ptr<Image>(std::move(frame)));
  }
  volume.reset();
  Bench::resetPeakMemory();
  const double rssBefore = Bench::currentMemoryMiB();
  Seg::UndoRecorder recorder(set, 64ul << 20, {});
  recorder.recordUndoLevel("baseline", 0);
  const double baselineBytes = static_cast<double>(recorder.currentSize());
  std::mt19937 rng(kSeed);
  unsigned long id = 1;
  double added = 0, oneFrame = 0;
  for (auto _ : state) {
    state.PauseTiming();
    const int f = static_cast<int>(rng() % 300);
    paintBall(set, f, rng, 7);
    const double before = static_cast<double>(recorder.currentSize());
    state.ResumeTiming();
    recorder.recordUndoLevel("stroke", id++, {static_cast<unsigned long>(f)});
    state.PauseTiming();
    if (recorder.levelCount() > 1 && recorder.currentSize() >= before) {
      added += static_cast<double>(recorder.currentSize()) - before;
      oneFrame += static_cast<double>(recorder.levels().back().frames[f]->size());
    }
    state.ResumeTiming();
  }
  state.counters["baseline_KiB"] = baselineBytes / 1024;
  state.counters["level_added_B"] = added / static_cast<double>(state.iterations());
  state.counters["one_frame_B"] = oneFrame / static_cast<double>(state.iterations());
  state.counters["levels_held"] = static_cast<double>(recorder.levelCount());
  state.counters["held_MiB"] = static_cast<double>(recorder.currentSize()) / (1 << 20);
  state.counters["rss_growth_MiB"] = Bench::currentMemoryMiB() - rssBefore;
}
BENCHMARK(BM_SweepOneFrameChanged)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(500);

}  // namespace

BENCHMARK_MAIN();
