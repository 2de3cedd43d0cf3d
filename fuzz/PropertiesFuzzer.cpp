// The Properties text reader (configuration files, contours): a tree that is read must write
// itself back as text that reads to the same tree.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "FuzzShim.h"
#include "Properties.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace Merivane;
  Fuzz::scratchFolder();  // quiet log
  std::string error;
  auto p = PropertiesIO::loadFromString(std::string_view(reinterpret_cast<const char*>(data), size),
                                        PropertiesIO::Format::Xml, &error);
  if (!p) {
    if (error.empty() || error.size() > 400) std::abort();
    return 0;
  }
  std::string text;
  if (!PropertiesIO::saveToString(*p, PropertiesIO::Format::Xml, text)) std::abort();
  auto again = PropertiesIO::loadFromString(text, PropertiesIO::Format::Xml, &error);
  if (!again || !(*again == *p)) std::abort();
  return 0;
}
