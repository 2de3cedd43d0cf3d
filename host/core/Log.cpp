#include "Log.h"

#include <unistd.h>

#include <cstdio>
#include <map>
#include <mutex>
#include <set>
#include <vector>

namespace Merivane::Log {

int g_globalLevel = Info;

namespace {

struct State {
  std::mutex mutex;
  std::set<std::string, std::less<>> disabled;
  std::vector<std::pair<int, Sink>> sinks;
  int nextId = 1;
  bool toStderr = true;
};

State& state() {
  static State s;
  return s;
}

// The message without terminal control sequences (ESC [ parameters, then one final byte in
// @..~; any other ESC takes the byte after it along).
std::string withoutTerminalCodes(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\033') {
      out.push_back(text[i]);
      continue;
    }
    if (i + 1 < text.size() && text[i + 1] == '[') {
      i += 2;
      while (i < text.size() && !(text[i] >= '@' && text[i] <= '~')) ++i;
    } else {
      ++i;
    }
  }
  return out;
}

}  // namespace

const char* levelName(int level) {
  switch (level) {
    case Debug: return "DEBUG";
    case Info: return "INFO";
    case Warning: return "WARNING";
    case Error: return "ERROR";
    default: return "LOG";
  }
}

bool isAccepted(int level, std::string_view category) {
  State& s = state();
  std::lock_guard lock(s.mutex);
  return s.disabled.empty() || s.disabled.find(category) == s.disabled.end();
}

void setCategoryEnabled(const std::string& category, bool enabled) {
  State& s = state();
  std::lock_guard lock(s.mutex);
  if (enabled)
    s.disabled.erase(category);
  else
    s.disabled.insert(category);
}

void log(int level, const std::string& category, const std::string& message, const char*, int) {
  State& s = state();
  std::vector<Sink> sinks;
  bool toStderr;
  {
    std::lock_guard lock(s.mutex);
    for (auto& [id, sink] : s.sinks) sinks.push_back(sink);
    toStderr = s.toStderr;
  }
  // Sinks run outside the lock so that one may log again.
  for (auto& sink : sinks) sink(level, category, message);
  if (toStderr) {
    // Colour and other terminal codes only reach a terminal, never a file or a pipe.
    const std::string text = isatty(fileno(stderr)) ? message : withoutTerminalCodes(message);
    if (category.empty())
      std::fprintf(stderr, "[%s] %s\n", levelName(level), text.c_str());
    else
      std::fprintf(stderr, "[%s] %s: %s\n", levelName(level), category.c_str(), text.c_str());
  }
}

int addSink(Sink sink) {
  State& s = state();
  std::lock_guard lock(s.mutex);
  s.sinks.emplace_back(s.nextId, std::move(sink));
  return s.nextId++;
}

void removeSink(int id) {
  State& s = state();
  std::lock_guard lock(s.mutex);
  std::erase_if(s.sinks, [id](auto& p) { return p.first == id; });
}

void setStderrEnabled(bool enabled) {
  State& s = state();
  std::lock_guard lock(s.mutex);
  s.toStderr = enabled;
}

bool stderrEnabled() {
  State& s = state();
  std::lock_guard lock(s.mutex);
  return s.toStderr;
}

}  // namespace Merivane::Log
