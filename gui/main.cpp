// merivane-gui: the application window.
#include <QApplication>
#include <QImageWriter>
#include <QTimer>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "Algorithm.h"
#include "Log.h"
#include "MLPlugin.h"
#include "MainWindow.h"
#include "Plugin.h"
#include "Properties.h"

namespace fs = std::filesystem;
using namespace Merivane;

namespace {

constexpr char kUsage[] =
    "usage: merivane-gui [options] [FILE...]\n"
    "\n"
    "Opens the files (images, label maps, meshes) in the window. Label maps are recognised from\n"
    "their header, or from \"label\" in the name of a one-byte image.\n"
    "\n"
    "  --screenshot FILE    draw the window once, save it as FILE (PNG) and exit\n"
    "  --run NAME           with --screenshot: create algorithm NAME on all opened data, as its\n"
    "                       menu entry would, and compute it before the screenshot (repeatable)\n"
    "  --set KEY=VALUE      a parameter of the --run before it\n"
    "  --size WxH           window size (default 1400x900)\n"
    "  --plugin PATH        plug-in library (default: libMerivaneSeg.so beside the program)\n"
    "  --verbose            debug log lines\n"
    "  -h, --help           show this text\n"
    "\n"
    "In the views: wheel scrolls slices (Ctrl+wheel zooms), left button moves the crosshair,\n"
    "right drag sets window and level, middle drag (or Shift+left) pans; in the 3D view left\n"
    "drag turns the scene. Exit status with --screenshot: 0 done, 1 an algorithm failed,\n"
    "2 bad command line, 3 a file could not be read or written, 4 an algorithm did not apply.\n";


struct Run {
  std::string name;
  Properties settings;
};

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> files;
  std::vector<Run> runs;
  std::string screenshot, pluginPath;
  int width = 1400, height = 900;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    auto next = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
    if (a == "-h" || a == "--help") {
      std::fputs(kUsage, stdout);
      return 0;
    } else if (a == "--screenshot") {
      const char* v = next();
      if (!v) break;
      screenshot = v;
    } else if (a == "--run") {
      const char* v = next();
      if (!v) break;
      runs.push_back({v, {}});
    } else if (a == "--set") {
      const char* v = next();
      const std::string kv = v ? v : "";
      const size_t eq = kv.find('=');
      if (runs.empty() || eq == std::string::npos) {
        std::fprintf(stderr, "merivane-gui: --set KEY=VALUE belongs after a --run\n");
        return 2;
      }
      runs.back().settings.setParam(kv.substr(0, eq), kv.substr(eq + 1));
    } else if (a == "--size") {
      const char* v = next();
      if (!v || std::sscanf(v, "%dx%d", &width, &height) != 2 || width < 200 || height < 200) {
        std::fprintf(stderr, "merivane-gui: --size wants WxH, at least 200x200\n");
        return 2;
      }
    } else if (a == "--plugin") {
      const char* v = next();
      if (!v) break;
      pluginPath = v;
    } else if (a == "--verbose") {
      Log::g_globalLevel = Log::Debug;
    } else if (!a.empty() && a[0] == '-') {
      std::fprintf(stderr, "merivane-gui: unknown option '%s' (see --help)\n", a.c_str());
      return 2;
    } else {
      files.push_back(a);
    }
  }
  if (!runs.empty() && screenshot.empty()) {
    std::fprintf(stderr, "merivane-gui: --run needs --screenshot\n");
    return 2;
  }

  QApplication app(argc, argv);
  QApplication::setApplicationName("merivane-gui");
  if (pluginPath.empty()) pluginPath = defaultPluginPath(argv[0]);
  PluginManager plugins;
  ML::registerBuiltin(plugins);
  std::string error;
  if (!plugins.load(pluginPath, &error)) std::fprintf(stderr, "merivane-gui: %s\n", error.c_str());

  int status = 0;
  {
    MainWindow window;
    window.resize(width, height);
    window.show();
    for (const std::string& f : files)
      if (!window.openFile(QString::fromStdString(f), !screenshot.empty())) status = 3;
    if (screenshot.empty()) return app.exec();

    window.select({});
    for (const Run& r : runs) {
      if (!window.openAlgorithm(r.name)) {
        std::fprintf(stderr, "merivane-gui: %s does not apply to the opened data\n", r.name.c_str());
        status = status ? status : 4;
        continue;
      }
      window.configureOpenAlgorithm(r.settings);
      const int s = window.computeOpenAlgorithm();
      if (s != 0 && s != -1) {
        std::fprintf(stderr, "merivane-gui: %s ended with status %d\n", r.name.c_str(), s);
        status = status ? status : 1;
      }
    }
    const QImage shot = window.screenshot();
    QImageWriter writer(QString::fromStdString(screenshot), "png");
    if (!writer.write(shot)) {
      std::fprintf(stderr, "merivane-gui: %s: %s\n", screenshot.c_str(), writer.errorString().toStdString().c_str());
      status = 3;
    }
  }
  return status;
}
