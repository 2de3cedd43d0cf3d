#include "Demo.h"

#include <Eigen/Core>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>

#include "Algorithm.h"
#include "ConsoleProgress.h"
#include "FactoryRegistry.h"
#include "ImageIO.h"
#include "LabelDataComponent.h"
#include "Log.h"
#include "Mesh.h"
#include "MeshIO.h"
#include "Progress.h"
#include "Properties.h"
#include "Runner.h"
#include "SharedImageSet.h"

namespace fs = std::filesystem;

namespace Merivane::Cli {

namespace {

using Clock = std::chrono::steady_clock;
double secondsSince(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

// Creates, configures and runs one registered algorithm; null output list on failure.
std::unique_ptr<Algorithm> runStep(const std::string& name, const DataList& inputs, const Properties& config,
                                   Progress* progress, std::string& error) {
  auto algorithm = FactoryRegistry::instantiateAlgorithm(name, inputs);
  if (!algorithm) {
    error = name + " does not accept the demo's data";
    return nullptr;
  }
  algorithm->configure(&config);
  algorithm->setProgress(progress);
  algorithm->compute();
  if (algorithm->status() != Algorithm::statusSuccess && algorithm->status() != Algorithm::statusUnknown) {
    error = name + " ended with status " + std::to_string(algorithm->status());
    return nullptr;
  }
  return algorithm;
}

// Grey value in [0, 255] through a window over the image's 1st..99th percentile.
struct Window {
  double lo = 0, hi = 1;
  unsigned char operator()(double v) const {
    return static_cast<unsigned char>(std::clamp((v - lo) / (hi - lo) * 255.0, 0.0, 255.0));
  }
};

// Three orthogonal slices through the object's centre, side by side, the object in red.
std::unique_ptr<SharedImageSet> overlayPicture(const SharedImageSet& image, const SharedImageSet& labels, int object) {
  const MemImage* img = image.mem(0);
  auto* lab = dynamic_cast<const TypedImage<unsigned char>*>(labels.mem(0));
  if (!img || !lab) return nullptr;
  const Eigen::Vector3i d = img->dimensions();
  std::vector<double> values(d.prod());
  dispatchPixelType(img->type(), [&](auto tag) {
    using T = decltype(tag);
    const T* p = static_cast<const T*>(img->data());
    for (size_t i = 0; i < values.size(); ++i) values[i] = static_cast<double>(p[i * static_cast<size_t>(img->channels())]);
  });
  std::vector<double> sorted(values);
  Window w;
  std::nth_element(sorted.begin(), sorted.begin() + sorted.size() / 100, sorted.end());
  w.lo = sorted[sorted.size() / 100];
  std::nth_element(sorted.begin(), sorted.begin() + sorted.size() * 99 / 100, sorted.end());
  w.hi = std::max(sorted[sorted.size() * 99 / 100], w.lo + 1);

  Eigen::Vector3d centre = Eigen::Vector3d::Zero();
  int64_t count = 0;
  for (int z = 0; z < d[2]; ++z)
    for (int y = 0; y < d[1]; ++y)
      for (int x = 0; x < d[0]; ++x)
        if (lab->value(x, y, z) == object) {
          centre += Eigen::Vector3d(x, y, z);
          ++count;
        }
  const Eigen::Vector3i c = count ? (centre / count).cast<int>() : Eigen::Vector3i(d / 2);

  // Panels: axial (x, y at z), coronal (x, z at y), sagittal (y, z at x); rows from the top.
  const int W = d[0] + d[0] + d[1] + 8, H = std::max(d[1], d[2]);
  auto picture = TypedImage<unsigned char>::zeros(Eigen::Vector3i(W, H, 1), 3);
  auto put = [&](int px, int py, int x, int y, int z) {
    const size_t i = (static_cast<size_t>(z) * d[1] + y) * d[0] + x;
    const unsigned char g = w(values[i]);
    const bool in = lab->value(x, y, z) == object;
    picture->setValue(in ? static_cast<unsigned char>(std::min(255, g / 2 + 128)) : g, px, py, 0, 0);
    picture->setValue(in ? static_cast<unsigned char>(g / 2) : g, px, py, 0, 1);
    picture->setValue(in ? static_cast<unsigned char>(g / 2) : g, px, py, 0, 2);
  };
  for (int y = 0; y < d[1]; ++y)
    for (int x = 0; x < d[0]; ++x) put(x, d[1] - 1 - y, x, y, c[2]);
  for (int z = 0; z < d[2]; ++z)
    for (int x = 0; x < d[0]; ++x) put(d[0] + 4 + x, d[2] - 1 - z, x, c[1], z);
  for (int z = 0; z < d[2]; ++z)
    for (int y = 0; y < d[1]; ++y) put(2 * d[0] + 8 + y, d[2] - 1 - z, c[0], y, z);
  return std::make_unique<SharedImageSet>(std::shared_ptr<Image>(std::move(picture)));
}

}  // namespace

std::string defaultDemoSeeds(const char* argv0) {
  std::error_code ec;
  fs::path self = fs::read_symlink("/proc/self/exe", ec);
  if (ec) self = fs::absolute(argv0);
  const fs::path dir = self.parent_path();
  for (const fs::path& candidate :
       {dir / "ch2_ventricle_seeds.nii.gz", dir / ".." / "share" / "merivane" / "ch2_ventricle_seeds.nii.gz",
        dir / ".." / ".." / "data" / "demo" / "ch2_ventricle_seeds.nii.gz"})
    if (fs::exists(candidate)) return candidate.lexically_normal().string();
  return "data/demo/ch2_ventricle_seeds.nii.gz";
}

int runDemo(const DemoOptions& options, Progress* progress, const std::atomic<bool>* interrupted) {
  std::string error;
  auto fail = [&](int code) {
    std::fprintf(stderr, "merivane demo: %s\n", error.c_str());
    return code;
  };
  auto stopped = [&] { return interrupted && interrupted->load(); };
  const auto start = Clock::now();

  auto image = IO::readImage(options.image, &error);
  if (!image) {
    if (!fs::exists(options.image)) error += " (install Debian's mricron-data, or pass --image)";
    return fail(exitFileError);
  }
  auto labels = IO::readImage(options.seeds, &error);
  if (!labels) return fail(exitFileError);
  if (labels->modality() != Data::LABEL && !IO::markAsLabelMap(*labels, &error)) return fail(exitFileError);
  std::error_code ec;
  fs::create_directories(options.outDir, ec);
  if (ec) {
    error = options.outDir + ": cannot create the folder (" + ec.message() + ")";
    return fail(exitFileError);
  }
  const auto& dims = image->img(0)->dimensions();
  std::printf("merivane demo: %s, %dx%dx%d voxels; seeds from %s\n", options.image.c_str(), dims[0], dims[1],
              dims[2], options.seeds.c_str());
  std::vector<std::pair<std::string, double>> steps;
  auto outPath = [&](const std::string& name) { return (fs::path(options.outDir) / name).string(); };

  // 1. Random-walk segmentation from the seeds, accepted into the label map.
  auto t = Clock::now();
  Properties seg;
  seg.setParam("Auto-Accept Segmentation", true);
  seg.setParam("Export Probability", true);
  seg.setParam("Verbose", false);
  auto segmentation = runStep("Seg.GraphBasedSegmentation", DataList{image.get(), labels.get()}, seg, progress, error);
  if (!segmentation) return fail(exitAlgorithmFailed);
  if (stopped()) return exitCanceled;
  auto probability = segmentation->takeOutput().extractFirstImage();
  // Keep the object alone: the accepted background label covers the rest of the head.
  auto* lab = static_cast<TypedImage<unsigned char>*>(labels->mem(0));
  unsigned char* l = lab->pointer();
  for (size_t i = 0, n = lab->descriptor().elementCount(); i < n; ++i) l[i] = l[i] == 1 ? 1 : 0;
  labels->get(0)->setDirtyMem();
  auto* names = labels->components().getOrCreate<LabelDataComponent>(labels.get());
  names->setLabelConfigs({});
  auto config = LabelDataComponent::defaultLabelConfig(1);
  config.name = "Lateral ventricles";
  names->setLabelConfig(1, config);
  labels->setName("ventricles");
  if (!IO::writeImage(*labels, outPath("ventricles_labels.nii.gz"), &error)) return fail(exitFileError);
  if (probability && !IO::writeImage(*probability, outPath("ventricles_probability.nii.gz"), &error))
    return fail(exitFileError);
  steps.emplace_back("segmentation  -> ventricles_labels.nii.gz, ventricles_probability.nii.gz", secondsSince(t));

  // 2. Statistics of the image under the label.
  t = Clock::now();
  Properties stats;
  stats.setParam("csvPath", outPath("ventricles_statistics.csv"));
  if (!runStep("Seg.LabelStatistics", DataList{image.get(), labels.get()}, stats, progress, error))
    return fail(exitAlgorithmFailed);
  steps.emplace_back("statistics    -> ventricles_statistics.csv", secondsSince(t));

  // 3. The surface of the label.
  t = Clock::now();
  Properties meshing;
  meshing.setParam("Label Map Mode", true);
  auto mesher = runStep("Seg.LabelToMesh", DataList{labels.get()}, meshing, progress, error);
  if (!mesher) return fail(exitAlgorithmFailed);
  OwningDataList meshes = mesher->takeOutput();
  Mesh* mesh = nullptr;
  const DataList meshList = meshes.dataListView();
  for (Data* d : meshList.items())
    if (d->asMesh()) mesh = d->asMesh();
  if (!mesh) {
    error = "the segmentation gave no surface";
    return fail(exitAlgorithmFailed);
  }
  if (!IO::writeMesh(*mesh, outPath("ventricles_mesh.ply"), &error)) return fail(exitFileError);
  steps.emplace_back("mesh          -> ventricles_mesh.ply (" + std::to_string(mesh->vertices.size()) + " vertices, " +
                         std::to_string(mesh->faces.size()) + " triangles)",
                     secondsSince(t));

  // 4. A picture to look at.
  t = Clock::now();
  auto picture = overlayPicture(*image, *labels, 1);
  if (!picture || !IO::writeImage(*picture, outPath("ventricles_overlay.png"), &error)) return fail(exitFileError);
  steps.emplace_back("overlay       -> ventricles_overlay.png", secondsSince(t));

  for (auto& [what, seconds] : steps) std::printf("  %6.2f s  %s\n", seconds, what.c_str());
  std::printf("wrote 5 files into %s in %.1f s\n", options.outDir.c_str(), secondsSince(start));
  return exitSuccess;
}

}  // namespace Merivane::Cli

namespace Merivane::Cli {

int commandDemo(const std::vector<std::string>& args, const char* argv0, bool showProgress) {
  static const char* usage =
      "Usage: merivane demo [--image FILE] [--seeds FILE] [--out DIR]\n"
      "\n"
      "Segments the lateral ventricles of the Colin27 T1 brain (Debian's mricron-data) with the\n"
      "random walker from the seeds shipped in data/demo, then measures and meshes them. Writes\n"
      "into DIR (default merivane-demo): ventricles_labels.nii.gz, ventricles_probability.nii.gz,\n"
      "ventricles_statistics.csv, ventricles_mesh.ply and ventricles_overlay.png (three\n"
      "orthogonal slices through the ventricles with the label in red), and prints how long each\n"
      "step took.\n"
      "\n"
      "  --image FILE   the T1 volume (default /usr/share/mricron/templates/ch2.nii.gz)\n"
      "  --seeds FILE   label map of seeds: 1 object, 2 background\n"
      "  --out DIR      output folder\n";
  DemoOptions options;
  options.seeds = defaultDemoSeeds(argv0);
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    auto value = [&](std::string& target) {
      if (i + 1 >= args.size()) return false;
      target = args[++i];
      return true;
    };
    if (a == "-h" || a == "--help") {
      std::fputs(usage, stdout);
      return exitSuccess;
    }
    if ((a == "--image" && value(options.image)) || (a == "--seeds" && value(options.seeds)) ||
        (a == "--out" && value(options.outDir)))
      continue;
    std::fprintf(stderr, "merivane demo: unexpected argument '%s'\n%s", a.c_str(), usage);
    return exitUsage;
  }
  installInterruptHandler();
  ConsoleProgress progress(showProgress);
  return runDemo(options, &progress, &interruptFlag());
}

}  // namespace Merivane::Cli
