#include "Resource.h"

#include <algorithm>
#include <mutex>

namespace Merivane::Resource {

namespace {
std::mutex g_mutex;
std::vector<const Repository*>& registry() {
  static std::vector<const Repository*> repos;
  return repos;
}
}  // namespace

Repository::~Repository() = default;

void addRepository(const Repository* repository) {
  if (!repository) return;
  std::lock_guard lock(g_mutex);
  auto& repos = registry();
  if (std::find(repos.begin(), repos.end(), repository) == repos.end()) repos.push_back(repository);
}

void removeRepository(const Repository* repository) {
  std::lock_guard lock(g_mutex);
  auto& repos = registry();
  repos.erase(std::remove(repos.begin(), repos.end(), repository), repos.end());
}

std::vector<const Repository*> repositories() {
  std::lock_guard lock(g_mutex);
  return registry();
}

std::optional<ByteBuffer> query(std::string_view path) {
  const size_t slash = path.find('/');
  if (slash == std::string_view::npos) return std::nullopt;
  const std::string_view repoName = path.substr(0, slash);
  const std::string_view name = path.substr(slash + 1);
  // Query outside the lock: a repository's query may be slow, and it must not call back in.
  for (const Repository* repo : repositories())
    if (repo->name() == repoName) return repo->query(name);
  return std::nullopt;
}

std::optional<std::string> queryText(std::string_view path) {
  auto bytes = query(path);
  if (!bytes) return std::nullopt;
  return std::string(bytes->begin(), bytes->end());
}

}  // namespace Merivane::Resource
