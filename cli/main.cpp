// merivane: runs the segmentation plug-in without the host's window.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "Batch.h"
#include "Commands.h"
#include "Demo.h"
#include "ExtractionTools.h"
#include "Log.h"
#include "MLPlugin.h"
#include "Plugin.h"
#include "Runner.h"

namespace fs = std::filesystem;
using namespace Merivane;

namespace {

const char* kUsage =
    "Usage: merivane [options] COMMAND [arguments]\n"
    "\n"
    "Runs the segmentation plug-in on files, without the host application.\n"
    "\n"
    "Commands:\n"
    "  list                 list the registered algorithms with their factory names and menu paths\n"
    "  params NAME          show the parameters of an algorithm with their values and defaults\n"
    "  info FILE...         describe image and mesh files: size, type, spacing, matrix, labels;\n"
    "                       list the series of a DICOM folder\n"
    "  run NAME --in FILE... --out DIR\n"
    "                       run an algorithm on files and write its outputs into DIR\n"
    "  batch NAME --cases TABLE.csv|PATTERN --out DIR\n"
    "                       run an algorithm over a cohort, one process per case, locally or on a\n"
    "                       Dask cluster (--scheduler), with a summary table; resumable\n"
    "  demo [--out DIR]     segment, measure and mesh the lateral ventricles of the Colin27 brain\n"
    "Each command takes --help.\n"
    "\n"
    "Options:\n"
    "  --plugin PATH        plug-in library to load (default: libMerivaneSeg.so beside the program,\n"
    "                       or $MERIVANE_PLUGIN)\n"
    "  --verbose            log debug lines too\n"
    "  --quiet              log errors only, and draw no progress\n"
    "  -h, --help           show this text\n"
    "\n"
    "Log lines go to stderr as [LEVEL] category: message. Images: .nii .nii.gz .nrrd .nhdr .mha\n"
    ".mhd .png, DICOM folders and .dcm files (label maps written as .seg.dcm Segmentation\n"
    "objects); meshes: .ply .stl .obj; world coordinates are LPS millimetres.\n";


}  // namespace

int main(int argc, char** argv) {
  Cli::useVolumeHeap();
  std::string pluginPath;
  bool quiet = false;
  bool help = false;
  std::vector<std::string> args;
  // Global options may stand anywhere; --help before the command is the global one.
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if ((a == "-h" || a == "--help") && args.empty()) {
      help = true;
    } else if (a == "--plugin" && i + 1 < argc) {
      pluginPath = argv[++i];
    } else if (a == "--verbose") {
      Log::g_globalLevel = Log::Debug;
    } else if (a == "--quiet") {
      Log::g_globalLevel = Log::Error;
      quiet = true;
    } else {
      args.push_back(a);
    }
  }
  if (help) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (args.empty()) {
    std::fputs(kUsage, stderr);
    return Cli::exitUsage;
  }
  const std::string command = args[0];
  const std::vector<std::string> rest(args.begin() + 1, args.end());
  if (command == "info") return Cli::commandInfo(rest);
  if (command != "list" && command != "params" && command != "run" && command != "batch" && command != "demo") {
    std::fprintf(stderr, "merivane: unknown command '%s' (see merivane --help)\n", command.c_str());
    return Cli::exitUsage;
  }

  if (pluginPath.empty()) pluginPath = defaultPluginPath(argv[0]);
  // dlopen searches the library path for a name without a slash, and would then report a file
  // that is right here as missing; a path given on the command line means this file.
  if (pluginPath.find('/') == std::string::npos) pluginPath = (fs::path(".") / pluginPath).string();
  PluginManager manager;
  ML::registerBuiltin(manager);
  std::string error;
  if (!manager.load(pluginPath, &error)) {
    std::fprintf(stderr, "merivane: %s\n", error.c_str());
    return 1;
  }
  Cli::registerExtractionTools();
  if (command == "list") return Cli::commandList(rest);
  if (command == "params") return Cli::commandParams(rest);
  if (command == "demo") return Cli::commandDemo(rest, argv[0], !quiet);
  if (command == "batch") return Cli::commandBatch(rest, pluginPath, argv[0], !quiet);
  return Cli::commandRun(rest, !quiet);
}
