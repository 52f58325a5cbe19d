// SPDX-License-Identifier: Apache-2.0
//
// The one source that includes simdjson, which is large. Its on-demand parser looks at what it is asked
// for alone: every member is asked for, and whatever it or this does not know ends the reading.
#include "route_json.h"

#include <simdjson.h>

#include <cstring>
#include <iterator>
#include <limits>

#include "attribute_words.h"
#include "host/address_text.h"
#include "line_reader.h"

namespace polctl {

static_assert(LineReader::kBeyond >= simdjson::SIMDJSON_PADDING);

namespace {

using simdjson::ondemand::array;
using simdjson::ondemand::object;
using simdjson::ondemand::value;

struct Route {
  t_pol_route_query* query;
  t_pol_route_attr* attr;
};

template <typename Number>
bool read_number(value& given, Number* to) {
  uint64_t number = 0;
  if (given.get_uint64().get(number) != simdjson::SUCCESS) return false;
  if (number > std::numeric_limits<Number>::max()) return false;
  *to = static_cast<Number>(number);
  return true;
}

bool read_attribute(value& given, const Route& route, uint32_t bit, uint32_t* to) {
  route.attr->present |= bit;
  return read_number(given, to);
}

// False, and nothing of it is used up, when it is no text.
bool is_text(value& given) {
  simdjson::ondemand::json_type type;
  return given.type().get(type) == simdjson::SUCCESS &&
         type == simdjson::ondemand::json_type::string;
}

bool read_word(value& given, Vocabulary words, uint8_t* to) {
  if (!is_text(given)) return read_number(given, to);
  std::string_view word;
  uint32_t number = 0;
  if (given.get_string().get(word) != simdjson::SUCCESS) return false;
  if (!number_of(words, word, &number)) return false;
  *to = static_cast<uint8_t>(number);
  return true;
}

bool read_address(value& given, t_ipaddr* address) {
  std::string_view text;
  LineFault fault;
  return given.get_string().get(text) == simdjson::SUCCESS && parse_address(text, address, &fault);
}

bool read_type(value& given, const Route& route) {
  std::string_view text;
  if (given.get_string().get(text) != simdjson::SUCCESS) return false;
  route.query->match_type = text == "route"     ? POL_MATCH_ROUTE
                            : text == "tloc"    ? POL_MATCH_TLOC
                            : text == "service" ? POL_MATCH_SERVICE
                                                : 0;
  return route.query->match_type != 0;
}

bool read_prefix(value& given, const Route& route) {
  std::string_view text;
  LineFault fault;
  return given.get_string().get(text) == simdjson::SUCCESS &&
         parse_prefix(text, &route.query->prefix, &fault);
}

bool read_vpn(value& given, const Route& route) { return read_number(given, &route.query->vpn); }

bool read_tag(value& given, const Route& route) {
  return read_attribute(given, route, POL_ATTR_TAG, &route.attr->tag);
}

bool read_preference(value& given, const Route& route) {
  return read_attribute(given, route, POL_ATTR_PREF, &route.attr->preference);
}

bool read_domain(value& given, const Route& route) {
  return read_attribute(given, route, POL_ATTR_DOMAIN, &route.attr->domain);
}

bool read_site(value& given, const Route& route) {
  return read_attribute(given, route, POL_ATTR_SITE, &route.attr->site);
}

// At most `most` numbers; how many there are, or more than that.
template <typename Number>
size_t read_numbers(value& given, Number* to, size_t most) {
  array numbers;
  if (given.get_array().get(numbers) != simdjson::SUCCESS) return most + 1;
  size_t count = 0;
  for (auto each : numbers) {
    value element;
    if (each.get(element) != simdjson::SUCCESS || count == most) return most + 1;
    if (!read_number(element, &to[count++])) return most + 1;
  }
  return count;
}

bool read_groups(value& given, const Route& route) {
  route.attr->present |= POL_ATTR_GROUP;
  size_t count = read_numbers(given, route.attr->group, POL_MAX_GROUP);
  route.attr->group_count = static_cast<uint32_t>(count);
  return count <= POL_MAX_GROUP;
}

bool read_origin(value& given, const Route& route) {
  uint8_t pair[2];
  route.attr->present |= POL_ATTR_ORIGIN;
  if (is_text(given)) {
    std::string_view word;
    Origin origin = {};
    if (given.get_string().get(word) != simdjson::SUCCESS) return false;
    if (!origin_of(word, &origin)) return false;
    route.attr->origin_protocol = origin.protocol;
    route.attr->origin_subtype = origin.subtype;
    return true;
  }
  if (read_numbers(given, pair, std::size(pair)) != std::size(pair)) return false;
  route.attr->origin_protocol = pair[0];
  route.attr->origin_subtype = pair[1];
  return true;
}

bool read_originator(value& given, const Route& route) {
  route.attr->present |= POL_ATTR_ORIGINATOR;
  return read_address(given, &route.attr->originator);
}

bool read_carrier(value& given, const Route& route) {
  route.attr->present |= POL_ATTR_CARRIER;
  return read_word(given, Vocabulary::kCarrier, &route.attr->carrier);
}

bool read_tloc_address(value& given, const Route& route) {
  t_ipaddr address = {};
  if (!read_address(given, &address)) return false;
  t_tloc_id& tloc = route.attr->tloc;
  tloc.family = address.family;
  memcpy(&tloc.addr, &address.addr, sizeof tloc.addr);
  return true;
}

bool read_tloc_color(value& given, const Route& route) {
  return read_word(given, Vocabulary::kColor, &route.attr->tloc.color);
}

bool read_tloc_encap(value& given, const Route& route) {
  return read_word(given, Vocabulary::kEncap, &route.attr->tloc.encap);
}

struct Member {
  std::string_view name;
  bool (*read)(value& given, const Route& route);
};

constexpr Member kTlocMembers[] = {
    {"address", read_tloc_address}, {"color", read_tloc_color}, {"encap", read_tloc_encap}};

// All members by a table; `seen` has a bit for each that was there.
template <size_t kCount>
bool read_members(object& from, const Member (&members)[kCount], const Route& route,
                  uint32_t* seen) {
  *seen = 0;
  size_t at =
      0;  // programs write members in one order: the next one comes after the last one found
  for (auto field : from) {
    std::string_view name;
    value given;
    if (field.unescaped_key().get(name) != simdjson::SUCCESS) return false;
    if (field.value().get(given) != simdjson::SUCCESS) return false;
    size_t tries = 0;
    while (tries < kCount && members[at].name != name) {
      at = at + 1 < kCount ? at + 1 : 0;
      ++tries;
    }
    if (tries == kCount || (*seen & 1u << at) != 0) return false;
    *seen |= 1u << at;
    if (!members[at].read(given, route)) return false;
  }
  return true;
}

bool read_tloc(value& given, const Route& route) {
  object tloc;
  uint32_t seen = 0;
  route.attr->present |= POL_ATTR_TLOC;
  return given.get_object().get(tloc) == simdjson::SUCCESS &&
         read_members(tloc, kTlocMembers, route, &seen) && route.attr->tloc.family != 0;
}

constexpr Member kRouteMembers[] = {
    {"type", read_type},
    {"prefix", read_prefix},
    {"vpn", read_vpn},
    {"tag", read_tag},
    {"site", read_site},
    {"preference", read_preference},
    {"domain", read_domain},
    {"groups", read_groups},
    {"tloc", read_tloc},
    {"origin", read_origin},
    {"originator", read_originator},
    {"carrier", read_carrier},
};
constexpr uint32_t kTypeSeen = 1u << 0;
constexpr uint32_t kVpnSeen = 1u << 2;
static_assert(kRouteMembers[0].read == read_type && kRouteMembers[2].read == read_vpn);

}  // namespace

struct RouteJson::Parser {
  simdjson::ondemand::parser parser;
};

RouteJson::RouteJson() : parser_(std::make_unique<Parser>()) {}
RouteJson::~RouteJson() = default;

bool RouteJson::read(std::string_view text, t_pol_route_query* query, t_pol_route_attr* attr,
                     bool* has_vpn) {
  simdjson::ondemand::document document;
  object members;
  uint32_t seen = 0;
  simdjson::padded_string_view padded(text, text.size() + LineReader::kBeyond);
  if (parser_->parser.iterate(padded).get(document) != simdjson::SUCCESS) return false;
  if (document.get_object().get(members) != simdjson::SUCCESS) return false;
  if (!read_members(members, kRouteMembers, {query, attr}, &seen)) return false;
  const char* behind = nullptr;  // there is no place behind the end
  if (document.current_location().get(behind) != simdjson::OUT_OF_BOUNDS) return false;
  if ((seen & kTypeSeen) == 0) return false;
  *has_vpn = (seen & kVpnSeen) != 0;
  query->tloc = attr->tloc;
  return true;
}

}  // namespace polctl
