#pragma once
// The core of `merivane run`, kept apart from argument parsing so that other commands (the
// demo) can call it: read the inputs, create the algorithm by factory name, configure it,
// compute, and write its outputs (and optionally the inputs it changed) into a folder.
#include <atomic>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Data.h"
#include "Properties.h"

namespace Merivane {
class Algorithm;
class DicomSeriesComponent;
class Progress;
}

namespace Merivane::Cli {

// Exit codes of the command line.
enum ExitCode : int {
  exitSuccess = 0,
  exitAlgorithmFailed = 1,  // the algorithm ended with an error status
  exitUsage = 2,            // bad command line
  exitFileError = 3,        // an input could not be read or an output not written
  exitNotApplicable = 4,    // unknown factory name, or the inputs do not fit the algorithm
  exitCanceled = 130,       // Ctrl-C
};

struct InputFile {
  std::string path;
  bool asLabels = false;  // --in-labels: read as a label map whatever the header says
  std::string series;     // --series: the DICOM series to read from a folder of several
};

struct RunOptions {
  std::string algorithm;  // factory name, "Seg." may be left out
  Properties configuration;
  std::string outDir;
  bool writeInputs = false;     // also write inputs that the algorithm changed in place
  std::string imageExtension;   // ".nrrd", ".nii.gz", ...; empty: that of the first input, else ".nrrd"
  std::string meshExtension = ".ply";
  // False hands the outputs back in RunResult::outputs instead of writing them (programs that
  // keep working on them in memory); writeInputs is then ignored.
  bool writeOutputs = true;
  // The series that DICOM Segmentation outputs refer to; null: that of the first input read
  // from DICOM, if any.
  const DicomSeriesComponent* dicomReference = nullptr;
};

struct RunResult {
  int exitCode = exitSuccess;
  int status = -1;                   // the algorithm's status, -1 before compute
  std::string message;               // why it failed, for stderr
  std::vector<std::string> written;  // paths of the files written, in order
  std::vector<std::unique_ptr<Data>> outputs;  // what takeOutput() gave, when not written
};

// Reads images (as label maps when their header marks them, or when asked) and meshes. A DICOM
// Segmentation object takes the grid of the last DICOM series read before it.
// Appends to `owned`; returns false with `error` naming the file.
bool readInputs(const std::vector<InputFile>& inputs, std::vector<std::unique_ptr<Data>>& owned, std::string* error);

// Runs on data already in memory; `inputNames` (optional, one per item) names the files the
// changed inputs are written as. `progress` and `interrupted` may be null.
RunResult runOnData(const RunOptions& options, const DataList& inputs, const std::vector<std::string>& inputNames,
                    Progress* progress, const std::atomic<bool>* interrupted);

// readInputs followed by runOnData.
RunResult runAlgorithm(const RunOptions& options, const std::vector<InputFile>& inputs, Progress* progress,
                       const std::atomic<bool>* interrupted);

// Heap settings of a process that works on whole volumes: blocks up to 128 MiB stay in the heap
// when freed, for the next volume; larger ones go back to the system. useDefaultHeap restores
// the C library's own settings and returns what it can.
void useVolumeHeap();
void useDefaultHeap();

// Reads the configuration files in order into `into`, each one's values over those before;
// false with `error` naming the file that could not be read.
bool loadConfigurationFiles(const std::vector<std::string>& files, Properties& into, std::string* error);

// The factory name with its prefix, or empty if no registered algorithm has it.
std::string resolveAlgorithmName(const std::string& name);

// Creates algorithm `id` only to read its parameters: on `inputs` when there are any, else on
// the first of a few small stand-in image lists that it accepts (kept alive in `standIns`,
// which must outlive the algorithm). Null when none fits.
std::unique_ptr<Algorithm> createForInspection(const std::string& id, const DataList& inputs,
                                               std::vector<std::unique_ptr<Data>>& standIns);

}  // namespace Merivane::Cli
