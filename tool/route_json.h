/* SPDX-License-Identifier: Apache-2.0
 *
 * route_json.h - routes as JSON, read fast where nothing is wrong with them.
 */
#ifndef TOOL_ROUTE_JSON_H
#define TOOL_ROUTE_JSON_H

#include <memory>
#include <string_view>

#include "policy/pol_types.h"

namespace polctl {

/* Reads what RouteReader takes, in its usual forms. It says nothing of faults and of rarer forms: the
 * reader reads the line again, and tells. */
class RouteJson {
 public:
  RouteJson();
  ~RouteJson();

  /* False when the line is left to the reader; then what query and attr hold means nothing. REQUIRES:
   * LineReader::kBeyond bytes behind the text can be read; query and attr are cleared. */
  bool read(std::string_view text, t_pol_route_query* query, t_pol_route_attr* attr, bool* has_vpn);

 private:
  struct Parser;
  std::unique_ptr<Parser> parser_;
};

}  // namespace polctl

#endif
