#pragma once
// Tables as text: one header line, then one line per row, fields joined by a separator with
// no trailing one. Fields are written as they are; a field holding the separator, a quote or a
// line break is quoted, with quotes doubled.
#include <iosfwd>
#include <string>
#include <vector>

namespace Merivane::IO {

using CsvRow = std::vector<std::string>;

void writeCsv(std::ostream& out, const CsvRow& header, const std::vector<CsvRow>& rows, char separator = ';');
std::string csvText(const CsvRow& header, const std::vector<CsvRow>& rows, char separator = ';');
// Writes through a temporary file; `error` names the file.
bool writeCsvFile(const std::string& path, const CsvRow& header, const std::vector<CsvRow>& rows,
                  std::string* error = nullptr, char separator = ';');
// Splits text into rows (the header is the first); false on an unterminated quote.
bool parseCsv(const std::string& text, std::vector<CsvRow>& rows, char separator = ';');

}  // namespace Merivane::IO
