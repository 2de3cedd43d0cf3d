// The table parser: whatever it accepts must survive a write and a second parse unchanged.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "CsvIO.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace Merivane::IO;
  std::vector<CsvRow> rows;
  if (!parseCsv(std::string(reinterpret_cast<const char*>(data), size), rows) || rows.empty()) return 0;
  const std::vector<CsvRow> body(rows.begin() + 1, rows.end());
  std::vector<CsvRow> again;
  if (!parseCsv(csvText(rows[0], body), again)) std::abort();
  if (again != rows) std::abort();
  return 0;
}
