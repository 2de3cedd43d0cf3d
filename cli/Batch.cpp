#include "Batch.h"

#include <fcntl.h>
#include <glob.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <thread>

#include "Algorithm.h"
#include "ConsoleProgress.h"
#include "CsvIO.h"
#include "FactoryRegistry.h"
#include "ImageIO.h"
#include "MeshIO.h"
#include "Parameter.h"

namespace fs = std::filesystem;

namespace Merivane::Cli {

const char* const kDoneMarker = ".merivane-done";

const char* const kBatchHelp =
    "Usage: merivane batch NAME --cases TABLE.csv --out DIR [options]\n"
    "       merivane batch NAME --cases PATTERN --in TEMPLATE [--in-labels TEMPLATE ...] --out DIR [options]\n"
    "\n"
    "Runs algorithm NAME over a cohort, one `merivane run` process per case, and writes each\n"
    "case's outputs into DIR/<case>/ and one row per case into DIR/summary.csv.\n"
    "  --cases TABLE.csv   a table with a header line: a `case` column (the case's name and\n"
    "                      output folder) and input columns `in` and `in-labels`, repeated or\n"
    "                      numbered (in1,in2,in-labels1); inputs go in column order; relative\n"
    "                      paths are relative to the table's folder\n"
    "  --cases PATTERN     a glob ('data/*/', 'scans/*.nii.gz'): one case per match, named after\n"
    "                      its last component; with --in/--in-labels TEMPLATE per input, where\n"
    "                      {case} stands for the match and {name} for the case's name\n"
    "  --out DIR           output folder, created if missing\n"
    "  --jobs N            cases run at the same time (default: the number of cores)\n"
    "  --scheduler ADDRESS run on a Dask cluster (tcp://host:8786, or local[:N] for a cluster\n"
    "                      of N workers on this machine) through python3 -m merivane.batch\n"
    "  --merivane PATH     the program each case runs as PATH run ... (default: this one); a\n"
    "                      wrapper script ending in exec merivane \"$@\" can add a launcher\n"
    "  --dry-run           check the table and the parameters, print the plan as CSV\n"
    "                      (case,state,arguments of run) and run nothing\n"
    "  --set KEY=VALUE, --config FILE, --format EXT, --mesh-format EXT, --write-inputs\n"
    "                      passed to every run (see merivane run --help)\n"
    "A case whose folder holds the completion marker is skipped, so a stopped batch resumes\n"
    "where it was. A case that fails is recorded in the summary, its log kept as\n"
    "DIR/<case>.failed.log, and the others go on. An unknown algorithm or a bad parameter stops\n"
    "the batch before any case starts.\n"
    "Summary columns: case,status (ok, failed, skipped),exit_code,seconds,message,outputs\n"
    "(paths relative to DIR, joined by ';').\n"
    "Exit status: 0 every case done, 1 some case failed, 2 bad command line, table or\n"
    "parameter, 3 the table or the output folder could not be read or written, 4 unknown\n"
    "algorithm, 130 interrupted.\n";

namespace {

std::string trim(const std::string& s) {
  size_t b = 0, e = s.size();
  while (b < e && std::isspace(static_cast<unsigned char>(s[b]))) ++b;
  while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1]))) --e;
  return s.substr(b, e - b);
}

bool endsWith(const std::string& s, const std::string& tail) {
  return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

std::string lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

// "in", "in-labels", optionally followed by digits; sets asLabels.
bool isInputColumn(const std::string& column, bool& asLabels) {
  std::string base = column;
  while (!base.empty() && std::isdigit(static_cast<unsigned char>(base.back()))) base.pop_back();
  asLabels = base == "in-labels";
  return base == "in" || base == "in-labels";
}

std::string readText(const fs::path& path, bool& ok) {
  std::ifstream in(path, std::ios::binary);
  ok = static_cast<bool>(in);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string joined(const std::vector<std::string>& items, const std::string& prefix) {
  std::string s;
  for (const std::string& item : items) s += (s.empty() ? "" : ";") + prefix + item;
  return s;
}

void replaceAll(std::string& s, const std::string& what, const std::string& with) {
  for (size_t at = s.find(what); at != std::string::npos; at = s.find(what, at + with.size()))
    s.replace(at, what.size(), with);
}

// A name unique to this attempt: two attempts at one case (a retried task) never share a folder.
std::string attemptSuffix(size_t index) {
  const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%d-%zu-%llx", static_cast<int>(::getpid()), index,
                static_cast<unsigned long long>(now));
  return buffer;
}

// Regular files under `dir`, relative to it, sorted; the log and the marker are bookkeeping.
std::vector<std::string> outputsIn(const fs::path& dir) {
  std::vector<std::string> files;
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(dir, ec); !ec && it != fs::recursive_directory_iterator();
       it.increment(ec)) {
    if (!it->is_regular_file()) continue;
    const std::string rel = fs::relative(it->path(), dir).generic_string();
    if (rel == "run.log" || rel == kDoneMarker || rel == std::string(kDoneMarker) + ".tmp") continue;
    files.push_back(rel);
  }
  std::sort(files.begin(), files.end());
  return files;
}

bool writeFileAtomically(const fs::path& path, const std::string& text) {
  const fs::path tmp = path.string() + ".tmp";
  {
    std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
    out << text;
    out.flush();
    if (!out) return false;
  }
  std::error_code ec;
  fs::rename(tmp, path, ec);
  return !ec;
}

std::string markerText(const CaseResult& r) {
  char seconds[32];
  std::snprintf(seconds, sizeof seconds, "%.3f", r.seconds);
  return "exit=" + std::to_string(r.exitCode) + "\nseconds=" + seconds + "\noutputs=" + joined(r.outputs, "") + "\n";
}

// What a failed run said last: the program's own "merivane: " line, else the last line.
std::string lastWords(const fs::path& log) {
  bool ok = false;
  std::istringstream in(readText(log, ok));
  std::string line, mine, last;
  while (std::getline(in, line)) {
    line = trim(line);
    if (line.empty()) continue;
    last = line;
    if (line.rfind("merivane: ", 0) == 0) mine = line.substr(10);
  }
  std::string words = mine.empty() ? last : mine;
  if (words.size() > 400) words = words.substr(0, 400) + "...";
  return words;
}

// The reason a case cannot start, or empty.
std::string missingInput(const BatchCase& c) {
  for (size_t i = 0; i < c.inputs.size(); ++i) {
    const std::string column = i < c.columns.size() ? c.columns[i] : (c.inputs[i].asLabels ? "in-labels" : "in");
    if (c.inputs[i].path.empty()) return "case '" + c.name + "': no file in column " + column;
    std::error_code ec;
    if (!fs::exists(c.inputs[i].path, ec))
      return "case '" + c.name + "': file '" + c.inputs[i].path + "' (column " + column + ") does not exist";
  }
  return {};
}

struct BatchOptions {
  std::string algorithm;
  std::string casesArg;
  std::vector<InputTemplate> templates;
  std::string outDir;
  int jobs = 0;
  std::string scheduler;
  std::string program;  // what each case runs; empty: this program
  bool dryRun = false;
  std::vector<std::string> forwarded;  // run's own options, in the order given
  Properties configuration;            // what --config and --set give, for the parameter check
};

// Creates the algorithm on the first case whose inputs read, and checks every parameter given
// against it, so that a typing mistake stops the batch before hundreds of runs repeat it.
std::string checkParameters(const std::string& id, const Properties& configuration,
                            const std::vector<BatchCase>& cases) {
  if (configuration.paramKeys().empty()) return {};
  int tries = 0;
  for (const BatchCase& c : cases) {
    if (tries >= 3) break;
    bool regular = !c.inputs.empty();
    std::error_code ec;
    // Regular files only: a pipe or a device would block or be consumed here.
    for (const InputFile& f : c.inputs) regular = regular && !f.path.empty() && fs::is_regular_file(f.path, ec);
    if (!regular) continue;
    ++tries;
    std::vector<std::unique_ptr<Data>> owned;
    std::string error;
    if (!readInputs(c.inputs, owned, &error)) continue;
    DataList list;
    for (auto& d : owned) list.add(d.get());
    std::unique_ptr<Algorithm> algorithm = FactoryRegistry::instantiateAlgorithm(id, list);
    if (!algorithm) return {};  // the runs will say why, case by case
    Properties known;
    algorithm->configuration(&known);
    for (const std::string& key : configuration.paramKeys()) {
      if (!known.contains(key)) return id + " has no parameter '" + key + "' (see merivane params " + id + ")";
      const ParameterBase* p = algorithm->findParameter(key);
      const std::string* text = configuration.rawParam(key);
      if (p && text && !p->canRead(*text)) return "parameter '" + key + "' cannot be read from '" + *text + "'";
    }
    return {};
  }
  return {};
}

std::vector<std::string> runArguments(const std::string& id, const BatchCase& c, const BatchOptions& options) {
  std::vector<std::string> a{id};
  for (const InputFile& f : c.inputs) {
    a.push_back(f.asLabels ? "--in-labels" : "--in");
    a.push_back(f.path);
  }
  a.insert(a.end(), options.forwarded.begin(), options.forwarded.end());
  return a;
}

std::string programPath(const std::string& fallback) {
  std::error_code ec;
  const fs::path self = fs::read_symlink("/proc/self/exe", ec);
  return ec ? fallback : self.string();
}

// This process's environment, with OMP_NUM_THREADS set to `threads` unless the user set it:
// runs side by side share the cores instead of each starting a thread per core, which on a
// busy machine makes every run wait at its barriers.
std::vector<std::string> childEnvironment(int threads) {
  std::vector<std::string> env;
  for (char** e = environ; e && *e; ++e) env.emplace_back(*e);
  if (threads > 0 && !std::getenv("OMP_NUM_THREADS")) env.push_back("OMP_NUM_THREADS=" + std::to_string(threads));
  return env;
}

// Starts `argv` with stdin from /dev/null, stdout and stderr into `log`, and the environment
// `env`; -1 on failure.
pid_t spawn(const std::vector<std::string>& argv, const std::vector<std::string>& env, const fs::path& log) {
  const int fd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return -1;
  const int nullFd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  std::vector<char*> cargv;
  for (const std::string& s : argv) cargv.push_back(const_cast<char*>(s.c_str()));
  cargv.push_back(nullptr);
  std::vector<char*> cenv;
  for (const std::string& s : env) cenv.push_back(const_cast<char*>(s.c_str()));
  cenv.push_back(nullptr);
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid == 0) {
    // A batch that is killed takes its runs with it, instead of leaving them to write on.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(127);
    if (nullFd >= 0) ::dup2(nullFd, 0);
    ::dup2(fd, 1);
    ::dup2(fd, 2);
    ::execve(cargv[0], cargv.data(), cenv.data());
    ::_exit(127);
  }
  ::close(fd);
  if (nullFd >= 0) ::close(nullFd);
  return pid;
}

// Leftovers of killed runs: temporary and set-aside case folders.
void removeLeftovers(const fs::path& out) {
  std::error_code ec;
  for (auto it = fs::directory_iterator(out, ec); !ec && it != fs::directory_iterator(); it.increment(ec)) {
    const std::string name = it->path().filename().string();
    if (name.rfind(".tmp-", 0) == 0 || name.rfind(".stale-", 0) == 0) {
      std::error_code ignored;
      fs::remove_all(it->path(), ignored);
    }
  }
}

// Moves a finished temporary folder into place as OUT/<case>/ (see the protocol in Batch.h).
CaseResult commit(const fs::path& out, const BatchCase& c, const fs::path& tmp, size_t index, double seconds) {
  CaseResult r;
  r.name = c.name;
  r.status = CaseStatus::Ok;
  r.exitCode = 0;
  r.seconds = seconds;
  r.outputs = outputsIn(tmp);
  auto failed = [&](const std::string& why) {
    r.status = CaseStatus::Failed;
    r.exitCode = exitFileError;
    r.message = "case '" + c.name + "': " + why;
    r.outputs.clear();
    std::error_code ec;
    fs::remove_all(tmp, ec);
    return r;
  };
  if (!writeFileAtomically(tmp / kDoneMarker, markerText(r)))
    return failed((tmp / kDoneMarker).string() + ": cannot write the completion marker");
  const fs::path target = out / c.name;
  std::error_code ec;
  for (int attempt = 0; attempt < 2; ++attempt) {
    fs::rename(tmp, target, ec);
    if (!ec) break;
    CaseResult recorded;
    if (readDoneMarker(target.string(), recorded)) {
      // Another attempt finished first; its result stands.
      std::error_code ignored;
      fs::remove_all(tmp, ignored);
      recorded.name = c.name;
      recorded.status = CaseStatus::Ok;
      return recorded;
    }
    // A folder without the marker is not a finished case: set it aside and take its place.
    const fs::path stale = out / (".stale-" + c.name + "-" + attemptSuffix(index));
    std::error_code moved;
    fs::rename(target, stale, moved);
    if (!moved) fs::remove_all(stale, moved);
  }
  if (ec) return failed(target.string() + ": cannot move the outputs into place (" + ec.message() + ")");
  fs::remove(out / (c.name + ".failed.log"), ec);
  return r;
}

CaseResult failure(const fs::path& out, const BatchCase& c, int exitCode, double seconds, const std::string& message,
                   const fs::path& log) {
  CaseResult r;
  r.name = c.name;
  r.status = CaseStatus::Failed;
  r.exitCode = exitCode;
  r.seconds = seconds;
  r.message = message;
  const fs::path kept = out / (c.name + ".failed.log");
  std::error_code ec;
  if (!log.empty() && fs::exists(log, ec)) {
    fs::rename(log, kept, ec);
  } else {
    std::ofstream(kept) << message << "\n";
  }
  return r;
}

struct Running {
  size_t index;
  fs::path tmp;
  std::chrono::steady_clock::time_point start;
};

int runLocally(const std::string& id, const std::vector<BatchCase>& cases, const BatchOptions& options,
               const std::string& pluginPath, const std::string& program, bool showProgress) {
  const fs::path out = fs::absolute(options.outDir);
  std::error_code ec;
  fs::create_directories(out, ec);
  if (ec) {
    std::fprintf(stderr, "merivane: %s: cannot create the output folder (%s)\n", out.c_str(), ec.message().c_str());
    return exitFileError;
  }
  removeLeftovers(out);
  installInterruptHandler();

  std::vector<CaseResult> results(cases.size());
  std::vector<bool> finished(cases.size(), false);
  size_t done = 0, failedCount = 0;
  auto report = [&](size_t i) {
    finished[i] = true;
    ++done;
    const CaseResult& r = results[i];
    if (r.status == CaseStatus::Failed) ++failedCount;
    if (!showProgress && r.status != CaseStatus::Failed) return;
    if (r.status == CaseStatus::Failed)
      std::fprintf(stderr, "batch: [%zu/%zu] %s failed: %s\n", done, cases.size(), r.name.c_str(), r.message.c_str());
    else
      std::fprintf(stderr, "batch: [%zu/%zu] %s %s (%.2f s)\n", done, cases.size(), r.name.c_str(),
                   caseStatusName(r.status), r.seconds);
  };

  const int cores = std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
  const int jobs = options.jobs > 0 ? options.jobs : cores;
  const std::vector<std::string> env = childEnvironment(std::max(1, cores / jobs));
  std::map<pid_t, Running> running;
  size_t next = 0;
  while (next < cases.size() || !running.empty()) {
    while (next < cases.size() && static_cast<int>(running.size()) < jobs && !interrupted()) {
      const size_t i = next++;
      const BatchCase& c = cases[i];
      CaseResult& r = results[i];
      r.name = c.name;
      if (readDoneMarker((out / c.name).string(), r)) {
        r.name = c.name;
        r.status = CaseStatus::Skipped;
        r.message = "done in an earlier run";
        report(i);
        continue;
      }
      if (const std::string why = missingInput(c); !why.empty()) {
        r = failure(out, c, exitFileError, 0.0, why, {});
        report(i);
        continue;
      }
      const fs::path tmp = out / (".tmp-" + c.name + "-" + attemptSuffix(i));
      fs::create_directories(tmp, ec);
      std::vector<std::string> argv{program};
      if (!pluginPath.empty()) {
        argv.push_back("--plugin");
        argv.push_back(pluginPath);
      }
      argv.push_back("run");
      for (std::string& a : runArguments(id, c, options)) argv.push_back(std::move(a));
      argv.push_back("--out");
      argv.push_back(tmp.string());
      const pid_t pid = ec ? -1 : spawn(argv, env, tmp / "run.log");
      if (pid < 0) {
        r = failure(out, c, exitFileError, 0.0,
                    "case '" + c.name + "': cannot start " + program + " in " + tmp.string() + " (" +
                        std::strerror(errno) + ")",
                    {});
        fs::remove_all(tmp, ec);
        report(i);
        continue;
      }
      running[pid] = Running{i, tmp, std::chrono::steady_clock::now()};
    }
    if (running.empty()) break;
    int raw = 0;
    const pid_t pid = ::waitpid(-1, &raw, 0);
    if (pid < 0) {
      if (errno == EINTR) continue;
      break;
    }
    auto it = running.find(pid);
    if (it == running.end()) continue;
    const Running job = it->second;
    running.erase(it);
    const BatchCase& c = cases[job.index];
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - job.start).count();
    const fs::path log = job.tmp / "run.log";
    if (WIFEXITED(raw) && WEXITSTATUS(raw) == 0) {
      results[job.index] = commit(out, c, job.tmp, job.index, seconds);
    } else {
      int code = 0;
      std::string why;
      if (WIFSIGNALED(raw)) {
        code = 128 + WTERMSIG(raw);
        why = "merivane run was killed by signal " + std::to_string(WTERMSIG(raw)) + " (" + strsignal(WTERMSIG(raw)) + ")";
      } else {
        code = WEXITSTATUS(raw);
        why = code == 127 ? "cannot start " + program : lastWords(log);
        if (why.empty()) why = "merivane run ended with exit code " + std::to_string(code);
      }
      results[job.index] = failure(out, c, code, seconds, "case '" + c.name + "': " + why, log);
      fs::remove_all(job.tmp, ec);
    }
    report(job.index);
  }

  for (size_t i = 0; i < cases.size(); ++i) {
    if (finished[i]) continue;
    results[i].name = cases[i].name;
    results[i].status = CaseStatus::Failed;
    results[i].exitCode = exitCanceled;
    results[i].message = "case '" + cases[i].name + "': not run, the batch was interrupted";
    ++failedCount;
  }
  std::string error;
  if (!writeSummary(out.string(), results, &error)) {
    std::fprintf(stderr, "merivane: %s\n", error.c_str());
    return exitFileError;
  }
  if (showProgress)
    std::fprintf(stderr, "batch: %zu of %zu cases failed; summary in %s\n", failedCount, cases.size(),
                 (out / "summary.csv").c_str());
  if (interrupted()) return exitCanceled;
  return failedCount > 0 ? exitAlgorithmFailed : exitSuccess;
}

// Hands the batch to the distributed runner, which runs the same protocol as Dask tasks.
int runOnCluster(const std::vector<std::string>& args, const std::string& pluginPath, const std::string& program) {
  const char* chosen = std::getenv("MERIVANE_PYTHON");
  const std::string python = chosen && *chosen ? chosen : MERIVANE_PYTHON_DEFAULT;
  const fs::path packageDir = MERIVANE_PYTHON_DIR;
  std::error_code ec;
  if (fs::exists(packageDir / "merivane" / "batch.py", ec)) {
    const char* old = std::getenv("PYTHONPATH");
    const std::string path = packageDir.string() + (old && *old ? ":" + std::string(old) : "");
    ::setenv("PYTHONPATH", path.c_str(), 1);
  }
  std::vector<std::string> argv{python, "-m", "merivane.batch"};
  argv.insert(argv.end(), args.begin(), args.end());
  argv.push_back("--merivane");
  argv.push_back(program);
  if (!pluginPath.empty()) {
    argv.push_back("--plugin");
    argv.push_back(pluginPath);
  }
  std::vector<char*> cargv;
  for (const std::string& s : argv) cargv.push_back(const_cast<char*>(s.c_str()));
  cargv.push_back(nullptr);
  std::fflush(nullptr);
  ::execvp(cargv[0], cargv.data());
  std::fprintf(stderr, "merivane: cannot start %s for --scheduler (%s); set MERIVANE_PYTHON\n", python.c_str(),
               std::strerror(errno));
  return exitAlgorithmFailed;
}

int usage(const std::string& message) {
  std::fprintf(stderr, "merivane: %s\n\n%s", message.c_str(), kBatchHelp);
  return exitUsage;
}

}  // namespace

bool validCaseName(const std::string& name, std::string* why) {
  auto no = [&](const std::string& reason) {
    if (why) *why = reason;
    return false;
  };
  if (name.empty()) return no("a case has no name");
  if (name.find('/') != std::string::npos || name.find('\0') != std::string::npos)
    return no("case name '" + name + "' holds a '/'");
  if (name[0] == '.') return no("case name '" + name + "' begins with '.'");
  const std::string l = lower(name);
  if (endsWith(l, ".log") || endsWith(l, ".csv")) return no("case name '" + name + "' ends in .log or .csv");
  return true;
}

bool readCaseTable(const std::string& path, std::vector<BatchCase>& cases, std::string* error) {
  auto fail = [&](const std::string& message) {
    if (error) *error = path + ": " + message;
    return false;
  };
  bool ok = false;
  std::string text = readText(path, ok);
  if (!ok) return fail("cannot read the case table");
  if (text.rfind("\xEF\xBB\xBF", 0) == 0) text.erase(0, 3);  // spreadsheets write a byte-order mark
  std::vector<IO::CsvRow> rows;
  if (!IO::parseCsv(text, rows, ',')) return fail("a quoted field is not closed");
  // Blank lines are not cases.
  std::vector<std::pair<size_t, IO::CsvRow>> lines;
  for (size_t i = 0; i < rows.size(); ++i) {
    bool blank = true;
    for (std::string& f : rows[i]) {
      f = trim(f);
      blank = blank && f.empty();
    }
    if (!blank) lines.emplace_back(i + 1, std::move(rows[i]));
  }
  if (lines.empty()) return fail("no header line");
  const IO::CsvRow& header = lines[0].second;
  int caseColumn = -1;
  std::vector<std::pair<size_t, bool>> inputColumns;
  for (size_t k = 0; k < header.size(); ++k) {
    bool asLabels = false;
    if (header[k] == "case") {
      if (caseColumn >= 0) return fail("two 'case' columns");
      caseColumn = static_cast<int>(k);
    } else if (isInputColumn(header[k], asLabels)) {
      inputColumns.emplace_back(k, asLabels);
    } else {
      return fail("unknown column '" + header[k] + "' (columns are case, in, in-labels, or numbered: in1, in-labels1)");
    }
  }
  if (caseColumn < 0) return fail("no 'case' column");
  if (inputColumns.empty()) return fail("no input column (in, in-labels)");
  const fs::path base = fs::absolute(path).parent_path();
  std::set<std::string> seen;
  std::vector<BatchCase> read;
  for (size_t r = 1; r < lines.size(); ++r) {
    const auto& [lineNo, row] = lines[r];
    if (row.size() > header.size())
      return fail("line " + std::to_string(lineNo) + " has " + std::to_string(row.size()) + " fields, the header " +
                  std::to_string(header.size()));
    auto cell = [&](size_t k) { return k < row.size() ? row[k] : std::string(); };
    BatchCase c;
    c.name = cell(static_cast<size_t>(caseColumn));
    std::string why;
    if (!validCaseName(c.name, &why)) return fail("line " + std::to_string(lineNo) + ": " + why);
    if (!seen.insert(c.name).second) return fail("line " + std::to_string(lineNo) + ": case '" + c.name + "' twice");
    for (const auto& [k, asLabels] : inputColumns) {
      const std::string value = cell(k);
      std::string resolved;
      if (!value.empty()) resolved = fs::path(value).is_absolute() ? value : (base / value).lexically_normal().string();
      c.inputs.push_back({resolved, asLabels, {}});
      c.columns.push_back(header[k]);
    }
    read.push_back(std::move(c));
  }
  if (read.empty()) return fail("no cases below the header");
  cases = std::move(read);
  return true;
}

bool casesFromPattern(const std::string& pattern, const std::vector<InputTemplate>& templates,
                      std::vector<BatchCase>& cases, std::string* error) {
  auto fail = [&](const std::string& message) {
    if (error) *error = message;
    return false;
  };
  if (templates.empty()) return fail("--cases PATTERN needs --in or --in-labels TEMPLATE");
  glob_t matches{};
  const int rc = ::glob(pattern.c_str(), 0, nullptr, &matches);
  std::vector<std::string> paths;
  if (rc == 0)
    for (size_t i = 0; i < matches.gl_pathc; ++i) paths.push_back(matches.gl_pathv[i]);
  ::globfree(&matches);
  if (paths.empty()) return fail("no case matches '" + pattern + "'");
  std::set<std::string> seen;
  std::vector<BatchCase> found;
  for (std::string match : paths) {
    while (match.size() > 1 && match.back() == '/') match.pop_back();
    std::string name = fs::path(match).filename().string();
    std::error_code ec;
    if (!fs::is_directory(match, ec)) {
      std::string ext = IO::imageExtensionOf(name);
      if (ext.empty() && IO::isMeshPath(name)) ext = fs::path(name).extension().string();
      if (!ext.empty() && name.size() > ext.size() && endsWith(lower(name), lower(ext)))
        name = name.substr(0, name.size() - ext.size());
    }
    std::string why;
    if (!validCaseName(name, &why)) return fail(match + ": " + why);
    if (!seen.insert(name).second) return fail("two matches of '" + pattern + "' give the case name '" + name + "'");
    BatchCase c;
    c.name = name;
    for (const InputTemplate& t : templates) {
      std::string p = t.pattern;
      replaceAll(p, "{case}", match);
      replaceAll(p, "{name}", name);
      c.inputs.push_back({fs::absolute(p).lexically_normal().string(), t.asLabels, {}});
      c.columns.push_back(t.asLabels ? "in-labels" : "in");
    }
    found.push_back(std::move(c));
  }
  cases = std::move(found);
  return true;
}

const char* caseStatusName(CaseStatus status) {
  switch (status) {
    case CaseStatus::Ok: return "ok";
    case CaseStatus::Skipped: return "skipped";
    default: return "failed";
  }
}

bool readDoneMarker(const std::string& caseDir, CaseResult& result) {
  bool ok = false;
  const std::string text = readText(fs::path(caseDir) / kDoneMarker, ok);
  if (!ok) return false;
  std::istringstream in(text);
  std::string line;
  CaseResult r;
  r.name = result.name;
  r.status = CaseStatus::Ok;
  r.exitCode = 0;
  while (std::getline(in, line)) {
    const size_t eq = line.find('=');
    if (eq == std::string::npos) continue;
    const std::string key = line.substr(0, eq), value = line.substr(eq + 1);
    if (key == "exit") r.exitCode = std::atoi(value.c_str());
    else if (key == "seconds") r.seconds = std::atof(value.c_str());
    else if (key == "outputs") {
      std::istringstream items(value);
      std::string item;
      while (std::getline(items, item, ';'))
        if (!item.empty()) r.outputs.push_back(item);
    }
  }
  result = std::move(r);
  return true;
}

bool writeSummary(const std::string& outDir, const std::vector<CaseResult>& results, std::string* error) {
  std::vector<IO::CsvRow> rows;
  for (const CaseResult& r : results) {
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%.3f", r.seconds);
    rows.push_back({r.name, caseStatusName(r.status), std::to_string(r.exitCode), seconds, r.message,
                    joined(r.outputs, r.name + "/")});
  }
  return IO::writeCsvFile((fs::path(outDir) / "summary.csv").string(),
                          {"case", "status", "exit_code", "seconds", "message", "outputs"}, rows, error, ',');
}

int commandBatch(const std::vector<std::string>& args, const std::string& pluginPath, const std::string& program,
                 bool showProgress) {
  if (std::find(args.begin(), args.end(), "--help") != args.end() ||
      std::find(args.begin(), args.end(), "-h") != args.end()) {
    std::fputs(kBatchHelp, stdout);
    return exitSuccess;
  }
  BatchOptions options;
  std::vector<std::string> configFiles;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    const bool hasValue = i + 1 < args.size();
    if (a == "--cases" && hasValue) options.casesArg = args[++i];
    else if ((a == "--in" || a == "--in-labels") && hasValue) options.templates.push_back({args[++i], a == "--in-labels"});
    else if (a == "--out" && hasValue) options.outDir = args[++i];
    else if (a == "--scheduler" && hasValue) options.scheduler = args[++i];
    else if (a == "--merivane" && hasValue) options.program = fs::absolute(args[++i]).string();
    else if (a == "--dry-run") options.dryRun = true;
    else if (a == "--jobs" && hasValue) {
      const std::string v = args[++i];
      char* end = nullptr;
      const long n = std::strtol(v.c_str(), &end, 10);
      if (v.empty() || *end != '\0' || n < 1 || n > 4096) return usage("--jobs needs a count of 1 or more, not '" + v + "'");
      options.jobs = static_cast<int>(n);
    } else if (a == "--set" && hasValue) {
      const std::string kv = args[++i];
      const size_t eq = kv.find('=');
      if (eq == std::string::npos || eq == 0) return usage("--set needs KEY=VALUE, not '" + kv + "'");
      options.configuration.setRawParam(kv.substr(0, eq), kv.substr(eq + 1));
      options.forwarded.insert(options.forwarded.end(), {"--set", kv});
    } else if (a == "--config" && hasValue) {
      const std::string file = fs::absolute(args[++i]).string();
      configFiles.push_back(file);
      options.forwarded.insert(options.forwarded.end(), {"--config", file});
    } else if ((a == "--format" || a == "--mesh-format") && hasValue) {
      std::string ext = args[++i];
      if (!ext.empty() && ext[0] != '.') ext = "." + ext;
      if (a == "--format" && IO::imageFormatOf("x" + ext) == IO::ImageFormat::Unknown)
        return usage("unknown image format '" + ext + "'");
      if (a == "--mesh-format" && !IO::isMeshPath("x" + ext)) return usage("unknown mesh format '" + ext + "'");
      options.forwarded.insert(options.forwarded.end(), {a, ext});
    } else if (a == "--write-inputs") options.forwarded.push_back(a);
    else if (options.algorithm.empty() && !a.empty() && a[0] != '-') options.algorithm = a;
    else return usage("unexpected argument '" + a + "'" + (hasValue ? "" : " (or a missing value)"));
  }
  if (options.algorithm.empty()) return usage("batch needs an algorithm name");
  if (options.casesArg.empty()) return usage("batch needs --cases TABLE.csv or --cases PATTERN");
  if (options.outDir.empty()) return usage("batch needs --out DIR");

  // Everything that would fail every case is checked here, before any case starts.
  const std::string id = resolveAlgorithmName(options.algorithm);
  if (id.empty()) {
    std::fprintf(stderr, "merivane: unknown algorithm '%s' (see merivane list)\n", options.algorithm.c_str());
    return exitNotApplicable;
  }
  // --config values come first, --set ones override them, as in run.
  Properties configuration;
  if (std::string error; !loadConfigurationFiles(configFiles, configuration, &error)) {
    std::fprintf(stderr, "merivane: %s\n", error.c_str());
    return exitFileError;
  }
  configuration.copyFrom(options.configuration, Properties::CopyOptions::Params);

  std::vector<BatchCase> cases;
  std::string error;
  const bool table = endsWith(lower(options.casesArg), ".csv");
  if (table) {
    if (!options.templates.empty())
      return usage("--in and --in-labels give templates for a --cases PATTERN; a table names inputs in its columns");
    std::error_code ec;
    if (!fs::is_regular_file(options.casesArg, ec)) {
      std::fprintf(stderr, "merivane: %s: cannot read the case table\n", options.casesArg.c_str());
      return exitFileError;
    }
    if (!readCaseTable(options.casesArg, cases, &error)) {
      std::fprintf(stderr, "merivane: %s\n", error.c_str());
      return exitUsage;
    }
  } else if (!casesFromPattern(options.casesArg, options.templates, cases, &error)) {
    std::fprintf(stderr, "merivane: %s\n", error.c_str());
    return exitUsage;
  }
  if (const std::string why = checkParameters(id, configuration, cases); !why.empty()) {
    std::fprintf(stderr, "merivane: %s; no case was started\n", why.c_str());
    return exitUsage;
  }

  if (options.dryRun) {
    const fs::path out = fs::absolute(options.outDir);
    std::vector<IO::CsvRow> rows;
    for (const BatchCase& c : cases) {
      CaseResult recorded;
      std::string state = readDoneMarker((out / c.name).string(), recorded) ? "done" : missingInput(c);
      if (state.empty()) state = "run";
      IO::CsvRow row{c.name, state};
      for (std::string& a : runArguments(id, c, options)) row.push_back(std::move(a));
      rows.push_back(std::move(row));
    }
    std::fputs(IO::csvText({"case", "state", "arguments"}, rows, ',').c_str(), stdout);
    return exitSuccess;
  }
  const std::string runs = options.program.empty() ? programPath(program) : options.program;
  if (!options.scheduler.empty()) return runOnCluster(args, pluginPath, runs);
  return runLocally(id, cases, options, pluginPath, runs, showProgress);
}

}  // namespace Merivane::Cli
