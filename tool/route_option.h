/* SPDX-License-Identifier: Apache-2.0
 *
 * route_option.h - a route written on the command line: prefix=10.1.0.0/16,site=302,tag=5.
 */
#ifndef TOOL_ROUTE_OPTION_H
#define TOOL_ROUTE_OPTION_H

#include <string>
#include <string_view>
#include <vector>

namespace polctl {

/* A route given as names and values, as the line that RouteReader takes for it. A name is that of a
 * member of the line; besides, "group" may come several times, and "tloc", "color" and "encap" are
 * members of the TLOC. What is no number is a word. Values that are empty count as not given. */
struct NamedValue {
  std::string_view name;
  std::string_view value;
  size_t column; /* of the value, for messages */
};
/* Throws LineFaultError. */
std::string route_line(const std::vector<NamedValue>& values);

/* The lines of routes as `--route` has them, each checked. Throws InputError. */
std::string route_lines(const std::vector<std::string>& options);

}  // namespace polctl

#endif
