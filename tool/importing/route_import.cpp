// SPDX-License-Identifier: Apache-2.0
#include "route_import.h"

#include <fmt/format.h>

#include "host/address_text.h"
#include "host/input_error.h"
#include "tool/line_reader.h"

namespace polctl {

namespace {

struct Format {
  const char* word;
  std::string (*lines)(std::string_view text, const std::string& name); /* null: they are lines */
};

constexpr Format kFormats[] = {{"json-lines", nullptr},
                               {"prefixes", lines_of_prefixes},
                               {"csv", lines_of_csv},
                               {"ip-json", lines_of_ip_json},
                               {"mrt", lines_of_mrt}};

}  // namespace

std::vector<std::string> route_formats() {
  std::vector<std::string> words;
  for (const Format& each : kFormats) words.emplace_back(each.word);
  return words;
}

std::string lines_of_prefixes(std::string_view text, const std::string& name) {
  std::string lines;
  for (uint64_t number = 1; !text.empty(); ++number) {
    size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    size_t start = line.find_first_not_of(" \t\r");
    if (start == std::string_view::npos || line[start] == '#') continue;
    std::string_view word = line.substr(start, line.find_last_not_of(" \t\r") + 1 - start);
    t_ipprefix prefix = {};
    LineFault fault;
    if (!parse_prefix(word, &prefix, &fault)) {
      throw InputError(fmt::format("{}:{}:{}: error: {} (expected {})", name, number,
                                   start + fault.column, fault.what, fault.expected));
    }
    lines += word;
    lines += '\n';
  }
  return lines;
}

ImportedRoutes::ImportedRoutes(const std::string& format, const std::string& path) : path_(path) {
  if (path.empty()) return;
  for (const Format& each : kFormats) {
    if (each.word != format || each.lines == nullptr) continue;
    std::string name = path == "-" ? "<stdin>" : path;
    lines_.emplace(each.lines(read_whole(path, kMaxSourceBytes, "a file of routes"), name));
    path_ = lines_->path();
    name_ = name;
  }
}

}  // namespace polctl
