#pragma once
// The plug-in's fragment programs, looked up by the resource system as "MerivaneSeg/NAME".
// A plain store: each resource is a list of byte views into constant text in the library,
// returned as their concatenation. Callers prepend their defines ("#define SLICE3D\n",
// "#define USE_2D\n") after the version line of the text they get.
#include <string>
#include <unordered_map>
#include <vector>

#include "Resource.h"

namespace Merivane {

class Repository_MerivaneSeg : public Resource::Repository {
 public:
  Repository_MerivaneSeg();
  ~Repository_MerivaneSeg() override;

  std::string name() const override;
  bool contains(std::string_view name) const override;
  std::optional<ByteBuffer> query(std::string_view name) const override;

  // The resource names, sorted.
  std::vector<std::string> names() const;
  // Number of stored chunks of a resource (0 when unknown).
  size_t chunkCount(std::string_view name) const;

  static constexpr const char* kName = "MerivaneSeg";

 private:
  struct Hash {
    using is_transparent = void;
    size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
  };
  std::unordered_map<std::string, std::vector<ByteBufferView>, Hash, std::equal_to<>> entries_;
};

}  // namespace Merivane
