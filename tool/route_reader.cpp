// SPDX-License-Identifier: Apache-2.0
#include "route_reader.h"

#include <fmt/format.h>

#include <cstring>
#include <iterator>
#include <string_view>

#include "host/address_text.h"
#include "host/input_error.h"
#include "host/near_word.h"
#include "host/output.h"

namespace polctl {

namespace {

constexpr const char* kBlanks = " \t";
constexpr size_t kNoMember = SIZE_MAX;
constexpr const char* kTlocNames = "address, color or encap";
constexpr const char* kRouteNames =
    "type, prefix, vpn, tag, preference, domain, site, groups, tloc, origin, originator or carrier";

struct RouteBuilder {
  t_pol_route_query* query;
  t_pol_route_attr* attr;
  bool has_type = false;
  uint32_t origin_values = 0;
};

uint32_t read_u32(const JsonField& field) {
  return static_cast<uint32_t>(json_number(field, UINT32_MAX));
}

[[noreturn]] void fail_word(const JsonField& field, const char* what,
                            const std::vector<std::string>& known) {
  std::vector<std::string> near = near_words(field.text, known);
  std::string hint = near.empty() ? "" : ", did you mean " + near.front() + "?";
  fail(field.column, fmt::format("unknown {} {}{}", what, in_quotes(field.text), hint),
       joined(known, ", ") + ", or a number");
}

}  // namespace

uint8_t read_word(const JsonField& field, Vocabulary words) {
  uint32_t number = 0;
  if (field.type != JsonType::Text) return static_cast<uint8_t>(json_number(field, UINT8_MAX));
  if (!number_of(words, field.text, &number)) {
    fail_word(field, vocabulary_name(words), words_in(words));
  }
  return static_cast<uint8_t>(number);
}

namespace {

// The fault's column counts within the text; escapes before it in the line are not accounted for.
[[noreturn]] void fail_in_text(const JsonField& field, LineFault fault) {
  fault.column += field.column;  // the quote before the text makes up for both counting from 1
  throw LineFaultError(std::move(fault));
}

t_ipaddr read_address(const JsonField& field) {
  t_ipaddr address = {};
  LineFault fault;
  if (!parse_address(json_text(field, "an address in quotes"), &address, &fault)) {
    fail_in_text(field, std::move(fault));
  }
  return address;
}

void read_tloc_address(const JsonField& field, t_tloc_id* tloc) {
  t_ipaddr address = read_address(field);
  tloc->family = address.family;
  memcpy(&tloc->addr, &address.addr, sizeof tloc->addr);
}

void read_type(const JsonField& field, RouteBuilder& route) {
  constexpr const char* kExpected = "\"route\", \"tloc\" or \"service\"";
  const std::string& text = json_text(field, kExpected);
  if (text == "route") {
    route.query->match_type = POL_MATCH_ROUTE;
  } else if (text == "tloc") {
    route.query->match_type = POL_MATCH_TLOC;
  } else if (text == "service") {
    route.query->match_type = POL_MATCH_SERVICE;
  } else {
    fail(field.column, fmt::format("unknown type {}", in_quotes(text)), kExpected);
  }
  route.has_type = true;
}

void read_prefix(const JsonField& field, RouteBuilder& route) {
  LineFault fault;
  if (!parse_prefix(json_text(field, "a prefix in quotes"), &route.query->prefix, &fault)) {
    fail_in_text(field, std::move(fault));
  }
}

void read_vpn(const JsonField& field, RouteBuilder& route) {
  route.query->vpn = json_number(field, UINT64_MAX);
}

void read_tag(const JsonField& field, RouteBuilder& route) {
  route.attr->tag = read_u32(field);
  route.attr->present |= POL_ATTR_TAG;
}

void read_preference(const JsonField& field, RouteBuilder& route) {
  route.attr->preference = read_u32(field);
  route.attr->present |= POL_ATTR_PREF;
}

void read_domain(const JsonField& field, RouteBuilder& route) {
  route.attr->domain = read_u32(field);
  route.attr->present |= POL_ATTR_DOMAIN;
}

void read_site(const JsonField& field, RouteBuilder& route) {
  route.attr->site = read_u32(field);
  route.attr->present |= POL_ATTR_SITE;
}

void read_groups(const JsonField& field, RouteBuilder& route) {
  json_expect(field, JsonType::Array, "an array of numbers");
  route.attr->present |= POL_ATTR_GROUP;
}

void read_group(const JsonField& field, RouteBuilder& route) {
  if (route.attr->group_count == POL_MAX_GROUP) {
    fail(field.column, "too many groups", fmt::format("at most {}", POL_MAX_GROUP));
  }
  route.attr->group[route.attr->group_count++] = read_u32(field);
}

void read_tloc(const JsonField& field, RouteBuilder& route) {
  json_expect(field, JsonType::Object, "an object with address, color and encap");
  route.attr->present |= POL_ATTR_TLOC;
}

void read_tloc_address_member(const JsonField& field, RouteBuilder& route) {
  read_tloc_address(field, &route.attr->tloc);
}

void read_tloc_color(const JsonField& field, RouteBuilder& route) {
  route.attr->tloc.color = read_word(field, Vocabulary::kColor);
}

void read_tloc_encap(const JsonField& field, RouteBuilder& route) {
  route.attr->tloc.encap = read_word(field, Vocabulary::kEncap);
}

constexpr const char* kOriginForm = "a word, or an array of a protocol and a sub-type";

void read_origin(const JsonField& field, RouteBuilder& route) {
  route.attr->present |= POL_ATTR_ORIGIN;
  if (field.type != JsonType::Text) return json_expect(field, JsonType::Array, kOriginForm);
  Origin origin = {};
  if (!origin_of(field.text, &origin)) {
    fail(field.column, fmt::format("unknown origin {}", in_quotes(field.text)),
         joined(origin_words(), ", ") + ", or an array of two numbers");
  }
  route.attr->origin_protocol = origin.protocol;
  route.attr->origin_subtype = origin.subtype;
  route.origin_values = 2;
}

void read_origin_value(const JsonField& field, RouteBuilder& route) {
  if (route.origin_values == 2) fail(field.column, "too many values in origin", kOriginForm);
  uint8_t value = static_cast<uint8_t>(json_number(field, UINT8_MAX));
  (route.origin_values++ == 0 ? route.attr->origin_protocol : route.attr->origin_subtype) = value;
}

void read_originator(const JsonField& field, RouteBuilder& route) {
  route.attr->originator = read_address(field);
  route.attr->present |= POL_ATTR_ORIGINATOR;
}

void read_carrier(const JsonField& field, RouteBuilder& route) {
  route.attr->carrier = read_word(field, Vocabulary::kCarrier);
  route.attr->present |= POL_ATTR_CARRIER;
}

struct Member {
  std::string_view name;
  void (*read)(const JsonField& field, RouteBuilder& route);
};

constexpr Member kRouteMembers[] = {
    {"type", read_type},
    {"prefix", read_prefix},
    {"vpn", read_vpn},
    {"tag", read_tag},
    {"preference", read_preference},
    {"domain", read_domain},
    {"site", read_site},
    {"groups", read_groups},
    {"groups[]", read_group},
    {"tloc", read_tloc},
    {"tloc.address", read_tloc_address_member},
    {"tloc.color", read_tloc_color},
    {"tloc.encap", read_tloc_encap},
    {"origin", read_origin},
    {"origin[]", read_origin_value},
    {"originator", read_originator},
    {"carrier", read_carrier},
};

// Programs write their members in one order: looking on from the last one found finds the next at
// once.
size_t find_member(std::string_view name, size_t last) {
  for (size_t i = 0; i < std::size(kRouteMembers); ++i) {
    size_t at = (last + i) % std::size(kRouteMembers);
    if (kRouteMembers[at].name == name) return at;
  }
  return kNoMember;
}

const JsonField* find_field(const JsonLine& json, std::string_view name) {
  for (size_t i = 0; i < json.count; ++i) {
    if (json.fields[i].name == name) return &json.fields[i];
  }
  return nullptr;
}

uint16_t read_service(const JsonField& field) { return read_word(field, Vocabulary::kService); }

}  // namespace

void read_route_fields(const JsonLine& json, t_pol_route_query* query, t_pol_route_attr* attr) {
  RouteBuilder route = {query, attr};
  size_t member = 0;
  for (size_t i = 0; i < json.count; ++i) {
    const JsonField& field = json.fields[i];
    member = find_member(field.name, member);
    if (member == kNoMember) {
      fail(field.name_column, fmt::format("unknown member {}", in_quotes(field.name)),
           field.name.starts_with("tloc.") ? kTlocNames : kRouteNames);
    }
    kRouteMembers[member].read(field, route);
  }
  if (!route.has_type) {
    fail(1, "no member \"type\"", "\"type\": \"route\", \"tloc\" or \"service\"");
  }
  if ((attr->present & POL_ATTR_TLOC) != 0 && attr->tloc.family == 0) {
    fail(find_field(json, "tloc")->column, "\"tloc\" has no address", "a member \"address\"");
  }
  if ((attr->present & POL_ATTR_ORIGIN) != 0 && route.origin_values != 2) {
    fail(find_field(json, "origin")->column, "\"origin\" has too few values", kOriginForm);
  }
  query->tloc = attr->tloc;
}

void throw_at_line(const LineReader& lines, size_t offset, const LineFault& fault) {
  std::string where =
      fmt::format("{}:{}:{}: error: ", lines.name(), lines.line(), offset + fault.column);
  throw InputError(fault.expected.empty()
                       ? where + fault.what
                       : fmt::format("{}{} (expected {})", where, fault.what, fault.expected));
}

bool next_line_with_text(LineReader* lines, std::string_view* line, size_t* start) {
  while (lines->next(line)) {
    if (lines->overlong()) {
      throw_at_line(*lines, LineReader::kMaxLine,
                    {1, "the line is too long", fmt::format("at most {} bytes", lines->kMaxLine)});
    }
    *start = line->find_first_not_of(kBlanks);
    if (*start != std::string_view::npos && (*line)[*start] != '#') return true;
  }
  return false;
}

bool RouteReader::next(t_pol_route_query* query, t_pol_route_attr* attr) {
  std::string_view line;
  size_t start = 0;
  if (!next_line_with_text(&lines_, &line, &start)) return false;
  *attr = {};
  has_vpn_ = false;
  query->attr = attr;
  std::string_view text = line.substr(start, line.find_last_not_of(kBlanks) + 1 - start);
  if (text[0] == '{') {
    if (fast_.read(text, query, attr, &has_vpn_)) return true;
    *attr = {};
    query->prefix = {};
    query->vpn = 0;
    try {
      split_json_line(text, &json_);
      read_route_fields(json_, query, attr);
      has_vpn_ = find_field(json_, "vpn") != nullptr;
    } catch (const LineFaultError& error) {
      throw_at_line(lines_, start, error.fault);
    }
    return true;
  }
  query->match_type = POL_MATCH_ROUTE;
  LineFault fault;
  if (!parse_prefix(text, &query->prefix, &fault)) {
    if (fault.column == 1) fault.expected += ", or a JSON object";
    throw_at_line(lines_, start, fault);
  }
  return true;
}

void read_tloc_line(std::string_view text, JsonLine* json, ResolvableTloc* tloc) {
  split_json_line(text, json);
  *tloc = {{}, 0, kAnyVpn};
  t_pol_tloc_result_entry& entry = tloc->entry;
  for (size_t i = 0; i < json->count; ++i) {
    const JsonField& field = json->fields[i];
    if (field.name == "address") {
      read_tloc_address(field, &entry.tloc);
    } else if (field.name == "color") {
      entry.tloc.color = read_word(field, Vocabulary::kColor);
    } else if (field.name == "encap") {
      entry.tloc.encap = read_word(field, Vocabulary::kEncap);
    } else if (field.name == "label") {
      entry.label = read_u32(field);
    } else if (field.name == "preference") {
      entry.preference = read_u32(field);
    } else if (field.name == "service") {
      tloc->service = read_service(field);
    } else if (field.name == "vpn") {
      tloc->vpn = read_u32(field);
    } else {
      fail(field.name_column, fmt::format("unknown member {}", in_quotes(field.name)),
           "address, color, encap, label, preference, service or vpn");
    }
  }
  if (entry.tloc.family == 0) fail(1, "no member \"address\"", "the TLOC's address");
}

}  // namespace polctl
