/* SPDX-License-Identifier: Apache-2.0
 *
 * route_reader.h - routes from text: JSON Lines and bare prefixes, mixed.
 *
 * A line that begins with '{' is a JSON object, an empty one and one that begins with '#' are
 * passed over, any other is one prefix and asks about a route. An attribute that a line does not
 * name is not present. A TLOC may leave out its color and encapsulation: they count as 0, as in
 * policy files, which give TLOCs no encapsulation. Where the configuration has words they are taken
 * as well as numbers.
 */
#ifndef TOOL_ROUTE_READER_H
#define TOOL_ROUTE_READER_H

#include <string>

#include "attribute_words.h"
#include "host/input_error.h"
#include "host/tloc_resolver.h"
#include "json_line.h"
#include "line_reader.h"
#include "policy/pol_types.h"
#include "route_json.h"

namespace polctl {

class RouteReader {
 public:
  explicit RouteReader(const std::string& path, const std::string& name = "")
      : lines_(path, name) {}
  /* The routes of a piece, which outlives the reader; messages call its file `name`. */
  RouteReader(const LinePiece& piece, const std::string& name) : lines_(piece, name) {}

  /* Fills the host's part of the query, which the caller has cleared, and all of `attr`. False at
   * the end. Throws InputError naming file, line and column of what is wrong. */
  bool next(t_pol_route_query* query, t_pol_route_attr* attr);

  /* Whether the last route named its VPN. */
  bool has_vpn() const { return has_vpn_; }

  const LineReader& lines() const { return lines_; }

 private:
  LineReader lines_;
  RouteJson fast_;
  JsonLine json_;
  bool has_vpn_ = false;
};

/* The route that the fields of a JSON object describe, for a query that the caller has cleared. Throws
 * LineFaultError. */
void read_route_fields(const JsonLine& json, t_pol_route_query* query, t_pol_route_attr* attr);

/* A JSON object with the members of a TLOC, its label and preference, and the service it offers with
 * the VPN for which it does. Throws LineFaultError. */
void read_tloc_line(std::string_view text, JsonLine* json, ResolvableTloc* tloc);

/* A word of the configuration, or its number. Throws LineFaultError. */
uint8_t read_word(const JsonField& field, Vocabulary words);

/* The next line that holds something, and the offset of its first character that is no blank. */
bool next_line_with_text(LineReader* lines, std::string_view* line, size_t* start);

/* Ends the command: what is wrong with the reader's last line. */
[[noreturn]] void throw_at_line(const LineReader& lines, size_t offset, const LineFault& fault);

}  // namespace polctl

#endif
