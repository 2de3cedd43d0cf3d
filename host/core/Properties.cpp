#include "Properties.h"

#include "InputChecks.h"

#include <fmt/format.h>
#include <pugixml.hpp>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <cstdio>
#include <fstream>
#include <sstream>

namespace Merivane {

namespace PropertiesDetail {

namespace {

std::string_view trim(std::string_view t) {
  while (!t.empty() && std::isspace(static_cast<unsigned char>(t.front()))) t.remove_prefix(1);
  while (!t.empty() && std::isspace(static_cast<unsigned char>(t.back()))) t.remove_suffix(1);
  return t;
}

template <typename T>
bool parseWhole(std::string_view t, T& out) {
  t = trim(t);
  if (t.empty()) return false;
  if (t.front() == '+') t.remove_prefix(1);
  T v{};
  auto [ptr, ec] = std::from_chars(t.data(), t.data() + t.size(), v);
  if (ec != std::errc() || ptr != t.data() + t.size()) return false;
  out = v;
  return true;
}

}  // namespace

std::string toText(bool v) { return v ? "true" : "false"; }
std::string toText(long long v) { return fmt::format("{}", v); }
std::string toText(unsigned long long v) { return fmt::format("{}", v); }
// fmt prints the shortest text that reads back to the same value.
std::string toText(float v) { return fmt::format("{}", v); }
std::string toText(double v) { return fmt::format("{}", v); }

bool fromText(std::string_view text, bool& out) {
  auto t = trim(text);
  if (t == "true" || t == "1" || t == "True" || t == "TRUE") {
    out = true;
    return true;
  }
  if (t == "false" || t == "0" || t == "False" || t == "FALSE") {
    out = false;
    return true;
  }
  double d;
  if (parseWhole(t, d)) {
    out = d != 0.0;
    return true;
  }
  return false;
}

bool fromText(std::string_view text, long long& out) {
  if (parseWhole(text, out)) return true;
  bool b;
  auto t = trim(text);
  if (t == "true" || t == "false") {
    fromText(t, b);
    out = b ? 1 : 0;
    return true;
  }
  // A value written as floating point reads as the nearest integer.
  double d;
  if (!parseWhole(text, d) || !std::isfinite(d) || d < -9.2e18 || d > 9.2e18) return false;
  out = std::llround(d);
  return true;
}

bool fromText(std::string_view text, unsigned long long& out) {
  if (parseWhole(text, out)) return true;
  long long v;
  if (!fromText(text, v) || v < 0) return false;
  out = static_cast<unsigned long long>(v);
  return true;
}

bool fromText(std::string_view text, float& out) {
  double d;
  if (!fromText(text, d)) return false;
  const float f = static_cast<float>(d);
  // A finite value beyond float's range is refused rather than read as infinity; "inf" reads.
  if (std::isinf(f) && std::isfinite(d)) return false;
  out = f;
  return true;
}

bool fromText(std::string_view text, double& out) {
  if (parseWhole(text, out)) return true;
  auto t = trim(text);
  if (t == "true" || t == "false") {
    out = t == "true" ? 1.0 : 0.0;
    return true;
  }
  return false;
}

std::string quote(std::string_view item) {
  std::string s = "\"";
  for (char c : item) {
    if (c == '"' || c == '\\') s += '\\';
    s += c;
  }
  s += '"';
  return s;
}

std::vector<std::string> splitList(std::string_view text, bool quoted) {
  std::vector<std::string> items;
  size_t i = 0;
  const size_t n = text.size();
  while (i < n) {
    while (i < n && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
    if (i >= n) break;
    std::string item;
    if (quoted && text[i] == '"') {
      ++i;
      while (i < n && text[i] != '"') {
        if (text[i] == '\\' && i + 1 < n) ++i;
        item += text[i++];
      }
      ++i;  // closing quote
    } else {
      while (i < n && !std::isspace(static_cast<unsigned char>(text[i]))) item += text[i++];
    }
    items.push_back(std::move(item));
  }
  return items;
}

}  // namespace PropertiesDetail

struct Properties::Entry {
  std::string key;
  std::string value;
  std::optional<std::string> defaultValue;
  PropertiesDetail::ParamType type = PropertiesDetail::ParamType::None;
  Attributes attributes;
  bool operator==(const Entry&) const = default;
};

Properties::Properties() = default;
Properties::Properties(std::string name) : name_(std::move(name)) {}
Properties::Properties(std::initializer_list<std::pair<std::string, std::string>> params) {
  for (auto& [k, v] : params) setRawParam(k, v);
}
Properties::Properties(const Properties& other) : name_(other.name_), params_(other.params_) {
  for (auto& c : other.children_) children_.push_back(std::make_unique<Properties>(*c));
}
Properties::Properties(Properties&& other) noexcept = default;
Properties& Properties::operator=(const Properties& other) {
  if (this != &other) {
    Properties copy(other);
    *this = std::move(copy);
  }
  return *this;
}
Properties& Properties::operator=(Properties&& other) noexcept = default;
Properties::~Properties() = default;

Properties::Entry* Properties::find(std::string_view key) {
  for (auto& e : params_)
    if (e.key == key) return &e;
  return nullptr;
}
const Properties::Entry* Properties::find(std::string_view key) const {
  return const_cast<Properties*>(this)->find(key);
}
Properties::Entry& Properties::findOrAdd(std::string_view key) {
  if (Entry* e = find(key)) return *e;
  params_.push_back(Entry{std::string(key), {}, {}, {}, {}});
  return params_.back();
}

bool Properties::removeParam(std::string_view key) {
  return std::erase_if(params_, [key](const Entry& e) { return e.key == key; }) > 0;
}

std::vector<std::string> Properties::paramKeys() const {
  std::vector<std::string> keys;
  for (auto& e : params_) keys.push_back(e.key);
  return keys;
}

const std::string* Properties::rawParam(std::string_view key) const {
  const Entry* e = find(key);
  return e ? &e->value : nullptr;
}
const std::string* Properties::rawDefault(std::string_view key) const {
  const Entry* e = find(key);
  return e && e->defaultValue ? &*e->defaultValue : nullptr;
}
void Properties::setRawParam(std::string_view key, std::string value) { findOrAdd(key).value = std::move(value); }
void Properties::setRawParam(std::string_view key, std::string value, std::string defaultValue) {
  Entry& e = findOrAdd(key);
  e.value = std::move(value);
  e.defaultValue = std::move(defaultValue);
}

void Properties::setParamType(std::string_view key, PropertiesDetail::ParamType type) { findOrAdd(key).type = type; }
PropertiesDetail::ParamType Properties::paramType(std::string_view key) const {
  const Entry* e = find(key);
  return e ? e->type : PropertiesDetail::ParamType::None;
}
void Properties::setParamAttributes(std::string_view key, Attributes attributes) {
  findOrAdd(key).attributes = std::move(attributes);
}
Properties::Attributes Properties::paramAttributes(std::string_view key) const {
  const Entry* e = find(key);
  return e ? e->attributes : Attributes{};
}
std::string Properties::attribute(std::string_view key, std::string_view attributeName) const {
  if (const Entry* e = find(key))
    for (auto& [k, v] : e->attributes)
      if (k == attributeName) return v;
  return {};
}

Properties* Properties::subProperties(std::string_view name) {
  for (auto& c : children_)
    if (c->name_ == name) return c.get();
  return nullptr;
}
const Properties* Properties::subProperties(std::string_view name) const {
  return const_cast<Properties*>(this)->subProperties(name);
}
Properties* Properties::subProperties(std::string_view name, bool create) {
  Properties* p = subProperties(name);
  return p || !create ? p : addSubProperties(std::string(name));
}
std::vector<Properties*> Properties::subProperties() {
  std::vector<Properties*> v;
  for (auto& c : children_) v.push_back(c.get());
  return v;
}
std::vector<const Properties*> Properties::subProperties() const {
  std::vector<const Properties*> v;
  for (auto& c : children_) v.push_back(c.get());
  return v;
}
std::vector<const Properties*> Properties::subPropertiesNamed(std::string_view name) const {
  std::vector<const Properties*> v;
  for (auto& c : children_)
    if (c->name_ == name) v.push_back(c.get());
  return v;
}
Properties* Properties::addSubProperties(std::string name) {
  children_.push_back(std::make_unique<Properties>(std::move(name)));
  return children_.back().get();
}
bool Properties::removeSubProperties(const Properties* child) {
  return std::erase_if(children_, [child](auto& c) { return c.get() == child; }) > 0;
}

void Properties::copyFrom(const Properties& other, Flags<CopyOptions> options,
                          const std::function<bool(std::string_view)>& predicate) {
  if (&other == this) return;
  if (options.test(CopyOptions::Params)) {
    for (auto& e : other.params_) {
      if (predicate && !predicate(e.key)) continue;
      Entry& mine = findOrAdd(e.key);
      mine.value = e.value;
      mine.defaultValue = e.defaultValue;
      mine.type = e.type;
      if (options.test(CopyOptions::Attributes)) mine.attributes = e.attributes;
    }
  }
  if (options.test(CopyOptions::SubProperties))
    for (auto& c : other.children_)
      if (!predicate || predicate(c->name_)) children_.push_back(std::make_unique<Properties>(*c));
}

void Properties::clear() {
  params_.clear();
  children_.clear();
}

bool Properties::empty() const { return params_.empty() && children_.empty(); }

bool Properties::operator==(const Properties& other) const {
  if (name_ != other.name_ || params_ != other.params_ || children_.size() != other.children_.size()) return false;
  for (size_t i = 0; i < children_.size(); ++i)
    if (!(*children_[i] == *other.children_[i])) return false;
  return true;
}

namespace PropertiesIO {

namespace {

constexpr const char* kNode = "properties";
constexpr const char* kParam = "param";
constexpr const char* kAttr = "attr";
// Real trees are a few levels deep; the limit keeps the recursive reader, copies and
// destructors far from the end of the stack whatever the file holds.
constexpr int kMaxDepth = 100;

void writeNode(const Properties& p, pugi::xml_node node) {
  node.append_attribute("name").set_value(p.name().c_str());
  for (const auto& key : p.paramKeys()) {
    auto xp = node.append_child(kParam);
    xp.append_attribute("name").set_value(key.c_str());
    xp.append_attribute("value").set_value(p.rawParam(key)->c_str());
    if (const std::string* d = p.rawDefault(key)) xp.append_attribute("default").set_value(d->c_str());
    if (auto t = p.paramType(key); t != PropertiesDetail::ParamType::None)
      xp.append_attribute("type").set_value(static_cast<int>(t));
    for (auto& [k, v] : p.paramAttributes(key)) {
      auto xa = xp.append_child(kAttr);
      xa.append_attribute("name").set_value(k.c_str());
      xa.append_attribute("value").set_value(v.c_str());
    }
  }
  for (const Properties* c : p.subProperties()) writeNode(*c, node.append_child(kNode));
}

struct Reader {
  std::string_view text;
  std::string error;

  int lineOf(ptrdiff_t offset) const {
    if (offset < 0) return 0;
    size_t end = std::min(static_cast<size_t>(offset), text.size());
    return 1 + static_cast<int>(std::count(text.begin(), text.begin() + end, '\n'));
  }
  bool fail(pugi::xml_node at, const std::string& what) {
    error = fmt::format("line {}: {}", lineOf(at.offset_debug()), what);
    return false;
  }

  bool readNode(pugi::xml_node node, Properties& p, int depth) {
    if (depth > kMaxDepth) return fail(node, fmt::format("<properties> nested deeper than {} levels", kMaxDepth));
    auto nameAttr = node.attribute("name");
    if (!nameAttr) return fail(node, "<properties> without a name attribute");
    p.setName(nameAttr.value());
    for (auto child : node.children()) {
      if (child.type() != pugi::node_element) {
        if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata)
          return fail(child, "unexpected text inside <properties>");
        continue;
      }
      std::string_view tag = child.name();
      if (tag == kNode) {
        if (!readNode(child, *p.addSubProperties({}), depth + 1)) return false;
      } else if (tag == kParam) {
        if (!readParam(child, p)) return false;
      } else {
        return fail(child, fmt::format("unknown element <{}>", excerpt(tag)));
      }
    }
    return true;
  }

  bool readParam(pugi::xml_node node, Properties& p) {
    auto name = node.attribute("name");
    if (!name) return fail(node, "<param> without a name attribute");
    auto value = node.attribute("value");
    if (!value) return fail(node, fmt::format("<param name=\"{}\"> without a value attribute", excerpt(name.value())));
    std::string key = name.value();
    if (auto d = node.attribute("default"))
      p.setRawParam(key, value.value(), d.value());
    else
      p.setRawParam(key, value.value());
    if (auto t = node.attribute("type")) {
      int type;
      if (!PropertiesDetail::Codec<int>::fromText(t.value(), type))
        return fail(node, fmt::format("parameter '{}' has a type that is not a number", excerpt(key)));
      p.setParamType(key, static_cast<PropertiesDetail::ParamType>(type));
    }
    Properties::Attributes attributes;
    for (auto child : node.children()) {
      if (child.type() != pugi::node_element) continue;
      if (std::string_view(child.name()) != kAttr)
        return fail(child, fmt::format("unknown element <{}> in parameter '{}'", excerpt(child.name()), excerpt(key)));
      auto an = child.attribute("name");
      if (!an) return fail(child, "<attr> without a name attribute");
      attributes.emplace_back(an.value(), child.attribute("value").value());
    }
    if (!attributes.empty()) p.setParamAttributes(key, std::move(attributes));
    return true;
  }
};

}  // namespace

bool saveToString(const Properties& properties, Format format, std::string& out) {
  if (format != Format::Xml) return false;
  pugi::xml_document doc;
  auto decl = doc.append_child(pugi::node_declaration);
  decl.append_attribute("version") = "1.0";
  decl.append_attribute("encoding") = "UTF-8";
  writeNode(properties, doc.append_child(kNode));
  std::ostringstream s;
  doc.save(s, "    ", pugi::format_indent, pugi::encoding_utf8);
  out = s.str();
  return true;
}

std::unique_ptr<Properties> loadFromString(std::string_view text, Format format, std::string* error) {
  if (format != Format::Xml) {
    if (error) *error = "unsupported format";
    return nullptr;
  }
  pugi::xml_document doc;
  // Escaped line breaks in attribute values must survive, so no whitespace normalisation.
  unsigned options = pugi::parse_default & ~pugi::parse_wconv_attribute;
  pugi::xml_parse_result result = doc.load_buffer(text.data(), text.size(), options, pugi::encoding_utf8);
  Reader reader{text, {}};
  if (!result) {
    if (error) *error = fmt::format("line {}: {}", reader.lineOf(result.offset), result.description());
    return nullptr;
  }
  pugi::xml_node root;
  for (auto child : doc.children())
    if (child.type() == pugi::node_element) {
      if (root) {
        if (error) *error = fmt::format("line {}: more than one root element", reader.lineOf(child.offset_debug()));
        return nullptr;
      }
      root = child;
    }
  if (!root || std::string_view(root.name()) != kNode) {
    if (error)
      *error = root ? fmt::format("line {}: root element is <{}>, expected <properties>",
                                  reader.lineOf(root.offset_debug()), excerpt(root.name()))
                    : "line 1: no <properties> element";
    return nullptr;
  }
  auto p = std::make_unique<Properties>();
  if (!reader.readNode(root, *p, 1)) {
    if (error) *error = reader.error;
    return nullptr;
  }
  return p;
}

bool saveToFile(const Properties& properties, const std::string& path, std::string* error) {
  std::string text;
  saveToString(properties, Format::Xml, text);
  const std::string tmp = path + ".tmp";
  {
    std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    out.close();
    if (!out) {
      std::remove(tmp.c_str());
      if (error) *error = fmt::format("{}: cannot write", path);
      return false;
    }
  }
  if (std::rename(tmp.c_str(), path.c_str()) != 0) {
    std::remove(tmp.c_str());
    if (error) *error = fmt::format("{}: cannot replace ({})", path, std::strerror(errno));
    return false;
  }
  return true;
}

std::unique_ptr<Properties> loadFromFile(const std::string& path, std::string* error) {
  std::string text, why;
  if (!readRegularFile(path, text, why)) {
    if (error) *error = fmt::format("{}: {}", path, why);
    return nullptr;
  }
  auto p = loadFromString(text, Format::Xml, &why);
  if (!p && error) *error = fmt::format("{}: {}", path, why);
  return p;
}

}  // namespace PropertiesIO

}  // namespace Merivane
