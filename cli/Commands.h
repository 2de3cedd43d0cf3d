#pragma once
// The commands of `merivane`; each takes its own arguments (after the command word) and
// returns the exit code.
#include <string>
#include <vector>

namespace Merivane::Cli {

int commandList(const std::vector<std::string>& args);
int commandParams(const std::vector<std::string>& args);
int commandInfo(const std::vector<std::string>& args);
int commandRun(const std::vector<std::string>& args, bool showProgress);

// Empty, or the usage error for a DICOM folder of several series read without --series
// (it lists them).
std::string checkSeriesChoice(const std::string& path, const std::string& series);

// Usage texts, printed by --help.
extern const char* const kListHelp;
extern const char* const kParamsHelp;
extern const char* const kInfoHelp;
extern const char* const kRunHelp;

}  // namespace Merivane::Cli
