// Label-map conversion: LabelToMeshAlgorithm on a volume of 10 labels (sizes 64 to 256) and
// LabelMapToContoursAlgorithm on an image of 10 labels (sizes 512 to 2048). The phantoms are
// blobs (spheres or discs with a wavy radius) at seeded places, labels 1..10.
//
//   LabelMapBench [benchmark flags]
//   LabelMapBench --write-input=DIR     writes DIR/labels3d.raw (256^3) and DIR/labels2d.raw (2048^2)
//   LabelMapBench --mesh-raw=DIR        meshes DIR/labels3d.raw once; prints JSON with seconds,
//                                       peak memory and per-label vertex/face counts and closedness
//   LabelMapBench --contours-raw=DIR    traces DIR/labels2d.raw once; prints JSON likewise
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "ContoursStorageComponent.h"
#include "LabelMapToContoursAlgorithm.h"
#include "LabelToMeshAlgorithm.h"
#include "Mesh.h"
#include "MeshProcessing.h"
#include "SharedImageSet.h"

using namespace Merivane;

namespace {

constexpr unsigned kSeed = 20261121;
constexpr int kLabels = 10;

// Blob k: centre and radius as fractions of the size, a wavy radius r (1 + 0.15 sin(3a) sin(2b)).
std::vector<unsigned char> phantom(int size, int slices) {
  std::mt19937 rng(kSeed);
  std::uniform_real_distribution<double> u(0.0, 1.0);
  struct Blob { double cx, cy, cz, r; };
  std::vector<Blob> blobs;
  for (int k = 0; k < kLabels; ++k) blobs.push_back({0.15 + 0.7 * u(rng), 0.15 + 0.7 * u(rng), 0.15 + 0.7 * u(rng), 0.06 + 0.08 * u(rng)});
  std::vector<unsigned char> out(static_cast<size_t>(size) * size * slices, 0);
  const bool flat = slices == 1;
#pragma omp parallel for schedule(static)
  for (int z = 0; z < slices; ++z)
    for (int y = 0; y < size; ++y)
      for (int x = 0; x < size; ++x) {
        for (int k = 0; k < kLabels; ++k) {
          const Blob& b = blobs[k];
          const double dx = x - b.cx * size, dy = y - b.cy * size, dz = flat ? 0.0 : z - b.cz * slices;
          const double d = std::sqrt(dx * dx + dy * dy + dz * dz);
          const double a = std::atan2(dy, dx), e = flat ? 0.0 : std::atan2(dz, std::hypot(dx, dy));
          const double r = b.r * size * (1 + 0.15 * std::sin(3 * a) * std::cos(2 * e + 1));
          if (d <= r) out[(static_cast<size_t>(z) * size + y) * size + x] = static_cast<unsigned char>(k + 1);
        }
      }
  return out;
}

std::unique_ptr<SharedImageSet> labelSet(std::vector<unsigned char> data, int size, int slices) {
  auto img = TypedImage<unsigned char>::create(Eigen::Vector3i(size, size, slices), 1);
  std::memcpy(img->pointer(), data.data(), data.size());
  auto set = std::make_unique<SharedImageSet>(std::shared_ptr<Image>(std::move(img)));
  set->setModality(Data::LABEL);
  return set;
}

std::vector<unsigned char> allLabels() {
  std::vector<unsigned char> v;
  for (int k = 1; k <= kLabels; ++k) v.push_back(static_cast<unsigned char>(k));
  return v;
}

void BM_LabelToMesh(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  auto set = labelSet(phantom(n, n), n, n);
  for (auto _ : state) {
    LabelToMeshAlgorithm a(set.get());
    a.compute();
    benchmark::DoNotOptimize(a.takeOutput());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(n) * n * n);
}
BENCHMARK(BM_LabelToMesh)->RangeMultiplier(2)->Range(64, 256)->Unit(benchmark::kMillisecond);

void BM_LabelMapToContours(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  auto set = labelSet(phantom(n, 1), n, 1);
  const auto labels = allLabels();
  for (auto _ : state) {
    LabelMapToContoursAlgorithm a(set.get());
    benchmark::DoNotOptimize(a.createContoursFromLabelMap(*set, {0, 0}, labels));
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(n) * n);
}
BENCHMARK(BM_LabelMapToContours)->RangeMultiplier(2)->Range(512, 2048)->Unit(benchmark::kMillisecond);

long maxRssKb() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return u.ru_maxrss;
}

std::vector<unsigned char> readRaw(const std::string& path, size_t bytes) {
  std::vector<unsigned char> data(bytes);
  std::ifstream in(path, std::ios::binary);
  if (!in.read(reinterpret_cast<char*>(data.data()), static_cast<std::streamsize>(bytes))) {
    std::fprintf(stderr, "%s: cannot read %zu bytes\n", path.c_str(), bytes);
    std::exit(3);
  }
  return data;
}

int runMesh(const std::string& dir) {
  auto set = labelSet(readRaw(dir + "/labels3d.raw", 256ull * 256 * 256), 256, 256);
  LabelToMeshAlgorithm a(set.get());
  const auto t0 = std::chrono::steady_clock::now();
  a.compute();
  const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  std::printf("{\"seconds\": %.6f, \"maxrss_kb\": %ld, \"meshes\": [", s, maxRssKb());
  for (size_t i = 0; i < a.meshes().size(); ++i) {
    const Mesh& m = *a.meshes()[i];
    std::printf("%s{\"name\": \"%s\", \"vertices\": %zu, \"faces\": %zu, \"closed\": %s, \"euler\": %ld}", i ? ", " : "",
                m.name().c_str(), m.vertices.size(), m.faces.size(),
                MeshProcessing::isClosedManifold(m) ? "true" : "false", MeshProcessing::eulerCharacteristic(m));
  }
  std::printf("]}\n");
  return a.status() == Algorithm::statusSuccess ? 0 : 1;
}

int runContours(const std::string& dir) {
  auto set = labelSet(readRaw(dir + "/labels2d.raw", 2048ull * 2048), 2048, 1);
  LabelMapToContoursAlgorithm a(set.get());
  const auto t0 = std::chrono::steady_clock::now();
  auto contours = a.createContoursFromLabelMap(*set, {0, 0}, allLabels());
  const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  size_t points = 0;
  for (const auto& c : contours) points += c.points.size();
  std::printf("{\"seconds\": %.6f, \"maxrss_kb\": %ld, \"contours\": %zu, \"points\": %zu}\n", s, maxRssKb(),
              contours.size(), points);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&](const char* key) { return arg.substr(std::strlen(key)); };
    if (arg.rfind("--write-input=", 0) == 0) {
      const std::string dir = value("--write-input=");
      const auto v3 = phantom(256, 256), v2 = phantom(2048, 1);
      std::ofstream(dir + "/labels3d.raw", std::ios::binary).write(reinterpret_cast<const char*>(v3.data()), static_cast<std::streamsize>(v3.size()));
      std::ofstream(dir + "/labels2d.raw", std::ios::binary).write(reinterpret_cast<const char*>(v2.data()), static_cast<std::streamsize>(v2.size()));
      return 0;
    }
    if (arg.rfind("--mesh-raw=", 0) == 0) return runMesh(value("--mesh-raw="));
    if (arg.rfind("--contours-raw=", 0) == 0) return runContours(value("--contours-raw="));
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
