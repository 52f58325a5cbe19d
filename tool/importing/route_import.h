/* SPDX-License-Identifier: Apache-2.0
 *
 * route_import.h - routes as other programs write them, turned into the lines that RouteReader takes.
 *
 * Everything that is wrong is found here and told with its place in the file that was given; what comes out
 * is read without a fault. At most kMaxSourceBytes are read.
 */
#ifndef TOOL_IMPORTING_ROUTE_IMPORT_H
#define TOOL_IMPORTING_ROUTE_IMPORT_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/source_file.h"

namespace polctl {

/* json-lines, prefixes, csv, ip-json, mrt: the words of --routes-format. */
std::vector<std::string> route_formats();

/* Each turns a whole file into lines; messages call it `name`. Throw InputError. */
std::string lines_of_prefixes(std::string_view text, const std::string& name);
std::string lines_of_csv(std::string_view text, const std::string& name);
std::string lines_of_ip_json(std::string_view text, const std::string& name);
std::string lines_of_mrt(std::string_view bytes, const std::string& name);

/* A file of routes ("-": standard input) as a path and a name for RouteReader: its own where it has lines
 * already, else a file in memory that lasts as long as this. "" as path stays so. */
class ImportedRoutes {
 public:
  ImportedRoutes(const std::string& format, const std::string& path);

  const std::string& path() const { return path_; }
  const std::string& name() const { return name_; } /* "": the path */

 private:
  std::string path_;
  std::string name_;
  std::optional<MemoryFile> lines_;
};

}  // namespace polctl

#endif
