#include "Commands.h"

#include <Eigen/Core>
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>

#include "Algorithm.h"
#include "ConsoleProgress.h"
#include "DicomIO.h"
#include "DicomSeriesComponent.h"
#include "FactoryRegistry.h"
#include "ImageIO.h"
#include "LabelDataComponent.h"
#include "Mesh.h"
#include "MeshIO.h"
#include "Parameter.h"
#include "Runner.h"
#include "SharedImageSet.h"

namespace fs = std::filesystem;

namespace Merivane::Cli {

const char* const kListHelp =
    "Usage: merivane list\n"
    "\n"
    "Lists the registered algorithms: factory name and menu path, one per line.\n";

const char* const kParamsHelp =
    "Usage: merivane params NAME [--in FILE ...] [--in-labels FILE ...] [--xml]\n"
    "\n"
    "Shows the parameters of algorithm NAME (\"Seg.\" may be left out) with their values and\n"
    "defaults, as its configuration() writes them. An algorithm is created on small stand-in\n"
    "images; one that needs particular inputs is created on the files given with --in.\n"
    "  --xml            print the configuration in the text form that run --config reads\n";

const char* const kInfoHelp =
    "Usage: merivane info FILE [FILE ...] [--series UID]\n"
    "\n"
    "Describes image and mesh files: dimensions, pixel type, channels, spacing, the\n"
    "image-to-world matrix (centred image millimetres to LPS world), modality and labels.\n"
    "A DICOM folder (or a .dcm file) lists its series: UID, modality, size, number of files\n"
    "and description; a folder of one series is then described as an image.\n"
    "  --series UID     describe this series of a DICOM folder of several\n";

const char* const kRunHelp =
    "Usage: merivane run NAME --in FILE [--in FILE ...] [--in-labels FILE ...]\n"
    "                    [--set KEY=VALUE ...] [--config FILE] --out DIR\n"
    "                    [--write-inputs] [--format EXT] [--mesh-format EXT] [--series UID]\n"
    "\n"
    "Runs algorithm NAME on the inputs in the order given and writes every output into DIR.\n"
    "  --in FILE         an image (.nii .nii.gz .nrrd .nhdr .mha .mhd .png, a DICOM folder\n"
    "                    or .dcm file), a mesh (.ply .stl .obj) or points (.csv, x;y;z per\n"
    "                    line in world millimetres); an image whose header marks it as a\n"
    "                    label map is one, so is a DICOM Segmentation object, which takes\n"
    "                    the grid of a DICOM series given before it\n"
    "  --series UID      the series to read from the DICOM folder of the --in before it\n"
    "                    (needed where the folder holds several; see `merivane info`)\n"
    "  --in-labels FILE  an image read as a label map (one channel, values 0..255)\n"
    "  --set KEY=VALUE   a parameter, as in `merivane params NAME`; repeatable, applied last\n"
    "  --config FILE     parameters in the Properties text form (see `params --xml`)\n"
    "  --out DIR         output folder, created if missing; outputs are named after their\n"
    "                    data names, relative paths of file parameters (csvPath) land here;\n"
    "                    point sets are written as .csv, fiducials as .txt (x y z radius\n"
    "                    per line)\n"
    "  --write-inputs    also write the inputs that the algorithm changed in place, as\n"
    "                    NAME-updated.EXT\n"
    "  --format EXT      image format of the outputs (default: that of the first input);\n"
    "                    dcm writes label maps as DICOM Segmentation objects (NAME.seg.dcm)\n"
    "                    that refer to the first DICOM input series (without one, each is a\n"
    "                    standalone object in a study of its own) and other images as .nrrd\n"
    "  --mesh-format EXT mesh format of the outputs: ply (default), stl or obj\n"
    "Exit status: 0 success, 1 the algorithm failed, 2 bad command line, 3 a file could not be\n"
    "read or written, 4 unknown algorithm or inputs it does not accept, 130 canceled (Ctrl-C).\n";

namespace {

bool wantsHelp(const std::vector<std::string>& args) {
  return std::find(args.begin(), args.end(), "--help") != args.end() ||
         std::find(args.begin(), args.end(), "-h") != args.end();
}

int usageError(const std::string& message, const char* help) {
  std::fprintf(stderr, "merivane: %s\n\n%s", message.c_str(), help);
  return exitUsage;
}

std::string normaliseExtension(std::string ext) {
  if (!ext.empty() && ext[0] != '.') ext = "." + ext;
  return ext;
}

void printMatrix(const Eigen::Matrix4d& m) {
  for (int r = 0; r < 4; ++r)
    std::printf("  %s%12.6g %12.6g %12.6g %12.6g\n", r == 0 ? "matrix      " : "            ", m(r, 0), m(r, 1),
                m(r, 2), m(r, 3));
}

void printImage(const std::string& path, const SharedImageSet& set) {
  const SharedImage* f = set.get(0);
  const ImageDescriptor& d = f->descriptor();
  std::printf("%s\n", path.c_str());
  std::printf("  frames      %d\n", set.size());
  std::printf("  dimensions  %d x %d x %d\n", d.width(), d.height(), d.slices());
  std::printf("  type        %s, %d channel%s\n", pixelTypeName(d.pixelType), d.channels, d.channels == 1 ? "" : "s");
  std::printf("  spacing     %g %g %g mm\n", d.spacing[0], d.spacing[1], d.spacing[2]);
  if (d.shift != 0.0 || d.scale != 1.0) std::printf("  value map   physical = stored / %g - %g\n", d.scale, d.shift);
  printMatrix(f->matrix());
  const Eigen::Vector3d first = f->pixelToWorld(Eigen::Vector3d::Zero());
  std::printf("  first voxel %g %g %g (LPS mm)\n", first[0], first[1], first[2]);
  static const char* modalities[] = {"any", "X-ray", "CT", "MRI", "ultrasound", "video", "NM", "OCT", "label"};
  const int m = set.modality();
  std::printf("  modality    %s\n", m >= 0 && m <= 8 ? modalities[m] : "other");
  if (const auto* dicom = set.components().get<DicomSeriesComponent>()) {
    std::printf("  series      %s\n", dicom->seriesInstanceUid.empty() ? "(none)" : dicom->seriesInstanceUid.c_str());
    std::printf("  study       %s\n", dicom->studyInstanceUid.c_str());
  }
  if (const auto* labels = set.components().get<LabelDataComponent>()) {
    std::printf("  labels      %zu\n", labels->labelConfigs().size());
    for (const auto& [value, config] : labels->labelConfigs())
      std::printf("    %3d  %-24s colour %.3g %.3g %.3g %.3g\n", value, config.name.c_str(), config.color[0],
                  config.color[1], config.color[2], config.color[3]);
  }
}

void printSeriesList(const std::vector<IO::DicomSeriesInfo>& series) {
  std::printf("  DICOM series %zu\n", series.size());
  for (const auto& s : series)
    std::printf("    %s  %-3s %d x %d x %d, %d file%s  %s\n", s.seriesInstanceUid.c_str(),
                s.modality.empty() ? "?" : s.modality.c_str(), s.width, s.height, s.slices, s.files,
                s.files == 1 ? "" : "s", s.description.c_str());
}

}  // namespace

std::string checkSeriesChoice(const std::string& path, const std::string& series) {
  if (!series.empty() || IO::imageFormatOf(path) != IO::ImageFormat::Dicom) return "";
  std::vector<IO::DicomSeriesInfo> list;
  if (!IO::listDicomSeries(path, list) || list.size() < 2) return "";  // the reader reports other problems
  std::string message = path + " holds " + std::to_string(list.size()) + " DICOM series; choose one with --series UID:";
  for (const auto& s : list)
    message += "\n  " + s.seriesInstanceUid + "  " + (s.modality.empty() ? "?" : s.modality) + "  " +
               std::to_string(s.width) + "x" + std::to_string(s.height) + "x" + std::to_string(s.slices) + "  " +
               s.description;
  return message;
}

int commandList(const std::vector<std::string>& args) {
  if (wantsHelp(args)) {
    std::fputs(kListHelp, stdout);
    return exitSuccess;
  }
  size_t width = 0;
  std::vector<const AlgorithmFactory::Descriptor*> rows;
  for (AlgorithmFactory* f : FactoryRegistry::get().algorithmFactories())
    for (auto* d : f->algorithmDescriptors()) {
      rows.push_back(d);
      width = std::max(width, d->id.size());
    }
  if (rows.empty()) {
    std::fprintf(stderr, "merivane: no algorithms are registered\n");
    return exitAlgorithmFailed;
  }
  for (auto* d : rows) std::printf("%-*s  %s\n", static_cast<int>(width), d->id.c_str(), d->menuPath.c_str());
  return exitSuccess;
}

int commandParams(const std::vector<std::string>& args) {
  if (wantsHelp(args)) {
    std::fputs(kParamsHelp, stdout);
    return exitSuccess;
  }
  std::string name;
  std::vector<InputFile> inputs;
  bool xml = false;
  for (size_t i = 0; i < args.size(); ++i) {
    if ((args[i] == "--in" || args[i] == "--in-labels") && i + 1 < args.size()) {
      inputs.push_back({args[i + 1], args[i] == "--in-labels", ""});
      ++i;
    } else if (args[i] == "--xml") {
      xml = true;
    } else if (name.empty() && args[i][0] != '-') {
      name = args[i];
    } else {
      return usageError("unexpected argument '" + args[i] + "'", kParamsHelp);
    }
  }
  if (name.empty()) return usageError("params needs an algorithm name", kParamsHelp);
  const std::string id = resolveAlgorithmName(name);
  if (id.empty()) {
    std::fprintf(stderr, "merivane: unknown algorithm '%s' (see merivane list)\n", name.c_str());
    return exitNotApplicable;
  }
  // The inputs outlive the algorithm, which holds them by pointer.
  std::vector<std::unique_ptr<Data>> owned;
  DataList list;
  if (!inputs.empty()) {
    std::string error;
    if (!readInputs(inputs, owned, &error)) {
      std::fprintf(stderr, "merivane: %s\n", error.c_str());
      return exitFileError;
    }
    for (auto& d : owned) list.add(d.get());
  }
  std::vector<std::unique_ptr<Data>> standIns;
  std::unique_ptr<Algorithm> algorithm = createForInspection(id, list, standIns);
  if (!algorithm) {
    std::fprintf(stderr, "merivane: %s could not be created on %s; give fitting inputs with --in\n", id.c_str(),
                 inputs.empty() ? "stand-in images" : "these inputs");
    return exitNotApplicable;
  }
  Properties p(id);
  algorithm->configuration(&p);
  if (xml) {
    std::string text;
    PropertiesIO::saveToString(p, PropertiesIO::Format::Xml, text);
    std::fputs(text.c_str(), stdout);
    return exitSuccess;
  }
  std::printf("%s\n", id.c_str());
  const auto keys = p.paramKeys();
  if (keys.empty()) std::printf("  (no parameters)\n");
  size_t width = 0;
  for (const auto& k : keys) width = std::max(width, k.size());
  for (const auto& k : keys) {
    const std::string* value = p.rawParam(k);
    const std::string* def = p.rawDefault(k);
    std::printf("  %-*s = \"%s\"", static_cast<int>(width), k.c_str(), value ? value->c_str() : "");
    if (def) std::printf("  (default \"%s\")", def->c_str());
    for (const auto& [attr, v] : p.paramAttributes(k)) std::printf("  %s: %s", attr.c_str(), v.c_str());
    std::printf("\n");
  }
  return exitSuccess;
}

int commandInfo(const std::vector<std::string>& args) {
  if (wantsHelp(args)) {
    std::fputs(kInfoHelp, stdout);
    return exitSuccess;
  }
  std::vector<std::string> paths;
  std::string series;
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--series" && i + 1 < args.size()) series = args[++i];
    else if (!args[i].empty() && args[i][0] == '-') return usageError("unexpected argument '" + args[i] + "'", kInfoHelp);
    else paths.push_back(args[i]);
  }
  if (paths.empty()) return usageError("info needs a file", kInfoHelp);
  int code = exitSuccess;
  for (const std::string& path : paths) {
    std::string error;
    if (IO::isMeshPath(path)) {
      auto mesh = IO::readMesh(path, &error);
      if (!mesh) {
        std::fprintf(stderr, "merivane: %s\n", error.c_str());
        code = exitFileError;
        continue;
      }
      const auto box = mesh->bounds();
      std::printf("%s\n  mesh        %zu vertices, %zu triangles%s%s\n  bounds      %g %g %g .. %g %g %g\n",
                  path.c_str(), mesh->vertices.size(), mesh->faces.size(), mesh->hasNormals() ? ", normals" : "",
                  mesh->hasColors() ? ", colours" : "", box.min[0], box.min[1], box.min[2], box.max[0], box.max[1],
                  box.max[2]);
      continue;
    }
    std::unique_ptr<SharedImageSet> set;
    if (IO::imageFormatOf(path) == IO::ImageFormat::Dicom) {
      std::vector<IO::DicomSeriesInfo> list;
      if (!IO::listDicomSeries(path, list, &error)) {
        std::fprintf(stderr, "merivane: %s\n", error.c_str());
        code = exitFileError;
        continue;
      }
      if (list.size() > 1 && series.empty()) {
        std::printf("%s\n", path.c_str());
        printSeriesList(list);
        continue;
      }
      set = IO::readDicomSeries(path, series, &error);
      if (set) {
        printImage(path, *set);
        if (list.size() == 1) printSeriesList(list);
        continue;
      }
    } else {
      set = IO::readImage(path, &error);
    }
    if (!set) {
      std::fprintf(stderr, "merivane: %s\n", error.c_str());
      code = exitFileError;
      continue;
    }
    printImage(path, *set);
  }
  return code;
}

int commandRun(const std::vector<std::string>& args, bool showProgress) {
  if (wantsHelp(args)) {
    std::fputs(kRunHelp, stdout);
    return exitSuccess;
  }
  RunOptions options;
  std::vector<InputFile> inputs;
  std::vector<std::string> configFiles;
  std::vector<std::pair<std::string, std::string>> settings;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    const bool hasValue = i + 1 < args.size();
    if ((a == "--in" || a == "--in-labels") && hasValue) inputs.push_back({args[++i], a == "--in-labels", ""});
    else if (a == "--series" && hasValue) {
      if (inputs.empty()) return usageError("--series names the series of the --in before it", kRunHelp);
      inputs.back().series = args[++i];
    }
    else if (a == "--out" && hasValue) options.outDir = args[++i];
    else if (a == "--config" && hasValue) configFiles.push_back(args[++i]);
    else if (a == "--format" && hasValue) options.imageExtension = normaliseExtension(args[++i]);
    else if (a == "--mesh-format" && hasValue) options.meshExtension = normaliseExtension(args[++i]);
    else if (a == "--write-inputs") options.writeInputs = true;
    else if (a == "--set" && hasValue) {
      const std::string kv = args[++i];
      const size_t eq = kv.find('=');
      if (eq == std::string::npos || eq == 0) return usageError("--set needs KEY=VALUE, not '" + kv + "'", kRunHelp);
      settings.emplace_back(kv.substr(0, eq), kv.substr(eq + 1));
    } else if (options.algorithm.empty() && !a.empty() && a[0] != '-') options.algorithm = a;
    else return usageError("unexpected argument '" + a + "'" + (hasValue ? "" : " (or a missing value)"), kRunHelp);
  }
  if (options.algorithm.empty()) return usageError("run needs an algorithm name", kRunHelp);
  if (inputs.empty()) return usageError("run needs at least one --in FILE", kRunHelp);
  if (options.outDir.empty()) return usageError("run needs --out DIR", kRunHelp);
  if (!options.imageExtension.empty() && IO::imageFormatOf("x" + options.imageExtension) == IO::ImageFormat::Unknown)
    return usageError("unknown image format '" + options.imageExtension + "'", kRunHelp);
  if (!IO::isMeshPath("x" + options.meshExtension))
    return usageError("unknown mesh format '" + options.meshExtension + "'", kRunHelp);
  for (const InputFile& in : inputs)
    if (const std::string why = checkSeriesChoice(in.path, in.series); !why.empty()) return usageError(why, kRunHelp);
  if (std::string error; !loadConfigurationFiles(configFiles, options.configuration, &error)) {
    std::fprintf(stderr, "merivane: %s\n", error.c_str());
    return exitFileError;
  }
  for (const auto& [key, value] : settings) options.configuration.setRawParam(key, value);

  installInterruptHandler();
  ConsoleProgress progress(showProgress);
  const RunResult result = runAlgorithm(options, inputs, &progress, &interruptFlag());
  for (const std::string& path : result.written) std::printf("%s\n", path.c_str());
  if (result.exitCode != exitSuccess) std::fprintf(stderr, "merivane: %s\n", result.message.c_str());
  return result.exitCode;
}

}  // namespace Merivane::Cli
