#include "Plugin.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <mutex>

#include "InputChecks.h"
#include "Log.h"

namespace Merivane {

PluginBase::~PluginBase() = default;

namespace {

std::mutex& announcedMutex() {
  static std::mutex m;
  return m;
}
std::vector<std::string>& announced() {
  static std::vector<std::string> ids;
  return ids;
}

using CreateFn = PluginBase* (*)();
using IdFn = const char* (*)();

std::vector<std::string> split(const std::string& text, char sep) {
  std::vector<std::string> parts;
  size_t start = 0;
  while (true) {
    size_t pos = text.find(sep, start);
    parts.push_back(text.substr(start, pos - start));
    if (pos == std::string::npos) break;
    start = pos + 1;
  }
  return parts;
}

// "Merivane.ML" is looked for as libMerivaneML.so beside the requesting library.
std::string libraryFileFor(const std::string& id) {
  std::string base;
  for (char c : id)
    if (c != '.') base += c;
  return "lib" + base + ".so";
}

}  // namespace

PluginAutoRegistrationGuard::PluginAutoRegistrationGuard(IdFunction id) : id_(id ? id() : "") {
  std::lock_guard lock(announcedMutex());
  announced().push_back(id_);
}

PluginAutoRegistrationGuard::~PluginAutoRegistrationGuard() {
  std::lock_guard lock(announcedMutex());
  auto& ids = announced();
  if (auto it = std::find(ids.rbegin(), ids.rend(), id_); it != ids.rend()) ids.erase(std::next(it).base());
}

std::vector<std::string> PluginAutoRegistrationGuard::announcedIds() {
  std::lock_guard lock(announcedMutex());
  return announced();
}

PluginManager::PluginManager() = default;
PluginManager::~PluginManager() { unloadAll(); }

void PluginManager::registerBuiltin(const std::string& id, BuiltinCreator creator) {
  builtins_.emplace_back(id, std::move(creator));
}

bool PluginManager::isLoaded(const std::string& id) const {
  return std::any_of(loaded_.begin(), loaded_.end(), [&](const Loaded& l) { return l.id == id; });
}

std::string PluginManager::checkDescriptor(const std::string& descriptor) {
  auto fields = split(descriptor, '|');
  if (fields.empty() || fields[0] != kMagic) return "wrong plug-in magic '" + (fields.empty() ? "" : fields[0]) + "'";
  for (size_t i = 1; i < fields.size(); ++i) {
    const std::string& f = fields[i];
    if (f.rfind("hostversion=", 0) == 0 && f.substr(12) != kHostVersion)
      LOG_WARN("PluginManager", "plug-in built for host version " << f.substr(12) << ", this host is "
                                                                  << kHostVersion);
  }
  return {};
}

bool PluginManager::loadBuiltin(const std::string& id, std::string* error) {
  if (isLoaded(id)) return true;
  for (auto& [bid, creator] : builtins_) {
    if (bid != id) continue;
    std::unique_ptr<PluginBase> plugin = creator();
    if (!plugin) {
      if (error) *error = "built-in plug-in " + id + " could not be created";
      return false;
    }
    if (!loadDependencies(*plugin, id, {}, error)) return false;
    int rc = plugin->init();
    if (rc != 0) {
      if (error) *error = "built-in plug-in " + id + ": init() returned " + std::to_string(rc);
      return false;
    }
    loaded_.push_back(Loaded{id, {}, {}, plugin.release(), nullptr});
    return true;
  }
  if (error) *error = "no plug-in with id " + id;
  return false;
}

bool PluginManager::loadDependencies(PluginBase& plugin, const std::string& requester, const std::string& dir,
                                     std::string* error) {
  for (const std::string& dep : plugin.dependencies()) {
    if (isLoaded(dep)) continue;
    if (std::find(loading_.begin(), loading_.end(), dep) != loading_.end()) {
      if (error) *error = requester + ": circular dependency on " + dep;
      return false;
    }
    std::string why;
    bool isBuiltin = std::any_of(builtins_.begin(), builtins_.end(), [&](auto& b) { return b.first == dep; });
    bool ok = isBuiltin ? loadBuiltin(dep, &why)
                        : load((std::filesystem::path(dir) / libraryFileFor(dep)).string(), &why);
    if (!ok) {
      if (error) *error = requester + ": cannot load dependency " + dep + " (" + why + ")";
      return false;
    }
  }
  return true;
}

bool PluginManager::load(const std::string& path, std::string* error) {
  auto fail = [&](const std::string& why) {
    if (error) *error = path + ": " + why;
    return false;
  };
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle) {
    const std::string why = dlerror();
    const std::string fileProblem = whyNotReadable(path);
    // Only a name without a slash is searched for; any other path names this file.
    if (!fileProblem.empty() && path.find('/') != std::string::npos) return fail(fileProblem);
    return fail("not a loadable plug-in library (" + why + ")");
  }
  auto closeOnFail = [&](const std::string& why) {
    dlclose(handle);
    return fail(why);
  };

  auto* descriptorSymbol = static_cast<const char* const*>(dlsym(handle, "merivanePluginDescriptor"));
  if (!descriptorSymbol || !*descriptorSymbol) return closeOnFail("no merivanePluginDescriptor; not a plug-in");
  std::string descriptor = *descriptorSymbol;
  if (std::string why = checkDescriptor(descriptor); !why.empty()) return closeOnFail(why);

  auto create = reinterpret_cast<CreateFn>(dlsym(handle, "merivaneCreatePlugin"));
  auto idFn = reinterpret_cast<IdFn>(dlsym(handle, "merivanePluginId"));
  if (!create || !idFn) return closeOnFail("missing merivaneCreatePlugin or merivanePluginId");
  std::string id = idFn() ? idFn() : "";
  if (id.empty()) return closeOnFail("empty plug-in id");
  auto ids = PluginAutoRegistrationGuard::announcedIds();
  if (std::find(ids.begin(), ids.end(), id) == ids.end())
    LOG_WARN("PluginManager", path << ": plug-in " << id << " did not announce itself while loading");
  if (isLoaded(id)) {
    dlclose(handle);
    return true;
  }

  std::unique_ptr<PluginBase> plugin(create());
  if (!plugin) return closeOnFail("merivaneCreatePlugin returned null");
  loading_.push_back(id);
  std::string why;
  bool depsOk = loadDependencies(*plugin, id, std::filesystem::path(path).parent_path().string(), &why);
  loading_.pop_back();
  if (!depsOk) {
    plugin.reset();
    return closeOnFail(why);
  }
  if (int rc = plugin->init(); rc != 0) {
    plugin.reset();
    return closeOnFail("init() returned " + std::to_string(rc));
  }
  loaded_.push_back(Loaded{id, path, descriptor, plugin.release(), handle});
  handles_.insert(handles_.begin(), handle);
  return true;
}

void PluginManager::unloadAll() {
  while (!loaded_.empty()) {
    Loaded l = loaded_.back();
    loaded_.pop_back();
    delete l.plugin;
  }
  // Libraries close only after every plug-in is gone: a later plug-in may hold objects whose
  // code lives in an earlier library.
  for (void* h : handles_) dlclose(h);
  handles_.clear();
}

std::string defaultPluginPath(const char* argv0) {
  namespace fs = std::filesystem;
  if (const char* env = std::getenv("MERIVANE_PLUGIN")) return env;
  std::error_code ec;
  fs::path self = fs::read_symlink("/proc/self/exe", ec);
  if (ec) self = fs::absolute(argv0 ? argv0 : ".", ec);
  const fs::path dir = self.parent_path();
  for (const fs::path& candidate : {dir / "libMerivaneSeg.so", dir / ".." / "lib" / "libMerivaneSeg.so"})
    if (fs::exists(candidate, ec)) return candidate.lexically_normal().string();
  return (dir / ".." / "lib" / "libMerivaneSeg.so").lexically_normal().string();
}

}  // namespace Merivane
