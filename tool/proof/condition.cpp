// SPDX-License-Identifier: Apache-2.0
#include "condition.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <optional>

#include "host/address_text.h"
#include "host/input_error.h"
#include "host/near_word.h"
#include "host/output.h"
#include "policy/pol_util.h"
#include "tool/attribute_words.h"

namespace polctl {

namespace {

constexpr std::string_view kNot = "not ";

struct FieldRow {
  const char* name;
  Field field;
  uint64_t highest;  // of a number
  uint32_t list;     // the list's type, where it names one
};

constexpr FieldRow kRows[] = {
    {"type", Field::kType, 0, 0},
    {"prefix", Field::kPrefix, 0, 0},
    {"prefix-list", Field::kPrefix, 0, POL_GRAPH_PREFIX_LIST},
    {"vpn", Field::kVpn, UINT64_MAX, 0},
    {"vpn-list", Field::kVpn, 0, POL_GRAPH_VPN_LIST},
    {"tag", Field::kTag, UINT32_MAX, 0},
    {"preference", Field::kPreference, UINT32_MAX, 0},
    {"domain", Field::kDomain, UINT32_MAX, 0},
    {"site", Field::kSite, UINT32_MAX, 0},
    {"site-list", Field::kSite, 0, POL_GRAPH_SITE_LIST},
    {"group", Field::kGroup, UINT32_MAX, 0},
    {"tloc", Field::kTloc, 0, 0},
    {"tloc-list", Field::kTloc, 0, POL_GRAPH_TLOC_LIST},
    {"color", Field::kTloc, UINT8_MAX, 0},
    {"color-list", Field::kTloc, 0, POL_GRAPH_COLOR_LIST},
    {"origin", Field::kOrigin, 0, 0},
    {"originator", Field::kOriginator, 0, 0},
    {"carrier", Field::kCarrier, UINT8_MAX, 0},
};

[[noreturn]] void refuse_at(size_t offset, std::string what, std::string expected) {
  throw LineFaultError({offset + 1, std::move(what), std::move(expected)});
}

std::string near_hint(std::string_view word, const std::vector<std::string>& known) {
  std::vector<std::string> near = near_words(word, known);
  return near.empty() ? "" : ", did you mean " + near.front() + "?";
}

struct Given {
  std::string_view text;  // the value
  size_t offset;          // of it, for messages
};

std::optional<uint64_t> number_in(std::string_view text) {
  uint64_t number = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (text.empty() || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

uint8_t word_or_number(const Given& given, Vocabulary words) {
  uint32_t number = 0;
  if (number_of(words, given.text, &number)) return static_cast<uint8_t>(number);
  auto value = number_in(given.text);
  if (!value || *value > UINT8_MAX) {
    refuse_at(given.offset,
              fmt::format("{} is no {}", in_quotes(given.text), vocabulary_name(words)),
              joined(words_in(words), ", ") + " or a number up to 255");
  }
  return static_cast<uint8_t>(*value);
}

void read_numbers(const Given& given, const FieldRow& row, Atom* atom) {
  size_t dash = given.text.find('-');
  auto low = number_in(given.text.substr(0, dash));
  auto high = dash == std::string_view::npos ? low : number_in(given.text.substr(dash + 1));
  std::string expected = fmt::format("a number up to {}, two with - between them{}", row.highest,
                                     row.field == Field::kVpn ? "" : ", or absent");
  if (!low || !high) {
    refuse_at(given.offset, fmt::format("{} is no value of {}", in_quotes(given.text), row.name),
              expected);
  }
  if (*low > row.highest || *high > row.highest) {
    refuse_at(given.offset, fmt::format("{} is out of range", in_quotes(given.text)), expected);
  }
  if (*low > *high) {
    refuse_at(given.offset, fmt::format("{} is the wrong way round", in_quotes(given.text)),
              expected);
  }
  // A group is there or not: no route is asked for one of a range.
  if (row.field == Field::kGroup && *low != *high) {
    refuse_at(given.offset, fmt::format("{} is no single group", in_quotes(given.text)),
              "a number up to 4294967295");
  }
  atom->kind = *low == *high ? Atom::Kind::kValue : Atom::Kind::kNumbers;
  atom->value.number = *low;
  if (atom->kind == Atom::Kind::kNumbers) atom->high = *high;
}

void read_prefix(const Given& given, Atom* atom) {
  size_t slash = given.text.find('/');
  size_t dash = given.text.find('-', slash == std::string_view::npos ? 0 : slash);
  t_ipprefix prefix = {};
  LineFault fault;
  if (!parse_prefix(given.text.substr(0, dash), &prefix, &fault)) {
    refuse_at(given.offset + fault.column - 1, fault.what,
              fault.expected + ", as 10.0.0.0/8 or 10.0.0.0/8-24");
  }
  const unsigned width = prefix.addr.family == KEL_AF_INET ? 32 : 128;
  std::optional<uint64_t> longest = prefix.len;
  if (dash != std::string_view::npos) longest = number_in(given.text.substr(dash + 1));
  if (!longest || *longest < prefix.len || *longest > width) {
    refuse_at(given.offset + dash + 1, "no length up to which prefixes are meant",
              fmt::format("{} to {}", prefix.len, width));
  }
  atom->kind = Atom::Kind::kPrefixes;
  Value base = value_of(prefix.addr);
  base.length = prefix.len;
  const unsigned beyond = width - prefix.len;
  base.number = beyond == 128 ? Wide{0} : base.number >> beyond << beyond;
  atom->prefixes = {base, prefix.len, static_cast<uint8_t>(*longest)};
}

t_ipaddr read_address(const Given& given) {
  t_ipaddr address = {};
  LineFault fault;
  if (!parse_address(given.text, &address, &fault)) {
    refuse_at(given.offset + fault.column - 1, fault.what, fault.expected);
  }
  return address;
}

void read_tloc(const Given& given, Atom* atom) {
  size_t first = given.text.find(',');
  size_t second = first == std::string_view::npos ? first : given.text.find(',', first + 1);
  if (second == std::string_view::npos) {
    refuse_at(given.offset, "no whole TLOC", "ADDRESS,COLOR,ENCAPSULATION, or absent");
  }
  atom->kind = Atom::Kind::kValue;
  atom->value = value_of(read_address({given.text.substr(0, first), given.offset}));
  Given color = {given.text.substr(first + 1, second - first - 1), given.offset + first + 1};
  Given encap = {given.text.substr(second + 1), given.offset + second + 1};
  atom->value.color = word_or_number(color, Vocabulary::kColor);
  atom->value.encap = word_or_number(encap, Vocabulary::kEncap);
}

void read_origin(const Given& given, Atom* atom) {
  atom->kind = Atom::Kind::kExact;
  Origin origin;
  size_t slash = given.text.find('/');
  auto protocol = number_in(given.text.substr(0, slash));
  auto subtype =
      slash == std::string_view::npos ? std::nullopt : number_in(given.text.substr(slash + 1));
  if (protocol && subtype && *protocol <= UINT8_MAX && *subtype <= UINT8_MAX) {
    origin = {static_cast<uint8_t>(*protocol), static_cast<uint8_t>(*subtype)};
  } else if (!origin_of(given.text, &origin)) {
    refuse_at(given.offset, fmt::format("{} is no origin", in_quotes(given.text)),
              joined(origin_words(), ", ") + ", PROTOCOL/SUB-TYPE, or absent");
  }
  atom->value.number = origin.protocol;
  atom->value.length = origin.subtype;
}

void read_type(const Given& given, Atom* atom) {
  atom->kind = Atom::Kind::kValue;
  for (uint32_t type = POL_MATCH_ROUTE; type <= POL_MATCH_SERVICE; ++type) {
    if (given.text == pol_util_match_type_str(type)) atom->value.number = type;
  }
  if (atom->value.number == 0) {
    refuse_at(given.offset, fmt::format("{} is no type", in_quotes(given.text)),
              "route, tloc or service");
  }
}

void read_list(const Given& given, const FieldRow& row, const Model& model, Atom* atom) {
  const std::string name(given.text);
  atom->kind = Atom::Kind::kList;
  atom->list = model.list(name, row.list);
  if (atom->list != nullptr) return;
  std::vector<std::string> names;
  for (const ListModel& list : model.lists()) {
    if (list.type == row.list) names.push_back(list.name);
  }
  refuse_at(given.offset,
            fmt::format("there is no {} {}{}", row.name, in_quotes(name), near_hint(name, names)),
            names.empty()        ? "one that is configured"
            : names.size() <= 10 ? "one of " + joined(names, ", ")
                                 : fmt::format("one of {} lists", names.size()));
}

const FieldRow& row_of(std::string_view name, size_t offset) {
  std::vector<std::string> names;
  for (const FieldRow& row : kRows) {
    if (name == row.name) return row;
    names.emplace_back(row.name);
  }
  refuse_at(offset, fmt::format("unknown field {}{}", in_quotes(name), near_hint(name, names)),
            joined(names, ", "));
}

}  // namespace

Condition read_condition(std::string_view text, const Model& model) {
  Condition condition;
  size_t at = std::min(text.find_first_not_of(' '), text.size());
  condition.negated = text.substr(at).starts_with(kNot);
  if (condition.negated) at = std::min(text.find_first_not_of(' ', at + kNot.size()), text.size());
  size_t equals = text.find('=', at);
  if (equals == std::string_view::npos) {
    refuse_at(at, fmt::format("{} says nothing of a field", in_quotes(text)), "FIELD=VALUE");
  }
  const FieldRow& row = row_of(text.substr(at, equals - at), at);
  Given given = {text.substr(equals + 1), equals + 1};
  Atom& atom = condition.atom;
  atom.field = row.field;
  const bool always_there =
      row.field == Field::kType || row.field == Field::kVpn || row.field == Field::kGroup;
  if (row.list != 0) {
    read_list(given, row, model, &atom);
  } else if (given.text == "absent" && !always_there) {
    atom.kind = Atom::Kind::kAbsent;
  } else if (row.field == Field::kType) {
    read_type(given, &atom);
  } else if (row.field == Field::kPrefix) {
    read_prefix(given, &atom);
  } else if (row.field == Field::kOrigin) {
    read_origin(given, &atom);
  } else if (row.field == Field::kOriginator) {
    atom.kind = Atom::Kind::kValue;
    atom.value = value_of(read_address(given));
  } else if (std::string_view(row.name) == "tloc") {
    read_tloc(given, &atom);
  } else if (std::string_view(row.name) == "color") {
    atom.kind = Atom::Kind::kColor;
    atom.value.number = word_or_number(given, Vocabulary::kColor);
  } else if (row.field == Field::kCarrier) {
    atom.kind = Atom::Kind::kValue;
    atom.value.number = word_or_number(given, Vocabulary::kCarrier);
  } else {
    read_numbers(given, row, &atom);
  }
  return condition;
}

Conditions::Conditions(const std::vector<std::string>& texts, const Model& model,
                       const std::string& where, RouteSpace* space)
    : space_(space), where_(where), texts_(texts) {
  for (const std::string& text : texts) {
    try {
      Condition condition = read_condition(text, model);
      made_.push_back({space->add(condition.atom), condition.negated});
    } catch (const LineFaultError& error) {
      throw InputError(fmt::format("{}: {}, at column {} of {} (expected {})", where,
                                   error.fault.what, error.fault.column, in_quotes(text),
                                   error.fault.expected));
    }
  }
}

RouteSet Conditions::set(const RouteSet& universe) const {
  RouteSet routes = universe;
  for (const Made& made : made_) {
    const RouteSet& atom = space_->atom(made.atom);
    routes = made.negated ? routes - atom : routes & atom;
  }
  if (!routes.empty()) return routes;
  throw InputError(
      fmt::format("{}: there can be no such route, whatever the policy: {} (expected "
                  "conditions that can hold together)",
                  where_, joined(texts_, " and ")));
}

Bounds read_bounds(const std::vector<std::string>& limits) {
  Bounds bounds;
  for (const std::string& text : limits) {
    size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
    auto number = number_in(std::string_view(text).substr(0, digits));
    const std::string unit = text.substr(digits);
    constexpr uint64_t kMostSeconds = 86'400;
    constexpr uint64_t kMostMegabytes = 65'536;
    const bool time = unit == "s";
    if (!number || *number == 0 || (!time && unit != "MB") ||
        *number > (time ? kMostSeconds : kMostMegabytes)) {
      throw InputError(
          fmt::format("polctl: error: --limit: {} is no bound (expected 1s to {}s, or 1MB to {}MB)",
                      in_quotes(text), kMostSeconds, kMostMegabytes));
    }
    if (time) {
      bounds.time = std::chrono::seconds(*number);
    } else {
      bounds.megabytes = static_cast<uint32_t>(*number);
    }
  }
  return bounds;
}

}  // namespace polctl
