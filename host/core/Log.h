#pragma once
#include <functional>
#include <sstream>
#include <string>
#include <string_view>

namespace Merivane::Log {

enum Level : int { Debug = 1, Info = 2, Warning = 3, Error = 4 };

// Messages below this level are dropped before they are formatted.
extern int g_globalLevel;

bool isAccepted(int level, std::string_view category);
void log(int level, const std::string& category, const std::string& message, const char* file, int line);

// Categories can be silenced one by one.
void setCategoryEnabled(const std::string& category, bool enabled);

// Sinks receive every accepted line; the default sink prints to stderr and can be switched off.
using Sink = std::function<void(int level, const std::string& category, const std::string& message)>;
int addSink(Sink sink);
void removeSink(int id);
void setStderrEnabled(bool enabled);
bool stderrEnabled();

const char* levelName(int level);

}  // namespace Merivane::Log

// The call-site form: filtered lines cost a comparison, not a formatting pass.
#define MERIVANE_LOG(level, category, expr)                                                   \
  do {                                                                                        \
    if (::Merivane::Log::g_globalLevel <= (level) && ::Merivane::Log::isAccepted((level), (category))) { \
      std::ostringstream merivaneLogStream_;                                                  \
      merivaneLogStream_ << expr;                                                             \
      ::Merivane::Log::log((level), (category), merivaneLogStream_.str(), "", -1);            \
    }                                                                                         \
  } while (0)

#define LOG_DEBUG(category, expr) MERIVANE_LOG(::Merivane::Log::Debug, category, expr)
#define LOG_INFO(category, expr) MERIVANE_LOG(::Merivane::Log::Info, category, expr)
#define LOG_WARN(category, expr) MERIVANE_LOG(::Merivane::Log::Warning, category, expr)
#define LOG_ERROR(category, expr) MERIVANE_LOG(::Merivane::Log::Error, category, expr)
