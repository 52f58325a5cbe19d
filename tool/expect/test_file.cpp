// SPDX-License-Identifier: Apache-2.0
#include "test_file.h"

#include <fmt/format.h>

#include <cstring>

#include "host/address_text.h"
#include "tool/attribute_words.h"

namespace polctl {

namespace {

constexpr const char* kExpected = "what is expected of the answer, or what is never to be";
constexpr size_t kTestDepth = 3;  // "expect", its lists, what is in those
constexpr const char* kBlanks = " \t";

[[noreturn]] void fail(const JsonField& field, std::string what, std::string expected) {
  throw LineFaultError({field.column, std::move(what), std::move(expected)});
}

uint32_t read_u32(const JsonField& field) {
  return static_cast<uint32_t>(json_number(field, UINT32_MAX));
}

// One of two words.
uint32_t read_either(const JsonField& field, const char* first, const char* second) {
  std::string expected = fmt::format("\"{}\" or \"{}\"", first, second);
  const std::string& word = json_text(field, expected.c_str());
  if (word == first) return 1;
  if (word == second) return 2;
  fail(field, fmt::format("unknown word {}", in_quotes(word)), expected);
}
static_assert(POL_ACCEPT == 1 && POL_REJECT == 2 && POL_DIR_IN == 1 && POL_DIR_OUT == 2);

void read_number(const JsonField& field, ExpectedNumber* number) {
  number->looked_at = true;
  if (field.type != JsonType::Null) number->value = read_u32(field);
}

// The fields of "expect", in the order in which they stand.
class ExpectReader {
 public:
  explicit ExpectReader(Expected* expected) : expected_(*expected) {}

  void read(const JsonField& field) {
    std::string_view name = field.name;
    if (name == "expect") return json_expect(field, JsonType::Object, "an object");
    any_ = true;
    name.remove_prefix(strlen("expect."));
    if (name == "action") {
      expected_.action = read_either(field, "accept", "reject");
    } else if (name == "sequence") {
      read_number(field, &expected_.sequence);
    } else if (name == "set" || name.starts_with("set.")) {
      read_set(field, name);
    } else if (name.starts_with("tlocs")) {
      read_tlocs(field, name);
    } else if (name.starts_with("vpns")) {
      read_vpns(field, name);
    } else {
      unknown(field, "action, sequence, set, tlocs or vpns");
    }
  }

  void finish(const JsonField& expect) {
    if (!any_) fail(expect, "nothing is expected", "action, sequence, set, tlocs or vpns");
    // Of an empty set, as answers have it, nothing else can be meant.
    if (set_ && !in_set_) expected_.tag.looked_at = expected_.preference.looked_at = true;
    for (const ExpectedTloc& each : expected_.tlocs.value_or(std::vector<ExpectedTloc>())) {
      if (each.tloc.family == 0) fail(expect, "a TLOC has no address", "a member \"address\"");
    }
    if (half_range_) fail(expect, "a range of VPNs has one end", "a number, or an array of two");
  }

 private:
  [[noreturn]] static void unknown(const JsonField& field, const char* known) {
    throw LineFaultError(
        {field.name_column, fmt::format("unknown member {}", in_quotes(field.name)), known});
  }

  void read_set(const JsonField& field, std::string_view name) {
    if (name == "set") {
      set_ = true;
      return json_expect(field, JsonType::Object, "an object with tag or preference");
    }
    in_set_ = true;
    if (name == "set.tag") return read_number(field, &expected_.tag);
    if (name == "set.preference") return read_number(field, &expected_.preference);
    unknown(field, "tag or preference");
  }

  void read_tlocs(const JsonField& field, std::string_view name) {
    constexpr const char* kMembers = "address, color, encap, label or preference";
    if (name == "tlocs") {
      json_expect(field, JsonType::Array, "an array of TLOCs");
      expected_.tlocs.emplace();
      return;
    }
    if (name == "tlocs[]") {
      json_expect(field, JsonType::Object, "an object with an address");
      expected_.tlocs->emplace_back();
      return;
    }
    if (!name.starts_with("tlocs[].")) unknown(field, "action, sequence, set, tlocs or vpns");
    ExpectedTloc& tloc = expected_.tlocs->back();
    name.remove_prefix(strlen("tlocs[]."));
    if (name == "address") {
      t_ipaddr address = {};
      LineFault fault;
      if (!parse_address(json_text(field, "an address in quotes"), &address, &fault)) {
        fault.column += field.column;
        throw LineFaultError(std::move(fault));
      }
      tloc.tloc.family = address.family;
      memcpy(&tloc.tloc.addr, &address.addr, sizeof tloc.tloc.addr);
    } else if (name == "color") {
      tloc.color = read_word(field, Vocabulary::kColor);
    } else if (name == "encap") {
      tloc.encap = read_word(field, Vocabulary::kEncap);
    } else if (name == "label") {
      tloc.label = read_u32(field);
    } else if (name == "preference") {
      tloc.preference = read_u32(field);
    } else {
      unknown(field, kMembers);
    }
  }

  void read_vpns(const JsonField& field, std::string_view name) {
    constexpr const char* kForm = "a number, or an array of two";
    if (name == "vpns") {
      json_expect(field, JsonType::Array, "an array of VPNs");
      expected_.vpns.emplace();
    } else if (name == "vpns[]") {
      if (half_range_) fail(field, "a range of VPNs has one end", kForm);
      ends_ = 0;
      if (field.type == JsonType::Array) {
        half_range_ = true;
        expected_.vpns->emplace_back();
        return;
      }
      uint64_t vpn = json_number(field, UINT64_MAX);
      expected_.vpns->emplace_back(vpn, vpn);
    } else if (name == "vpns[][]") {
      if (++ends_ > 2) fail(field, "a range of VPNs has more than two ends", kForm);
      uint64_t vpn = json_number(field, UINT64_MAX);
      (ends_ == 1 ? expected_.vpns->back().first : expected_.vpns->back().second) = vpn;
      half_range_ = ends_ == 1;
    } else {
      unknown(field, "action, sequence, set, tlocs or vpns");
    }
  }

  Expected& expected_;
  bool any_ = false;
  bool set_ = false;
  bool in_set_ = false;
  bool half_range_ = false;
  int ends_ = 0;
};

void read_never(const JsonField& field, std::optional<Never>* never) {
  if (field.name == "never") {
    json_expect(field, JsonType::Object, "an object");
    never->emplace();
  } else if (field.name == "never.action") {
    (*never)->action = read_either(field, "accept", "reject");
  } else if (field.name == "never.sequence") {
    read_number(field, &(*never)->sequence);
  } else if (field.name == "never.where") {
    json_expect(field, JsonType::Array, "an array of conditions");
  } else if (field.name == "never.where[]") {
    (*never)->where.push_back(json_text(field, "a condition in quotes"));
  } else {
    throw LineFaultError({field.name_column,
                          fmt::format("unknown member {}", in_quotes(field.name)),
                          "action, sequence or where"});
  }
}

// A statement is about all routes: of one it says nothing.
void require_statement(const TestCase& test, const JsonLine& route, const JsonField& never,
                       const JsonField* expect) {
  if (expect != nullptr) fail(*expect, "both \"never\" and \"expect\"", "one of them");
  if (route.count > 0) {
    const JsonField& first = route.fields.front();
    throw LineFaultError({first.name_column,
                          fmt::format("a member {} beside \"never\"", in_quotes(first.name)),
                          "policy, kind, direction and name"});
  }
  if (!test.never->action && !test.never->sequence.looked_at && test.never->where.empty()) {
    fail(never, "nothing is denied", "action, sequence or where");
  }
}

const JsonField* find_field(const JsonLine& json, std::string_view name) {
  for (size_t i = 0; i < json.count; ++i) {
    if (json.fields[i].name == name) return &json.fields[i];
  }
  return nullptr;
}

}  // namespace

void TestFile::read(TestCase* test, t_pol_route_query* query, t_pol_route_attr* attr) {
  ExpectReader expect(&test->expected);
  route_.count = 0;
  for (size_t i = 0; i < all_.count; ++i) {
    const JsonField& field = all_.fields[i];
    if (field.name == "name") {
      test->name = json_text(field, "a text");
    } else if (field.name == "policy") {
      test->policy = json_text(field, "a policy's name");
    } else if (field.name == "kind") {
      test->kind =
          read_either(field, "route", "membership") == 1 ? POL_KIND_ROUTE : POL_KIND_MEMBERSHIP;
    } else if (field.name == "direction") {
      test->direction = read_either(field, "in", "out");
    } else if (field.name == "expect" || field.name.starts_with("expect.")) {
      expect.read(field);
    } else if (field.name == "never" || field.name.starts_with("never.")) {
      read_never(field, &test->never);
    } else {
      if (route_.count == route_.fields.size()) route_.fields.emplace_back();
      route_.fields[route_.count++] = field;
    }
  }
  const JsonField* what = find_field(all_, "expect");
  if (!test->never) read_route_fields(route_, query, attr);
  if (test->policy.empty()) {
    throw LineFaultError({1, "no member \"policy\"", "the policy that is asked"});
  }
  if (test->never) return require_statement(*test, route_, *find_field(all_, "never"), what);
  if (what == nullptr) throw LineFaultError({1, "no member \"expect\" or \"never\"", kExpected});
  expect.finish(*what);
  bool of_vpn = query->match_type == POL_MATCH_SERVICE && query->prefix.addr.family == 0 &&
                find_field(route_, "vpn") != nullptr;
  if (test->kind == POL_KIND_MEMBERSHIP && !of_vpn) {
    throw LineFaultError(
        {1, "a membership policy is asked about a VPN alone", "{\"type\":\"service\",\"vpn\":10}"});
  }
}

bool TestFile::next(TestCase* test, t_pol_route_query* query, t_pol_route_attr* attr) {
  std::string_view line;
  if (!next_line_with_text(&lines_, &line, &start_)) return false;
  *test = {};
  test->line = lines_.line();
  test->kind = POL_KIND_ROUTE;
  *attr = {};
  query->attr = attr;
  try {
    split_json_line(line.substr(start_, line.find_last_not_of(kBlanks) + 1 - start_), &all_,
                    kTestDepth);
    read(test, query, attr);
  } catch (const LineFaultError& error) {
    throw_at_line(lines_, start_, error.fault);
  }
  return true;
}

std::string TestFile::place(const char* member) const {
  const JsonField* field = find_field(all_, member);
  return fmt::format("{}:{}:{}", lines_.name(), lines_.line(),
                     start_ + (field != nullptr ? field->column : 1));
}

}  // namespace polctl
