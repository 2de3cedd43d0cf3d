// merivane: runs the segmentation plug-in without the host's window.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "FactoryRegistry.h"
#include "Log.h"
#include "MLPlugin.h"
#include "Plugin.h"

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
    "\n"
    "Options:\n"
    "  --plugin PATH        plug-in library to load (default: libMerivaneSeg.so beside the program,\n"
    "                       or $MERIVANE_PLUGIN)\n"
    "  --verbose            log debug lines too\n"
    "  --quiet              log errors only\n"
    "  -h, --help           show this text\n";

std::string defaultPluginPath(const char* argv0) {
  if (const char* env = std::getenv("MERIVANE_PLUGIN")) return env;
  std::error_code ec;
  fs::path self = fs::read_symlink("/proc/self/exe", ec);
  if (ec) self = fs::absolute(argv0);
  const fs::path dir = self.parent_path();
  for (const fs::path& candidate : {dir / "libMerivaneSeg.so", dir / ".." / "lib" / "libMerivaneSeg.so"})
    if (fs::exists(candidate)) return candidate.lexically_normal().string();
  return (dir / ".." / "lib" / "libMerivaneSeg.so").lexically_normal().string();
}

int commandList(const PluginManager& manager) {
  size_t width = 0;
  std::vector<const AlgorithmFactory::Descriptor*> rows;
  for (AlgorithmFactory* f : FactoryRegistry::get().algorithmFactories())
    for (auto* d : f->algorithmDescriptors()) {
      rows.push_back(d);
      width = std::max(width, d->id.size());
    }
  if (rows.empty()) {
    std::fprintf(stderr, "merivane: no algorithms are registered\n");
    return 1;
  }
  for (auto* d : rows) std::printf("%-*s  %s\n", static_cast<int>(width), d->id.c_str(), d->menuPath.c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::string pluginPath;
  std::vector<std::string> args;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "-h" || a == "--help") {
      std::fputs(kUsage, stdout);
      return 0;
    } else if (a == "--plugin" && i + 1 < argc) {
      pluginPath = argv[++i];
    } else if (a == "--verbose") {
      Log::g_globalLevel = Log::Debug;
    } else if (a == "--quiet") {
      Log::g_globalLevel = Log::Error;
    } else {
      args.push_back(a);
    }
  }
  if (args.empty()) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  if (pluginPath.empty()) pluginPath = defaultPluginPath(argv[0]);

  PluginManager manager;
  ML::registerBuiltin(manager);
  std::string error;
  if (!manager.load(pluginPath, &error)) {
    std::fprintf(stderr, "merivane: %s\n", error.c_str());
    return 1;
  }

  const std::string& command = args[0];
  if (command == "list") return commandList(manager);
  std::fprintf(stderr, "merivane: unknown command '%s' (see merivane --help)\n", command.c_str());
  return 2;
}
