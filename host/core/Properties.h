#pragma once
// A tree of named values: each node has parameters by key (stored as text, with an optional
// default, a GUI type and attributes) and an ordered list of named sub-nodes. Several
// sub-nodes may share a name; that is how lists are stored.
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Flags.h"
#include "PropertiesCodec.h"

namespace Merivane {

namespace PropertiesDetail {
// GUI hint of a parameter; 0 means none.
enum class ParamType : int { None = 0, Text = 1, Path = 2, Color = 3, Choice = 4, Slider = 5, Hidden = 6 };
}  // namespace PropertiesDetail

class Properties {
 public:
  using Attributes = std::vector<std::pair<std::string, std::string>>;
  enum class CopyOptions : uint32_t { Params = 1, SubProperties = 2, Attributes = 4, All = 7 };

  Properties();
  explicit Properties(std::string name);
  Properties(std::initializer_list<std::pair<std::string, std::string>> params);
  Properties(const Properties& other);
  Properties(Properties&& other) noexcept;
  Properties& operator=(const Properties& other);
  Properties& operator=(Properties&& other) noexcept;
  ~Properties();

  const std::string& name() const { return name_; }
  void setName(std::string name) { name_ = std::move(name); }

  // Reads and converts; on failure returns false and leaves `out` as it was.
  template <typename T>
  bool param(std::string_view key, T& out) const {
    const std::string* text = rawParam(key);
    return text && PropertiesDetail::Codec<T>::fromText(*text, out);
  }
  template <typename T>
  T paramOr(std::string_view key, T fallback) const {
    param(key, fallback);
    return fallback;
  }

  template <typename T>
  void setParam(std::string_view key, const T& value) {
    setRawParam(key, PropertiesDetail::Codec<T>::toText(value));
  }
  template <typename T>
  void setParam(std::string_view key, const T& value, const T& defaultValue) {
    setRawParam(key, PropertiesDetail::Codec<T>::toText(value), PropertiesDetail::Codec<T>::toText(defaultValue));
  }
  void setParam(std::string_view key, const char* value) { setRawParam(key, value ? value : ""); }

  bool contains(std::string_view key) const { return rawParam(key) != nullptr; }
  bool removeParam(std::string_view key);
  std::vector<std::string> paramKeys() const;

  // Text level access.
  const std::string* rawParam(std::string_view key) const;
  const std::string* rawDefault(std::string_view key) const;
  void setRawParam(std::string_view key, std::string value);
  void setRawParam(std::string_view key, std::string value, std::string defaultValue);

  // GUI hints.
  void setParamType(std::string_view key, PropertiesDetail::ParamType type);
  PropertiesDetail::ParamType paramType(std::string_view key) const;
  void setParamAttributes(std::string_view key, Attributes attributes);
  Attributes paramAttributes(std::string_view key) const;
  // One attribute of a parameter, empty when missing.
  std::string attribute(std::string_view key, std::string_view attributeName) const;

  // Sub-nodes. subProperties(name) gives the first of that name or null; with create set, a
  // missing one is added.
  Properties* subProperties(std::string_view name);
  const Properties* subProperties(std::string_view name) const;
  Properties* subProperties(std::string_view name, bool create);
  std::vector<Properties*> subProperties();
  std::vector<const Properties*> subProperties() const;
  std::vector<const Properties*> subPropertiesNamed(std::string_view name) const;
  Properties* addSubProperties(std::string name);
  bool removeSubProperties(const Properties* child);

  // Merges `other` into this node: parameters (and their attributes) overwrite, sub-nodes are
  // appended. The predicate, when given, selects the keys to take.
  void copyFrom(const Properties& other, Flags<CopyOptions> options = CopyOptions::All,
                const std::function<bool(std::string_view)>& predicate = {});

  void clear();
  bool empty() const;
  bool operator==(const Properties& other) const;

 private:
  struct Entry;
  Entry* find(std::string_view key);
  const Entry* find(std::string_view key) const;
  Entry& findOrAdd(std::string_view key);

  std::string name_;
  std::vector<Entry> params_;
  std::vector<std::unique_ptr<Properties>> children_;
};

namespace PropertiesIO {

// Format 5 is the indented XML text form; it is the only one.
enum class Format : int { Xml = 5 };

bool saveToString(const Properties& properties, Format format, std::string& out);
// Null on malformed text or on nodes nested more than 100 deep; `error`, when given, receives
// "line N: what is wrong" (names from the text quoted as short escaped excerpts).
std::unique_ptr<Properties> loadFromString(std::string_view text, Format format, std::string* error = nullptr);

// Writes to a temporary name beside the file, then renames. `error` names the file.
bool saveToFile(const Properties& properties, const std::string& path, std::string* error = nullptr);
// A directory, FIFO or device is refused as such ("PATH: is a directory").
std::unique_ptr<Properties> loadFromFile(const std::string& path, std::string* error = nullptr);

}  // namespace PropertiesIO

}  // namespace Merivane
