// SPDX-License-Identifier: Apache-2.0
//
// Routes as comma-separated values (RFC 4180): the first record names the columns, the names are those of
// --route; several groups stand in one cell with blanks between them. An empty cell is an attribute that
// the route does not have.
#include <fmt/format.h>

#include <vector>

#include "host/address_text.h"
#include "host/input_error.h"
#include "route_import.h"
#include "tool/route_option.h"

namespace polctl {

namespace {

struct Cell {
  std::string text;
  uint64_t line;
  size_t column;
};

class CsvReader {
 public:
  CsvReader(std::string_view text, const std::string& name) : rest_(text), name_(name) {
    constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";
    if (rest_.starts_with(kByteOrderMark)) rest_.remove_prefix(kByteOrderMark.size());
  }

  // The next record that is not an empty line. False at the end.
  bool next(std::vector<Cell>* record) {
    do {
      record->clear();
      if (rest_.empty()) return false;
      read(record);
    } while (record->size() == 1 && record->front().text.empty());
    return true;
  }

  [[noreturn]] void fail(const Cell& cell, size_t offset, const std::string& what,
                         const std::string& expected) const {
    throw InputError(fmt::format("{}:{}:{}: error: {} (expected {})", name_, cell.line,
                                 cell.column + offset, what, expected));
  }

 private:
  char take() {
    char c = rest_.front();
    rest_.remove_prefix(1);
    ++column_;
    if (c == '\n') {
      ++line_;
      column_ = 1;
    }
    return c;
  }

  bool at_line_end() const {
    return rest_.empty() || rest_.front() == '\n' || rest_.starts_with("\r\n");
  }

  void read(std::vector<Cell>* record) {
    for (;;) {
      record->push_back({"", line_, column_});
      read_cell(&record->back());
      if (rest_.empty()) return;
      if (rest_.front() == ',') {
        take();
        continue;
      }
      if (rest_.front() == '\r') take();
      if (take() != '\n') fail({"", line_, column_ - 1}, 0, "text behind a cell", "a comma");
      return;
    }
  }

  void read_cell(Cell* cell) {
    if (rest_.empty() || rest_.front() != '"') {
      while (!at_line_end() && rest_.front() != ',') cell->text += take();
      return;
    }
    take();
    for (;;) {
      if (rest_.empty()) fail(*cell, 0, "a quote is not closed", "a second one");
      char c = take();
      if (c != '"') {
        cell->text += c;
        continue;
      }
      if (rest_.empty() || rest_.front() != '"') break;
      cell->text += take();  // two quotes are one
    }
    ++cell->column;
    if (!at_line_end() && rest_.front() != ',') {
      fail({"", line_, column_}, 0, "text behind a quoted cell", "a comma");
    }
  }

  std::string_view rest_;
  const std::string& name_;
  uint64_t line_ = 1;
  size_t column_ = 1;
};

std::string_view trimmed(std::string_view text) {
  size_t first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") + 1 - first);
}

void add_cell(const Cell& heading, const Cell& cell, std::vector<NamedValue>* values) {
  std::string_view name = trimmed(heading.text);
  std::string_view text = trimmed(cell.text);
  bool several = name == "group" || name == "groups";
  if (several) name = "group";
  while (!text.empty()) {
    size_t end = several ? text.find_first_of(" ;") : std::string_view::npos;
    std::string_view value = text.substr(0, end);
    size_t offset = static_cast<size_t>(value.data() - cell.text.data());
    values->push_back({name, value, cell.column + offset});
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    text = trimmed(text);
  }
}

}  // namespace

std::string lines_of_csv(std::string_view text, const std::string& name) {
  CsvReader reader(text, name);
  std::vector<Cell> heading;
  std::vector<Cell> record;
  if (!reader.next(&heading)) {
    throw InputError(name +
                     ": error: there is nothing in it (expected a line with the columns' names)");
  }
  for (const Cell& each : heading) {
    std::string_view column = trimmed(each.text);
    try {
      // An unknown name is told once, where it stands.
      if (column != "groups") route_line({{column, "", 1}});
    } catch (const LineFaultError& error) {
      reader.fail(each, 0, error.fault.what, error.fault.expected);
    }
  }
  std::string lines;
  while (reader.next(&record)) {
    if (record.size() != heading.size()) {
      reader.fail(record.front(), 0, fmt::format("{} cells", record.size()),
                  fmt::format("{}, as there are columns", heading.size()));
    }
    std::vector<NamedValue> values;
    for (size_t i = 0; i < record.size(); ++i) add_cell(heading[i], record[i], &values);
    try {
      lines += route_line(values) + "\n";
    } catch (const LineFaultError& error) {
      // Of a cell that goes over several lines, which no value needs, the column counts from its start.
      reader.fail({"", record.front().line, error.fault.column}, 0, error.fault.what,
                  error.fault.expected);
    }
  }
  return lines;
}

}  // namespace polctl
