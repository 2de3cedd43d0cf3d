#pragma once
// The resource system: named repositories of byte blobs (fragment programs, tables) that code
// looks up by a path "Repository/Name". Repositories are owned by whoever adds them and must
// be removed before they die.
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ByteBuffer.h"

namespace Merivane {

namespace Resource {

class Repository {
 public:
  virtual ~Repository();
  virtual std::string name() const = 0;
  virtual bool contains(std::string_view name) const = 0;
  // The bytes of a resource, empty when the name is unknown.
  virtual std::optional<ByteBuffer> query(std::string_view name) const = 0;
};

// Adding the same repository twice, or removing one that is not there, does nothing.
void addRepository(const Repository* repository);
void removeRepository(const Repository* repository);
// Repositories in the order they were added.
std::vector<const Repository*> repositories();
// Looks up "Repository/Name"; empty when the repository or the name is unknown.
std::optional<ByteBuffer> query(std::string_view path);
// The same as text, for programs.
std::optional<std::string> queryText(std::string_view path);

}  // namespace Resource
}  // namespace Merivane
