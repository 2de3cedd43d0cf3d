#pragma once
// `merivane batch`: one algorithm over a cohort of cases, each in a `merivane run` child process
// of its own, so that a crash in one case cannot take the others down.
//
// Every case follows one protocol, shared with the distributed runner (python/merivane/batch.py):
//   1. OUT/<case>/ holding the marker kDoneMarker is done: skipped, its record read back.
//   2. The child writes into OUT/.tmp-<case>-<unique>/ (its log as run.log).
//   3. On success the marker is written there last (temporary name, then rename), and the
//      folder is renamed to OUT/<case>/. A killed run leaves only a .tmp- folder, never a case
//      folder that looks done; a retried case that finds the marker returns the recorded result.
//   4. On failure the log is kept as OUT/<case>.failed.log and the temporary folder removed.
// OUT/summary.csv gets one row per case, in table order.
#include <string>
#include <vector>

#include "Runner.h"

namespace Merivane::Cli {

struct BatchCase {
  std::string name;
  std::vector<InputFile> inputs;     // in column (or option) order
  std::vector<std::string> columns;  // the column or option that named each input, for messages
};

// Reads a case table: comma-separated, one header line. Columns: `case` (the case's name, also
// its output folder), and input columns `in` and `in-labels`, repeatable or numbered (`in1`,
// `in-labels2`); the inputs go to the algorithm in column order. Relative paths are relative to
// the table's folder; an empty cell leaves that case without the input (it then fails). False
// with `error` naming the file and the line or column at fault.
bool readCaseTable(const std::string& path, std::vector<BatchCase>& cases, std::string* error);

// One input per case, built from a template by replacing "{case}" with the case's match and
// "{name}" with the case's name.
struct InputTemplate {
  std::string pattern;
  bool asLabels = false;
};

// Cases from a glob pattern ("data/*/", "scans/*.nii.gz"), one per match in sorted order, named
// after the last component of the match (image and mesh extensions dropped).
bool casesFromPattern(const std::string& pattern, const std::vector<InputTemplate>& templates,
                      std::vector<BatchCase>& cases, std::string* error);

// A case name must be usable as a folder name beside the summary: not empty, no '/', no leading
// '.', not ending in ".log" or ".csv".
bool validCaseName(const std::string& name, std::string* why);

enum class CaseStatus { Ok, Failed, Skipped };
const char* caseStatusName(CaseStatus status);

struct CaseResult {
  std::string name;
  CaseStatus status = CaseStatus::Failed;
  int exitCode = -1;
  double seconds = 0.0;
  std::string message;
  std::vector<std::string> outputs;  // relative to the case folder
};

// The completion marker in a finished case folder: lines "exit=", "seconds=", "outputs=" (the
// outputs joined by ';').
extern const char* const kDoneMarker;
bool readDoneMarker(const std::string& caseDir, CaseResult& result);

// The summary table: case,status,exit_code,seconds,message,outputs (outputs relative to the
// output folder, joined by ';'). Written through a temporary file.
bool writeSummary(const std::string& outDir, const std::vector<CaseResult>& results, std::string* error);

extern const char* const kBatchHelp;

// `pluginPath` is the plug-in the children load; `program` the path of this executable.
int commandBatch(const std::vector<std::string>& args, const std::string& pluginPath, const std::string& program,
                 bool showProgress);

}  // namespace Merivane::Cli
