// SPDX-License-Identifier: Apache-2.0
#include "route_option.h"

#include <charconv>
#include <memory>

#include "host/address_text.h"
#include "host/near_word.h"
#include "host/output.h"
#include "json_line.h"
#include "route_reader.h"

namespace polctl {

namespace {

const std::vector<std::string>& names() {
  static const std::vector<std::string> all = {
      "type",  "prefix", "vpn",   "tag",   "preference", "domain",     "site",
      "group", "tloc",   "color", "encap", "origin",     "originator", "carrier"};
  return all;
}

// Makes the same fields as a JSON object would, and the object.
class LineMaker {
 public:
  void add(const NamedValue& given) {
    bool known = false;
    for (const std::string& each : names()) known = known || each == given.name;
    if (!known) {
      std::vector<std::string> near = near_words(given.name, names());
      std::string hint = near.empty() ? "" : ", did you mean " + near.front() + "?";
      fail(given.column, fmt::format("unknown name {}{}", in_quotes(given.name), hint),
           joined(names(), ", "));
    }
    if (given.value.empty()) return;
    if (given.name == "group") return add_group(given);
    if (given.name == "tloc" || given.name == "color" || given.name == "encap") {
      return add_tloc(given);
    }
    if (given.name == "origin" && given.value.find('/') != std::string_view::npos) {
      return add_origin(given);
    }
    for (const JsonField& each : plain_) {
      if (each.name == given.name) {
        fail(given.column, fmt::format("{} is given twice", in_quotes(given.name)), "each once");
      }
    }
    plain_.push_back(field(given.name, given));
  }

  std::string finish() {
    bool typed = false;
    for (const JsonField& each : plain_) typed = typed || each.name == "type";
    if (!typed) plain_.push_back(field("type", {"type", "route", 1}));
    std::vector<std::string> parts;
    for (const JsonField& each : plain_) parts.push_back(member(each));
    for (auto [name, fields, open, close] :
         {std::tuple("tloc", &tloc_, '{', '}'), std::tuple("groups", &groups_, '[', ']'),
          std::tuple("origin", &origin_, '[', ']')}) {
      if (fields->empty()) continue;
      std::vector<std::string> inner;
      for (const JsonField& each : *fields) inner.push_back(member(each));
      parts.push_back(fmt::format("\"{}\":{}{}{}", name, open, joined(inner, ","), close));
      JsonField container;
      container.name = name;
      container.type = open == '{' ? JsonType::Object : JsonType::Array;
      container.column = fields->front().column;
      plain_.push_back(container);
      plain_.insert(plain_.end(), fields->begin(), fields->end());
    }
    check();
    return fmt::format("{{{}}}", joined(parts, ","));
  }

 private:
  static JsonField field(std::string_view name, const NamedValue& given) {
    JsonField made;
    made.name = name;
    made.column = made.name_column = given.column;
    const char* end = given.value.data() + given.value.size();
    auto [stop, error] = std::from_chars(given.value.data(), end, made.number);
    bool number = error == std::errc() && stop == end;
    made.type = number ? JsonType::Unsigned : JsonType::Text;
    if (!number) made.text = given.value;
    return made;
  }

  static std::string member(const JsonField& each) {
    std::string value =
        each.type == JsonType::Text ? json_string(each.text) : std::to_string(each.number);
    if (each.name.ends_with("[]")) return value;
    size_t dot = each.name.find('.');
    return fmt::format("\"{}\":{}",
                       dot == std::string::npos ? each.name : each.name.substr(dot + 1), value);
  }

  void add_group(const NamedValue& given) { groups_.push_back(field("groups[]", given)); }

  void add_tloc(const NamedValue& given) {
    std::string name = given.name == "tloc" ? "tloc.address" : "tloc." + std::string(given.name);
    tloc_.push_back(field(name, given));
  }

  void add_origin(const NamedValue& given) {
    size_t slash = given.value.find('/');
    origin_.push_back(field("origin[]", {given.name, given.value.substr(0, slash), given.column}));
    origin_.push_back(
        field("origin[]", {given.name, given.value.substr(slash + 1), given.column + slash + 1}));
  }

  // By the reader that the line is for.
  void check() {
    JsonLine json;
    json.fields = plain_;
    json.count = plain_.size();
    struct Question {
      t_pol_route_query query = {};
      t_pol_route_attr attr = {};
    };
    auto scratch = std::make_unique<Question>();
    read_route_fields(json, &scratch->query, &scratch->attr);
  }

  std::vector<JsonField> plain_;
  std::vector<JsonField> tloc_;
  std::vector<JsonField> groups_;
  std::vector<JsonField> origin_;
};

std::vector<NamedValue> split(std::string_view option) {
  std::vector<NamedValue> values;
  for (size_t at = 0; at <= option.size();) {
    std::string_view part = option.substr(at, option.find(',', at) - at);
    size_t equals = part.find('=');
    if (equals == std::string_view::npos) {
      fail(at + 1, fmt::format("{} says no name", in_quotes(part)), "NAME=VALUE");
    }
    values.push_back({part.substr(0, equals), part.substr(equals + 1), at + equals + 2});
    at += part.size() + 1;
  }
  return values;
}

}  // namespace

std::string route_line(const std::vector<NamedValue>& values) {
  LineMaker maker;
  for (const NamedValue& each : values) maker.add(each);
  return maker.finish();
}

std::string route_lines(const std::vector<std::string>& options) {
  std::string lines;
  for (const std::string& option : options) {
    try {
      lines += route_line(split(option)) + "\n";
    } catch (const LineFaultError& error) {
      throw InputError(fmt::format("polctl: error: --route {}, column {}: {} (expected {})",
                                   in_quotes(option), error.fault.column, error.fault.what,
                                   error.fault.expected));
    }
  }
  return lines;
}

}  // namespace polctl
