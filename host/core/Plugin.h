#pragma once
// The plug-in contract of the host and the loader that our own host uses.
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Merivane {

class ApplicationController;

class PluginBase {
 public:
  virtual ~PluginBase();
  virtual std::string author() const = 0;
  virtual std::string description() const = 0;
  virtual std::vector<std::string> dependencies() const { return {}; }
  virtual int init() = 0;
  virtual void setApplicationController(ApplicationController&) {}
};

// Lives as a static object in a plug-in library: it announces the plug-in's id while the
// library is being loaded, so that the loader can check it against the entry points.
class PluginAutoRegistrationGuard {
 public:
  using IdFunction = const char* (*)();
  explicit PluginAutoRegistrationGuard(IdFunction id);
  ~PluginAutoRegistrationGuard();
  PluginAutoRegistrationGuard(const PluginAutoRegistrationGuard&) = delete;
  PluginAutoRegistrationGuard& operator=(const PluginAutoRegistrationGuard&) = delete;

  // The ids announced by libraries that are loaded now, in load order.
  static std::vector<std::string> announcedIds();

 private:
  std::string id_;
};

// Loads plug-in libraries through their three entry points, resolves dependencies (built-in
// plug-ins by id first, then libraries beside the requesting one), calls init() once and
// unloads in reverse order.
// The plug-in library a program loads when told nothing: $MERIVANE_PLUGIN, else
// libMerivaneSeg.so beside the program or in ../lib.
std::string defaultPluginPath(const char* argv0);

class PluginManager {
 public:
  using BuiltinCreator = std::function<std::unique_ptr<PluginBase>()>;
  struct Loaded {
    std::string id;
    std::string path;  // empty for built-in plug-ins
    std::string descriptor;
    PluginBase* plugin = nullptr;
    void* handle = nullptr;
  };

  static constexpr const char* kMagic = "__MERIVANE_PLUGIN_V2_MAGIC_STRING__";
  static constexpr const char* kHostVersion = "4.4.6";

  PluginManager();
  ~PluginManager();
  PluginManager(const PluginManager&) = delete;
  PluginManager& operator=(const PluginManager&) = delete;

  // In-process plug-ins, loaded when a library names their id as a dependency.
  void registerBuiltin(const std::string& id, BuiltinCreator creator);

  // Loads a library and what it depends on. On failure `error` names the file and the reason,
  // and nothing of that library stays loaded.
  bool load(const std::string& path, std::string* error = nullptr);
  bool loadBuiltin(const std::string& id, std::string* error = nullptr);
  bool isLoaded(const std::string& id) const;
  const std::vector<Loaded>& plugins() const { return loaded_; }

  // Deletes the plug-ins in reverse order of loading, then closes their libraries.
  void unloadAll();

  // Checks a descriptor text; returns an empty string when it is acceptable, else the reason.
  static std::string checkDescriptor(const std::string& descriptor);

 private:
  bool loadDependencies(PluginBase& plugin, const std::string& requester, const std::string& dir,
                        std::string* error);

  std::vector<std::pair<std::string, BuiltinCreator>> builtins_;
  std::vector<Loaded> loaded_;
  std::vector<std::string> loading_;  // cycle guard
  std::vector<void*> handles_;        // closed in reverse order after all plug-ins are deleted
};

}  // namespace Merivane
