#pragma once
// `merivane demo`: the lateral ventricles of the Colin27 T1 brain segmented from shipped seeds,
// then measured and meshed, with a picture of three orthogonal slices.
#include <atomic>
#include <string>
#include <vector>

namespace Merivane {
class Progress;
}

namespace Merivane::Cli {

struct DemoOptions {
  std::string image = "/usr/share/mricron/templates/ch2.nii.gz";  // Debian's mricron-data
  std::string seeds;   // empty: the seed file shipped in data/demo
  std::string outDir = "merivane-demo";
};

// The seed file shipped with the project, found beside the program or in the source tree.
std::string defaultDemoSeeds(const char* argv0);

// Returns an exit code; prints what it wrote and how long each step took.
int runDemo(const DemoOptions& options, Progress* progress, const std::atomic<bool>* interrupted);

// The `demo` command: parses its arguments and runs with console progress and Ctrl-C.
int commandDemo(const std::vector<std::string>& args, const char* argv0, bool showProgress);

}  // namespace Merivane::Cli
