#include "CsvIO.h"

#include <ostream>
#include <sstream>

#include "IoUtil.h"

namespace Merivane::IO {

namespace {
void writeField(std::ostream& out, const std::string& f, char sep) {
  if (f.find_first_of(std::string(1, sep) + "\"\n\r") == std::string::npos) {
    out << f;
    return;
  }
  out << '"';
  for (char c : f) {
    if (c == '"') out << '"';
    out << c;
  }
  out << '"';
}
void writeRow(std::ostream& out, const CsvRow& row, char sep) {
  for (size_t i = 0; i < row.size(); ++i) {
    if (i) out << sep;
    writeField(out, row[i], sep);
  }
  out << '\n';
}
}  // namespace

void writeCsv(std::ostream& out, const CsvRow& header, const std::vector<CsvRow>& rows, char separator) {
  writeRow(out, header, separator);
  for (const auto& r : rows) writeRow(out, r, separator);
}

std::string csvText(const CsvRow& header, const std::vector<CsvRow>& rows, char separator) {
  std::ostringstream s;
  writeCsv(s, header, rows, separator);
  return s.str();
}

bool writeCsvFile(const std::string& path, const CsvRow& header, const std::vector<CsvRow>& rows, std::string* error,
                  char separator) {
  return detail::writeFileAtomically(path, csvText(header, rows, separator), error);
}

bool parseCsv(const std::string& text, std::vector<CsvRow>& rows, char separator) {
  rows.clear();
  CsvRow row;
  std::string field;
  bool quoted = false, any = false;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (quoted) {
      if (c == '"' && i + 1 < text.size() && text[i + 1] == '"') {
        field += '"';
        ++i;
      } else if (c == '"') {
        quoted = false;
      } else {
        field += c;
      }
      continue;
    }
    if (c == '"') {
      quoted = true;
      any = true;
    } else if (c == separator) {
      row.push_back(field);
      field.clear();
      any = true;
    } else if (c == '\n') {
      row.push_back(field);
      rows.push_back(row);
      row.clear();
      field.clear();
      any = false;
    } else if (c != '\r') {
      field += c;
      any = true;
    }
  }
  if (quoted) return false;
  if (any) {
    row.push_back(field);
    rows.push_back(row);
  }
  return true;
}

}  // namespace Merivane::IO
